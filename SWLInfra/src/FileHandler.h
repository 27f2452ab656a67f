#pragma once

#include <cstddef>
#include <cstdio>

#include "Types.h"

/// File access for loaders and engines. Static functions without state, for any thread. Paths are
/// zero-terminated and never null.
class __attribute__((visibility("default"))) IFileHandler {
 public:
  /// Results of the path operations. Callers compare the numbers.
  enum TFileHndlError : TInt32 {
    EFileHndlOk = 0,           ///< done; for the existence tests: it exists
    EFileHndlError = 1,        ///< the platform reported a failure
    EFileHndlNotFound = 2,     ///< file or folder does not exist
    EFileHndlNoWritePerm = 3,  ///< the path may not be written
    EFileHndlReserved4 = 4,
    EFileHndlReserved5 = 5,
    EFileHndlReserved6 = 6,
    EFileHndlSyncFailed = 7,  ///< the file systems could not be flushed
  };

  /// Kinds of file systems; a value that is not listed counts as FAT.
  enum TFileSystemFormat : TInt32 {
    EFormatFat = 0,
    EFormatExt3 = 1,
    EFormatExt2 = 2,
    EFormatExt2Loopback = 3,  ///< an ext2 image behind a loop device; for mounting only
  };

  static constexpr TInt32 iKWaitBeforeRetry = 500000;     ///< us between attempts to mount or unmount
  static constexpr TInt32 iKMaxDecimalDigitsUint32 = 10;  ///< decimal digits of the largest TUint32
  static constexpr TUint8 iKnumberRetriesMount = 3;       ///< attempts to mount or unmount

  /// The C library's `fopen`, with its arguments and results.
  static std::FILE* FOpen(const char* path, const char* mode);
  /// The C library's `fread`, with its arguments and results.
  static std::size_t FRead(void* buffer, std::size_t size, std::size_t count, std::FILE* file);
  /// The C library's `fwrite`, with its arguments and results.
  static std::size_t FWrite(const void* buffer, std::size_t size, std::size_t count, std::FILE* file);
  /// The C library's `fgets`, with its arguments and results.
  static char* FGets(char* buffer, int size, std::FILE* file);
  /// The C library's `fseek`, with its arguments and results.
  static int FSeek(std::FILE* file, long offset, int whence);
  /// The C library's `feof`, with its arguments and results.
  static int FEof(std::FILE* file);
  /// The C library's `fclose`, with its arguments and results.
  static int FClose(std::FILE* file);

  /// EFileHndlOk when the file is there, else EFileHndlNotFound.
  static TFileHndlError FileExists(const TChr* path);
  /// The same for a folder.
  static TFileHndlError FolderExists(const TChr* path);

  /// EFileHndlOk when the path may be written, else EFileHndlNoWritePerm.
  static TFileHndlError FileWritePerm(const TChr* path);

  /// EFileHndlOk when the folder was made, else EFileHndlError.
  static TFileHndlError MakeFolder(const TChr* path);

  /// Removes a file. EFileHndlNotFound, with nothing done, when it is not there; EFileHndlError when the
  /// platform fails. The existence cache forgets every path that is made or unmade, also by a failure.
  static TFileHndlError RemoveFile(const TChr* path);
  /// Moves a file; the same for its source.
  static TFileHndlError MoveFile(const TChr* from, const TChr* to);
  /// Copies a file; the same for its source.
  static TFileHndlError CopyFile(const TChr* from, const TChr* to);

  /// The file's size in bytes, or -1 when it does not exist, cannot be opened or is larger than the type can
  /// tell.
  static TInt32 FileSize(const TChr* path);

  /// Writes everything that is buffered to the disks: EFileHndlOk or EFileHndlSyncFailed.
  static TFileHndlError Sync();

  /// Unmounts: up to three times plainly, then up to three times lazily, with a sync and a pause after each
  /// failure. Always EFileHndlOk; only the log tells a failure.
  static TFileHndlError Umount(const TChr* path);

  /// Removes a folder with all that is in it: EFileHndlOk, also when there is none, or EFileHndlError.
  static TFileHndlError RemoveFolder(const TChr* folder);

  /// Mounts with the options of the format, in up to three attempts with a pause after each failure.
  /// `remount` changes the options of what is mounted there. EFileHndlOk or EFileHndlError.
  static TFileHndlError Mount(const TChr* device, const TChr* mountPoint, TBool remount,
                              TFileSystemFormat format);
  /// Mount without `remount`.
  static TFileHndlError Mount(const TChr* device, const TChr* mountPoint, TFileSystemFormat format);
  /// Mount with `remount`.
  static TFileHndlError ReMount(const TChr* device, const TChr* mountPoint, TFileSystemFormat format);

  /// Unmounts, makes a new file system on the device and mounts it. A loopback ext2 volume is made as FAT.
  /// EFileHndlOk when it is mounted; EFileHndlError when a tool failed, which leaves it unmounted, or the
  /// mount did.
  static TFileHndlError Format(const TChr* device, const TChr* mountPoint, TFileSystemFormat format);

  /// Unmounts, checks and repairs the device and mounts it. Errors that e2fsck has corrected count as a
  /// failure; FAT gets a second pass. Results as Format's.
  static TFileHndlError CheckFS(const TChr* device, const TChr* mountPoint, TFileSystemFormat format);

  /// Reads the free space from the first line of `df` that matches `fileSystem`, a pattern without blanks,
  /// into `availableSpace`, in kilobytes modulo 2^32; where a long has 32 bits, 2^31 - 1 at most.
  /// EFileHndlSyncFailed when the disks could not be flushed, else the result of removing the scratch file,
  /// which tells nothing of the space: an unchanged number was not read, and 0 is a full disk or no number;
  /// only the log knows. Calls must not overlap, from whatever process.
  static TFileHndlError AvailableSpace(const TChr* fileSystem, TUint32* availableSpace);
};
