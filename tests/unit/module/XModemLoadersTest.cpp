// Goal: whatever its device, a loader checks its properties in one pass, builds port, engine and session in
// order, never releases what is not its own, and keeps replaced sessions until its end.
// Method: every promise is put to every kind of loader. Creation functions of the test stand in for the
// platform and the session; they and the fakes that they make write into one journal. Files and the port to
// be checked are real files.
#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "CanXModemLoader.h"
#include "FileHandler.h"
#include "InjectedFailures.h"
#include "LoaderFixture.h"
#include "PeripheralLoader.h"
#include "SanyoXModemLoader.h"

namespace {

constexpr TEvent kTick = {0, 0, 0, nullptr};

class Loader : public LoaderFixture, public testing::WithParamInterface<const LoaderKind*> {
 protected:
  Loader() : LoaderFixture(*GetParam()) {}
};

std::string NameOf(const testing::TestParamInfo<const LoaderKind*>& test) {
  return test.param->name;
}

INSTANTIATE_TEST_SUITE_P(Every, Loader, testing::Values(&kCanLoader, &kSanyoLoader), NameOf);

// ---- Life ----

TEST_P(Loader, ConstructionOnlyLogs) {
  LogCapture log;
  Make();
  EXPECT_EQ(log.Trace(), Lines{Enters(iKind.Class())});
  EXPECT_EQ(iProperties.asked, Lines());
  EXPECT_EQ(iChain.journal.Take(), Lines());
  EXPECT_EQ(iBroker.Summary(), Lines());
}

TEST_P(Loader, DestructionWithoutInstallOnlyLogs) {
  Make();
  LogCapture log;
  iLoader.reset();
  EXPECT_EQ(log.Trace(), Lines{Enters("~" + iKind.Class())});
  EXPECT_EQ(iChain.journal.Take(), Lines());
  EXPECT_EQ(iBroker.Summary(), Lines());
}

template <typename TLoader>
void ExpectStorageOfTheCAllocator() {
  static_assert(noexcept(TLoader::operator new(1)));
  // AddressSanitizer sees when the two do not fit. The compiler, which takes each such pair for an error,
  // does not see through the pointers.
  void* (*const volatile make)(std::size_t) = &TLoader::operator new;
  void (*const volatile release)(void*) = &TLoader::operator delete;
  const int live = injected_failures::LiveStorage();
  void* const storage = make(100);
  EXPECT_EQ(injected_failures::LiveStorage(), live + 1);
  std::free(storage);
  release(std::malloc(100));
  EXPECT_EQ(injected_failures::LiveStorage(), live);
}

TEST_P(Loader, StorageIsTheCAllocators) {
  ExpectStorageOfTheCAllocator<CCanXModemLoader>();
  ExpectStorageOfTheCAllocator<CSanyoXModemLoader>();
  ILoader* const loader = &Make();
  iLoader.release();
  delete loader;
}

TEST_P(Loader, MayStandOnTheStack) {
  const CCanXModemLoader can(iFeatureId, iBroker, iProperties, *iCallback, nullptr, nullptr, nullptr);
  const CSanyoXModemLoader sanyo(iFeatureId, iBroker, iProperties, *iCallback, nullptr, nullptr, nullptr);
  EXPECT_EQ(iBroker.Summary(), Lines());
}

// ---- Prepare ----

TEST_P(Loader, AGoodPreparationAsksInOrderAndSaysOk) {
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
  EXPECT_EQ(iProperties.asked, iKind.keys);
  EXPECT_EQ(iProperties.askedFeatures, Lines(iKind.keys.size(), "feature"));
}

TEST_P(Loader, PreparationLogsItsEntryFirstAndItsVerdictLast) {
  Make();
  LogCapture log;
  iLoader->Prepare();
  EXPECT_EQ(log.Trace(),
            (Lines{Enters("Prepare"), "Info CLoaderPreparation::Conclude (All properties are ok)"}));
  for (const LogCapture::Line& line : log.Lines()) {
    EXPECT_EQ(line.module, logging::PeripheralLoader);
  }
}

TEST_P(Loader, PreparationMakesNothing) {
  EXPECT_EQ(Make().Prepare(), ETrue);
  EXPECT_EQ(iChain.journal.Take(), Lines());
  EXPECT_EQ(iBroker.Summary(), Lines());
}

TEST_P(Loader, PreparationLeavesNothingOpenAndTheFilesAsTheyAre) {
  const std::size_t before = OpenDescriptors();
  EXPECT_EQ(Make().Prepare(), ETrue);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(
      ContentOf(iFolder.Path("image")) + ContentOf(iFolder.Path("loader")) + ContentOf(iFolder.Path("port")),
      "ilp");
}

TEST_P(Loader, ReadingStopsAtTheFirstMissingPropertyAndTheChecksGoOn) {
  ASSERT_EQ(iKind.complaints.size(), iKind.keys.size());
  const FakeProperties complete = iProperties;
  for (std::size_t missing = 0; missing < iKind.keys.size(); ++missing) {
    SCOPED_TRACE(iKind.keys[missing]);
    iProperties = complete;
    iProperties.Remove(iKind.keys[missing]);
    EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), Join({{kNotAll}, iKind.complaints[missing], {kNotOk}}));
    Lines asked = iKind.keys;
    asked.resize(missing + 1);
    EXPECT_EQ(iProperties.asked, asked);
  }
}

