// Goal: the loader of a CAN controller checks its properties in one pass, builds port, engine and session in
// order, never releases what is not its own, and keeps replaced sessions until its end.
// Method: creation functions of the test stand in for the platform and the session; they and the fakes that
// they make write into one journal. Files and the port to be checked are real files.
#include "CanXModemLoader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

#include "FileHandler.h"
#include "Files.h"
#include "Journal.h"
#include "PeripheralLoader.h"

namespace {

using Entries = std::vector<std::string>;

constexpr TEvent kTick = {0, 0, 0, nullptr};

struct FakePort : ISerialPort {
  TInt32 Write(const TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*written*/) override { return -1; }
  TInt32 Read(TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*received*/) override { return -1; }
};

// What the creation functions do, and what they did, in the running test.
struct Chain {
  Journal journal;
  std::optional<FakePort> port = FakePort();
  bool makesEngine = true;
  bool makesSession = true;
  bool sessionsWork = false;  ///< sessions run for real, over an engine that answers at once
  bool succeeds = true;       ///< what the engine answers
  std::mutex gate;            ///< the engine answers while nobody holds it
  int engines = 0;
  int sessions = 0;
  std::vector<IXModem*> engineList;
  std::vector<CXModemSwl*> sessionList;
};
Chain* chain = nullptr;

class FakeEngine : public IXModem {
 public:
  explicit FakeEngine(int number) : iNumber(number) {}
  ~FakeEngine() override { chain->journal.Note("engine " + std::to_string(iNumber) + " deleted"); }

  TXModemError SendFile(const TChr* /*name*/, IXModemCallback& callback) override {
    callback.IXModemProgress(0, 1);
    return EXModemOk;
  }
  TXModemError SendBuffer(const TUint8* /*buffer*/, TInt32 /*size*/) override { return EXModemOk; }
  TXModemError ReceiveFile(const TChr* /*name*/) override { return EXModemFileError; }
  TXModemError ReceiveBuffer(TUint8* buffer, TInt32 /*capacity*/, TInt32* received) override {
    const std::lock_guard<std::mutex> pass(chain->gate);
    std::copy_n("000", 4, buffer);
    *received = 4;
    return chain->succeeds ? EXModemOk : EXModemTimeout;
  }

 private:
  int iNumber;
};

// A session of which only the start and the end are seen.
class IdleSession : public CCanXModemSwl {
 public:
  template <typename... TArguments>
  explicit IdleSession(int number, TArguments&&... arguments)
      : CCanXModemSwl(std::forward<TArguments>(arguments)...), iNumber(number) {}
  ~IdleSession() override { Did("deleted"); }

  void StartUpload() override { Did("started"); }

 private:
  void Did(const std::string& what) {
    chain->journal.Note("session " + std::to_string(iNumber) + " " + what);
  }

  int iNumber;
};

// A session that runs its whole sequence and tells when its worker has done so.
class WorkingSession : public CCanXModemSwl {
 public:
  using CCanXModemSwl::CCanXModemSwl;
  ~WorkingSession() override { JoinWorker(); }

  void Upload() override {
    CCanXModemSwl::Upload();
    const std::lock_guard<std::mutex> lock(iMutex);
    iEnded = true;
    iChange.notify_all();
  }

  void AwaitEndOfUpload() {
    std::unique_lock<std::mutex> lock(iMutex);
    iChange.wait(lock, [this] { return iEnded; });
  }

