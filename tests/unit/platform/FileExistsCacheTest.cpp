// Goal: the cache remembers what exists, and only that, until it is told to forget.
// Method: files are made and removed behind its back.
#include "FileExistsCache.h"

#include <gtest/gtest.h>

#include <thread>

#include "Files.h"
#include "Support.h"

namespace {

TInt Forget(CFileExistsCache& cache, const std::string& path) {
  TInt status = 7;
  cache.RemoveFile(Tdes(AsTChr(path)), status);
  return status;
}

}  // namespace

class Cache : public testing::Test {
 protected:
  TBool Exists() { return iCache.FileExists(Tdes(AsTChr(iPath))); }

  const TemporaryFolder iFolder;
  const std::string iPath = iFolder.Path("file");
  CFileExistsCache iCache;
};

TEST_F(Cache, AsksTheFileSystemAboutWhatItDoesNotKnow) {
  EXPECT_EQ(Exists(), EFalse);
  WriteFile(iPath, "");
  EXPECT_EQ(Exists(), ETrue);
}

TEST_F(Cache, RemembersAFileThatIsGone) {
  WriteFile(iPath, "");
  EXPECT_EQ(Exists(), ETrue);
  unlink(iPath.c_str());
  EXPECT_EQ(Exists(), ETrue);
}

TEST_F(Cache, ForgetsWhatItIsToldToForget) {
  WriteFile(iPath, "");
  EXPECT_EQ(Exists(), ETrue);
  unlink(iPath.c_str());
  EXPECT_EQ(Forget(iCache, iPath), 0);
  EXPECT_EQ(Exists(), EFalse);
  EXPECT_EQ(Forget(iCache, iPath), -1);
}

TEST_F(Cache, DoesNotCountAFolderAsAFile) {
  EXPECT_EQ(iCache.FileExists(Tdes(AsTChr("/tmp"))), EFalse);
}

TEST_F(Cache, IsOneForTheProcess) {
  EXPECT_EQ(&CFileExistsCache::FileExistsCacheInstance(), &CFileExistsCache::FileExistsCacheInstance());
}

TEST_F(Cache, IsUsedByManyThreads) {
  WriteFile(iPath, "");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int round = 0; round < 300; ++round) {
        EXPECT_EQ(Exists(), ETrue);
        Forget(iCache, iPath);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}
