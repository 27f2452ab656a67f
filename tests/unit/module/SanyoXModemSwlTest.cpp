// Goal: a Sanyo device gets its image and nothing else, the steps end one below zero, a failure is told as it
// is, and a session can be destroyed wherever its worker waits.
//
// Method: the sequence runs on the test's thread over an engine that does what a script says; then with the
// real engine over a scripted port, against literal bytes; then on its worker thread, over an engine whose
// pace the test sets or a port that falls silent for ever.

#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "DyingPort.h"
#include "Files.h"
#include "SanyoXModemSwl.h"
#include "SessionFixture.h"
#include "Wire.h"

namespace {

using wire::Canonical;

class ExposedSanyoSession : public CSanyoXModemSwl {
 public:
  using CSanyoXModemSwl::CSanyoXModemSwl;
  using CXModemSwl::iFailed;
  using CXModemSwl::iFileName;
  using CXModemSwl::iFinished;
  using CXModemSwl::iLastReportedSteps;
  using CXModemSwl::iRemainingSteps;
  using CXModemSwl::iTotalSteps;
  using CXModemSwl::iWatchdog;
  ~ExposedSanyoSession() override { JoinWorker(); }
};

const std::string kEntersUpload = "Interface CSanyoXModemSwl::Upload ()";
const std::string kStarted = "Always CSanyoXModemSwl::Upload (SWL: Started uploading using SanyoXModem)";
const std::string kSends = "Info CXModemSwl::File (Sending file /image)";
const std::string kFinished = "Always CSanyoXModemSwl::Upload (SWL: Finished uploading using SanyoXModem)";
const Lines kUnsubscribed = {"Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"};

std::string Left(TInt32 left, TInt32 total) {
  return "Interface CXModemSwl::IXModemProgress (Left " + std::to_string(left) + " of " +
         std::to_string(total) + ")";
}

Lines Ends(const std::string& progress, TBool successful) {
  return Join({{"progress " + progress, "completed " + std::to_string(successful)}, kUnsubscribed});
}

// Progress and completion as they stand in the journal.
Lines Reports(const Lines& journal) {
  Lines reports;
  for (const std::string& entry : journal) {
    if (entry.rfind("progress ", 0) == 0 || entry.rfind("completed ", 0) == 0) {
      reports.push_back(entry);
    }
  }
  return reports;
}

class SanyoSession : public SessionFixture {
 protected:
  SanyoSession() { Make("/image"); }

  void Make(const std::string& image) {
    iSession = std::make_unique<ExposedSanyoSession>(new FakeXModem(iScript), iBroker, iCallback, image);
    iBroker.Clear();
    iJournal.Take();
  }

  void Tick(int n = 1) { SessionFixture::Tick(*iSession, n); }

  // What the next tick reports, even if it was reported before.
  Lines NextTick() {
    iJournal.Take();
    iSession->iLastReportedSteps = 1000;
    Tick();
    return iJournal.Take();
  }

