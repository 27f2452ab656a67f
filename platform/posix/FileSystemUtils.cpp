#include "FileSystemUtils.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>

#include "Descriptor.h"

namespace {

bool Status(const Tdes& path, struct stat& status) {
  return ::stat(AsChar(path.Ptr()), &status) == 0;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Opens a regular file and tells its status; -1 for anything else. Without O_NONBLOCK a pipe would wait for
// its other end before it could be refused.
CDescriptor OpenRegular(const Tdes& path, int flags, struct stat& status) {
  CDescriptor file(RetryInterrupted([&] {
    return ::open(AsChar(path.Ptr()), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR);
  }));
  if (file.IsOpen() && (::fstat(file.Get(), &status) == -1 || !S_ISREG(status.st_mode))) {
    file.Close();
  }
  return file;
}

bool WriteAll(int file, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = RetryInterrupted([&] { return ::write(file, data, size); });
    if (written <= 0) {
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool CopyContent(int from, int to) {
  std::array<char, 16384> block;
  while (true) {
    const ssize_t count = RetryInterrupted([&] { return ::read(from, block.data(), block.size()); });
    if (count <= 0) {
      return count == 0;
    }
    if (!WriteAll(to, block.data(), static_cast<std::size_t>(count))) {
      return false;
    }
  }
}

bool CopyAll(int from, CDescriptor& to, mode_t permissions) {
  return ::ftruncate(to.Get(), 0) == 0 && CopyContent(from, to.Get()) &&
         ::fchmod(to.Get(), permissions) == 0 && to.Close() == 0;
}

}  // namespace

TBool FileSystemUtils::InternalFileExists(const Tdes& path) {
  struct stat status {};
  return Status(path, status) && !S_ISDIR(status.st_mode) ? ETrue : EFalse;
}

TBool FileSystemUtils::DirectoryExists(const Tdes& path) {
  struct stat status {};
  return Status(path, status) && S_ISDIR(status.st_mode) ? ETrue : EFalse;
}

TBool FileSystemUtils::FileWritePerm(const Tdes& path) {
  return ::faccessat(AT_FDCWD, AsChar(path.Ptr()), W_OK, AT_EACCESS) == 0 ? ETrue : EFalse;
}

TInt FileSystemUtils::CreateDirectory(const Tdes& path) {
  return ::mkdir(AsChar(path.Ptr()), 0777);
}

TInt FileSystemUtils::InternalRemoveFile(const Tdes& path) {
  return ::unlink(AsChar(path.Ptr()));
}

TInt FileSystemUtils::InternalMoveFile(const Tdes& from, const Tdes& to) {
  const TInt result = ::rename(AsChar(from.Ptr()), AsChar(to.Ptr()));
  if (result == 0 || errno != EXDEV) {
    return result;
  }
  return InternalCopyFile(from, to) == 0 ? InternalRemoveFile(from) : -1;
}

TInt FileSystemUtils::InternalCopyFile(const Tdes& from, const Tdes& to) {
  struct stat fromStatus {};
  struct stat toStatus {};
  const CDescriptor source = OpenRegular(from, O_RDONLY, fromStatus);
  if (!source.IsOpen()) {
    return -1;
  }
  CDescriptor destination = OpenRegular(to, O_WRONLY | O_CREAT, toStatus);
  if (!destination.IsOpen() || IsSameFile(fromStatus, toStatus)) {
    return -1;
  }
  if (!CopyAll(source.Get(), destination, fromStatus.st_mode & 0777)) {
    InternalRemoveFile(to);
    return -1;
  }
  return 0;
}
