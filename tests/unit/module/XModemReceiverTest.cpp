// Goal: a receiver that takes what a bootloader sends, asks and answers as it must, and gives up exactly
// where it must, with the right result, bytes and log lines.
//
// Method: the sender is a text of reads (see Wire.h) that a scripted port plays while a virtual clock stands
// still; every byte that goes out, every line, the data and the number of reads are compared with literals.

#include "EngineFixture.h"
#include "Files.h"

namespace {

using wire::Canonical;
using wire::Times;

// "A", numbered.
const std::string kBlock1 = "01 01 FE 41 00*127 53 33 ";
const std::string kBlock2 = "01 02 FD 41 00*127 53 33 ";
const std::string kBlock3 = "01 03 FC 41 00*127 53 33 ";
// The same with a wrong CRC.
const std::string kBadCrc1 = "01 01 FE 41 00*127 53 34 ";
const std::string kBadCrc2 = "01 02 FD 41 00*127 53 34 ";
// 1024 times 0xFF.
const std::string kLarge1 = "02 01 FE FF*1024 C0 84 ";
const std::string kLarge2 = "02 02 FD FF*1024 C0 84 ";
const std::string kSixCans = "18*6";

constexpr auto kOk = IXModem::EXModemOk;

const Lines kPortError = {"Always (Received serial port error!)"};
const Lines kNothingCame = {"Warning ([Timeout] arrived while processing the first byte)"};
const Lines kNoBlock = {"Error (No valid packet arrived while processing the first byte)"};
const Lines kOnlyEot = {"Error (EOT arrived while processing the first byte on the first packet)"};
const Lines kCancelled = {"Warning (Transfer cancelled while processing the first byte)"};
const Lines kBadCrc = {"Error (Invalid Checksum while receiving packet)"};
const Lines kDuplicated = {"Error (The packet received is duplicated)"};
const Lines kNotTheFirst = {"Error (The first packet did not have the right packet number)"};
const Lines kBadHeader = {"Error (The checksum of the received packet is not correct)"};
const Lines kOutOfSequence = {"Error (The packet received has a wrong sequence number)"};

Lines NotWritten(int byte) {
  return {"Error (Failed writing[" + std::to_string(byte) + "]. retVal = 2)"};
}

constexpr TUint8 kUntouched = 0xEE;

class Receiver : public EngineFixture {
 protected:
  // Receives into a buffer that is exactly as large as the engine is told, but never without any storage.
  IXModem::TXModemError Receive(TInt32 capacity = 4096) {
    iBuffer.assign(static_cast<std::size_t>(std::max(capacity, 1)), kUntouched);
    iReceived = -1;
    return iEngine.ReceiveBuffer(iBuffer.data(), capacity, &iReceived);
  }

  // The received bytes.
  std::string Data() const { return wire::Text({iBuffer.begin(), iBuffer.begin() + iReceived}); }