  std::unique_ptr<ExposedSanyoSession> iSession;
};

TEST_F(SanyoSession, CreateMakesASessionThatIsDeletedThroughItsBase) {
  EngineScript script;
  {
    const std::unique_ptr<CXModemSwl> session(
        CSanyoXModemSwl::Create(new FakeXModem(script), iBroker, iCallback, "/i"));
    EXPECT_NE(dynamic_cast<CSanyoXModemSwl*>(session.get()), nullptr);
    EXPECT_EQ(iJournal.Take(),
              (Lines{"Interface CSanyoXModemSwl::Create ()", "Interface CXModemSwl::CXModemSwl ()",
                     "Interface CSanyoXModemSwl::CSanyoXModemSwl ()"}));
  }
  EXPECT_EQ(iJournal.Take(), Join({{"Interface CXModemSwl::~CXModemSwl ()"}, kUnsubscribed}));
  EXPECT_EQ(script.Deletions(), 1);
  EXPECT_EQ(script.Stops(), 0) << "there is no worker to stop";
}

TEST_F(SanyoSession, TheBasesFileIsTheImage) {
  EXPECT_EQ(iSession->iFileName, "/image");
}

// ---- The sequence ----

TEST_F(SanyoSession, ASuccessfulSequenceSendsTheImageAndSaysThis) {
  iScript.At(1).file = [](IXModemCallback& callback) {
    for (const TInt32 left : {1476, 452, 0}) {
      callback.IXModemProgress(left, 2500);
    }
  };
  iSession->Upload();
  EXPECT_EQ(iScript.Calls(), (Lines{"SendFile /image"}));
  EXPECT_EQ(iJournal.Take(), (Lines{kEntersUpload, kStarted, kSends, Left(1476, 2500), Left(452, 2500),
                                    Left(0, 2500), kFinished}));
  EXPECT_EQ(NextTick(), Ends("4294967295 of 150", ETrue));
  Tick(1000);
  EXPECT_EQ(iJournal.Take(), Lines{"Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)"})
      << "nothing is completed twice";
}

TEST_F(SanyoSession, StepsCountDownFrom149ToOneBelowZero) {
  iScript.onOperation = [this] { Tick(); };
  iScript.At(1).file = [this](IXModemCallback& callback) {
    for (const TInt32 left : {1476, 452, 0}) {
      callback.IXModemProgress(left, 2500);
      Tick();
    }
  };
  iSession->Upload();
  Tick();
  EXPECT_EQ(Reports(iJournal.Take()),
            (Lines{"progress 149 of 150", "progress 88 of 150", "progress 27 of 150",
                   "progress 4294967295 of 150", "completed 1"}));
}

TEST_F(SanyoSession, HasItsTotalBeforeItSaysThatItStarts) {
  struct Sink : LogCapture {
    explicit Sink(const ExposedSanyoSession& watched) : session(watched) {}
    void Write(const logging::TLine& line) override {
      if (line.message == "SWL: Started uploading using SanyoXModem") {
        seen = std::to_string(session.iRemainingSteps) + " of " + std::to_string(session.iTotalSteps);
      }
      if (line.message == "SWL: Finished uploading using SanyoXModem") {
        finishedWhenSaid = session.iFinished;
      }
    }
    const ExposedSanyoSession& session;
    std::string seen;
    TBool finishedWhenSaid = 99;
  };
  EXPECT_EQ(iSession->iTotalSteps, 1);
  const Sink sink(*iSession);
  iSession->Upload();
  EXPECT_EQ(sink.seen, "150 of 150");
  EXPECT_EQ(sink.finishedWhenSaid, EFalse) << "the log's line comes first: whoever sees the end has seen it";
  EXPECT_EQ(iSession->iFinished, ETrue);
}

TEST_F(SanyoSession, TheImagesNameIsPassedOnAsItIs) {
  for (const std::string name : {"", " a b ", "/m\xC3\xBCll/%s;\"$x\"", "relative"}) {
    EngineScript script;
    ExposedSanyoSession session(new FakeXModem(script), iBroker, iCallback, name);
    iJournal.Take();
    session.Upload();
    EXPECT_EQ(script.Calls(), (Lines{"SendFile " + name}));
    EXPECT_EQ(iJournal.Take()[2], "Info CXModemSwl::File (Sending file " + name + ")");
  }
}

struct StepsCase {
  TInt32 left;
  TInt32 total;
  TInt32 remaining;
};

const StepsCase kSteps[] = {
    {1000, 1000, 149},
    {999, 1000, 149},  // less than a step is none
    {994, 1000, 149},
    {993, 1000, 148},
    {500, 1000, 74},
    {7, 1000, 1},
    {6, 1000, 0},
    {1, 1000, 0},
    {0, 1000, -1},
    {1, 1, 149},
    {0, 1, -1},
    {261120, 262144, 149},
    {1024, 262144, 0},
    {0, 262144, -1},
    {0, 0, -1},
    // Where 32 bits would not hold the product.
    {0, 14316557, -1},
    {0, 14316558, -1},
    {8388608, 16777216, 74},
    {0, 16777216, -1},
    {1, 2147483647, 0},
    {0, 2147483647, -1},
};

TEST_F(SanyoSession, TheImageIsWorth150StepsInProportionToItsBytes) {
  std::size_t compared = 0;
  iScript.At(1).file = [&](IXModemCallback& callback) {
    EXPECT_EQ(iSession->iRemainingSteps, 149);
    for (const StepsCase& steps : kSteps) {
      callback.IXModemProgress(steps.left, steps.total);
      EXPECT_EQ(iSession->iRemainingSteps, steps.remaining) << Left(steps.left, steps.total);
      ++compared;
    }
  };
  iSession->Upload();
  EXPECT_EQ(compared, std::size(kSteps));
}

TEST_F(SanyoSession, EndsBelowZeroEvenIfTheEngineToldLess) {
  iSession->Upload();
  EXPECT_EQ(NextTick(), Ends("4294967295 of 150", ETrue)) << "the engine told nothing";
  Make("/image");
  iScript.At(2).file = [](IXModemCallback& callback) { callback.IXModemProgress(900, 1000); };
  iSession->Upload();
  EXPECT_EQ(NextTick(), Ends("4294967295 of 150", ETrue)) << "the engine stopped telling";
}

// ---- Failures ----

TEST_F(SanyoSession, EveryErrorOfTheEngineEndsItWithoutAWordAndARepetition) {
  for (const TInt32 error : {1, 2, 3, 4, 5, 11, 13, 15, 17, -1}) {
    SCOPED_TRACE(error);
    EngineScript script;
    script.At(1).result = static_cast<IXModem::TXModemError>(error);
    ExposedSanyoSession session(new FakeXModem(script), iBroker, iCallback, "/image");
    iJournal.Take();
    session.Upload();
    EXPECT_EQ(script.Calls(), (Lines{"SendFile /image"}));
    EXPECT_EQ(iJournal.Take(), (Lines{kEntersUpload, kStarted, kSends}));
    EXPECT_EQ(session.iFailed, ETrue);
    EXPECT_EQ(session.iFinished, ETrue);
    SessionFixture::Tick(session);
    EXPECT_EQ(iJournal.Take(), Ends("149 of 150", EFalse));
  }
}

TEST_F(SanyoSession, AFailureLeavesTheStepsWhereTheTransferEnded) {
  iScript.At(1).result = IXModem::EXModemCancelled;
  iScript.At(1).file = [](IXModemCallback& callback) {
    callback.IXModemProgress(1000, 2000);
    callback.IXModemProgress(500, 2000);
  };
  iSession->Upload();
  EXPECT_EQ(iJournal.Take(), (Lines{kEntersUpload, kStarted, kSends, Left(1000, 2000), Left(500, 2000)}));
  EXPECT_EQ(NextTick(), Ends("37 of 150", EFalse));
}

// ---- On its worker thread ----

TEST_F(SanyoSession, AnEndBeforeTheFirstTickIsReportedFromWithinTheStart) {
  injected_failures::AfterPthreadCreate([this] {
    while (iSession->iFinished == EFalse) {
      std::this_thread::yield();
    }
  });
  iSession->StartUpload();
  EXPECT_EQ(iJournal.Take(),
            Join({{"Interface CXModemSwl::StartUpload ()", "subscribe 0/0",
                   "Interface CXModemSwl::DoUpload ()", kEntersUpload, kStarted, kSends, kFinished},
                  Ends("4294967295 of 150", ETrue)}));
}

TEST_F(SanyoSession, ATotalIsNeverShownBesideStepsOfAnotherTimeAndTheLastStepIsNeverSkipped) {
  const std::set<std::string> possible = {"progress 1 of 1", "progress 150 of 150", "progress 149 of 150"};
  for (int i = 0; i < 200; ++i) {
    EngineScript script;
    ExposedSanyoSession session(new FakeXModem(script), iBroker, iCallback, "/image");
    session.StartUpload();
    while (session.iFinished == EFalse) {
      session.iWatchdog = 80;  // ticks without a pause are no stall
      SessionFixture::Tick(session);
      std::this_thread::yield();
    }
    SessionFixture::Tick(session);
    Lines reports = Reports(iJournal.Take());
    ASSERT_EQ(LastOf(reports, 2), (Lines{"progress 4294967295 of 150", "completed 1"}));
    reports.resize(reports.size() - 2);
    for (const std::string& report : reports) {
      EXPECT_EQ(possible.count(report), 1U) << report;
    }
  }
}

TEST_F(SanyoSession, MayBeDestroyedAsSoonAsItIsStarted) {
  for (int i = 0; i < 300; ++i) {
    EngineScript script;
    script.At(1).blocks = true;
    CSanyoXModemSwl session(new FakeXModem(script), iBroker, iCallback, "/image");
    session.StartUpload();
  }
  EXPECT_EQ(injected_failures::ThreadsCreated(), 300);
  EXPECT_EQ(injected_failures::ThreadsJoined(), 300);
}

TEST_F(SanyoSession, AWorkerThatCouldNotBeMadeIsAStall) {
  injected_failures::FailPthreadCreate(1);
  iSession->StartUpload();
  Tick(79);
  EXPECT_EQ(iJournal.Take(),
            (Lines{"Interface CXModemSwl::StartUpload ()", "subscribe 0/0", "progress 1 of 1"}));
  Tick();
  EXPECT_EQ(iJournal.Take(),
            Join({{"Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)", "completed 0"},
                  kUnsubscribed}));
  EXPECT_EQ(iScript.Calls(), Lines());
}

// ---- The bytes on the line ----

const std::string kImageBytes = "01 01 FE 69 6D 61 67 65 00*123 C3 86 04 ";

struct WireCase {
  const char* name;
  std::string device;
  std::string written;
  std::string progress;
  TBool successful;
};

void PrintTo(const WireCase& one, std::ostream* output) {
  *output << one.name;
}

class SanyoWire : public SessionFixture, public testing::WithParamInterface<WireCase> {};

TEST_P(SanyoWire, CarriesOnlyTheTransfer) {
  const TemporaryFolder folder;
  ScriptedPort port;
  const int reads = wire::Play(port, GetParam().device);
  ExposedSanyoSession session(IXModem::Create(&port), iBroker, iCallback, folder.Write("i", "image"));
  session.Upload();
  EXPECT_EQ(wire::Text(port.Written()), Canonical(GetParam().written));
  EXPECT_EQ(port.Reads(), reads);
  iJournal.Take();
  session.iLastReportedSteps = 1000;
  Tick(session);
  EXPECT_EQ(iJournal.Take(), Ends(GetParam().progress, GetParam().successful));
}

INSTANTIATE_TEST_SUITE_P(
    Device, SanyoWire,
    testing::Values(
        WireCase{"TakesIt", "43 06 06", kImageBytes, "4294967295 of 150", ETrue},
        WireCase{"AsksForAChecksum", "15 06 06", "01 01 FE 69 6D 61 67 65 00*123 03 04", "4294967295 of 150",
                 ETrue},
        WireCase{"AsksLate", "~ ~ 43 06 06", kImageBytes, "4294967295 of 150", ETrue},
        WireCase{"RejectsTheBlockOnce", "43 15 06 06", "01 01 FE 69 6D 61 67 65 00*123 C3 86 " + kImageBytes,
                 "4294967295 of 150", ETrue},
        WireCase{"IsBrokenBeforeItAsks", "!*10", "", "149 of 150", EFalse},
        WireCase{"SaysNothing", "~*10", "", "149 of 150", EFalse},
        WireCase{"Cancels", "43 18 18", "01 01 FE 69 6D 61 67 65 00*123 C3 86", "4294967295 of 150", EFalse}),
    [](const auto& test) { return test.param.name; });

TEST_F(SanyoSession, WithoutItsImageTouchesNoLine) {
  ScriptedPort port;
  ExposedSanyoSession session(IXModem::Create(&port), iBroker, iCallback, "/no/image");
  session.Upload();
  EXPECT_EQ(port.Reads(), 0);
  EXPECT_EQ(session.iFailed, ETrue);
  EXPECT_EQ(session.iRemainingSteps, 149);
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

class SanyoDestruction : public SessionFixture, public testing::WithParamInterface<MomentCase> {};

TEST_P(SanyoDestruction, TakesNoTimeAndWritesNothingMore) {
  const TemporaryFolder folder;
  DyingPort port;
  wire::Play(port.script, GetParam().device);
  auto session = std::make_unique<CSanyoXModemSwl>(IXModem::Create(&port), iBroker, iCallback,
                                                   folder.Write("i", "image"));
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
    While, SanyoDestruction,
    testing::Values(MomentCase{"TheStartIsAwaited", "", ""}, MomentCase{"TheStartIsAwaitedAgain", "58", ""},
                    MomentCase{"AReplyIsAwaited", "43", "01 01 FE 69 6D 61 67 65 00*123 C3 86"},
                    MomentCase{"TheEndIsAwaited", "43 06", kImageBytes}),
    [](const auto& test) { return test.param.name; });

TEST_F(SanyoSession, ReportsTheStallOfADeviceThatFellSilentAndIsDestroyedThen) {
  const TemporaryFolder folder;
  DyingPort port;
  wire::Play(port.script, "43");
  auto session = std::make_unique<ExposedSanyoSession>(IXModem::Create(&port), iBroker, iCallback,
                                                       folder.Write("i", "image"));
  session->StartUpload();
  port.WaitUntilSilent();
  SessionFixture::Tick(*session);
  session->iWatchdog = 80;  // whichever tick it was that reported the present step
  iJournal.Take();
  SessionFixture::Tick(*session, 79);
  EXPECT_EQ(iJournal.Take(), Lines());
  SessionFixture::Tick(*session);
  EXPECT_EQ(iJournal.Take(),
            Join({{"Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)", "completed 0"},
                  kUnsubscribed}));
  session.reset();
  EXPECT_EQ(injected_failures::ThreadsJoined(), 1);
}

}  // namespace
