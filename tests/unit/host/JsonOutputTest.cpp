// Goal: programs get what docs/peripheralctl.schema.json and docs/JSON.md promise.
// Method: every event written once and compared; every line against the schema; the schema against lines that
// are not as they should be; the document against the table of codes.
#include "JsonOutput.h"

#include <gmock/gmock.h>

#include <fstream>
#include <set>
#include <sstream>

#include "JsonSchema.h"

namespace {

using host::ErrorCode;
using host::Goal;
using host::JsonOutput;
using host::Outcome;
using nlohmann::json;
using namespace std::chrono_literals;

json Schema() {
  return json::parse(std::ifstream(DOCUMENTS "/peripheralctl.schema.json"));
}

class JsonOutputTest : public testing::Test {
 protected:
  // What was written since the last call, each line valid and without its time.
  json Lines() {
    json lines = json::array();
    std::istringstream text(iOut.str());
    iOut.str("");
    for (std::string line; std::getline(text, line);) {
      json object = json::parse(line);
      EXPECT_TRUE(iSchema.Admits(object)) << line;
      object.erase("time");
      lines.push_back(object);
    }
    return lines;
  }

  json Line() {
    const json lines = Lines();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? json() : lines.front();
  }

  std::ostringstream iOut;
  JsonOutput iOutput{iOut, {"CAN controller"}};
  JsonSchema iSchema{Schema()};
};

TEST_F(JsonOutputTest, TellsEveryState) {
  using host::UpdateState;
  const std::pair<UpdateState, const char*> states[] = {
      {UpdateState::AwaitingAnnouncement, "awaiting-announcement"},
      {UpdateState::Preparing, "preparing"},
      {UpdateState::Installing, "installing"},
      {UpdateState::Pausing, "pausing"},
      {UpdateState::Aborting, "aborting"},
      {UpdateState::Ended, "ended"}};
  for (const auto& [state, name] : states) {
    iOutput.OnState(state);
    EXPECT_EQ(Line(), (json{{"event", "state"}, {"state", name}}));
  }
}

TEST_F(JsonOutputTest, TellsHowFarItIs) {
  iOutput.OnMilestone("Starting");
  EXPECT_EQ(Line(), (json{{"event", "milestone"}, {"text", "Starting"}}));
  iOutput.OnProgress(42);
  EXPECT_EQ(Line(), (json{{"event", "progress"}, {"percent", 42}}));
  iOutput.OnStep({0, "gt 1000"});
  EXPECT_EQ(Line(),
            (json{{"event", "step"}, {"device", 1}, {"name", "CAN controller"}, {"step", "gt 1000"}}));
  iOutput.OnSentBytes({0, 1, 2, 3, 4}, {1234.5, 6s});
  EXPECT_EQ(Line(), (json{{"event", "transfer"},
                          {"device", 1},
                          {"name", "CAN controller"},
                          {"device_bytes", 1},
                          {"device_total", 2},
                          {"bytes", 3},
                          {"total", 4},
                          {"rate_bytes_per_s", 1235},
                          {"left_s", 6}}));
  iOutput.OnSentBytes({7, 1, 2, 3, 4}, {});
  const json unknown = Line();
  EXPECT_EQ(unknown["rate_bytes_per_s"], nullptr);
  EXPECT_EQ(unknown["left_s"], nullptr);
  EXPECT_EQ(unknown["name"], "device");
}

TEST_F(JsonOutputTest, ARetryGivesItsCause) {
  iOutput.OnRetry(2, {2, 1500ms});
  EXPECT_EQ(Line(), (json{{"event", "retry"}, {"attempt", 2}, {"attempts", 3}, {"pause_ms", 1500}}));
  iOutput.AskWhy([](int attempt) {
    EXPECT_EQ(attempt, 2);
    return host::Cause{ErrorCode::Stalled, "nothing moved"};
  });
  iOutput.OnRetry(3, {2, 1500ms});
  const json lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0]["code"], "stalled");
  EXPECT_EQ(lines[0]["message"], "nothing moved");
  EXPECT_EQ(lines[0]["final"], false);
  EXPECT_EQ(lines[1]["attempt"], 3);
}

TEST_F(JsonOutputTest, FaultsAndARefusal) {
  const host::Faults faults = {{ErrorCode::PortBusy, "one"}, {ErrorCode::DigestWrong, "two"}};
  iOutput.OnFaults(faults);
  iOutput.OnRefusal(faults, host::ExitCode::BadConfiguration);
  EXPECT_EQ(Lines(), (json{{{"event", "error"},
                            {"code", "port-busy"},
                            {"message", "one"},
                            {"cause", host::Describe(ErrorCode::PortBusy).cause},
                            {"advice", host::Describe(ErrorCode::PortBusy).advice},
                            {"final", true}},
                           {{"event", "error"},
                            {"code", "digest-wrong"},
                            {"message", "two"},
                            {"cause", host::Describe(ErrorCode::DigestWrong).cause},
                            {"advice", host::Describe(ErrorCode::DigestWrong).advice},
                            {"final", true}},
                           {{"event", "result"},
                            {"outcome", "refused"},
                            {"exit_code", 3},
                            {"code", "port-busy"},
                            {"device_touched", false},
                            {"reasons", {"one", "two"}}}}));
}

