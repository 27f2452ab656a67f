#include "simulator/Dump.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <vector>

namespace simulator {

namespace {

bool WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  bool written = false;
  if (file != nullptr) {
    written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = std::fclose(file) == 0 && written;
  }
  if (!written) {
    fmt::print(stderr, "Cannot write the dump {}: {}. Name a file that can be written.\n", path,
               std::generic_category().message(errno));
  }
  return written;
}

}  // namespace

bool DumpMemories(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path) {
  bool written = true;
  for (std::size_t index = 0; index < devices.Size(); ++index) {
    const std::string suffix = devices.Size() == 1 ? "" : "." + std::to_string(index + 1);
    if (!ram_path.empty()) {
      written = WriteFile(ram_path + suffix, devices.At(index).Ram().Contents()) && written;
    }
    if (!flash_path.empty()) {
      written = WriteFile(flash_path + suffix, devices.At(index).Flash().Contents()) && written;
    }
  }
  return written;
}

}  // namespace simulator
