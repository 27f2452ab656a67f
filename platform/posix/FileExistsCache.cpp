#include "FileExistsCache.h"

#include "FileSystemUtils.h"

CFileExistsCache& CFileExistsCache::FileExistsCacheInstance() {
  // Never destroyed: an upload thread may still ask while the process ends.
  static auto* const cache = new CFileExistsCache;
  return *cache;
}

TBool CFileExistsCache::FileExists(const Tdes& path) {
  const std::string key(AsChar(path.Ptr()), path.Length());
  // Held while the file system is asked, so that what a thread forgets is not remembered again from an older
  // answer.
  const std::lock_guard<std::mutex> lock(iMutex);
  if (iExisting.count(key) != 0) {
    return ETrue;
  }
  if (!FileSystemUtils::InternalFileExists(path)) {
    return EFalse;
  }
  iExisting.insert(key);
  return ETrue;
}

void CFileExistsCache::RemoveFile(const Tdes& path, TInt& status) {
  const std::lock_guard<std::mutex> lock(iMutex);
  status = iExisting.erase(std::string(AsChar(path.Ptr()), path.Length())) != 0 ? 0 : -1;
}