 private:
  std::mutex iMutex;
  std::condition_variable iChange;
  bool iEnded = false;
};

ISerialPort* CreatePort(const TChr* name, TInt32 speed, TBool first, TBool second) {
  chain->journal.Note("create port \"" + std::string(AsChar(name)) + "\" " + std::to_string(speed) + " " +
                      std::to_string(first) + " " + std::to_string(second));
  return chain->port ? &*chain->port : nullptr;
}

IXModem* CreateEngine(ISerialPort* port) {
  chain->journal.Note(port == &*chain->port ? "create engine" : "create engine on another port");
  if (!chain->makesEngine) {
    return nullptr;
  }
  chain->engineList.push_back(new FakeEngine(++chain->engines));
  return chain->engineList.back();
}

CCanXModemSwl* CreateSession(IXModem* engine, IEventBroker& broker, ILoaderCallback& callback,
                             const std::string& loader, const std::string& image, const std::string& ram,
                             const std::string& flash) {
  chain->journal.Note("create session \"" + loader + "\" \"" + image + "\" \"" + ram + "\" \"" + flash +
                      "\"" + (engine == chain->engineList.back() ? "" : " on another engine"));
  if (!chain->makesSession) {
    return nullptr;
  }
  CCanXModemSwl* session = nullptr;
  if (chain->sessionsWork) {
    session = new WorkingSession(engine, broker, callback, loader, image, ram, flash);
  } else {
    session = new IdleSession(++chain->sessions, engine, broker, callback, loader, image, ram, flash);
  }
  chain->sessionList.push_back(session);
  return session;
}

class NotingCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 remainingSize, TUint32 totalSize) override {
    chain->journal.Note("progress " + std::to_string(remainingSize) + " of " + std::to_string(totalSize));
  }
  void Completed(TBool successful) override {
    chain->journal.Note("completed " + std::to_string(successful));
  }
  void Aborted() override { chain->journal.Note("aborted"); }
};

const char* const kKeys[] = {"xmodemsource-image", "xmodemsource-loader", "xmodemspeed",
                             "xmodemportname",     "xmodemramaddress",    "xmodemflashaddress"};

class CanLoader : public testing::Test {
 protected:
  CanLoader() {
    chain = &iChain;
    iProperties.Set("xmodemsource-image", iFolder.Write("image", "i"));
    iProperties.Set("xmodemsource-loader", iFolder.Write("loader", "l"));
    iProperties.Set("xmodemspeed", "9600");
    iProperties.Set("xmodemportname", iFolder.Write("port", "p"));
    iProperties.Set("xmodemramaddress", "1000");
    iProperties.Set("xmodemflashaddress", "2000");
  }
  ~CanLoader() override {
    iLoader.reset();
    chain = nullptr;
  }

  CCanXModemLoader& Make() {
    iLoader.reset(new CCanXModemLoader(iFeatureId, iBroker, iProperties, iCallback, CreatePort, CreateEngine,
                                       CreateSession));
    return *iLoader;
  }

  // The log lines of one Prepare, from Info up.
  Entries MessagesOfPrepare(CCanXModemLoader& loader, TBool expected) {
    LogCapture log;
    EXPECT_EQ(loader.Prepare(), expected);
    EXPECT_EQ(log.Trace().front(), "Interface CCanXModemLoader::Prepare ()");
    EXPECT_EQ(log.Lines().size(), log.Messages().size() + 1) << "one line without a text";
    return log.Messages();
  }

  // No session comes to its end while `action` runs, so that none completes from within its own start.
  template <typename TAction>
  void WithoutAnswers(TAction action) {
    const std::lock_guard<std::mutex> closed(iChain.gate);
    action();
  }

  WorkingSession& Session(std::size_t index) {
    return static_cast<WorkingSession&>(*iChain.sessionList.at(index));
  }

  // What the loader hands on tells what it has read.
  std::string PortRequestOf(CCanXModemLoader& loader) {
    iChain.journal.Take();
    loader.Install();
    return iChain.journal.Take().front();
  }

  Chain iChain;
  TemporaryFolder iFolder;
  RecordingBroker iBroker;
  FakeProperties iProperties;
  NotingCallback iCallback;
  TFeatureId iFeatureId = "feature";
  std::unique_ptr<CCanXModemLoader> iLoader;
};

const Entries kGood = {"Info (All properties are ok)"};
const char kNotAll[] = "Error (Not all required properties found!)";
const char kNotOk[] = "Info (All properties are not ok)";

std::string SlowSpeed(const std::string& number) {
  return "Error (Serial port speed too low! Speed is " + number + ")";
}
std::string BadImage(const std::string& path) {
  return "Error (Invalid source image: " + path + ")";
}
std::string BadLoader(const std::string& path) {
  return "Error (Invalid source loader: " + path + ")";
}
std::string BadPort(const std::string& name) {
  return "Error (Invalid serial port name: " + name + ")";
}

// ---- Life ----

TEST_F(CanLoader, ConstructionOnlyLogs) {
  LogCapture log;
  Make();
  EXPECT_EQ(log.Trace(), (Entries{"Interface CCanXModemLoader::CCanXModemLoader ()"}));
  EXPECT_EQ(iProperties.asked, Entries());
  EXPECT_EQ(iChain.journal.Take(), Entries());
  EXPECT_EQ(iBroker.Summary(), Entries());
}

