#include "simulator/DumpFiles.h"

#include <filesystem>
#include <system_error>

namespace simulator {

namespace {

/// The same for each way to name a file, as far as its folders can be looked at.
std::string NameOf(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  const std::filesystem::path real = std::filesystem::weakly_canonical(absolute, error);
  return error ? absolute.lexically_normal().string() : real.string();
}

}  // namespace

std::string DumpFile(const std::string& path, std::size_t index, std::size_t devices) {
  return devices == 1 ? path : path + "." + std::to_string(index + 1);
}

bool AddDumpFiles(const std::string& path, std::size_t devices, std::set<std::string>& files) {
  bool added = true;
  for (std::size_t index = 0; index < devices && !path.empty(); ++index) {
    added = files.insert(NameOf(DumpFile(path, index, devices))).second && added;
  }
  return added;
}

}  // namespace simulator