TEST_F(JsonOutputTest, AFailureEndsWithItsCodeAndItsReasons) {
  iOutput.OnResult({Goal::Update,
                    Outcome::InstallFailed,
                    true,
                    {"log text"},
                    host::Cause{ErrorCode::CommandRefused, "ck 8000 was answered 001"}},
                   host::ExitCode::UpdateFailed);
  const json lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0]["message"], "ck 8000 was answered 001");
  EXPECT_EQ(lines[1], (json{{"event", "result"},
                            {"outcome", "failed"},
                            {"exit_code", 6},
                            {"code", "command-refused"},
                            {"device_touched", true},
                            {"reasons", {"log text"}}}));
}

TEST_F(JsonOutputTest, AFailureThatFaultsHaveToldHasTheirCode) {
  host::RunResult result = {Goal::Prepare, Outcome::PrepareFailed, false, {}};
  result.faults = {{ErrorCode::PortBusy, "one"}};
  iOutput.OnResult(result, host::ExitCode::BadConfiguration);
  EXPECT_EQ(Line()["code"], "port-busy");
}

TEST_F(JsonOutputTest, EveryOutcomeHasItsName) {
  const std::pair<Outcome, const char*> outcomes[] = {
      {Outcome::Succeeded, "succeeded"},  {Outcome::NothingToUpdate, "nothing-to-update"},
      {Outcome::PrepareFailed, "failed"}, {Outcome::InstallFailed, "failed"},
      {Outcome::SourceChanged, "failed"}, {Outcome::Aborted, "aborted"},
      {Outcome::NoResult, "no-result"},
  };
  for (const auto& [outcome, name] : outcomes) {
    iOutput.OnResult({Goal::Update, outcome, false, {}}, host::ExitCodeOf(outcome));
    EXPECT_EQ(Lines().back()["outcome"], name);
  }
}

TEST_F(JsonOutputTest, APortIsToldWithAllThatIsKnown) {
  using host::ModemManagerRisk;
  const std::pair<ModemManagerRisk, const char*> risks[] = {{ModemManagerRisk::NotRunning, "not-running"},
                                                            {ModemManagerRisk::KeptAway, "kept-away"},
                                                            {ModemManagerRisk::Unlikely, "unlikely"},
                                                            {ModemManagerRisk::Likely, "likely"}};
  for (const auto& [risk, name] : risks) {
    iOutput.OnPorts(
        {{"/dev/ttyUSB0", {"/dev/serial/by-id/a"}, "an adapter", {{12, "minicom"}}, true, "dialout", risk}});
    const json lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], (json{{"event", "port"},
                              {"device", "/dev/ttyUSB0"},
                              {"stable_names", {"/dev/serial/by-id/a"}},
                              {"adapter", "an adapter"},
                              {"holders", {{{"pid", 12}, {"name", "minicom"}}}},
                              {"access", true},
                              {"group", "dialout"},
                              {"modem_manager", name}}));
    EXPECT_EQ(lines[1]["outcome"], "succeeded");
  }
}

TEST_F(JsonOutputTest, AFileIsToldWithOrWithoutADigest) {
  iOutput.OnFiles({{"xmodemsource-image", "/i", true}, {"xmodemsource-loader", "/l", false}});
  EXPECT_EQ(Lines(),
            (json{{{"event", "file"}, {"key", "xmodemsource-image"}, {"path", "/i"}, {"digest", true}},
                  {{"event", "file"}, {"key", "xmodemsource-loader"}, {"path", "/l"}, {"digest", false}}}));
}

TEST_F(JsonOutputTest, AWarningChangesNothing) {
  iOutput.OnWarning({ErrorCode::LogNotWritten, "the log is incomplete"});
  EXPECT_EQ(Line(),
            (json{{"event", "warning"}, {"code", "log-not-written"}, {"text", "the log is incomplete"}}));
}

TEST_F(JsonOutputTest, WhatIsNoTextDoesNotBreakALine) {
  iOutput.OnMilestone("bad \xff byte\nand a line");
  EXPECT_EQ(Line()["text"], "bad \xef\xbf\xbd byte\nand a line");
}

TEST_F(JsonOutputTest, TheSchemaAdmitsNothingElse) {
  const json good = {{"event", "progress"}, {"time", "2026-01-02T03:04:05.678Z"}, {"percent", 100}};
  EXPECT_TRUE(iSchema.Admits(good));
  const std::pair<const char*, json> changes[] = {{"percent", 101},      {"percent", -1},   {"percent", "1"},
                                                  {"time", "yesterday"}, {"event", "else"}, {"more", 1}};
  for (const auto& [key, value] : changes) {
    json bad = good;
    bad[key] = value;
    EXPECT_FALSE(iSchema.Admits(bad)) << bad;
  }
  json incomplete = good;
  incomplete.erase("percent");
  EXPECT_FALSE(iSchema.Admits(incomplete));
}

TEST(ErrorCodes, AreThoseOfTheSchemaAndOfTheDocument) {
  std::ostringstream document;
  document << std::ifstream(DOCUMENTS "/JSON.md").rdbuf();
  std::vector<std::string> names;
  for (const host::ErrorDescription& error : host::ErrorDescriptions()) {
    names.emplace_back(error.name);
    EXPECT_THAT(document.str(), testing::HasSubstr("| `" + std::string(error.name) + "` | " + error.cause +
                                                   " | " + error.advice + " |\n"));
  }
  EXPECT_EQ(json(names), Schema()["$defs"]["knownCode"]["enum"]);
}

}  // namespace
