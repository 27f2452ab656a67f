// Goal: a CAN controller gets its commands and files in the one right order, every failure ends the sequence
// at once, the steps add up, and a session can be destroyed wherever its worker waits.
//
// Method: the sequence runs on the test's thread over an engine that does what a script says, ticked at every
// operation; then with the real engine over a scripted port, against literal bytes; then on its worker thread
// over a port that falls silent for ever.

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "CanXModemSwl.h"
#include "DyingPort.h"
#include "Files.h"
#include "SerialPorts.h"
#include "SessionFixture.h"
#include "Wire.h"
#include "XModem.h"

namespace {

using wire::Canonical;

class ExposedCanSession : public CCanXModemSwl {
 public:
  using CCanXModemSwl::CCanXModemSwl;
  using CXModemSwl::iFileName;
  using CXModemSwl::iFinished;
  using CXModemSwl::iLastReportedSteps;
  using CXModemSwl::iTotalSteps;
  using CXModemSwl::iWatchdog;
  ~ExposedCanSession() override { JoinWorker(); }
};

class CanSession : public SessionFixture {
 protected:
  CanSession() { Make("1000", "8000"); }

  void Make(const std::string& ramAddress, const std::string& flashAddress) {
    iSession = std::make_unique<ExposedCanSession>(new FakeXModem(iScript), iBroker, iCallback, "/loader",
                                                   "/image", ramAddress, flashAddress);
    iBroker.Clear();
    iJournal.Take();
  }

  void Tick(int n = 1) { SessionFixture::Tick(*iSession, n); }

  // A session that was never ticked has reported 0 steps, and would not report them again.
  void ReportWhateverIsLeft() { iSession->iLastReportedSteps = -1; }

  // The journal without the entry lines.
  Lines Said() {
    Lines said;
    for (const std::string& entry : iJournal.Take()) {
      if (entry.substr(0, 10) != "Interface ") {
        said.push_back(entry);
      }
    }
    return said;
  }

