// Goal: the command line means what --help says, and a wrong one is refused and says why.
// Method: command lines parsed in the test's process.
#include "CommandLine.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace {

using host::Goal;
using host::Options;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::chrono_literals;

class CommandLine : public testing::Test {
 protected:
  // The options of a command line that is right and asks for more than an answer.
  std::optional<Options> Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "peripheralctl");
    iOut.str("");
    iLine = host::ParseCommandLine(static_cast<int>(arguments.size()), arguments.data(), iOut);
    return iLine.isAnswered || !iLine.fault.empty() ? std::nullopt : std::make_optional(iLine.options);
  }

  std::ostringstream iOut;
  host::CommandLine iLine;
};

TEST_F(CommandLine, TheShortestOneHasTheDefaults) {
  const auto options = Parse({"update", "--config", "c.toml"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->goal, Goal::Update);
  EXPECT_EQ(options->configFile, "c.toml");
  EXPECT_THAT(options->settings, IsEmpty());
  EXPECT_EQ(options->logLevel, std::nullopt);
  EXPECT_EQ(options->logFile, "");
  EXPECT_EQ(options->limits.prepare, 30s);
  EXPECT_EQ(options->limits.install, 90s);
  EXPECT_EQ(options->limits.abort, 10s);
  EXPECT_FALSE(options->requireDigest);
  EXPECT_FALSE(options->trustConfig);
  EXPECT_FALSE(options->json);
  EXPECT_EQ(options->retries.count, 0);
  EXPECT_EQ(options->retries.pause, 3s);
  EXPECT_EQ(options->library, std::nullopt);
  EXPECT_EQ(options->featureId, std::nullopt);
}

TEST_F(CommandLine, EveryOptionArrives) {
  const auto options = Parse({"prepare", "--config", "c", "--set", "a=1", "--set=b=2 3,4", "--log-level",
                              "error", "--log-file", "l", "--timeout", "5", "--require-digest",
                              "--trust-config", "--module", "m.so", "--feature-id", "id"});
  ASSERT_TRUE(options) << iLine.fault;
  EXPECT_EQ(options->goal, Goal::Prepare);
  EXPECT_THAT(options->settings, ElementsAre("a=1", "b=2 3,4"));
  EXPECT_EQ(options->logLevel, logging::EError);
  EXPECT_EQ(options->logFile, "l");
  EXPECT_EQ(options->limits.prepare, 5s);
  EXPECT_EQ(options->limits.install, 5s);
  EXPECT_EQ(options->limits.abort, 5s);
  EXPECT_TRUE(options->requireDigest);
  EXPECT_TRUE(options->trustConfig);
  EXPECT_EQ(options->library, "m.so");
  EXPECT_EQ(options->featureId, "id");
}

TEST_F(CommandLine, AnUpdateMayBeRetriedAndTellPrograms) {
  const auto options = Parse({"update", "--config", "c", "--retries", "2", "--retry-pause", "7", "--json"});
  ASSERT_TRUE(options) << iLine.fault;
  EXPECT_EQ(options->retries.count, 2);
  EXPECT_EQ(options->retries.pause, 7s);
  EXPECT_TRUE(options->json);
}

TEST_F(CommandLine, PortsNeedNoConfiguration) {
  const auto options = Parse({"ports", "--json"});
  ASSERT_TRUE(options) << iLine.fault;
  EXPECT_TRUE(options->listPorts);
  EXPECT_TRUE(options->json);
  EXPECT_FALSE(Parse({"update", "--config", "c"})->listPorts);
}

TEST_F(CommandLine, LogLevels) {
  EXPECT_EQ(Parse({"update", "--set", "a=1", "--log-level", "interface"})->logLevel, logging::EInterface);
  EXPECT_EQ(Parse({"update", "--set", "a=1", "--log-level", "always"})->logLevel, logging::EAlways);
  EXPECT_EQ(Parse({"update", "--set", "a=1", "--log-level", "off", "--log-file", "l"})->logLevel,
            std::nullopt);
  EXPECT_EQ(Parse({"update", "--set", "a=1", "--log-file", "l"})->logLevel, logging::EInfo);
}

TEST_F(CommandLine, HelpShowsExamplesAndExitCodesAndIsASuccess) {
  for (const std::vector<const char*>& arguments :
       {std::vector<const char*>{"--help"}, std::vector<const char*>{"update", "--help"}}) {
    EXPECT_FALSE(Parse(arguments));
    EXPECT_TRUE(iLine.isAnswered);
    EXPECT_THAT(iOut.str(), HasSubstr("Examples:\n  peripheralctl "));
    EXPECT_THAT(iOut.str(), HasSubstr("   8  no result in time\n"));
  }
}

// What people copy is left as it is, and narrow enough for most.
TEST_F(CommandLine, HelpFitsTheWidthThatIsAskedFor) {
  for (const auto& [columns, indent] : {std::pair(80U, 30U), std::pair(40U, 6U)}) {
    setenv("COLUMNS", std::to_string(columns).c_str(), 1);
    for (const std::vector<const char*>& arguments : {std::vector<const char*>{"--help"},
                                                      {"update", "--help"},
                                                      {"prepare", "--help"},
                                                      {"ports", "--help"},
                                                      {"trace", "--help"},
                                                      {"trace", "show", "--help"},
                                                      {"trace", "replay", "--help"}}) {
      EXPECT_FALSE(Parse(arguments));
      std::istringstream lines(iOut.str());
      for (std::string line; std::getline(lines, line);) {
        const bool isCopied = line.rfind("  peripheralctl", 0) == 0 ||
                              line.find(" = ") != std::string::npos ||
                              line.find("sha256sum") != std::string::npos;
        EXPECT_LE(line.size(), isCopied ? 80 : columns) << line;
      }
    }
    Parse({"update", "--help"});
    EXPECT_THAT(iOut.str(), HasSubstr("\n" + std::string(indent, ' ') + "Lowest level to log"));
  }
  unsetenv("COLUMNS");
}

TEST_F(CommandLine, HelpListsTheExitCodesThatTheCommandHas) {
  const std::vector<std::pair<std::vector<const char*>, std::vector<int>>> expected = {
      {{"prepare", "--help"}, {0, 1, 2, 3, 4, 5, 7, 8, 10, 11, 12}},
      {{"trace", "show", "--help"}, {0, 1, 2, 12, 20}},
      {{"trace", "replay", "--help"}, {0, 1, 2, 4, 7, 12, 20, 21}},
      {{"ports", "--help"}, {0, 1, 2, 12}}};
  for (const auto& [arguments, codes] : expected) {
    EXPECT_FALSE(Parse(arguments));
    for (int code = 0; code <= 21; ++code) {
      const bool isListed = std::find(codes.begin(), codes.end(), code) != codes.end();
      EXPECT_EQ(iOut.str().find(fmt::format("\n  {:2}  ", code)) != std::string::npos, isListed)
          << arguments[0] << " " << code;
    }
  }
}

TEST_F(CommandLine, AMisspeltOptionIsToldFromWhatItMayHaveMeant) {
  EXPECT_FALSE(Parse({"update", "--confg", "can.toml"}));
  EXPECT_EQ(iLine.fault, "not understood: --confg can.toml. Did you mean --config?");
  EXPECT_FALSE(Parse({"trace", "show", "t", "--byts"}));
  EXPECT_EQ(iLine.fault, "not understood: --byts. Did you mean --bytes?");
  EXPECT_FALSE(Parse({"update", "--config", "c", "--xyz"}));
  EXPECT_EQ(iLine.fault, "not understood: --xyz.");
}

TEST_F(CommandLine, VersionIsOneLine) {
  EXPECT_FALSE(Parse({"--version"}));
  EXPECT_TRUE(iLine.isAnswered);
  EXPECT_THAT(iOut.str(), testing::MatchesRegex("peripheralctl [0-9]+[.][0-9]+[.][0-9]+\n"));
}

TEST_F(CommandLine, AWrongOneSaysHow) {
  const std::vector<std::pair<std::vector<const char*>, const char*>> wrong = {
      {{}, "say what to do: update, prepare, ports or trace."},
      {{"upgrade"}, "say what to do: update, prepare, ports or trace, not 'upgrade'."},
      {{"update"}, "--config"},
      {{"update", "--config"}, "--config"},
      {{"update", "--config", "c", "--bogus"}, "--bogus"},
      {{"update", "--config", "c", "extra"}, "extra"},
      {{"update", "prepare", "--config", "c"}, ""},
      {{"update", "--config", "c", "--log-level", "loud"}, "--log-level"},
      {{"update", "--config", "c", "--timeout", "0"}, "--timeout"},
      {{"update", "--config", "c", "--retries", "-1"}, "--retries"},
      {{"prepare", "--config", "c", "--retries", "1"}, "--retries"},
      {{"update", "--config", "c", "--timeout", "soon"}, "--timeout"},
  };
  for (const auto& [arguments, named] : wrong) {
    EXPECT_FALSE(Parse(arguments)) << named;
    EXPECT_NE(iLine.fault, "") << named;
    EXPECT_THAT(iLine.fault, HasSubstr(named));
  }
}

TEST_F(CommandLine, AWrongOneIsUnderstoodAsFarAsItGoes) {
  EXPECT_FALSE(Parse({"update", "--report", "r.json", "--trace", "t", "--config", "c", "--bogus"}));
  EXPECT_EQ(iLine.options.reportFile, "r.json");
  EXPECT_EQ(iLine.options.traceFile, "t");
}

}  // namespace