TEST_P(Loader, ASecondPreparationKeepsOldTextsBehindAMissingOneButNotTheSpeed) {
  Make().Prepare();
  iProperties.Remove("xmodemspeed");
  iProperties.Set("xmodemportname", "/not/read");
  EXPECT_EQ(MessagesOfPrepare(*iLoader, EFalse), (Lines{kNotAll, SlowSpeed("0"), kNotOk}));
  EXPECT_EQ(PortRequestOf(*iLoader), PortRequest(iFolder.Path("port"), 0));
}

TEST_P(Loader, ASecondPreparationReadsEverythingAnew) {
  Make().Prepare();
  iProperties.Set("xmodemspeed", "19200");
  iProperties.Set("xmodemportname", iFolder.Write("other", ""));
  EXPECT_EQ(iLoader->Prepare(), ETrue);
  EXPECT_EQ(PortRequestOf(*iLoader), PortRequest(iFolder.Path("other"), 19200));
}

TEST_P(Loader, AMissingSpeedIsZeroAndNotTheDefault) {
  iProperties.Remove("xmodemspeed");
  EXPECT_EQ(Make().Prepare(), EFalse);
  EXPECT_EQ(PortRequestOf(*iLoader), PortRequest("", 0));
}

struct Speed {
  const char* text;
  TInt32 speed;
};

const Speed kGoodSpeeds[] = {
    {"75", 75},
    {"115200", 115200},
    {"115200x", 115200},
    {"9600abc", 9600},
    {" 9600", 9600},
    {"+9600", 9600},
    {"9600.5", 9600},
    {"0075", 75},
    {"0115200", 115200},
    {"2147483647", 2147483647},
    {"2147483648", 2147483647},
    {"4294967296", 2147483647},
    {"4294967371", 2147483647},
    {"99999999999", 2147483647},
    {"999999999999999999999999999999", 2147483647},
};

const Speed kLowSpeeds[] = {
    {"74", 74},     {"0", 0},      {"", 0},
    {"abc", 0},     {"-5", -5},    {"-115200", -115200},
    {"1e6", 1},     {"0x2580", 0}, {"-2147483649", -2147483647 - 1},
    {"\t12", 12},   {"x9600", 0},  {"-99999999999", -2147483647 - 1},
    {"0x1C200", 0},
};

TEST_P(Loader, SpeedsFrom75UpAreTaken) {
  for (const Speed& good : kGoodSpeeds) {
    SCOPED_TRACE(good.text);
    iProperties.Set("xmodemspeed", good.text);
    EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
    EXPECT_EQ(PortRequestOf(*iLoader), PortRequest(iFolder.Path("port"), good.speed));
  }
}

TEST_P(Loader, SpeedsBelow75AreRefusedByNumber) {
  for (const Speed& low : kLowSpeeds) {
    SCOPED_TRACE(low.text);
    iProperties.Set("xmodemspeed", low.text);
    EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{SlowSpeed(std::to_string(low.speed)), kNotOk}));
  }
}

TEST_P(Loader, FaultsAreFoundAlikeWithTheLogOff) {
  iProperties = FakeProperties();
  Make();
  LogCapture log;
  logging::SetLowestLevel(logging::EAlways);
  EXPECT_EQ(iLoader->Prepare(), EFalse);
  EXPECT_EQ(log.Trace(), Lines());
}

TEST_P(Loader, AnImageThatIsNotThereIsNamed) {
  iProperties.Set("xmodemsource-image", "/no/image");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadImage("/no/image"), kNotOk}));
}

