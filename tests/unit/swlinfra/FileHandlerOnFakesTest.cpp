// Goal: every path operation asks the platform what it must, in order, and nothing beyond; and turns each
// answer into the right result.
// Method: this file is the platform. Its file utilities, its cache of files and its descriptor's self test
// write down each call and answer what the test says, so the executable links no other platform.
#include "FileHandler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tdes>

#include <fstream>
#include <functional>
#include <type_traits>

#include "FileExistsCache.h"
#include "FileSystemUtils.h"
#include "Files.h"
#include "LogCapture.h"
#include "ScratchFile.h"
#include "SystemCalls.h"

namespace {

using Entries = std::vector<std::string>;

// What the platform was asked, and what it answers.
struct Platform {
  Entries calls;
  std::vector<const TChr*> pointers;  ///< the characters that each call was shown
  TBool answer = ETrue;               ///< of existence and permission
  TInt result = 0;                    ///< of what changes the file system
  std::function<void()> beforeRemoval = nullptr;
};
Platform* platform = nullptr;

void Called(const std::string& call, const Tdes& path) {
  platform->calls.push_back(call + " " + AsChar(path.Ptr()));
  platform->pointers.push_back(path.Ptr());
}

TBool Asked(const std::string& call, const Tdes& path) {
  Called(call, path);
  return platform->answer;
}

TInt Did(const std::string& call, const Tdes& path) {
  Called(call, path);
  return platform->result;
}

}  // namespace

void Tdes::SelfTest() const {
  Called("self test", *this);
}

TBool FileSystemUtils::InternalFileExists(const Tdes& path) {
  return Asked("file exists", path);
}
TBool FileSystemUtils::DirectoryExists(const Tdes& path) {
  return Asked("folder exists", path);
}
TBool FileSystemUtils::FileWritePerm(const Tdes& path) {
  return Asked("write permission", path);
}
TInt FileSystemUtils::CreateDirectory(const Tdes& path) {
  return Did("create folder", path);
}
TInt FileSystemUtils::InternalRemoveFile(const Tdes& path) {
  if (platform->beforeRemoval) {
    platform->beforeRemoval();
  }
  return Did("remove", path);
}
TInt FileSystemUtils::InternalMoveFile(const Tdes& from, const Tdes& to) {
  return Did("move " + std::string(AsChar(from.Ptr())) + " to", to);
}
TInt FileSystemUtils::InternalCopyFile(const Tdes& from, const Tdes& to) {
  return Did("copy " + std::string(AsChar(from.Ptr())) + " to", to);
}

CFileExistsCache& CFileExistsCache::FileExistsCacheInstance() {
  static CFileExistsCache cache;
  return cache;
}
TBool CFileExistsCache::FileExists(const Tdes& path) {
  return Asked("cached", path);
}
void CFileExistsCache::RemoveFile(const Tdes& path, TInt& status) {
  Called("forget", path);
  status = -1;  // nobody minds
}

namespace {

class OnFakes : public testing::Test {
 protected:
  OnFakes() { platform = &iPlatform; }
  ~OnFakes() override { platform = nullptr; }

