// Goal: people see how far an update is, on a terminal in place, elsewhere in few lines.
// Method: the bytes that the display writes.
#include "ProgressDisplay.h"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using host::ProgressDisplay;
using host::UpdateState;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

ProgressDisplay Display(std::ostream& out, bool terminal, int columns, std::vector<std::string> devices = {},
                        bool colour = false) {
  return ProgressDisplay(out, out, {terminal, colour, false, [columns] { return columns; }},
                         std::move(devices));
}

TEST(ProgressDisplay, WritesALineEveryTenPercentWhereThereIsNoTerminal) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, false, 80);
  for (const int percent : {0, 4, 9, 10, 11, 37, 39, 100}) {
    display.OnProgress(percent);
  }
  EXPECT_EQ(out.str(), "Progress: 0 %\nProgress: 10 %\nProgress: 37 %\nProgress: 99 %\n");
}

TEST(ProgressDisplay, TheFirstProgressIsShownWhateverItIs) {
  std::ostringstream out;
  Display(out, false, 80).OnProgress(7);
  EXPECT_EQ(out.str(), "Progress: 7 %\n");
}

TEST(ProgressDisplay, RedrawsABarInPlaceOnATerminal) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, true, 24);
  display.OnProgress(0);
  display.OnProgress(55);
  display.OnProgress(100);
  EXPECT_EQ(out.str(),
            "\r\x1b[K[............]    0 %\r\x1b[K[######......]   55 %\r\x1b[K[###########.]   99 %");
}

TEST(ProgressDisplay, TheBarFitsTheTerminalAndIsNeitherTooLongNorTooShort) {
  for (const auto& [columns, bar] :
       {std::pair(40, "[" + std::string(28, '.') + "]  "), std::pair(80, "[" + std::string(50, '.') + "]  "),
        std::pair(500, "[" + std::string(50, '.') + "]  "), std::pair(22, "[" + std::string(10, '.') + "]  "),
        std::pair(21, std::string())}) {
    std::ostringstream out;
    Display(out, true, columns).OnProgress(0);
    EXPECT_EQ(out.str(), "\r\x1b[K" + bar + "  0 %") << columns;
  }
}

TEST(ProgressDisplay, AMilestoneStandsAboveTheBar) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, true, 22);
  display.OnMilestone("before");
  display.OnProgress(50);
  display.OnMilestone("after");
  EXPECT_EQ(out.str(), "before\n\r\x1b[K[#####.....]   50 %\r\x1b[Kafter\n\r\x1b[K[#####.....]   50 %");
}

TEST(ProgressDisplay, OnlyASuccessIsAHundredPercent) {
  for (const bool terminal : {false, true}) {
    std::ostringstream out;
    ProgressDisplay good = Display(out, terminal, 20);
    good.OnProgress(100);
    good.OnState(UpdateState::Ended);
    EXPECT_THAT(out.str(), AllOf(HasSubstr(" 99 %"), Not(HasSubstr("100 %"))));
    good.OnResult({host::Goal::Update, host::Outcome::Succeeded, true, {}}, host::ExitCode::Success);
    EXPECT_THAT(out.str(), EndsWith("100 %\nThe update has succeeded.\n"));
    out.str("");
    ProgressDisplay bad = Display(out, terminal, 20);
    bad.OnProgress(100);
    bad.OnResult({host::Goal::Update, host::Outcome::SourceChanged, true, {}}, host::ExitCode::SourceChanged);
    EXPECT_THAT(out.str(), AllOf(HasSubstr(" 99 %\nThe update failed"), Not(HasSubstr("100 %"))));
  }
}

TEST(ProgressDisplay, WarningsAndTheLogStandAboveTheBar) {
  std::ostringstream out;
  ProgressDisplay display(out, out, {true, false, true, [] { return 22; }}, {});
  display.OnProgress(50);
  out.str("");
  display.OnWarning({host::ErrorCode::LogNotWritten, "late"});
  display.Log() << "a line "
                << "of the log" << std::endl;
  EXPECT_EQ(out.str(),
            "\r\x1b[Kperipheralctl: late\n\r\x1b[K[#####.....]   50 %"
            "\r\x1b[Ka line of the log\n\r\x1b[K[#####.....]   50 %");
}