TEST_P(Loader, AFolderIsNoImage) {
  iProperties.Set("xmodemsource-image", iFolder.Path());
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadImage(iFolder.Path()), kNotOk}));
}

TEST_P(Loader, APortThatIsNotThereIsNamed) {
  iProperties.Set("xmodemportname", "/no/port");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadPort("/no/port"), kNotOk}));
}

TEST_P(Loader, AnythingThatCanBeOpenedForReadingIsTakenForAPort) {
  iProperties.Set("xmodemportname", iFolder.Path());
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
}

TEST_P(Loader, TheFileSystemIsAskedAndNotTheCacheOfFiles) {
  const std::string image = iFolder.Path("image");
  ASSERT_EQ(IFileHandler::FileSize(AsTChr(image)), 1);
  std::filesystem::remove(image);
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadImage(image), kNotOk}));
}

TEST_P(Loader, APortNeedsOnlyToBeReadable) {
  std::filesystem::permissions(iFolder.Path("port"), std::filesystem::perms(0444));
  const OrdinaryUser user;
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
}

TEST_P(Loader, APortThatMayNotBeReadIsRefused) {
  std::filesystem::permissions(iFolder.Path("port"), std::filesystem::perms(0222));
  const OrdinaryUser user;
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadPort(iFolder.Path("port")), kNotOk}));
}

TEST_P(Loader, TextsAreTakenAsTheyAre) {
  const std::string strange = iFolder.Write(" a;b \tc ", "");
  for (const char* key : {"xmodemsource-image", "xmodemsource-loader", "xmodemportname"}) {
    iProperties.Set(key, strange);
  }
  iProperties.Set("xmodemramaddress", " 1 ");
  iProperties.Set("xmodemflashaddress", ";");
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
  iLoader->Install();
  const Lines journal = iChain.journal.Take();
  EXPECT_EQ(journal[0], PortRequest(strange, 9600));
  EXPECT_EQ(journal[2], SessionRequest());
}

TEST_P(Loader, TheFeatureIdIsCopiedWhole) {
  const std::string whole = std::string("a\0b", 3) + std::string(100, 'x');
  iFeatureId = whole;
  Make();
  iFeatureId = "changed";
  iLoader->Prepare();
  EXPECT_EQ(iProperties.askedFeatures, Lines(iKind.keys.size(), whole));
}

// ---- Install ----

TEST_P(Loader, InstallBuildsTheChainAndStartsTheSession) {
  Make().Prepare();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{Begins("Install"), PortRequest(iFolder.Path("port"), 9600), "create engine",
                   SessionRequest(), "Interface CXModemSwl::CXModemSwl ()",
                   "Interface " + iKind.SessionClass() + "::" + iKind.SessionClass() + " ()",
                   "session 1 started"}));
}

TEST_P(Loader, InstallWithoutPrepareUsesTheDefaultSpeedAndEmptyTexts) {
  Make().Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{UnpreparedPortRequest(), "create engine",
                                          UnpreparedSessionRequest(), "session 1 started"}));
}

TEST_P(Loader, InstallAfterAFailedPreparationUsesWhatWasRead) {
  iProperties.Set("xmodemspeed", "50");
  EXPECT_EQ(Make().Prepare(), EFalse);
  EXPECT_EQ(PortRequestOf(*iLoader), PortRequest(iFolder.Path("port"), 50));
}

TEST_P(Loader, TheSessionGetsTheLoadersBrokerAndCallback) {
  iChain.sessionsWork = true;
  iChain.succeeds = false;
  Make();
  WithoutAnswers([this] { iLoader->Install(); });
  AwaitEndOfUpload(0);
  Session(0).OnEvent(kTick);
  EXPECT_EQ(iChain.journal.Take().back(), "completed 0");
  EXPECT_EQ(iBroker.Summary(), (Lines{"subscribe 0/0", "unsubscribe 0/0"}));
}

TEST_P(Loader, DestructionDeletesTheSessionAndWithItTheEngineButNotThePort) {
  Make().Install();
  iChain.journal.Take();
  iBroker.Clear();
  {
    const JournalLog log(iChain.journal);
    iLoader.reset();
  }
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{Enters("~" + iKind.Class()), "session 1 deleted", "Interface CXModemSwl::~CXModemSwl ()",
                   "Interface CXModemSwl::UnsubscribeTimerEvent ()", "engine 1 deleted"}));
  EXPECT_EQ(iBroker.Summary(), (Lines{"unsubscribe 0/0"}));
}