  Platform iPlatform;
  LogCapture iLog;
};

const TChr* const kA = AsTChr("a");
const TChr* const kB = AsTChr("b");

struct Case {
  const char* what;
  TInt32 (*operation)();
  TBool answer;
  TInt platformResult;
  TInt32 result;
  Entries calls;  ///< but for the self tests
};

TInt32 Exists() {
  return IFileHandler::FileExists(kA);
}
TInt32 Folder() {
  return IFileHandler::FolderExists(kA);
}
TInt32 Permission() {
  return IFileHandler::FileWritePerm(kA);
}
TInt32 Make() {
  return IFileHandler::MakeFolder(kA);
}
TInt32 Remove() {
  return IFileHandler::RemoveFile(kA);
}
TInt32 Move() {
  return IFileHandler::MoveFile(kA, kB);
}
TInt32 Copy() {
  return IFileHandler::CopyFile(kA, kB);
}
TInt32 Size() {
  return IFileHandler::FileSize(AsTChr("/no/such/file"));
}

const Case kCases[] = {
    {"file there", Exists, 1, 0, 0, {"file exists a"}},
    {"file there, told by another true value", Exists, 2, 0, 0, {"file exists a"}},
    {"file there, told by a negative value", Exists, -1, 0, 0, {"file exists a"}},
    {"file missing", Exists, 0, 0, 2, {"file exists a"}},
    {"folder there", Folder, 1, 0, 0, {"folder exists a"}},
    {"folder there, told by another true value", Folder, 2, 0, 0, {"folder exists a"}},
    {"folder missing", Folder, 0, 0, 2, {"folder exists a"}},
    {"may be written", Permission, 1, 0, 0, {"write permission a"}},
    {"may be written, told by another true value", Permission, 2, 0, 0, {"write permission a"}},
    {"may not be written", Permission, 0, 0, 3, {"write permission a"}},
    {"folder made", Make, 0, 0, 0, {"create folder a"}},
    {"folder not made: -1", Make, 0, -1, 1, {"create folder a"}},
    {"folder not made: 1", Make, 0, 1, 1, {"create folder a"}},
    {"folder not made: 2", Make, 0, 2, 1, {"create folder a"}},
    {"folder not made: 17", Make, 0, 17, 1, {"create folder a"}},
    {"removed", Remove, 1, 0, 0, {"file exists a", "forget a", "remove a"}},
    {"not removed", Remove, 1, -1, 1, {"file exists a", "forget a", "remove a"}},
    {"not removed: 2", Remove, 1, 2, 1, {"file exists a", "forget a", "remove a"}},
    {"nothing to remove", Remove, 0, 0, 2, {"file exists a"}},
    {"removal demands exactly true", Remove, 2, 0, 2, {"file exists a"}},
    {"removal demands exactly true, not -1", Remove, -1, 0, 2, {"file exists a"}},
    {"moved", Move, 1, 0, 0, {"cached a", "forget a", "forget b", "move a to b"}},
    {"not moved", Move, 1, -1, 1, {"cached a", "forget a", "forget b", "move a to b"}},
    {"not moved: 2", Move, 1, 2, 1, {"cached a", "forget a", "forget b", "move a to b"}},
    {"nothing to move", Move, 0, 0, 2, {"cached a"}},
    {"move demands exactly true", Move, 2, 0, 2, {"cached a"}},
    {"copied", Copy, 1, 0, 0, {"cached a", "forget b", "copy a to b"}},
    {"not copied", Copy, 1, -1, 1, {"cached a", "forget b", "copy a to b"}},
    {"not copied: 2", Copy, 1, 2, 1, {"cached a", "forget b", "copy a to b"}},
    {"nothing to copy", Copy, 0, 0, 2, {"cached a"}},
    {"copy demands exactly true", Copy, 2, 0, 2, {"cached a"}},
    {"no size of what is missing", Size, 0, 0, -1, {"cached /no/such/file"}},
    {"no size of what is cached but gone", Size, 1, 0, -1, {"cached /no/such/file"}},
};

Entries WithoutSelfTests(const Entries& calls) {
  Entries others;
  for (const std::string& call : calls) {
    if (call.find("self test") != 0) {
      others.push_back(call);
    }
  }
  return others;
}

TEST_F(OnFakes, EachOperationAsksInOrderAndTranslatesTheAnswer) {
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.what);
    iPlatform = {{}, {}, test.answer, test.platformResult, nullptr};
    EXPECT_EQ(test.operation(), test.result);
    EXPECT_EQ(WithoutSelfTests(iPlatform.calls), test.calls);
    EXPECT_TRUE(iLog.Lines().empty());
  }
}