TEST_F(CanLoader, DestructionWithoutInstallOnlyLogs) {
  Make();
  LogCapture log;
  iLoader.reset();
  EXPECT_EQ(log.Trace(), (Entries{"Interface CCanXModemLoader::~CCanXModemLoader ()"}));
  EXPECT_EQ(iChain.journal.Take(), Entries());
  EXPECT_EQ(iBroker.Summary(), Entries());
}

TEST_F(CanLoader, StorageIsTheCAllocators) {
  static_assert(noexcept(CCanXModemLoader::operator new(1)));
  // AddressSanitizer sees when the two do not fit. The compiler, which takes each such pair for an error,
  // does not see through the pointers.
  void* (*const volatile make)(std::size_t) = &CCanXModemLoader::operator new;
  void (*const volatile release)(void*) = &CCanXModemLoader::operator delete;
  std::free(make(100));
  release(std::malloc(100));
  ILoader* const loader = &Make();
  iLoader.release();
  delete loader;
  const CCanXModemLoader onTheStack(iFeatureId, iBroker, iProperties, iCallback, CreatePort, CreateEngine,
                                    CreateSession);
}

// ---- Prepare ----

TEST_F(CanLoader, AGoodPreparationAsksInOrderAndSaysOk) {
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
  EXPECT_EQ(iProperties.asked, Entries(std::begin(kKeys), std::end(kKeys)));
  EXPECT_EQ(iProperties.askedFeatures, Entries(6, "feature"));
}

TEST_F(CanLoader, PreparationLogsItsEntryFirstAndItsVerdictLast) {
  LogCapture log;
  Make();
  log.Clear();
  iLoader->Prepare();
  ASSERT_EQ(log.Lines().size(), 2U);
  EXPECT_EQ(log.Lines().front().level, logging::EInterface);
  EXPECT_EQ(log.Lines().front().function, "CCanXModemLoader::Prepare");
  EXPECT_EQ(log.Lines().back().level, logging::EInfo);
  EXPECT_EQ(log.Lines().back().message, "All properties are ok");
  EXPECT_EQ(log.Lines().back().module, logging::PeripheralLoader);
}

TEST_F(CanLoader, PreparationMakesNothing) {
  EXPECT_EQ(Make().Prepare(), ETrue);
  EXPECT_EQ(iChain.journal.Take(), Entries());
  EXPECT_EQ(iBroker.Summary(), Entries());
}

TEST_F(CanLoader, PreparationLeavesNothingOpenAndTheFilesAsTheyAre) {
  const std::size_t before = OpenDescriptors();
  EXPECT_EQ(Make().Prepare(), ETrue);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(
      ContentOf(iFolder.Path("image")) + ContentOf(iFolder.Path("loader")) + ContentOf(iFolder.Path("port")),
      "ilp");
}

TEST_F(CanLoader, ReadingStopsAtTheFirstMissingPropertyAndTheChecksGoOn) {
  // Complaints behind "Not all required properties found!", for each missing key.
  const Entries complaints[] = {
      {SlowSpeed("0"), BadImage(""), BadLoader(""), BadPort("")},
      {SlowSpeed("0"), BadLoader(""), BadPort("")},
      {SlowSpeed("0"), BadPort("")},
      {BadPort("")},
      {},
      {},
  };
  for (std::size_t missing = 0; missing < std::size(kKeys); ++missing) {
    SCOPED_TRACE(kKeys[missing]);
    FakeProperties incomplete = iProperties;
    incomplete.Remove(kKeys[missing]);
    CCanXModemLoader loader(iFeatureId, iBroker, incomplete, iCallback, CreatePort, CreateEngine,
                            CreateSession);
    Entries expected = {kNotAll};
    expected.insert(expected.end(), complaints[missing].begin(), complaints[missing].end());
    expected.emplace_back(kNotOk);
    EXPECT_EQ(MessagesOfPrepare(loader, EFalse), expected);
    EXPECT_EQ(incomplete.asked, Entries(kKeys, kKeys + missing + 1));
  }
}

