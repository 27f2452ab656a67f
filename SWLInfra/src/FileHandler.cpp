#include "FileHandler.h"

#include <tdes>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "Clock.h"
#include "CmdHandler.h"
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

constexpr char KScratchFile[] = "/tmp/CalculateDiskSpace";

constexpr char KMakeExt3[] =
    "mkfs.ext3 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file "
    "-b 4096 -J size=50 -m 0 -I 128 ";
constexpr char KTuneExt3[] = "tune2fs -i 0d -c 112 -o journal_data ";
constexpr char KMakeExt2[] =
    "mkfs.ext2 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 ";
constexpr char KMakeFat[] = "mkdosfs -F32 -I -a256 ";
constexpr char KCheckExt[] = "e2fsck -p -f ";
constexpr char KCheckFat[] = "dosfsck -a -w -v ";

struct TMountOptions {
  const char* announcement;
  const char* options;
};

TMountOptions MountOptions(IFileHandler::TFileSystemFormat format) {
  switch (format) {
    case IFileHandler::EFormatExt2:
      return {"Trying to mount as EXT2", " -t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600"};
    case IFileHandler::EFormatExt2Loopback:
      return {"Trying to mount as EXT2 loopback", " -t ext2 -o loop,exec,noatime,nosuid,nodev"};
    case IFileHandler::EFormatExt3:
      return {"Trying to mount as EXT3",
              " -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600"};
    default:
      return {"Trying to mount as FAT", " -t vfat -o rw,noexec,noatime,nodev,nosuid"};
  }
}

TInt32 Run(const std::string& command) {
  return ICmdHandler::SystemCmd(AsTChr(command));
}

TInt32 RunOn(const char* command, const TChr* target) {
  return Run(command + std::string(AsChar(target)));
}

std::string Request(const TChr* device, const TChr* mountPoint, IFileHandler::TFileSystemFormat format) {
  logging::CMessage text;
  text << "Device: " << device << ", MountPoint: " << mountPoint << ", FileSystemFormat: " << format;
  return std::string(text.Text());
}

void UmountOrComplain(const TChr* mountPoint, const char* complaint) {
  // Never happens as long as an unmount reports no failure.
  if (IFileHandler::Umount(mountPoint) != IFileHandler::EFileHndlOk) {  // GCOVR_EXCL_BR_LINE
    LOG_ERROR(logging::SWLInfra, complaint);                            // GCOVR_EXCL_LINE
  }
}

TInt32 MakeFileSystem(const TChr* device, IFileHandler::TFileSystemFormat format) {
  switch (format) {
    case IFileHandler::EFormatExt3: {
      const TInt32 status = RunOn(KMakeExt3, device);
      return status == 0 ? RunOn(KTuneExt3, device) : status;
    }
    case IFileHandler::EFormatExt2:
      return RunOn(KMakeExt2, device);
    default:
      return RunOn(KMakeFat, device);
  }
}

TInt32 CheckFat(const TChr* device) {
  const TInt32 status = RunOn(KCheckFat, device);
  if (status != 1) {
    return status;
  }
  LOG_INFO(logging::SWLInfra, "------> Recoverable errors have been detected <------");
  LOG_INFO(logging::SWLInfra, "------> or dosfsck has discovered an internal inconsistency. <------");
  LOG_INFO(logging::SWLInfra, "------> Checking FAT-Movinand again... <------");
  return RunOn(KCheckFat, device);
}

TInt32 CheckFileSystem(const TChr* device, IFileHandler::TFileSystemFormat format) {
  const bool isExt = format == IFileHandler::EFormatExt3 || format == IFileHandler::EFormatExt2;
  return isExt ? RunOn(KCheckExt, device) : CheckFat(device);
}

// The fourth word of the scratch file as a number; text that is no number counts as 0.
void ReadAvailableSpace(TUint32* availableSpace) {
  std::FILE* file = IFileHandler::FOpen(KScratchFile, "r");
  if (file == nullptr) {
    LOG_ERROR(logging::SWLInfra, "The file containing the available space could not be opened");
    return;
  }
  static_assert(IFileHandler::iKMaxDecimalDigitsUint32 == 10, "the scan's limit below");
  char word[IFileHandler::iKMaxDecimalDigitsUint32 + 1] = {};
  static_cast<void>(std::fscanf(file, "%*s %*s %*s %10s", word));
  const long number = std::strtol(word, nullptr, 10);
  *availableSpace = static_cast<TUint32>(number);
  if (number == 0 && std::strcmp(word, "0") != 0) {
    LOG_ERROR(logging::SWLInfra, "The value was not a number. String : "
                                     << word << ". Length : " << static_cast<TUint8>(std::strlen(word)));
  }
  IFileHandler::FClose(file);
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
  const long end = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
  // A size cut to 32 bits would let the beginning of a huge file pass for the whole.
  const TInt32 size = end <= std::numeric_limits<TInt32>::max() ? static_cast<TInt32>(end) : -1;
  LOG_INFO(logging::SWLInfra, "File size : " << size);
  std::fclose(file);
  return size;
}