// ---- Install again ----

TEST_P(Loader, ASecondInstallBuildsASecondChainAndDeletesNothing) {
  Make().Install();
  iChain.journal.Take();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{UnpreparedPortRequest(), "create engine",
                                          UnpreparedSessionRequest(), "session 2 started"}));
}

TEST_P(Loader, AllSessionsAreDeletedWithTheLoaderOldestFirst) {
  Make();
  for (int i = 0; i < 4; ++i) {
    iLoader->Install();
  }
  iChain.journal.Take();
  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{"session 1 deleted", "engine 1 deleted", "session 2 deleted", "engine 2 deleted",
                   "session 3 deleted", "engine 3 deleted", "session 4 deleted", "engine 4 deleted"}));
}

TEST_P(Loader, AFailedSecondInstallDoesNotStartTheOldSessionAgain) {
  Make().Install();
  iChain.journal.Take();

  iChain.makesSession = false;
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{UnpreparedPortRequest(), "create engine", UnpreparedSessionRequest(), "completed 0"}));
  delete iChain.engines.back();

  iChain.makesEngine = false;
  iChain.journal.Take();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{UnpreparedPortRequest(), "create engine", "completed 0"}));

  iChain.makesPort = false;
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{UnpreparedPortRequest(), "completed 0"}));

  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"session 1 deleted", "engine 1 deleted"}));
}

TEST_P(Loader, AnInstallThatFailsBeforeItsSessionKeepsTheOldOne) {
  Make().Install();
  iChain.makesEngine = false;
  iLoader->Install();
  iChain.makesPort = false;
  iLoader->Install();
  iChain.journal.Take();
  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"session 1 deleted", "engine 1 deleted"}));
}

TEST_P(Loader, FailuresBetweenInstallsDoNotDisturbTheOrderOfDeletion) {
  Make().Install();
  iChain.makesSession = false;
  iLoader->Install();
  iLoader->Install();
  const std::unique_ptr<IXModem> second(iChain.engines[1]);
  const std::unique_ptr<IXModem> third(iChain.engines[2]);
  iChain.makesSession = true;
  iLoader->Install();
  iChain.makesEngine = false;
  iLoader->Install();
  iChain.makesEngine = true;
  iLoader->Install();
  iChain.journal.Take();
  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"session 1 deleted", "engine 1 deleted", "session 2 deleted",
                                          "engine 4 deleted", "session 3 deleted", "engine 5 deleted"}));
}

// ---- Abort ----

TEST_P(Loader, AbortIsReportedAtOnceWheneverItIsAskedFor) {
  Make();
  const JournalLog log(iChain.journal);
  iChain.journal.Take();
  iLoader->Abort();
  EXPECT_EQ(iChain.journal.Take(), (Lines{Begins("Abort"), "aborted"}));
  iLoader->Install();
  iChain.journal.Take();
  iLoader->Abort();
  EXPECT_EQ(iChain.journal.Take(), (Lines{Begins("Abort"), "aborted"}));
}

TEST_P(Loader, AbortLeavesARunningSessionAlone) {
  iChain.sessionsWork = true;
  Make();
  WithoutAnswers([this] {
    iLoader->Install();
    iLoader->Abort();
    EXPECT_EQ(iChain.journal.Take().back(), "aborted");
    EXPECT_EQ(iBroker.Summary(), (Lines{"subscribe 0/0"}));
  });
  AwaitEndOfUpload(0);
  Session(0).OnEvent(kTick);
  EXPECT_EQ(iChain.journal.Take(), (Lines{"progress " + iKind.lastProgress, "completed 1"}));
  iLoader->Abort();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"aborted"}));
}

// ---- In the module's hands ----

// One loader of a kind on the test's chain, whatever the list.
class ChainFactory : public CLoaderFactory {
 public:
  explicit ChainFactory(const LoaderKind& kind) : iKind(kind) {}
  void Create(const std::string& /*updateList*/, std::vector<ILoader*>& loaders, TFeatureId& featureId,
              IEventBroker& eventBroker, const IFeatureProperties& properties,
              ILoaderCallback& callback) override {
    loaders.push_back(iKind.make(featureId, eventBroker, properties, callback));
  }

 private:
  const LoaderKind& iKind;
};