TEST_F(CanLoader, WhatWasReadBeforeTheMissingPropertyIsKept) {
  iProperties.Remove("xmodemflashaddress");
  EXPECT_EQ(Make().Prepare(), EFalse);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take()[2], "create session \"" + iFolder.Path("loader") + "\" \"" +
                                          iFolder.Path("image") + "\" \"1000\" \"\"");
}

TEST_F(CanLoader, ASecondPreparationKeepsOldTextsBehindAMissingOneButNotTheSpeed) {
  Make().Prepare();
  iProperties.Remove("xmodemsource-loader");
  iProperties.Set("xmodemportname", "/not/read");
  EXPECT_EQ(MessagesOfPrepare(*iLoader, EFalse), (Entries{kNotAll, SlowSpeed("0"), kNotOk}));
  EXPECT_EQ(PortRequestOf(*iLoader), "create port \"" + iFolder.Path("port") + "\" 0 0 1");
}

TEST_F(CanLoader, ASecondPreparationReadsEverythingAnew) {
  Make().Prepare();
  iProperties.Set("xmodemspeed", "19200");
  iProperties.Set("xmodemportname", iFolder.Write("other", ""));
  EXPECT_EQ(iLoader->Prepare(), ETrue);
  EXPECT_EQ(PortRequestOf(*iLoader), "create port \"" + iFolder.Path("other") + "\" 19200 0 1");
}

TEST_F(CanLoader, AMissingSpeedIsZeroAndNotTheDefault) {
  iProperties.Remove("xmodemspeed");
  EXPECT_EQ(Make().Prepare(), EFalse);
  EXPECT_EQ(PortRequestOf(*iLoader), "create port \"\" 0 0 1");
}

struct Speed {
  const char* text;
  TInt32 speed;
};

const Speed kGoodSpeeds[] = {
    {"75", 75},
    {"115200", 115200},
    {"9600abc", 9600},
    {" 9600", 9600},
    {"+9600", 9600},
    {"9600.5", 9600},
    {"0075", 75},
    {"2147483647", 2147483647},
    {"2147483648", 2147483647},
    {"4294967296", 2147483647},
    {"4294967371", 2147483647},
    {"99999999999", 2147483647},
    {"99999999999999999999999", 2147483647},
};

const Speed kLowSpeeds[] = {
    {"74", 74},   {"0", 0},      {"", 0},
    {"abc", 0},   {"-5", -5},    {"-115200", -115200},
    {"1e6", 1},   {"0x2580", 0}, {"-2147483649", -2147483647 - 1},
    {"\t12", 12}, {"x9600", 0},  {"-99999999999", -2147483647 - 1},
};

TEST_F(CanLoader, SpeedsFrom75UpAreTaken) {
  for (const Speed& good : kGoodSpeeds) {
    SCOPED_TRACE(good.text);
    iProperties.Set("xmodemspeed", good.text);
    EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
    EXPECT_EQ(PortRequestOf(*iLoader),
              "create port \"" + iFolder.Path("port") + "\" " + std::to_string(good.speed) + " 0 1");
  }
}

TEST_F(CanLoader, SpeedsBelow75AreRefusedByNumber) {
  for (const Speed& low : kLowSpeeds) {
    SCOPED_TRACE(low.text);
    iProperties.Set("xmodemspeed", low.text);
    EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Entries{SlowSpeed(std::to_string(low.speed)), kNotOk}));
  }
}

TEST_F(CanLoader, FilesThatAreNotThereAreNamed) {
  iProperties.Set("xmodemsource-image", "/no/image");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Entries{BadImage("/no/image"), kNotOk}));
  iProperties.Set("xmodemsource-loader", "/no/loader");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse),
            (Entries{BadImage("/no/image"), BadLoader("/no/loader"), kNotOk}));
}

TEST_F(CanLoader, AFolderIsNoSourceFile) {
  iProperties.Set("xmodemsource-image", iFolder.Path());
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Entries{BadImage(iFolder.Path()), kNotOk}));
}

TEST_F(CanLoader, AllFaultsAreToldInOnePass) {
  iProperties.Set("xmodemsource-image", "/no/image");
  iProperties.Set("xmodemsource-loader", "/no/loader");
  iProperties.Set("xmodemspeed", "slow");
  iProperties.Set("xmodemportname", "/no/port");
  iProperties.Remove("xmodemramaddress");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse),
            (Entries{kNotAll, SlowSpeed("0"), BadImage("/no/image"), BadLoader("/no/loader"),
                     BadPort("/no/port"), kNotOk}));
}

