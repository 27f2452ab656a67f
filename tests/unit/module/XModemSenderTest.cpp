// Goal: a sender that brings every file and buffer over to any receiver that keeps to the protocol, and that
// gives up exactly where it must, with the right result, bytes and log lines.
//
// Method: the receiver is a text of reads (see Wire.h) that a scripted port plays while a virtual clock
// stands still; every byte that goes out, every line and the number of reads are compared with literals.

#include <cstdlib>
#include <filesystem>

#include "EngineFixture.h"
#include "Files.h"

namespace {

using wire::Canonical;
using wire::Times;

// "A" as the first packet, with CRC and with a checksum.
const std::string kPacket = "01 01 FE 41 00*127 53 33 ";
const std::string kPacketWithSum = "01 01 FE 41 00*127 41 ";
const std::string kSixCans = "18*6";

const Lines kCrcMode = {"Info (CRC mode is requested)"};
const Lines kChecksumMode = {"Info (No CRC mode is requested)"};
const Lines kWait = {"Info (Wait for reply)"};
const Lines kStarted = {"Info (CRC mode is requested)", "Info (Wait for reply)"};
const Lines kPortError = {"Always (Received serial port error!)"};
const Lines kNotStarted = {"Warning ([Timeout] while waiting for startup character)"};
const Lines kStartCancelled = {"Warning (Transmission canceled by the other side. CAN messages received)"};
const Lines kNoReply = {"Warning ([Timeout] while processing the reply)"};
const Lines kCancelled = {"Warning (The transfer has been canceled by the other side of the communication)"};
const Lines kNakReceived = {"Warning (The packet must be re-transmitted. NAK received as reply)"};
const Lines kResend = {"Warning (The packet must be re-sent)"};
const Lines kTooManyNaks = {"Error (Too many NAKs has been received while processing the reply)"};
const Lines kNoEnd = {"Warning ([Timeout] while finalizing the delivery)"};
const Lines kWrongEnd = {"Error (Wrong reply while finalizing the delivery)"};
const Lines kEndCancelled = {"Warning (Transfer cancelled while finalizing the delivery)"};
const Lines kTooManyEotNaks = {"Error (Too many NAKs received while finalizing the delivery)"};

Lines WrongStart(int byte) {
  return {"Error (Unexpected reply while waiting for startup character : " + std::to_string(byte) + ")"};
}

Lines WrongReply(int byte) {
  return {"Error (Wrong reply received:" + std::to_string(byte) + ")"};
}

Lines NotWritten(int byte) {
  return {"Error (Failed writing[" + std::to_string(byte) + "]. retVal = 2)"};
}

class Sender : public EngineFixture {
 protected:
  IXModem::TXModemError Send(const std::vector<TUint8>& data) {
    return iEngine.SendBuffer(data.data(), static_cast<TInt32>(data.size()));
  }
  IXModem::TXModemError SendA() { return Send({'A'}); }
};

// ---- One packet against every kind of receiver ----

struct DialogueCase {
  const char* name;
  std::string receiver;
  std::string wire;
  IXModem::TXModemError result;
  Lines messages;
};

void PrintTo(const DialogueCase& dialogue, std::ostream* output) {
  *output << dialogue.name;
}

std::string NameOf(const testing::TestParamInfo<DialogueCase>& test) {
  return test.param.name;
}

class Dialogue : public EngineFixture, public testing::WithParamInterface<DialogueCase> {
 protected:
  // Whatever the log is told, the line is the same.
  void Run(const Lines& messages) {
    const DialogueCase& one = GetParam();
    const int reads = wire::Play(iPort, one.receiver);
    const TUint8 data = 'A';
    EXPECT_EQ(iEngine.SendBuffer(&data, 1), one.result);
    EXPECT_EQ(Written(), Canonical(one.wire));
    EXPECT_EQ(iLog.Messages(), messages);
    EXPECT_EQ(iPort.Reads(), reads);
  }
};

TEST_P(Dialogue, OfOnePacketEndsAsItMust) {
  Run(GetParam().messages);
}

TEST_P(Dialogue, OfOnePacketEndsAlikeWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  Run(WithTheLogOff(GetParam().messages));
}

constexpr auto kOk = IXModem::EXModemOk;
constexpr auto kTimeout = IXModem::EXModemTimeout;
constexpr auto kWrongReply = IXModem::EXModemWrongReply;
constexpr auto kCancelledResult = IXModem::EXModemCancelled;
constexpr auto kTooManyNaksResult = IXModem::EXModemTooManyNaks;

INSTANTIATE_TEST_SUITE_P(
    StartUp, Dialogue,
    testing::Values(
        DialogueCase{"CAsksForCrc", "43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"NakAsksForAChecksum", "15 06 06", kPacketWithSum + "04", kOk,
                     Join({kChecksumMode, kWait})},
        DialogueCase{"NineStrayBytesAreSkipped", "58*9 43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"TenthStrayByteIsFatal", "58*10", kSixCans, kWrongReply, WrongStart(88)},
        DialogueCase{"NineSilencesAreSkipped", "~*9 43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"TenthSilenceIsFatal", "~*10", kSixCans, kTimeout, kNotStarted},
        DialogueCase{"NakIsHeardAfterNineFailures", "~*4 58*5 15 06 06", kPacketWithSum + "04", kOk,
                     Join({kChecksumMode, kWait})},
        DialogueCase{"TenthFailureDecidesStrayByte", "~*9 58", kSixCans, kWrongReply, WrongStart(88)},
        DialogueCase{"TenthFailureDecidesSilence", "58*9 ~", kSixCans, kTimeout, kNotStarted},
        DialogueCase{"ControlBytesAreStrayBytes", "04 06 01 02 00 43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"TenthAckIsFatal", "06*10", kSixCans, kWrongReply, WrongStart(6)},
        DialogueCase{"StrayByte0IsNamedByItsNumber", "00*10", kSixCans, kWrongReply, WrongStart(0)},
        DialogueCase{"StrayByte10IsNamedByItsNumber", "0A*10", kSixCans, kWrongReply, WrongStart(10)},
        DialogueCase{"StrayByte200IsNamedByItsNumber", "C8*10", kSixCans, kWrongReply, WrongStart(200)},
        DialogueCase{"TwoCansCancel", "18 18", "", kCancelledResult, kStartCancelled},
        DialogueCase{"OneCanIsForgotten", "18 43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"ASilenceBetweenCansSavesTheTransfer", "18 ~ 18 43 06 06", kPacket + "04", kOk,
                     kStarted},
        DialogueCase{"AByteBetweenCansSavesTheTransfer", "18 58 18 43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"CansAreNotCounted", Times(9, "58 18") + "43 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"BytesBetweenCansAreCounted", Times(9, "58 18") + "58", kSixCans, kWrongReply,
                     WrongStart(88)},
        DialogueCase{"TwoCansCancelAfterNineFailures", "~*9 18 18", "", kCancelledResult, kStartCancelled},
        DialogueCase{"PortErrorsAreSilences", "!*10", kSixCans, kTimeout,
                     Join({Repeated(10, kPortError), kNotStarted})},
        DialogueCase{"APortErrorBetweenCansSavesTheTransfer", "18 ! 18 43 06 06", kPacket + "04", kOk,
                     Join({kPortError, kStarted})}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Reply, Dialogue,
    testing::Values(
        DialogueCase{"NineStrayBytesAreSkipped", "43 58*9 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"TenthStrayByteIsFatal", "43 58*10", kPacket + kSixCans, kWrongReply,
                     Join({kStarted, WrongReply(88)})},
        DialogueCase{"StrayByte10IsNamedByItsNumber", "43 0A*10", kPacket + kSixCans, kWrongReply,
                     Join({kStarted, WrongReply(10)})},
        DialogueCase{"NineSilencesAreWaitedForWithoutSendingAgain", "43 .*9 06 06", kPacket + "04", kOk,
                     kStarted},
        DialogueCase{"TenthSilenceIsFatal", "43 .*10", kPacket + kSixCans, kTimeout,
                     Join({kStarted, kNoReply})},
        DialogueCase{"TenthFailureDecidesStrayByte", "43 .*9 58", kPacket + kSixCans, kWrongReply,
                     Join({kStarted, WrongReply(88)})},
        DialogueCase{"TenthFailureDecidesSilence", "43 58*9 .", kPacket + kSixCans, kTimeout,
                     Join({kStarted, kNoReply})},
        DialogueCase{"StaleRequestsAreStrayBytes", "43*10 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"TwoCansCancel", "43 18 18", kPacket, kCancelledResult, Join({kStarted, kCancelled})},
        DialogueCase{"OneCanIsForgotten", "43 18 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"ASilenceBetweenCansSavesTheTransfer", "43 18 . 18 06 06", kPacket + "04", kOk,
                     kStarted},
        DialogueCase{"AByteBetweenCansSavesTheTransfer", "43 18 58 18 06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"ANakBetweenCansSavesTheTransfer", "43 18 15 18 06 06", Times(2, kPacket) + "04", kOk,
                     Join({kStarted, kNakReceived, kResend, kWait})},
        DialogueCase{"CansAreNotCounted", "43 " + Times(9, "58 18") + "06 06", kPacket + "04", kOk, kStarted},
        DialogueCase{"BytesBetweenCansAreCounted", "43 " + Times(9, "58 18") + "58", kPacket + kSixCans,
                     kWrongReply, Join({kStarted, WrongReply(88)})},
        DialogueCase{"TenNaksAreAnsweredByTheSamePacket", "43 15*10 06 06", Times(11, kPacket) + "04", kOk,
                     Join({kStarted, Repeated(10, Join({kNakReceived, kResend, kWait}))})},
        DialogueCase{
            "EleventhNakIsFatal", "43 15*11", Times(11, kPacket) + kSixCans, kTooManyNaksResult,
            Join({kStarted, Repeated(10, Join({kNakReceived, kResend, kWait})), kNakReceived, kTooManyNaks})},
        DialogueCase{"FailuresAreCountedAnewForEveryCopy", "43 58*9 15 58*9 06 06", Times(2, kPacket) + "04",
                     kOk, Join({kStarted, kNakReceived, kResend, kWait})},
        DialogueCase{"NaksAreNotFailures", "43 15*9 .*9 15 06 06", Times(11, kPacket) + "04", kOk,
                     Join({kStarted, Repeated(10, Join({kNakReceived, kResend, kWait}))})},
        DialogueCase{"AResentPacketKeepsItsChecksum", "15 15 06 06", Times(2, kPacketWithSum) + "04", kOk,
                     Join({kChecksumMode, kWait, kNakReceived, kResend, kWait})},
        DialogueCase{"PortErrorsAreSilences", "43 !*10", kPacket + kSixCans, kTimeout,
                     Join({kStarted, Repeated(10, kPortError), kNoReply})}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    End, Dialogue,
    testing::Values(
        DialogueCase{"NineSilencesAreAnsweredByEot", "43 06 .*9 06", kPacket + "04*10", kOk, kStarted},
        DialogueCase{"TenthSilenceIsFatal", "43 06 .*10", kPacket + "04*10 " + kSixCans, kTimeout,
                     Join({kStarted, kNoEnd})},
        DialogueCase{"NineStrayBytesAreAnsweredByEot", "43 06 58*9 06", kPacket + "04*10", kOk, kStarted},
        DialogueCase{"TenthStrayByteIsFatal", "43 06 58*10", kPacket + "04*10 " + kSixCans, kWrongReply,
                     Join({kStarted, kWrongEnd})},
        DialogueCase{"TenthFailureDecidesStrayByte", "43 06 .*9 58", kPacket + "04*10 " + kSixCans,
                     kWrongReply, Join({kStarted, kWrongEnd})},
        DialogueCase{"TenthFailureDecidesSilence", "43 06 58*9 .", kPacket + "04*10 " + kSixCans, kTimeout,
                     Join({kStarted, kNoEnd})},
        DialogueCase{"ElevenNaksAreAnsweredByEot", "43 06 15*11 06", kPacket + "04*12", kOk, kStarted},
        DialogueCase{"TwelfthNakIsFatal", "43 06 15*12", kPacket + "04*12 " + kSixCans, kTooManyNaksResult,
                     Join({kStarted, kTooManyEotNaks})},
        DialogueCase{"NaksAndFailuresAreCountedApart", "43 06 15*6 .*5 15*5 58*4 06", kPacket + "04*21", kOk,
                     kStarted},
        DialogueCase{"NaksAmongFailuresAreCounted", "43 06 15*6 .*9 15*6", kPacket + "04*21 " + kSixCans,
                     kTooManyNaksResult, Join({kStarted, kTooManyEotNaks})},
        DialogueCase{"FailuresAmongNaksAreCounted", "43 06 .*5 15*11 .*5", kPacket + "04*21 " + kSixCans,
                     kTimeout, Join({kStarted, kNoEnd})},
        DialogueCase{"TwoCansCancel", "43 06 18 18", kPacket + "04 04", kCancelledResult,
                     Join({kStarted, kEndCancelled})},
        DialogueCase{"OneCanIsForgotten", "43 06 18 06", kPacket + "04 04", kOk, kStarted},
        DialogueCase{"ANakBetweenCansSavesTheTransfer", "43 06 18 15 18 06", kPacket + "04*4", kOk, kStarted},
        DialogueCase{"ASilenceBetweenCansSavesTheTransfer", "43 06 18 . 18 06", kPacket + "04*4", kOk,
                     kStarted},
        DialogueCase{"AByteBetweenCansSavesTheTransfer", "43 06 18 58 18 06", kPacket + "04*4", kOk,
                     kStarted},
        DialogueCase{"CansAreNotCounted", "43 06 " + Times(9, "58 18") + "06", kPacket + "04*19", kOk,
                     kStarted},
        DialogueCase{"BytesBetweenCansAreCounted", "43 06 " + Times(9, "58 18") + "58",
                     kPacket + "04*19 " + kSixCans, kWrongReply, Join({kStarted, kWrongEnd})},
        DialogueCase{"PortErrorsAreSilences", "43 06 !*10", kPacket + "04*10 " + kSixCans, kTimeout,
                     Join({kStarted, Repeated(10, kPortError), kNoEnd})}),
    NameOf);

// ---- Time ----

TEST_F(Sender, StartUpMayTakeTwentySecondsAndAReplyFive) {
  iPort.Late(20000, 0x43).Late(5000, 0x06).Late(5000, 0x06);
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacket + "04"));
}

TEST_F(Sender, AStartUpCharacterOneMillisecondTooLateIsAFailure) {
  for (int i = 0; i < 10; ++i) {
    iPort.Late(20001, 0x43);
  }
  EXPECT_EQ(SendA(), kTimeout);
  EXPECT_EQ(Written(), "18*6");
  EXPECT_EQ(iLog.Messages(), kNotStarted);
}

TEST_F(Sender, RepliesOneMillisecondTooLateAreFailures) {
  iPort.Bytes({0x43});
  for (int i = 0; i < 9; ++i) {
    iPort.Late(5001, 0x06);
  }
  iPort.Bytes({0x06}).Late(5001, 0x06).Bytes({0x06});
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacket + "04 04"));
}

TEST_F(Sender, NaksThatComeTooLateAreFailuresAndNoNaks) {
  for (int i = 0; i < 10; ++i) {
    iPort.Late(20001, 0x15);
  }
  EXPECT_EQ(SendA(), kTimeout);
  EXPECT_EQ(Written(), "18*6");
  iPort.Bytes({0x43}).Late(5001, 0x15).Bytes({0x06});
  for (int i = 0; i < 10; ++i) {
    iPort.Late(5001, 0x15);
  }
  EXPECT_EQ(SendA(), kTimeout);
  EXPECT_EQ(Written(), Canonical("18*6 " + kPacket + "04*10 " + kSixCans)) << "the packet was sent once";
}

TEST_F(Sender, CansThatComeTooLateDoNotCancel) {
  iPort.Late(20001, 0x18).Late(20001, 0x18).Bytes({0x43});
  iPort.Late(5001, 0x18).Late(5001, 0x18).Bytes({0x06});
  iPort.Late(5001, 0x18).Late(5001, 0x18).Bytes({0x06});
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacket + "04*3"));
}

TEST_F(Sender, ASilentReceiverIsWaitedForTenTimesTwentySecondsWithoutAByte) {
  std::vector<std::uint64_t> writes_ms;
  iPort.onWrite = [&](TUint8) { writes_ms.push_back(virtual_clock::Now_ms()); };
  EXPECT_EQ(SendA(), kTimeout);
  // Reads take a second each, so that every wait is noticed to be over after 21 of them.
  EXPECT_EQ(writes_ms, std::vector<std::uint64_t>(6, 210000));
}

// ---- Failing writes ----

TEST_F(Sender, APacketThatCannotBeWrittenEndsTheTransferWithoutAnyFurtherWrite) {
  for (const int write : {1, 2, 4, 100, 132, 133}) {
    SCOPED_TRACE(write);
    WatchedPort port;
    CXModem engine(&port);
    port.Bytes({0x43});
    port.FailWritesFrom(write, 1);
    const TUint8 data = 'A';
    EXPECT_EQ(engine.SendBuffer(&data, 1), IXModem::EXModemSerialPortError);
    EXPECT_EQ(port.Writes(), write);
    EXPECT_EQ(port.Reads(), 1);
  }
}

TEST_F(Sender, AnEotThatCannotBeWrittenIsAFailureWithoutAWait) {
  wire::Play(iPort, "43 06");
  iPort.FailWritesFrom(134);
  EXPECT_EQ(SendA(), kTimeout);
  EXPECT_EQ(Written(), Canonical(kPacket));
  EXPECT_EQ(iPort.Reads(), 2);
  EXPECT_EQ(iPort.Writes(), 133 + 10 + 1) << "ten times EOT, one CAN";
  EXPECT_EQ(iLog.Messages(), Join({kStarted, Repeated(10, NotWritten(4)), kNoEnd, NotWritten(24)}));
}

TEST_F(Sender, ALineThatRecoversTakesTheNextEot) {
  wire::Play(iPort, "43 06 06");
  iPort.FailWritesFrom(134, 9);
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacket + "04"));
}

