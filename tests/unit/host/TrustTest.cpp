// Goal: root follows no file that others could change, be it by its folder or by a link.
// Method: as root, one place after the other on the way to a file is given away.
#include "Trust.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>

#include "Files.h"

namespace {

using host::WhyUntrusted;
using testing::HasSubstr;
using testing::Optional;

constexpr uid_t kSomebody = 65534;

class Trust : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root has files to give away";
    }
    std::filesystem::create_directory(iFolder.Path("sub"));
    iFile = iFolder.Write("sub/file", "content");
    ASSERT_EQ(chmod(iFile.c_str(), 0644), 0);
    ASSERT_EQ(WhyUntrusted(iFile), std::nullopt);
  }

  TemporaryFolder iFolder;
  std::string iFile;
};

TEST_F(Trust, AFileThatOthersMayWriteIsNot) {
  for (const mode_t mode : {0646u, 0666u}) {
    ASSERT_EQ(chmod(iFile.c_str(), mode), 0);
    EXPECT_EQ(WhyUntrusted(iFile),
              "others than root may write '" + iFile + "' (chmod go-w '" + iFile + "' mends it)");
  }
}

TEST_F(Trust, AGroupCountsUnlessItIsRootsOwn) {
  ASSERT_EQ(chmod(iFile.c_str(), 0664), 0);
  EXPECT_EQ(WhyUntrusted(iFile), std::nullopt);
  ASSERT_EQ(chown(iFile.c_str(), 0, kSomebody), 0);
  EXPECT_EQ(WhyUntrusted(iFile),
            "others than root may write '" + iFile + "' (chmod go-w '" + iFile + "' mends it)");
}

// As "setfacl -m u:65534:rw" leaves it: the kernel keeps a version and records of tag, rights and id.
TEST_F(Trust, AnAccessListThatLetsSomebodyWriteCountsAsOthers) {
  struct Record {
    std::uint16_t tag, rights;
    std::uint32_t id;
  };
  struct List {
    std::uint32_t version = 2;
    std::array<Record, 5> records = {{{0x01, 6, 0xFFFFFFFF},
                                      {0x02, 6, kSomebody},
                                      {0x04, 4, 0xFFFFFFFF},
                                      {0x10, 6, 0xFFFFFFFF},
                                      {0x20, 4, 0xFFFFFFFF}}};
  } const list;
  if (setxattr(iFile.c_str(), "system.posix_acl_access", &list, sizeof(list), 0) != 0 && errno == ENOTSUP) {
    GTEST_SKIP() << "this file system has no access lists";
  }
  EXPECT_EQ(WhyUntrusted(iFile),
            "others than root may write '" + iFile + "' (chmod go-w '" + iFile + "' mends it)");
  ASSERT_EQ(chmod(iFile.c_str(), 0644), 0);
  EXPECT_EQ(WhyUntrusted(iFile), std::nullopt);
}

TEST_F(Trust, AnotherUsersFileIsNot) {
  ASSERT_EQ(chown(iFile.c_str(), kSomebody, 0), 0);
  EXPECT_EQ(WhyUntrusted(iFile),
            "'" + iFile + "' belongs to another user than root (chown root '" + iFile + "' mends it)");
}

TEST_F(Trust, AFolderThatOthersMayChangeIsNotUnlessNamesStay) {
  ASSERT_EQ(chmod(iFolder.Path("sub").c_str(), 0777), 0);
  EXPECT_THAT(WhyUntrusted(iFile), Optional(HasSubstr("/sub'")));
  ASSERT_EQ(chmod(iFolder.Path("sub").c_str(), 01777), 0);
  EXPECT_EQ(WhyUntrusted(iFile), std::nullopt);
}

TEST_F(Trust, ALinkIsNoWayRound) {
  const std::string link = iFolder.Path("link");
  ASSERT_EQ(symlink(iFile.c_str(), link.c_str()), 0);
  EXPECT_EQ(WhyUntrusted(link), std::nullopt);
  ASSERT_EQ(lchown(link.c_str(), kSomebody, 0), 0);
  EXPECT_THAT(WhyUntrusted(link), Optional(HasSubstr("/link' belongs to another user")));
  ASSERT_EQ(lchown(link.c_str(), 0, 0), 0);
  ASSERT_EQ(chown(iFile.c_str(), kSomebody, 0), 0);
  EXPECT_THAT(WhyUntrusted(link), Optional(HasSubstr("/sub/file' belongs to another user")));
}

TEST_F(Trust, EachLinkOfAChainIsLookedAt) {
  const std::string first = iFolder.Path("first");
  const std::string second = iFolder.Path("second");
  ASSERT_EQ(symlink("second", first.c_str()), 0);
  ASSERT_EQ(symlink("sub/file", second.c_str()), 0);
  EXPECT_EQ(WhyUntrusted(first), std::nullopt);
  ASSERT_EQ(lchown(second.c_str(), kSomebody, 0), 0);
  EXPECT_THAT(WhyUntrusted(first), Optional(HasSubstr("/second' belongs to another user")));
}

TEST_F(Trust, ALinkThatTheWayLeavesAgainIsLookedAt) {
  const std::string link = iFolder.Path("link");
  ASSERT_EQ(symlink("sub", link.c_str()), 0);
  const std::string way = iFolder.Path("link/../sub/./file");
  EXPECT_EQ(WhyUntrusted(way), std::nullopt);
  ASSERT_EQ(lchown(link.c_str(), kSomebody, 0), 0);
  EXPECT_THAT(WhyUntrusted(way), Optional(HasSubstr("/link' belongs to another user")));
}

TEST_F(Trust, WhatIsNotThereIsNotJudged) {
  EXPECT_EQ(WhyUntrusted(iFolder.Path("none")), std::nullopt);
}

}  // namespace
