// Goal: what peripheralctl writes is its owner's to write, and goes nowhere that somebody else has laid out.
// Method: files and links in a folder of the test's own; other people's files need root. What is peculiar to
// traces stands with their recorder.
#include "OutputFile.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "TemporaryFolder.h"

namespace {

using testing::HasSubstr;

std::string ContentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

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
  const std::string path = iFolder.File("log", "");
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
  const std::string path = iFolder.File("log", "precious");
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
