// Goal: whole updates of a CAN controller behave as they should, from the controller's requests to the bytes
// in the device's memories, on good lines and bad ones. Method: the module's objects, a simulated bootloader
// and a simulated clock in one process; nothing sleeps. A stall of 40 s and a sender's patience of 200 s pass
// in milliseconds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "FeatureEvents.h"
#include "UpdateBench.h"

namespace {

using simulator::LineOptions;
using simulator::Options;
using simulator::Refusal;
using simulator::SilentStage;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

TEST(CanUpdate, EndsWithBothFilesInTheDevice) {
  UpdateBench bench("can", {});
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.RamHoldsLoader(0));
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  const auto events = bench.Events();
  ASSERT_GE(events.size(), 5U);
  EXPECT_EQ(events[0], "200 can-controller");
  EXPECT_EQ(events[1], "202 1");
  EXPECT_EQ(events[2], "205 0 %");
  EXPECT_EQ(events[events.size() - 2], "205 100 %");
  EXPECT_EQ(events.back(), "204 1");
}

TEST(CanUpdate, TellsItsMilestonesAndTheDialogue) {
  UpdateBench bench("can", {});
  ASSERT_TRUE(bench.Update());
  EXPECT_THAT(bench.Log().Messages(logging::EAlways),
              ElementsAre("Always (SWL: Starting upload in PeripheralLoader)",
                          "Always (SWL: Started uploading using CanXModem)",
                          "Always (SWL: Finished uploading using CanXModem)",
                          "Always (SWL: Finished upload in PeripheralLoader)"));
  std::vector<std::string> dialogue;
  for (const std::string& message : bench.Log().Messages(logging::EInfo)) {
    if (message.rfind("Info (Sending", 0) == 0 || message.rfind("Info (Received", 0) == 0) {
      dialogue.push_back(message);
    }
  }
  EXPECT_THAT(dialogue,
              ElementsAre("Info (Received version Bootloader 1.0)",
                          "Info (Sending command wr 1000 and file " + bench.PathOf("loader.bin") + ")",
                          "Info (Received answer 000)", "Info (Sending command gt 1000)",
                          "Info (Received answer 000)",
                          "Info (Sending command wr 8000 and file " + bench.PathOf("firmware.bin") + ")",
                          "Info (Received answer 000)", "Info (Sending command ck 8000)",
                          "Info (Received answer 000)"));
}