TEST_F(CanLoader, TheFileSystemIsAskedAndNotTheCacheOfFiles) {
  const std::string image = iFolder.Path("image");
  ASSERT_EQ(IFileHandler::FileSize(AsTChr(image)), 1);
  std::filesystem::remove(image);
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Entries{BadImage(image), kNotOk}));
}

TEST_F(CanLoader, APortNeedsOnlyToBeReadable) {
  std::filesystem::permissions(iFolder.Path("port"), std::filesystem::perms(0444));
  const OrdinaryUser user;
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
}

TEST_F(CanLoader, APortThatMayNotBeReadIsRefused) {
  std::filesystem::permissions(iFolder.Path("port"), std::filesystem::perms(0222));
  const OrdinaryUser user;
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Entries{BadPort(iFolder.Path("port")), kNotOk}));
}

TEST_F(CanLoader, PathsAreTakenAsTheyAre) {
  const std::string strange = iFolder.Write(" a;b \tc ", "");
  for (const char* key : {"xmodemsource-image", "xmodemsource-loader", "xmodemportname"}) {
    iProperties.Set(key, strange);
  }
  iProperties.Set("xmodemramaddress", " 1 ");
  iProperties.Set("xmodemflashaddress", ";");
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
  iLoader->Install();
  const Entries journal = iChain.journal.Take();
  EXPECT_EQ(journal[0], "create port \"" + strange + "\" 9600 0 1");
  EXPECT_EQ(journal[2], "create session \"" + strange + "\" \"" + strange + "\" \" 1 \" \";\"");
}

TEST_F(CanLoader, TheFeatureIdIsCopied) {
  Make();
  iFeatureId = "changed";
  iLoader->Prepare();
  EXPECT_EQ(iProperties.askedFeatures, Entries(6, "feature"));
}

// ---- Install ----

TEST_F(CanLoader, InstallBuildsTheChainAndStartsTheSession) {
  Make().Prepare();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(),
            (Entries{"Info CCanXModemLoader::Install (CanXModemLoader)",
                     "create port \"" + iFolder.Path("port") + "\" 9600 0 1", "create engine",
                     "create session \"" + iFolder.Path("loader") + "\" \"" + iFolder.Path("image") +
                         "\" \"1000\" \"2000\"",
                     "Interface CXModemSwl::CXModemSwl ()", "Interface CCanXModemSwl::CCanXModemSwl ()",
                     "session 1 started"}));
}

TEST_F(CanLoader, InstallWithoutPrepareUsesTheDefaultSpeedAndEmptyTexts) {
  Make().Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"create port \"\" 115200 0 1", "create engine",
                                            "create session \"\" \"\" \"\" \"\"", "session 1 started"}));
}

TEST_F(CanLoader, InstallAfterAFailedPreparationUsesWhatWasRead) {
  iProperties.Set("xmodemspeed", "50");
  EXPECT_EQ(Make().Prepare(), EFalse);
  EXPECT_EQ(PortRequestOf(*iLoader), "create port \"" + iFolder.Path("port") + "\" 50 0 1");
}

TEST_F(CanLoader, TheSessionGetsTheLoadersBrokerAndCallback) {
  iChain.sessionsWork = true;
  iChain.succeeds = false;
  Make();
  WithoutAnswers([this] { iLoader->Install(); });
  Session(0).AwaitEndOfUpload();
  Session(0).OnEvent(kTick);
  EXPECT_EQ(iChain.journal.Take().back(), "completed 0");
  EXPECT_EQ(iBroker.Summary(), (Entries{"subscribe 0/0", "unsubscribe 0/0"}));
}

TEST_F(CanLoader, WithoutAPortItFailsOnceAndSilently) {
  iChain.port.reset();
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"Info CCanXModemLoader::Install (CanXModemLoader)",
                                            "create port \"\" 115200 0 1", "completed 0"}));
}

TEST_F(CanLoader, WithoutAnEngineItFailsOnceAndSilently) {
  iChain.makesEngine = false;
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"Info CCanXModemLoader::Install (CanXModemLoader)",
                                            "create port \"\" 115200 0 1", "create engine", "completed 0"}));
}

