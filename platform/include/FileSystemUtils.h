#pragma once

#include <tdes>

#include "Types.h"

/// File-system operations by path. Existence and permission are told as ETrue or EFalse; the others return 0
/// on success and another value on failure. Stateless: any thread.
class FileSystemUtils {
 public:
  /// A file of any kind but a folder is there; asks the file system itself.
  static TBool InternalFileExists(const Tdes& path);
  /// A folder is there.
  static TBool DirectoryExists(const Tdes& path);
  /// The path is there and the process may write to it.
  static TBool FileWritePerm(const Tdes& path);

  /// Makes one folder; its parent must be there.
  static TInt CreateDirectory(const Tdes& path);
  /// Removes a file.
  static TInt InternalRemoveFile(const Tdes& path);
  /// Moves a file, also from one file system to another. An existing destination is replaced.
  static TInt InternalMoveFile(const Tdes& from, const Tdes& to);
  /// Copies a regular file's content and permissions. An existing regular file is overwritten; a copy that
  /// cannot be finished is removed. Copying a file onto itself, by whatever name, fails and changes nothing.
  static TInt InternalCopyFile(const Tdes& from, const Tdes& to);
};
