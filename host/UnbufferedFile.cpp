#include "UnbufferedFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace host {

namespace {

std::string Reason() {
  return errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno);
}

}  // namespace

UnbufferedFile::~UnbufferedFile() {
  Close();
}

std::string UnbufferedFile::Open(const std::string& path, const std::string& what, mode_t mode) {
  iName = fmt::format("the {} '{}'", what, path);
  iFile = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode);
  return iFile >= 0
             ? ""
             : fmt::format("cannot write {}: {}. Choose another file after --{}.", iName, Reason(), what);
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