  wire::Bytes iBuffer;
  TInt32 iReceived = 0;
};

// ---- Against every kind of sender ----

struct TransferCase {
  const char* name;
  std::string sender;
  std::string wire;
  IXModem::TXModemError result;
  TInt32 received;
  Lines messages;
};

void PrintTo(const TransferCase& transfer, std::ostream* output) {
  *output << transfer.name;
}

std::string NameOf(const testing::TestParamInfo<TransferCase>& test) {
  return test.param.name;
}

class Transfer : public Receiver, public testing::WithParamInterface<TransferCase> {
 protected:
  // Whatever the log is told, the line is the same.
  void Run(const Lines& messages) {
    const TransferCase& one = GetParam();
    const int reads = wire::Play(iPort, one.sender);
    EXPECT_EQ(Receive(), one.result);
    EXPECT_EQ(Written(), Canonical(one.wire));
    EXPECT_EQ(iReceived, one.received);
    EXPECT_EQ(iLog.Messages(), messages);
    EXPECT_EQ(iPort.Reads(), reads);
  }
};

TEST_P(Transfer, EndsAsItMust) {
  Run(GetParam().messages);
}

TEST_P(Transfer, EndsAlikeWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  Run(WithTheLogOff(GetParam().messages));
}

constexpr auto kTimeout = IXModem::EXModemTimeout;
constexpr auto kNoValidPacket = IXModem::EXModemNoValidPacket;
constexpr auto kCancelledResult = IXModem::EXModemCancelled;
constexpr auto kSequence = IXModem::EXModemSequenceError;

INSTANTIATE_TEST_SUITE_P(
    Soliciting, Transfer,
    testing::Values(
        TransferCase{"OneBlockIsAskedForOnce", kBlock1 + "04", "43 06 06", kOk, 128, {}},
        TransferCase{
            "NineSilencesAreAnsweredByARequest", ".*9 " + kBlock1 + "04", "43*10 06 06", kOk, 128, {}},
        TransferCase{"TenthSilenceIsFatal", ".*10", "43*10 18*6", kTimeout, 0, kNothingCame},
        TransferCase{
            "NineStrayBytesAreAnsweredByARequest", "58*9 " + kBlock1 + "04", "43*10 06 06", kOk, 128, {}},
        TransferCase{"TenthStrayByteIsFatal", "58*10", "43*10 18*6", kNoValidPacket, 0, kNoBlock},
        TransferCase{"NineEotsAreAnsweredByARequest", "04*9 " + kBlock1 + "04", "43*10 06 06", kOk, 128, {}},
        TransferCase{"TenthEotIsFatal", "04*10", "43*10 18*6", kNoValidPacket, 0, kOnlyEot},
        TransferCase{"TenthFailureDecidesEot", ".*9 04", "43*10 18*6", kNoValidPacket, 0, kOnlyEot},
        TransferCase{"TenthFailureDecidesSilence", "04*9 .", "43*10 18*6", kTimeout, 0, kNothingCame},
        TransferCase{"TenthFailureDecidesStrayByte", "04*5 .*4 58", "43*10 18*6", kNoValidPacket, 0,
                     kNoBlock},
        TransferCase{"NakAckAndCAreStrayBytes", "15 06 43 " + kBlock1 + "04", "43*4 06 06", kOk, 128, {}},
        TransferCase{"TwoCansCancel", "18 18", "43 43", kCancelledResult, 0, kCancelled},
        TransferCase{"OneCanIsForgotten", "18 " + kBlock1 + "04", "43 43 06 06", kOk, 128, {}},
        TransferCase{
            "AnEotBetweenCansSavesTheTransfer", "18 04 18 " + kBlock1 + "04", "43*4 06 06", kOk, 128, {}},
        TransferCase{
            "ASilenceBetweenCansSavesTheTransfer", "18 . 18 " + kBlock1 + "04", "43*4 06 06", kOk, 128, {}},
        TransferCase{
            "AByteBetweenCansSavesTheTransfer", "18 58 18 " + kBlock1 + "04", "43*4 06 06", kOk, 128, {}},
        TransferCase{"CansAreNotCounted", Times(9, "58 18") + kBlock1 + "04", "43*19 06 06", kOk, 128, {}},
        TransferCase{"BytesBetweenCansAreCounted", Times(9, "58 18") + "58", "43*19 18*6", kNoValidPacket, 0,
                     kNoBlock},
        TransferCase{"PortErrorsAreSilences", "!*10", "43*10 18*6", kTimeout, 0,
                     Join({Repeated(10, kPortError), kNothingCame})}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Waiting, Transfer,
    testing::Values(
        TransferCase{"NineSilencesAreWaitedForWithoutARequest", kBlock1 + ".*9 04", "43 06 06", kOk, 128, {}},
        TransferCase{"TenthSilenceIsFatal", kBlock1 + ".*10", "43 06 18*6", kTimeout, 128, kNothingCame},
        TransferCase{
            "NineStrayBytesAreSkipped", kBlock1 + "58*9 " + kBlock2 + "04", "43 06 06 06", kOk, 256, {}},
        TransferCase{"TenthStrayByteIsFatal", kBlock1 + "58*10", "43 06 18*6", kNoValidPacket, 128, kNoBlock},
        TransferCase{"TenthFailureDecidesStrayByte", kBlock1 + ".*9 58", "43 06 18*6", kNoValidPacket, 128,
                     kNoBlock},
        TransferCase{"TenthFailureDecidesSilence", kBlock1 + "58*9 .", "43 06 18*6", kTimeout, 128,
                     kNothingCame},
        TransferCase{"FailuresAreCountedAnewForEveryBlock",
                     ".*9 " + kBlock1 + ".*9 " + kBlock2 + "58*9 04",
                     "43*10 06 06 06",
                     kOk,
                     256,
                     {}},
        TransferCase{"TwoCansCancel", kBlock1 + "18 18", "43 06", kCancelledResult, 128, kCancelled},
        TransferCase{"OneCanIsForgotten", kBlock1 + "18 " + kBlock2 + "18 04", "43 06 06 06", kOk, 256, {}},
        TransferCase{"ASilenceBetweenCansSavesTheTransfer", kBlock1 + "18 . 18 04", "43 06 06", kOk, 128, {}},
        TransferCase{"AByteBetweenCansSavesTheTransfer", kBlock1 + "18 58 18 04", "43 06 06", kOk, 128, {}},
        TransferCase{"CansAreNotCounted", kBlock1 + Times(9, "58 18") + "04", "43 06 06", kOk, 128, {}},
        TransferCase{"NakIsAStrayByte", kBlock1 + "15*10", "43 06 18*6", kNoValidPacket, 128, kNoBlock},
        TransferCase{"PortErrorsAreSilences", kBlock1 + "!*10", "43 06 18*6", kTimeout, 128,
                     Join({Repeated(10, kPortError), kNothingCame})}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Blocks, Transfer,
    testing::Values(
        TransferCase{"OfBothSizesMix", kBlock1 + kLarge2 + kBlock3 + "04", "43 06*4", kOk, 1280, {}},
        TransferCase{"ADuplicateIsAnsweredAndDropped", kBlock1 + kBlock1 + kBlock2 + "04", "43 06*4", kOk,
                     256, kDuplicated},
        TransferCase{"ABadCrcOfTheFirstEndsTheRequests", kBadCrc1 + ". " + kBlock1 + "04", "43 15 06 06", kOk,
                     128, kBadCrc},
        TransferCase{"ABadCrcOfTheFirstMayBeFollowedByEot", kBadCrc1 + "04", "43 15 06", kOk, 0, kBadCrc},
        TransferCase{"ABadCrcOfTheFirstStillWantsBlock1", kBadCrc1 + kBlock2, "43 15 18*6", kSequence, 0,
                     Join({kBadCrc, kNotTheFirst})},
        TransferCase{"TheFirstNumbered2IsFatal", kBlock2, "43 18*6", kSequence, 0, kNotTheFirst},
        TransferCase{"ABadComplementIsFatal", "01 01 FF 41 00*127 53 33", "43 18*6",
                     IXModem::EXModemBlockNumberError, 0, kBadHeader},
        TransferCase{"ABadComplementIsFatalLater", kBlock1 + "01 02 02 41 00*127 53 33", "43 06 18*6",
                     IXModem::EXModemBlockNumberError, 128, kBadHeader},
        TransferCase{"ASkippedNumberIsFatal", kBlock1 + kBlock3, "43 06 18*6", kSequence, 128,
                     kOutOfSequence},
        TransferCase{"NineBadCrcsAreNaked", Times(9, kBadCrc1) + kBlock1 + "04", "43 15*9 06 06", kOk, 128,
                     Repeated(9, kBadCrc)},
        TransferCase{"TenthBadCrcIsFatal", Times(10, kBadCrc1), "43 15*10 18*6", IXModem::EXModemCrcError, 0,
                     Repeated(10, kBadCrc)},
        TransferCase{"NineDuplicatesAreAnswered", Times(10, kBlock1) + kBlock2 + "04", "43 06*12", kOk, 256,
                     Repeated(9, kDuplicated)},
        TransferCase{"TenthDuplicateIsFatal", Times(11, kBlock1), "43 06*11 18*6",
                     IXModem::EXModemDuplicatePacket, 128, Repeated(10, kDuplicated)},
        TransferCase{"AGoodBlockForgetsTheBadOnes",
                     Times(9, kBadCrc1) + kBlock1 + Times(9, kBadCrc2) + kBlock2 + "04",
                     "43 15*9 06 15*9 06 06", kOk, 256, Repeated(18, kBadCrc)},
        TransferCase{"TenthBadBlockDecidesDuplicate", kBlock1 + Times(9, kBadCrc2) + kBlock1,
                     "43 06 15*9 06 18*6", IXModem::EXModemDuplicatePacket, 128,
                     Join({Repeated(9, kBadCrc), kDuplicated})},
        TransferCase{"TenthBadBlockDecidesCrc", Times(10, kBlock1) + kBadCrc2, "43 06*10 15 18*6",
                     IXModem::EXModemCrcError, 128, Join({Repeated(9, kDuplicated), kBadCrc})},
        TransferCase{
            "ASilenceInsideABlockIsNotAnswered", "01 01 FE 41 . " + kBlock1 + "04", "43 06 06", kOk, 128, {}},
        TransferCase{
            "TenthSilenceInsideABlockIsFatal", Times(10, "01 01 FE 41 ."), "43 18*6", kTimeout, 0, {}},
        TransferCase{"NineSilencesInsideBlocksAreWaitedFor",
                     Times(9, "01 01 FE 41 .") + kBlock1 + "04",
                     "43 06 06",
                     kOk,
                     128,
                     {}},
        TransferCase{"TenthPortErrorInsideABlockEndsWithoutCan", Times(10, "01 01 FE 41 !"), "43",
                     IXModem::EXModemSerialPortError, 0, Repeated(10, kPortError)},
        TransferCase{"TheRestOfABlockGivenUpIsStrayBytes",
                     "01 01 FE 41 . 41*9 " + kBlock1 + "04",
                     "43 06 06",
                     kOk,
                     128,
                     {}},
        TransferCase{"TooMuchRestOfABlockGivenUpIsFatal", "01 01 FE 41 . 41*10", "43 18*6", kNoValidPacket, 0,
                     kNoBlock},
        TransferCase{"AChecksumSenderLosesTheByteBehind", "01 01 FE 41 00*127 41 04 04", "43 15 06", kOk, 0,
                     kBadCrc}),
    NameOf);

// ---- Failing writes ----

TEST_F(Receiver, ARequestThatCannotBeWrittenIsAFailureWithoutAWait) {
  iPort.FailWritesFrom(1);
  EXPECT_EQ(Receive(), kTimeout);
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 10 + 1) << "ten times C, one CAN";
  EXPECT_EQ(iLog.Messages(), Join({Repeated(10, NotWritten(67)), kNothingCame, NotWritten(24)}));
}

TEST_F(Receiver, ALineThatRecoversTakesTheNextRequest) {
  iPort.FailWritesFrom(1, 9);
  wire::Play(iPort, kBlock1 + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Written(), "43 06 06");
}

TEST_F(Receiver, ARequestThatCannotBeWrittenBetweenCansSavesTheTransfer) {
  iPort.FailWritesFrom(2, 1);
  wire::Play(iPort, "18 18 " + kBlock1 + "04");
  EXPECT_EQ(Receive(), kOk);
}

TEST_F(Receiver, TheAckOfEotThatCannotBeWrittenIsTheResult) {
  wire::Play(iPort, kBlock1 + "04");
  iPort.FailWritesFrom(3);
  EXPECT_EQ(Receive(), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iPort.Writes(), 3) << "no CAN";
  EXPECT_EQ(iReceived, 128);
}

TEST_F(Receiver, ALastBlockWhoseAckCannotBeWrittenIsLost) {
  wire::Play(iPort, kBlock1 + kBlock2 + kBlock2 + "04");
  iPort.FailWritesFrom(3, 1);
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Written(), "43 06 06 06");
  EXPECT_EQ(iReceived, 128);
  EXPECT_EQ(iLog.Messages(), Join({NotWritten(6), kDuplicated}));
}

TEST_F(Receiver, AFirstBlockWhoseAckCannotBeWrittenStaysTheFirst) {
  wire::Play(iPort, kBlock1 + kBlock1 + kBlock2);
  iPort.FailWritesFrom(2, 1);
  EXPECT_EQ(Receive(), kSequence);
  EXPECT_EQ(Written(), "43 06 18*6");
  EXPECT_EQ(iReceived, 0);
}

TEST_F(Receiver, CancellingEndsAtTheFirstCanThatCannotBeWritten) {
  wire::Play(iPort, kBlock2);
  iPort.FailWritesFrom(4, 1);
  EXPECT_EQ(Receive(), kSequence);
  EXPECT_EQ(Written(), "43 18 18");
}

// ---- Time ----

TEST_F(Receiver, ASenderMayTakeFiveSecondsToBegin) {
  iPort.Late(5000, 0x01);
  wire::Play(iPort, kBlock1.substr(3) + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Written(), "43 06 06");
}

TEST_F(Receiver, AFirstByteOneMillisecondTooLateIsAFailure) {
  for (int i = 0; i < 10; ++i) {
    iPort.Late(5001, 0x01);
  }
  EXPECT_EQ(Receive(), kTimeout);
  EXPECT_EQ(Written(), "43*10 18*6");
}

TEST_F(Receiver, AnEotAndCansThatComeTooLateNeitherEndNorCancel) {
  iPort.Late(5001, 0x18).Late(5001, 0x18);
  wire::Play(iPort, kBlock1);
  iPort.Late(5001, 0x04).Late(5001, 0x18).Late(5001, 0x18);
  wire::Play(iPort, kBlock2 + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(iReceived, 256);
  EXPECT_EQ(Written(), "43 43 43 06 06 06");
}

TEST_F(Receiver, ASilentSenderIsAskedTenTimesInAllOfFiftySeconds) {
  std::vector<std::uint64_t> writes_ms;
  iPort.onWrite = [&](TUint8) { writes_ms.push_back(virtual_clock::Now_ms() / 1000); };
  EXPECT_EQ(Receive(), kTimeout);
  // Reads take a second each, so that every wait is noticed to be over after 6 of them.
  EXPECT_EQ(writes_ms,
            (std::vector<std::uint64_t>{0, 6, 12, 18, 24, 30, 36, 42, 48, 54, 60, 60, 60, 60, 60, 60}));
}

// ---- The caller's buffer ----

TEST_F(Receiver, HandsOverThePaddedText) {
  wire::Play(iPort, "01 01 FE 30 30 30 00*125 F5 63 04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Data(), Canonical("30 30 30 00*125"));
}

TEST_F(Receiver, PutsBlocksBehindEachOther) {
  wire::Play(iPort, kBlock1 + kLarge2 + kBlock3 + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Data(), Canonical("41 00*127 FF*1024 41 00*127"));
  EXPECT_EQ(iBuffer[1280], kUntouched);
}

struct CapacityCase {
  const char* name;
  TInt32 capacity;
  std::string data;
};

void PrintTo(const CapacityCase& capacity, std::ostream* output) {
  *output << capacity.name;
}

class Capacity : public Receiver, public testing::WithParamInterface<CapacityCase> {};

TEST_P(Capacity, CutsTheDataAndNotTheTransfer) {
  wire::Play(iPort, kBlock1 + kLarge2 + kBlock3 + "04");
  EXPECT_EQ(Receive(GetParam().capacity), kOk);
  EXPECT_EQ(Written(), "43 06*4");
  EXPECT_EQ(iReceived, std::max(GetParam().capacity, 0));
  EXPECT_EQ(Data(), Canonical(GetParam().data));
  EXPECT_EQ(iLog.Messages(), Lines());
}

INSTANTIATE_TEST_SUITE_P(Receiver, Capacity,
                         testing::Values(CapacityCase{"Of0", 0, ""}, CapacityCase{"BelowZero", -5, ""},
                                         CapacityCase{"Of1", 1, "41"},
                                         CapacityCase{"Of128", 128, "41 00*127"},
                                         CapacityCase{"With100Left", 228, "41 00*127 FF*100"},
                                         CapacityCase{"FullByTheSecondBlock", 1152, "41 00*127 FF*1024"},
                                         CapacityCase{"OneShort", 1279, "41 00*127 FF*1024 41 00*126"},
                                         CapacityCase{"ExactlyEnough", 1280, "41 00*127 FF*1024 41 00*127"}),
                         [](const auto& test) { return test.param.name; });

TEST_F(Receiver, StoresNothingBehindTheCapacity) {
  wire::Play(iPort, kLarge1 + "04");
  wire::Bytes buffer(200, kUntouched);
  TInt32 received = 0;
  EXPECT_EQ(iEngine.ReceiveBuffer(buffer.data(), 100, &received), kOk);
  EXPECT_EQ(received, 100);
  EXPECT_EQ(wire::Text(buffer), "FF*100 EE*100");
}

TEST_F(Receiver, NumbersRunFrom1To255AndOnFrom0) {
  for (int block = 1; block <= 260; ++block) {
    const auto number = static_cast<TUint8>(block);
    iPort.Bytes({0x01, number, static_cast<TUint8>(~number)}).Repeat(0, 130);
  }
  iPort.Bytes({0x04});
  EXPECT_EQ(Receive(260 * 128), kOk);
  EXPECT_EQ(iReceived, 260 * 128);
  EXPECT_EQ(Written(), "43 06*261");
}

TEST_F(Receiver, EveryTransferStartsAnewAtBlock1) {
  wire::Play(iPort, kBlock1 + kBlock2 + "04 " + kBlock1 + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(iReceived, 128);
  EXPECT_EQ(Written(), "43 06 06 06 43 06 06");
}

TEST_F(Receiver, ASendInBetweenCarriesNothingOver) {
  wire::Play(iPort, "15 06 06 " + kBlock1 + "04");
  const TUint8 data = 'A';
  EXPECT_EQ(iEngine.SendBuffer(&data, 1), kOk);
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(Written(), Canonical("01 01 FE 41 00*127 41 04 43 06 06"));
  iEngine.SendPacket(&data, 1);
  EXPECT_EQ(Written(), Canonical("01 01 FE 41 00*127 41 04 43 06 06 01 01 FE 41 00*127 53 33"))
      << "CRC mode again";
}

TEST_F(Receiver, LeavesThisTrace) {
  wire::Play(iPort, kBlock1 + "04");
  EXPECT_EQ(Receive(), kOk);
  EXPECT_EQ(iLog.Trace(),
            (Lines{"Interface CXModem::ReceiveBuffer ()", "Interface CXModem::ProcessFirstByte ()",
                   "Interface CXModem::ReceivePacket ()", "Interface CXModem::ProcessFirstByte ()"}));
}

// ---- Into a file ----

class FileReceiver : public Receiver {
 protected:
  IXModem::TXModemError ReceiveFile(const std::string& name) { return iEngine.ReceiveFile(AsTChr(name)); }

  TemporaryFolder iFolder;
};

TEST_F(FileReceiver, StoresWholeBlocks) {
  const std::string name = iFolder.Path("received.bin");
  wire::Play(iPort, kBlock1 + kLarge2 + "04");
  EXPECT_EQ(ReceiveFile(name), kOk);
  EXPECT_EQ(ContentOf(name), std::string(1, 'A') + std::string(127, '\0') + std::string(1024, '\xFF'));
  EXPECT_EQ(Written(), "43 06 06 06");
  EXPECT_EQ(iLog.Trace(),
            (Lines{"Interface CXModem::ReceiveFile ()", "Interface CXModem::ProcessFirstByte ()",
                   "Interface CXModem::ReceivePacket ()", "Interface CXModem::ProcessFirstByte ()",
                   "Interface CXModem::ReceivePacket ()", "Interface CXModem::ProcessFirstByte ()"}));
  EXPECT_EQ(OpenDescriptorsOf(name), 0U);
}

TEST_F(FileReceiver, TakesThePlaceOfAnOldFile) {
  const std::string name = iFolder.Write("received.bin", std::string(5000, 'x'));
  wire::Play(iPort, kBlock1 + "04");
  EXPECT_EQ(ReceiveFile(name), kOk);
  EXPECT_EQ(ContentOf(name).size(), 128U);
}

TEST_F(FileReceiver, EveryFileStartsAnewAtBlock1) {
  wire::Play(iPort, kBlock1 + "04 " + kBlock1 + "04");
  EXPECT_EQ(ReceiveFile(iFolder.Path("first")), kOk);
  EXPECT_EQ(ReceiveFile(iFolder.Path("second")), kOk);
  EXPECT_EQ(ContentOf(iFolder.Path("second")).size(), 128U);
  EXPECT_EQ(Written(), "43 06 06 43 06 06");
}

TEST_F(FileReceiver, StoresWhatCameBeforeAFailure) {
  const std::string name = iFolder.Path("received.bin");
  wire::Play(iPort, kBlock1 + kBlock1 + kBadCrc2 + ".*10");
  EXPECT_EQ(ReceiveFile(name), kTimeout);
  EXPECT_EQ(ContentOf(name).size(), 128U);
  EXPECT_EQ(Written(), "43 06 06 15 18*6");
  EXPECT_EQ(iLog.Messages(), Join({kDuplicated, kBadCrc, kNothingCame}));
}

TEST_F(FileReceiver, KeepsTheRulesOfFirstBlocksAndOfTenFailures) {
  const std::string name = iFolder.Path("received.bin");
  wire::Play(iPort, Times(9, kBadCrc1) + kBlock1 + Times(9, kBadCrc2) + kBlock2 + "04");
  EXPECT_EQ(ReceiveFile(name), kOk);
  wire::Play(iPort, kBlock2);
  EXPECT_EQ(ReceiveFile(name), kSequence);
  EXPECT_EQ(Written(), "43 15*9 06 15*9 06 06 43 18*6");
}

TEST_F(FileReceiver, CancelsWhenTheFileCannotBeMade) {
  const std::string name = iFolder.Path("missing/received.bin");
  wire::Play(iPort, kBlock1);
  EXPECT_EQ(ReceiveFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), kSixCans);
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iLog.Trace(),
            (Lines{"Interface CXModem::ReceiveFile ()",
                   "Error CXModem::ReceiveFile (The file " + name + " could not be open for writting)"}));
}

TEST_F(FileReceiver, CancelsWhenTheFileIsFullAndOnlyAfterClosingIt) {
  // It takes what fits into the stream's buffer of 4096 bytes.
  const std::string name = "/dev/full";
  for (int block = 1; block <= 5; ++block) {
    iPort.Bytes({0x02, block, 255 - block}).Repeat(0xFF, 1024).Bytes({0xC0, 0x84});
  }
  std::vector<std::size_t> openAtWrites;
  iPort.onWrite = [&](TUint8) { openAtWrites.push_back(OpenDescriptorsOf(name)); };
  EXPECT_EQ(ReceiveFile(name), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), "43 06*5 18*6") << "the block was answered before it was stored";
  EXPECT_EQ(openAtWrites, (std::vector<std::size_t>{1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(iLog.Messages(),
            Lines{"Error (The data received could not be stored in the specified file : /dev/full)"});
}

// Each block is answered before it is stored. What was stored before stays.
TEST_F(FileReceiver, EndsAtWhicheverBlockCannotBeStored) {
  const std::string blocks[] = {kBlock1, kLarge2, kBlock3};
  const std::string contents[] = {"", "41 00*127", "41 00*127 FF*1024"};
  const std::string name = iFolder.Path("received.bin");
  std::string written;
  for (int n = 1; n <= 3; ++n) {
    SCOPED_TRACE(n);
    iLog.Clear();
    for (int block = 0; block < n; ++block) {
      wire::Play(iPort, blocks[block]);
    }
    injected_failures::FailFwrite(n);
    EXPECT_EQ(ReceiveFile(name), IXModem::EXModemFileError);
    written += (written.empty() ? "43 06*" : " 43 06*") + std::to_string(n) + " 18*6";
    EXPECT_EQ(Written(), Canonical(written));
    const std::string content = ContentOf(name);
    EXPECT_EQ(wire::Text({content.begin(), content.end()}), Canonical(contents[n - 1]));
    EXPECT_EQ(OpenDescriptorsOf(name), 0U);
    EXPECT_EQ(iLog.Messages(),
              Lines{"Error (The data received could not be stored in the specified file : " + name + ")"});
  }
  wire::Play(iPort, kBlock1 + kLarge2 + kBlock3 + "04");
  injected_failures::FailFwrite(4);
  EXPECT_EQ(ReceiveFile(name), kOk) << "three blocks, three calls";
  EXPECT_EQ(ContentOf(name).size(), 128U + 1024U + 128U);
}

TEST_F(FileReceiver, FailsAlikeWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  EXPECT_EQ(ReceiveFile(iFolder.Path("missing/received.bin")), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), kSixCans);
  // A block as large as the stream's buffer would be stored at once; the last of five meets the full device.
  for (int block = 1; block <= 5; ++block) {
    iPort.Bytes({0x02, block, 255 - block}).Repeat(0xFF, 1024).Bytes({0xC0, 0x84});
  }
  EXPECT_EQ(ReceiveFile("/dev/full"), IXModem::EXModemFileError);
  EXPECT_EQ(Written(), "18*6 43 06*5 18*6");
  EXPECT_EQ(iLog.Messages(), Lines());
}

TEST_F(FileReceiver, DoesNotCancelWhenTheOtherSideDidOrTheLineIsBroken) {
  const std::string name = iFolder.Path("received.bin");
  wire::Play(iPort, kBlock1 + "18 18");
  EXPECT_EQ(ReceiveFile(name), kCancelledResult);
  EXPECT_EQ(Written(), "43 06");
  wire::Play(iPort, kBlock1 + "04");
  iPort.FailWritesFrom(5);
  EXPECT_EQ(ReceiveFile(name), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iPort.Writes(), 5);
}

// ---- Stopping ----

TEST_F(FileReceiver, FailsAtOnceWhenStoppedBefore) {
  wire::Play(iPort, kBlock1 + "04");
  iEngine.Stop();
  EXPECT_NE(Receive(), kOk);
  EXPECT_NE(ReceiveFile(iFolder.Path("received.bin")), kOk);
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 0);
}

TEST_F(FileReceiver, WritesNothingMoreWhereverItWasStopped) {
  struct {
    const char* where;
    int read;
    const char* wire;
  } const cases[] = {{"the first byte", 1, "43"},
                     {"the number", 2, "43"},
                     {"the data", 50, "43"},
                     {"the last byte of the CRC", 133, "43"},
                     {"the byte behind a block", 134, "43 06"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.where);
    WatchedPort port;
    CXModem engine(&port);
    wire::Play(port, kBlock1 + "04");
    port.onRead = [&] {
      if (port.Reads() + 1 == one.read) {
        engine.Stop();
      }
    };
    TUint8 buffer[128];
    TInt32 received = 0;
    EXPECT_NE(engine.ReceiveBuffer(buffer, sizeof buffer, &received), kOk);
    EXPECT_EQ(wire::Text(port.Written()), one.wire);
    EXPECT_EQ(port.Reads(), one.read);
  }
}

}  // namespace
