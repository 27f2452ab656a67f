// Goal: the texts of the options are understood, or refused without a trace.
// Method: a table of texts each.
#include "simulator/Options.h"

#include <gtest/gtest.h>

namespace simulator {

TEST(Refusal, IsReadFromItsText) {
  struct Case {
    std::string text, verb;
    int occurrence;
    std::string answer;
  };
  for (const Case& each :
       {Case{"wr", "wr", 1, "001"}, Case{"gt:0", "gt", 0, "001"}, Case{"wr:2", "wr", 2, "001"},
        Case{"ck=007", "ck", 1, "007"}, Case{"ck:12=a=b:c", "ck", 12, "a=b:c"}, Case{"gt=", "gt", 1, ""}}) {
    Refusal refusal;
    ASSERT_TRUE(ParseRefusal(each.text, refusal)) << each.text;
    EXPECT_EQ(refusal.verb, each.verb) << each.text;
    EXPECT_EQ(refusal.occurrence, each.occurrence) << each.text;
    EXPECT_EQ(refusal.answer, each.answer) << each.text;
  }
}

TEST(Refusal, OtherTextsChangeNothing) {
  for (const std::string text :
       {"", "w", "xx", "wr:", "wr:x", "wr:-1", "wr:1x", "wr2", ":1", "=1", "wr :1", "wr:99999999999"}) {
    Refusal refusal;
    refusal.verb = "kept";
    EXPECT_FALSE(ParseRefusal(text, refusal)) << text;
    EXPECT_EQ(refusal.verb, "kept") << text;
  }
}

TEST(Silence, IsReadFromItsText) {
  struct Case {
    std::string text;
    SilentStage stage;
    std::uint64_t bytes;
  };
  for (const Case& each : {Case{"start", SilentStage::kStart, 0}, Case{"version", SilentStage::kVersion, 0},
                           Case{"wr-ram", SilentStage::kWriteRam, 0}, Case{"gt", SilentStage::kGo, 0},
                           Case{"wr-flash", SilentStage::kWriteFlash, 0}, Case{"ck", SilentStage::kCheck, 0},
                           Case{"1500", SilentStage::kBytes, 1500}}) {
    Silence silence;
    ASSERT_TRUE(ParseSilence(each.text, silence)) << each.text;
    EXPECT_EQ(silence.stage, each.stage) << each.text;
    EXPECT_EQ(silence.bytes, each.bytes) << each.text;
  }
}

TEST(Silence, OtherTextsChangeNothing) {
  for (const std::string text : {"", "wr", "0", "-5", "12x", "Version"}) {
    Silence silence;
    EXPECT_FALSE(ParseSilence(text, silence)) << text;
    EXPECT_EQ(silence.stage, SilentStage::kNone) << text;
  }
}

}  // namespace simulator
