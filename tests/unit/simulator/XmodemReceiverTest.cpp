// Goal: the bootloader's receiver answers every byte and every silence as its states say.
// Method: bytes are handed in one by one at chosen moments; all that it sends is compared as exact bytes.
#include "simulator/XmodemReceiver.h"

#include <gtest/gtest.h>

#include <random>

#include "ScriptedHost.h"

namespace simulator {

namespace {

class Store : public BlockTaker {
 public:
  bool TakeBlock(const Bytes& data, bool first) override {
    if (first) {
      content.clear();
    }
    if (content.size() + data.size() > room) {
      return false;
    }
    content = content + data;
    return true;
  }

  Bytes content;
  std::size_t room = 1 << 20;
};

class Receiver : public testing::Test {
 protected:
  void Start(const ReceiverOptions& options = {}) { iReceiver.Start(options, iNow); }

  void Feed(const Bytes& bytes) {
    for (const std::uint8_t byte : bytes) {
      iReceiver.Receive(byte, iNow);
    }
  }

  /// Lets time pass, timer by timer.
  void Pass(Micros span) {
    const Micros end = iNow + span;
    while (iReceiver.NextTimer() <= end) {
      iNow = iReceiver.NextTimer();
      iReceiver.Advance(iNow);
    }
    iNow = end;
  }

  /// An EOT, and the silence that makes it one.
  void FeedEot() {
    Feed({kEot});
    Pass(XmodemReceiver::kEotQuiet);
  }

  Bytes Sent() { return std::exchange(iOutput, {}); }

  static Bytes Block(std::uint8_t number, std::uint8_t value) {
    return FrameBlock(number, Filled(128, value), Trailer::kCrc);
  }

  static Bytes DamagedBlock(std::uint8_t number) {
    Bytes block = Block(number, 0x55);
    block[50] = 0x54;
    return block;
  }

  Store iStore;
  Bytes iOutput;
  XmodemReceiver iReceiver{iStore, iOutput};
  Micros iNow = 1000;
};

const Bytes kC{'C'};
const Bytes kAckByte{0x06};
const Bytes kNakByte{0x15};
const Bytes kTwoCans{0x18, 0x18};

}  // namespace

TEST_F(Receiver, SolicitsAtOnceAndEverySecond) {
  Start();
  EXPECT_EQ(Sent(), kC);
  EXPECT_EQ(iReceiver.NextTimer(), 1000 + 1000000);
  Pass(999999);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(1);
  EXPECT_EQ(Sent(), kC);
}

TEST_F(Receiver, GivesUpAfterTenSilentSolicitations) {
  Start();
  Pass(10 * kSecond - 1);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
  EXPECT_EQ(Sent(), FromText("CCCCCCCCCC"));
  Pass(1);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kSilence);
  EXPECT_EQ(Sent(), Bytes{});
}

TEST_F(Receiver, SolicitsForEverIfToldSo) {
  ReceiverOptions options;
  options.max_solicitations = 0;
  Start(options);
  Pass(1000 * kSecond);
  EXPECT_EQ(Sent().size(), 1001u);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
}

TEST_F(Receiver, AcknowledgesAndStoresBlocksOfBothSizesUntilEot) {
  Start();
  Sent();
  Feed(FrameBlock(1, Pattern(1024), Trailer::kCrc));
  EXPECT_EQ(Sent(), kAckByte);
  Feed(Block(2, 0x22));
  EXPECT_EQ(Sent(), kAckByte);
  FeedEot();
  EXPECT_EQ(Sent(), kAckByte);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kComplete);
  EXPECT_EQ(iStore.content, Pattern(1024) + Filled(128, 0x22));
}

TEST_F(Receiver, InChecksumModeSolicitsWithNakAndChecksOneByte) {
  ReceiverOptions options;
  options.trailer = Trailer::kChecksum;
  Start(options);
  EXPECT_EQ(Sent(), kNakByte);
  Feed(FrameBlock(1, Pattern(128), Trailer::kChecksum));
  EXPECT_EQ(Sent(), kAckByte);
}

TEST_F(Receiver, BlockNumbersWrapFrom255To0) {
  Start();
  for (int number = 1; number <= 257; ++number) {
    Feed(Block(static_cast<std::uint8_t>(number & 0xFF), 1));
  }
  EXPECT_EQ(Sent(), kC + Filled(257, 0x06));
  EXPECT_EQ(iStore.content.size(), 257u * 128u);
}

