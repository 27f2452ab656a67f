// Goal: the engine and the Python module xmodem understand each other, whoever sends, in blocks of both
// sizes, with CRC and with checksum. Method: xmodem_peer.py, a few lines around the module's documented
// calls, as a process; the engine on a real port of the platform.

#include <gtest/gtest.h>

#include "Transfer.h"

namespace {

using Sizes = std::vector<std::size_t>;

constexpr char kPeersFiller = '\x1A';

const Sizes kSizes = {1, 128, 129, 1024, 1025, 2500};
// More than 256 blocks of 1024 bytes, as we send them, and of 128, as we get them.
constexpr std::size_t kWrapping = 300'000;
constexpr std::size_t kWrappingInSmallBlocks = 40'000;

Peer Python(const std::string& what, const std::string& how) {
  return {"/usr/bin/python3", {XMODEM_PEER, what, how}, "python3", "script/bootstrap"};
}

const Peer kReceivesWithCrc = Python("receive", "crc");
const Peer kReceivesWithChecksum = Python("receive", "checksum");
const Peer kSendsSmallBlocks = Python("send", "xmodem");
const Peer kSendsLargeBlocks = Python("send", "xmodem1k");

void ExpectThatPythonHolds(const Peer& receiver, std::size_t size) {
  const std::string content = Content(size);
  const Outcome outcome = SendTo(receiver, content);
  EXPECT_TRUE(outcome.HasArrived(PaddedByUs(content))) << outcome;
}

void ExpectThatWeHold(const Peer& sender, std::size_t blockSize, std::size_t size) {
  const std::string content = Content(size);
  const Outcome outcome = ReceiveFrom(sender, content);
  EXPECT_TRUE(outcome.HasArrived(Padded(content, blockSize, kPeersFiller))) << outcome;
}

TEST(XmodemOfPython, HoldsEverySizeThatItAsksForWithCrc) {
  ForEachSize(kSizes, [](std::size_t size) { ExpectThatPythonHolds(kReceivesWithCrc, size); });
}

TEST(XmodemOfPython, HoldsEverySizeThatItAsksForWithChecksum) {
  ForEachSize(kSizes, [](std::size_t size) { ExpectThatPythonHolds(kReceivesWithChecksum, size); });
}

TEST(XmodemOfPython, HoldsAFileWhoseBlockNumbersWrap) {
  ExpectThatPythonHolds(kReceivesWithCrc, kWrapping);
}

TEST(XmodemOfPython, GivesUsEverySizeInSmallBlocks) {
  ForEachSize(kSizes, [](std::size_t size) { ExpectThatWeHold(kSendsSmallBlocks, kSmallBlock, size); });
}

TEST(XmodemOfPython, GivesUsEverySizeInLargeBlocks) {
  ForEachSize(kSizes, [](std::size_t size) { ExpectThatWeHold(kSendsLargeBlocks, kLargeBlock, size); });
}

TEST(XmodemOfPython, GivesUsAFileWhoseBlockNumbersWrap) {
  ExpectThatWeHold(kSendsSmallBlocks, kSmallBlock, kWrappingInSmallBlocks);
}

TEST(XmodemOfPython, SendsABlockAgainThatTheLineHasSpoilt) {
  Way way;
  way.spoilt = 1500;
  const std::string content = Content(2500);
  const Outcome outcome = ReceiveFrom(kSendsLargeBlocks, content, way);
  EXPECT_TRUE(outcome.HasArrived(Padded(content, kLargeBlock, kPeersFiller))) << outcome;
  EXPECT_GT(outcome.fromPeer.size(), 4 * kLargeBlock) << "a block more than the file has";
}

// It insists on a block before the end, and gives up. Our sender does not take that for a success.
TEST(XmodemOfPython, DoesNotTakeAnEmptyFile) {
  for (const auto& [receiver, result] : {std::pair(kReceivesWithCrc, IXModem::EXModemCancelled),
                                         std::pair(kReceivesWithChecksum, IXModem::EXModemTooManyNaks)}) {
    const Outcome outcome = SendTo(receiver, "");
    EXPECT_EQ(outcome.result, result) << outcome;
    EXPECT_EQ(outcome.peerStatus, 1) << outcome;
    EXPECT_EQ(outcome.received, "");
  }
}

}  // namespace
