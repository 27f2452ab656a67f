#include "report/RunReport.h"

#include <filesystem>

namespace host::report {

bool FormatOf(const std::string& file, Format& format) {
  const std::string extension = std::filesystem::path(file).extension().string();
  format = extension == ".json" ? Format::Json : Format::Html;
  return extension == ".json" || extension == ".html" || extension == ".htm";
}

}  // namespace host::report
