// Goal: the engine's bytes and packets are the ones that a bootloader expects, and its waits end when they
// should.
//
// Method: the engine's primitives are called one at a time over a scripted port and a clock that stands
// still. CRCs are literals that were computed by something else.

#include <memory>
#include <numeric>
#include <type_traits>

#include "EngineFixture.h"

namespace {

using wire::Canonical;

class Framing : public EngineFixture {};

TUint16 Crc(const std::vector<TUint8>& bytes) {
  TUint16 crc = 0;
  for (const TUint8 byte : bytes) {
    crc = CXModem::CalculateCrcByte(byte, crc);
  }
  return crc;
}

std::vector<TUint8> Counting(std::size_t size) {
  std::vector<TUint8> bytes(size);
  std::iota(bytes.begin(), bytes.end(), TUint8{0});
  return bytes;
}

// ---- The engine as an object ----

TEST_F(Framing, ANewEngineCountsPacketsFromZeroInCrcMode) {
  EXPECT_EQ(iEngine.SendPacket(nullptr, 0), IXModem::EXModemOk);
  EXPECT_EQ(Written(), Canonical("01 00 FF 00*128 00 00"));
}

TEST_F(Framing, ConstructionAndDestructionTraceAndLeaveThePortAlone) {
  {
    const CXModem engine(&iPort);
    EXPECT_EQ(iLog.Trace(), Lines{"Interface CXModem::CXModem ()"});
  }
  EXPECT_EQ(iLog.Trace(), (Lines{"Interface CXModem::CXModem ()", "Interface CXModem::~CXModem ()"}));
  EXPECT_EQ(iPort.Reads(), 0);
  EXPECT_EQ(iPort.Writes(), 0);
}

TEST_F(Framing, CreateMakesAnEngineThatIsDeletedThroughTheInterface) {
  const std::unique_ptr<IXModem> engine(IXModem::Create(&iPort));
  EXPECT_NE(dynamic_cast<CXModem*>(engine.get()), nullptr);
  EXPECT_EQ(iLog.Trace(), (Lines{"Interface IXModem::Create ()", "Interface CXModem::CXModem ()"}));
}

TEST_F(Framing, AnEnginesStorageGoesBackToTheCAllocator) {
  const int live = injected_failures::LiveStorage();
  const IXModem* engine = IXModem::Create(&iPort);
  EXPECT_EQ(injected_failures::LiveStorage(), live + 1);
  delete engine;
  EXPECT_EQ(injected_failures::LiveStorage(), live);
}

TEST_F(Framing, CreateTakesTheEnginesStorageFromMallocAndAnswersNullWithoutIt) {
  injected_failures::FailMalloc(1);
  EXPECT_EQ(IXModem::Create(&iPort), nullptr);
}

TEST_F(Framing, ResultsAreKnownByTheirNumbers) {
  EXPECT_EQ(IXModem::EXModemOk, 0);
  EXPECT_EQ(IXModem::EXModemFileError, 1);
  EXPECT_EQ(IXModem::EXModemSerialPortError, 2);
  EXPECT_EQ(IXModem::EXModemTimeout, 3);
  EXPECT_EQ(IXModem::EXModemCancelled, 4);
  EXPECT_EQ(IXModem::EXModemNoValidPacket, 5);
  EXPECT_EQ(IXModem::EXModemCrcError, 6);
  EXPECT_EQ(IXModem::EXModemBlockNumberError, 7);
  EXPECT_EQ(IXModem::EXModemSequenceError, 8);
  EXPECT_EQ(IXModem::EXModemDuplicatePacket, 10);
  EXPECT_EQ(IXModem::EXModemNakReceived, 11);
  EXPECT_EQ(IXModem::EXModemWrongReply, 13);
  EXPECT_EQ(IXModem::EXModemTooManyNaks, 15);
  EXPECT_EQ(IXModem::EXModemFileHandlerReserved6, 16);
  EXPECT_EQ(IXModem::EXModemUnknownFileHandlerError, 17);
  static_assert(sizeof(std::underlying_type_t<IXModem::TXModemError>) == 4);
  static_assert(sizeof(std::underlying_type_t<IFileHandler::TFileHndlError>) == 4);
}

// ---- CRC ----

TEST_F(Framing, TheCrcOfTheNineDigitsIsTheStandardCheckValue) {
  EXPECT_EQ(Crc({'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0x31C3);
}

TEST_F(Framing, CrcsOfWholeBlocksAreThoseComputedElsewhere) {
  EXPECT_EQ(Crc(std::vector<TUint8>(128, 0x00)), 0x0000);
  EXPECT_EQ(Crc(std::vector<TUint8>(128, 0xFF)), 0xEDA9);
  EXPECT_EQ(Crc(Counting(128)), 0xE80A);
  EXPECT_EQ(Crc(std::vector<TUint8>(1024, 0xFF)), 0xC084);
  EXPECT_EQ(Crc(Counting(1024)), 0xC2E0);
  EXPECT_EQ(iLog.Lines().size(), 0U) << "the CRC of a byte is not worth a line";
}

// ---- One byte out ----

// Answers to a write what it was told to.
class AnsweringPort : public ISerialPort {
 public:
  AnsweringPort(TInt32 result, TUint32 count) : iResult(result), iCount(count) {}

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override {
    ++calls;
    asked = count;
    byte = *buffer;
    preset = *written;
    *written = iCount;
    return iResult;
  }
  TInt32 Read(TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*received*/) override { return 0; }

  int calls = 0;
  TUint32 asked = 0;
  TUint32 preset = 99;
  TUint8 byte = 0;

 private:
  TInt32 iResult;
  TUint32 iCount;
};

TEST_F(Framing, AByteIsWrittenByOneCallWithTheCounterAtZero) {
  AnsweringPort port(0, 1);
  CXModem engine(&port);
  iLog.Clear();
  EXPECT_EQ(engine.SendChr(0x43), IXModem::EXModemOk);
  EXPECT_EQ(port.calls, 1);
  EXPECT_EQ(port.asked, 1U);
  EXPECT_EQ(port.preset, 0U);
  EXPECT_EQ(port.byte, 0x43);
  EXPECT_EQ(iLog.Lines().size(), 0U);
}

TEST_F(Framing, AByteCountsAsWrittenOnlyWithResult0AndCount1) {
  struct {
    TInt32 result;
    TUint32 count;
  } const failures[] = {{0, 0}, {0, 2}, {1, 1}, {-1, 1}, {-1, 0}, {7, 0}};
  for (const auto& failure : failures) {
    SCOPED_TRACE(testing::Message() << failure.result << ", " << failure.count);
    AnsweringPort port(failure.result, failure.count);
    CXModem engine(&port);
    iLog.Clear();
    EXPECT_EQ(engine.SendChr(0x43), IXModem::EXModemSerialPortError);
    EXPECT_EQ(port.calls, 1) << "no retry";
    EXPECT_EQ(iLog.Trace(), Lines{"Error CXModem::SendChr (Failed writing[67]. retVal = 2)"});
  }
}

TEST_F(Framing, AByteThatCouldNotBeWrittenIsNamedByItsNumber) {
  iPort.FailWritesFrom(1);
  for (const int byte : {24, 10, 0, 200}) {
    iLog.Clear();
    iEngine.SendChr(static_cast<TUint8>(byte));
    EXPECT_EQ(iLog.Messages(), Lines{"Error (Failed writing[" + std::to_string(byte) + "]. retVal = 2)"});
  }
}

// ---- One byte in ----

TEST_F(Framing, AByteThatIsThereIsReadAtOnceAndTheProcessorGivenAwayOnce) {
  iPort.Bytes({0x58});
  TUint8 byte = 0;
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemOk);
  EXPECT_EQ(byte, 0x58);
  EXPECT_EQ(iPort.Reads(), 1);
  EXPECT_EQ(virtual_clock::Yields(), 1U);
  EXPECT_EQ(virtual_clock::Sleeps_us(), std::vector<int>());
  EXPECT_EQ(iLog.Lines().size(), 0U);
}

TEST_F(Framing, AByteAtTheLimitIsInTimeAndOneMillisecondLaterIsTooLate) {
  struct {
    TUint32 limit_ms;
    std::uint64_t after_ms;
    IXModem::TXModemError result;
  } const cases[] = {{5000, 5000, IXModem::EXModemOk},
                     {5000, 5001, IXModem::EXModemTimeout},
                     {20000, 20000, IXModem::EXModemOk},
                     {20000, 20001, IXModem::EXModemTimeout},
                     {0, 0, IXModem::EXModemOk},
                     {0, 1, IXModem::EXModemTimeout},
                     {5000, 0x100000000, IXModem::EXModemTimeout}};
  for (const auto& one : cases) {
    SCOPED_TRACE(testing::Message() << one.after_ms << " of " << one.limit_ms);
    iPort.Late(one.after_ms, 0x58);
    TUint8 byte = 0;
    EXPECT_EQ(iEngine.ReceiveUntil(one.limit_ms, &byte), one.result);
    EXPECT_TRUE(iPort.IsPlayed()) << "a byte that is too late is lost";
  }
  EXPECT_EQ(iLog.Lines().size(), 0U) << "a timeout says nothing by itself";
}

TEST_F(Framing, TheWaitGoesOnReadByReadUntilTheLimitIsPassed) {
  iPort.Silence(2000).Silence(3000).Silence(1).Bytes({0x58});
  TUint8 byte = 0;
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemTimeout);
  EXPECT_EQ(iPort.Reads(), 3);
  EXPECT_EQ(virtual_clock::Yields(), 2U) << "not in the round that ends the wait";
}

TEST_F(Framing, TheWaitIsMeasuredFromItsOwnStartAndBeyond32Bits) {
  virtual_clock::Advance_ms(0xFFFFFFF0);
  iPort.Silence(0x20).Bytes({0x58}).Silence(0x20).Late(4969, 0x59);
  TUint8 byte = 0;
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemOk);
  EXPECT_EQ(byte, 0x58);
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemTimeout);
}