TEST(CanUpdate, ProgressNeverFalls) {
  UpdateBench bench("can", {});
  bench.MakeFiles(5000, 300'000);
  ASSERT_TRUE(bench.Update());
  const auto percentages = bench.Percentages();
  EXPECT_GT(percentages.size(), 40U);
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
}

TEST(CanUpdate, IsTheSameEveryTime) {
  const auto timeline = [] {
    UpdateBench bench("can", {});
    bench.Update();
    std::vector<std::pair<std::int64_t, std::string>> told;
    for (const auto& entry : bench.Timeline()) {
      told.emplace_back(entry.time_us, entry.text);
    }
    return told;
  };
  EXPECT_EQ(timeline(), timeline());
}

TEST(CanUpdate, TakesAsLongAsTheLineNeeds) {
  UpdateBench bench("can", {});
  bench.MakeFiles(4096, 262'144);
  ASSERT_TRUE(bench.Update());
  const double seconds = static_cast<double>(bench.Timeline().back().time_us) / 1e6;
  const double bytes = (4096 + 262'144) / 1024.0 * 1030;
  EXPECT_GT(seconds, bytes * 10 / 115'200);
  EXPECT_LT(seconds, bytes * 10 / 115'200 * 1.02 + 3);
}

// ---- Sizes ----

class CanUpdateOfSize : public testing::TestWithParam<std::size_t> {};

TEST_P(CanUpdateOfSize, ArrivesWithZeroPadding) {
  UpdateBench bench("can", {});
  bench.MakeFiles(GetParam(), GetParam());
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.RamHoldsLoader(0));
  EXPECT_TRUE(bench.FlashHoldsImage(0));
}

INSTANTIATE_TEST_SUITE_P(Sizes, CanUpdateOfSize,
                         testing::Values(1, 127, 128, 129, 1023, 1024, 1025, 2500, 28'000),
                         testing::PrintToStringParamName());

TEST(CanUpdate, OfAnEmptyImageIsRefusedByTheDevicesCheck) {
  UpdateBench bench("can", {});
  bench.MakeFiles(100, 0);
  EXPECT_FALSE(bench.Update());
  EXPECT_EQ(bench.Events().back(), "204 0");
}

TEST(CanUpdate, OfMoreThan16MiBKeepsItsProgressSteady) {
  LineOptions unpaced;
  unpaced.baud = 0;
  UpdateBench bench("can", {}, unpaced);
  bench.MakeFiles(100, 17 * 1024 * 1024);
  logging::SetLowestLevel(logging::EError);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  const auto percentages = bench.Percentages();
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
}

// ---- Devices that misbehave ----

struct Misbehaviour {
  const char* name;
  void (*arrange)(Options&, LineOptions&);
  bool succeeds;
};

class CanUpdateOfADevice : public testing::TestWithParam<Misbehaviour> {};

// A device whose fault ends an update has it once: the next update shows the recovery.
TEST_P(CanUpdateOfADevice, IsToldTrulyAndSucceedsWhenRepeated) {
  Options options;
  LineOptions line;
  GetParam().arrange(options, line);
  UpdateBench bench("can", options, line);
  EXPECT_EQ(bench.Update(), GetParam().succeeds);
  EXPECT_TRUE(!GetParam().succeeds || bench.FlashHoldsImage(0));
  const auto events = bench.Events();
  EXPECT_EQ(std::count_if(events.begin(), events.end(),
                          [](const std::string& e) { return e.rfind("204", 0) == 0; }),
            1);
  if (bench.Line().Unplugged()) {
    return;
  }
  // Whoever repeats an update switches a device that has died off and on.
  bench.Line().PowerCycle(bench.World().Now_us());
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
}

template <SilentStage kStage>
void DiesAfter(Options& options, LineOptions& /*line*/) {
  options.faults.silent_after.stage = kStage;
}

const Misbehaviour kMisbehaviours[] = {
    {"RefusesTheLoader",
     [](Options& o, LineOptions&) {
       o.faults.refusals = {{"wr", 1, "001"}};
     },
     false},
    {"RefusesTheStart",
     [](Options& o, LineOptions&) {
       o.faults.refusals = {{"gt", 1, "001"}};
     },
     false},
    {"RefusesTheImage",
     [](Options& o, LineOptions&) {
       o.faults.refusals = {{"wr", 2, "001"}};
     },
     false},
    {"RefusesTheCheck",
     [](Options& o, LineOptions&) {
       o.faults.refusals = {{"ck", 1, "001"}};
     },
     false},
    {"AnswersTooMuch",
     [](Options& o, LineOptions&) {
       o.faults.refusals = {{"gt", 1, "0000"}};
     },
     false},
    {"HoldsAWrongBit", [](Options& o, LineOptions&) { o.faults.corrupt_flash = true; }, false},
    {"DiesAfterItsVersion", DiesAfter<SilentStage::kVersion>, false},
    {"DiesWithTheLoader", DiesAfter<SilentStage::kWriteRam>, false},
    {"DiesWithTheStart", DiesAfter<SilentStage::kGo>, false},
    {"DiesWithTheImage", DiesAfter<SilentStage::kWriteFlash>, false},
    {"DiesWithTheCheck", DiesAfter<SilentStage::kCheck>, false},
    {"DiesInTheImage",
     [](Options& o, LineOptions&) {
       o.faults.silent_after = {SilentStage::kBytes, 8000};
     },
     false},
    {"Cancels", [](Options& o, LineOptions&) { o.faults.cancel_after_bytes = 6000; }, false},
    {"IsUnplugged", [](Options&, LineOptions& l) { l.unplug_after_bytes = 7000; }, false},
    {"AsksForTheChecksum", [](Options& o, LineOptions&) { o.faults.checksum = true; }, true},
    {"RejectsBlocks", [](Options& o, LineOptions&) { o.faults.nak_every = 3; }, true},
    {"RejectsTheFirstEnd", [](Options& o, LineOptions&) { o.faults.nak_first_eot = true; }, true},
    {"DamagesItsAnswers", [](Options& o, LineOptions&) { o.faults.damage_every = 2; }, true},
    {"Thinks", [](Options& o, LineOptions&) { o.faults.slow_ms = 7000; }, true},
};

INSTANTIATE_TEST_SUITE_P(Devices, CanUpdateOfADevice, testing::ValuesIn(kMisbehaviours),
                         [](const auto& device) { return std::string(device.param.name); });

TEST(CanUpdate, StallsAfterEightyTicks) {
  Options options;
  options.faults.silent_after = {SilentStage::kBytes, 8000};
  UpdateBench bench("can", options);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(bench.Update());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_THAT(bench.Log().Messages(logging::EError),
              Contains("Error (Timeout in polling for status in XModemSwl)"));
  const auto& timeline = bench.Timeline();
  const auto& lastProgress = timeline[timeline.size() - 2];
  EXPECT_EQ(lastProgress.text.substr(0, 3), "205");
  EXPECT_EQ(timeline.back().time_us - lastProgress.time_us, 80 * 500'000);
}

TEST(CanUpdate, LeavesASilentDevicesWorkerToItsPatienceOf200Seconds) {
  Options options;
  options.faults.silent_after.stage = SilentStage::kVersion;
  UpdateBench bench("can", options);
  EXPECT_FALSE(bench.Update());
  EXPECT_THAT(bench.Log().Messages(),
              Not(Contains("Warning ([Timeout] while waiting for startup character)")));
  bench.World().RunFor(170'000);
  EXPECT_THAT(bench.Log().Messages(), Contains("Warning ([Timeout] while waiting for startup character)"));
  EXPECT_EQ(bench.Events().back(), "204 0");
}

// ---- Requests at any time ----

TEST(CanUpdate, GoesOnAfterAnAbortAndReportsItsEndToo) {
  UpdateBench bench("can", {});
  bench.Request(EPrepareRequest);
  bench.Request(EInstallRequest);
  bench.World().RunFor(1200);
  bench.Request(EAbortRequest);
  ASSERT_TRUE(bench.WaitFor(EAbortResult));
  EXPECT_EQ(bench.Events().back(), "207 1");
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  EXPECT_EQ(bench.Events().back(), "204 1");
  EXPECT_TRUE(bench.FlashHoldsImage(0));
}

TEST(CanUpdate, StartsAnewOnASecondInstallWhileItRuns) {
  UpdateBench bench("can", {});
  bench.MakeFiles(1000, 100'000);
  bench.Request(EPrepareRequest);
  bench.Request(EInstallRequest);
  bench.World().RunFor(1500);
  bench.Request(EInstallRequest);
  bench.World().RunFor(60'000);
  // The first session has lost its line to the second and reports its own failure.
  EXPECT_THAT(bench.Events(), Contains("204 0"));
  EXPECT_EQ(bench.World().PortsMade(), 2U);
  bench.Line().PowerCycle(bench.World().Now_us());
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
}

TEST(CanUpdate, RunsTwiceInARow) {
  UpdateBench bench("can", {});
  EXPECT_TRUE(bench.Update());
  bench.MakeFiles(700, 20'000);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_EQ(bench.Devices().Updates(), 2U);
}

TEST(CanUpdate, OfTwoControllersGoesFromZeroToFiftyToAHundred) {
  UpdateBench bench("can,can", {});
  bench.Properties().Set("updatelist", "xmodem;xmodem");
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_TRUE(bench.FlashHoldsImage(1));
  const auto percentages = bench.Percentages();
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
  EXPECT_EQ(percentages.front(), 0);
  EXPECT_EQ(std::count(percentages.begin(), percentages.end(), 50), 2);
  EXPECT_EQ(percentages.back(), 100);
}

TEST(CanUpdate, DoesNotStartTheSecondControllerWhenTheFirstFails) {
  Options options;
  options.faults.refusals = {{"gt", 1, "001"}};
  UpdateBench bench("can,can", options);
  bench.Properties().Set("updatelist", "xmodem;xmodem");
  EXPECT_FALSE(bench.Update());
  EXPECT_EQ(bench.World().PortsMade(), 1U);
}

TEST(CanUpdate, LeavesNothingBehindWhenTheModuleIsDeletedInItsMiddle) {
  UpdateBench bench("can", {});
  bench.Request(EPrepareRequest);
  bench.Request(EInstallRequest);
  bench.World().RunFor(1200);
  ASSERT_EQ(bench.World().Workers(), 1U);
  const std::size_t own = bench.World().Subscriptions() - 4;
  bench.DeleteModule();
  EXPECT_EQ(bench.World().Workers(), 0U);
  EXPECT_EQ(bench.World().Subscriptions(), own);
}

// ---- Noise ----

class CanUpdateOnANoisyLine : public testing::TestWithParam<unsigned> {};

TEST_P(CanUpdateOnANoisyLine, NeverClaimsAnImageThatIsNotThere) {
  LineOptions line;
  line.noise_rate = 0.0005;
  line.noise_seed = GetParam();
  UpdateBench bench("can", {}, line);
  const bool succeeded = bench.Update();
  EXPECT_TRUE(bench.Events().back() == "204 1" || bench.Events().back() == "204 0");
  EXPECT_TRUE(!succeeded || bench.FlashHoldsImage(0)) << "seed " << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Seeds, CanUpdateOnANoisyLine, testing::Range(1U, 41U));

}  // namespace