TEST(ProgressDisplay, AnAbortGoesOnBelowTheBarAndDrawsItNoMore) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, true, 22);
  display.OnProgress(50);
  out.str("");
  display.OnState(UpdateState::Aborting);
  display.OnSentBytes({0, 5, 8, 5, 8}, {});
  display.OnResult({host::Goal::Update, host::Outcome::Aborted, false, {}}, host::ExitCode::Aborted);
  EXPECT_EQ(out.str(),
            "\nAborting. Waiting for the module's answer; a second Ctrl-C exits at once.\n"
            "Aborted.\nNothing was written to the device.\n");
}

TEST(ProgressDisplay, ALogThatGoesElsewhereIsNoneOfTheTerminals) {
  std::ostringstream out;
  std::ostringstream err;
  ProgressDisplay display(out, err, {true, false, false, [] { return 22; }}, {});
  EXPECT_EQ(&display.Log(), &err);
}

TEST(ProgressDisplay, EveryStateOfInterestIsALine) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, false, 80);
  for (const UpdateState state :
       {UpdateState::AwaitingAnnouncement, UpdateState::Preparing, UpdateState::Installing,
        UpdateState::Pausing, UpdateState::Aborting, UpdateState::Ended}) {
    display.OnState(state);
  }
  EXPECT_EQ(out.str(),
            "Preparing: the module checks its settings, the files and the port.\n"
            "Updating. Leave the device powered and connected; Ctrl-C aborts.\n"
            "Aborting. Waiting for the module's answer; a second Ctrl-C exits at once.\n");
  EXPECT_THAT(out.str(), Not(HasSubstr("\x1b")));
}

TEST(ProgressDisplay, AStreamThatRefusesIsNoReasonToStop) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  ProgressDisplay display = Display(out, true, 80);
  display.OnProgress(10);
  display.OnMilestone("x");
  display.OnState(UpdateState::Ended);
  EXPECT_EQ(out.str(), "");
}

using namespace std::chrono_literals;
using host::Pace;
using host::SentBytes;

constexpr std::int64_t kKiB = 1024;

// The bar, as the terminal shows it, of an update at a quarter of its first device.
std::string BarAt(int columns, const std::vector<std::string>& devices) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, true, columns, devices);
  display.OnStep({0, "wr 8000, firmware.bin"});
  display.OnSentBytes({0, 64 * kKiB, 256 * kKiB, 64 * kKiB, 512 * kKiB}, {11.0 * 1024, 18s});
  EXPECT_EQ(out.str(), "");
  display.OnProgress(0);
  display.OnSentBytes({0, 64 * kKiB, 256 * kKiB, 64 * kKiB, 512 * kKiB}, {11.0 * 1024, 18s});
  const std::string bar = out.str().substr(out.str().rfind("\x1b[K") + 3);
  EXPECT_LT(bar.size() + 2, static_cast<std::size_t>(columns)) << "^C makes the terminal begin another line";
  return bar;
}