TEST_F(Receiver, DamagedBlockIsRejectedOnceTheLineIsQuiet) {
  Start();
  Feed(Block(1, 1));
  Sent();
  Feed(DamagedBlock(2));
  Pass(199999);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(1);
  EXPECT_EQ(Sent(), kNakByte);
  Feed(Block(2, 2));
  EXPECT_EQ(Sent(), kAckByte);
  EXPECT_EQ(iStore.content, Filled(128, 1) + Filled(128, 2));
}

TEST_F(Receiver, EveryStrayByteProlongsTheWaitForQuiet) {
  Start();
  Feed(Block(1, 1));
  Feed(DamagedBlock(2));
  Sent();
  Pass(150 * kMillisecond);
  Feed({0x01});
  Pass(150 * kMillisecond);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(50 * kMillisecond);
  EXPECT_EQ(Sent(), kNakByte);
}

TEST_F(Receiver, BadHeaderIsRejectedAfterTheFirstBlockAndSolicitedAgainBefore) {
  Start();
  Sent();
  Feed({0x01, 0x01, 0xFF, 0x00});
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kC);
  Feed(Block(1, 1));
  Sent();
  Feed({0x01, 0x02, 0xFF, 0x00});
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kNakByte);
}

TEST_F(Receiver, DamagedFirstBlockIsRejectedWithNak) {
  Start();
  Sent();
  Feed(DamagedBlock(1));
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kNakByte);
  Feed(Block(1, 1));
  EXPECT_EQ(Sent(), kAckByte);
}

TEST_F(Receiver, UnfinishedBlockIsRejectedAfterASecond) {
  Start();
  Feed(Block(1, 1));
  Sent();
  Bytes half = Block(2, 2);
  half.resize(70);
  Feed(half);
  Pass(999999);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(1);
  EXPECT_EQ(Sent(), kNakByte);
}

TEST_F(Receiver, RepeatedBlockIsAcknowledgedButNotStored) {
  Start();
  Feed(Block(1, 1) + Block(1, 1));
  EXPECT_EQ(Sent(), kC + kAckByte + kAckByte);
  EXPECT_EQ(iStore.content.size(), 128u);
}

TEST_F(Receiver, SoundBlockOutOfSequenceCancels) {
  Start();
  Feed(Block(1, 1));
  Sent();
  Feed(Block(3, 3));
  EXPECT_EQ(Sent(), kTwoCans);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kOutOfSequence);
}

TEST_F(Receiver, TenthErrorInARowCancels) {
  Start();
  Feed(Block(1, 1));
  Sent();
  for (int errors = 1; errors < 10; ++errors) {
    Feed(DamagedBlock(2));
    Pass(XmodemReceiver::kQuiet);
    EXPECT_EQ(Sent(), kNakByte) << errors;
  }
  Feed(DamagedBlock(2));
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kTwoCans);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kTooManyErrors);
}

TEST_F(Receiver, SoundBlockForgivesEarlierErrors) {
  Start();
  Feed(Block(1, 1));
  for (std::uint8_t number = 2; number < 30; ++number) {
    Feed(DamagedBlock(number));
    Pass(XmodemReceiver::kQuiet);
    Feed(Block(number, number));
  }
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
  EXPECT_EQ(iStore.content.size(), 29u * 128u);
}

TEST_F(Receiver, OnlyTwoCansInARowCancel) {
  Start();
  Feed({0x18});
  Feed(Block(1, 1));
  Feed({0x18});
  Feed(Block(2, 2));
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
  Feed(kTwoCans);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kCancelled);
  EXPECT_EQ(Sent(), kC + kAckByte + kAckByte);
}

TEST_F(Receiver, TwoCansWhileSolicitingCancel) {
  Start();
  Feed(kTwoCans);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kCancelled);
}

TEST_F(Receiver, SilenceBetweenBlocksIsAnsweredWithNakEveryThreeSecondsForHalfAMinute) {
  Start();
  Feed(Block(1, 1));
  Sent();
  Pass(3 * kSecond - 1);
  EXPECT_EQ(Sent(), Bytes{});
  Pass(27 * kSecond);
  EXPECT_EQ(Sent(), Filled(9, 0x15));
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
  Pass(1);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kSilence);
}

TEST_F(Receiver, EotBeforeAnyBlockIsAcknowledgedAndSolicitingGoesOn) {
  Start();
  FeedEot();
  EXPECT_EQ(Sent(), kC + kAckByte);
  Pass(kSecond);
  EXPECT_EQ(Sent(), kC);
  Feed(Block(1, 1));
  FeedEot();
  EXPECT_EQ(iReceiver.Result(), TransferResult::kComplete);
}

TEST_F(Receiver, EotThenTheHostAskingForDataIsAnEmptyFile) {
  Start();
  FeedEot();
  Feed(kC);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kEmpty);
}

