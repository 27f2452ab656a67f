#include "OutputFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <system_error>

namespace host {

namespace {

constexpr const char* kNoRegularFile = "it is no regular file";

std::string Reason() {
  switch (errno) {
    case ELOOP:
      return "it is a symbolic link";
    case ENXIO:  // a pipe that nobody reads, or a socket
      return kNoRegularFile;
    default:
      return std::generic_category().message(errno);
  }
}

// Why the run must not write there; empty when it may.
std::string WhyUnfit(const struct stat& status) {
  if (S_ISLNK(status.st_mode)) {
    return "it is a symbolic link";
  }
  if (!S_ISREG(status.st_mode)) {
    return kNoRegularFile;
  }
  return status.st_uid == geteuid() ? "" : "it belongs to another user";
}

// Takes everything or nothing, and keeps none of it: no other device does.
bool IsSink(const struct stat& status) {
  constexpr unsigned kMemoryDevices = 1;
  constexpr unsigned kNull = 3;
  constexpr unsigned kFull = 7;
  return S_ISCHR(status.st_mode) && (status.st_rdev == makedev(kMemoryDevices, kNull) ||
                                     status.st_rdev == makedev(kMemoryDevices, kFull));
}

// Has the file as a run begins with it. Returns why it is not fit for that.
std::string Begin(int file, const OutputKind& kind) {
  struct stat status = {};
  if (fstat(file, &status) != 0) {
    return Reason();
  }
  if (IsSink(status)) {
    return "";
  }
  if (std::string why = WhyUnfit(status); !why.empty()) {
    return why;
  }
  const bool isReady =
      fchmod(file, status.st_mode & kind.mode) == 0 && (kind.isContinued || ftruncate(file, 0) == 0);
  return isReady ? "" : Reason();
}

std::string CannotWrite(const std::string& path, const OutputKind& kind, const std::string& why) {
  return why.empty() ? ""
                     : fmt::format("cannot write the {} '{}': {}. Choose another file after {}.", kind.name,
                                   path, why, kind.option);
}

// Returns why the file could not be made; what there is of it is then removed. Without fsync the disk might
// keep the name that it gets, but not the content, when the power is lost.
std::string WriteNew(const std::string& path, mode_t mode, std::string_view content) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  if (file < 0) {
    return Reason();
  }
  const bool isKept = WriteAll(file, content) && (content.empty() || fsync(file) == 0);
  std::string why = isKept ? "" : Reason();
  why = close(file) != 0 && why.empty() ? Reason() : why;
  if (!why.empty()) {
    unlink(path.c_str());
  }
  return why;
}

// A name that nothing else has.
std::string Beside(const std::string& path) {
  std::random_device random;
  return fmt::format("{}.{:08x}", path, random());
}

std::string WhyNoRoom(const std::string& path, mode_t mode) {
  struct stat status = {};
  const bool isThere = lstat(path.c_str(), &status) == 0;
  std::string why = isThere ? WhyUnfit(status) : "";
  const std::string beside = Beside(path);
  why = why.empty() ? WriteNew(beside, mode, "") : why;
  if (!why.empty()) {
    return why;
  }
  unlink(beside.c_str());
  return isThere && unlink(path.c_str()) != 0 ? Reason() : "";
}

}  // namespace

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd room = {file, POLLOUT, 0};
      poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

OutputFile::~OutputFile() {
  Close();
}

std::string OutputFile::Open(const std::string& path, const OutputKind& kind) {
  // Nothing is emptied, and no pipe or terminal waited for, before it is known what was opened.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
  iFile = open(path.c_str(), kFlags, kind.mode);
  const std::string why = iFile < 0 ? Reason() : Begin(iFile, kind);
  if (!why.empty()) {
    Close();
  }
  iName = fmt::format("the {} '{}'", kind.name, path);
  return CannotWrite(path, kind, why);
}

void OutputFile::Write(std::string_view bytes) {
  if (iFile >= 0 && !WriteAll(iFile, bytes)) {
    iFault = fmt::format("{} is incomplete: {}. Is the disk full?", iName, Reason());
    Close();
  }
}

void OutputFile::Close() {
  if (iFile >= 0) {
    close(iFile);
    iFile = -1;
  }
}

std::string MakeRoom(const std::string& path, const OutputKind& kind) {
  return CannotWrite(path, kind, WhyNoRoom(path, kind.mode));
}

std::string WriteWhole(const std::string& path, const OutputKind& kind, const std::string& content) {
  const std::string beside = Beside(path);
  std::string why = WriteNew(beside, kind.mode, content);
  if (why.empty() && rename(beside.c_str(), path.c_str()) != 0) {
    why = Reason();
    unlink(beside.c_str());
  }
  return why.empty() ? "" : fmt::format("there is no {} '{}': {}. Is the disk full?", kind.name, path, why);
}

bool IsMissingOrBegins(const std::string& path, std::string_view beginning) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error))) {
    return true;
  }
  std::ifstream file(path, std::ios::binary);
  std::string begun(beginning.size(), '\0');
  file.read(begun.data(), static_cast<std::streamsize>(begun.size()));
  return file.is_open() && !file.bad() && (file.gcount() == 0 || begun == beginning);
}

int OutputStream::sync() {
  iFile.Write(str());
  str("");
  return iFile.Fault().empty() ? 0 : -1;
}

}  // namespace host