  std::unique_ptr<ExposedCanSession> iSession;
};

const std::string kCommandLine = "Info CXModemSwl::Command (Sending command ";
const std::string kFileLine = "Info CXModemSwl::CommandWithFile (Sending command ";
const std::string kAnswer000 = "Info CXModemSwl::ReceiveAnswer (Received answer 000)";
const std::string kAnswer001 = "Info CXModemSwl::ReceiveAnswer (Received answer 001)";
const std::string kVersion = "Info CXModemSwl::ReceiveAndCheckVersion (Received version V1)";
const std::string kStarted = "Always CCanXModemSwl::RunSequence (SWL: Started uploading using CanXModem)";
const std::string kFinished = "Always CCanXModemSwl::RunSequence (SWL: Finished uploading using CanXModem)";
const std::string kWriteRam = kFileLine + "wr 1000 and file /loader)";
const std::string kGoTo = kCommandLine + "gt 1000)";
const std::string kWriteFlash = kFileLine + "wr 8000 and file /image)";
const std::string kCheck = kCommandLine + "ck 8000)";

// The engine's operations in a sequence that succeeds.
const Lines kOperations = {"ReceiveBuffer 1024", "SendBuffer wr 1000", "SendFile /loader",
                           "ReceiveBuffer 1024", "SendBuffer gt 1000", "ReceiveBuffer 1024",
                           "SendBuffer wr 8000", "SendFile /image",    "ReceiveBuffer 1024",
                           "SendBuffer ck 8000", "ReceiveBuffer 1024"};

// What a sequence that succeeds says.
const Lines kSaid = {kVersion,    kWriteRam,  kAnswer000, kGoTo,      kAnswer000, kStarted,
                     kWriteFlash, kAnswer000, kCheck,     kAnswer000, kFinished};

TEST_F(CanSession, CreateMakesASessionThatIsDeletedThroughItsBase) {
  iJournal.Take();
  EngineScript script;
  {
    const std::unique_ptr<CXModemSwl> session(
        CCanXModemSwl::Create(new FakeXModem(script), iBroker, iCallback, "/l", "/i", "1", "2"));
    EXPECT_NE(dynamic_cast<CCanXModemSwl*>(session.get()), nullptr);
    EXPECT_EQ(iJournal.Take(),
              (Lines{"Interface CCanXModemSwl::Create ()", "Interface CXModemSwl::CXModemSwl ()",
                     "Interface CCanXModemSwl::CCanXModemSwl ()"}));
  }
  EXPECT_EQ(script.Deletions(), 1);
  EXPECT_TRUE(script.Calls().empty());
}

TEST_F(CanSession, SaysWithTheLogOffOnlyThatItStartsAndEnds) {
  logging::SetLowestLevel(logging::EAlways);
  EngineScript script;
  const std::unique_ptr<CXModemSwl> session(
      CCanXModemSwl::Create(new FakeXModem(script), iBroker, iCallback, "/loader", "/image", "1000", "8000"));
  iJournal.Take();
  session->Upload();
  EXPECT_EQ(script.Calls(), kOperations);
  EXPECT_EQ(iJournal.Take(), (Lines{kStarted, kFinished}));
}

TEST_F(CanSession, TheBasesFileIsTheImage) {
  EXPECT_EQ(iSession->iFileName, "/image");
}

TEST_F(CanSession, ASuccessfulSequenceAsksTheEngineAndSaysThis) {
  iScript.At(1).answer = "V1";
  iSession->Upload();
  EXPECT_EQ(iScript.Calls(), kOperations);
  EXPECT_EQ(Said(), kSaid);
  ReportWhateverIsLeft();
  Tick();
  EXPECT_EQ(iJournal.Take(), (Lines{"progress 0 of 145", "completed 1",
                                    "Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"}));
  Tick(1000);
  EXPECT_EQ(Said(), Lines{"Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)"})
      << "nothing is completed twice";
}

TEST_F(CanSession, TracesItsEntry) {
  iSession->Upload();
  EXPECT_EQ(iJournal.Take().front(), "Interface CCanXModemSwl::Upload ()");
}

TEST_F(CanSession, StepsCountDownFrom145To0) {
  // Loader and image of 2500 bytes.
  const auto sendFile = [this](IXModemCallback& callback) {
    for (const TInt32 left : {1476, 452, 0}) {
      callback.IXModemProgress(left, 2500);
      Tick();
    }
  };
  iScript.At(1).answer = "V1";
  iScript.At(3).file = sendFile;
  iScript.At(8).file = sendFile;
  iScript.onOperation = [this] { Tick(); };
  iSession->Upload();
  Tick();
  Lines progress;
  for (const std::string& entry : iJournal.Take()) {
    if (entry.substr(0, 9) == "progress ") {
      progress.push_back(entry.substr(9));
    }
  }
  EXPECT_EQ(progress, (Lines{"145 of 145", "144 of 145", "143 of 145", "140 of 145", "137 of 145",
                             "135 of 145", "134 of 145", "133 of 145", "132 of 145", "131 of 145",
                             "79 of 145", "27 of 145", "3 of 145", "2 of 145", "1 of 145", "0 of 145"}));
}

TEST_F(CanSession, HasItsTotalBeforeAnythingIsAskedOfTheEngine) {
  iScript.At(1).action = [this] { EXPECT_EQ(iSession->iTotalSteps, 145); };
  EXPECT_EQ(iSession->iTotalSteps, 1);
  iSession->Upload();
  EXPECT_EQ(iScript.Calls().size(), 11U);
}

// The log's line comes first: whoever sees the end has seen it.
class FinishedLineSink : public LogCapture {
 public:
  explicit FinishedLineSink(const ExposedCanSession& session) : iSession(session) {}
  void Write(const logging::TLine& line) override {
    if (line.message == "SWL: Finished uploading using CanXModem") {
      finishedWhenSaid = iSession.iFinished;
    }
  }
  TBool finishedWhenSaid = 99;