TEST_F(Receiver, EotAfterARejectedFirstBlockIsRejected) {
  Start();
  Feed(DamagedBlock(1));
  Pass(XmodemReceiver::kQuiet);
  Sent();
  FeedEot();
  EXPECT_EQ(Sent(), kNakByte);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
}

TEST_F(Receiver, HostAskingForDataHasBegunAnew) {
  Start();
  Feed(kC);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kPeerReceives);
  Start();
  Feed(Block(1, 1) + kC);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kPeerReceives);
}

TEST_F(Receiver, AskingByteAmongOthersBetweenBlocksIsNoise) {
  Start();
  Feed(Block(1, 1) + FromText("Cx"));
  Sent();
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kNakByte);
}

TEST_F(Receiver, HostThatBeginsAnewAfterANakIsTakenWithChecksums) {
  Start();
  Feed(Block(1, 1) + Block(2, 2) + Block(3, 3));
  Sent();
  Pass(3 * kSecond);
  EXPECT_EQ(Sent(), kNakByte);
  Feed(FrameBlock(1, Filled(128, 9), Trailer::kChecksum) + FrameBlock(2, Filled(128, 8), Trailer::kChecksum));
  FeedEot();
  EXPECT_EQ(Sent(), kAckByte + kAckByte + kAckByte);
  EXPECT_EQ(iStore.content, Filled(128, 9) + Filled(128, 8));
}

TEST_F(Receiver, EotThatMoreFollowsIsNoEnd) {
  Start();
  Feed({kEot});
  Pass(XmodemReceiver::kEotQuiet - 1);
  Feed({0x55});
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kC + kC) << "before a transfer";
  Feed(Block(1, 1));
  Sent();
  // Block 4 without its beginning: its number looks like an end.
  Feed({4, 251, 0x55});
  Pass(XmodemReceiver::kQuiet);
  EXPECT_EQ(Sent(), kNakByte) << "in mid-transfer";
  EXPECT_EQ(iReceiver.Result(), TransferResult::kRunning);
}

TEST_F(Receiver, ABlockBehindAStrayEotIsABlock) {
  Start();
  Sent();
  Feed({kEot});
  Feed(Block(1, 1));
  EXPECT_EQ(Sent(), kAckByte);
  Feed({kEot});
  Feed(Block(2, 2));
  EXPECT_EQ(Sent(), kAckByte);
  EXPECT_EQ(iStore.content, Filled(128, 1) + Filled(128, 2));
}

TEST_F(Receiver, NoRoomCancels) {
  iStore.room = 128;
  Start();
  Feed(Block(1, 1));
  Sent();
  Feed(Block(2, 2));
  EXPECT_EQ(Sent(), kTwoCans);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kNoRoom);
}

TEST_F(Receiver, NakEveryThirdSoundBlockTakesItsRepetition) {
  ReceiverOptions options;
  options.nak_every = 3;
  Start(options);
  Sent();
  Feed(Block(1, 1) + Block(2, 2) + Block(3, 3));
  EXPECT_EQ(Sent(), kAckByte + kAckByte + kNakByte);
  Feed(Block(3, 3));
  EXPECT_EQ(Sent(), kAckByte);
  EXPECT_EQ(iStore.content.size(), 3u * 128u);
}

TEST_F(Receiver, NakFirstEotAcceptsTheSecond) {
  ReceiverOptions options;
  options.nak_first_eot = true;
  Start(options);
  Feed(Block(1, 1));
  Sent();
  FeedEot();
  EXPECT_EQ(Sent(), kNakByte);
  FeedEot();
  EXPECT_EQ(Sent(), kAckByte);
  EXPECT_EQ(iReceiver.Result(), TransferResult::kComplete);
}

TEST_F(Receiver, GarbageNeverKeepsTheNextTransferFromSucceeding) {
  for (std::uint32_t seed = 0; seed < 300; ++seed) {
    std::mt19937 random(seed);
    Start();
    for (int byte = 0; byte < 3000; ++byte) {
      if (iReceiver.Result() != TransferResult::kRunning) {
        Start();
      }
      Feed({static_cast<std::uint8_t>(random())});
      Pass(random() % 100 == 0 ? 300 * kMillisecond : 87);
    }
    Pass(40 * kSecond);
    ASSERT_NE(iReceiver.Result(), TransferResult::kRunning) << "seed " << seed;
    Start();
    Feed(Block(1, 1));
    FeedEot();
    ASSERT_EQ(iReceiver.Result(), TransferResult::kComplete) << "seed " << seed;
  }
}

}  // namespace simulator