TEST_F(CanLoader, WithoutASessionItFailsOnceAndReleasesNothing) {
  iChain.makesSession = false;
  Make();
  {
    const JournalLog log(iChain.journal);
    iLoader->Install();
    iLoader.reset();
  }
  EXPECT_EQ(iChain.journal.Take(),
            (Entries{"Info CCanXModemLoader::Install (CanXModemLoader)", "create port \"\" 115200 0 1",
                     "create engine", "create session \"\" \"\" \"\" \"\"", "completed 0",
                     "Interface CCanXModemLoader::~CCanXModemLoader ()"}));
  delete iChain.engineList.front();
}

TEST_F(CanLoader, DestructionDeletesTheSessionAndWithItTheEngineButNotThePort) {
  Make().Install();
  iChain.journal.Take();
  iBroker.Clear();
  {
    const JournalLog log(iChain.journal);
    iLoader.reset();
  }
  EXPECT_EQ(iChain.journal.Take(),
            (Entries{"Interface CCanXModemLoader::~CCanXModemLoader ()", "session 1 deleted",
                     "Interface CXModemSwl::~CXModemSwl ()", "Interface CXModemSwl::UnsubscribeTimerEvent ()",
                     "engine 1 deleted"}));
  EXPECT_EQ(iBroker.Summary(), (Entries{"unsubscribe 0/0"}));
}

// ---- Install again ----

TEST_F(CanLoader, ASecondInstallBuildsASecondChainAndDeletesNothing) {
  Make().Install();
  iChain.journal.Take();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"create port \"\" 115200 0 1", "create engine",
                                            "create session \"\" \"\" \"\" \"\"", "session 2 started"}));
}

TEST_F(CanLoader, AllSessionsAreDeletedWithTheLoaderOldestFirst) {
  Make();
  for (int i = 0; i < 4; ++i) {
    iLoader->Install();
  }
  iChain.journal.Take();
  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(),
            (Entries{"session 1 deleted", "engine 1 deleted", "session 2 deleted", "engine 2 deleted",
                     "session 3 deleted", "engine 3 deleted", "session 4 deleted", "engine 4 deleted"}));
}

TEST_F(CanLoader, AFailedSecondInstallDoesNotStartTheOldSessionAgain) {
  Make().Install();
  iChain.journal.Take();
  const std::string port = "create port \"\" 115200 0 1";
  const std::string session = "create session \"\" \"\" \"\" \"\"";

  iChain.makesSession = false;
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{port, "create engine", session, "completed 0"}));
  delete iChain.engineList.back();

  iChain.makesEngine = false;
  iChain.journal.Take();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{port, "create engine", "completed 0"}));

  iChain.port.reset();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Entries{port, "completed 0"}));

  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"session 1 deleted", "engine 1 deleted"}));
}

TEST_F(CanLoader, FailuresBetweenInstallsDoNotDisturbTheOrderOfDeletion) {
  Make().Install();
  iChain.makesSession = false;
  iLoader->Install();
  iLoader->Install();
  const std::unique_ptr<IXModem> second(iChain.engineList[1]);
  const std::unique_ptr<IXModem> third(iChain.engineList[2]);
  iChain.makesSession = true;
  iLoader->Install();
  iChain.makesEngine = false;
  iLoader->Install();
  iChain.makesEngine = true;
  iLoader->Install();
  iChain.journal.Take();
  iLoader.reset();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"session 1 deleted", "engine 1 deleted", "session 2 deleted",
                                            "engine 4 deleted", "session 3 deleted", "engine 5 deleted"}));
}

// ---- Abort ----

TEST_F(CanLoader, AbortBeforeInstallIsReportedToo) {
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Abort();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"Info CCanXModemLoader::Abort (CanXModemLoader)", "aborted"}));
}

TEST_F(CanLoader, AbortLeavesARunningSessionAlone) {
  iChain.sessionsWork = true;
  Make();
  WithoutAnswers([this] {
    iLoader->Install();
    iLoader->Abort();
    EXPECT_EQ(iChain.journal.Take().back(), "aborted");
    EXPECT_EQ(iBroker.Summary(), (Entries{"subscribe 0/0"}));
  });
  Session(0).AwaitEndOfUpload();
  Session(0).OnEvent(kTick);
  EXPECT_EQ(iChain.journal.Take(), (Entries{"progress 0 of 145", "completed 1"}));
}

