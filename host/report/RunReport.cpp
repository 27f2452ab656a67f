#include "report/RunReport.h"

#include <filesystem>

namespace host::report {

namespace {

constexpr std::string_view kJsonBeginning = "{\n  \"report\": \"peripheralctl\"";
constexpr std::string_view kHtmlBeginning =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta name=\"generator\" content=\"peripheralctl\">\n";

}  // namespace

bool FormatOf(const std::string& file, Format& format) {
  const std::string extension = std::filesystem::path(file).extension().string();
  format = extension == ".json" ? Format::Json : Format::Html;
  return extension == ".json" || extension == ".html" || extension == ".htm";
}

std::string_view BeginningOf(Format format) {
  return format == Format::Json ? kJsonBeginning : kHtmlBeginning;
}

std::string Render(const std::string& file, const trace::Trace& trace, const Faults& errors) {
  Format format = {};
  FormatOf(file, format);
  return format == Format::Json ? JsonReport(trace, errors) : HtmlReport(trace, errors);
}

}  // namespace host::report
