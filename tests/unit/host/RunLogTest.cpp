// Goal: a run's log writes what is wanted, passes milestones on and remembers why things failed.
// Method: lines logged through the platform, as the module logs them.
#include "RunLog.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

namespace {

using host::RunLog;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

// Follows no lines.
const RunLog::LineHandler kNobody = [](const logging::TLine& /*line*/) {};

class RunLogTest : public testing::Test {
 protected:
  RunLog::MilestoneHandler Handler() {
    return [this](const std::string& text) { iMilestones.push_back(text); };
  }

  static void LogOneOfEach() {
    LOG_INTERFACE(logging::PeripheralLoader, "at interface");
    LOG_INFO(logging::PeripheralLoader, "at info");
    LOG_WARNING(logging::PeripheralLoader, "at warning");
    LOG_ERROR(logging::PeripheralLoader, "at error");
    LOG_ALWAYS(logging::PeripheralLoader, "at always");
  }

  std::ostringstream iOut;
  std::vector<std::string> iMilestones;
};

TEST_F(RunLogTest, WritesNothingWithoutALevelButRemembersErrors) {
  RunLog log(iOut, std::nullopt, Handler(), kNobody);
  LogOneOfEach();
  EXPECT_EQ(iOut.str(), "");
  EXPECT_THAT(log.Reasons(), ElementsAre("at error"));
}

TEST_F(RunLogTest, WritesLinesOfTheLevelAndAboveWithDateAndTime) {
  const RunLog log(iOut, logging::EWarning, Handler(), kNobody);
  LogOneOfEach();
  std::istringstream lines(iOut.str());
  std::string line;
  for (const char* level : {"Warning", "Error", "Always"}) {
    std::getline(lines, line);
    EXPECT_THAT(line, MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+[.][0-9]+ " +
                                   std::string(level) + " PeripheralLoader .*at .*"));
  }
  EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(RunLogTest, RemembersErrorsAlsoWhenOnlyAlwaysIsWanted) {
  RunLog log(iOut, logging::EAlways, Handler(), kNobody);
  LogOneOfEach();
  EXPECT_THAT(iOut.str(), HasSubstr("at always"));
  EXPECT_THAT(iOut.str(), Not(HasSubstr("at error")));
  EXPECT_THAT(log.Reasons(), ElementsAre("at error"));
}

TEST_F(RunLogTest, PassesMilestonesOnWithoutTheirPrefix) {
  const RunLog log(iOut, std::nullopt, Handler(), kNobody);
  LOG_ALWAYS(logging::PeripheralLoader, "SWL: Starting");
  LOG_ALWAYS(logging::PeripheralLoader, "no milestone");
  LOG_ERROR(logging::PeripheralLoader, "SWL: no milestone either");
  EXPECT_THAT(iMilestones, ElementsAre("Starting"));
}

TEST_F(RunLogTest, ReasonsAreTheLastFiveEachOnceByItsLastOccurrence) {
  RunLog log(iOut, std::nullopt, Handler(), kNobody);
  for (const char* text : {"1", "2", "3", "2", "4", "5", "6", "6"}) {
    LOG_ERROR(logging::Platform, text);
  }
  EXPECT_THAT(log.Reasons(), ElementsAre("3", "2", "4", "5", "6"));
}

TEST_F(RunLogTest, WhatADeviceSentCannotSteerTheTerminal) {
  RunLog log(iOut, std::nullopt, Handler(), kNobody);
  LOG_ERROR(logging::Platform, "bad \x1b[2J\r\xc2\x9b answer \xc3\x9f");
  LOG_ALWAYS(logging::Platform, "SWL: \xc2\x85");
  EXPECT_THAT(log.Reasons(), ElementsAre("bad \\x1b[2J\\x0d\\xc2\\x9b answer \xc3\x9f"));
  EXPECT_THAT(iMilestones, ElementsAre("\\xc2\\x85"));
}

TEST_F(RunLogTest, KnowsWhetherLinesWereLost) {
  std::ofstream full("/dev/full");
  const RunLog log(full, logging::EWarning, Handler(), kNobody);
  LOG_INFO(logging::Platform, "not wanted");
  EXPECT_FALSE(log.LinesLost());
  LOG_ERROR(logging::Platform, "lost");
  EXPECT_TRUE(log.LinesLost());
}

TEST_F(RunLogTest, WhoFollowsGetsEveryLineAndWhatIsWrittenStaysAsItIs) {
  std::vector<std::string> followed;
  const RunLog log(iOut, logging::EAlways, Handler(),
                   [&followed](const logging::TLine& line) { followed.emplace_back(line.message); });
  LogOneOfEach();
  EXPECT_THAT(followed, ElementsAre("at interface", "at info", "at warning", "at error", "at always"));
  EXPECT_THAT(iOut.str(), Not(HasSubstr("at error")));
}

TEST_F(RunLogTest, GivesTheLowestLevelBackInTheEnd) {
  const logging::TLevel before = logging::LowestLevel();
  { const RunLog log(iOut, logging::EInfo, Handler(), kNobody); }
  EXPECT_EQ(logging::LowestLevel(), before);
}

TEST_F(RunLogTest, GivesTheLogBackInTheEnd) {
  RunLog outer(iOut, std::nullopt, Handler(), kNobody);
  {
    const RunLog inner(iOut, std::nullopt, Handler(), kNobody);
    LOG_ERROR(logging::Platform, "for the inner");
  }
  LOG_ERROR(logging::Platform, "for the outer");
  EXPECT_THAT(outer.Reasons(), ElementsAre("for the outer"));
  EXPECT_THAT(iMilestones, IsEmpty());
}

}  // namespace