 private:
  const ExposedCanSession& iSession;
};

TEST_F(CanSession, EndsOnlyAfterItHasSaidSo) {
  const FinishedLineSink sink(*iSession);
  iSession->Upload();
  EXPECT_EQ(sink.finishedWhenSaid, EFalse);
  EXPECT_EQ(iSession->iFinished, ETrue);
}

TEST_F(CanSession, AddressesAreTextThatIsPassedOnAsItIs) {
  struct {
    const char* ram;
    const char* flash;
    Lines commands;
  } const cases[] = {{"", "", {"wr ", "gt ", "wr ", "ck "}},
                     {"0xAbC", "8000 ", {"wr 0xAbC", "gt 0xAbC", "wr 8000 ", "ck 8000 "}},
                     {" 1", "a;b", {"wr  1", "gt  1", "wr a;b", "ck a;b"}}};
  for (const auto& one : cases) {
    EngineScript script;
    ExposedCanSession session(new FakeXModem(script), iBroker, iCallback, "/l", "/i", one.ram, one.flash);
    session.Upload();
    Lines commands;
    for (const std::string& call : script.Calls()) {
      if (call.substr(0, 11) == "SendBuffer ") {
        commands.push_back(call.substr(11));
      }
    }
    EXPECT_EQ(commands, one.commands);
  }
}

// ---- Every way to fail ----

struct FailureCase {
  const char* name;
  int operation;  ///< the last one that is asked of the engine
  bool refused;   ///< it succeeds with "001"; otherwise it fails
  TInt32 remaining;
  int said;      ///< lines of a successful sequence that are said all the same
  Lines behind;  ///< what is said in place of the rest
};

void PrintTo(const FailureCase& failure, std::ostream* output) {
  *output << failure.name;
}

class CanSequence : public CanSession, public testing::WithParamInterface<FailureCase> {};

TEST_P(CanSequence, EndsThere) {
  const FailureCase& one = GetParam();
  iScript.At(1).answer = "V1";
  EngineScript::Turn& turn = iScript.At(one.operation);
  if (one.refused) {
    turn.answer = "001";
  } else {
    turn.result = IXModem::EXModemTimeout;
  }
  iSession->Upload();

  Lines operations = kOperations;
  operations.resize(static_cast<std::size_t>(one.operation));
  EXPECT_EQ(iScript.Calls(), operations) << "nothing is asked of the engine any more";
  Lines said = kSaid;
  said.resize(static_cast<std::size_t>(one.said));
  EXPECT_EQ(Said(), Join({said, one.behind}));
  ReportWhateverIsLeft();
  Tick();
  EXPECT_EQ(iJournal.Take(), (Lines{"progress " + std::to_string(one.remaining) + " of 145", "completed 0",
                                    "Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"}));
}

INSTANTIATE_TEST_SUITE_P(
    Fails, CanSequence,
    testing::Values(
        FailureCase{
            "AtTheVersion", 1, false, 145, 0, {"Error CXModemSwl::ReceiveAndCheckVersion (Error: 3)"}},
        FailureCase{"AtTheLoadersCommand", 2, false, 144, 2, {}},
        FailureCase{"AtTheLoader", 3, false, 143, 2, {}},
        FailureCase{"AtTheLoadersAnswer", 4, false, 135, 2, {}},
        FailureCase{"WithTheLoaderRefused", 4, true, 134, 2, {kAnswer001}},
        FailureCase{"AtTheStart", 5, false, 134, 4, {}},
        FailureCase{"AtTheStartsAnswer", 6, false, 133, 4, {}},
        FailureCase{"WithTheStartRefused", 6, true, 132, 4, {kAnswer001}},
        FailureCase{"AtTheImagesCommand", 7, false, 132, 7, {}},
        FailureCase{"AtTheImage", 8, false, 131, 7, {}}, FailureCase{"AtTheImagesAnswer", 9, false, 3, 7, {}},
        FailureCase{"WithTheImageRefused", 9, true, 2, 7, {kAnswer001}},
        FailureCase{"AtTheCheck", 10, false, 2, 9, {}}, FailureCase{"AtTheChecksAnswer", 11, false, 1, 9, {}},
        FailureCase{"WithTheCheckRefused", 11, true, 0, 9, {kAnswer001}}),
    [](const auto& test) { return test.param.name; });

// ---- The bytes on the line ----

// A device that takes a transfer, and one that answers "000".
const std::string kTakesIt = "43 06 06 ";
const std::string kAnswers000 = "01 01 FE 30 30 30 00*125 F5 63 04 ";
const std::string kAnswers001 = "01 01 FE 30 30 31 00*125 B5 1D 04 ";
const std::string kAnnouncesV1 = "01 01 FE 56 31 00*126 F4 63 04 ";
// What goes out for an answer.
const std::string kTakesAnswer = "43 06 06 ";

const std::string kWr1000 = "01 01 FE 77 72 20 31 30 30 30 00*121 2C 43 04 ";
const std::string kGt1000 = "01 01 FE 67 74 20 31 30 30 30 00*121 22 A2 04 ";
const std::string kWr8000 = "01 01 FE 77 72 20 38 30 30 30 00*121 64 E9 04 ";
const std::string kCk8000 = "01 01 FE 63 6B 20 38 30 30 30 00*121 7A 60 04 ";
const std::string kLoaderBytes = "01 01 FE 6C 6F 61 64 65 72 00*122 05 E7 04 ";
const std::string kImageBytes = "01 01 FE 69 6D 61 67 65 00*123 C3 86 04 ";

class CanWire : public SessionFixture {
 protected:
  // A sequence with files that contain "loader" and "image".
  void Run(const std::string& device) {
    iReads = wire::Play(iPort, device);
    iSession = std::make_unique<ExposedCanSession>(IXModem::Create(&iPort), iBroker, iCallback,
                                                   iFolder.Write("l", "loader"), iFolder.Write("i", "image"),
                                                   "1000", "8000");
    iSession->Upload();
    iJournal.Take();
    iSession->iLastReportedSteps = -1;
    Tick(*iSession);
  }

