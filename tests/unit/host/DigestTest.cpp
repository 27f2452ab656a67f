// Goal: the digest of a file is the SHA-256 that everybody else computes.
// Method: the standard's examples, and a file of several reads against sha256sum's answer.
#include "Digest.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "Files.h"

namespace {

using host::Sha256Of;

TEST(Digest, IsThatOfTheStandardsExamples) {
  const TemporaryFolder folder;
  EXPECT_EQ(Sha256Of(folder.Write("empty", "")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Of(folder.Write("abc", "abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Digest, CoversAFileOfManyReads) {
  const TemporaryFolder folder;
  EXPECT_EQ(Sha256Of(folder.Write("million", std::string(1'000'000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Digest, OfWhatCannotBeReadIsNone) {
  EXPECT_EQ(Sha256Of("/nowhere/at/all"), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Sha256Of("/proc/self/mem"), std::nullopt);
  EXPECT_EQ(errno, EIO);
}

}  // namespace