TEST_F(Framing, APortErrorEndsTheWaitBeforeAnythingElse) {
  iPort.Silence(1).ReadError();
  TUint8 byte = 0;
  EXPECT_EQ(iEngine.ReceiveUntil(5000, &byte), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iLog.Trace(), Lines{"Always CXModem::ReceiveUntil (Received serial port error!)"});
  EXPECT_EQ(virtual_clock::Yields(), 1U) << "one for the silent round, none for the error";
}

// Reads fail, although a byte is said to have come.
class ContradictingPort : public ISerialPort {
 public:
  TInt32 Write(const TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*written*/) override { return -1; }
  TInt32 Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) override {
    virtual_clock::Advance_ms(60000);
    *buffer = 0x58;
    *received = 1;
    return -1;
  }
};

TEST_F(Framing, APortErrorBeatsAByteAndATimeout) {
  ContradictingPort port;
  CXModem engine(&port);
  TUint8 byte = 0;
  EXPECT_EQ(engine.ReceiveUntil(5000, &byte), IXModem::EXModemSerialPortError);
}

// Nothing to say for the first rounds: it does not even touch the counter.
class LazyPort : public ISerialPort {
 public:
  TInt32 Write(const TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*written*/) override { return -1; }
  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override {
    asked = count;
    if (++iReads == 3) {
      *buffer = 0x58;
      *received = 1;
    }
    return 0;
  }
  TUint32 asked = 0;