TEST_F(OnFakes, EachPathIsTestedBeforeAndAfterThePlatformsCalls) {
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.what);
    iPlatform = {{}, {}, test.answer, test.platformResult, nullptr};
    test.operation();
    const bool isPair = test.operation == Move || test.operation == Copy;
    const std::string first = test.operation == Size ? "self test /no/such/file" : "self test a";
    Entries before = {first};
    if (isPair) {
      before.emplace_back("self test b");
    }
    Entries expected = before;
    expected.insert(expected.end(), test.calls.begin(), test.calls.end());
    expected.insert(expected.end(), before.rbegin(), before.rend());
    EXPECT_EQ(iPlatform.calls, expected);
  }
}

TEST_F(OnFakes, ThePlatformIsShownTheCallersOwnCharacters) {
  for (const Case& test : kCases) {
    if (test.operation == Size) {
      continue;
    }
    SCOPED_TRACE(test.what);
    iPlatform = {{}, {}, test.answer, test.platformResult, nullptr};
    test.operation();
    for (const TChr* pointer : iPlatform.pointers) {
      EXPECT_TRUE(pointer == kA || pointer == kB);
    }
  }
}

TEST_F(OnFakes, TheSizeIsTakenOnlyOfWhatTheCacheTellsWithExactlyTrue) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "12345");
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(file)), 5);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), (Entries{"cached " + file}));
  EXPECT_EQ(iLog.Messages(), (Entries{"Info (File size : 5)"}));
  for (const TBool answer : {EFalse, TBool{2}, TBool{-1}}) {
    iLog.Clear();
    iPlatform.answer = answer;
    EXPECT_EQ(IFileHandler::FileSize(AsTChr(file)), -1);
    EXPECT_TRUE(iLog.Lines().empty());
  }
}

TEST_F(OnFakes, ANullPathIsToldOnStandardOutputAndCountsAsEmpty) {
  iPlatform.answer = EFalse;
  testing::internal::CaptureStdout();
  const IFileHandler::TFileHndlError exists = IFileHandler::FileExists(nullptr);
  const TInt32 size = IFileHandler::FileSize(nullptr);
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_EQ(exists, IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), (Entries{"file exists ", "cached "}));
  const std::string once = "\nAssertion failed \\(aString!=NULL\\) in file include/tdes, line [1-9][0-9]*\n";
  EXPECT_THAT(output, testing::MatchesRegex(once + once));
}

// ---- The scratch file of free space, which is real; no command runs ----

class ScratchFileOnFakes : public OnFakes {
 protected:
  ~ScratchFileOnFakes() override { system_calls::Reset(); }

  const Entries kRemoval = {"file exists /tmp/CalculateDiskSpace", "forget /tmp/CalculateDiskSpace",
                            "remove /tmp/CalculateDiskSpace"};
  const std::string kNotRemoved = "Error (The file containing the available space could not be removed)";
  ScratchFile iScratchFile;
  TUint32 iSpace = 0xdeadbeef;
};

TEST_F(ScratchFileOnFakes, IsClosedAndRemovedOnceAfterItWasRead) {
  std::ofstream(ScratchFile::kPath) << "x 1 2 345 4%\n";
  system_calls::Answer({0, 0});
  std::size_t open = 1;
  iPlatform.beforeRemoval = [&open] { open = OpenDescriptorsOf(ScratchFile::kPath); };
  EXPECT_EQ(IFileHandler::AvailableSpace(kA, &iSpace), IFileHandler::EFileHndlOk);
  EXPECT_EQ(open, 0U);
  EXPECT_EQ(iSpace, 345U);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), kRemoval);
  EXPECT_EQ(iLog.Messages(), Entries());
}

