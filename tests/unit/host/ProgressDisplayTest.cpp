// Goal: people see how far an update is, on a terminal in place, elsewhere in few lines.
// Method: the bytes that the display writes.
#include "ProgressDisplay.h"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using host::ProgressDisplay;
using host::UpdateState;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

TEST(ProgressDisplay, WritesALineEveryTenPercentWhereThereIsNoTerminal) {
  std::ostringstream out;
  ProgressDisplay display(out, false, 80);
  for (const int percent : {0, 4, 9, 10, 11, 37, 39, 100}) {
    display.OnProgress(percent);
  }
  EXPECT_EQ(out.str(), "Progress: 0 %\nProgress: 10 %\nProgress: 37 %\nProgress: 100 %\n");
}

TEST(ProgressDisplay, TheFirstProgressIsShownWhateverItIs) {
  std::ostringstream out;
  ProgressDisplay(out, false, 80).OnProgress(7);
  EXPECT_EQ(out.str(), "Progress: 7 %\n");
}

TEST(ProgressDisplay, RedrawsABarInPlaceOnATerminal) {
  std::ostringstream out;
  ProgressDisplay display(out, true, 20);
  display.OnProgress(0);
  display.OnProgress(55);
  display.OnProgress(100);
  EXPECT_EQ(out.str(), "\r\x1b[K[..........]    0 %\r\x1b[K[#####.....]   55 %\r\x1b[K[##########]  100 %");
}

TEST(ProgressDisplay, TheBarFitsTheTerminalAndIsNeverTooLong) {
  for (const auto& [columns, width] :
       {std::pair(40, 30), std::pair(80, 50), std::pair(500, 50), std::pair(0, 10)}) {
    std::ostringstream out;
    ProgressDisplay(out, true, columns).OnProgress(100);
    EXPECT_THAT(out.str(), HasSubstr("[" + std::string(static_cast<std::size_t>(width), '#') + "]"))
        << columns;
  }
}

TEST(ProgressDisplay, AMilestoneStandsAboveTheBar) {
  std::ostringstream out;
  ProgressDisplay display(out, true, 20);
  display.OnMilestone("before");
  display.OnProgress(50);
  display.OnMilestone("after");
  EXPECT_EQ(out.str(), "before\n\r\x1b[K[#####.....]   50 %\r\x1b[Kafter\n\r\x1b[K[#####.....]   50 %");
}

TEST(ProgressDisplay, TheEndLeavesTheBarAndLaterLinesDoNotTouchIt) {
  std::ostringstream out;
  ProgressDisplay display(out, true, 20);
  display.OnProgress(50);
  display.OnState(UpdateState::Ended);
  display.OnMilestone("late");
  EXPECT_THAT(out.str(), EndsWith("50 %\nlate\n"));
}

TEST(ProgressDisplay, EveryStateOfInterestIsALine) {
  std::ostringstream out;
  ProgressDisplay display(out, false, 80);
  for (const UpdateState state : {UpdateState::AwaitingAnnouncement, UpdateState::Preparing,
                                  UpdateState::Installing, UpdateState::Aborting, UpdateState::Ended}) {
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
  ProgressDisplay display(out, true, 80);
  display.OnProgress(10);
  display.OnMilestone("x");
  display.OnState(UpdateState::Ended);
  EXPECT_EQ(out.str(), "");
}

}  // namespace