 private:
  int iReads = 0;
};

TEST_F(Framing, APortThatHasNothingMayLeaveTheCounterAlone) {
  LazyPort port;
  CXModem engine(&port);
  TUint8 byte = 0;
  EXPECT_EQ(engine.ReceiveUntil(5000, &byte), IXModem::EXModemOk);
  EXPECT_EQ(port.asked, 1U);
  EXPECT_EQ(virtual_clock::Yields(), 3U);
}

// ---- A packet out ----

struct PacketCase {
  const char* name;
  TUint8 byte;
  std::size_t length;
  const char* inCrcMode;
};

void PrintTo(const PacketCase& packet, std::ostream* output) {
  *output << packet.name;
}

class PacketOut : public EngineFixture, public testing::WithParamInterface<PacketCase> {};

TEST_P(PacketOut, IsHeaderDataAndPaddingAndCrc) {
  // Exactly as long as the engine is told, so that a look beyond it is noticed.
  const std::vector<TUint8> data(GetParam().length, GetParam().byte);
  EXPECT_EQ(iEngine.SendPacket(data.data(), static_cast<TUint32>(data.size())), IXModem::EXModemOk);
  EXPECT_EQ(Written(), Canonical(GetParam().inCrcMode));
  EXPECT_EQ(iPort.Writes(), static_cast<int>(iPort.Written().size())) << "one call for each byte";
  EXPECT_EQ(iLog.Trace(), Lines{"Interface CXModem::SendPacket ()"});
}