TEST_F(ScratchFileOnFakes, IsReadAndTheRemovalsFailureToldAllTheSame) {
  std::ofstream(ScratchFile::kPath) << "x 1 2 345 4%\n";
  system_calls::Answer({0, 0});
  iPlatform.result = -1;
  EXPECT_EQ(IFileHandler::AvailableSpace(kA, &iSpace), IFileHandler::EFileHndlError);
  EXPECT_EQ(iSpace, 345U);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), kRemoval);
  EXPECT_EQ(iLog.Messages(), (Entries{kNotRemoved}));
}

TEST_F(ScratchFileOnFakes, IsRemovedWithoutReadingWhereTheCommandFailed) {
  std::ofstream(ScratchFile::kPath) << "x 1 2 345 4%\n";
  system_calls::Answer({0, 0x0100});
  EXPECT_EQ(IFileHandler::AvailableSpace(kA, &iSpace), IFileHandler::EFileHndlOk);
  EXPECT_EQ(iSpace, 0xdeadbeef);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), kRemoval);
}

TEST_F(ScratchFileOnFakes, IsNotFoundWhereNothingMadeIt) {
  system_calls::Answer({0, 0x0100});
  iPlatform.answer = EFalse;
  EXPECT_EQ(IFileHandler::AvailableSpace(kA, &iSpace), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(WithoutSelfTests(iPlatform.calls), (Entries{kRemoval[0]}));
  EXPECT_EQ(iLog.Messages().back(), kNotRemoved);
}

TEST_F(ScratchFileOnFakes, IsNotAskedAboutWhereTheDisksCannotBeFlushed) {
  system_calls::Answer({0x0100});
  EXPECT_EQ(IFileHandler::AvailableSpace(kA, &iSpace), IFileHandler::EFileHndlSyncFailed);
  EXPECT_EQ(iPlatform.calls, Entries());
}

TEST_F(OnFakes, ARemovedFolderIsNotThePlatformsConcern) {
  for (const int rawStatus : {0, 0x0100}) {
    system_calls::Answer({rawStatus});
    EXPECT_EQ(IFileHandler::RemoveFolder(kA), rawStatus == 0 ? 0 : 1);
  }
  EXPECT_EQ(iPlatform.calls, Entries());
}

// ---- The numbers that callers compare ----

static_assert(std::is_same_v<std::underlying_type_t<IFileHandler::TFileHndlError>, TInt32>);
static_assert(std::is_same_v<std::underlying_type_t<IFileHandler::TFileSystemFormat>, TInt32>);
static_assert(std::is_same_v<decltype(IFileHandler::iKWaitBeforeRetry), const TInt32>);
static_assert(std::is_same_v<decltype(IFileHandler::iKMaxDecimalDigitsUint32), const TInt32>);
static_assert(std::is_same_v<decltype(IFileHandler::iKnumberRetriesMount), const TUint8>);

TEST(Numbers, OfResultsFormatsAndConstantsAreFixed) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, 0);
  EXPECT_EQ(IFileHandler::EFileHndlError, 1);
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, 2);
  EXPECT_EQ(IFileHandler::EFileHndlNoWritePerm, 3);
  EXPECT_EQ(IFileHandler::EFileHndlReserved4, 4);
  EXPECT_EQ(IFileHandler::EFileHndlReserved5, 5);
  EXPECT_EQ(IFileHandler::EFileHndlReserved6, 6);
  EXPECT_EQ(IFileHandler::EFileHndlSyncFailed, 7);
  EXPECT_EQ(IFileHandler::EFormatFat, 0);
  EXPECT_EQ(IFileHandler::EFormatExt3, 1);
  EXPECT_EQ(IFileHandler::EFormatExt2, 2);
  EXPECT_EQ(IFileHandler::EFormatExt2Loopback, 3);
  EXPECT_EQ(+IFileHandler::iKWaitBeforeRetry, 500000);
  EXPECT_EQ(+IFileHandler::iKMaxDecimalDigitsUint32, 10);
  EXPECT_EQ(+IFileHandler::iKnumberRetriesMount, 3);
}

}  // namespace
