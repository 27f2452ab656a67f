// Goal: what peripheralctl writes is its owner's to write, and goes nowhere that somebody else has laid out.
// Method: files and links in a folder of the test's own; other people's files need root. What is peculiar to
// traces stands with their recorder.
#include "OutputFile.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>

#include "Files.h"

namespace {

// What stands in for the disk: answers the error of a file that is to be kept, 0 for none.
std::function<int(off_t size)> disk;

}  // namespace

// The name is the linker's: --wrap=fsync sends calls of fsync here.
extern "C" int __wrap_fsync(int file) {
  struct stat status = {};
  errno = fstat(file, &status) != 0 ? errno : disk ? disk(status.st_size) : 0;
  return errno == 0 ? 0 : -1;
}

namespace {

using testing::HasSubstr;

class OutputFile : public testing::Test {
 protected:
  OutputFile() : iMask(umask(0)) {}
  ~OutputFile() override { umask(iMask); }

  // What was wrong, or nothing.
  std::string Write(const std::string& path, const std::string& text, const host::OutputKind& kind) {
    host::OutputFile file;
    const std::string fault = file.Open(path, kind);
    file.Write(text);
    return fault + file.Fault();
  }

  std::string Log(const std::string& path, const std::string& text) {
    return Write(path, text, host::kLogFile);
  }

  static mode_t ModeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777u;
  }

  std::ptrdiff_t FilesInFolder() const {
    const std::filesystem::path folder = std::filesystem::path(iFolder.Path("x")).parent_path();
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  }

  const mode_t iMask;
  TemporaryFolder iFolder;
};

TEST_F(OutputFile, OfALogIsCreatedForItsOwnerAloneToWriteAndAddedTo) {
  const std::string path = iFolder.Path("log");
  EXPECT_EQ(Log(path, "one\n"), "");
  EXPECT_EQ(Log(path, "two\n"), "");
  EXPECT_EQ(ContentOf(path), "one\ntwo\n");
  EXPECT_EQ(ModeOf(path), 0644u);
}

TEST_F(OutputFile, OfATraceIsItsOwnersAloneAndBegunAnew) {
  const std::string path = iFolder.Path("trace");
  EXPECT_EQ(Write(path, "one", host::kTraceFile), "");
  EXPECT_EQ(Write(path, "2", host::kTraceFile), "");
  EXPECT_EQ(ContentOf(path), "2");
  EXPECT_EQ(ModeOf(path), 0600u);
}

TEST_F(OutputFile, ThatIsThereLosesTheRightsThatOthersMustNotHave) {
  const std::string path = iFolder.Write("log", "");
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  EXPECT_EQ(Log(path, "x"), "");
  EXPECT_EQ(ModeOf(path), 0644u);
}

TEST_F(OutputFile, IsNeverBehindALinkNotEvenOnesOwn) {
  const std::string link = iFolder.Path("link");
  ASSERT_EQ(symlink(iFolder.Path("target").c_str(), link.c_str()), 0);
  EXPECT_EQ(Log(link, "x"), "cannot write the log file '" + link +
                                "': it is a symbolic link. Choose another file after --log-file.");
  EXPECT_NE(access(iFolder.Path("target").c_str(), F_OK), 0);
}

TEST_F(OutputFile, IsNobodyElses) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  const std::string path = iFolder.Write("log", "precious");
  ASSERT_EQ(chown(path.c_str(), 65534, 0), 0);
  EXPECT_THAT(Log(path, "x"), HasSubstr("': it belongs to another user."));
  EXPECT_EQ(ContentOf(path), "precious");
}

TEST_F(OutputFile, ThatCannotBeOpenedHasItsReason) {
  EXPECT_THAT(Log("/nowhere/log", "x"), HasSubstr("'/nowhere/log': No such file or directory."));
}

TEST_F(OutputFile, OnAFullDiskIsIncompleteAndItsStreamShowsThat) {
  host::OutputFile file;
  EXPECT_EQ(file.Open("/dev/full", host::kLogFile), "");
  host::OutputStream stream(file);
  EXPECT_FALSE(stream << "x" << std::flush);
  EXPECT_EQ(file.Fault(),
            "the log file '/dev/full' is incomplete: No space left on device. Is the disk full?");
}