  TemporaryFolder iFolder;
  ScriptedPort iPort;
  std::unique_ptr<ExposedCanSession> iSession;
  int iReads = 0;
};

TEST_F(CanWire, CarriesThisWhenEverythingIsAccepted) {
  Run(kAnnouncesV1 + kTakesIt + kTakesIt + kAnswers000 + kTakesIt + kAnswers000 + kTakesIt + kTakesIt +
      kAnswers000 + kTakesIt + kAnswers000);
  EXPECT_EQ(wire::Text(iPort.Written()),
            Canonical(kTakesAnswer + kWr1000 + kLoaderBytes + kTakesAnswer + kGt1000 + kTakesAnswer +
                      kWr8000 + kImageBytes + kTakesAnswer + kCk8000 + kTakesAnswer));
  EXPECT_EQ(iJournal.Take(), (Lines{"progress 0 of 145", "completed 1",
                                    "Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"}));
  EXPECT_EQ(iPort.Reads(), iReads);
}

TEST_F(CanWire, FallsSilentBehindARefusedStart) {
  Run(kAnnouncesV1 + kTakesIt + kTakesIt + kAnswers000 + kTakesIt + kAnswers001 + "43*100");
  EXPECT_EQ(wire::Text(iPort.Written()),
            Canonical(kTakesAnswer + kWr1000 + kLoaderBytes + kTakesAnswer + kGt1000 + kTakesAnswer));
  EXPECT_EQ(iJournal.Take().front(), "progress 132 of 145");
}

TEST_F(CanWire, UsesAChecksumOnlyInTheTransferThatAsksForIt) {
  Run(kAnnouncesV1 + "15 06 06 " + kTakesIt + kAnswers000 + "15 06 06 " + kAnswers001);
  EXPECT_EQ(wire::Text(iPort.Written()),
            Canonical(kTakesAnswer + "01 01 FE 77 72 20 31 30 30 30 00*121 CA 04 " + kLoaderBytes +
                      kTakesAnswer + "01 01 FE 67 74 20 31 30 30 30 00*121 BC 04 " + kTakesAnswer));
}

TEST_F(CanWire, IsLeftAfterTenRequestsToASilentDevice) {
  Run("");
  EXPECT_EQ(wire::Text(iPort.Written()), "43*10 18*6");
  EXPECT_EQ(iJournal.Take(), (Lines{"progress 145 of 145", "completed 0",
                                    "Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"}));
}

// ---- Destruction while the worker waits ----

struct MomentCase {
  const char* name;
  std::string device;
  std::string wire;
};

void PrintTo(const MomentCase& moment, std::ostream* output) {
  *output << moment.name;
}

class CanDestruction : public SessionFixture, public testing::WithParamInterface<MomentCase> {};

TEST_P(CanDestruction, TakesNoTimeAndWritesNothingMore) {
  const TemporaryFolder folder;
  DyingPort port;
  wire::Play(port.script, GetParam().device);
  auto session =
      std::make_unique<CCanXModemSwl>(IXModem::Create(&port), iBroker, iCallback, folder.Write("l", "loader"),
                                      folder.Write("i", "image"), "1000", "8000");
  session->StartUpload();
  port.WaitUntilSilent();
  EXPECT_EQ(wire::Text(port.script.Written()), Canonical(GetParam().wire));
  const auto start = std::chrono::steady_clock::now();
  session.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_EQ(wire::Text(port.script.Written()), Canonical(GetParam().wire));
  EXPECT_EQ(injected_failures::ThreadsCreated(), 1);
  EXPECT_EQ(injected_failures::ThreadsJoined(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    While, CanDestruction,
    testing::Values(MomentCase{"TheVersionIsAwaited", "", "43"},
                    MomentCase{"TheVersionIsAwaitedAgain", "58", "43 43"},
                    MomentCase{"TheVersionIsReceived", "01 01 FE 56 31", "43"},
                    MomentCase{"TheVersionsEndIsAwaited", "01 01 FE 56 31 00*126 F4 63", "43 06"},
                    MomentCase{"ACommandsStartIsAwaited", kAnnouncesV1, "43 06 06"},
                    MomentCase{"ACommandsReplyIsAwaited", kAnnouncesV1 + "43",
                               "43 06 06 01 01 FE 77 72 20 31 30 30 30 00*121 2C 43"},
                    MomentCase{"ACommandsEndIsAwaited", kAnnouncesV1 + "43 06", "43 06 06 " + kWr1000},
                    MomentCase{"AFilesStartIsAwaited", kAnnouncesV1 + kTakesIt, "43 06 06 " + kWr1000},
                    MomentCase{"AFilesReplyIsAwaited", kAnnouncesV1 + kTakesIt + "43",
                               "43 06 06 " + kWr1000 + "01 01 FE 6C 6F 61 64 65 72 00*122 05 E7"},
                    MomentCase{"AFilesEndIsAwaited", kAnnouncesV1 + kTakesIt + "43 06",
                               "43 06 06 " + kWr1000 + kLoaderBytes},
                    MomentCase{"AnAnswerIsAwaited", kAnnouncesV1 + kTakesIt + kTakesIt,
                               "43 06 06 " + kWr1000 + kLoaderBytes + "43"}),
    [](const auto& test) { return test.param.name; });

class EngineThatTellsItsStop : public CXModem {
 public:
  using CXModem::CXModem;
  std::atomic<bool>* stopped = nullptr;

  void Stop() override {
    CXModem::Stop();
    *stopped = true;
  }
};

// The second write ends when the engine has been stopped, as on a line whose driver is full.
class FullPort : public ISerialPort {
 public:
  std::atomic<bool> stopped{false};
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};

  TInt32 Write(const TUint8* /*buffer*/, TUint32 count, TUint32* written) override {
    ++begun;
    while (begun == 2 && !stopped) {
      std::this_thread::yield();
    }
    *written = count;
    ++ended;
    return 0;
  }
  TInt32 Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) override {
    *buffer = 0x58;
    *received = 1;
    return 0;
  }
};

TEST_F(CanSession, IsDestroyedWithTheWriteThatIsOnItsWay) {
  FullPort port;
  auto* engine = new EngineThatTellsItsStop(&port);
  engine->stopped = &port.stopped;
  auto session = std::make_unique<CCanXModemSwl>(engine, iBroker, iCallback, "/l", "/i", "1000", "8000");
  session->StartUpload();
  while (port.begun < 2) {
    std::this_thread::yield();
  }
  session.reset();
  EXPECT_EQ(port.begun, 2);
  EXPECT_EQ(port.ended, 2);
}

TEST_F(CanSession, IsDestroyedBetweenTwoOperationsWithoutBeginningTheNextOnTheLine) {
  // The engine of a session whose worker is held between the start of the thread and its first operation.
  DyingPort port;
  auto engine = std::unique_ptr<IXModem>(IXModem::Create(&port));
  engine->Stop();
  CCanXModemSwl session(engine.release(), iBroker, iCallback, "/l", "/i", "1000", "8000");
  session.Upload();
  EXPECT_EQ(wire::Text(port.script.Written()), "");
  EXPECT_EQ(port.script.Reads(), 0);
}

TEST_F(CanSession, ReportsTheStallOfADeviceThatFellSilentAndIsDestroyedThen) {
  DyingPort port;
  wire::Play(port.script, kAnnouncesV1);
  auto session = std::make_unique<ExposedCanSession>(IXModem::Create(&port), iBroker, iCallback, "/l", "/i",
                                                     "1000", "8000");
  session->StartUpload();
  port.WaitUntilSilent();
  SessionFixture::Tick(*session);
  session->iWatchdog = 80;  // whichever tick it was that reported the present step
  iJournal.Take();
  SessionFixture::Tick(*session, 79);
  EXPECT_EQ(iJournal.Take(), Lines());
  SessionFixture::Tick(*session);
  EXPECT_EQ(Said(), (Lines{"Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)",
                           "completed 0", "unsubscribe 0/0"}));
  session.reset();
  EXPECT_EQ(wire::Text(port.script.Written()), "43 06 06");
  EXPECT_EQ(injected_failures::ThreadsJoined(), 1);
}

}  // namespace