TEST_F(Sender, AnEotThatCannotBeWrittenBetweenCansSavesTheTransfer) {
  wire::Play(iPort, "43 06 18 18 06");
  iPort.FailWritesFrom(135, 1);
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacket + "04*3"));
}

TEST_F(Sender, CancellingEndsAtTheFirstCanThatCannotBeWritten) {
  wire::Play(iPort, "58*10");
  iPort.FailWritesFrom(3, 1);
  EXPECT_EQ(SendA(), kWrongReply) << "the reason for cancelling stays the result";
  EXPECT_EQ(Written(), "18 18");
  EXPECT_EQ(iPort.Writes(), 3);
  EXPECT_EQ(iLog.Messages(), Join({WrongStart(88), NotWritten(24)}));
}

// ---- Sizes and numbers ----

struct SizeCase {
  const char* name;
  TInt32 size;
  std::string wire;
};

void PrintTo(const SizeCase& size, std::ostream* output) {
  *output << size.name;
}

class BufferOfOnes : public EngineFixture, public testing::WithParamInterface<SizeCase> {};

TEST_P(BufferOfOnes, GoesOutInLargePacketsAndOneLast) {
  const TInt32 size = GetParam().size;
  const std::vector<TUint8> data(static_cast<std::size_t>(std::max(size, 0)), 0xFF);
  wire::Play(iPort, "43");
  iPort.Repeat(0x06, 1000);
  EXPECT_EQ(iEngine.SendBuffer(data.data(), size), kOk);
  EXPECT_EQ(Written(), Canonical(GetParam().wire));
}

