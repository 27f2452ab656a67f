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

#include "simulator/DumpFiles.h"
#include "simulator/Output.h"

namespace simulator {

namespace {

bool Refuse(const std::string& path, const std::string& reason) {
  Complain(fmt::format("Cannot write the dump {}: {}. Name a file that can be written.\n", path, reason));
  return false;
}

/// Why what the path names must not be written to; empty if it may, or if there is nothing yet.
std::string WhyUnfit(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
    return "";
  }
  return S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is no regular file";
}

// Firmware is for its owner alone, and a link that somebody has put there may lead anywhere. A pipe would
// make whoever opens it, or writes to it, wait.
std::FILE* Open(const std::string& path) {
  const int file =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  struct stat status {};
  if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    return fdopen(file, "wb");
  }
  if (file >= 0) {
    close(file);
  }
  return nullptr;
}

bool WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* file = Open(path);
  bool written = false;
  if (file != nullptr) {
    written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = std::fclose(file) == 0 && written;
  }
  const std::error_code error(errno, std::generic_category());
  const std::string unfit = WhyUnfit(path);
  return written || Refuse(path, unfit.empty() ? error.message() : unfit);
}

/// Does something with each file and the memory that it is for. False if that was false for one.
template <typename Action>
bool ForEachDump(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path,
                 Action action) {
  bool done = true;
  for (std::size_t index = 0; index < devices.Size(); ++index) {
    if (!ram_path.empty()) {
      done = action(DumpFile(ram_path, index, devices.Size()), devices.At(index).Ram()) && done;
    }
    if (!flash_path.empty()) {
      done = action(DumpFile(flash_path, index, devices.Size()), devices.At(index).Flash()) && done;
    }
  }
  return done;
}

}  // namespace

bool MayBeDumped(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path) {
  return ForEachDump(devices, ram_path, flash_path, [](const std::string& path, const Memory&) {
    const std::string unfit = WhyUnfit(path);
    return unfit.empty() || Refuse(path, unfit);
  });
}

bool DumpMemories(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path) {
  return ForEachDump(devices, ram_path, flash_path, [](const std::string& path, const Memory& memory) {
    return WriteFile(path, memory.Contents());
  });
}

}  // namespace simulator
