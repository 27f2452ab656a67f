// Goal: the file helpers do to real files what their names say, and tell failures as the C library and the
// platform do.
// Method: a temporary folder and the real platform; the process gives up its rights where a permission is the
// point.
#include "FileHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <tdes>

#include <array>
#include <memory>

#include "FileExistsCache.h"
#include "Files.h"
#include "LogCapture.h"

namespace {

using Entries = std::vector<std::string>;
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

bool IsRemembered(const std::string& path) {
  TInt status = 0;
  CFileExistsCache::FileExistsCacheInstance().RemoveFile(Tdes(AsTChr(path)), status);
  return status == 0;
}

void Remember(const std::string& path) {
  ASSERT_EQ(CFileExistsCache::FileExistsCacheInstance().FileExists(Tdes(AsTChr(path))), ETrue);
}

class RealFiles : public testing::Test {
 protected:
  File Open(const std::string& name, const char* mode) {
    return {IFileHandler::FOpen(iFolder.Path(name).c_str(), mode), IFileHandler::FClose};
  }

  TemporaryFolder iFolder;
  std::string iFile = iFolder.Write("file", "12345");
  std::string iOther = iFolder.Path("other");
  std::string iMissing = iFolder.Path("missing");
  LogCapture iLog;
};

// ---- Streams ----

TEST_F(RealFiles, OpenGivesNullWhereTheCLibraryDoes) {
  EXPECT_EQ(IFileHandler::FOpen(iMissing.c_str(), "r"), nullptr);
  EXPECT_EQ(IFileHandler::FOpen(iFile.c_str(), "?"), nullptr);
  EXPECT_EQ(IFileHandler::FOpen(iFolder.Path().c_str(), "w"), nullptr);
  EXPECT_EQ(IFileHandler::FOpen("", "r"), nullptr);
}

TEST_F(RealFiles, OpenPassesTheModeOn) {
  EXPECT_NE(Open("file", "r"), nullptr);
  EXPECT_EQ(ContentOf(iFile), "12345");
  IFileHandler::FWrite("6", 1, 1, Open("file", "ab").get());
  EXPECT_EQ(ContentOf(iFile), "123456");
  Open("file", "wb");
  EXPECT_EQ(ContentOf(iFile), "");
}

TEST_F(RealFiles, ReadCountsElementsOfTheSize) {
  std::array<char, 16> buffer{};
  const File file = Open("file", "rb");
  EXPECT_EQ(IFileHandler::FRead(buffer.data(), 2, 1, file.get()), 1U);
  EXPECT_EQ(std::string(buffer.data()), "12");
  EXPECT_EQ(IFileHandler::FRead(buffer.data(), 2, 5, file.get()), 1U) << "one whole element and a half";
  EXPECT_EQ(std::string(buffer.data()), "345");
  EXPECT_EQ(IFileHandler::FRead(buffer.data(), 1, 5, file.get()), 0U);
}

TEST_F(RealFiles, ReadFromAStreamForWritingGivesNothing) {
  char byte = 0;
  const File file = Open("other", "wb");
  EXPECT_EQ(IFileHandler::FRead(&byte, 1, 1, file.get()), 0U);
}

TEST_F(RealFiles, WriteCountsElementsOfTheSize) {
  File file = Open("other", "wb");
  EXPECT_EQ(IFileHandler::FWrite("abcdef", 3, 2, file.get()), 2U);
  EXPECT_EQ(IFileHandler::FWrite("xyz", 1, 2, file.get()), 2U);
  file.reset();
  EXPECT_EQ(ContentOf(iOther), "abcdefxy");
}

TEST_F(RealFiles, WriteAndCloseTellOfAFullDevice) {
  std::FILE* full = IFileHandler::FOpen("/dev/full", "wb");
  ASSERT_NE(full, nullptr);
  EXPECT_EQ(IFileHandler::FWrite("x", 1, 1, full), 1U) << "taken into the stream's buffer";
  EXPECT_EQ(IFileHandler::FClose(full), EOF);
  full = IFileHandler::FOpen("/dev/full", "wb");
  std::setvbuf(full, nullptr, _IONBF, 0);
  EXPECT_EQ(IFileHandler::FWrite("x", 1, 1, full), 0U);
  EXPECT_EQ(IFileHandler::FClose(full), 0);
}

TEST_F(RealFiles, LinesAreReadUpToTheBufferAndTheEnd) {
  iFolder.Write("lines", "first\nsecond");
  std::array<char, 16> buffer{};
  const File file = Open("lines", "r");
  EXPECT_EQ(IFileHandler::FGets(buffer.data(), 16, file.get()), buffer.data());
  EXPECT_STREQ(buffer.data(), "first\n");
  EXPECT_EQ(IFileHandler::FGets(buffer.data(), 4, file.get()), buffer.data());
  EXPECT_STREQ(buffer.data(), "sec");
  EXPECT_EQ(IFileHandler::FEof(file.get()), 0);
  EXPECT_EQ(IFileHandler::FGets(buffer.data(), 16, file.get()), buffer.data());
  EXPECT_STREQ(buffer.data(), "ond");
  EXPECT_NE(IFileHandler::FEof(file.get()), 0);
  EXPECT_EQ(IFileHandler::FGets(buffer.data(), 16, file.get()), nullptr);
}

TEST_F(RealFiles, SeekMovesFromStartPlaceAndEnd) {
  const File file = Open("file", "rb");
  const auto next = [&] {
    char byte = 0;
    IFileHandler::FRead(&byte, 1, 1, file.get());
    return byte;
  };
  EXPECT_EQ(IFileHandler::FSeek(file.get(), 1, SEEK_SET), 0);
  EXPECT_EQ(next(), '2');
  EXPECT_EQ(IFileHandler::FSeek(file.get(), 1, SEEK_CUR), 0);
  EXPECT_EQ(next(), '4');
  EXPECT_EQ(IFileHandler::FSeek(file.get(), -1, SEEK_END), 0);
  EXPECT_EQ(next(), '5');
  EXPECT_EQ(IFileHandler::FSeek(file.get(), -1, SEEK_SET), -1);
  EXPECT_EQ(IFileHandler::FSeek(file.get(), 0, 99), -1);
}

TEST_F(RealFiles, TheEndIsKnownOnceARequestMetIt) {
  char byte = 0;
  const File file = Open("file", "rb");
  for (int i = 0; i < 5; ++i) {
    IFileHandler::FRead(&byte, 1, 1, file.get());
    EXPECT_EQ(IFileHandler::FEof(file.get()), 0);
  }
  IFileHandler::FRead(&byte, 1, 1, file.get());
  EXPECT_NE(IFileHandler::FEof(file.get()), 0);
  IFileHandler::FSeek(file.get(), 0, SEEK_SET);
  EXPECT_EQ(IFileHandler::FEof(file.get()), 0);
}

TEST_F(RealFiles, CloseGivesTheDescriptorBack) {
  std::FILE* const file = IFileHandler::FOpen(iFile.c_str(), "r");
  EXPECT_EQ(OpenDescriptorsOf(iFile), 1U);
  EXPECT_EQ(IFileHandler::FClose(file), 0);
  EXPECT_EQ(OpenDescriptorsOf(iFile), 0U);
}

// ---- Existence and permission ----

TEST_F(RealFiles, FilesAndFoldersExistEachInTheirWay) {
  const TChr* const folder = AsTChr(iFolder.Path());
  EXPECT_EQ(IFileHandler::FileExists(AsTChr(iFile)), IFileHandler::EFileHndlOk);
  EXPECT_EQ(IFileHandler::FileExists(AsTChr(iMissing)), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(IFileHandler::FileExists(folder), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(IFileHandler::FileExists(AsTChr("")), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(IFileHandler::FolderExists(folder), IFileHandler::EFileHndlOk);
  EXPECT_EQ(IFileHandler::FolderExists(AsTChr(iMissing)), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(IFileHandler::FolderExists(AsTChr(iFile)), IFileHandler::EFileHndlNotFound);
}

TEST_F(RealFiles, ExistenceIsAskedOfTheFileSystemAndNotRemembered) {
  Remember(iFile);
  std::filesystem::remove(iFile);
  EXPECT_EQ(IFileHandler::FileExists(AsTChr(iFile)), IFileHandler::EFileHndlNotFound);
  iFolder.Write("other", "");
  EXPECT_EQ(IFileHandler::FileExists(AsTChr(iOther)), IFileHandler::EFileHndlOk);
  EXPECT_FALSE(IsRemembered(iOther));
}

TEST_F(RealFiles, WritePermissionIsThatOfTheProcess) {
  EXPECT_EQ(IFileHandler::FileWritePerm(AsTChr(iFile)), IFileHandler::EFileHndlOk);
  EXPECT_EQ(IFileHandler::FileWritePerm(AsTChr(iMissing)), IFileHandler::EFileHndlNoWritePerm);
  std::filesystem::permissions(iFile, std::filesystem::perms(0444));
  const OrdinaryUser user;
  EXPECT_EQ(IFileHandler::FileWritePerm(AsTChr(iFile)), IFileHandler::EFileHndlNoWritePerm);
}

// ---- Changes ----

TEST_F(RealFiles, AFolderIsMadeOnce) {
  EXPECT_EQ(IFileHandler::MakeFolder(AsTChr(iOther)), IFileHandler::EFileHndlOk);
  EXPECT_TRUE(std::filesystem::is_directory(iOther));
  EXPECT_EQ(IFileHandler::MakeFolder(AsTChr(iOther)), IFileHandler::EFileHndlError);
  EXPECT_EQ(IFileHandler::MakeFolder(AsTChr(iMissing + "/below")), IFileHandler::EFileHndlError);
}

TEST_F(RealFiles, ARemovedFileIsGoneAndForgotten) {
  Remember(iFile);
  EXPECT_EQ(IFileHandler::RemoveFile(AsTChr(iFile)), IFileHandler::EFileHndlOk);
  EXPECT_FALSE(std::filesystem::exists(iFile));
  EXPECT_FALSE(IsRemembered(iFile));
  EXPECT_EQ(IFileHandler::RemoveFile(AsTChr(iFile)), IFileHandler::EFileHndlNotFound);
}

TEST_F(RealFiles, RemovalOfWhatIsOnlyRememberedLeavesTheCacheAlone) {
  Remember(iFile);
  std::filesystem::remove(iFile);
  EXPECT_EQ(IFileHandler::RemoveFile(AsTChr(iFile)), IFileHandler::EFileHndlNotFound);
  EXPECT_TRUE(IsRemembered(iFile));
}

TEST_F(RealFiles, AFailedRemovalIsAnErrorAndForgetsTheFile) {
  Remember(iFile);
  std::filesystem::permissions(iFolder.Path(), std::filesystem::perms(0555));
  {
    const OrdinaryUser user;
    EXPECT_EQ(IFileHandler::RemoveFile(AsTChr(iFile)), IFileHandler::EFileHndlError);
  }
  std::filesystem::permissions(iFolder.Path(), std::filesystem::perms::all);
  EXPECT_TRUE(std::filesystem::exists(iFile));
  EXPECT_FALSE(IsRemembered(iFile));
}

TEST_F(RealFiles, AMovedFileIsAtItsNewPlaceAndBothAreForgotten) {
  iFolder.Write("other", "old");
  Remember(iFile);
  Remember(iOther);
  EXPECT_EQ(IFileHandler::MoveFile(AsTChr(iFile), AsTChr(iOther)), IFileHandler::EFileHndlOk);
  EXPECT_EQ(ContentOf(iOther), "12345");
  EXPECT_FALSE(std::filesystem::exists(iFile));
  EXPECT_FALSE(IsRemembered(iFile));
  EXPECT_FALSE(IsRemembered(iOther));
}

TEST_F(RealFiles, AFailedMoveIsAnErrorAndForgetsBoth) {
  const std::string nowhere = iMissing + "/file";
  Remember(iFile);
  EXPECT_EQ(IFileHandler::MoveFile(AsTChr(iFile), AsTChr(nowhere)), IFileHandler::EFileHndlError);
  EXPECT_EQ(ContentOf(iFile), "12345");
  EXPECT_FALSE(IsRemembered(iFile));
}

TEST_F(RealFiles, AMissingFileIsNotMovedAndNothingForgotten) {
  iFolder.Write("other", "old");
  Remember(iOther);
  EXPECT_EQ(IFileHandler::MoveFile(AsTChr(iMissing), AsTChr(iOther)), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(ContentOf(iOther), "old");
  EXPECT_TRUE(IsRemembered(iOther));
}

TEST_F(RealFiles, ACopyLeavesItsSourceRemembered) {
  iFolder.Write("other", "old");
  Remember(iOther);
  EXPECT_EQ(IFileHandler::CopyFile(AsTChr(iFile), AsTChr(iOther)), IFileHandler::EFileHndlOk);
  EXPECT_EQ(ContentOf(iFile) + ContentOf(iOther), "1234512345");
  EXPECT_FALSE(IsRemembered(iOther));
  EXPECT_TRUE(IsRemembered(iFile));
}

TEST_F(RealFiles, AFailedCopyIsAnError) {
  EXPECT_EQ(IFileHandler::CopyFile(AsTChr(iFile), AsTChr(iMissing + "/file")), IFileHandler::EFileHndlError);
  EXPECT_EQ(IFileHandler::CopyFile(AsTChr(iMissing), AsTChr(iOther)), IFileHandler::EFileHndlNotFound);
  EXPECT_FALSE(std::filesystem::exists(iOther));
}

// What is remembered counts as there until the platform's own call finds out.
TEST_F(RealFiles, MoveAndCopyBelieveTheCache) {
  Remember(iFile);
  std::filesystem::remove(iFile);
  EXPECT_EQ(IFileHandler::CopyFile(AsTChr(iFile), AsTChr(iOther)), IFileHandler::EFileHndlError);
  EXPECT_EQ(IFileHandler::MoveFile(AsTChr(iFile), AsTChr(iOther)), IFileHandler::EFileHndlError);
  EXPECT_EQ(IFileHandler::MoveFile(AsTChr(iFile), AsTChr(iOther)), IFileHandler::EFileHndlNotFound);
}

TEST_F(RealFiles, NoneOfThemLogs) {
  const TChr* const file = AsTChr(iFile);
  const TChr* const other = AsTChr(iOther);
  const TChr* const missing = AsTChr(iMissing);
  IFileHandler::FOpen(iMissing.c_str(), "r");
  Open("file", "r");
  for (const TChr* path : {file, missing}) {
    IFileHandler::FileExists(path);
    IFileHandler::FolderExists(path);
    IFileHandler::FileWritePerm(path);
    IFileHandler::MakeFolder(path);
    IFileHandler::CopyFile(path, other);
    IFileHandler::MoveFile(path, other);
    IFileHandler::RemoveFile(path);
    IFileHandler::FileSize(path);
  }
  EXPECT_TRUE(iLog.Lines().empty());
}

// ---- Size ----

TEST_F(RealFiles, TheSizeIsTheNumberOfBytes) {
  for (const std::size_t size : {0U, 1U, 5U, 70000U}) {
    iLog.Clear();
    iFolder.Write("other", std::string(size, '\n'));
    EXPECT_EQ(IFileHandler::FileSize(AsTChr(iOther)), static_cast<TInt32>(size));
    ASSERT_EQ(iLog.Lines().size(), 1U);
    EXPECT_EQ(iLog.Lines().front().level, logging::EInfo);
    EXPECT_EQ(iLog.Lines().front().module, logging::SWLInfra);
    EXPECT_EQ(iLog.Lines().front().function, "IFileHandler::FileSize");
    EXPECT_EQ(iLog.Lines().front().message, "File size : " + std::to_string(size));
  }
}

TEST_F(RealFiles, SizeOfWhatHasNoEndToGoToIsUnknown) {
  const std::string pipe = iFolder.Path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int both_ends = open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(pipe)), -1);
  close(both_ends);
}

TEST_F(RealFiles, WhatCannotBeOpenedHasNoSizeAndNoLine) {
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(iMissing)), -1);
  EXPECT_EQ(IFileHandler::FileSize(AsTChr("")), -1);
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(iFolder.Path())), -1);
  Remember(iFile);
  std::filesystem::rename(iFile, iOther);
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(iFile)), -1) << "remembered but gone";
  std::filesystem::permissions(iOther, std::filesystem::perms(0222));
  {
    const OrdinaryUser user;
    EXPECT_EQ(IFileHandler::FileSize(AsTChr(iOther)), -1) << "there but not readable";
  }
  EXPECT_TRUE(iLog.Lines().empty());
}