const std::string kFirstLarge = "02 01 FE FF*1024 C0 84 ";
const std::string kSecondLarge = "02 02 FD FF*1024 C0 84 ";

INSTANTIATE_TEST_SUITE_P(
    Sender, BufferOfOnes,
    testing::Values(SizeCase{"Of0Bytes", 0, "04"}, SizeCase{"OfANegativeSize", -1, "04"},
                    SizeCase{"Of1Byte", 1, "01 01 FE FF 00*127 93 C5 04"},
                    SizeCase{"Of128Bytes", 128, "01 01 FE FF*128 ED A9 04"},
                    SizeCase{"Of129Bytes", 129, "02 01 FE FF*129 00*895 1A C8 04"},
                    SizeCase{"Of256Bytes", 256, "02 01 FE FF*256 00*768 86 89 04"},
                    SizeCase{"Of1024Bytes", 1024, kFirstLarge + "04"},
                    SizeCase{"Of1025Bytes", 1025, kFirstLarge + "01 02 FD FF 00*127 93 C5 04"},
                    SizeCase{"Of1152Bytes", 1152, kFirstLarge + "01 02 FD FF*128 ED A9 04"},
                    SizeCase{"Of1153Bytes", 1153, kFirstLarge + "02 02 FD FF*129 00*895 1A C8 04"},
                    SizeCase{"Of2048Bytes", 2048, kFirstLarge + kSecondLarge + "04"},
                    SizeCase{"Of2500Bytes", 2500,
                             kFirstLarge + kSecondLarge + "02 03 FC FF*452 00*572 F3 05 04"}),
    [](const auto& test) { return test.param.name; });

