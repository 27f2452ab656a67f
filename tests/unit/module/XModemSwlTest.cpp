// Goal: a session's dialogue costs the steps it must and accepts only what it must; its supervisor reports
// progress, the end and a stall, each exactly when and as often as it must, whatever the worker does
// meanwhile; and a session can be destroyed at any moment.
//
// Method: a small session that exposes the base's primitives, over an engine that does what a script says.
// One journal keeps log lines, broker calls and reports in their order. Ticks are calls. Where threads
// matter, the schedule is forced where it can be and hammered where it cannot.

#include <signal.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "SessionFixture.h"
#include "XModemSwl.h"

namespace {

class TestSession : public CXModemSwl {
 public:
  using CXModemSwl::Command;
  using CXModemSwl::CommandWithFile;
  using CXModemSwl::File;
  using CXModemSwl::Finish;
  using CXModemSwl::iAnswerBuffer;
  using CXModemSwl::iCompletionReported;
  using CXModemSwl::iFailed;
  using CXModemSwl::iFileName;
  using CXModemSwl::iFinished;
  using CXModemSwl::iLastReportedSteps;
  using CXModemSwl::iRemainingSteps;
  using CXModemSwl::iTotalSteps;
  using CXModemSwl::iWatchdog;
  using CXModemSwl::ReceiveAndCheckVersion;
  using CXModemSwl::StartSteps;
  using CXModemSwl::UnsubscribeTimerEvent;

  TestSession(IXModem* engine, IEventBroker& broker, ILoaderCallback& callback)
      : CXModemSwl(engine, broker, callback, "/image") {}
  ~TestSession() override { JoinWorker(); }

  void Upload() override {
    if (upload) {
      upload();
    }
  }

  /// The sequence; set before the start.
  std::function<void()> upload;
};

class XModemSession : public SessionFixture {
 protected:
  XModemSession() { iJournal.Take(); }

  void Tick(int n = 1) { SessionFixture::Tick(*iSession, n); }

  TInt32 Remaining() const { return iSession->iRemainingSteps; }

  // A session in the middle of its work: a total of 145, of which `remaining` are left and reported.
  void BeInTheMiddle(TInt32 remaining) {
    iSession->StartSteps(145);
    iSession->iRemainingSteps = remaining;
    Tick();
    iJournal.Take();
  }

  std::unique_ptr<TestSession> iSession =
      std::make_unique<TestSession>(new FakeXModem(iScript), iBroker, iCallback);
};

const std::string kStallLine = "Error CXModemSwl::OnEvent (Timeout in polling for status in XModemSwl)";
const Lines kUnsubscribed = {"Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"};

Lines Completed(TBool successful) {
  return Join({{"completed " + std::to_string(successful)}, kUnsubscribed});
}

// ---- The session as an object ----

TEST_F(XModemSession, ANewSessionHasOneStepToGoAndDoesNothing) {
  EXPECT_EQ(iSession->iTotalSteps, 1);
  EXPECT_EQ(iSession->iRemainingSteps, 1);
  EXPECT_EQ(iSession->iFailed, EFalse);
  EXPECT_EQ(iSession->iFinished, EFalse);
  EXPECT_EQ(iSession->iWatchdog, 80);
  EXPECT_EQ(iSession->iLastReportedSteps, 0);
  EXPECT_EQ(iSession->iCompletionReported, EFalse);
  EXPECT_EQ(iSession->iFileName, "/image");
  EXPECT_NE(iSession->iAnswerBuffer, nullptr);
  EXPECT_EQ(iScript.Calls(), Lines());
  EXPECT_EQ(injected_failures::ThreadsCreated(), 0);
  EXPECT_TRUE(iBroker.Calls().empty());
}

TEST_F(XModemSession, ConstructionAndDestructionLeaveThisTrace) {
  {
    const TestSession session(nullptr, iBroker, iCallback);
    EXPECT_EQ(iJournal.Take(), Lines{"Interface CXModemSwl::CXModemSwl ()"});
  }
  EXPECT_EQ(iJournal.Take(), Join({{"Interface CXModemSwl::~CXModemSwl ()"}, kUnsubscribed}))
      << "and a session without an engine can be destroyed";
}

TEST_F(XModemSession, DestructionDeletesTheEngineAndUnsubscribesWithTheTimersFourValues) {
  const IEventObserver* observer = iSession.get();
  iSession.reset();
  EXPECT_EQ(iScript.Deletions(), 1);
  EXPECT_EQ(iScript.Stops(), 0) << "nothing ran";
  ASSERT_EQ(iBroker.Calls().size(), 1U);
  const auto& call = iBroker.Calls()[0];
  EXPECT_EQ(call.kind, RecordingBroker::Call::kUnsubscribe);
  EXPECT_EQ(call.length, 500U);
  EXPECT_EQ(call.data, reinterpret_cast<const void*>(1));
  EXPECT_EQ(call.observer, observer);
}

TEST_F(XModemSession, ProgressOutsideOfAFileWeighsNothing) {
  iSession->IXModemProgress(0, 100);
  EXPECT_EQ(Remaining(), 0);
}

TEST_F(XModemSession, TheAnswersStorageHoldsAnAnswerOfFullLengthAndItsTerminator) {
  const TestSession session(nullptr, iBroker, iCallback);
  EXPECT_EQ(injected_failures::LastMallocSize(), 1024U + 1U);
}

TEST_F(XModemSession, TheAnswersStorageGoesBackToTheCAllocator) {
  const int live = injected_failures::LiveStorage();
  iSession.reset();
  EXPECT_EQ(injected_failures::LiveStorage(), live - 1);
}

// Its destructor does not join.
class ForgetfulSession : public CXModemSwl {
 public:
  ForgetfulSession(IXModem* engine, IEventBroker& broker, ILoaderCallback& callback)
      : CXModemSwl(engine, broker, callback, "/image") {}

