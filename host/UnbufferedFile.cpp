#include "UnbufferedFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace host {

namespace {

std::string Reason() {
  return errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno);
}

// Empties the file, which nobody may read whom the mode does not name. Returns why it is not fit for that.
std::string Begin(int file, mode_t mode) {
  struct stat status = {};
  if (fstat(file, &status) != 0) {
    return Reason();
  }
  if (S_ISCHR(status.st_mode) && isatty(file) == 0) {
    return "";
  }
  if (!S_ISREG(status.st_mode)) {
    return "it is no regular file";
  }
  if (status.st_uid != geteuid()) {
    return "it belongs to another user";
  }
  return fchmod(file, status.st_mode & mode) == 0 && ftruncate(file, 0) == 0 ? "" : Reason();
}

}  // namespace

UnbufferedFile::~UnbufferedFile() {
  Close();
}

std::string UnbufferedFile::Open(const std::string& path, const std::string& what, mode_t mode) {
  iName = fmt::format("the {} '{}'", what, path);
  // Nothing is emptied, and no pipe or terminal waited for, before it is known what was opened.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
  iFile = open(path.c_str(), kFlags, mode);
  const std::string fault = iFile < 0 ? Reason() : Begin(iFile, mode);
  if (fault.empty()) {
    return "";
  }
  Close();
  return fmt::format("cannot write {}: {}. Choose another file after --{}.", iName, fault, what);
}

void UnbufferedFile::Write(std::string_view bytes) {
  while (iFile >= 0 && !bytes.empty()) {
    const ssize_t count = write(iFile, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      iFault = fmt::format("{} is incomplete: {}. Is the disk full?", iName, Reason());
      Close();
    }
  }
}

void UnbufferedFile::Close() {
  if (iFile >= 0) {
    close(iFile);
    iFile = -1;
  }
}

}  // namespace host