TEST_F(Sender, PacketsAreNumberedFrom1To255AndOnFrom0) {
  constexpr int kPackets = 260;
  const std::vector<TUint8> data(kPackets * 1024, 0xFF);
  wire::Play(iPort, "43");
  iPort.Repeat(0x06, kPackets + 1);
  EXPECT_EQ(Send(data), kOk);

  const auto& written = iPort.Written();
  ASSERT_EQ(written.size(), kPackets * 1029U + 1U);
  for (int packet = 0; packet < kPackets; ++packet) {
    const auto begin = written.begin() + packet * 1029;
    const int number = (packet + 1) % 256;
    ASSERT_EQ((std::vector<int>(begin, begin + 3)), (std::vector<int>{2, number, 255 - number}));
    ASSERT_EQ((std::vector<int>(begin + 1027, begin + 1029)), (std::vector<int>{0xC0, 0x84}));
  }
  EXPECT_EQ(written.back(), 0x04);
}

TEST_F(Sender, ChecksumsCoverLargePacketsToo) {
  wire::Play(iPort, "15 06 06 06");
  EXPECT_EQ(Send(std::vector<TUint8>(1025, 0xAA)), kOk);
  EXPECT_EQ(Written(), Canonical("02 01 FE AA*1024 00 01 02 FD AA 00*127 AA 04"));
}

