// Goal: the free space is read as prescribed, with all that a caller is told and is not told.
// Method: a df that prints what the test says and a sync that only writes down its call, both first in PATH;
// the shell, grep and the scratch file are real.
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>

#include "FileHandler.h"
#include "InfraFixture.h"
#include "ScratchFile.h"

namespace {

constexpr TUint32 kUntouched = 0xdeadbeef;

const char kCommand[] = "df|grep /dev/x > /tmp/CalculateDiskSpace";

class AvailableSpace : public InfraFixture {
 protected:
  TInt32 Ask(const std::string& fileSystem = "/dev/x") {
    iSpace = kUntouched;
    return IFileHandler::AvailableSpace(AsTChr(fileSystem), &iSpace);
  }

  /// The next df prints this.
  void Show(const std::string& output) const {
    const std::string file = iOutputs.Write("output", output);
    iTools.Run("df", {"cat '" + file + "'"});
  }

  TUint32 iSpace = kUntouched;
  ScratchFile iScratchFile;
  RecordingTools iTools{{"sync", "df"}};

 private:
  TemporaryFolder iOutputs;
};

TEST_F(AvailableSpace, IsTheFourthColumnOfTheLineThatMatches) {
  Show(
      "Filesystem 1K-blocks Used Available Use% Mounted on\n"
      "/dev/w 1 2 3 4% /w\n"
      "/dev/x          81106868 10864448     12345  15% /x\n"
      "/dev/y 5 6 7 8% /y\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 12345U);
  EXPECT_EQ(Take(), (Lines{"$ sync", "$ df|grep /dev/x > /tmp/CalculateDiskSpace"}));
  EXPECT_EQ(iTools.Take(), (Lines{"sync", "df"}));
  EXPECT_FALSE(ScratchFile::IsThere());
}

// ---- The number ----

struct Word {
  std::string text;
  TUint32 space;
  const char* line;  ///< empty: none
};

// What strtol makes of numbers above the largest 32-bit one depends on the processor's long.
constexpr TUint32 OfLong(TUint32 of64Bits) {
  return sizeof(long) == 8 ? of64Bits : 0x7fffffffU;
}

const Word kWords[] = {
    {"0", 0, ""},
    {"1", 1, ""},
    {"12345", 12345, ""},
    {"1234567890", 1234567890, ""},
    {"2147483647", 2147483647, ""},
    {"2147483648", OfLong(2147483648U), ""},
    {"4294967295", OfLong(4294967295U), ""},
    {"4294967296", OfLong(0), ""},
    {"4294967297", OfLong(1), ""},
    {"9999999999", OfLong(1410065407), ""},
    {"12345678901", 1234567890, ""},
    {"42949672950", OfLong(4294967295U), ""},
    {"00000000005", 0, "Error (The value was not a number. String : 0000000000. Length : 10)"},
    {"-5", 4294967291U, ""},
    {"-1", 4294967295U, ""},
    {"+7", 7, ""},
    {"007", 7, ""},
    {"12abc", 12, ""},
    {"1.9G", 1, ""},
    {"0abc", 0, "Error (The value was not a number. String : 0abc. Length : 4)"},
    {"abc", 0, "Error (The value was not a number. String : abc. Length : 3)"},
    {"-", 0, "Error (The value was not a number. String : -. Length : 1)"},
    {"x", 0, "Error (The value was not a number. String : x. Length : 1)"},
    {"00", 0, "Error (The value was not a number. String : 00. Length : 2)"},
    {"+0", 0, "Error (The value was not a number. String : +0. Length : 2)"},
    {"-0", 0, "Error (The value was not a number. String : -0. Length : 2)"},
    {"0x10", 0, "Error (The value was not a number. String : 0x10. Length : 4)"},
    {"%s%n%d", 0, "Error (The value was not a number. String : %s%n%d. Length : 6)"},
    {"abcdefghi", 0, "Error (The value was not a number. String : abcdefghi. Length : 9)"},
    {"abcdefghij", 0, "Error (The value was not a number. String : abcdefghij. Length : 10)"},
    {"abcdefghijklmnop", 0, "Error (The value was not a number. String : abcdefghij. Length : 10)"},
    {std::string(5000, 'z'), 0, "Error (The value was not a number. String : zzzzzzzzzz. Length : 10)"},
    {std::string(5000, '7'), OfLong(3482810481U), ""},
};

TEST_F(AvailableSpace, IsWhatTheWordsFirstTenCharactersSay) {
  for (const Word& word : kWords) {
    SCOPED_TRACE(word.text.substr(0, 20));
    Show("/dev/x 100 200 " + word.text + " 5% /x\n");
    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(iSpace, word.space);
    Lines expected = {"$ sync", std::string("$ ") + kCommand};
    if (*word.line != '\0') {
      expected.emplace_back(word.line);
    }
    EXPECT_EQ(Take(), expected);
    EXPECT_FALSE(ScratchFile::IsThere());
  }
}

TEST_F(AvailableSpace, IsZeroWhereThereIsNoFourthWord) {
  for (const std::string output : {"/dev/x 1 2\n", "/dev/x\n", "/dev/x 1 2 \n"}) {
    Show(output);
    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(iSpace, 0U);
    EXPECT_EQ(Take(), (Lines{"$ sync", std::string("$ ") + kCommand,
                             "Error (The value was not a number. String : . Length : 0)"}));
  }
}

TEST_F(AvailableSpace, IsTheFourthWordAcrossLineEndsToo) {
  const std::string wrapped = "/dev/mapper/a-long-name-of-a-file-system\n  1 2 77 4% /x\n";
  Show(wrapped);
  EXPECT_EQ(Ask("-A1 /dev/mapper/a"), 0);
  EXPECT_EQ(iSpace, 77U);
  Take();
  // The name alone finds but the first line.
  Show(wrapped);
  EXPECT_EQ(Ask("/dev/mapper/a"), 0);
  EXPECT_EQ(iSpace, 0U);
  EXPECT_EQ(Take().back(), "Error (The value was not a number. String : . Length : 0)");
}

TEST_F(AvailableSpace, IsTheFirstMatchingLines) {
  const std::string output =
      "Filesystem 1K-blocks Used Available Use% Mounted on\n"
      "/dev/x10 1 2 10 4% /ten\n"
      "/dev/x1 1 2 11 4% /one\n"
      "/dev/x 1 2 12 4% /x\n";
  Show(output);
  EXPECT_EQ(Ask("/dev/x1"), 0);
  EXPECT_EQ(iSpace, 10U);
  Show(output);
  EXPECT_EQ(Ask("/x$"), 0);
  EXPECT_EQ(iSpace, 12U);
  Take();
  Show(output);
  EXPECT_EQ(Ask("Files"), 0);
  EXPECT_EQ(iSpace, 0U);
  EXPECT_EQ(Take().back(), "Error (The value was not a number. String : Available. Length : 9)");
}

// ---- What is left untouched ----

TEST_F(AvailableSpace, IsUntouchedWhereNoLineMatches) {
  Show("/dev/y 1 2 3 4% /y\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, kUntouched);
  EXPECT_EQ(Take(), Join({{"$ sync"}, Failing(kCommand, 1)}));
  EXPECT_FALSE(ScratchFile::IsThere());
}

TEST_F(AvailableSpace, IsUntouchedAndTheScratchFileStaysWhereTheDisksCannotBeFlushed) {
  std::ofstream(ScratchFile::kPath) << "stale 1 2 3\n";
  iTools.Answer("sync", {4});
  EXPECT_EQ(Ask(), 7);
  EXPECT_EQ(iSpace, kUntouched);
  EXPECT_EQ(Take(), Join({Failing("sync", 4), {"Error (Sync: The filesystems couldn't be flushed)"}}));
  EXPECT_EQ(iTools.Take(), (Lines{"sync"}));
  EXPECT_EQ(ContentOf(ScratchFile::kPath), "stale 1 2 3\n");
}

TEST_F(AvailableSpace, IsReadWhateverDfExitsWithIfALineMatches) {
  iTools.Run("df", {"echo '/dev/x 1 2 99 4% /x'; exit 1"});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 99U);
  EXPECT_EQ(Take(), (Lines{"$ sync", std::string("$ ") + kCommand}));
}

TEST_F(AvailableSpace, IsUntouchedWhereNothingCanBeRun) {
  iTools.Remove("df");
  iTools.HideOthers();
  const std::string fileSystem = "/dev/x 2>&-";
  testing::internal::CaptureStderr();
  EXPECT_EQ(Ask(fileSystem), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(iSpace, kUntouched);
  EXPECT_EQ(Take(), Join({{"$ sync"}, Failing("df|grep /dev/x 2>&- > /tmp/CalculateDiskSpace", 127)}));
  EXPECT_FALSE(ScratchFile::IsThere());
}

TEST_F(AvailableSpace, IsAskedForWithThePatternAsItIs) {
  for (const std::string fileSystem : {"", "a%s%n", "-q no-such-line", "[", "'/dev/x '"}) {
    Show("/dev/y 1 2 3 4% /y\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Ask(fileSystem), 0) << fileSystem;
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(iSpace, kUntouched) << fileSystem;
    EXPECT_EQ(Take()[1], "$ df|grep " + fileSystem + " > /tmp/CalculateDiskSpace");
  }
}

TEST_F(AvailableSpace, IsAskedForWithALongPatternWhole) {
  for (const std::size_t length : {474U, 476U, 510U, 600U, 100'000U}) {
    std::string fileSystem = "/dev/x";
    while (fileSystem.size() < length) {
      fileSystem += "''";  // for the shell it is nothing
    }
    Show("/dev/x 1 2 345 4% /x\n");
    EXPECT_EQ(Ask(fileSystem), 0);
    EXPECT_EQ(iSpace, 345U);
    EXPECT_TRUE(Take() == (Lines{"$ sync", "$ df|grep " + fileSystem + " > /tmp/CalculateDiskSpace"}));
  }
}

// ---- The scratch file ----

TEST_F(AvailableSpace, IsUntouchedWhereTheScratchFileIsNotThere) {
  // The command succeeds without making it.
  EXPECT_EQ(Ask("a >/dev/null; true #"), 2);
  EXPECT_EQ(iSpace, kUntouched);
  EXPECT_EQ(Take(), (Lines{"$ sync", "$ df|grep a >/dev/null; true # > /tmp/CalculateDiskSpace",
                           "Error (The file containing the available space could not be opened)",
                           "Error (The file containing the available space could not be removed)"}));
}

TEST_F(AvailableSpace, IsUntouchedWhereAFolderIsInTheWay) {
  std::filesystem::create_directories(std::string(ScratchFile::kPath) + "/folder");
  Show("/dev/x 1 2 3 4% /x\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Ask(), 2);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(iSpace, kUntouched);
  EXPECT_EQ(Take(), Join({{"$ sync"},
                          Failing(kCommand, 2),
                          {"Error (The file containing the available space could not be removed)"}}));
}

TEST_F(AvailableSpace, IsZeroWhereAFolderIsInTheWayAndTheCommandSucceeds) {
  // A folder can be opened but not read.
  std::filesystem::create_directories(std::string(ScratchFile::kPath) + "/folder");
  EXPECT_EQ(Ask("a >/dev/null; true #"), 2);
  EXPECT_EQ(iSpace, 0U);
  EXPECT_EQ(Take(), (Lines{"$ sync", "$ df|grep a >/dev/null; true # > /tmp/CalculateDiskSpace",
                           "Error (The value was not a number. String : . Length : 0)",
                           "Error (The file containing the available space could not be removed)"}));
}

TEST_F(AvailableSpace, IsTheSameWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  EXPECT_EQ(Ask("a >/dev/null; true #"), 2);
  EXPECT_EQ(iSpace, kUntouched);
  Show("/dev/x 1 2 none 4% /x\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 0U);
  EXPECT_EQ(Take(), (Lines{"$ sync", "$ df|grep a >/dev/null; true # > /tmp/CalculateDiskSpace", "$ sync",
                           std::string("$ ") + kCommand}));
}

TEST_F(AvailableSpace, IsAStaleFilesWhereTheShellIsKilled) {
  std::ofstream(ScratchFile::kPath) << "/dev/x 1 2 66 4% /x\n";
  system_calls::Answer({0, 9});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 66U);
  EXPECT_EQ(Take(), (Lines{"$ sync", std::string("$ ") + kCommand,
                           std::string("Error ('") + kCommand + "' killed by signal 9)"}));
  EXPECT_FALSE(ScratchFile::IsThere());
}

TEST_F(AvailableSpace, IsReadWhereTheCommandsEndsCannotBeLearned) {
  std::ofstream(ScratchFile::kPath) << "/dev/x 1 2 67 4% /x\n";
  system_calls::Answer({-1, -1});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 67U);
  EXPECT_EQ(Take(),
            (Lines{"$ sync", "Error (failed to spawn 'sync', sysres=-1)", std::string("$ ") + kCommand,
                   std::string("Error (failed to spawn '") + kCommand + "', sysres=-1)"}));
}

TEST_F(AvailableSpace, OfOneCallKnowsNothingOfTheCallBefore) {
  Show("/dev/x 1 2 1234567890 4% /x\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 1234567890U);
  Show("/dev/x 1 2 5 4% /x\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, 5U);
  Show("/dev/y 1 2 5 4% /x\n");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(iSpace, kUntouched);
}

TEST_F(AvailableSpace, LeavesNoFileOpen) {
  const std::size_t before = OpenDescriptors();
  for (int n = 0; n < 3; ++n) {
    Show("/dev/x 1 2 5 4% /x\n");
    Ask();
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
