// Goal: whole updates of a Sanyo device behave as they should, from the controller's requests to the bytes in
// the device's flash, on good lines and bad ones.
// Method: the module's objects, a simulated bootloader and a simulated clock in one process; nothing sleeps.
// The device takes its image without any check afterwards: where it is not told of damage, success is all
// that the module can report, and the tests say so.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "FeatureEvents.h"
#include "UpdateBench.h"
#include "simulator/Xmodem.h"

namespace {

using simulator::LineOptions;
using simulator::Options;
using simulator::SilentStage;
using testing::Contains;
using testing::ElementsAre;

class SanyoBench : public UpdateBench {
 public:
  explicit SanyoBench(const Options& options = {}, const LineOptions& line = {})
      : UpdateBench("sanyo", options, line) {
    Properties().Set("updatelist", "sanyoxmodem");
    for (const char* key : {"xmodemsource-loader", "xmodemramaddress", "xmodemflashaddress"}) {
      Properties().Remove(key);
    }
  }

  /// How many events 204 there were so far.
  std::ptrdiff_t Results() const {
    const auto events = Events();
    return std::count_if(events.begin(), events.end(),
                         [](const std::string& event) { return event.rfind("204 ", 0) == 0; });
  }
};

TEST(SanyoUpdate, EndsWithTheImageInTheDevice) {
  SanyoBench bench;
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_TRUE(bench.Devices().At(0).Ram().Contents().empty());
  EXPECT_EQ(bench.Devices().Updates(), 1U);
  const auto events = bench.Events();
  ASSERT_GE(events.size(), 5U);
  EXPECT_EQ(events[1], "202 1");
  EXPECT_EQ(events[2], "205 0 %");
  EXPECT_EQ(events[events.size() - 2], "205 101 %");
  EXPECT_EQ(events.back(), "204 1");
}

TEST(SanyoUpdate, TellsItsMilestonesAndNoDialogue) {
  SanyoBench bench;
  ASSERT_TRUE(bench.Update());
  EXPECT_THAT(bench.Log().Messages(logging::EAlways),
              ElementsAre("Always (SWL: Starting upload in PeripheralLoader)",
                          "Always (SWL: Started uploading using SanyoXModem)",
                          "Always (SWL: Finished uploading using SanyoXModem)",
                          "Always (SWL: Finished upload in PeripheralLoader)"));
  std::vector<std::string> dialogue;
  for (const std::string& message : bench.Log().Messages(logging::EInfo)) {
    if (message.rfind("Info (Sending", 0) == 0 || message.rfind("Info (Received", 0) == 0) {
      dialogue.push_back(message);
    }
  }
  EXPECT_THAT(dialogue, ElementsAre("Info (Sending file " + bench.PathOf("firmware.bin") + ")"));
}

TEST(SanyoUpdate, OfALargeImageShowsEveryPercentOnce) {
  SanyoBench bench;
  // About 155 ticks, a little less than a step each.
  bench.MakeFiles(0, 880'000);
  ASSERT_TRUE(bench.Update());
  std::vector<int> percentages = bench.Percentages();
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
  percentages.erase(std::unique(percentages.begin(), percentages.end()), percentages.end());
  EXPECT_EQ(percentages.front(), 0);
  EXPECT_EQ(percentages.back(), 101);
  EXPECT_GT(percentages.size(), 95U);
}

// What goes over the line in both directions.
class TappedLine : public IWorldLine {
 public:
  explicit TappedLine(IWorldLine& line) : iLine(line) {}

  bool HostWrite(std::uint8_t byte, std::int64_t now_us) override {
    fromHost.push_back(byte);
    return iLine.HostWrite(byte, now_us);
  }
  int HostRead(std::uint8_t& byte, std::int64_t now_us) override {
    const int result = iLine.HostRead(byte, now_us);
    if (result == 1) {
      toHost.push_back(byte);
    }
    return result;
  }
  std::int64_t AdvanceToArrival(std::int64_t limit_us) override { return iLine.AdvanceToArrival(limit_us); }

  std::vector<std::uint8_t> fromHost;
  std::vector<std::uint8_t> toHost;

 private:
  IWorldLine& iLine;
};

TEST(SanyoUpdate, PutsNothingOnTheLineButTheOneTransfer) {
  SanyoBench bench;
  bench.MakeFiles(0, 2048);
  TappedLine line(bench.WorldLine());
  bench.World().Plug(bench.PathOf("port"), line);
  ASSERT_TRUE(bench.Update());
  std::vector<std::uint8_t> expected;
  for (std::uint8_t number = 1; number <= 2; ++number) {
    const auto begin = bench.Image().begin() + (number - 1) * 1024;
    const std::vector<std::uint8_t> data(begin, begin + 1024);
    const std::vector<std::uint8_t> trailer = simulator::TrailerOf(data, simulator::Trailer::kCrc);
    expected.insert(expected.end(), {0x02, number, static_cast<std::uint8_t>(255 - number)});
    expected.insert(expected.end(), data.begin(), data.end());
    expected.insert(expected.end(), trailer.begin(), trailer.end());
  }
  expected.push_back(0x04);
  EXPECT_EQ(line.fromHost, expected);
  EXPECT_EQ(line.toHost, (std::vector<std::uint8_t>{'C', 0x06, 0x06, 0x06}));
}

TEST(SanyoUpdate, WithCommandsInItsImageIsStillOnlyData) {
  SanyoBench bench;
  const std::string commands = "wr 8000gt 1000ck 8000000";
  std::ofstream(bench.PathOf("firmware.bin"), std::ios::binary) << commands;
  ASSERT_TRUE(bench.Update());
  std::string flash = commands;
  flash.resize(128, '\0');
  const auto contents = bench.Devices().At(0).Flash().Contents();
  EXPECT_EQ(std::string(contents.begin(), contents.end()), flash);
}

// ---- Sizes ----

class SanyoUpdateOfSize : public testing::TestWithParam<std::size_t> {};

TEST_P(SanyoUpdateOfSize, ArrivesWithZeroPadding) {
  SanyoBench bench;
  bench.MakeFiles(0, GetParam());
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_EQ(bench.Percentages().back(), 101);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SanyoUpdateOfSize,
                         testing::Values(1, 127, 128, 129, 1023, 1024, 1025, 2047, 2048, 2500),
                         testing::PrintToStringParamName());

// Nobody checks it: the transfer of nothing succeeds, and the device has nothing.
TEST(SanyoUpdate, OfAnEmptyImageSucceedsForTheModule) {
  SanyoBench bench;
  bench.MakeFiles(0, 0);
  EXPECT_TRUE(bench.Update());
  EXPECT_EQ(bench.Percentages().back(), 101);
  EXPECT_EQ(bench.Devices().Updates(), 0U);
}

// So long that there are ticks on both sides of the 14316557 bytes whose product fills 32 bits.
TEST(SanyoUpdate, OfMoreThan16MiBRisesStepByStepOnALine) {
  LineOptions fast;
  fast.baud = 8'000'000;
  SanyoBench bench({}, fast);
  bench.MakeFiles(0, 17 * 1024 * 1024);
  logging::SetLowestLevel(logging::EError);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  const auto percentages = bench.Percentages();
  EXPECT_GT(percentages.size(), 30U);
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
  EXPECT_EQ(percentages.back(), 101);
  EXPECT_THAT(percentages, Contains(testing::AllOf(testing::Gt(90), testing::Lt(100))));
}

// ---- Devices that misbehave ----

struct Misbehaviour {
  const char* name;
  void (*arrange)(Options&, LineOptions&);
  bool succeeds;
};

void PrintTo(const Misbehaviour& one, std::ostream* output) {
  *output << one.name;
}

class SanyoUpdateOfADevice : public testing::TestWithParam<Misbehaviour> {};

// A device whose fault ends an update has it once: the next update shows the recovery.
TEST_P(SanyoUpdateOfADevice, IsToldTrulyAndSucceedsWhenRepeated) {
  Options options;
  LineOptions line;
  GetParam().arrange(options, line);
  SanyoBench bench(options, line);
  EXPECT_EQ(bench.Update(), GetParam().succeeds);
  EXPECT_EQ(bench.FlashHoldsImage(0), GetParam().succeeds);
  EXPECT_EQ(bench.Results(), 1);
  if (bench.Line().Unplugged()) {
    return;
  }
  // Whoever repeats an update switches a device that has died off and on.
  bench.Line().PowerCycle(bench.World().Now_us());
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_EQ(bench.Results(), 2);
}

const Misbehaviour kMisbehaviours[] = {
    {"DiesAtItsFirstByte",
     [](Options& o, LineOptions&) {
       o.faults.silent_after = {SilentStage::kBytes, 1};
     },
     false},
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
};

INSTANTIATE_TEST_SUITE_P(Devices, SanyoUpdateOfADevice, testing::ValuesIn(kMisbehaviours),
                         [](const auto& device) { return std::string(device.param.name); });

// No check follows the transfer, so nobody can know.
TEST(SanyoUpdate, OfADeviceWithAWrongBitIsASuccessForTheModule) {
  Options options;
  options.faults.corrupt_flash = true;
  SanyoBench bench(options);
  EXPECT_TRUE(bench.Update());
  EXPECT_FALSE(bench.FlashHoldsImage(0));
}

TEST(SanyoUpdate, StallsAfterEightyTicks) {
  Options options;
  options.faults.silent_after = {SilentStage::kBytes, 8000};
  SanyoBench bench(options);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(bench.Update());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_THAT(bench.Log().Messages(logging::EError),
              Contains("Error (Timeout in polling for status in XModemSwl)").Times(1));
  const auto& timeline = bench.Timeline();
  const auto& lastProgress = timeline[timeline.size() - 2];
  EXPECT_EQ(lastProgress.text.substr(0, 3), "205");
  EXPECT_EQ(timeline.back().text, "204 0");
  EXPECT_EQ(timeline.back().time_us - lastProgress.time_us, 80 * 500'000);
}

TEST(SanyoUpdate, WithoutItsImageFailsAtOnePercent) {
  SanyoBench bench;
  bench.Request(EPrepareRequest);
  ASSERT_TRUE(bench.WaitFor(EPrepareResult));
  std::filesystem::remove(bench.PathOf("firmware.bin"));
  bench.Request(EInstallRequest);
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  const auto events = bench.Events();
  EXPECT_EQ(std::vector<std::string>(events.begin() + 2, events.end()),
            (std::vector<std::string>{"205 0 %", "205 1 %", "204 0"}));
}

// ---- Requests at any time ----

TEST(SanyoUpdate, GoesOnAfterAnAbortAndReportsItsEndToo) {
  SanyoBench bench;
  bench.MakeFiles(0, 50'000);
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

TEST(SanyoUpdate, RunsTwiceInARow) {
  SanyoBench bench;
  EXPECT_TRUE(bench.Update());
  bench.MakeFiles(0, 20'000);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.FlashHoldsImage(0));
  EXPECT_EQ(bench.Devices().Updates(), 2U);
}

TEST(SanyoUpdate, LeavesNothingBehindWhenTheModuleIsDeletedInItsMiddle) {
  SanyoBench bench;
  bench.MakeFiles(0, 50'000);
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

// A line that damages one byte from the host and turns every NAK for it into an ACK.
class LyingLine : public TappedLine {
 public:
  LyingLine(IWorldLine& line, std::size_t damaged) : TappedLine(line), iDamaged(damaged) {}

  bool HostWrite(std::uint8_t byte, std::int64_t now_us) override {
    const bool damages = fromHost.size() == iDamaged;
    return TappedLine::HostWrite(damages ? static_cast<std::uint8_t>(~byte) : byte, now_us);
  }
  int HostRead(std::uint8_t& byte, std::int64_t now_us) override {
    const int result = TappedLine::HostRead(byte, now_us);
    if (result == 1 && byte == simulator::kNak) {
      byte = simulator::kAck;
    }
    return result;
  }

 private:
  std::size_t iDamaged;
};

TEST(SanyoUpdate, IsASuccessForTheModuleWhenAFalseAckTakesTheLastBlocksPlace) {
  SanyoBench bench;
  bench.MakeFiles(0, 2048);
  LyingLine line(bench.WorldLine(), 1029 + 500);
  bench.World().Plug(bench.PathOf("port"), line);
  EXPECT_TRUE(bench.Update());
  EXPECT_EQ(bench.Percentages().back(), 101);
  EXPECT_EQ(bench.Devices().At(0).Flash().Contents().size(), 1024U) << "half of the image";
}

class SanyoUpdateOnANoisyLine : public testing::TestWithParam<unsigned> {};

// Without a check a success may be false: a stray ACK in place of the last block's or the end's is enough.
// But the blocks are numbered and guarded, so that what the device holds is the image as far as it goes.
TEST_P(SanyoUpdateOnANoisyLine, EndsWithOneResultAndNothingButTheImageInTheDevice) {
  LineOptions line;
  line.noise_rate = 0.001;
  line.noise_seed = GetParam();
  SanyoBench bench({}, line);
  const bool succeeded = bench.Update();
  EXPECT_EQ(bench.Results(), 1);
  EXPECT_EQ(bench.Events().back(), succeeded ? "204 1" : "204 0");
  EXPECT_TRUE(!succeeded || bench.Percentages().back() == 101);
  std::vector<std::uint8_t> image = bench.Image();
  image.resize((image.size() + 1023) / 1024 * 1024, 0);
  const auto flash = bench.Devices().At(0).Flash().Contents();
  ASSERT_LE(flash.size(), image.size());
  EXPECT_TRUE(std::equal(flash.begin(), flash.end(), image.begin())) << "seed " << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Seeds, SanyoUpdateOnANoisyLine, testing::Range(1U, 41U));

}  // namespace
