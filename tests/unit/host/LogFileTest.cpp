// Goal: what peripheralctl writes is its owner's to write, and goes nowhere that somebody else has laid out.
// Method: files and links in a folder of the test's own; other people's links need root.
#include "LogFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "TemporaryFolder.h"

namespace {

using host::OpenForAppending;

std::string ContentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class LogFile : public testing::Test {
 protected:
  LogFile() : iMask(umask(0)) {}
  ~LogFile() override { umask(iMask); }

  bool Write(const std::string& path, const std::string& text) {
    const auto file = OpenForAppending(path, iFault);
    return file != nullptr && (*file << text << std::flush).good();
  }

  const mode_t iMask;
  TemporaryFolder iFolder;
  std::string iFault;
};

TEST_F(LogFile, IsCreatedForItsOwnerAloneToWriteAndAddedTo) {
  const std::string path = iFolder.Path("log");
  EXPECT_TRUE(Write(path, "one\n"));
  EXPECT_TRUE(Write(path, "two\n"));
  EXPECT_EQ(ContentOf(path), "one\ntwo\n");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0644u);
}

TEST_F(LogFile, OnesOwnLinkIsFollowed) {
  ASSERT_EQ(symlink(iFolder.Path("target").c_str(), iFolder.Path("link").c_str()), 0);
  EXPECT_TRUE(Write(iFolder.Path("link"), "x"));
  EXPECT_EQ(ContentOf(iFolder.Path("target")), "x");
}

TEST_F(LogFile, APlantedLinkIsNotFollowed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can make another user's link";
  }
  const std::string link = iFolder.Path("link");
  ASSERT_EQ(symlink(iFolder.Path("target").c_str(), link.c_str()), 0);
  ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
  EXPECT_FALSE(Write(link, "x"));
  EXPECT_EQ(iFault, "'" + link + "' is a link that belongs to another user; it is not followed");
  EXPECT_NE(access(iFolder.Path("target").c_str(), F_OK), 0);
}

TEST_F(LogFile, WhatCannotBeOpenedHasItsReason) {
  EXPECT_FALSE(Write("/nowhere/log", "x"));
  EXPECT_EQ(iFault, "No such file or directory");
}

TEST_F(LogFile, AFullDiskShows) {
  EXPECT_FALSE(Write("/dev/full", "x"));
}

}  // namespace