INSTANTIATE_TEST_SUITE_P(
    Framing, PacketOut,
    testing::Values(PacketCase{"OfNothing", 0xFF, 0, "01 00 FF 00*128 00 00"},
                    PacketCase{"OfOneByte", 0xFF, 1, "01 00 FF FF*1 00*127 93 C5"},
                    PacketCase{"Of127Bytes", 0xFF, 127, "01 00 FF FF*127 00 F3 59"},
                    PacketCase{"Of128Bytes", 0xFF, 128, "01 00 FF FF*128 ED A9"},
                    PacketCase{"Of129Bytes", 0xAA, 129, "02 00 FF AA*129 00*895 13 70"},
                    PacketCase{"Of1000Bytes", 0xFF, 1000, "02 00 FF FF*1000 00*24 03 E8"},
                    PacketCase{"Of1024Bytes", 0xFF, 1024, "02 00 FF FF*1024 C0 84"},
                    PacketCase{"Of1025BytesOnlyTheFirst1024", 0xFF, 1025, "02 00 FF FF*1024 C0 84"},
                    PacketCase{"Of5000BytesOnlyTheFirst1024", 0xFF, 5000, "02 00 FF FF*1024 C0 84"}),
    [](const auto& test) { return test.param.name; });

TEST_F(Framing, APacketThatCannotBeWrittenEndsAtTheFailedByte) {
  struct {
    int write;
    const char* wire;
    int byte;
  } const cases[] = {
      {1, "", 1},
      {2, "01", 0},
      {3, "01 00", 255},
      {4, "01 00 FF", 65},
      {5, "01 00 FF 41", 0},
      {131, "01 00 FF 41 00*126", 0},
      {132, "01 00 FF 41 00*127", 0x53},
      {133, "01 00 FF 41 00*127 53", 0x33},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.write);
    WatchedPort port;
    port.FailWritesFrom(one.write);
    CXModem engine(&port);
    iLog.Clear();
    const TUint8 data = 'A';
    EXPECT_EQ(engine.SendPacket(&data, 1), IXModem::EXModemSerialPortError);
    EXPECT_EQ(wire::Text(port.Written()), Canonical(one.wire));
    EXPECT_EQ(port.Writes(), one.write);
    EXPECT_EQ(iLog.Messages(), Lines{"Error (Failed writing[" + std::to_string(one.byte) + "]. retVal = 2)"});
  }
}

TEST_F(Framing, AWriteThatTakesNothingIsAFailedWriteToo) {
  iPort.FailWritesFrom(4);
  iPort.FailWritesQuietly();
  const TUint8 data = 'A';
  EXPECT_EQ(iEngine.SendPacket(&data, 1), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iPort.Writes(), 4);
}

// ---- A packet in ----

class PacketIn : public EngineFixture {
 protected:
  IXModem::TXModemError Receive(TInt32 firstPacket, const std::string& bytes) {
    iReads = wire::Play(iPort, bytes);
    return iEngine.ReceivePacket(firstPacket, iBlock.data(), static_cast<TUint32>(iBlock.size()));
  }

  // Lets the engine have taken the packets from 1 to `last`, which carry zeros.
  void ReceiveUpTo(int last) {
    for (int number = 1; number <= last; ++number) {
      wire::Bytes packet(132, 0);
      packet[0] = static_cast<TUint8>(number);
      packet[1] = static_cast<TUint8>(~number);
      iPort.Bytes(packet);
      iEngine.ReceivePacket(0, iBlock.data(), 128);
    }
    iAnswers = iPort.Written().size();
    iReadsBefore = iPort.Reads();
    iLog.Clear();
  }