// Sparse files: no block of the disk is written.
TEST_F(RealFiles, SizeOfAFileThatIsTooLargeForItsTypeIsRefusedAndNotCut) {
  const std::pair<std::uintmax_t, TInt32> cases[] = {
      {2147483647, 2147483647}, {2147483648, -1}, {4294967295, -1}, {4294967306, -1}};
  for (const auto& [bytes, size] : cases) {
    std::filesystem::resize_file(iFile, bytes);
    EXPECT_EQ(IFileHandler::FileSize(AsTChr(iFile)), size) << bytes;
  }
}

TEST_F(RealFiles, TheSizeIsToldWhileTheFileIsOpenAndItIsClosedThen) {
  class Sink : public logging::ISink {
   public:
    explicit Sink(std::string file) : iFile(std::move(file)), iFormer(logging::SetSink(this)) {}
    ~Sink() override { logging::SetSink(iFormer); }
    void Write(const logging::TLine& /*line*/) override { open = OpenDescriptorsOf(iFile); }

    std::size_t open = 0;

   private:
    std::string iFile;
    logging::ISink* iFormer;
  };
  const Sink sink(iFile);
  const std::size_t before = OpenDescriptors();
  EXPECT_EQ(IFileHandler::FileSize(AsTChr(iFile)), 5);
  EXPECT_EQ(sink.open, 1U);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(RealFiles, ANullPathIsAnEmptyOne) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(IFileHandler::FileExists(nullptr), IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(IFileHandler::FileSize(nullptr), -1);
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_EQ(output.find("\nAssertion failed (aString!=NULL) in file include/tdes, line "), 0U);
}

}  // namespace
