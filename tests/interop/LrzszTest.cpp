// Goal: the engine and the XMODEM programs of lrzsz understand each other, whoever sends, in blocks of both
// sizes, with CRC and with checksum; and what each fills a last block up with is what the other keeps.
// Method: rx and sx as they are installed, as black boxes; the engine on a real port of the platform.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Transfer.h"

namespace {

using testing::HasSubstr;

using Sizes = std::vector<std::size_t>;

constexpr char kSoh = '\x01';
constexpr char kStx = '\x02';
constexpr char kNak = '\x15';
constexpr char kCrcRequest = 'C';
constexpr char kPeersFiller = '\x1A';

constexpr unsigned kBaud = 921'600;
constexpr std::size_t kMiB = 1 << 20;
// More than 256 blocks of 1024 bytes, as we send them, and of 128, as we get them.
constexpr std::size_t kWrapping = 300'000;
constexpr std::size_t kWrappingInSmallBlocks = 40'000;
// From here on what is left of a file goes into a block of 1024 bytes with "sx -k", below into blocks of 128.
constexpr std::size_t kLeastForLargeBlock = 897;
// A packet beside its data: start, number, complement, CRC.
constexpr std::size_t kPacketOverhead = 5;

const Sizes kSizesAroundBlocks = {1, 127, 128, 129, 896, 897, 1023, 1024, 1025, 2500};
// Of an empty file rx makes an empty one.
const Sizes kSizesForRx = {0, 1, 127, 128, 129, 1023, 1024, 1025, 2500};

Peer Lrzsz(const std::string& program, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "-q");
  return {"/usr/bin/" + program, arguments, "lrzsz", "script/bootstrap"};
}

const Peer kRxCrc = Lrzsz("rx", {"-c"});
const Peer kRxChecksum = Lrzsz("rx", {});
const Peer kSx128 = Lrzsz("sx", {});
const Peer kSx1K = Lrzsz("sx", {"-k"});

Way Paced() {
  Way way;
  way.baud = kBaud;
  return way;
}

double SecondsOnTheLine(std::size_t bytes) {
  return static_cast<double>(bytes) * 10 / kBaud;
}

// A machine that is busy otherwise takes its time for a mebibyte, byte by byte.
Way Patient(Way way = {}) {
  way.limit_ms = 200'000;
  return way;
}

void ExpectThatRxHolds(const Peer& rx, char request, std::size_t size, const Way& way = {}) {
  const std::string content = Content(size);
  const Outcome outcome = SendTo(rx, content, way);
  EXPECT_TRUE(outcome.HasArrived(PaddedByUs(content))) << outcome;
  EXPECT_EQ(outcome.fromPeer.substr(0, 1), std::string(1, request));
  if (way.baud != PeerLine::kUnpaced) {
    EXPECT_GE(outcome.seconds, SecondsOnTheLine(size));
  }
}

void ExpectThatWeHold(const Peer& sx, char start, std::size_t size, const Way& way = {}) {
  const std::string content = Content(size);
  const Outcome outcome = ReceiveFrom(sx, content, way);
  EXPECT_TRUE(outcome.HasArrived(Padded(content, kSmallBlock, kPeersFiller))) << outcome;
  EXPECT_EQ(outcome.fromPeer.substr(0, 1), std::string(1, start));
  if (way.baud != PeerLine::kUnpaced) {
    EXPECT_GE(outcome.seconds, SecondsOnTheLine(size));
  }
}

// ---- We send ----

TEST(RxOfLrzsz, HoldsEverySizeThatItAsksForWithCrc) {
  ForEachSize(kSizesForRx, [](std::size_t size) { ExpectThatRxHolds(kRxCrc, kCrcRequest, size); });
}

TEST(RxOfLrzsz, HoldsEverySizeThatItAsksForWithChecksum) {
  ForEachSize(kSizesForRx, [](std::size_t size) { ExpectThatRxHolds(kRxChecksum, kNak, size); });
}

TEST(RxOfLrzsz, HoldsABufferToo) {
  Way way;
  way.buffer = true;
  ForEachSize({100, 2500}, [&](std::size_t size) { ExpectThatRxHolds(kRxCrc, kCrcRequest, size, way); });
}