class LoaderInAModule : public LoaderFixture, public testing::WithParamInterface<const LoaderKind*> {
 protected:
  LoaderInAModule() : LoaderFixture(*GetParam()) {
    iChain.sessionsWork = true;
    iProperties.Set("updatelist", "one");
    iModule = std::make_unique<CPeripheralLoader>("feature", iInterfaces, iBroker, iProperties,
                                                  new ChainFactory(iKind));
    Send(201);
    iBroker.Clear();
  }
  ~LoaderInAModule() override { iModule.reset(); }

  void Send(std::uint32_t id) { iModule->OnEvent({3, id, 7, "feature"}); }

  // The session's end is seen by a tick, and no other session's.
  void End(std::size_t session) {
    AwaitEndOfUpload(session);
    WithoutAnswers([&] { Session(session).OnEvent(kTick); });
  }

  // The controller installs again from inside the first result's delivery, once.
  void InstallAgainOnceFromInsideTheResult() {
    iBroker.OnPost([this, again = false](const RecordingBroker::Call& call) mutable {
      if (call.id == 204 && !again) {
        again = true;
        Send(203);
      }
    });
  }

  // Calls of the timer's subscription by `session`, in order.
  Lines TimerCallsOf(const CXModemSwl& session) const {
    Lines calls;
    const Lines summary = iBroker.Summary();
    for (std::size_t i = 0; i < summary.size(); ++i) {
      if (iBroker.Calls()[i].observer == &session) {
        calls.push_back(summary[i]);
      }
    }
    return calls;
  }

  FakeInterfaceBroker iInterfaces;
  std::unique_ptr<CPeripheralLoader> iModule;
};

INSTANTIATE_TEST_SUITE_P(Every, LoaderInAModule, testing::Values(&kCanLoader, &kSanyoLoader), NameOf);

const Lines kTimerOfAnEndedSession = {"subscribe 0/0", "unsubscribe 0/0"};

TEST_P(LoaderInAModule, MayBeInstalledAgainFromInsideTheDeliveryOfItsResult) {
  for (const bool succeeds : {true, false}) {
    SCOPED_TRACE(succeeds);
    iChain.succeeds = succeeds;
    iChain.sessions.clear();
    InstallAgainOnceFromInsideTheResult();
    WithoutAnswers([this] { Send(203); });
    ASSERT_EQ(iChain.sessions.size(), 1U);
    End(0);
    ASSERT_EQ(iChain.sessions.size(), 2U);
    // The old session went on to its own end after the new one had started, and left that one's timer alone.
    EXPECT_EQ(TimerCallsOf(Session(0)), kTimerOfAnEndedSession);
    EXPECT_EQ(TimerCallsOf(Session(1)), (Lines{"subscribe 0/0"}));
    EXPECT_EQ(iBroker.Summary().back(), "unsubscribe 0/0");
    End(1);
    EXPECT_EQ(TimerCallsOf(Session(1)), kTimerOfAnEndedSession);
    const Lines summary = iBroker.Summary();
    const std::string result = succeeds ? "post 3/204 flag 1" : "post 3/204 flag 0";
    EXPECT_EQ(std::count(summary.begin(), summary.end(), result), 2);
    iBroker.Clear();
  }
  iChain.journal.Take();
  iModule.reset();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{"engine 1 deleted", "engine 2 deleted", "engine 3 deleted", "engine 4 deleted"}));
}

TEST_P(LoaderInAModule, IsAskedToAbortAndReportsItsEndAllTheSame) {
  WithoutAnswers([this] {
    Send(203);
    Send(206);
  });
  EXPECT_EQ(iBroker.Summary().back(), "post 3/207 flag 1");
  End(0);
  EXPECT_EQ(LastOf(iBroker.Summary(), 3), (Lines{"post 3/205 " + std::to_string(iKind.lastPercent) + " %",
                                                 "post 3/204 flag 1", "unsubscribe 0/0"}));
}

TEST_P(LoaderInAModule, IsDeletedWhileItsSessionRuns) {
  std::unique_lock<std::mutex> closed(iChain.gate);
  Send(203);
  iChain.journal.Take();
  closed.unlock();
  iModule.reset();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"engine 1 deleted"}));
  EXPECT_EQ(LastOf(iBroker.Summary(), 4),
            (Lines{"unsubscribe 3/201", "unsubscribe 3/203", "unsubscribe 3/206", "unsubscribe 0/0"}));
}

}  // namespace
