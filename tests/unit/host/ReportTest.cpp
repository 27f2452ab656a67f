// Goal: at the end people know how it went, why, and what to do.
// Method: the whole text for each kind of end; the exit code of each outcome.
#include "Report.h"

#include <gmock/gmock.h>

#include <set>

#include "ExitCode.h"

namespace {

using host::ExitCode;
using host::ExitCodeOf;
using host::Goal;
using host::HurriedReportFor;
using host::Outcome;
using host::ReportFor;
using testing::HasSubstr;

TEST(Report, AFlashThatWasNotReachedIsNotIncomplete) {
  host::RunResult result = {Goal::Update, Outcome::InstallFailed, true, {}};
  result.onlyMemoryWritten = true;
  EXPECT_THAT(ReportFor(result), testing::EndsWith("its flash is as it was: run the update again.\n"));
  result.onlyMemoryWritten = false;
  EXPECT_THAT(ReportFor(result), testing::EndsWith("incomplete image: run the update again.\n"));
}

TEST(Report, SuccessIsOneLine) {
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::Succeeded, true, {"x"}}), "The update has succeeded.\n");
  EXPECT_EQ(ReportFor({Goal::Prepare, Outcome::Succeeded, false, {}}),
            "The preparation has succeeded: settings, files and port are in order.\n");
}

TEST(Report, AFailureHasItsReasonsAndAdvice) {
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::PrepareFailed, false, {"port is busy", "not ok"}}),
            "The preparation failed.\n"
            "Reasons given, oldest first:\n"
            "  - port is busy\n"
            "  - not ok\n"
            "Correct what is named above and run the command again.\n"
            "Nothing was written to the device.\n");
  EXPECT_EQ(
      ReportFor({Goal::Update, Outcome::InstallFailed, true, {}}),
      "The update failed.\n"
      "No reason was given; --log-level info shows what happened.\n"
      "Check that the device has power and is in its bootloader, that the cable is plugged in, and that no "
      "other program uses the port.\n"
      "The device may hold an incomplete image: run the update again.\n");
}

TEST(Report, AnAbortSaysWhetherTheDeviceWasTouched) {
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::Aborted, true, {"x"}}),
            "Aborted.\nThe device may hold an incomplete image: run the update again.\n");
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::Aborted, false, {}}),
            "Aborted.\nNothing was written to the device.\n");
}

TEST(Report, NoResultPointsAtTheTimeLimit) {
  EXPECT_THAT(ReportFor({Goal::Update, Outcome::NoResult, false, {}}),
              HasSubstr("--timeout allows for more time"));
}

TEST(Report, AChangedFileIsAFailureThatNamesItAndTheCure) {
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::SourceChanged, true, {"the file 'x' was changed"}}),
            "The update failed: a file changed while it was being sent.\n"
            "Reasons given, oldest first:\n"
            "  - the file 'x' was changed\n"
            "Wait until the file is finished, then update with it.\n"
            "The device may hold an incomplete image: run the update again.\n");
}

TEST(Report, ACauseStandsFirstWithItsCodeAndItsAdvice) {
  EXPECT_EQ(
      ReportFor({Goal::Update,
                 Outcome::InstallFailed,
                 true,
                 {"log text"},
                 host::Cause{host::ErrorCode::CommandRefused, "CAN controller, ck 8000: answered 001"}}),
      "The update failed.\n"
      "CAN controller, ck 8000: answered 001 [command-refused]\n"
      "Reasons given, oldest first:\n"
      "  - log text\n"
      "Check addresses and files; the answer is the bootloader's.\n"
      "The device may hold an incomplete image: run the update again.\n");
}

TEST(Report, NothingToUpdateIsASuccessThatSaysSo) {
  EXPECT_EQ(ReportFor({Goal::Update, Outcome::NothingToUpdate, false, {}}),
            "Nothing to update: the update list is empty.\n");
  EXPECT_EQ(ExitCodeOf(Outcome::NothingToUpdate), ExitCode::Success);
}

TEST(Report, FaultsThatTheModuleDoesNotSeeAreSaidToBeSo) {
  const host::Faults faults = {{host::ErrorCode::DigestWrong, "x"}};
  EXPECT_EQ(ReportFor({Goal::Prepare, Outcome::PrepareFailed, false, {}, {}, faults}),
            "The preparation failed.\n"
            "The module itself logs nothing about it.\n"
            "Correct what is named above and run the command again.\n"
            "Nothing was written to the device.\n");
}