TEST_F(OutputFile, ThatComesAsAWholeReplacesTheOneBeforeAndLeavesNothingBeside) {
  const std::string path = iFolder.Write("report", "old");
  EXPECT_EQ(host::MakeRoom(path, host::kReportFile), "");
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(host::WriteWhole(path, host::kReportFile, "new"), "");
  EXPECT_EQ(ContentOf(path), "new");
  EXPECT_EQ(ModeOf(path), 0644u);
  EXPECT_EQ(FilesInFolder(), 1);
}

TEST_F(OutputFile, ThatComesAsAWholeIsOnTheDiskBeforeItHasItsName) {
  const std::string path = iFolder.Path("report");
  off_t kept = 0;
  disk = [&](off_t size) {
    kept = size;
    return std::filesystem::exists(path) ? EEXIST : 0;
  };
  EXPECT_EQ(host::WriteWhole(path, host::kReportFile, "new"), "");
  EXPECT_EQ(kept, 3);
  disk = [](off_t /*size*/) { return EIO; };
  EXPECT_THAT(host::WriteWhole(iFolder.Path("other"), host::kReportFile, "new"),
              HasSubstr("Input/output error"));
  EXPECT_EQ(FilesInFolder(), 1);
  disk = nullptr;
}

TEST_F(OutputFile, ThatComesAsAWholeTakesNoLinkNoFolderAndNobodyElsesPlace) {
  const std::string target = iFolder.Write("target", "precious");
  const std::string link = iFolder.Path("link");
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(
      host::MakeRoom(link, host::kReportFile),
      "cannot write the report '" + link + "': it is a symbolic link. Choose another file after --report.");
  ASSERT_EQ(mkdir(iFolder.Path("folder").c_str(), 0700), 0);
  EXPECT_THAT(host::MakeRoom(iFolder.Path("folder"), host::kReportFile), HasSubstr("it is no regular file"));
  EXPECT_THAT(host::MakeRoom("/nowhere/report", host::kReportFile), HasSubstr("No such file or directory"));
  if (geteuid() == 0) {
    ASSERT_EQ(chown(target.c_str(), 65534, 0), 0);
    EXPECT_THAT(host::MakeRoom(target, host::kReportFile), HasSubstr("it belongs to another user"));
  }
  EXPECT_EQ(ContentOf(target), "precious");
  EXPECT_EQ(FilesInFolder(), 3);
}

TEST_F(OutputFile, ThatCannotComeAsAWholeIsNotThere) {
  EXPECT_THAT(host::WriteWhole("/nowhere/report", host::kReportFile, "x"),
              HasSubstr("there is no report '/nowhere/report': No such file or directory."));
  const std::string folder = iFolder.Path("folder");
  std::filesystem::create_directories(folder + "/more");
  EXPECT_THAT(host::WriteWhole(folder, host::kReportFile, "x"), HasSubstr("there is no report"));
  EXPECT_EQ(FilesInFolder(), 1);
}

TEST_F(OutputFile, OfAnEarlierRunIsKnownByItsBeginning) {
  EXPECT_TRUE(host::IsMissingOrBegins(iFolder.Path("none"), "abc"));
  EXPECT_TRUE(host::IsMissingOrBegins(iFolder.Write("empty", ""), "abc"));
  EXPECT_TRUE(host::IsMissingOrBegins(iFolder.Write("own", "abcd"), "abc"));
  EXPECT_FALSE(host::IsMissingOrBegins(iFolder.Write("short", "ab"), "abc"));
  EXPECT_FALSE(host::IsMissingOrBegins(iFolder.Write("other", "abd"), "abc"));
}

TEST_F(OutputFile, GetsFromItsStreamWhatWasFlushed) {
  host::OutputFile file;
  EXPECT_EQ(file.Open(iFolder.Path("log"), host::kLogFile), "");
  host::OutputStream stream(file);
  stream << "one" << std::endl << "two";
  EXPECT_EQ(ContentOf(iFolder.Path("log")), "one\n");
  stream << std::endl;
  EXPECT_EQ(ContentOf(iFolder.Path("log")), "one\ntwo\n");
}

}  // namespace
