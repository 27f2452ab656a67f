// Goal: descriptors and bounded copies never leave the bytes that they were given.
// Method: texts with marked surroundings; complaints are read back from standard output.
#include <gmock/gmock.h>
#include <tdes>

#include <array>
#include <functional>
#include <memory>

#include "SafeCopy.h"

using testing::ElementsAreArray;

namespace {

std::string OutputOf(const std::function<void()>& body) {
  testing::internal::CaptureStdout();
  body();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::array<char, 8> Copied(std::size_t capacity, const char* source, std::size_t size) {
  std::array<char, 8> destination;
  destination.fill('#');
  platSafecopy(destination.data(), capacity, source, size);
  return destination;
}

}  // namespace

TEST(Descriptor, DescribesATextInPlace) {
  const std::string text = "text";
  const std::string output = OutputOf([&] {
    const Tdes descriptor(AsTChr(text));
    EXPECT_EQ(descriptor.Ptr(), AsTChr(text));
    EXPECT_EQ(descriptor.Length(), 4u);
    descriptor.SelfTest();
  });
  EXPECT_EQ(output, "");
}

TEST(Descriptor, ANullPointerIsToldAndCountsAsEmpty) {
  const std::string output = OutputOf([] {
    const Tdes descriptor(nullptr);
    descriptor.SelfTest();
    ASSERT_NE(descriptor.Ptr(), nullptr);
    EXPECT_EQ(*descriptor.Ptr(), 0);
    EXPECT_EQ(descriptor.Length(), 0u);
  });
  EXPECT_THAT(output, testing::MatchesRegex(
                          "\nAssertion failed \\(aString!=NULL\\) in file include/tdes, line [1-9][0-9]*\n"));
}

TEST(Descriptor, SelfTestTellsThatTheTextChangedItsLength) {
  for (const char* change : {"sho", "longerthan"}) {
    char text[16] = "short";
    const Tdes descriptor(AsTChr(text));
    std::strcpy(text, change);
    EXPECT_THAT(OutputOf([&] { descriptor.SelfTest(); }),
                testing::StartsWith("\nAssertion failed (strlen(iString)==iLength) in file"));
  }
}

TEST(Descriptor, SelfTestReadsNoFurtherThanTheTextOnceReached) {
  const auto text = std::make_unique<char[]>(6);
  std::memcpy(text.get(), "short", 6);
  const Tdes descriptor(AsTChr(text.get()));
  text[5] = '!';
  EXPECT_NE(OutputOf([&] { descriptor.SelfTest(); }), "");
}

TEST(SafeCopy, CopiesATextThatFitsAndNothingBehindIt) {
  EXPECT_THAT(Copied(8, "text", 5), ElementsAreArray({'t', 'e', 'x', 't', '\0', '#', '#', '#'}));
}

TEST(SafeCopy, ATextThatJustFitsIsNotCut) {
  EXPECT_THAT(Copied(5, "text", 5), ElementsAreArray({'t', 'e', 'x', 't', '\0', '#', '#', '#'}));
}

TEST(SafeCopy, ATextThatDoesNotFitIsCutAndTerminated) {
  EXPECT_THAT(Copied(4, "text", 5), ElementsAreArray({'t', 'e', 'x', '\0', '#', '#', '#', '#'}));
}

TEST(SafeCopy, ATextWithoutItsEndIsEndedAtTheCapacity) {
  EXPECT_THAT(Copied(4, "text", 4), ElementsAreArray({'t', 'e', 'x', '\0', '#', '#', '#', '#'}));
}

TEST(SafeCopy, EmbeddedZerosAreCopied) {
  EXPECT_THAT(Copied(8, "a\0b", 4), ElementsAreArray({'a', '\0', 'b', '\0', '#', '#', '#', '#'}));
}

TEST(SafeCopy, NothingIsWrittenWithoutRoomOrText) {
  EXPECT_THAT(Copied(0, "text", 5), testing::Each('#'));
  EXPECT_THAT(Copied(8, "text", 0), testing::Each('#'));
}

TEST(SafeCopy, AnArrayKnowsItsCapacity) {
  char destination[3];
  platSafecopy(destination, "text", 5);
  EXPECT_STREQ(destination, "te");
}