  // What was answered since ReceiveUpTo.
  std::string Answer() const {
    const auto& written = iPort.Written();
    return wire::Text({written.begin() + static_cast<std::ptrdiff_t>(iAnswers), written.end()});
  }

  std::vector<TUint8> iBlock = std::vector<TUint8>(128);
  int iReads = 0;
  int iReadsBefore = 0;
  std::size_t iAnswers = 0;
};

struct ReceivedCase {
  const char* name;
  int previous;
  TInt32 firstPacket;
  const char* bytes;
  IXModem::TXModemError result;
  const char* answer;
  Lines messages;
};

void PrintTo(const ReceivedCase& received, std::ostream* output) {
  *output << received.name;
}

class ReceivedPacket : public PacketIn, public testing::WithParamInterface<ReceivedCase> {};

TEST_P(ReceivedPacket, IsJudgedAndAnswered) {
  const ReceivedCase& one = GetParam();
  ReceiveUpTo(one.previous);
  EXPECT_EQ(Receive(one.firstPacket, one.bytes), one.result);
  EXPECT_EQ(Answer(), one.answer);
  EXPECT_EQ(iLog.Messages(), one.messages);
  EXPECT_EQ(iPort.Reads() - iReadsBefore, 132) << "judged only when it has been read as a whole";
  EXPECT_EQ(iLog.Trace().front(), "Interface CXModem::ReceivePacket ()");
}

const Lines kNotTheFirst = {"Error (The first packet did not have the right packet number)"};
const Lines kBadHeader = {"Error (The checksum of the received packet is not correct)"};
const Lines kDuplicated = {"Error (The packet received is duplicated)"};
const Lines kOutOfSequence = {"Error (The packet received has a wrong sequence number)"};
const Lines kBadCrc = {"Error (Invalid Checksum while receiving packet)"};

INSTANTIATE_TEST_SUITE_P(
    Framing, ReceivedPacket,
    testing::Values(
        ReceivedCase{"First", 0, 1, "01 FE 41 00*127 53 33", IXModem::EXModemOk, "06", {}},
        ReceivedCase{"Next", 1, 0, "02 FD 41 00*127 53 33", IXModem::EXModemOk, "06", {}},
        ReceivedCase{"ZeroBehind255", 255, 0, "00 FF 41 00*127 53 33", IXModem::EXModemOk, "06", {}},
        ReceivedCase{"FirstNumbered2", 0, 1, "02 FD 41 00*127 53 33", IXModem::EXModemSequenceError, "",
                     kNotTheFirst},
        ReceivedCase{"FirstNumbered0", 0, 1, "00 FF 41 00*127 53 33", IXModem::EXModemSequenceError, "",
                     kNotTheFirst},
        ReceivedCase{"FirstNumbered2WithABadCrc", 0, 1, "02 FD 41 00*127 53 34",
                     IXModem::EXModemSequenceError, "", kNotTheFirst},
        ReceivedCase{"FirstNumbered2WithABadComplement", 0, 1, "02 FE 41 00*127 53 33",
                     IXModem::EXModemSequenceError, "", kNotTheFirst},
        ReceivedCase{"FirstWithABadComplement", 0, 1, "01 FF 41 00*127 53 33",
                     IXModem::EXModemBlockNumberError, "", kBadHeader},
        ReceivedCase{"SumOfNumberAndComplementWrapping", 4, 0, "FF FF 41 00*127 53 33",
                     IXModem::EXModemBlockNumberError, "", kBadHeader},
        ReceivedCase{"BadComplementBeforeBadCrc", 0, 1, "01 FD 41 00*127 00 00",
                     IXModem::EXModemBlockNumberError, "", kBadHeader},
        ReceivedCase{"BadComplementBeforeDuplicate", 1, 0, "01 FD 41 00*127 53 33",
                     IXModem::EXModemBlockNumberError, "", kBadHeader},
        ReceivedCase{"PreviousAgain", 1, 0, "01 FE 41 00*127 53 33", IXModem::EXModemDuplicatePacket, "06",
                     kDuplicated},
        ReceivedCase{"PreviousAgainWithABadCrc", 1, 0, "01 FE 41 00*127 53 34",
                     IXModem::EXModemDuplicatePacket, "06", kDuplicated},
        ReceivedCase{"Previous255Again", 255, 0, "FF 00 41 00*127 53 33", IXModem::EXModemDuplicatePacket,
                     "06", kDuplicated},
        ReceivedCase{"ZeroBeforeAnyPacket", 0, 0, "00 FF 41 00*127 53 33", IXModem::EXModemDuplicatePacket,
                     "06", kDuplicated},
        ReceivedCase{"OneTooFar", 1, 0, "03 FC 41 00*127 53 33", IXModem::EXModemSequenceError, "",
                     kOutOfSequence},
        ReceivedCase{"TwoBack", 2, 0, "01 FE 41 00*127 53 33", IXModem::EXModemSequenceError, "",
                     kOutOfSequence},
        ReceivedCase{"BadLowByteOfTheCrc", 0, 1, "01 FE 41 00*127 53 34", IXModem::EXModemCrcError, "15",
                     kBadCrc},
        ReceivedCase{"BadHighByteOfTheCrc", 0, 1, "01 FE 41 00*127 52 33", IXModem::EXModemCrcError, "15",
                     kBadCrc},
        ReceivedCase{"CrcBytesExchanged", 0, 1, "01 FE 41 00*127 33 53", IXModem::EXModemCrcError, "15",
                     kBadCrc},
        ReceivedCase{"BadDataByte", 1, 0, "02 FD 42 00*127 53 33", IXModem::EXModemCrcError, "15", kBadCrc}),
    [](const auto& test) { return test.param.name; });