// ---- In the module's hands ----

// One CAN loader on the test's chain, whatever the list.
class ChainFactory : public CLoaderFactory {
 public:
  void Create(const std::string& /*updateList*/, std::vector<ILoader*>& loaders, TFeatureId& featureId,
              IEventBroker& eventBroker, const IFeatureProperties& properties,
              ILoaderCallback& callback) override {
    loaders.push_back(new CCanXModemLoader(featureId, eventBroker, properties, callback, CreatePort,
                                           CreateEngine, CreateSession));
  }
};

class CanLoaderInAModule : public CanLoader {
 protected:
  CanLoaderInAModule() {
    iChain.sessionsWork = true;
    iProperties.Set("updatelist", "xmodem");
    iModule =
        std::make_unique<CPeripheralLoader>("feature", iInterfaces, iBroker, iProperties, new ChainFactory);
    Send(201);
    iBroker.Clear();
  }
  ~CanLoaderInAModule() override { iModule.reset(); }

  void Send(std::uint32_t id) { iModule->OnEvent({3, id, 7, "feature"}); }

  // The session's end is seen by a tick, and no other session's.
  void End(WorkingSession& session) {
    session.AwaitEndOfUpload();
    WithoutAnswers([&] { session.OnEvent(kTick); });
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
  Entries TimerCallsOf(const CXModemSwl& session) const {
    Entries calls;
    const Entries summary = iBroker.Summary();
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

const Entries kTimerOfAnEndedSession = {"subscribe 0/0", "unsubscribe 0/0"};

TEST_F(CanLoaderInAModule, MayBeInstalledAgainFromInsideTheDeliveryOfItsResult) {
  for (const bool succeeds : {true, false}) {
    SCOPED_TRACE(succeeds);
    iChain.succeeds = succeeds;
    iChain.sessionList.clear();
    InstallAgainOnceFromInsideTheResult();
    WithoutAnswers([this] { Send(203); });
    ASSERT_EQ(iChain.sessionList.size(), 1U);
    End(Session(0));
    ASSERT_EQ(iChain.sessionList.size(), 2U);
    // The old session went on to its own end after the new one had started, and left that one's timer alone.
    EXPECT_EQ(TimerCallsOf(Session(0)), kTimerOfAnEndedSession);
    EXPECT_EQ(TimerCallsOf(Session(1)), (Entries{"subscribe 0/0"}));
    EXPECT_EQ(iBroker.Summary().back(), "unsubscribe 0/0");
    End(Session(1));
    EXPECT_EQ(TimerCallsOf(Session(1)), kTimerOfAnEndedSession);
    const Entries summary = iBroker.Summary();
    const std::string result = succeeds ? "post 3/204 flag 1" : "post 3/204 flag 0";
    EXPECT_EQ(std::count(summary.begin(), summary.end(), result), 2);
    iBroker.Clear();
  }
  iChain.journal.Take();
  iModule.reset();
  EXPECT_EQ(iChain.journal.Take(),
            (Entries{"engine 1 deleted", "engine 2 deleted", "engine 3 deleted", "engine 4 deleted"}));
}

TEST_F(CanLoaderInAModule, IsAskedToAbortAndReportsItsEndAllTheSame) {
  WithoutAnswers([this] {
    Send(203);
    Send(206);
  });
  EXPECT_EQ(iBroker.Summary().back(), "post 3/207 flag 1");
  End(Session(0));
  EXPECT_EQ(LastOf(iBroker.Summary(), 3),
            (Entries{"post 3/205 100 %", "post 3/204 flag 1", "unsubscribe 0/0"}));
}

TEST_F(CanLoaderInAModule, IsDeletedWhileItsSessionRuns) {
  std::unique_lock<std::mutex> closed(iChain.gate);
  Send(203);
  iChain.journal.Take();
  closed.unlock();
  iModule.reset();
  EXPECT_EQ(iChain.journal.Take(), (Entries{"engine 1 deleted"}));
  EXPECT_EQ(LastOf(iBroker.Summary(), 4),
            (Entries{"unsubscribe 3/201", "unsubscribe 3/203", "unsubscribe 3/206", "unsubscribe 0/0"}));
}

}  // namespace
