// Goal: each promise of the proving ground notices the run that breaks it, and no false success is excused
// for less than what its excuse says.
//
// Method: the observation of a good run, spoilt in one place at a time.

#include "Oracles.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "LogTexts.h"
#include "Scenario.h"
#include "simulator/Xmodem.h"

namespace proving {

namespace {

using Bytes = std::vector<std::uint8_t>;

Observation GoodRun() {
  Observation seen;
  seen.installs = seen.results = seen.successes = 1;
  seen.recovered = true;
  return seen;
}

struct Spoilt {
  const char* beginning;  ///< of the sentence that is broken
  std::function<void(Observation&)> spoil;
};

class Promise : public testing::TestWithParam<Spoilt> {};

Bytes Image(std::size_t blocks) {
  Bytes image;
  for (std::size_t index = 0; index < blocks * 1024; ++index) {
    image.push_back(static_cast<std::uint8_t>(index * 7 + index / 1024));
  }
  return image;
}

// A run that told a success over a device that holds `flash`.
Observation FalseSuccess(Bytes flash, Bytes expected) {
  Observation seen = GoodRun();
  seen.wrongHoldings.push_back({"sanyo", 0, std::move(flash), std::move(expected), false, false});
  return seen;
}

Bytes FirstBlocks(const Bytes& image, std::size_t blocks) {
  return {image.begin(), image.begin() + static_cast<std::ptrdiff_t>(blocks * 1024)};
}

}  // namespace

TEST(Promises, AreAllKeptByAGoodRun) {
  EXPECT_EQ(Broken(GoodRun()), std::vector<std::string>());
}

TEST_P(Promise, IsBrokenByThis) {
  Observation seen = GoodRun();
  GetParam().spoil(seen);
  const auto broken = Broken(seen);
  ASSERT_EQ(broken.size(), 1U);
  EXPECT_EQ(broken[0].rfind(GetParam().beginning, 0), 0U) << broken[0];
}

const Spoilt kSpoilt[] = {
    {"An installation that ends", [](Observation& seen) { seen.results = 0; }},
    {"An installation that ends", [](Observation& seen) { seen.results = 2; }},
    {"An installation that ends",
     [](Observation& seen) {
       seen.deleted = true;
       seen.results = 2;
     }},
    {"A success is told only if each device holds",
     [](Observation& seen) {
       seen.wrongHoldings.push_back({"can", 0, {1}, {2}, false, false});
     }},
    {"A success is told only if each device that can check",
     [](Observation& seen) { seen.checkMissing = true; }},
    {"An installation that does no step", [](Observation& seen) { seen.endedInTime = false; }},
    {"An installation that does no step", [](Observation& seen) { seen.workersEnded = false; }},
    {"An installation that does no step", [](Observation& seen) { seen.longestSilence_us = 40'500'001; }},
    {"A single byte spoilt",
     [](Observation& seen) {
       seen.successDue = true;
       seen.successes = 0;
     }},
    {"Every block", [](Observation& seen) { seen.foreignFrames = 1; }},
    {"What the controller is told", [](Observation& seen) { seen.wrongPayloads = 1; }},
    {"A transfer that is given up", [](Observation& seen) { seen.cancelsMissing = 1; }},
    {"An abort is answered", [](Observation& seen) { seen.aborts = 1; }},
    {"An abort is answered", [](Observation& seen) { seen.abortResults = 1; }},
    {"Nothing reaches the host", [](Observation& seen) { seen.callsOffEventThread = 1; }},
    {"The progress", [](Observation& seen) { seen.progressFell = 1; }},
    {"Whatever happened", [](Observation& seen) { seen.recovered = false; }},
    {"A deleted module leaves", [](Observation& seen) { seen.threadsLeft = 1; }},
    {"A deleted module leaves", [](Observation& seen) { seen.subscriptionsLeft = 1; }},
    {"A deleted module leaves", [](Observation& seen) { seen.filesLeft = 1; }},
    {"A deleted module leaves", [](Observation& seen) { seen.blocksLeft = 1; }},
    {"A deleted module leaves", [](Observation& seen) { seen.filesKept = 1; }},
    {"A deleted module leaves", [](Observation& seen) { seen.saidAfterDeletion = 1; }},
    {"A transfer that is given up", [](Observation& seen) { seen.bytesBehindCancel = 1; }},
    {"The log holds", [](Observation& seen) { seen.unknownLines.emplace_back("Hello"); }},
};
INSTANTIATE_TEST_SUITE_P(Spoilt, Promise, testing::ValuesIn(kSpoilt));

// ---- Excuses ----

TEST(Excuses, AForgedAckStandsForOneMissingBlock) {
  const Bytes image = Image(3);
  Observation seen = FalseSuccess(FirstBlocks(image, 2), image);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
  seen.transfers = {{0, 0, 1, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kForgedAck);
  seen.wrongHoldings[0].flash = FirstBlocks(image, 1);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "two blocks are missing";
  seen.transfers.push_back({0, 0, 1, 0});
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "the other ACK was of another transfer";
  seen.wrongHoldings[0].flash[0] ^= 1;
  seen.transfers = {{0, 0, 9, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "and what is there is wrong";
}

TEST(Excuses, ABlockSentAgainStandsForOneMissingBlock) {
  const Bytes image = Image(2);
  Observation seen = FalseSuccess(FirstBlocks(image, 1), image);
  const Bytes frame = simulator::FrameBlock(1, FirstBlocks(image, 1), simulator::Trailer::kCrc);
  seen.delivered = frame;
  seen.takers.assign(2 * frame.size(), 0);
  seen.transfers = {{0, frame.size(), 0, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
  seen.delivered.insert(seen.delivered.end(), frame.begin(), frame.end());
  seen.transfers.push_back({frame.size(), 2 * frame.size(), 0, 0});
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "each transfer brought it once";
  seen.transfers = {{0, 2 * frame.size(), 0, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kSurplusAck);
}

TEST(Excuses, AForgedEndStandsForOneMissingBlock) {
  const Bytes image = Image(2);
  Observation seen = FalseSuccess(FirstBlocks(image, 1), image);
  seen.transfers = {{0, 0, 0, 1}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kForgedEnd);
  seen.wrongHoldings[0].flash.clear();
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "two blocks are missing";
}

TEST(Excuses, AnotherDeviceMustHaveTakenEachMissingBlock) {
  const Bytes image = Image(2);
  Observation seen = FalseSuccess(FirstBlocks(image, 1), image);
  seen.delivered = simulator::FrameBlock(2, FirstBlocks(image, 1), simulator::Trailer::kCrc);
  seen.takers.assign(seen.delivered.size(), 0);
  seen.transfers = {{0, seen.delivered.size(), 0, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "the device itself had the line";
  seen.takers.assign(seen.delivered.size(), 1);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kOtherDevice);
  seen.wrongHoldings[0].flash.clear();
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "two blocks are missing";
}

TEST(Excuses, AWrongBlockMustHaveArrivedInASoundFrame) {
  const Bytes image = Image(1);
  Bytes wrong = image;
  // The sum stays the same.
  wrong[10] = static_cast<std::uint8_t>(wrong[10] + 1);
  wrong[20] = static_cast<std::uint8_t>(wrong[20] - 1);
  Observation seen = FalseSuccess(wrong, image);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
  seen.delivered = simulator::FrameBlock(1, wrong, simulator::Trailer::kChecksum);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kCollision);
  seen.written = seen.delivered;
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "the host itself had written it";
  seen.written.clear();
  seen.delivered[2] ^= 1;
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "its number was not sound";
}

TEST(Excuses, ADeviceThatBeganAnewMustHaveLostWholeRoundsOfNumbers) {
  const Bytes image = Image(258);
  const Bytes rest(image.begin() + 256 * 1024, image.end());
  Observation seen = FalseSuccess(rest, image);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "no device began anew";
  seen.resets = 1;
  EXPECT_EQ(ExcuseOf(seen), Excuse::kWrappedNumber);
  seen.wrongHoldings[0].flash.erase(seen.wrongHoldings[0].flash.begin(),
                                    seen.wrongHoldings[0].flash.begin() + 1024);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
}

TEST(Excuses, ASecondTransferMustGoOnWhereTheNumbersBeginAnew) {
  const Bytes image = Image(260);
  for (const std::size_t repeated : {std::size_t{0}, std::size_t{1}}) {
    Bytes joined = FirstBlocks(image, 256 + repeated);
    joined.insert(joined.end(), image.begin() + static_cast<std::ptrdiff_t>(repeated * 1024), image.end());
    Observation seen = FalseSuccess(joined, image);
    EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "no second installation";
    seen.installs = 2;
    EXPECT_EQ(ExcuseOf(seen), Excuse::kWrappedNumber);
    seen.wrongHoldings[0].flash.erase(seen.wrongHoldings[0].flash.begin(),
                                      seen.wrongHoldings[0].flash.begin() + 1024);
    EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "not a whole round";
  }
}

TEST(Excuses, AFlashErrorIsOneOfADeviceThatChecksNothing) {
  const Bytes image = Image(1);
  Bytes wrong = image;
  wrong[0] ^= 1;
  Observation seen = FalseSuccess(wrong, image);
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "no cell was told to be wrong";
  seen.wrongHoldings[0].flashError = true;
  EXPECT_EQ(ExcuseOf(seen), Excuse::kFlashError);
  seen.wrongHoldings[0].device = "can";
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
}

TEST(Excuses, AFlashErrorThatIsStillToComeLeavesTheOthers) {
  const Bytes image = Image(2);
  Observation seen = FalseSuccess(FirstBlocks(image, 1), image);
  seen.wrongHoldings[0].flashError = true;
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone) << "a block is missing";
  seen.transfers = {{0, 0, 1, 0}};
  EXPECT_EQ(ExcuseOf(seen), Excuse::kForgedAck);
}

TEST(Excuses, OneWithoutSpoilsAll) {
  const Bytes image = Image(2);
  Observation seen = FalseSuccess(FirstBlocks(image, 1), image);
  seen.transfers = {{0, 0, 1, 0}};
  seen.wrongHoldings.push_back({"can", 0, {}, {1, 2, 3}, false, false});
  seen.wrongHoldings.push_back({"can", 0, {9}, {1, 2, 3}, false, false});
  EXPECT_EQ(ExcuseOf(seen), Excuse::kNone);
}

// ---- Log lines ----

TEST(KnownLines, AreKnownByLevelAndText) {
  EXPECT_TRUE(IsKnownLine(logging::EError, "Wrong reply received:67"));
  EXPECT_FALSE(IsKnownLine(logging::EWarning, "Wrong reply received:67"));
  EXPECT_FALSE(IsKnownLine(logging::EError, "Wrong reply received:"));
  EXPECT_FALSE(IsKnownLine(logging::EError, "Wrong reply received:67."));
  EXPECT_TRUE(IsKnownLine(logging::EInfo, "Received answer \x01 anything"));
  EXPECT_FALSE(IsKnownLine(logging::EInfo, "Received"));
}

// ---- Ids ----

TEST(Ids, SayWhatGoesWrong) {
  const auto scenario = ParseScenario("sanyo/sum/129/out:17:flip3");
  ASSERT_TRUE(scenario.has_value());
  EXPECT_EQ(scenario->devices, std::vector<std::string>{"sanyo"});
  EXPECT_EQ(scenario->imageSize, 129U);
  EXPECT_TRUE(scenario->options.faults.checksum);
  ASSERT_EQ(scenario->faults.size(), 1U);
  EXPECT_EQ(Text(scenario->faults[0]), "out:17:flip3");
}

TEST(Ids, EveryFaultComesBackFromItsText) {
  for (Fault fault : EveryFault()) {
    fault.direction = Direction::kIn;
    fault.index = 4711;
    const auto back = ParseFault(Text(fault));
    ASSERT_TRUE(back.has_value()) << Text(fault);
    EXPECT_EQ(Text(*back), Text(fault));
  }
  EXPECT_EQ(EveryFault().size(), 27U);
}

TEST(Ids, OthersAreNone) {
  for (const char* id : {"", "can", "can/crc", "can/crc/12", "can/crc/x/none", "can/crc/12/out:1:melt",
                         "dog/crc/1/none", "can/crc/12/malloc:0", "can/md5/12/none", "storm/", "storm/1/2"}) {
    EXPECT_FALSE(ParseScenario(id).has_value()) << id;
  }
}

}  // namespace proving