TEST(RxOfLrzsz, HoldsAFileWhoseBlockNumbersWrap) {
  ExpectThatRxHolds(kRxCrc, kCrcRequest, kWrapping);
}

TEST(RxOfLrzsz, HoldsAFileFromALineOfLimitedSpeed) {
  ExpectThatRxHolds(kRxCrc, kCrcRequest, 65'536, Paced());
}

TEST(RxOfLrzsz, HoldsAMebibyteWithCrcFromALineOfLimitedSpeed) {
  ExpectThatRxHolds(kRxCrc, kCrcRequest, kMiB, Patient(Paced()));
}

TEST(RxOfLrzsz, HoldsAMebibyteWithChecksum) {
  ExpectThatRxHolds(kRxChecksum, kNak, kMiB, Patient());
}

TEST(RxOfLrzsz, GetsABlockAgainThatItRejects) {
  // rx takes every 5000th byte for a wrong one.
  const Peer rx = Lrzsz("rx", {"-c", "--errors", "5000"});
  const std::string content = Content(6000);
  const Outcome outcome = SendTo(rx, content);
  EXPECT_TRUE(outcome.HasArrived(PaddedByUs(content))) << outcome;
  EXPECT_THAT(outcome.fromPeer, HasSubstr(std::string(1, kNak)));
}

// ---- We receive ----

TEST(SxOfLrzsz, GivesUsEverySizeInSmallBlocks) {
  ForEachSize(kSizesAroundBlocks, [](std::size_t size) { ExpectThatWeHold(kSx128, kSoh, size); });
}

TEST(SxOfLrzsz, GivesUsEverySizeInLargeBlocks) {
  ForEachSize(kSizesAroundBlocks, [](std::size_t size) {
    ExpectThatWeHold(kSx1K, size >= kLeastForLargeBlock ? kStx : kSoh, size);
  });
}

TEST(SxOfLrzsz, GivesUsABufferToo) {
  Way way;
  way.buffer = true;
  ExpectThatWeHold(kSx128, kSoh, 100, way);
  ExpectThatWeHold(kSx1K, kStx, 2500, way);
}

TEST(SxOfLrzsz, GivesUsAFileWhoseBlockNumbersWrap) {
  ExpectThatWeHold(kSx128, kSoh, kWrappingInSmallBlocks);
}

TEST(SxOfLrzsz, GivesUsAFileOverALineOfLimitedSpeed) {
  ExpectThatWeHold(kSx128, kSoh, 16'384, Paced());
}

TEST(SxOfLrzsz, GivesUsAMebibyteInSmallBlocks) {
  ExpectThatWeHold(kSx128, kSoh, kMiB, Patient());
}

TEST(SxOfLrzsz, GivesUsAMebibyteInLargeBlocksOverALineOfLimitedSpeed) {
  ExpectThatWeHold(kSx1K, kStx, kMiB, Patient(Paced()));
}

TEST(SxOfLrzsz, SendsABlockAgainThatTheLineHasSpoilt) {
  Way way;
  way.spoilt = 500;
  const std::string content = Content(2500);
  const Outcome outcome = ReceiveFrom(kSx128, content, way);
  const std::string expected = Padded(content, kSmallBlock, kPeersFiller);
  EXPECT_TRUE(outcome.HasArrived(expected)) << outcome;
  const std::size_t packets = expected.size() / kSmallBlock + 1;
  EXPECT_EQ(outcome.fromPeer.size(), packets * (kSmallBlock + kPacketOverhead) + 1) << "and the end";
}

// sx ends at once what has no block; to us that is no transfer. Both sides say so.
TEST(SxOfLrzsz, CannotGiveUsAnEmptyFile) {
  const Outcome outcome = ReceiveFrom(kSx128, "");
  EXPECT_EQ(outcome.result, IXModem::EXModemNoValidPacket) << outcome;
  EXPECT_EQ(outcome.peerStatus, 128) << outcome;
  EXPECT_EQ(outcome.received, "");
}

}  // namespace