TEST_F(Sender, PacketsCarryTheBufferPieceByPiece) {
  std::vector<TUint8> data(2500);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<TUint8>(i % 251);
  }
  wire::Play(iPort, "43 06 15 06 06 06");
  EXPECT_EQ(Send(data), kOk);
  data.resize(3072);
  wire::Bytes carried;
  const std::ptrdiff_t packet = 3 + 1024 + 2;
  ASSERT_EQ(iPort.Written().size(), 4U * packet + 1);
  for (const std::ptrdiff_t n : {0, 2, 3}) {  // the second was sent twice
    const auto first = iPort.Written().begin() + n * packet + 3;
    carried.insert(carried.end(), first, first + 1024);
  }
  EXPECT_EQ(carried, data);
  EXPECT_TRUE(std::equal(iPort.Written().begin() + packet, iPort.Written().begin() + 2 * packet,
                         iPort.Written().begin() + 2 * packet));
}

TEST_F(Sender, TheEleventhNakIsFatalForALaterPacketToo) {
  wire::Play(iPort, "43 15 06 15*11");
  EXPECT_EQ(Send(std::vector<TUint8>(1025, 0xFF)), kTooManyNaksResult);
  EXPECT_EQ(Written(), Canonical(Times(2, kFirstLarge) + Times(11, "01 02 FD FF 00*127 93 C5 ") + kSixCans));
}

TEST_F(Sender, AnAckForgetsTheNaksBeforeIt) {
  wire::Play(iPort, "43 15*10 06 15*10 06 06");
  EXPECT_EQ(Send(std::vector<TUint8>(1025, 0xFF)), kOk);
  EXPECT_EQ(Written(), Canonical(Times(11, kFirstLarge) + Times(11, "01 02 FD FF 00*127 93 C5") + "04"));
}

TEST_F(Sender, AReplyThatFailsEndsTheTransferBeforeTheNextPacket) {
  wire::Play(iPort, "43 .*10");
  EXPECT_EQ(Send(std::vector<TUint8>(1025, 0xFF)), kTimeout);
  EXPECT_EQ(Written(), Canonical(kFirstLarge + kSixCans));
}

// The number that the engine's next packet would have.
int NextNumber(CXModem& engine, WatchedPort& port) {
  const std::size_t before = port.Written().size();
  engine.SendPacket(nullptr, 0);
  return port.Written().at(before + 1);
}

TEST_F(Sender, TheAckOfEotIsNoPacketsAck) {
  wire::Play(iPort, "43 06 06");
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(NextNumber(iEngine, iPort), 2);
}

TEST_F(Sender, EveryTransferStartsAnewAtPacket1InCrcMode) {
  wire::Play(iPort, "15 06 06 43 06 06");
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical(kPacketWithSum + "04 " + kPacket + "04"));
}

TEST_F(Sender, ATransferThatNeverStartedLeavesCrcModeBehindAChecksumTransfer) {
  wire::Play(iPort, "15 06 06 ~*10");
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(SendA(), kTimeout);
  EXPECT_EQ(NextNumber(iEngine, iPort), 1);
  EXPECT_EQ(Written(), Canonical(kPacketWithSum + "04 18*6 01 01 FE 00*128 00 00"));
}

TEST_F(Sender, AReceiveInBetweenDoesNotCarryItsNumberOver) {
  wire::Play(iPort, "01 01 FE 41 00*127 53 33 04 43 06 06");
  TUint8 buffer[128];
  TInt32 received = 0;
  EXPECT_EQ(iEngine.ReceiveBuffer(buffer, sizeof buffer, &received), kOk);
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(Written(), Canonical("43 06 06 " + kPacket + "04"));
}

// ---- The whole trace ----

TEST_F(Sender, ACommandLeavesThisTrace) {
  wire::Play(iPort, "43 06 06");
  EXPECT_EQ(Send({'w', 'r', ' ', '1', '0', '0', '0'}), kOk);
  EXPECT_EQ(Written(), Canonical("01 01 FE 77 72 20 31 30 30 30 00*121 2C 43 04"));
  EXPECT_EQ(
      iLog.Trace(),
      (Lines{"Interface CXModem::SendBuffer ()", "Interface CXModem::WaitForStartUp ()",
             "Info CXModem::WaitForStartUp (CRC mode is requested)", "Interface CXModem::SendDataPackets ()",
             "Interface CXModem::SendPacket ()", "Info CXModem::SendDataPackets (Wait for reply)",
             "Interface CXModem::ProcessReply ()", "Interface CXModem::FinalizeDelivery ()"}));
}

