#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

/// The one file through which free space is asked for. While the object lives no other test of this machine,
/// whatever build it belongs to, has it; nothing is there at first and nothing stays.
class ScratchFile {
 public:
  static constexpr char kPath[] = "/tmp/CalculateDiskSpace";

  // The folder itself is the lock: it is there, every user may lock it, and no file has to be left behind.
  ScratchFile() : iFolder(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (iFolder < 0 || flock(iFolder, LOCK_EX) != 0) {
      throw std::runtime_error("cannot lock /tmp");
    }
    std::filesystem::remove_all(kPath);
  }
  ~ScratchFile() {
    std::error_code ignored;
    std::filesystem::remove_all(kPath, ignored);
    close(iFolder);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  static bool IsThere() { return std::filesystem::exists(kPath); }

 private:
  int iFolder;
};
