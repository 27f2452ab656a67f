#pragma once

#include <tdes>

#include <mutex>
#include <string>
#include <unordered_set>

#include "Types.h"

/// Remembers which files exist, so that asking again costs no system call. What it does not remember it asks
/// the file system about. A file that somebody else removes stays remembered until it is forgotten here. Any
/// thread.
class CFileExistsCache {
 public:
  /// The one cache of the process.
  static CFileExistsCache& FileExistsCacheInstance();

  /// ETrue when the file is remembered or found, EFalse when it is not there.
  TBool FileExists(const Tdes& path);

  /// Forgets the file. `status` becomes 0, or -1 when it was not remembered.
  void RemoveFile(const Tdes& path, TInt& status);

 private:
  std::mutex iMutex;
  std::unordered_set<std::string> iExisting;
};
