#include "LogFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <system_error>

namespace host {

namespace {

constexpr mode_t kMode = 0644;

// A stream that owns the descriptor beneath it.
class DescriptorStream final : public std::ostream {
 public:
  explicit DescriptorStream(int descriptor) : std::ostream(nullptr), iBuffer(descriptor, std::ios::out) {
    rdbuf(&iBuffer);
  }

 private:
  __gnu_cxx::stdio_filebuf<char> iBuffer;
};

bool IsLink(const struct stat& status) {
  return S_ISLNK(status.st_mode);
}

bool IsPlanted(const struct stat& status) {
  return IsLink(status) && status.st_uid != geteuid() && status.st_uid != 0;
}

}  // namespace

std::unique_ptr<std::ostream> OpenForAppending(const std::string& path, std::string& fault) {
  struct stat status = {};
  const bool exists = lstat(path.c_str(), &status) == 0;
  if (exists && IsPlanted(status)) {
    fault = fmt::format("'{}' is a link that belongs to another user; it is not followed", path);
    return nullptr;
  }
  // What is no link now must not be one a moment later.
  const int follow = exists && IsLink(status) ? 0 : O_NOFOLLOW;
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | follow, kMode);
  if (file < 0) {
    fault = std::generic_category().message(errno);
    return nullptr;
  }
  return std::make_unique<DescriptorStream>(file);
}

}  // namespace host