  void Upload() override { Command("x"); }
};

TEST_F(XModemSession, IsJoinedByItsBaseWhereTheDerivedClassForgetsTo) {
  iScript.At(1).blocks = true;
  {
    ForgetfulSession session(new FakeXModem(iScript), iBroker, iCallback);
    session.StartUpload();
    iScript.WaitUntilBlocked();
  }
  EXPECT_EQ(injected_failures::ThreadsJoined(), 1);
  EXPECT_EQ(iScript.Stops(), 1);
  EXPECT_EQ(iScript.Deletions(), 1);
}

TEST_F(XModemSession, IsDeletedThroughItsBase) {
  const std::unique_ptr<CXModemSwl> base = std::move(iSession);
  EXPECT_EQ(iScript.Deletions(), 0);
}

TEST_F(XModemSession, IsAnObserverFirst) {
  const void* session = iSession.get();
  EXPECT_EQ(static_cast<IEventObserver*>(iSession.get()), session);
  EXPECT_NE(static_cast<IXModemCallback*>(iSession.get()), session);
}

// Where a virtual operation stands in its class's table, in bytes: the Itanium ABI keeps it in the first word
// of the pointer to it.
template <typename TOperation>
std::ptrdiff_t SlotOf(TOperation operation) {
  std::ptrdiff_t slot = 0;
  std::memcpy(&slot, &operation, sizeof slot);
  return slot;
}

TEST_F(XModemSession, VirtualOperationsKeepTheirSlots) {
  constexpr auto kSlot = static_cast<std::ptrdiff_t>(sizeof(void*));
  const auto first = SlotOf(&CXModemSwl::OnEvent);
  EXPECT_EQ(SlotOf(&CXModemSwl::IXModemProgress) - first, kSlot);
  EXPECT_EQ(SlotOf(&CXModemSwl::StartUpload) - first, 2 * kSlot);
  EXPECT_EQ(SlotOf(&CXModemSwl::Upload) - first, 3 * kSlot);
  const auto engine = SlotOf(&IXModem::SendFile);
  EXPECT_EQ(SlotOf(&IXModem::SendBuffer) - engine, kSlot);
  EXPECT_EQ(SlotOf(&IXModem::ReceiveFile) - engine, 2 * kSlot);
  EXPECT_EQ(SlotOf(&IXModem::ReceiveBuffer) - engine, 3 * kSlot);
  EXPECT_EQ(SlotOf(&IXModem::Stop) - engine, 4 * kSlot);
}

// An engine with no more than the four operations of old.
class PlainEngine : public IXModem {
 public:
  TXModemError SendFile(const TChr* /*name*/, IXModemCallback& /*callback*/) override { return EXModemOk; }
  TXModemError SendBuffer(const TUint8* /*buffer*/, TInt32 /*size*/) override { return EXModemOk; }
  TXModemError ReceiveFile(const TChr* /*name*/) override { return EXModemOk; }
  TXModemError ReceiveBuffer(TUint8* /*buffer*/, TInt32 /*capacity*/, TInt32* /*received*/) override {
    return EXModemOk;
  }
};

TEST_F(XModemSession, AnEngineNeedNotKnowHowToStop) {
  TestSession session(new PlainEngine, iBroker, iCallback);
  session.upload = [&] { session.Finish(session.File(1, "/f")); };
  session.StartUpload();
}

// ---- Commands ----

TEST_F(XModemSession, ACommandIsSentAsItIsAndItsAnswerReadForTwoSteps) {
  iSession->StartSteps(145);
  std::vector<TInt32> stepsAtOperations;
  iScript.onOperation = [&] { stepsAtOperations.push_back(Remaining()); };
  EXPECT_EQ(iSession->Command("gt 1000"), ETrue);
  EXPECT_EQ(iScript.Calls(), (Lines{"SendBuffer gt 1000", "ReceiveBuffer 1024"}));
  EXPECT_EQ(stepsAtOperations, (std::vector<TInt32>{145, 144}));
  EXPECT_EQ(Remaining(), 143);
  EXPECT_EQ(iJournal.Take(), (Lines{"Info CXModemSwl::Command (Sending command gt 1000)",
                                    "Info CXModemSwl::ReceiveAnswer (Received answer 000)"}));
}

TEST_F(XModemSession, ACommandThatCannotBeSentCostsNothing) {
  iSession->StartSteps(145);
  iScript.At(1).result = IXModem::EXModemTimeout;
  EXPECT_EQ(iSession->Command("gt 1000"), EFalse);
  EXPECT_EQ(iScript.Calls(), Lines{"SendBuffer gt 1000"});
  EXPECT_EQ(Remaining(), 145);
  EXPECT_EQ(iJournal.Take(), Lines{"Info CXModemSwl::Command (Sending command gt 1000)"});
}

TEST_F(XModemSession, ACommandWithoutAnAnswerCostsOneStep) {
  iSession->StartSteps(145);
  iScript.At(2).result = IXModem::EXModemCancelled;
  EXPECT_EQ(iSession->Command("gt 1000"), EFalse);
  EXPECT_EQ(Remaining(), 144);
  EXPECT_EQ(iJournal.Take(), Lines{"Info CXModemSwl::Command (Sending command gt 1000)"});
}

TEST_F(XModemSession, ARefusedCommandCostsTwoStepsAndTheAnswerIsLogged) {
  iSession->StartSteps(145);
  iScript.At(2).answer = "001";
  EXPECT_EQ(iSession->Command("gt 1000"), EFalse);
  EXPECT_EQ(Remaining(), 143);
  EXPECT_EQ(iJournal.Take(), (Lines{"Info CXModemSwl::Command (Sending command gt 1000)",
                                    "Info CXModemSwl::ReceiveAnswer (Received answer 001)"}));
}

TEST_F(XModemSession, EveryResultButOkIsAFailure) {
  for (const int code : {1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 13, 15, 16, 17, 99, -1}) {
    SCOPED_TRACE(code);
    for (const int operation : {1, 2}) {
      EngineScript script;
      script.At(operation).result = static_cast<IXModem::TXModemError>(code);
      TestSession session(new FakeXModem(script), iBroker, iCallback);
      EXPECT_EQ(session.Command("gt 1000"), EFalse);
      EXPECT_EQ(script.Calls().size(), static_cast<std::size_t>(operation));
    }
  }
}

struct AnswerCase {
  const char* name;
  std::string answer;
  TBool accepted;
  const char* logged;
};

void PrintTo(const AnswerCase& answer, std::ostream* output) {
  *output << answer.name;
}

class Answer : public XModemSession, public testing::WithParamInterface<AnswerCase> {};

TEST_P(Answer, IsAcceptedOnlyIfItsTextIsThreeZeros) {
  iScript.At(2).answer = GetParam().answer;
  EXPECT_EQ(iSession->Command("ck 8000"), GetParam().accepted);
  EXPECT_EQ(iJournal.Take().back(),
            std::string("Info CXModemSwl::ReceiveAnswer (Received answer ") + GetParam().logged + ")");
}

INSTANTIATE_TEST_SUITE_P(
    XModemSession, Answer,
    testing::Values(AnswerCase{"OfThreeBytes", "000", ETrue, "000"},
                    AnswerCase{"PaddedToABlock", "000" + std::string(125, '\0'), ETrue, "000"},
                    AnswerCase{"WithSomethingBehindItsEnd", std::string("000\0x", 5), ETrue, "000"},
                    AnswerCase{"OfFourZeros", "0000", EFalse, "0000"},
                    AnswerCase{"OfTwoZeros", "00", EFalse, "00"},
                    AnswerCase{"WithALineEnd", "000\r\n", EFalse, "000\r\n"},
                    AnswerCase{"WithABlank", "000 ", EFalse, "000 "},
                    AnswerCase{"BehindABlank", " 000", EFalse, " 000"},
                    AnswerCase{"PaddedOtherwise", "000\x1A", EFalse, "000\x1A"},
                    AnswerCase{"OfAnotherNumber", "001", EFalse, "001"},
                    AnswerCase{"BehindAZeroByte",
                               std::string("\0"
                                           "000",
                                           4),
                               EFalse, ""},
                    AnswerCase{"OfNothing", "", EFalse, ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(XModemSession, AnEmptyAnswerIsNotTheOneBefore) {
  iScript.At(4).answer = "";
  EXPECT_EQ(iSession->Command("a"), ETrue);
  EXPECT_EQ(iSession->Command("b"), EFalse);
}

TEST_F(XModemSession, AnAnswerOf1024BytesIsTakenWhole) {
  const std::string answer(1024, 'x');
  iScript.At(2).answer = answer;
  EXPECT_EQ(iSession->Command("a"), EFalse);
  EXPECT_EQ(iJournal.Take().back(), "Info CXModemSwl::ReceiveAnswer (Received answer " + answer + ")");
  EXPECT_EQ(iSession->iAnswerBuffer[1024], 0);
}

TEST_F(XModemSession, ACountBeyondTheBufferIsHeldWithinIt) {
  iScript.At(2).answer = std::string(1024, 'x');
  iScript.At(2).count = 5000;
  EXPECT_EQ(iSession->Command("a"), EFalse);
  EXPECT_EQ(iSession->iAnswerBuffer[1024], 0);
}

TEST_F(XModemSession, ACountBelowZeroIsAnEmptyAnswer) {
  iScript.At(2).count = -3;
  EXPECT_EQ(iSession->Command("a"), EFalse);
  EXPECT_EQ(iJournal.Take().back(), "Info CXModemSwl::ReceiveAnswer (Received answer )");
}

// ---- Files ----

TEST_F(XModemSession, ACommandWithAFileCostsItsWeightAndTwo) {
  iSession->StartSteps(145);
  std::vector<TInt32> stepsAtOperations;
  iScript.onOperation = [&] { stepsAtOperations.push_back(Remaining()); };
  EXPECT_EQ(iSession->CommandWithFile(8, "wr 1000", "/loader"), ETrue);
  EXPECT_EQ(iScript.Calls(), (Lines{"SendBuffer wr 1000", "SendFile /loader", "ReceiveBuffer 1024"}));
  EXPECT_EQ(stepsAtOperations, (std::vector<TInt32>{145, 144, 136}))
      << "the file's steps are spent before the answer, whatever its progress told";
  EXPECT_EQ(Remaining(), 135);
  EXPECT_EQ(iJournal.Take(),
            (Lines{"Info CXModemSwl::CommandWithFile (Sending command wr 1000 and file /loader)",
                   "Info CXModemSwl::ReceiveAnswer (Received answer 000)"}));
}

struct FileFailure {
  const char* name;
  int operation;
  TInt32 remaining;
};

TEST_F(XModemSession, ACommandWithAFileFailsWhereItsPartDoes) {
  for (const FileFailure& one :
       {FileFailure{"command", 1, 145}, FileFailure{"file", 2, 140}, FileFailure{"answer", 3, 136}}) {
    SCOPED_TRACE(one.name);
    EngineScript script;
    script.At(one.operation).result = IXModem::EXModemFileError;
    script.At(2).file = [](IXModemCallback& callback) { callback.IXModemProgress(50, 100); };
    TestSession session(new FakeXModem(script), iBroker, iCallback);
    session.StartSteps(145);
    EXPECT_EQ(session.CommandWithFile(8, "wr", "/f"), EFalse);
    EXPECT_EQ(script.Calls().size(), static_cast<std::size_t>(one.operation));
    EXPECT_EQ(session.iRemainingSteps, one.remaining);
  }
}

TEST_F(XModemSession, ACommandWithAFileMayBeRefused) {
  iSession->StartSteps(145);
  iScript.At(3).answer = "001";
  EXPECT_EQ(iSession->CommandWithFile(8, "wr", "/f"), EFalse);
  EXPECT_EQ(Remaining(), 135);
}

TEST_F(XModemSession, ABareFileCostsItsWeightAndOne) {
  iSession->StartSteps(150);
  std::vector<TInt32> stepsAtOperations;
  iScript.onOperation = [&] { stepsAtOperations.push_back(Remaining()); };
  EXPECT_EQ(iSession->File(140, "/image"), ETrue);
  EXPECT_EQ(iScript.Calls(), Lines{"SendFile /image"});
  EXPECT_EQ(stepsAtOperations, std::vector<TInt32>{149});
  EXPECT_EQ(Remaining(), 9);
  EXPECT_EQ(iJournal.Take(), Lines{"Info CXModemSwl::File (Sending file /image)"});
}

TEST_F(XModemSession, ABareFileThatFailsLeavesTheStepsWhereTheyWere) {
  iSession->StartSteps(150);
  iScript.At(1).result = IXModem::EXModemTimeout;
  iScript.At(1).file = [](IXModemCallback& callback) { callback.IXModemProgress(50, 100); };
  EXPECT_EQ(iSession->File(140, "/image"), EFalse);
  EXPECT_EQ(Remaining(), 79);
}

// ---- The version ----

TEST_F(XModemSession, AnyVersionWillDo) {
  for (const std::string version : {"CAN loader 1.2", "", "001", "\xFF\xFE\n", "000"}) {
    EngineScript script;
    script.At(1).answer = version;
    TestSession session(new FakeXModem(script), iBroker, iCallback);
    session.StartSteps(145);
    iJournal.Take();
    EXPECT_EQ(session.ReceiveAndCheckVersion(), ETrue);
    EXPECT_EQ(session.iRemainingSteps, 144);
    EXPECT_EQ(script.Calls(), Lines{"ReceiveBuffer 1024"});
    EXPECT_EQ(iJournal.Take(),
              (Lines{"Interface CXModemSwl::ReceiveAndCheckVersion ()",
                     "Info CXModemSwl::ReceiveAndCheckVersion (Received version " + version + ")"}));
  }
}

TEST_F(XModemSession, WithoutMemoryForAnswersNothingIsReceived) {
  EngineScript script;
  auto* engine = new FakeXModem(script);
  injected_failures::FailMalloc(1);
  TestSession session(engine, iBroker, iCallback);
  session.StartSteps(145);
  iJournal.Take();
  EXPECT_EQ(session.ReceiveAndCheckVersion(), EFalse);
  EXPECT_EQ(session.iRemainingSteps, 145);
  EXPECT_EQ(script.Calls(), Lines{});
  EXPECT_EQ(iJournal.Take(), (Lines{"Interface CXModemSwl::ReceiveAndCheckVersion ()",
                                    "Error CXModemSwl::ReceiveAndCheckVersion (Error: 1)"}));
}

TEST_F(XModemSession, AMissingVersionIsNamedByTheEnginesResult) {
  for (const int code : {3, 4, 99}) {
    EngineScript script;
    script.At(1).result = static_cast<IXModem::TXModemError>(code);
    TestSession session(new FakeXModem(script), iBroker, iCallback);
    session.StartSteps(145);
    iJournal.Take();
    EXPECT_EQ(session.ReceiveAndCheckVersion(), EFalse);
    EXPECT_EQ(session.iRemainingSteps, 145);
    EXPECT_EQ(iJournal.Take(),
              (Lines{"Interface CXModemSwl::ReceiveAndCheckVersion ()",
                     "Error CXModemSwl::ReceiveAndCheckVersion (Error: " + std::to_string(code) + ")"}));
  }
}

// ---- The file's progress in steps ----

class FileProgress : public XModemSession {
 protected:
  // What is left when the engine tells these progresses of a file of `weight` that starts at `start`.
  std::vector<TInt32> Steps(TInt32 start, TInt32 weight,
                            const std::vector<std::pair<TInt32, TInt32>>& progresses) {
    EngineScript script;
    std::vector<TInt32> steps;
    TestSession session(new FakeXModem(script), iBroker, iCallback);
    session.StartSteps(start + 1);
    iJournal.Take();
    script.At(1).file = [&](IXModemCallback& callback) {
      for (const auto& [left, total] : progresses) {
        callback.IXModemProgress(left, total);
        steps.push_back(session.iRemainingSteps);
      }
    };
    session.File(weight, "/f");
    return steps;
  }
};

using StepList = std::vector<TInt32>;

TEST_F(FileProgress, IsProportionalToTheBytesSent) {
  EXPECT_EQ(Steps(143, 8, {{1476, 2500}, {452, 2500}, {0, 2500}}), (StepList{140, 137, 135}));
  EXPECT_EQ(Steps(131, 128, {{1476, 2500}, {452, 2500}, {0, 2500}}), (StepList{79, 27, 3}));
  EXPECT_EQ(Steps(143, 8, {{2500, 2500}}), StepList{143});
}

TEST_F(FileProgress, TruncatesTowardsZero) {
  StepList expected;
  std::vector<std::pair<TInt32, TInt32>> progresses;
  for (TInt32 chunk = 1; chunk <= 256; ++chunk) {
    progresses.emplace_back(262144 - chunk * 1024, 262144);
    expected.push_back(131 - chunk / 2);
  }
  EXPECT_EQ(Steps(131, 128, progresses), expected);
}

TEST_F(FileProgress, OfAnEmptyFileIsTheWholeFile) {
  EXPECT_EQ(Steps(143, 8, {{0, 0}}), StepList{135});
}

TEST_F(FileProgress, OfALargeFileDoesNotOverflow) {
  EXPECT_EQ(Steps(131, 128, {{1, 16778240}, {0, 16778240}}), (StepList{4, 3}));
  EXPECT_EQ(Steps(148, 150, {{0, 14316558}}), StepList{-2});
  EXPECT_EQ(Steps(131, 128, {{1073741824, 2147483647}, {0, 2147483647}}), (StepList{68, 3}));
}

TEST_F(FileProgress, OfAFileThatHasGrownOrHasNoSizeIsCountedToo) {
  EXPECT_EQ(Steps(131, 128, {{-500, 1000}}), StepList{-61});
  EXPECT_EQ(Steps(131, 128, {{-1, -1}}), StepList{131});
}

TEST_F(FileProgress, IsLoggedAndNotReportedByTheWorker) {
  Steps(143, 8, {{1476, 2500}, {0, 0}});
  EXPECT_EQ(iJournal.Take(), (Lines{"Info CXModemSwl::File (Sending file /f)",
                                    "Interface CXModemSwl::IXModemProgress (Left 1476 of 2500)",
                                    "Interface CXModemSwl::IXModemProgress (Left 0 of 0)",
                                    "Interface CXModemSwl::~CXModemSwl ()",
                                    "Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"}));
}

// ---- Ticks ----

TEST_F(XModemSession, ATickReportsChangedStepsOnceAndSaysNothingItself) {
  iSession->StartSteps(145);
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 145 of 145"});
  Tick(5);
  EXPECT_EQ(iJournal.Take(), Lines());
  iSession->iRemainingSteps = 144;
  iSession->iRemainingSteps = 100;
  Tick(2);
  EXPECT_EQ(iJournal.Take(), Lines{"progress 100 of 145"});
  iSession->iRemainingSteps = 101;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 101 of 145"}) << "also backwards";
}

TEST_F(XModemSession, OtherEventsChangeNothing) {
  BeInTheMiddle(100);
  iSession->iRemainingSteps = 99;
  for (int i = 0; i < 200; ++i) {
    iSession->OnEvent({0, 1, 500, nullptr});
    iSession->OnEvent({1, 0, 500, nullptr});
    iSession->OnEvent({3, 0, 0, nullptr});
    iSession->OnEvent({3, 201, 0, nullptr});
  }
  EXPECT_EQ(iJournal.Take(), Lines());
  EXPECT_EQ(iSession->iWatchdog, 80);
  EXPECT_EQ(iSession->iLastReportedSteps, 100);
}

TEST_F(XModemSession, ATickIsKnownByTypeAndIdAlone) {
  iSession->StartSteps(145);
  iSession->OnEvent({0, 0, 0, nullptr});
  EXPECT_EQ(iJournal.Take(), Lines{"progress 145 of 145"});
}

TEST_F(XModemSession, NegativeStepsAreReportedAsUnsignedNumbers) {
  iSession->StartSteps(145);
  iSession->iRemainingSteps = -1;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 4294967295 of 145"});
}

TEST_F(XModemSession, NewStepsAreNeverReportedBesideTheInitialTotal) {
  // As a tick finds them between the two stores of the worker.
  iSession->iRemainingSteps = 145;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 1 of 1"});
  iSession->iTotalSteps = 145;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 145 of 145"});
}

TEST_F(XModemSession, TheEightiethUnchangedTickIsAStall) {
  BeInTheMiddle(100);
  Tick(79);
  EXPECT_EQ(iJournal.Take(), Lines());
  Tick();
  EXPECT_EQ(iJournal.Take(), Join({{kStallLine}, Completed(EFalse)}));
  EXPECT_EQ(iSession->iFinished, ETrue);
  EXPECT_EQ(iSession->iFailed, ETrue);
  EXPECT_EQ(iScript.Stops(), 0) << "a stalled worker is left alone";
}

TEST_F(XModemSession, AChangeOnTheEightiethTickIsNoStall) {
  BeInTheMiddle(100);
  Tick(79);
  iSession->iRemainingSteps = 99;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 99 of 145"});
  Tick(79);
  EXPECT_EQ(iJournal.Take(), Lines());
  Tick();
  EXPECT_EQ(iJournal.Take(), Join({{kStallLine}, Completed(EFalse)}));
}

TEST_F(XModemSession, TheEndIsReportedOnTheNextTickBehindTheLastProgressAndOnlyOnce) {
  BeInTheMiddle(1);
  iSession->iRemainingSteps = 0;
  iSession->Finish(ETrue);
  EXPECT_EQ(iJournal.Take(), Lines()) << "not by the worker";
  Tick();
  EXPECT_EQ(iJournal.Take(), Join({{"progress 0 of 145"}, Completed(ETrue)}));
  Tick(79);
  EXPECT_EQ(iJournal.Take(), Lines());
}

TEST_F(XModemSession, TheEndWithoutAnyChangeIsReportedToo) {
  BeInTheMiddle(100);
  iSession->Finish(EFalse);
  Tick();
  EXPECT_EQ(iJournal.Take(), Completed(EFalse));
}

TEST_F(XModemSession, TicksAfterTheEndFollowTheStepsAndStallOnceMoreWithoutASecondEnd) {
  BeInTheMiddle(0);
  iSession->Finish(ETrue);
  Tick();
  iJournal.Take();
  iSession->iRemainingSteps = 5;
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 5 of 145"});
  Tick(79);
  EXPECT_EQ(iJournal.Take(), Lines());
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{kStallLine});
  Tick(1000);
  EXPECT_EQ(iJournal.Take(), Lines());
}

TEST_F(XModemSession, AStallAndAnUnreadVersionAreReportedAlikeWithTheLogOff) {
  logging::SetLowestLevel(logging::EAlways);
  BeInTheMiddle(100);
  iScript.At(1).result = IXModem::EXModemTimeout;
  EXPECT_EQ(iSession->ReceiveAndCheckVersion(), EFalse);
  Tick(80);
  EXPECT_EQ(iJournal.Take(), (Lines{"completed 0", "unsubscribe 0/0"}));
}

TEST_F(XModemSession, ASuccessAfterAStallComesTooLate) {
  BeInTheMiddle(100);
  Tick(80);
  iJournal.Take();
  iSession->Finish(ETrue);
  Tick(1000);
  EXPECT_EQ(iJournal.Take(), Lines());
  EXPECT_EQ(iSession->iFailed, ETrue);
}

TEST_F(XModemSession, AnEndBetweenTheStepsAndTheirReportWaitsForTheNextTick) {
  BeInTheMiddle(2);
  iSession->iRemainingSteps = 1;
  // The worker comes to its end while a tick reports the step before.
  iCallback.onProgress = [&] {
    iCallback.onProgress = nullptr;
    iSession->iRemainingSteps = 0;
    iSession->Finish(ETrue);
  };
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 1 of 145"});
  Tick();
  EXPECT_EQ(iJournal.Take(), Join({{"progress 0 of 145"}, Completed(ETrue)}));
}

TEST_F(XModemSession, ATickFromWithinTheReportOfTheEndReportsNothing) {
  BeInTheMiddle(0);
  iSession->Finish(ETrue);
  iCallback.onCompleted = [&] { Tick(); };
  Tick();
  EXPECT_EQ(iJournal.Take(), Completed(ETrue));
}

TEST_F(XModemSession, TheSubscriptionEndsWithTheTimersFourValues) {
  iSession->UnsubscribeTimerEvent();
  const auto& call = iBroker.Calls().at(0);
  EXPECT_EQ(call.type, 0U);
  EXPECT_EQ(call.id, 0U);
  EXPECT_EQ(call.length, 500U);
  EXPECT_EQ(call.data, reinterpret_cast<const void*>(1));
}

// ---- The worker ----

class Worker : public XModemSession {
 protected:
  // The session's sequence: one command that may hang in the engine.
  void RunOneCommand() {
    iSession->upload = [this] {
      iSession->StartSteps(145);
      iSession->Finish(iSession->Command("x"));
    };
  }

  // Holds the start of the upload until the worker hangs in the engine.
  void LetTheWorkerBlockFirst() {
    injected_failures::AfterPthreadCreate([this] { iScript.WaitUntilBlocked(); });
  }

  void WaitForTheEnd() const {
    while (iSession->iFinished == EFalse) {
      std::this_thread::yield();
    }
  }

  static int RunningThreads() {
    return injected_failures::ThreadsCreated() - injected_failures::ThreadsJoined();
  }
};

TEST_F(Worker, StartsBehindTheSubscriptionAndBeforeTheFirstTick) {
  RunOneCommand();
  iScript.At(1).blocks = true;
  LetTheWorkerBlockFirst();
  iSession->StartUpload();
  EXPECT_EQ(iJournal.Take(), (Lines{"Interface CXModemSwl::StartUpload ()", "subscribe 0/0",
                                    "Interface CXModemSwl::DoUpload ()",
                                    "Info CXModemSwl::Command (Sending command x)", "progress 145 of 145"}));
  const auto& call = iBroker.Calls().at(0);
  EXPECT_EQ(call.length, 500U);
  EXPECT_EQ(call.data, reinterpret_cast<const void*>(1));
  EXPECT_EQ(call.observer, iSession.get());
  EXPECT_EQ(injected_failures::ThreadsCreated(), 1);
  EXPECT_EQ(iSession->iWatchdog, 80);
}

TEST_F(Worker, MayNotYetBeThereAtTheFirstTick) {
  std::atomic<bool> go{false};
  iSession->upload = [&] {
    while (!go) {
      std::this_thread::yield();
    }
    iSession->StartSteps(145);
    go = false;
  };
  iSession->StartUpload();
  Lines first = iJournal.Take();
  EXPECT_EQ(std::count(first.begin(), first.end(), "progress 1 of 1"), 1);
  go = true;
  while (go) {
    std::this_thread::yield();
  }
  iJournal.Take();
  Tick();
  EXPECT_EQ(iJournal.Take(), Lines{"progress 145 of 145"});
}

TEST_F(Worker, MayHaveFinishedBeforeTheFirstTickWhichThenHasNoProgressToReport) {
  // 0 is what was reported last before anything was.
  iSession->upload = [this] {
    iSession->StartSteps(145);
    iSession->iRemainingSteps = 0;
    iSession->Finish(ETrue);
  };
  injected_failures::AfterPthreadCreate([this] { WaitForTheEnd(); });
  iSession->StartUpload();
  EXPECT_EQ(
      iJournal.Take(),
      Join({{"Interface CXModemSwl::StartUpload ()", "subscribe 0/0", "Interface CXModemSwl::DoUpload ()"},
            Completed(ETrue)}));
  Tick(78);
  EXPECT_EQ(iJournal.Take(), Lines()) << "nor is the end reported again";
}

TEST_F(Worker, RunsTheSequenceOnceAndReportsNothingItself) {
  int runs = 0;
  std::thread::id thread;
  iSession->upload = [&] {
    ++runs;
    thread = std::this_thread::get_id();
    iSession->Finish(ETrue);
  };
  iSession->StartUpload();
  WaitForTheEnd();
  iSession.reset();
  EXPECT_EQ(runs, 1);
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(Worker, IsJoinedFirstOfAllWhenTheSessionIsDestroyed) {
  RunOneCommand();
  iScript.At(1).blocks = true;
  iScript.At(1).result = IXModem::EXModemTimeout;
  LetTheWorkerBlockFirst();
  iSession->StartUpload();
  iJournal.Take();
  EXPECT_EQ(iScript.Stops(), 0);
  iSession.reset();
  EXPECT_EQ(iScript.Stops(), 1);
  EXPECT_EQ(iScript.Deletions(), 1);
  EXPECT_EQ(injected_failures::ThreadsCreated(), 1);
  EXPECT_EQ(injected_failures::ThreadsJoined(), 1);
  EXPECT_EQ(iJournal.Take(), Join({{"Interface CXModemSwl::~CXModemSwl ()"}, kUnsubscribed}));
}

TEST_F(Worker, ThatHasEndedIsJoinedToo) {
  RunOneCommand();
  iSession->StartUpload();
  WaitForTheEnd();
  Tick();
  iSession.reset();
  EXPECT_EQ(RunningThreads(), 0);
  EXPECT_EQ(iBroker.Summary(), (Lines{"subscribe 0/0", "unsubscribe 0/0", "unsubscribe 0/0"}))
      << "once by the tick, once by the destructor";
}

TEST_F(Worker, ThatStallsIsReportedAndIgnoredWhenItComesBack) {
  RunOneCommand();
  iScript.At(1).blocks = true;
  LetTheWorkerBlockFirst();
  iSession->StartUpload();
  iJournal.Take();
  Tick(80);
  EXPECT_EQ(iJournal.Take(), Join({{kStallLine}, Completed(EFalse)}));
  EXPECT_EQ(iScript.Stops(), 0);
  EXPECT_EQ(RunningThreads(), 1) << "the worker is left alone";
  iScript.Release();
  while (Remaining() != 143) {
    std::this_thread::yield();
  }
  Tick(1000);
  const Lines later = iJournal.Take();
  EXPECT_EQ(std::count(later.begin(), later.end(), "completed 1"), 0);
  EXPECT_EQ(std::count(later.begin(), later.end(), "completed 0"), 0);
}

TEST_F(Worker, ThatCannotBeMadeIsReportedByTheWatchdog) {
  RunOneCommand();
  injected_failures::FailPthreadCreate(1);
  iSession->StartUpload();
  EXPECT_EQ(iJournal.Take(),
            (Lines{"Interface CXModemSwl::StartUpload ()", "subscribe 0/0", "progress 1 of 1"}));
  Tick(79);
  EXPECT_EQ(iJournal.Take(), Lines());
  Tick();
  EXPECT_EQ(iJournal.Take(), Join({{kStallLine}, Completed(EFalse)}));
  iSession.reset();
  EXPECT_EQ(iScript.Stops(), 0);
  EXPECT_EQ(injected_failures::ThreadsJoined(), 0) << "there is nobody to join";
}

TEST_F(Worker, OfASecondStartIsJoinedLikeTheFirst) {
  iSession->upload = [] {};
  iSession->StartUpload();
  iSession->StartUpload();
  iSession.reset();
  EXPECT_EQ(injected_failures::ThreadsCreated(), 2);
  EXPECT_EQ(injected_failures::ThreadsJoined(), 2);
}

TEST_F(Worker, MayLetItsSuccessorSubscribeBeforeItsOwnSubscriptionEnds) {
  BeInTheMiddle(0);
  TestSession next(nullptr, iBroker, iCallback);
  iCallback.onCompleted = [&] { iBroker.Subscribe(TickEvent(), next); };
  iSession->Finish(ETrue);
  Tick();
  ASSERT_EQ(iBroker.Calls().size(), 2U);
  EXPECT_EQ(iBroker.Calls()[0].observer, &next);
  EXPECT_EQ(iBroker.Calls()[1].observer, iSession.get()) << "its own and no other";
}

// ---- Both at once ----

// What a session reported, without the cost of a journal.
class CheckingCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 remaining, TUint32 total) override {
    // No upload of these tests comes by a single remaining step: 1 is only what a new session has.
    const bool isNew = remaining == 1 && total == 1;
    const bool isUnderWay = remaining != 1 && remaining <= 145 && total == 145;
    isTorn = isTorn || !(isNew || isUnderWay);
    last = remaining;
  }
  void Completed(TBool successful) override {
    ++completions;
    success = successful;
  }
  void Aborted() override {}

  bool isTorn = false;
  TUint32 last = 0;
  int completions = 0;
  TBool success = EFalse;
};

class Race : public XModemSession {
 protected:
  // Traces would only serialise the threads.
  Race() { logging::SetLowestLevel(logging::EError); }

  // Two threads meet here, so that what they do next happens at the same time.
  class Meeting {
   public:
    void Arrive() {
      const int round = iArrived.fetch_add(1) / 2;
      while (iArrived < (round + 1) * 2) {
        std::this_thread::yield();
      }
    }

   private:
    std::atomic<int> iArrived{0};
  };

  // `kRounds` sessions whose worker does `work` while ticks run until the end is reported; `check` is called
  // with each session's reports.
  template <typename Work, typename Check>
  void Repeat(Work work, Check check) {
    constexpr int kRounds = 20000;
    Meeting meeting;
    std::unique_ptr<TestSession> session;
    std::thread worker([&] {
      for (int round = 0; round < kRounds; ++round) {
        meeting.Arrive();
        work(*session, round);
        meeting.Arrive();
      }
    });
    for (int round = 0; round < kRounds; ++round) {
      CheckingCallback callback;
      session = std::make_unique<TestSession>(nullptr, iPlainBroker, callback);
      iPlainBroker.Clear();
      meeting.Arrive();
      while (callback.completions == 0) {
        SessionFixture::Tick(*session);
        session->iWatchdog = 80;
      }
      meeting.Arrive();
      check(callback, round);
    }
    worker.join();
  }

  RecordingBroker iPlainBroker;
};

TEST_F(Race, NeverShowsATornPairNorSkipsTheLastProgressNorTurnsAFailureIntoASuccess) {
  int torn = 0;
  int skipped = 0;
  int wrong = 0;
  Repeat(
      [](TestSession& session, int round) {
        session.StartSteps(145);
        session.IXModemProgress(50, 100);
        session.iRemainingSteps = 7;
        session.Finish(round % 2 == 0 ? ETrue : EFalse);
      },
      [&](const CheckingCallback& callback, int round) {
        torn += callback.isTorn ? 1 : 0;
        skipped += callback.last == 7 ? 0 : 1;
        wrong += (callback.success != EFalse) == (round % 2 == 0) ? 0 : 1;
      });
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(skipped, 0);
  EXPECT_EQ(wrong, 0);
}

TEST_F(Race, OfARealWorkerAndTicksEndsWithItsLastProgressAndItsResult) {
  for (int round = 0; round < 300; ++round) {
    const TBool successful = round % 2 == 0 ? ETrue : EFalse;
    CheckingCallback callback;
    EngineScript script;
    script.At(1).file = [](IXModemCallback& progress) {
      for (TInt32 left = 200; left >= 0; --left) {
        progress.IXModemProgress(left, 200);
      }
    };
    TestSession session(new FakeXModem(script), iPlainBroker, callback);
    session.upload = [&] {
      session.StartSteps(145);
      session.Finish(session.File(140, "/f") != EFalse && successful != EFalse ? ETrue : EFalse);
    };
    session.StartUpload();
    while (callback.completions == 0) {
      SessionFixture::Tick(session);
      session.iWatchdog = 80;
    }
    ASSERT_FALSE(callback.isTorn);
    ASSERT_EQ(callback.last, 4U);
    ASSERT_EQ(callback.success, successful);
    SessionFixture::Tick(session, 10);
    ASSERT_EQ(callback.completions, 1);
  }
  EXPECT_EQ(injected_failures::ThreadsJoined(), 300);
}

// ---- Every moment of the worker's stores ----

// Two stores that follow each other are hardly ever seen apart by another processor. Here the processor traps
// after each instruction of the worker's part, and the four shared words are noted as a tick would find them.
class Stepping : public Race {
 protected:
  struct Moment {
    TInt32 total;
    TInt32 remaining;
    TBool failed;
    TBool finished;
  };

#if defined(__x86_64__) && !defined(UNDER_THREAD_SANITIZER)
  static constexpr bool kIsPossible = true;
  static constexpr unsigned long long kTrapFlag = 0x100;

  static void StepByStep(bool on) {
    const unsigned long long flags = __builtin_ia32_readeflags_u64();
    __builtin_ia32_writeeflags_u64(on ? flags | kTrapFlag : flags & ~kTrapFlag);
  }
#else
  static constexpr bool kIsPossible = false;
  static void StepByStep(bool /*on*/) {}
#endif

  // All moments of an upload that fails at once.
  std::vector<Moment> MomentsOfAFailure() {
    stepped = iSession.get();
    struct sigaction action = {};
    struct sigaction former = {};
    action.sa_handler = NoteMoment;
    sigaction(SIGTRAP, &action, &former);
    StepByStep(true);
    iSession->StartSteps(145);
    iSession->Finish(EFalse);
    StepByStep(false);
    sigaction(SIGTRAP, &former, nullptr);
    return {moments, moments + count};
  }

  // What the first tick at such a moment reports.
  CheckingCallback FirstTick(const Moment& moment) {
    CheckingCallback callback;
    TestSession session(nullptr, iPlainBroker, callback);
    session.iTotalSteps = moment.total;
    session.iRemainingSteps = moment.remaining;
    session.iFailed = moment.failed;
    session.iFinished = moment.finished;
    SessionFixture::Tick(session);
    return callback;
  }

 private:
  static constexpr std::size_t kMostMoments = 10000;

  static void NoteMoment(int /*signal*/) {
    if (count < kMostMoments) {
      moments[count++] = {stepped->iTotalSteps, stepped->iRemainingSteps, stepped->iFailed,
                          stepped->iFinished};
    }
  }

  static TestSession* stepped;
  static Moment moments[kMostMoments];
  static std::size_t count;
};

TestSession* Stepping::stepped = nullptr;
Stepping::Moment Stepping::moments[] = {};
std::size_t Stepping::count = 0;

TEST_F(Stepping, NeverShowsATornPairNorAFailureAsASuccess) {
  if (!kIsPossible) {
    GTEST_SKIP()
        << "needs a processor of the x86-64 kind that traps after every instruction, and signals that "
           "ThreadSanitizer does not hold back";
  }
  const std::vector<Moment> all = MomentsOfAFailure();
  ASSERT_GT(all.size(), 4U);
  ASSERT_LT(all.size(), 10000U);
  EXPECT_EQ(all.front().total, 1);
  EXPECT_EQ(all.back().finished, ETrue);
  for (const Moment& moment : all) {
    SCOPED_TRACE(testing::Message() << moment.remaining << " of " << moment.total << ", failed "
                                    << moment.failed << ", finished " << moment.finished);
    const CheckingCallback callback = FirstTick(moment);
    EXPECT_FALSE(callback.isTorn);
    EXPECT_EQ(callback.success, EFalse);
  }
}

}  // namespace