TEST_F(PacketIn, HandsOverTheData) {
  EXPECT_EQ(Receive(1, "01 FE 41 00*126 42 3B B5"), IXModem::EXModemOk);
  EXPECT_EQ(iBlock[0], 0x41);
  EXPECT_EQ(iBlock[127], 0x42);
}

TEST_F(PacketIn, HasALargeSize) {
  iBlock.resize(1024);
  EXPECT_EQ(Receive(1, "01 FE FF*1024 C0 84"), IXModem::EXModemOk);
  EXPECT_EQ(Answer(), "06");
  EXPECT_EQ(iBlock, std::vector<TUint8>(1024, 0xFF));
}

TEST_F(PacketIn, IsGivenUpAtTheFirstByteThatDoesNotCome) {
  for (const int position : {0, 1, 2, 64, 129, 130, 131}) {
    for (const bool silent : {true, false}) {
      SCOPED_TRACE(testing::Message() << position << (silent ? " silent" : " error"));
      WatchedPort port;
      CXModem engine(&port);
      iLog.Clear();
      const int before = wire::Play(port, "00*" + std::to_string(position));
      EXPECT_EQ(before, position);
      wire::Play(port, silent ? ". 01*200" : "! 01*200");
      EXPECT_EQ(engine.ReceivePacket(0, iBlock.data(), 128),
                silent ? IXModem::EXModemTimeout : IXModem::EXModemSerialPortError);
      EXPECT_EQ(port.Reads(), position + 1);
      EXPECT_EQ(port.Writes(), 0) << "no answer";
      EXPECT_EQ(iLog.Messages(), silent ? Lines() : Lines{"Always (Received serial port error!)"});
    }
  }
}

TEST_F(PacketIn, MayTakeFiveSecondsForEveryByte) {
  iPort.Late(5000, 0x01).Late(5000, 0xFE);
  for (int i = 0; i < 130; ++i) {
    iPort.Late(5000, 0x00);
  }
  EXPECT_EQ(Receive(1, ""), IXModem::EXModemOk);
}

TEST_F(PacketIn, IsAnsweredBeforeAnythingIsSaidAboutIt) {
  std::vector<std::size_t> saidBefore;
  iPort.onWrite = [&](TUint8) { saidBefore.push_back(iLog.Messages().size()); };
  Receive(1, "01 FE 41 00*127 00 00");
  ReceiveUpTo(1);
  saidBefore.clear();
  Receive(0, "01 FE 41 00*127 53 33");
  Receive(0, "02 FD 41 00*127 00 00");
  EXPECT_EQ(saidBefore, (std::vector<std::size_t>{0, 1})) << "the second answer follows the first's line";
}

