// Goal: the bootloader's sender delivers a text in blocks and survives what a host may answer.
// Method: bytes are handed in one by one at chosen moments; all that it sends is compared as exact bytes.
#include "simulator/XmodemSender.h"

#include <gtest/gtest.h>

#include <utility>

#include "ScriptedHost.h"

namespace simulator {

namespace {

class Sender : public testing::Test {
 protected:
  void Start(const std::string& text, const SenderOptions& options = {}, bool host_asks = false) {
    iSender.Start(text, options, host_asks, iNow);
  }

  void Feed(const Bytes& bytes) {
    for (const std::uint8_t byte : bytes) {
      iSender.Receive(byte, iNow);
    }
  }

  void Pass(Micros span) {
    const Micros end = iNow + span;
    while (iSender.NextTimer() <= end) {
      iNow = iSender.NextTimer();
      iSender.Advance(iNow);
    }
    iNow = end;
  }

  Bytes Sent() { return std::exchange(iOutput, {}); }

  Bytes iOutput;
  XmodemSender iSender{iOutput};
  Micros iNow = 500;
};

const Bytes kAckByte{0x06};
const Bytes kNakByte{0x15};
const Bytes kEotByte{0x04};
const Bytes kTwoCans{0x18, 0x18};

/// The block that answers "000": "0" is 0x30, and the CRC of "000" and 125 zeros is 0xF563 by an independent
/// calculation.
Bytes AnswerBlock() {
  return Bytes{0x01, 0x01, 0xFE, 0x30, 0x30, 0x30} + Filled(125, 0) + Bytes{0xF5, 0x63};
}

}  // namespace

TEST_F(Sender, SaysNothingUntilAsked) {
  Start("000");
  Pass(29 * kSecond);
  EXPECT_EQ(Sent(), Bytes{});
  EXPECT_FALSE(iSender.Begun());
  EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
}

TEST_F(Sender, GivesUpAfterThirtySecondsWithoutAByte) {
  Start("000");
  Pass(20 * kSecond);
  Feed({'x'});
  Pass(30 * kSecond - 1);
  EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
  Pass(1);
  EXPECT_EQ(iSender.Result(), TransferResult::kSilence);
}

TEST_F(Sender, SendsTheTextPaddedWithZerosThenEot) {
  Start("000");
  Feed({'C'});
  EXPECT_EQ(Sent(), AnswerBlock());
  Feed(kAckByte);
  EXPECT_EQ(Sent(), kEotByte);
  Feed(kAckByte);
  EXPECT_EQ(Sent(), Bytes{});
  EXPECT_EQ(iSender.Result(), TransferResult::kComplete);
}

TEST_F(Sender, BeginsAtOnceIfTheHostHasAskedAlready) {
  Start("000", {}, true);
  EXPECT_EQ(Sent(), AnswerBlock());
}

TEST_F(Sender, NakAtTheStartAsksForChecksums) {
  Start("000");
  Feed(kNakByte);
  EXPECT_EQ(Sent(), (Bytes{0x01, 0x01, 0xFE, 0x30, 0x30, 0x30} + Filled(125, 0) + Bytes{0x90}));
}

TEST_F(Sender, EmptyTextIsOneBlockOfZeros) {
  Start("");
  Feed({'C'});
  EXPECT_EQ(Sent(), (Bytes{0x01, 0x01, 0xFE} + Filled(130, 0)));
  Feed(kAckByte);
  EXPECT_EQ(Sent(), kEotByte);
}

TEST_F(Sender, LongTextGoesInLongBlocksWhileMoreThan128Remain) {
  const std::string text(1024 + 128, 'v');
  Start(text);
  Feed({'C'});
  EXPECT_EQ(Sent(), FrameBlock(1, Filled(1024, 'v'), Trailer::kCrc));
  Feed(kAckByte);
  EXPECT_EQ(Sent(), FrameBlock(2, Filled(128, 'v'), Trailer::kCrc));
  Start(std::string(129, 'v'));
  Feed({'C'});
  EXPECT_EQ(Sent().size(), 1029u);
}

TEST_F(Sender, NakRepeatsTheBlockTenTimesAndThenCancels) {
  Start("000");
  Feed({'C'});
  for (int naks = 1; naks <= 10; ++naks) {
    Sent();
    Feed(kNakByte);
    EXPECT_EQ(Sent(), AnswerBlock()) << naks;
  }
  Feed(kNakByte);
  EXPECT_EQ(Sent(), kTwoCans);
  EXPECT_EQ(iSender.Result(), TransferResult::kTooManyErrors);
}

TEST_F(Sender, SilenceRepeatsTheBlockEverySixSecondsForHalfAMinute) {
  Start("000");
  Feed({'C'});
  Sent();
  Pass(6 * kSecond - 1);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(1);
  EXPECT_EQ(Sent(), AnswerBlock());
  Pass(24 * kSecond - 1);
  EXPECT_EQ(Sent().size(), 3u * 133u);
  EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
  Pass(1);
  EXPECT_EQ(iSender.Result(), TransferResult::kSilence);
}

TEST_F(Sender, EotIsRepeatedAfterNakAndAfterSilence) {
  Start("000");
  Feed({'C'});
  Feed(kAckByte);
  Sent();
  Feed(kNakByte);
  EXPECT_EQ(Sent(), kEotByte);
  Pass(6 * kSecond);
  EXPECT_EQ(Sent(), kEotByte);
}

TEST_F(Sender, OtherBytesAreNoReply) {
  Start("000");
  Feed({'C'});
  Sent();
  Feed(FromText("CCx"));
  EXPECT_EQ(Sent(), Bytes{});
  EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
}

TEST_F(Sender, OnlyTwoCansInARowCancelInEachState) {
  for (const Bytes& before : {Bytes{}, Bytes{'C'}, Bytes{'C', 0x06}}) {
    Start("000");
    Feed(before);
    Feed({0x18, 'x', 0x18});
    EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
    Feed({0x18});
    EXPECT_EQ(iSender.Result(), TransferResult::kCancelled);
  }
}

TEST_F(Sender, ThatIsDeafToCancelMindsItOnlyOnceBegun) {
  SenderOptions options;
  options.deaf_to_cancel = true;
  Start("000", options);
  Feed(Filled(6, 0x18));
  EXPECT_EQ(iSender.Result(), TransferResult::kRunning);
  Feed({'C'});
  Feed(kTwoCans);
  EXPECT_EQ(iSender.Result(), TransferResult::kCancelled);
}

TEST_F(Sender, RepeatsTheAckOfAnEotOnlyIfToldSo) {
  Start("000");
  Feed(kEotByte);
  EXPECT_EQ(Sent(), Bytes{});
  SenderOptions options;
  options.repeat_ack = true;
  Start("000", options);
  Feed(kEotByte);
  EXPECT_EQ(Sent(), kAckByte);
}

TEST_F(Sender, DamagesEverySecondBlockOnceIfToldSo) {
  SenderOptions options;
  options.damage_every = 2;
  Start(std::string(1024 + 128, 'v'), options);
  Feed({'C'});
  Feed(kAckByte);
  Sent();
  Feed(kNakByte);
  const Bytes sound = Sent();
  Start(std::string(1024 + 128, 'v'), options);
  Feed({'C'});
  Sent();
  Feed(kAckByte);
  const Bytes damaged = Sent();
  ASSERT_EQ(damaged.size(), sound.size());
  EXPECT_EQ(damaged.back(), sound.back() ^ 0xFF);
  EXPECT_EQ(sound, FrameBlock(2, Filled(128, 'v'), Trailer::kCrc));
}

}  // namespace simulator