TEST_F(Sender, ReplyLinesComeBeforeTheWaitForIt) {
  wire::Play(iPort, "43 06 06");
  std::vector<Lines> seen;
  iPort.onRead = [&] { seen.push_back(iLog.Messages()); };
  EXPECT_EQ(SendA(), kOk);
  EXPECT_EQ(seen, (std::vector<Lines>{{}, kStarted, kStarted}));
}

// ---- Files ----

class FileSender : public Sender, public IXModemCallback {
 protected:
  void IXModemProgress(TInt32 left, TInt32 total) override {
    iProgress.emplace_back(left, total);
    iWrittenAtProgress.push_back(iPort.Written().size());
    iReadsAtProgress.push_back(iPort.Reads());
    if (iOnProgress) {
      iOnProgress();
    }
  }

  // A file of `size` times 0xFF.
  std::string FileOfOnes(std::size_t size) {
    return iFolder.Write("image.bin", std::string(size, static_cast<char>(0xFF)));
  }

  IXModem::TXModemError SendFile(const std::string& name) {
    const int live = injected_failures::LiveStorage();
    const auto result = iEngine.SendFile(AsTChr(name), *this);
    iStorageLeft = injected_failures::LiveStorage() - live;
    iOpenAfterwards = OpenDescriptorsOf(name);
    return result;
  }

  Lines NotOpened(const std::string& name) { return {"Error (The file " + name + " could not be opened)"}; }
  Lines Size(std::size_t size) { return {"Info (File size : " + std::to_string(size) + ")"}; }

  using Progress = std::vector<std::pair<TInt32, TInt32>>;

  TemporaryFolder iFolder;
  Progress iProgress;
  std::vector<std::size_t> iWrittenAtProgress;
  std::vector<int> iReadsAtProgress;
  std::function<void()> iOnProgress;
  std::size_t iOpenAfterwards = 0;
  int iStorageLeft = 0;  ///< pieces that the last file has taken and not given back
};

const std::string kFileOf2500 = kFirstLarge + kSecondLarge + "02 03 FC FF*452 00*572 F3 05 04";

TEST_F(FileSender, TellsAfterEveryChunksReplyHowMuchIsLeft) {
  wire::Play(iPort, "43 06 06 06 06");
  EXPECT_EQ(SendFile(FileOfOnes(2500)), kOk);
  EXPECT_EQ(Written(), Canonical(kFileOf2500));
  EXPECT_EQ(iProgress, (Progress{{1476, 2500}, {452, 2500}, {0, 2500}}));
  EXPECT_EQ(iWrittenAtProgress, (std::vector<std::size_t>{1029, 2058, 3087})) << "the last before EOT";
  EXPECT_EQ(iReadsAtProgress, (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(iStorageLeft, 0);
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, LeavesThisTrace) {
  wire::Play(iPort, "43 06 06 06");
  EXPECT_EQ(SendFile(FileOfOnes(1025)), kOk);
  const Lines chunk = {"Interface CXModem::SendDataPackets ()", "Interface CXModem::SendPacket ()",
                       "Info CXModem::SendDataPackets (Wait for reply)",
                       "Interface CXModem::ProcessReply ()"};
  EXPECT_EQ(
      iLog.Trace(),
      Join({{"Interface CXModem::SendFile ()", "Info IFileHandler::FileSize (File size : 1025)",
             "Interface CXModem::WaitForStartUp ()", "Info CXModem::WaitForStartUp (CRC mode is requested)"},
            chunk,
            chunk,
            {"Interface CXModem::FinalizeDelivery ()"}}));
  EXPECT_EQ(iLog.Lines()[1].module, logging::SWLInfra);
}

TEST_F(FileSender, SendsAShortFileInASmallPacket) {
  wire::Play(iPort, "43 06 06");
  EXPECT_EQ(SendFile(FileOfOnes(100)), kOk);
  EXPECT_EQ(Written(), Canonical("01 01 FE FF*100 00*28 B2 14 04"));
  EXPECT_EQ(iProgress, (Progress{{0, 100}}));
}

TEST_F(FileSender, SendsAFileOfWholeChunksWithoutAnEmptyPacket) {
  wire::Play(iPort, "43 06 06 06");
  EXPECT_EQ(SendFile(FileOfOnes(2048)), kOk);
  EXPECT_EQ(Written(), Canonical(kFirstLarge + kSecondLarge + "04"));
  EXPECT_EQ(iProgress, (Progress{{1024, 2048}, {0, 2048}}));
}

TEST_F(FileSender, ReadsTheFileAsBytes) {
  const std::string name = iFolder.Write("text", "a\r\nb\n\x1A");
  wire::Play(iPort, "43 06 06");
  EXPECT_EQ(SendFile(name), kOk);
  EXPECT_EQ(Written().substr(0, 27), "01 01 FE 61 0D 0A 62 0A 1A ");
}

TEST_F(FileSender, SendsNothingButEotForAnEmptyFile) {
  wire::Play(iPort, "43 06");
  EXPECT_EQ(SendFile(FileOfOnes(0)), kOk);
  EXPECT_EQ(Written(), "04");
  EXPECT_EQ(iProgress, (Progress{{0, 0}}));
  EXPECT_EQ(iLog.Messages(), Join({Size(0), kCrcMode}));
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, SaysTwiceThatAFileIsMissingAndLeavesTheLineAlone) {
  const std::string name = iFolder.Path("missing");
  wire::Play(iPort, "43 06 06");
  EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(iLog.Messages(), Repeated(2, NotOpened(name)));
  EXPECT_EQ(iStorageLeft, 0);
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 0);
  EXPECT_EQ(iProgress, Progress());
}

TEST_F(FileSender, TakesAFolderForAFileThatCannotBeRead) {
  wire::Play(iPort, "43");
  EXPECT_EQ(SendFile(iFolder.Path()), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), "18*6");
  EXPECT_EQ(iProgress, (Progress{{-1, -1}})) << "its size is that of a missing file";
  EXPECT_EQ(iLog.Messages(), kCrcMode);
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, SaysThreeThingsWhenThereIsNoMemory) {
  const std::string name = FileOfOnes(10);
  injected_failures::FailMalloc(1);
  EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(
      iLog.Messages(),
      Join({Size(10), {"Error (Could not allocate memory for the buffer)"}, Repeated(2, NotOpened(name))}));
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 0);
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, FailsAlikeWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  EXPECT_EQ(SendFile(iFolder.Path("missing")), IXModem::EXModemFileError);
  const std::string name = FileOfOnes(10);
  injected_failures::FailMalloc(1);
  EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(iPort.Writes(), 0);
  EXPECT_EQ(iLog.Messages(), Lines());
}

