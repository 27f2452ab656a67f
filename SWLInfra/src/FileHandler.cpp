#include "FileHandler.h"

#include <tdes>

#include "FileExistsCache.h"
#include "FileSystemUtils.h"
#include "Logging.h"

namespace {

// A path in the platform's descriptor, tested before and after the platform works with it.
class CCheckedPath {
 public:
  explicit CCheckedPath(const TChr* path) : iDescriptor(path) { iDescriptor.SelfTest(); }
  ~CCheckedPath() { iDescriptor.SelfTest(); }
  CCheckedPath(const CCheckedPath&) = delete;
  CCheckedPath& operator=(const CCheckedPath&) = delete;

  const char* Text() const { return AsChar(iDescriptor.Ptr()); }
  operator const Tdes&() const { return iDescriptor; }

 private:
  Tdes iDescriptor;
};

CFileExistsCache& Cache() {
  return CFileExistsCache::FileExistsCacheInstance();
}

bool IsCachedOrFound(const Tdes& path) {
  return Cache().FileExists(path) == ETrue;
}

void Forget(const Tdes& path) {
  TInt ignored = 0;
  Cache().RemoveFile(path, ignored);
}

IFileHandler::TFileHndlError Result(TInt platformResult) {
  return platformResult == 0 ? IFileHandler::EFileHndlOk : IFileHandler::EFileHndlError;
}

}  // namespace

std::FILE* IFileHandler::FOpen(const char* path, const char* mode) {
  return std::fopen(path, mode);
}

std::size_t IFileHandler::FRead(void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  return std::fread(buffer, size, count, file);
}

std::size_t IFileHandler::FWrite(const void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  return std::fwrite(buffer, size, count, file);
}

char* IFileHandler::FGets(char* buffer, int size, std::FILE* file) {
  return std::fgets(buffer, size, file);
}

int IFileHandler::FSeek(std::FILE* file, long offset, int whence) {
  return std::fseek(file, offset, whence);
}

int IFileHandler::FEof(std::FILE* file) {
  return std::feof(file);
}

int IFileHandler::FClose(std::FILE* file) {
  return std::fclose(file);
}

IFileHandler::TFileHndlError IFileHandler::FileExists(const TChr* path) {
  const CCheckedPath checked(path);
  return FileSystemUtils::InternalFileExists(checked) != EFalse ? EFileHndlOk : EFileHndlNotFound;
}

IFileHandler::TFileHndlError IFileHandler::FolderExists(const TChr* path) {
  const CCheckedPath checked(path);
  return FileSystemUtils::DirectoryExists(checked) != EFalse ? EFileHndlOk : EFileHndlNotFound;
}

IFileHandler::TFileHndlError IFileHandler::FileWritePerm(const TChr* path) {
  const CCheckedPath checked(path);
  return FileSystemUtils::FileWritePerm(checked) != EFalse ? EFileHndlOk : EFileHndlNoWritePerm;
}

IFileHandler::TFileHndlError IFileHandler::MakeFolder(const TChr* path) {
  const CCheckedPath checked(path);
  return Result(FileSystemUtils::CreateDirectory(checked));
}

IFileHandler::TFileHndlError IFileHandler::RemoveFile(const TChr* path) {
  const CCheckedPath checked(path);
  if (FileSystemUtils::InternalFileExists(checked) != ETrue) {
    return EFileHndlNotFound;
  }
  Forget(checked);
  return Result(FileSystemUtils::InternalRemoveFile(checked));
}

IFileHandler::TFileHndlError IFileHandler::MoveFile(const TChr* from, const TChr* to) {
  const CCheckedPath source(from);
  const CCheckedPath destination(to);
  if (!IsCachedOrFound(source)) {
    return EFileHndlNotFound;
  }
  Forget(source);
  Forget(destination);
  return Result(FileSystemUtils::InternalMoveFile(source, destination));
}

IFileHandler::TFileHndlError IFileHandler::CopyFile(const TChr* from, const TChr* to) {
  const CCheckedPath source(from);
  const CCheckedPath destination(to);
  if (!IsCachedOrFound(source)) {
    return EFileHndlNotFound;
  }
  Forget(destination);
  return Result(FileSystemUtils::InternalCopyFile(source, destination));
}

TInt32 IFileHandler::FileSize(const TChr* path) {
  const CCheckedPath checked(path);
  if (!IsCachedOrFound(checked)) {
    return -1;
  }
  std::FILE* file = std::fopen(checked.Text(), "r");
  if (file == nullptr) {
    return -1;
  }
  std::fseek(file, 0, SEEK_END);
  const auto size = static_cast<TInt32>(std::ftell(file));
  LOG_INFO(logging::SWLInfra, "File size : " << size);
  std::fclose(file);
  return size;
}