TEST(Report, TheCauseIsWhatTheLogTellsOrElseTheOutcome) {
  const auto code = [](const host::RunResult& result) {
    const auto cause = host::CauseOf(result);
    return cause ? host::Describe(cause->code).name : "none";
  };
  EXPECT_STREQ(code({Goal::Update, Outcome::Succeeded, true, {}}), "none");
  EXPECT_STREQ(code({Goal::Update, Outcome::NothingToUpdate, false, {}}), "none");
  EXPECT_STREQ(code({Goal::Update, Outcome::PrepareFailed, false, {}}), "prepare-failed");
  EXPECT_STREQ(code({Goal::Update, Outcome::InstallFailed, true, {}}), "update-failed");
  EXPECT_STREQ(code({Goal::Update, Outcome::Aborted, true, {}}), "aborted");
  EXPECT_STREQ(code({Goal::Update, Outcome::NoResult, true, {}}), "no-result");
  EXPECT_STREQ(code({Goal::Update, Outcome::SourceChanged, true, {}}), "file-changed");
  EXPECT_EQ(host::CauseOf({Goal::Update, Outcome::SourceChanged, true, {"image: changed."}})->detail,
            "The update failed: a file changed while it was being sent. image: changed.");
  EXPECT_STREQ(
      code({Goal::Update, Outcome::InstallFailed, true, {}, host::Cause{host::ErrorCode::Stalled, ""}}),
      "stalled");
  EXPECT_STREQ(
      code({Goal::Prepare, Outcome::PrepareFailed, false, {}, {}, {{host::ErrorCode::PortBusy, ""}}}),
      "none");
}

TEST(Report, InHasteItIsOneLineAboutTheDevice) {
  EXPECT_EQ(HurriedReportFor({Goal::Update, Outcome::Aborted, true, {"x"}}),
            "\nExiting at once. The device may hold an incomplete image: run the update again.\n");
  EXPECT_EQ(HurriedReportFor({Goal::Update, Outcome::Aborted, false, {}}),
            "\nExiting at once. Nothing was written to the device.\n");
  EXPECT_EQ(HurriedReportFor({Goal::Update, Outcome::Succeeded, true, {}}),
            "\nExiting at once. The update has succeeded.\n");
}

TEST(ExitCode, StandsForTheOutcome) {
  EXPECT_EQ(ExitCodeOf(Outcome::Succeeded), ExitCode::Success);
  EXPECT_EQ(ExitCodeOf(Outcome::PrepareFailed), ExitCode::PrepareFailed);
  EXPECT_EQ(ExitCodeOf(Outcome::InstallFailed), ExitCode::UpdateFailed);
  EXPECT_EQ(ExitCodeOf(Outcome::SourceChanged), ExitCode::SourceChanged);
  EXPECT_EQ(ExitCodeOf(Outcome::Aborted), ExitCode::Aborted);
  EXPECT_EQ(ExitCodeOf(Outcome::NoResult), ExitCode::NoResult);
}

TEST(ExitCode, AllAreDescribed) {
  for (const char* code : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "20", "21"}) {
    EXPECT_THAT(host::DescribeExitCodes(host::kAllCommands),
                testing::ContainsRegex(std::string("\n +") + code + "  [a-z]"));
  }
}

TEST(ExitCode, OfFaultsIsThatOfTheFirst) {
  const host::Fault wrong = {host::ErrorCode::DigestWrong, "x"};
  const host::Fault missing = {host::ErrorCode::DigestMissing, "x"};
  const host::Fault other = {host::ErrorCode::PortBusy, "x"};
  EXPECT_EQ(ExitCodeOf(host::Faults{wrong, missing}), ExitCode::WrongDigest);
  EXPECT_EQ(ExitCodeOf(host::Faults{wrong, other}), ExitCode::WrongDigest) << "the first counts";
  EXPECT_EQ(ExitCodeOf(host::Faults{other, wrong}), ExitCode::BadConfiguration);
  EXPECT_EQ(ExitCodeOf(host::Faults{other}), ExitCode::BadConfiguration);
  EXPECT_EQ(ExitCodeOf(host::Faults{{host::ErrorCode::ConfigUntrusted, "x"}}), ExitCode::ConfigUntrusted);
}

TEST(ErrorCode, EachIsDescribedAtItsPlaceAndNoNameIsThereTwice) {
  std::set<std::string> names;
  for (const host::ErrorDescription& description : host::ErrorDescriptions()) {
    EXPECT_EQ(&host::Describe(description.code), &description);
    EXPECT_TRUE(names.insert(description.name).second) << description.name;
  }
  EXPECT_EQ(names.size(), static_cast<std::size_t>(host::ErrorCode::ReportNotWritten) + 1);
}

}  // namespace