TEST_F(FileSender, HidesThatTheReceiverNeverStartedAndKeepsTheFileOpen) {
  struct {
    const char* receiver;
    Lines messages;
  } const cases[] = {{"~*10", kNotStarted},
                     {"58*10", WrongStart(88)},
                     {"18 18", kStartCancelled},
                     {"!*10", Join({Repeated(10, kPortError), kNotStarted})}};
  const std::string name = FileOfOnes(10);
  std::size_t leftOpen = 0;
  for (const auto& one : cases) {
    SCOPED_TRACE(one.receiver);
    iLog.Clear();
    wire::Play(iPort, one.receiver);
    EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
    EXPECT_EQ(iLog.Messages(), Join({Size(10), one.messages, NotOpened(name)}));
    EXPECT_EQ(iPort.Writes(), 0) << "no CAN";
    EXPECT_EQ(iProgress, Progress());
    EXPECT_EQ(iOpenAfterwards, ++leftOpen);
    EXPECT_EQ(iStorageLeft, 1);
  }
}

struct FileFailureCase {
  const char* name;
  std::string receiver;
  std::string wire;
  IXModem::TXModemError result;
  std::vector<std::pair<TInt32, TInt32>> progress;
};

void PrintTo(const FileFailureCase& failure, std::ostream* output) {
  *output << failure.name;
}

class FileSenderFails : public FileSender, public testing::WithParamInterface<FileFailureCase> {};

TEST_P(FileSenderFails, WithTheFailuresResultTheProgressSoFarAndTheFileClosed) {
  const FileFailureCase& one = GetParam();
  const int reads = wire::Play(iPort, one.receiver);
  const std::string name = FileOfOnes(1025);
  EXPECT_EQ(SendFile(name), one.result);
  EXPECT_EQ(Written(), Canonical(one.wire));
  EXPECT_EQ(iProgress, one.progress);
  EXPECT_EQ(iPort.Reads(), reads);
  EXPECT_EQ(iOpenAfterwards, 0U);
  const Lines messages = iLog.Messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), NotOpened(name)[0]), 0);
}

const std::string kSecondSmall = "01 02 FD FF 00*127 93 C5 ";

INSTANTIATE_TEST_SUITE_P(
    Sender, FileSenderFails,
    testing::Values(
        FileFailureCase{"NoReply", "43 .*10", kFirstLarge + kSixCans, kTimeout, {{1, 1025}}},
        FileFailureCase{"WrongReply", "43 58*10", kFirstLarge + kSixCans, kWrongReply, {{1, 1025}}},
        FileFailureCase{"Cancelled", "43 18 18", kFirstLarge, kCancelledResult, {{1, 1025}}},
        FileFailureCase{
            "EleventhNak", "43 15*11", Times(11, kFirstLarge) + kSixCans, kTooManyNaksResult, {{1, 1025}}},
        FileFailureCase{"NoReplyToTheLastChunk",
                        "43 06 .*10",
                        kFirstLarge + kSecondSmall + kSixCans,
                        kTimeout,
                        {{1, 1025}, {0, 1025}}},
        FileFailureCase{"NoReplyToEot",
                        "43 06 06 .*10",
                        kFirstLarge + kSecondSmall + "04*10 " + kSixCans,
                        kTimeout,
                        {{1, 1025}, {0, 1025}}},
        FileFailureCase{"WrongReplyToEot",
                        "43 06 06 58*10",
                        kFirstLarge + kSecondSmall + "04*10 " + kSixCans,
                        kWrongReply,
                        {{1, 1025}, {0, 1025}}},
        FileFailureCase{"CancelledAtEot",
                        "43 06 06 18 18",
                        kFirstLarge + kSecondSmall + "04 04",
                        kCancelledResult,
                        {{1, 1025}, {0, 1025}}},
        FileFailureCase{"TwelfthNakOfEot",
                        "43 06 06 15*12",
                        kFirstLarge + kSecondSmall + "04*12 " + kSixCans,
                        kTooManyNaksResult,
                        {{1, 1025}, {0, 1025}}}),
    [](const auto& test) { return test.param.name; });

