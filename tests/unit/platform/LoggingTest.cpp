// Goal: a log statement costs nothing when its level is off, loses nothing when it is on, and stays one line.
// Method: a sink of the test's own; what the sink on standard error writes is read back from there.
#include "Logging.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "Support.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

namespace {

std::vector<std::string> Messages(const LogCapture& log) {
  std::vector<std::string> messages;
  for (const LogCapture::Line& line : log.Lines()) {
    messages.push_back(line.message);
  }
  return messages;
}

// Notices when two threads are inside it at once.
class CountingSink : public logging::ISink {
 public:
  void Write(const logging::TLine&) override {
    iOverlaps += iBusy.exchange(true);
    std::this_thread::yield();
    ++iLines;
    iBusy = false;
  }

  std::atomic<bool> iBusy{false};
  std::atomic<int> iOverlaps{0};
  std::atomic<int> iLines{0};
};

}  // namespace

TEST(Logging, LowestLevelIsWarningAtFirst) {
  EXPECT_FALSE(logging::IsOn(logging::EInfo));
  EXPECT_TRUE(logging::IsOn(logging::EWarning));
}

TEST(Logging, ALevelThatIsOffDoesNotEvaluateItsMessage) {
  const LogCapture log(logging::EError);
  int evaluated = 0;
  LOG_WARNING(logging::Host, ++evaluated);
  EXPECT_EQ(evaluated, 0);
  LOG_ERROR(logging::Host, ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(Messages(log), ElementsAre("1"));
}

TEST(Logging, AlwaysIsWrittenWhateverTheLowestLevelIs) {
  const LogCapture log(static_cast<logging::TLevel>(logging::EAlways + 1));
  LOG_ERROR(logging::Host, "off");
  LOG_ALWAYS(logging::Host, "on");
  EXPECT_THAT(Messages(log), ElementsAre("on"));
}

TEST(Logging, EachMacroHasItsLevel) {
  const LogCapture log;
  LOG_INTERFACE(logging::Host, "");
  LOG_INFO(logging::Host, "");
  LOG_WARNING(logging::Host, "");
  LOG_ERROR(logging::Host, "");
  LOG_ALWAYS(logging::Host, "");
  std::vector<logging::TLevel> levels;
  for (const LogCapture::Line& line : log.Lines()) {
    levels.push_back(line.level);
  }
  EXPECT_THAT(levels, ElementsAre(logging::EInterface, logging::EInfo, logging::EWarning, logging::EError,
                                  logging::EAlways));
}

TEST(Logging, BytesAreWrittenAsNumbersAndNullTextAsNothing) {
  const LogCapture log;
  const char* const none = nullptr;
  LOG_INFO(logging::Host, "Failed writing[" << TUint8{24} << "] " << 'A' << " " << TInt32{-1} << " "
                                            << ~TUint64{0} << none << static_cast<const TChr*>(nullptr)
                                            << AsTChr(" text"));
  EXPECT_THAT(Messages(log), ElementsAre("Failed writing[24] 65 -1 18446744073709551615 text"));
}

TEST(Logging, ALineNamesLevelModulePlaceAndMessage) {
  EXPECT_EQ(
      logging::Format({logging::EInfo, logging::PeripheralLoader, "TBool CThing::Command(const string&)",
                       "features/Thing.cpp", 87, "Sending command wr 1000"}),
      "Info PeripheralLoader TBool CThing::Command(const string&) features/Thing.cpp:87 "
      "(Sending command wr 1000)");
}

TEST(Logging, EveryLevelAndModuleHasItsName) {
  EXPECT_STREQ(logging::Name(logging::EInterface), "Interface");
  EXPECT_STREQ(logging::Name(logging::EInfo), "Info");
  EXPECT_STREQ(logging::Name(logging::EWarning), "Warning");
  EXPECT_STREQ(logging::Name(logging::EError), "Error");
  EXPECT_STREQ(logging::Name(logging::EAlways), "Always");
  EXPECT_STREQ(logging::Name(logging::PeripheralLoader), "PeripheralLoader");
  EXPECT_STREQ(logging::Name(logging::SWLInfra), "SWLInfra");
  EXPECT_STREQ(logging::Name(logging::Platform), "Platform");
  EXPECT_STREQ(logging::Name(logging::Host), "Host");
}

TEST(Logging, WhatADeviceSentCannotStartALineOfItsOwn) {
  const std::string message("a\n\x1b[0m\0\x7f\xc3\xa4", 10);
  EXPECT_THAT(logging::Format({logging::EInfo, logging::Host, "", "", 1, message}),
              HasSubstr("(a\\x0a\\x1b[0m\\x00\\x7f\xc3\xa4)"));
}

TEST(Logging, ControlCharactersOfTwoBytesAreWrittenAsNumbersAndLettersKept) {
  EXPECT_EQ(logging::Printable("\xc2\x80|\xc2\x9b|\xc2\x9f|\xc2\xa0|\xc2"),
            "\\xc2\\x80|\\xc2\\x9b|\\xc2\\x9f|\xc2\xa0|\xc2");
  EXPECT_EQ(logging::Printable("\xc3\x9f|\xe2\x82\xac|\xf0\x9f\x98\x80"),
            "\xc3\x9f|\xe2\x82\xac|\xf0\x9f\x98\x80");
  EXPECT_EQ(logging::Printable("\x9b"
                               "2J\xc2\x9b\x9b"),
            "\\x9b"
            "2J\\xc2\\x9b\\x9b");
}

TEST(Logging, TheLowestLevelIsTold) {
  const logging::TLevel before = logging::LowestLevel();
  logging::SetLowestLevel(logging::EError);
  EXPECT_EQ(logging::LowestLevel(), logging::EError);
  logging::SetLowestLevel(before);
  EXPECT_EQ(logging::LowestLevel(), before);
}

TEST(Logging, AReplacedSinkIsReturnedAndNotUsedAnyMore) {
  const LogCapture first;
  {
    LogCapture second;
    LOG_INFO(logging::Host, "two");
    EXPECT_THAT(Messages(second), ElementsAre("two"));
    EXPECT_EQ(logging::SetSink(&second), &second);
  }
  EXPECT_THAT(Messages(first), SizeIs(0));
}

TEST(Logging, WithoutASinkLinesGoToStandardErrorWithTheTimeOfDay) {
  testing::internal::CaptureStderr();
  LOG_WARNING(logging::Host, "careful");
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_THAT(text, MatchesRegex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} Warning Host .*TestBody\\(\\) "
                                 "tests/unit/platform/LoggingTest\\.cpp:[0-9]+ \\(careful\\)\n"));
}

TEST(Logging, LinesOfManyThreadsAllArriveOneAtATime) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  const LogCapture everyLevelOn;
  CountingSink sink;
  logging::ISink* const former = logging::SetSink(&sink);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([] {
      for (int line = 0; line < kLines; ++line) {
        LOG_INFO(logging::Host, line);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  logging::SetSink(former);
  EXPECT_EQ(sink.iLines, kThreads * kLines);
  EXPECT_EQ(sink.iOverlaps, 0);
}

TEST(Logging, ASinkIsNotUsedByOtherThreadsAfterItWasTakenAway) {
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    while (!stop) {
      LOG_INFO(logging::Host, "line");
    }
  });
  const LogCapture last;
  for (int round = 0; round < 200; ++round) {
    const LogCapture shortLived;
  }
  logging::SetLowestLevel(logging::EInterface);
  stop = true;
  writer.join();
}