TEST_F(PacketIn, ThatIsGoodCountsEvenIfItsAnswerCannotBeWritten) {
  iPort.FailWritesFrom(1, 1);
  EXPECT_EQ(Receive(1, "01 FE 41 00*127 53 33"), IXModem::EXModemSerialPortError);
  EXPECT_EQ(iLog.Messages(), Lines{"Error (Failed writing[6]. retVal = 2)"});
  EXPECT_EQ(Receive(0, "01 FE 41 00*127 53 33"), IXModem::EXModemDuplicatePacket);
}

TEST_F(PacketIn, ThatIsNotTakenLeavesTheNumberAlone) {
  EXPECT_EQ(Receive(1, "01 FE 41 00*127 00 00"), IXModem::EXModemCrcError);
  EXPECT_EQ(Receive(1, "02 FD 41 00*127 53 33"), IXModem::EXModemSequenceError);
  EXPECT_EQ(Receive(1, "01 FE 41 00*127 53 33"), IXModem::EXModemOk);
  EXPECT_EQ(Receive(0, "01 FE 41 00*127 53 33"), IXModem::EXModemDuplicatePacket);
  EXPECT_EQ(Receive(0, "02 FD 41 00*127 53 33"), IXModem::EXModemOk);
}

TEST_F(PacketIn, IsJudgedAlikeIfItsAnswerCannotBeWritten) {
  ReceiveUpTo(1);
  iPort.FailWritesFrom(2);
  EXPECT_EQ(Receive(0, "01 FE 41 00*127 53 33"), IXModem::EXModemDuplicatePacket);
  EXPECT_EQ(Receive(0, "02 FD 41 00*127 00 00"), IXModem::EXModemCrcError);
  EXPECT_EQ(iLog.Messages(), Join({{"Error (Failed writing[6]. retVal = 2)"},
                                   kDuplicated,
                                   {"Error (Failed writing[21]. retVal = 2)"},
                                   kBadCrc}));
}

// ---- Results of the file handler ----

TEST_F(Framing, ThreeResultsOfTheFileHandlerAreKnown) {
  EXPECT_EQ(CXModem::Translate(IFileHandler::EFileHndlOk), IXModem::EXModemOk);
  EXPECT_EQ(CXModem::Translate(IFileHandler::EFileHndlError), IXModem::EXModemFileError);
  EXPECT_EQ(CXModem::Translate(IFileHandler::EFileHndlReserved6), IXModem::EXModemFileHandlerReserved6);
  EXPECT_EQ(iLog.Trace(), Lines(3, "Interface CXModem::Translate ()"));
}

TEST_F(Framing, OtherResultsOfTheFileHandlerAreNamedByTheirNumber) {
  for (const int code : {2, 3, 4, 5, 7, 99, -1}) {
    iLog.Clear();
    EXPECT_EQ(CXModem::Translate(static_cast<IFileHandler::TFileHndlError>(code)),
              IXModem::EXModemUnknownFileHandlerError);
    EXPECT_EQ(iLog.Messages(), Lines{"Warning (Unknown file handler error " + std::to_string(code) + ")"});
  }
}

// ---- The log ----

TEST_F(Framing, FailuresAreTheSameWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  iPort.FailWritesFrom(1);
  EXPECT_EQ(iEngine.SendChr(0x18), IXModem::EXModemSerialPortError);
  EXPECT_EQ(CXModem::Translate(IFileHandler::EFileHndlNotFound), IXModem::EXModemUnknownFileHandlerError);
  EXPECT_EQ(iLog.Messages(), Lines());
}

TEST_F(Framing, LinesNameTheModuleAndTheSourceFile) {
  iPort.FailWritesFrom(1);
  iEngine.SendChr(0x18);
  ASSERT_EQ(iLog.Lines().size(), 1U);
  EXPECT_EQ(iLog.Lines()[0].module, logging::PeripheralLoader);
  EXPECT_EQ(iLog.Lines()[0].file, "features/component/PeripheralLoader/src/XModem.cpp");
  EXPECT_GT(iLog.Lines()[0].line, 0);
}

}  // namespace