IFileHandler::TFileHndlError IFileHandler::Sync() {
  if (Run("sync") == 0) {
    return EFileHndlOk;
  }
  LOG_ERROR(logging::SWLInfra, "Sync: The filesystems couldn't be flushed");
  return EFileHndlSyncFailed;
}

IFileHandler::TFileHndlError IFileHandler::Umount(const TChr* path) {
  const char* command = "umount -d ";
  bool forced = false;
  TUint8 attempt = 1;
  while (attempt <= iKnumberRetriesMount) {
    const TInt32 status = RunOn(command, path);
    if (status == 0) {
      return EFileHndlOk;
    }
    LOG_ERROR(logging::SWLInfra, "umount failed on " << path << ". Error number : " << status);
    if (attempt == iKnumberRetriesMount && !forced) {
      command = "umount -d -l ";
      Sync();
      platSleep(iKWaitBeforeRetry);
      LOG_ERROR(logging::SWLInfra, "It was impossible to umount " << path << ", forcing its umount");
      attempt = 1;
      forced = true;
      continue;
    }
    LOG_INFO(logging::SWLInfra, "Retrying to umount " << path << ". Try #" << attempt);
    Sync();
    ++attempt;
    platSleep(iKWaitBeforeRetry);
  }
  return EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::RemoveFolder(const TChr* folder) {
  if (RunOn("rm -rf ", folder) != 0) {
    LOG_ERROR(logging::SWLInfra, "The folder \"" << folder << "\" could not be removed");
    return EFileHndlError;
  }
  LOG_INFO(logging::SWLInfra, "The folder \"" << folder << "\" has been successfully removed");
  return EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::Mount(const TChr* device, const TChr* mountPoint, TBool remount,
                                                 TFileSystemFormat format) {
  LOG_INTERFACE(logging::SWLInfra, Request(device, mountPoint, format));
  const TMountOptions mount = MountOptions(format);
  LOG_INFO(logging::SWLInfra, mount.announcement);
  const std::string command = std::string("mount") + mount.options + (remount != EFalse ? ",remount " : " ") +
                              AsChar(device) + " " + AsChar(mountPoint);
  for (TUint8 attempt = 1; attempt <= iKnumberRetriesMount; ++attempt) {
    const TInt32 status = Run(command);
    if (status == 0) {
      return EFileHndlOk;
    }
    LOG_ERROR(logging::SWLInfra, "Mounting " << mountPoint << " failed. Error number : " << status);
    platSleep(iKWaitBeforeRetry);
  }
  return EFileHndlError;
}

IFileHandler::TFileHndlError IFileHandler::Mount(const TChr* device, const TChr* mountPoint,
                                                 TFileSystemFormat format) {
  return Mount(device, mountPoint, EFalse, format);
}

IFileHandler::TFileHndlError IFileHandler::ReMount(const TChr* device, const TChr* mountPoint,
                                                   TFileSystemFormat format) {
  return Mount(device, mountPoint, ETrue, format);
}

IFileHandler::TFileHndlError IFileHandler::Format(const TChr* device, const TChr* mountPoint,
                                                  TFileSystemFormat format) {
  LOG_INTERFACE(logging::SWLInfra, Request(device, mountPoint, format));
  UmountOrComplain(mountPoint, "The file system could not be unmounted. Formatting anyway . . .");
  const TInt32 status = MakeFileSystem(device, format);
  if (status != 0) {
    LOG_ERROR(logging::SWLInfra, "Formatting failed. errorsys = " << status);
    return EFileHndlError;
  }
  const TFileHndlError mounted = Mount(device, mountPoint, format);
  if (mounted != EFileHndlOk) {
    LOG_ERROR(logging::SWLInfra, "Error mounting/umounting");
  }
  return mounted;
}

IFileHandler::TFileHndlError IFileHandler::CheckFS(const TChr* device, const TChr* mountPoint,
                                                   TFileSystemFormat format) {
  LOG_INTERFACE(logging::SWLInfra, Request(device, mountPoint, format));
  UmountOrComplain(mountPoint, "The file system could not be unmounted. Checking anyway. . .");
  const TInt32 status = CheckFileSystem(device, format);
  if (status != 0) {
    LOG_ERROR(logging::SWLInfra, "Checking failed. errorsys = " << status);
    return EFileHndlError;
  }
  const TFileHndlError mounted = Mount(device, mountPoint, format);
  if (mounted != EFileHndlOk) {
    LOG_ERROR(logging::SWLInfra, "Error mounting/umounting. retVal = " << mounted);
  }
  return mounted;
}

IFileHandler::TFileHndlError IFileHandler::AvailableSpace(const TChr* fileSystem, TUint32* availableSpace) {
  const TFileHndlError synced = Sync();
  if (synced != EFileHndlOk) {
    return synced;
  }
  if (Run("df|grep " + std::string(AsChar(fileSystem)) + " > " + KScratchFile) == 0) {
    ReadAvailableSpace(availableSpace);
  }
  const TFileHndlError removed = RemoveFile(AsTChr(KScratchFile));
  if (removed != EFileHndlOk) {
    LOG_ERROR(logging::SWLInfra, "The file containing the available space could not be removed");
  }
  return removed;
}
