#include "simulator/Dump.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <vector>

namespace simulator {

namespace {

// Firmware is for its owner alone, and a link that somebody has put there may lead anywhere.
std::FILE* Open(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  return file < 0 ? nullptr : fdopen(file, "wb");
}

std::string Reason() {
  return errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno);
}

bool WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* file = Open(path);
  bool written = false;
  if (file != nullptr) {
    written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = std::fclose(file) == 0 && written;
  }
  if (!written) {
    fmt::print(stderr, "Cannot write the dump {}: {}. Name a file that can be written.\n", path, Reason());
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