TEST(ProgressDisplay, WhatCountsMostIsShownLongest) {
  const std::vector<std::string> two = {"CAN controller", "Sanyo device"};
  EXPECT_EQ(BarAt(120, two),
            "[##................]   12 %  CAN controller 25 %  wr 8000, firmware.bin  0:18 left  64.0 KiB of "
            "256.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(80, two), "[#.........]   12 %  CAN controller 25 %  wr 8000  0:18  64.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(60, two), " 12 %  CAN 25 %  wr 8000  0:18 left  64.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(40, two), " 12 %  CAN 25 %  wr 8000  0:18 left");
  EXPECT_EQ(BarAt(20, two), " 12 %  CAN 25 %");
}

TEST(ProgressDisplay, OfASingleDeviceTheNameIsLeftOut) {
  const std::vector<std::string> one = {"CAN controller"};
  EXPECT_EQ(BarAt(120, one),
            "[####...................................]   12 %  wr 8000, firmware.bin  0:18 left  64.0 KiB of "
            "256.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(80, one), "[#...........]   12 %  wr 8000, firmware.bin  0:18 left  64.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(60, one), "[#..........]   12 %  wr 8000  0:18  64.0 KiB  11.0 KiB/s");
  EXPECT_EQ(BarAt(40, one), " 12 %  wr 8000  0:18 left  64.0 KiB");
  EXPECT_EQ(BarAt(20, one), " 12 %  wr 8000");
}

TEST(ProgressDisplay, PercentageAndBytesSayTheSameAndNeverGoBack) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, false, 80, {"CAN controller"});
  display.OnProgress(0);
  display.OnSentBytes({0, 30 * kKiB, 100 * kKiB, 30 * kKiB, 100 * kKiB}, Pace());
  display.OnProgress(57);
  display.OnSentBytes({0, 50 * kKiB, 100 * kKiB, 50 * kKiB, 100 * kKiB}, Pace());
  display.OnSentBytes({0, 10 * kKiB, 100 * kKiB, 10 * kKiB, 100 * kKiB}, Pace());
  EXPECT_EQ(
      out.str(),
      "Progress: 0 %\nProgress: 30 % (30.0 KiB of 100.0 KiB)\nProgress: 50 % (50.0 KiB of 100.0 KiB)\n");
}

TEST(ProgressDisplay, ATerminalThatShrinksIsRespectedAtOnce) {
  std::ostringstream out;
  int columns = 80;
  ProgressDisplay display(out, out, {true, false, false, [&columns] { return columns; }}, {});
  display.OnProgress(0);
  columns = 20;
  out.str("");
  display.OnStep({0, "a step that finds"});
  EXPECT_EQ(out.str(), "\r\x1b[K  0 %");
}

TEST(ProgressDisplay, OfSeveralDevicesEachHasItsShare) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, false, 80, {"CAN controller", "Sanyo device"});
  display.OnStep({1, "image, firmware.bin"});
  display.OnProgress(0);
  display.OnSentBytes({1, 3 * kKiB * kKiB, 4 * kKiB * kKiB, 7, 8}, Pace());
  EXPECT_EQ(out.str(),
            "  Sanyo device: image, firmware.bin\nProgress: 0 %\n"
            "Progress: 87 % (Sanyo device 75 %, 3.0 MiB of 4.0 MiB)\n");
}

TEST(ProgressDisplay, TheBarHasAColourWhereThatIsWanted) {
  std::ostringstream out;
  Display(out, true, 22, {}, true).OnProgress(50);
  EXPECT_EQ(out.str(), "\r\x1b[K[\x1b[32m#####\x1b[0m.....]   50 %");
}

TEST(ProgressDisplay, ARetryGivesTheCauseAndBeginsAnew) {
  std::ostringstream out;
  ProgressDisplay display = Display(out, false, 80, {"CAN controller"});
  display.AskWhy([](int attempt) {
    EXPECT_EQ(attempt, 1);
    return host::Cause{host::ErrorCode::Stalled, "nothing moved"};
  });
  display.OnProgress(50);
  display.OnRetry(2, {2, 3s});
  display.OnProgress(0);
  EXPECT_EQ(
      out.str(),
      "Progress: 50 %\nThe attempt failed (nothing moved); attempt 2 of 3 begins in 3 s.\nProgress: 0 %\n");
}

TEST(ProgressDisplay, FailuresGoToTheOtherStream) {
  std::ostringstream out;
  std::ostringstream err;
  ProgressDisplay display(out, err, {false, false, false, [] { return 80; }}, {});
  display.OnFaults({{host::ErrorCode::PortBusy, "one"}, {host::ErrorCode::PortMissing, "two"}});
  display.OnWarning({host::ErrorCode::LogNotWritten, "three"});
  display.OnRefusal({}, host::ExitCode::BadConfiguration);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(err.str(), "peripheralctl: one\nperipheralctl: two\nperipheralctl: three\n");
}

}  // namespace
