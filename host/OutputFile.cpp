#include "OutputFile.h"

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

// Has the file as a run begins with it. Returns why it is not fit for that.
std::string Begin(int file, const OutputKind& kind) {
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
  const bool isReady =
      fchmod(file, status.st_mode & kind.mode) == 0 && (kind.isContinued || ftruncate(file, 0) == 0);
  return isReady ? "" : Reason();
}

}  // namespace

OutputFile::~OutputFile() {
  Close();
}

std::string OutputFile::Open(const std::string& path, const OutputKind& kind) {
  iName = fmt::format("the {} '{}'", kind.name, path);
  // Nothing is emptied, and no pipe or terminal waited for, before it is known what was opened.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
  iFile = open(path.c_str(), kFlags, kind.mode);
  const std::string why = iFile < 0 ? Reason() : Begin(iFile, kind);
  if (why.empty()) {
    return "";
  }
  Close();
  return fmt::format("cannot write {}: {}. Choose another file after {}.", iName, why, kind.option);
}

void OutputFile::Write(std::string_view bytes) {
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

void OutputFile::Close() {
  if (iFile >= 0) {
    close(iFile);
    iFile = -1;
  }
}

int OutputStream::sync() {
  iFile.Write(str());
  str("");
  return iFile.Fault().empty() ? 0 : -1;
}

}  // namespace host
