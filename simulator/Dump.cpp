#include "simulator/Dump.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <vector>

#include "simulator/Output.h"

namespace simulator {

namespace {

// Firmware is for its owner alone, and a link that somebody has put there may lead anywhere.
std::FILE* Open(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  return file < 0 ? nullptr : fdopen(file, "wb");
}

constexpr const char* kIsLink = "it is a symbolic link";

bool Refuse(const std::string& path, const std::string& reason) {
  Complain(fmt::format("Cannot write the dump {}: {}. Name a file that can be written.\n", path, reason));
  return false;
}

bool WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* file = Open(path);
  bool written = false;
  if (file != nullptr) {
    written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = std::fclose(file) == 0 && written;
  }
  return written || Refuse(path, errno == ELOOP ? kIsLink : std::generic_category().message(errno));
}

bool IsLink(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// Does something with each file and the memory that it is for. False if that was false for one.
template <typename Action>
bool ForEachDump(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path,
                 Action action) {
  bool done = true;
  for (std::size_t index = 0; index < devices.Size(); ++index) {
    const std::string suffix = devices.Size() == 1 ? "" : "." + std::to_string(index + 1);
    if (!ram_path.empty()) {
      done = action(ram_path + suffix, devices.At(index).Ram()) && done;
    }
    if (!flash_path.empty()) {
      done = action(flash_path + suffix, devices.At(index).Flash()) && done;
    }
  }
  return done;
}

}  // namespace

bool MayBeDumped(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path) {
  return ForEachDump(devices, ram_path, flash_path, [](const std::string& path, const Memory&) {
    return !IsLink(path) || Refuse(path, kIsLink);
  });
}

bool DumpMemories(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path) {
  return ForEachDump(devices, ram_path, flash_path, [](const std::string& path, const Memory& memory) {
    return WriteFile(path, memory.Contents());
  });
}

}  // namespace simulator