TEST_F(FileSender, ReportsABrokenLineWithoutCancelling) {
  wire::Play(iPort, "43 06");
  iPort.FailWritesFrom(1100);
  EXPECT_EQ(SendFile(FileOfOnes(1025)), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iPort.Writes(), 1100);
  EXPECT_EQ(iProgress, (Progress{{1, 1025}, {0, 1025}}));
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, CancelsAFileThatHasShrunkWithoutSendingItsRest) {
  const std::string name = FileOfOnes(2500);
  wire::Play(iPort, "43 06");
  // After the file was measured and before it is read.
  iPort.onRead = [&] { std::filesystem::resize_file(name, 1500); };
  EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), Canonical(kFirstLarge + kSixCans));
  EXPECT_EQ(iProgress, (Progress{{1476, 2500}, {1000, 2500}}));
  EXPECT_EQ(iWrittenAtProgress.back(), 1029U) << "told before cancelling";
  EXPECT_EQ(iLog.Messages(), Join({Size(2500), kStarted}));
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, SendsOnlyTheMeasuredPartOfAShortFileThatHasGrown) {
  const std::string name = FileOfOnes(100);
  wire::Play(iPort, "43 06 06");
  iPort.onRead = [&] { std::filesystem::resize_file(name, 300); };
  EXPECT_EQ(SendFile(name), kOk);
  EXPECT_EQ(iProgress, (Progress{{0, 100}}));
}

TEST_F(FileSender, RunsPastTheEndOfALongFileThatHasGrownAndFails) {
  const std::string name = FileOfOnes(1500);
  wire::Play(iPort, "43 06 06");
  iPort.onRead = [&] {
    if (iPort.Reads() == 0) {
      std::ofstream(name, std::ios::binary) << std::string(2100, static_cast<char>(0xFF));
    }
  };
  EXPECT_EQ(SendFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), Canonical(kFirstLarge + kSecondLarge + kSixCans));
  EXPECT_EQ(iProgress, (Progress{{476, 1500}, {-548, 1500}, {-600, 1500}}));
  EXPECT_EQ(iOpenAfterwards, 0U);
}

TEST_F(FileSender, StartsAnewForEveryFile) {
  wire::Play(iPort, "15 06 06 43 06 06");
  const std::string name = FileOfOnes(1);
  EXPECT_EQ(SendFile(name), kOk);
  EXPECT_EQ(SendFile(name), kOk);
  EXPECT_EQ(Written(), Canonical("01 01 FE FF 00*127 FF 04 01 01 FE FF 00*127 93 C5 04"));
}

// ---- Stopping ----

class StoppedSender : public FileSender {
 protected:
  // Stops the engine in its n-th read.
  void StopAtRead(int n) {
    iPort.onRead = [this, n] {
      if (iPort.Reads() + 1 == n) {
        iEngine.Stop();
      }
    };
  }
};

TEST_F(StoppedSender, FailsAtOnceAndWritesNothing) {
  wire::Play(iPort, "43 06 06");
  iEngine.Stop();
  EXPECT_EQ(iLog.Trace(), Lines{"Interface CXModem::Stop ()"});
  const std::string name = FileOfOnes(10);
  EXPECT_EQ(iEngine.SendChr(0x18), IXModem::EXModemSerialPortError);
  TUint8 byte = 0;
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemSerialPortError);
  EXPECT_NE(SendA(), kOk);
  EXPECT_NE(SendFile(name), kOk);
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 0);
}

TEST_F(StoppedSender, WritesNothingMoreWhereverItWasWaiting) {
  struct {
    const char* receiver;
    int read;
    std::string wire;
  } const cases[] = {{"58", 1, ""},
                     {"~ 43", 1, ""},
                     {"43 58", 2, kPacket},
                     {"43 06 58", 3, kPacket + "04"},
                     {"43 15 58", 3, Times(2, kPacket)},
                     {"43 06 15 58", 4, kPacket + "04 04"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.receiver);
    WatchedPort port;
    CXModem engine(&port);
    wire::Play(port, one.receiver);
    port.onRead = [&] {
      if (port.Reads() + 1 == one.read) {
        engine.Stop();
      }
    };
    const TUint8 data = 'A';
    EXPECT_NE(engine.SendBuffer(&data, 1), kOk);
    EXPECT_EQ(wire::Text(port.Written()), Canonical(one.wire));
    EXPECT_EQ(port.Reads(), one.read) << "no wait after the stop";
  }
}

TEST_F(StoppedSender, EndsInTheMiddleOfAPacket) {
  wire::Play(iPort, "43");
  iPort.onWrite = [&](TUint8) {
    if (iPort.Writes() == 50) {
      iEngine.Stop();
    }
  };
  EXPECT_EQ(SendA(), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iPort.Writes(), 50);
  EXPECT_EQ(iLog.Messages(), kCrcMode) << "it is no failure of the line";
}

TEST_F(StoppedSender, ClosesTheFileThatWasOnItsWay) {
  wire::Play(iPort, "43 58");
  StopAtRead(2);
  EXPECT_NE(SendFile(FileOfOnes(2500)), kOk);
  EXPECT_EQ(Written(), Canonical(kFirstLarge));
  EXPECT_EQ(iOpenAfterwards, 0U);
}

}  // namespace
