// Goal: the module object does what its controller asks, in order and to the byte: announcement, preparation,
// installation of one loader after another, progress, results, abort, release.
// Method: a factory in the module's hands makes fake loaders. Log lines, broker calls, properties asked for
// and calls of loaders go into one journal, which is compared as a whole.
#include "PeripheralLoader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "Files.h"
#include "Journal.h"
#include "SerialPorts.h"
#include "VirtualSlot.h"

extern "C" const char* FeatureType();
extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                                           IEventBroker& eventBroker, const IFeatureProperties& properties);

namespace {

using Entries = std::vector<std::string>;
using std::string_literals::operator""s;

constexpr char kId[] = "abc";

// "Info CPeripheralLoader::HandleLoaderFailed ()"
std::string Enter(const std::string& level, const std::string& operation) {
  return level + " CPeripheralLoader::" + operation + " ()";
}

Entries operator+(Entries left, const Entries& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Entries kAborted = {Enter("Info", "HandleLoaderAborted"), "post 3/207 flag 1"};

Entries Received(std::uint32_t id) {
  return {"Interface CPeripheralLoader::OnEvent (Event: 3)",
          "Interface CPeripheralLoader::OnEvent (UserEvent: " + std::to_string(id) + ")"};
}

Entries InstallReceived() {
  return Received(203) +
         Entries{"Always CPeripheralLoader::OnEvent (SWL: Starting upload in PeripheralLoader)",
                 Enter("Info", "HandleControllerInstall")};
}

Entries Prepared(const Entries& steps, int result) {
  const std::string flag = std::to_string(result);
  return Received(201) + Entries{Enter("Info", "HandleControllerPrepare"), Enter("Info", "ParseProperties")} +
         steps +
         Entries{"Info CPeripheralLoader::HandleControllerPrepare (Prepare result is " + flag + ")",
                 "post 3/202 flag " + flag};
}

Entries CompletedOk() {
  return {"Interface CPeripheralLoader::Completed (Successful: ETrue)",
          Enter("Info", "HandleLoaderCompleted")};
}

Entries CompletedBadly() {
  return {"Interface CPeripheralLoader::Completed (Successful: EFalse)", Enter("Info", "HandleLoaderFailed"),
          "post 3/204 flag 0"};
}

Entries LastCompleted() {
  return CompletedOk() +
         Entries{
             "post 3/204 flag 1",
             "Always CPeripheralLoader::HandleLoaderCompleted (SWL: Finished upload in PeripheralLoader)"};
}

Entries ProgressPosted(int remaining, int total, int overall, int loader) {
  return {"Interface CPeripheralLoader::Progress (RemainingSize: " + std::to_string(remaining) +
              ", TotalSize: " + std::to_string(total) + ")",
          Enter("Info", "HandleLoaderProgress"),
          "Info CPeripheralLoader::HandleLoaderProgress (Calculated progress: " + std::to_string(overall) +
              ". Received progress: " + std::to_string(loader) + ")",
          "post 3/205 " + std::to_string(overall) + " %"};
}

class FakeLoader : public ILoader {
 public:
  FakeLoader(Journal& journal, std::string name) : iJournal(journal), iName(std::move(name)) {}
  ~FakeLoader() override { Did("deleted" + (onDelete ? onDelete(this) : "")); }

  TBool Prepare() override {
    Did("prepare");
    return prepared;
  }
  void Install() override {
    Did("install");
    if (onInstall) {
      onInstall();
    }
  }
  void Abort() override {
    Did("abort");
    if (onAbort) {
      onAbort();
    }
  }

  TBool prepared = ETrue;
  std::function<void()> onInstall;
  std::function<void()> onAbort;
  std::function<std::string(const ILoader*)> onDelete;

 private:
  void Did(const std::string& what) { iJournal.Note("loader " + iName + " " + what); }

  Journal& iJournal;
  std::string iName;
};

// Makes as many loaders as it was told to, whatever the list says.
class FakeFactory : public CLoaderFactory {
 public:
  FakeFactory(Journal& journal, int loaderCount) : iJournal(journal), iCount(loaderCount) {}
  ~FakeFactory() override { iJournal.Note("factory deleted"); }

  void Create(const std::string& updateList, std::vector<ILoader*>& moduleLoaders, TFeatureId& featureId,
              IEventBroker& eventBroker, const IFeatureProperties& properties,
              ILoaderCallback& callback) override {
    iJournal.Note("create \"" + updateList + "\" for " + featureId);
    slots = &moduleLoaders;
    broker = &eventBroker;
    store = &properties;
    owner = &callback;
    for (int i = 0; i < iCount; ++i) {
      loaders.push_back(i == withoutMemory ? nullptr : new FakeLoader(iJournal, std::to_string(i)));
      moduleLoaders.push_back(loaders.back());
    }
  }

  std::vector<FakeLoader*> loaders;  ///< what was made; the module's
  std::vector<ILoader*>* slots = nullptr;
  IEventBroker* broker = nullptr;
  const IFeatureProperties* store = nullptr;
  ILoaderCallback* owner = nullptr;
  int withoutMemory = -1;  ///< the loader for which there is no memory

 private:
  Journal& iJournal;
  int iCount;
};

class Module : public testing::Test {
 protected:
  Module() { iProperties.Set("updatelist", "list"); }
  ~Module() override { iModule.reset(); }

  void Make(int loaders, const std::string& id = kId) {
    iFactory = new FakeFactory(iJournal, loaders);
    iModule = std::make_unique<CPeripheralLoader>(id, iInterfaces, iBroker, iProperties, iFactory);
    iId = id;
    iJournal.Take();
  }

  // With its loaders made and prepared, and nothing of that in the journal.
  void MakePrepared(int loaders) {
    Make(loaders);
    Send(201);
    iJournal.Take();
  }

  // With loader `index` of `loaders` installing, and nothing of that in the journal.
  void MakeInstalling(int loaders, int index = 0) {
    MakePrepared(loaders);
    Send(203);
    for (int i = 0; i < index; ++i) {
      iModule->Completed(ETrue);
    }
    iJournal.Take();
  }

  void Send(std::uint32_t id, const std::string& payload) { SendRaw(3, id, payload.data(), payload.size()); }
  void Send(std::uint32_t id) { Send(id, iId); }
  void SendRaw(std::uint32_t type, std::uint32_t id, const void* data, std::size_t length) {
    iModule->OnEvent({type, id, static_cast<TUint32>(length), data});
  }

  FakeLoader& Loader(int index) { return *iFactory->loaders.at(static_cast<std::size_t>(index)); }

  Entries Journaled() { return iJournal.Take(); }
  std::string LastPayload() const { return iBroker.Calls().back().payload; }
  int LastPercent() const { return static_cast<unsigned char>(LastPayload().back()); }

  Journal iJournal;
  JournalLog iLog{iJournal};
  JournalBroker iBroker{iJournal};
  JournalProperties iProperties{iJournal};
  FakeInterfaceBroker iInterfaces;
  FakeFactory* iFactory = nullptr;
  std::unique_ptr<CPeripheralLoader> iModule;
  std::string iId;
};

// ---- Entry and lifecycle ----

TEST(Entry, TheFeatureTypeIsPeripheralloader) {
  EXPECT_STREQ(FeatureType(), "peripheralloader");
  EXPECT_EQ(FeatureType(), FeatureType());
  const LogCapture log;
  FeatureType();
  EXPECT_EQ(log.Trace(), (Entries{"Interface FeatureType ()"}));
}

TEST_F(Module, CreationSubscribesThenAnnounces) {
  const std::unique_ptr<IFeatureModule2> module(FeatureCreate2("abc", iInterfaces, iBroker, iProperties));
  EXPECT_EQ(Journaled(), (Entries{"Interface FeatureCreate2 ()", Enter("Interface", "CPeripheralLoader"),
                                  Enter("Info", "SubscribeEvents"), "subscribe 3/201", "subscribe 3/203",
                                  "subscribe 3/206", "post 3/200 abc"}));
}

TEST_F(Module, SubscriptionsHaveNoPayloadAndNameTheObserverBase) {
  Make(0);
  IEventObserver* const observer = iModule.get();
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(iBroker.Calls()[i].length, 0U);
    EXPECT_EQ(iBroker.Calls()[i].observer, observer);
  }
}

TEST_F(Module, BasesComeInTheOrderModuleCallbackObserver) {
  Make(0);
  const void* const module = static_cast<IFeatureModule2*>(iModule.get());
  const void* const callback = static_cast<ILoaderCallback*>(iModule.get());
  const void* const observer = static_cast<IEventObserver*>(iModule.get());
  EXPECT_EQ(module, iModule.get());
  EXPECT_LT(module, callback);
  EXPECT_LT(callback, observer);
}

TEST_F(Module, TheAnnouncementIsTheWholeIdWithoutATerminator) {
  for (const std::string& id :
       {""s, "a"s, std::string(64, 'x'), std::string(65, 'y'), std::string(200, 'z'), "a\0b"s, "\0"s}) {
    iBroker.Clear();
    Make(0, id);
    const RecordingBroker::Call& last = iBroker.Calls().back();
    EXPECT_EQ(last.kind, RecordingBroker::Call::kPost);
    EXPECT_EQ(last.id, 200U);
    EXPECT_EQ(last.length, id.size());
    EXPECT_EQ(last.payload, id);
    iModule.reset();
  }
}

TEST_F(Module, TheIdIsCopied) {
  auto id = std::make_unique<std::string>("first");
  iModule = std::make_unique<CPeripheralLoader>(*id, iInterfaces, iBroker, iProperties,
                                                new FakeFactory(iJournal, 0));
  *id = "other";
  id.reset();
  Send(201, "first");
  EXPECT_EQ(LastPayload().substr(0, 6), "first\0"s);
}

TEST_F(Module, DestructionWithoutLoadersUnsubscribesAndDeletesTheFactory) {
  Make(0);
  iModule.reset();
  EXPECT_EQ(Journaled(),
            (Entries{Enter("Interface", "~CPeripheralLoader"), Enter("Info", "UnsubscribeEvents"),
                     "unsubscribe 3/201", "unsubscribe 3/203", "unsubscribe 3/206", "factory deleted"}));
}

TEST_F(Module, DestructionUnsubscribesTheSameRecordsAndObserver) {
  Make(0);
  IEventObserver* const observer = iModule.get();
  iBroker.Clear();
  iModule.reset();
  ASSERT_EQ(iBroker.Calls().size(), 3U);
  for (const RecordingBroker::Call& call : iBroker.Calls()) {
    EXPECT_EQ(call.length, 0U);
    EXPECT_EQ(call.observer, observer);
  }
}

TEST_F(Module, DestructionDeletesTheLoadersFirstToLastThenTheFactory) {
  MakeInstalling(3, 1);
  IFeatureModule2* const module = iModule.release();
  delete module;
  EXPECT_EQ(Journaled(),
            (Entries{Enter("Interface", "~CPeripheralLoader"), Enter("Info", "UnsubscribeEvents"),
                     "unsubscribe 3/201", "unsubscribe 3/203", "unsubscribe 3/206", "loader 0 deleted",
                     "loader 1 deleted", "loader 2 deleted", "factory deleted"}));
}

TEST_F(Module, ALoaderIsStillFirstInTheVectorWhileItIsDeleted) {
  MakePrepared(3);
  for (FakeLoader* loader : iFactory->loaders) {
    loader->onDelete = [slots = iFactory->slots](const ILoader* self) {
      return " as " + std::string(slots->front() == self ? "first" : "?") + " of " +
             std::to_string(slots->size());
    };
  }
  iModule.reset();
  EXPECT_EQ(LastOf(Journaled(), 4),
            (Entries{"loader 0 deleted as first of 3", "loader 1 deleted as first of 2",
                     "loader 2 deleted as first of 1", "factory deleted"}));
}

TEST_F(Module, AnEmptySlotIsSkippedAtTheEnd) {
  MakePrepared(2);
  iFactory->slots->insert(iFactory->slots->begin() + 1, nullptr);
  iModule.reset();
  EXPECT_EQ(LastOf(Journaled(), 3), (Entries{"loader 0 deleted", "loader 1 deleted", "factory deleted"}));
}

TEST_F(Module, AMissingFactoryIsNoTroubleAtTheEnd) {
  iModule = std::make_unique<CPeripheralLoader>(kId, iInterfaces, iBroker, iProperties, nullptr);
  iModule.reset();
  EXPECT_EQ(Journaled().back(), "unsubscribe 3/206");
}

TEST_F(Module, TwoModulesOnOneBrokerHearTheirOwnRequestsAndBothAbort) {
  Make(0, "one");
  CPeripheralLoader second("two", iInterfaces, iBroker, iProperties, new FakeFactory(iJournal, 0));
  const auto both = [&](std::uint32_t id, const std::string& payload) {
    iJournal.Take();
    iBroker.Clear();
    Send(id, payload);
    second.OnEvent({3, id, static_cast<TUint32>(payload.size()), payload.data()});
  };
  both(203, "two");
  EXPECT_EQ(iBroker.Summary(), (Entries{"post 3/204 flag 1"}));
  EXPECT_EQ(LastPayload().substr(0, 4), "two\0"s);
  both(206, "one");
  EXPECT_EQ(iBroker.Summary(), (Entries{"post 3/207 flag 1", "post 3/207 flag 1"}));
}

// The host's vtable layout is part of the interface.
TEST(Slots, FollowTheDeclaredOrder) {
  EXPECT_EQ(VirtualSlot(&ILoader::Prepare), 2U);
  EXPECT_EQ(VirtualSlot(&ILoader::Install), 3U);
  EXPECT_EQ(VirtualSlot(&ILoader::Abort), 4U);
  EXPECT_EQ(VirtualSlot(&ILoaderCallback::Progress), 2U);
  EXPECT_EQ(VirtualSlot(&ILoaderCallback::Completed), 3U);
  EXPECT_EQ(VirtualSlot(&ILoaderCallback::Aborted), 4U);
  EXPECT_EQ(VirtualSlot(&CLoaderFactory::Create), 2U);
  EXPECT_EQ(VirtualSlot(&IEventBroker::Subscribe), 2U);
  EXPECT_EQ(VirtualSlot(&IEventBroker::Unsubscribe), 3U);
  EXPECT_EQ(VirtualSlot(&IEventBroker::Post), 4U);
  EXPECT_EQ(VirtualSlot(&IEventObserver::OnEvent), 2U);
  EXPECT_EQ(VirtualSlot(&IFeatureProperties::Get), 2U);
  EXPECT_EQ(sizeof(IFeatureModule2), sizeof(void*));
}

// ---- Events that are not acted on ----

TEST_F(Module, AnotherTypeIsAnErrorWhateverItCarries) {
  Make(1);
  for (const std::uint32_t type : {0U, 2U, 4U, 4294967295U}) {
    SendRaw(type, 201, kId, 3);
    const std::string number = std::to_string(type);
    EXPECT_EQ(Journaled(), (Entries{"Interface CPeripheralLoader::OnEvent (Event: " + number + ")",
                                    "Error CPeripheralLoader::OnEvent (Unexpected event: " + number + ")"}));
  }
}

TEST_F(Module, AnUnknownUserEventIsAnError) {
  Make(1);
  for (const std::uint32_t id : {0U, 200U, 202U, 204U, 205U, 207U, 208U, 4294967295U}) {
    Send(id);
    EXPECT_EQ(Journaled(),
              Received(id) + Entries{"Error CPeripheralLoader::OnEvent (Unexpected user event received: " +
                                     std::to_string(id) + ")"});
  }
}

TEST_F(Module, FaultsAreAnsweredAlikeWithTheLogOff) {
  Make(1);
  logging::SetLowestLevel(logging::EAlways);
  iProperties.Remove("updatelist");
  SendRaw(2, 201, kId, 3);
  Send(202);
  Send(201);
  EXPECT_EQ(Journaled(), (Entries{"get abc updatelist", "post 3/202 flag 0"}));
}

struct Match {
  const char* what;
  std::string id;
  std::string payload;
  bool matches;
};

const Match kMatches[] = {
    {"the same", "feature", "feature", true},
    {"one character differs", "feature", "featurf", false},
    {"first character differs", "feature", "Feature", false},
    {"longer", "feature", "features", false},
    {"shorter", "feature", "featur", false},
    {"with its terminator", "feature", "feature\0"s, false},
    {"nothing", "feature", "", false},
    {"nothing for an empty id", "", "", true},
    {"something for an empty id", "", "a", false},
    {"embedded zero", "a\0b"s, "a\0b"s, true},
    {"other byte behind a zero", "a\0b"s, "a\0c"s, false},
    {"cut at the zero", "a\0b"s, "a", false},
    {"70 characters", std::string(70, 'x'), std::string(70, 'x'), true},
    {"70 characters cut to the field", std::string(70, 'x'), std::string(63, 'x'), false},
    {"70 characters, the last differs", std::string(70, 'x'), std::string(69, 'x') + "y", false},
};

TEST_F(Module, PrepareAndInstallRequestsAreForExactlyThisId) {
  for (const Match& match : kMatches) {
    SCOPED_TRACE(match.what);
    Make(1, match.id);
    Send(201, match.payload);
    EXPECT_EQ(Journaled() != Received(201), match.matches);
    Send(203, match.payload);
    EXPECT_EQ(Journaled() != Received(203), match.matches);
    iModule.reset();
  }
}

TEST_F(Module, BytesBehindThePayloadsLengthDoNotCount) {
  Make(0);
  SendRaw(3, 203, "abcdef", 3);
  EXPECT_EQ(Journaled().back(), "post 3/204 flag 1");
}

TEST_F(Module, ANullPayloadCountsAsEmptyWhateverItsLength) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{3}}) {
    Make(0);
    SendRaw(3, 203, nullptr, length);
    EXPECT_EQ(Journaled(), Received(203));
    iModule.reset();
    Make(0, "");
    SendRaw(3, 203, nullptr, length);
    EXPECT_EQ(Journaled().back(), "post 3/204 flag 1");
    iModule.reset();
  }
}

// ---- Prepare ----

TEST_F(Module, PrepareReadsTheListMakesTheLoadersAndPreparesThem) {
  Make(2);
  Send(201);
  EXPECT_EQ(Journaled(),
            Prepared({"get abc updatelist", "Info CPeripheralLoader::ParseProperties (updatelist: list)",
                      "create \"list\" for abc", "loader 0 prepare", "loader 1 prepare"},
                     1));
  EXPECT_EQ(iFactory->broker, &iBroker);
  EXPECT_EQ(iFactory->store, &iProperties);
  EXPECT_EQ(iFactory->owner, static_cast<ILoaderCallback*>(iModule.get()));
}

TEST_F(Module, PrepareAgainPreparesTheSameLoadersAndReadsNothing) {
  MakePrepared(2);
  Send(201);
  EXPECT_EQ(Journaled(), Prepared({"loader 0 prepare", "loader 1 prepare"}, 1));
}

TEST_F(Module, PrepareStopsAtTheFirstLoaderThatRefusesAndKeepsAll) {
  MakePrepared(3);
  Loader(1).prepared = EFalse;
  for (int i = 0; i < 2; ++i) {
    Send(201);
    EXPECT_EQ(Journaled(), Prepared({"loader 0 prepare", "loader 1 prepare"}, 0));
  }
  EXPECT_EQ(iFactory->slots->size(), 3U);
}

TEST_F(Module, ThePrepareResultIsTheLastLoadersOwn) {
  MakePrepared(2);
  Loader(0).prepared = 7;
  Loader(1).prepared = -2;
  Send(201);
  EXPECT_EQ(Journaled(), Prepared({"loader 0 prepare", "loader 1 prepare"}, -2));
}

TEST_F(Module, AMissingListFailsAndIsAskedForAgain) {
  Make(1);
  iProperties.Remove("updatelist");
  const Entries failed =
      Prepared({"get abc updatelist",
                "Error CPeripheralLoader::ParseProperties (Failed to retrieve 'updatelist' "
                "property)"},
               0);
  Send(201);
  EXPECT_EQ(Journaled(), failed);
  Send(201);
  EXPECT_EQ(Journaled(), failed);
  iProperties.Set("updatelist", "now");
  Send(201);
  EXPECT_EQ(Journaled(),
            Prepared({"get abc updatelist", "Info CPeripheralLoader::ParseProperties (updatelist: now)",
                      "create \"now\" for abc", "loader 0 prepare"},
                     1));
}

TEST_F(Module, PreparingFailsWithoutMemoryForALoaderAndBeginsAnewTheNextTime) {
  Make(2);
  iFactory->withoutMemory = 1;
  Send(201);
  const Entries made = {"get abc updatelist", "Info CPeripheralLoader::ParseProperties (updatelist: list)",
                        "create \"list\" for abc"};
  EXPECT_EQ(Journaled(), Prepared(made + Entries{"loader 0 deleted"}, 0));
  iFactory->withoutMemory = -1;
  Send(201);
  EXPECT_EQ(Journaled(), Prepared(made + Entries{"loader 0 prepare", "loader 1 prepare"}, 1));
}

TEST_F(Module, AListWithoutLoadersIsPreparedAndReadAgainNextTime) {
  Make(0);
  iProperties.Set("updatelist", "");
  for (int i = 0; i < 2; ++i) {
    Send(201);
    EXPECT_EQ(Journaled(),
              Prepared({"get abc updatelist", "Info CPeripheralLoader::ParseProperties (updatelist: )",
                        "create \"\" for abc"},
                       1));
  }
}

TEST_F(Module, PrepareDuringAnInstallationLeavesItAlone) {
  MakeInstalling(3, 1);
  Send(201);
  EXPECT_EQ(Journaled(), Prepared({"loader 0 prepare", "loader 1 prepare", "loader 2 prepare"}, 1));
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 2 install"});
}

// ---- Install ----

TEST_F(Module, InstallWithoutLoadersSucceedsAtOnce) {
  Make(1);
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"post 3/204 flag 1"});
}

TEST_F(Module, InstallStartsTheFirstLoaderOnly) {
  MakePrepared(2);
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"loader 0 install"});
}

TEST_F(Module, InstallDoesNotMindAFailedPreparation) {
  MakePrepared(2);
  Loader(0).prepared = EFalse;
  Send(201);
  Journaled();
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"loader 0 install"});
}

TEST_F(Module, InstallDuringAnInstallationStartsOverWithoutAbort) {
  MakeInstalling(3, 2);
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"loader 0 install"});
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 1 install"});
}

TEST_F(Module, InstallAfterAFinishedOrFailedRunStartsOver) {
  for (const TBool successful : {ETrue, EFalse}) {
    MakeInstalling(2, 1);
    iModule->Completed(successful);
    Journaled();
    Send(203);
    EXPECT_EQ(Journaled(), InstallReceived() + Entries{"loader 0 install"});
    iModule.reset();
  }
}

// ---- Abort ----

TEST_F(Module, AbortBeforeAnyInstallationIsReportedAtOnce) {
  const Entries aborted = Received(206) + Entries{Enter("Info", "HandleControllerAbort")} + kAborted;
  Make(1);
  Send(206);
  EXPECT_EQ(Journaled(), aborted);
  Send(203);
  Journaled();
  Send(206);
  EXPECT_EQ(Journaled(), aborted) << "an installation of nothing starts no loader";
  Send(201);
  Journaled();
  Send(206);
  EXPECT_EQ(Journaled(), aborted) << "a prepared loader is not started";
}

TEST_F(Module, AbortDoesNotLookAtItsPayload) {
  Make(1);
  Send(206, "another id");
  EXPECT_EQ(Journaled().back(), "post 3/207 flag 1");
  SendRaw(3, 206, nullptr, 0);
  EXPECT_EQ(Journaled().back(), "post 3/207 flag 1");
  SendRaw(3, 206, reinterpret_cast<const void*>(1), 500);
  EXPECT_EQ(Journaled().back(), "post 3/207 flag 1");
}

TEST_F(Module, AbortGoesToTheInstallingLoaderAndIsReportedFromWithin) {
  MakeInstalling(2, 1);
  Loader(1).onAbort = [this] { iModule->Aborted(); };
  Send(206);
  const Entries passedOn = {Enter("Info", "HandleControllerAbort"), "loader 1 abort",
                            Enter("Interface", "Aborted")};
  EXPECT_EQ(Journaled(), Received(206) + passedOn + kAborted);
}

TEST_F(Module, AbortAfterTheEndGoesToTheLastLoaderStarted) {
  for (const TBool successful : {ETrue, EFalse}) {
    MakeInstalling(3, 1);
    iModule->Completed(successful);
    if (successful != EFalse) {
      iModule->Completed(ETrue);
    }
    Journaled();
    Send(206);
    EXPECT_EQ(Journaled().back(), successful != EFalse ? "loader 2 abort" : "loader 1 abort");
    iModule.reset();
  }
}

TEST_F(Module, AnAbortedRunIsNotRemembered) {
  MakeInstalling(2);
  Send(206);
  iModule->Aborted();
  Journaled();
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 1 install"});
  iModule->Completed(EFalse);
  EXPECT_EQ(Journaled(), CompletedBadly());
}

// ---- The loaders' reports ----

TEST_F(Module, CompletionHandsOverAndAfterTheLastPostsTheResultBeforeItsMilestone) {
  MakeInstalling(3);
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 1 install"});
  iModule->Completed(2);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 2 install"});
  iModule->Completed(-1);
  EXPECT_EQ(Journaled(), LastCompleted());
}

TEST_F(Module, AFailureEndsTheRunAndKeepsItsPlace) {
  MakeInstalling(3, 1);
  iModule->Completed(EFalse);
  EXPECT_EQ(Journaled(), CompletedBadly());
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 2 install"}) << "the place was the second loader";
}

TEST_F(Module, CompletionWithoutLoadersIsASuccess) {
  Make(0);
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), LastCompleted());
}

TEST_F(Module, ALoaderMayFailFromWithinItsInstall) {
  MakePrepared(3);
  Loader(1).onInstall = [this] { iModule->Completed(EFalse); };
  Send(203);
  Journaled();
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 1 install"} + CompletedBadly());
}

TEST_F(Module, LoadersMayCompleteFromWithinTheirInstall) {
  MakePrepared(3);
  for (int i = 0; i < 3; ++i) {
    Loader(i).onInstall = [this] { iModule->Completed(ETrue); };
  }
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"loader 0 install"} + CompletedOk() +
                             Entries{"loader 1 install"} + CompletedOk() + Entries{"loader 2 install"} +
                             LastCompleted());
  Send(206);
  EXPECT_EQ(Journaled().back(), "loader 2 abort") << "nothing is written back while the calls return";
}

TEST_F(Module, ProgressFromWithinAnInstallIsThatLoaders) {
  MakePrepared(2);
  Loader(1).onInstall = [this] { iModule->Progress(145, 145); };
  Send(203);
  iModule->Progress(0, 145);
  Journaled();
  EXPECT_EQ(LastPercent(), 50);
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 1 install"} + ProgressPosted(145, 145, 50, 0));
}

TEST_F(Module, ProgressIsLoggedAndPosted) {
  MakeInstalling(1);
  iModule->Progress(3, 145);
  EXPECT_EQ(Journaled(), ProgressPosted(3, 145, 98, 98));
}

TEST_F(Module, ProgressBeforeAnyInstallationCountsForTheFirstLoader) {
  MakePrepared(2);
  iModule->Progress(50, 100);
  EXPECT_EQ(LastPercent(), 25);
  Make(2);
  Send(203);  // finds no loaders and leaves the place alone
  Send(201);
  iModule->Progress(50, 100);
  EXPECT_EQ(LastPercent(), 25);
}

TEST_F(Module, ProgressWithoutLoadersIsDropped) {
  Make(0);
  iModule->Progress(1, 2);
  EXPECT_EQ(Journaled(), (Entries{"Interface CPeripheralLoader::Progress (RemainingSize: 1, TotalSize: 2)",
                                  Enter("Info", "HandleLoaderProgress")}));
}

struct Percentage {
  TUint32 remaining;
  TUint32 total;
  int percent;
};

const Percentage kPercentages[] = {
    // Nothing to do counts as done.
    {0, 0, 100},
    {7, 0, 100},
    {145, 145, 0},
    {0, 145, 100},
    {2, 3, 33},
    {1, 3, 67},
    {199, 200, 1},
    // The steps of a CAN upload.
    {144, 145, 1},
    {143, 145, 1},
    {142, 145, 2},
    {140, 145, 3},
    {137, 145, 6},
    {135, 145, 7},
    {134, 145, 8},
    {133, 145, 8},
    {132, 145, 9},
    {131, 145, 10},
    {67, 145, 54},
    {3, 145, 98},
    {2, 145, 99},
    {1, 145, 99},
    // Double arithmetic in this order of operations lands below the half that exact arithmetic meets.
    {17, 40, 57},
    {34, 80, 57},
    {51, 120, 57},
    {68, 160, 57},
    {85, 200, 57},
    {87, 200, 56},
    {143, 200, 28},
    {171, 200, 14},
    // More than 32 bits hold: saturated, then cut to 8 bits.
    {2, 1, 255},
    {3, 2, 255},
    {5, 2, 255},
    {101, 100, 255},
    {145, 1, 255},
    // More left than there is in all: the difference wraps; cut to 8 bits, never clamped.
    {146, 145, 202},
    {150, 145, 200},
    {200, 145, 165},
    {201, 200, 0},
    {4294967295U, 145, 101},
    {0, 4294967295U, 100},
    // A session of 150 steps, which ends one below zero.
    {150, 150, 0},
    {149, 150, 1},
    {148, 150, 1},
    {147, 150, 2},
    {76, 150, 49},
    {75, 150, 50},
    {74, 150, 51},
    {50, 150, 67},
    {2, 150, 99},
    {1, 150, 99},
    {0, 150, 100},
    {4294967295U, 150, 101},
    {2147483648U, 4294967295U, 50},
};

TEST_F(Module, ALoadersPercentageIsPrescribedDoubleArithmetic) {
  MakeInstalling(1);
  for (const Percentage& expected : kPercentages) {
    iModule->Progress(expected.remaining, expected.total);
    EXPECT_EQ(LastPercent(), expected.percent) << expected.remaining << " of " << expected.total;
  }
}

TEST_F(Module, EqualPercentagesArePostedAgain) {
  MakeInstalling(1);
  iBroker.Clear();
  for (const TUint32 remaining : {144U, 143U, 143U}) {
    iModule->Progress(remaining, 145);
  }
  EXPECT_EQ(iBroker.Summary(), (Entries{"post 3/205 1 %", "post 3/205 1 %", "post 3/205 1 %"}));
}

struct Overall {
  int loaders;
  int index;
  TUint32 remaining;
  TUint32 total;
  int percent;
};

const Overall kOveralls[] = {
    {2, 0, 1, 2, 25},
    {2, 0, 0, 1, 50},
    {2, 1, 1, 1, 50},
    {2, 1, 0, 1, 100},
    {3, 0, 0, 1, 33},
    {3, 1, 1, 2, 50},
    {3, 2, 0, 1, 100},
    {3, 1, 1, 1, 33},
    {3, 2, 1, 3, 89},
    {3, 2, 2, 1, 151},  // 255 of the third loader: 455 / 3
    {1, 0, 2, 1, 255},
    // 4 loaders of which the last is at 202 %: 502 / 4
    {4, 3, 146, 145, 125},
    // Where a session that ends with 101 % leaves the whole.
    {1, 0, 4294967295U, 150, 101},
    {2, 0, 4294967295U, 150, 50},
    {2, 1, 4294967295U, 150, 100},
    {3, 0, 4294967295U, 150, 33},
    {3, 1, 4294967295U, 150, 67},
    {3, 2, 4294967295U, 150, 100},
    {4, 0, 4294967295U, 150, 25},
    {4, 2, 4294967295U, 150, 75},
    {5, 1, 4294967295U, 150, 40},
    {7, 1, 4294967295U, 150, 28},
    {7, 2, 4294967295U, 150, 43},
    {7, 2, 0, 145, 42},
    {7, 6, 4294967295U, 150, 100},
};

TEST_F(Module, TheOverallPercentageWeighsLoadersEqually) {
  for (const Overall& expected : kOveralls) {
    MakeInstalling(expected.loaders, expected.index);
    iModule->Progress(expected.remaining, expected.total);
    EXPECT_EQ(LastPercent(), expected.percent)
        << expected.remaining << " of " << expected.total << " of loader " << expected.index << " of "
        << expected.loaders;
    iModule.reset();
  }
}

// So long a list is the only way to see how wide the position is.
TEST_F(Module, LoadersAreCountedIn16Bits) {
  MakePrepared(1);
  std::vector<ILoader*>& slots = *iFactory->slots;
  ILoader* const loader = slots.front();
  Send(203);
  for (const std::size_t count : {std::size_t{65536}, std::size_t{65537}}) {
    slots.resize(count, loader);
    Journaled();
    iModule->Completed(ETrue);
    EXPECT_EQ(Journaled(), LastCompleted()) << count << " loaders look like " << count - 65536;
  }
  slots.resize(65538, loader);
  iModule->Completed(ETrue);
  EXPECT_EQ(Journaled(), CompletedOk() + Entries{"loader 0 install"});
  slots.resize(1);
}

// ---- Payloads ----

std::string Field(const std::string& id) {
  std::string field = id.substr(0, 63);
  field.resize(64, '\0');
  return field;
}

// In the processor's byte order.
std::string FlagField(std::int32_t flag) {
  return std::string(reinterpret_cast<const char*>(&flag), sizeof(flag));
}

const std::string kFieldIds[] = {"",
                                 "feature-1234.abc",  // 16 characters
                                 std::string(63, 'x'),
                                 std::string(64, 'x'),
                                 std::string(65, 'x'),
                                 std::string(200, 'x'),
                                 "a\0b"s};

TEST_F(Module, AResultIsTheIdFieldAndAFlagOf32Bits) {
  for (const std::string& id : kFieldIds) {
    SCOPED_TRACE(id);
    Make(1, id);
    Send(201);
    EXPECT_EQ(LastPayload(), Field(id) + FlagField(1));
    Loader(0).prepared = 7;
    Send(201);
    EXPECT_EQ(LastPayload(), Field(id) + FlagField(7));
    Loader(0).prepared = EFalse;
    Send(201);
    EXPECT_EQ(LastPayload(), Field(id) + FlagField(0));
    EXPECT_EQ(iBroker.Calls().back().length, 68U);
    iModule.reset();
  }
}

TEST_F(Module, EveryOtherResultHasTheSameForm) {
  MakeInstalling(1);
  iModule->Completed(ETrue);
  EXPECT_EQ(LastPayload(), Field(kId) + FlagField(1));
  iModule->Completed(EFalse);
  EXPECT_EQ(LastPayload(), Field(kId) + FlagField(0));
  iModule->Aborted();
  EXPECT_EQ(LastPayload(), Field(kId) + FlagField(1));
}

TEST_F(Module, ProgressIsTheIdFieldAndOneByte) {
  for (const std::string& id : kFieldIds) {
    SCOPED_TRACE(id);
    Make(1, id);
    Send(201);
    Send(203);
    iModule->Progress(1, 2);
    EXPECT_EQ(LastPayload(), Field(id) + "\x32");
    EXPECT_EQ(iBroker.Calls().back().length, 65U);
    iModule.reset();
  }
}

// ---- With the real factory and loader ----

class ModuleWithACanLoader : public Module {
 protected:
  ModuleWithACanLoader() {
    const std::string file = iFolder.Write("file", "content");
    iProperties.Set("updatelist", "xmodem");
    for (const char* key : {"xmodemsource-image", "xmodemsource-loader", "xmodemportname"}) {
      iProperties.Set(key, file);
    }
    iProperties.Set("xmodemspeed", "115200");
    iProperties.Set("xmodemramaddress", "1000");
    iProperties.Set("xmodemflashaddress", "2000");
    iModule.reset(dynamic_cast<CPeripheralLoader*>(FeatureCreate2(kId, iInterfaces, iBroker, iProperties)));
    iId = kId;
    iJournal.Take();
  }

  TemporaryFolder iFolder;
};

TEST_F(ModuleWithACanLoader, PreparationRunsInOrderDownToTheLoader) {
  const Entries properties = {"get abc xmodemsource-image", "get abc xmodemsource-loader",
                              "get abc xmodemspeed",        "get abc xmodemportname",
                              "get abc xmodemramaddress",   "get abc xmodemflashaddress"};
  const Entries enterPrepare = {"Interface CCanXModemLoader::Prepare ()"};
  const Entries verdict = {"Info CLoaderPreparation::Conclude (All properties are ok)"};
  Send(201);
  EXPECT_EQ(Journaled(), Prepared(Entries{"get abc updatelist",
                                          "Info CPeripheralLoader::ParseProperties (updatelist: xmodem)",
                                          "Info CLoaderFactory::Create (Added Can xmodem loader: xmodem)",
                                          "Interface CCanXModemLoader::CCanXModemLoader ()"} +
                                      enterPrepare + properties + verdict,
                                  1));
}

TEST_F(ModuleWithACanLoader, AnUnknownEntryBesideItIsSkippedAndTheLoadersOwnResultDecides) {
  iProperties.Set("updatelist", "xmodem;something");
  iProperties.Set("xmodemspeed", "74");
  Send(201);
  EXPECT_EQ(iBroker.Summary().back(), "post 3/202 flag 0");
}

TEST_F(ModuleWithACanLoader, ASanyoLoaderBesideItAsksForItsOwnPartOfTheSameProperties) {
  iProperties.Set("updatelist", "xmodem;sanyoxmodem");
  Send(201);
  EXPECT_EQ(
      LastOf(Journaled(), 7),
      (Entries{
          "Interface CSanyoXModemLoader::Prepare ()", "get abc xmodemsource-image", "get abc xmodemspeed",
          "get abc xmodemportname", "Info CLoaderPreparation::Conclude (All properties are ok)",
          "Info CPeripheralLoader::HandleControllerPrepare (Prepare result is 1)", "post 3/202 flag 1"}));
}

TEST_F(ModuleWithACanLoader, WithoutItsOwnPropertiesASanyoLoaderBesideItIsOnlyAskedWhenItComesFirst) {
  for (const char* key : {"xmodemsource-loader", "xmodemramaddress", "xmodemflashaddress"}) {
    iProperties.Remove(key);
  }
  struct {
    const char* list;
    int asksOfSanyo;
    int flag;
  } const cases[] = {{"xmodem;sanyoxmodem", 0, 0}, {"sanyoxmodem;xmodem", 1, 0}, {"sanyoxmodem", 1, 1}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.list);
    iProperties.Set("updatelist", one.list);
    iModule.reset(dynamic_cast<CPeripheralLoader*>(FeatureCreate2(kId, iInterfaces, iBroker, iProperties)));
    Journaled();
    Send(201);
    const Entries journal = Journaled();
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "Interface CSanyoXModemLoader::Prepare ()"),
              one.asksOfSanyo);
    EXPECT_EQ(journal.back(), "post 3/202 flag " + std::to_string(one.flag));
  }
}

TEST_F(ModuleWithACanLoader, WithoutAPortItFailsAndAnAbortIsStillReported) {
  SetPortFactory(nullptr);
  Send(201);
  Journaled();
  Send(203);
  EXPECT_EQ(Journaled(), InstallReceived() + Entries{"Info CCanXModemLoader::Install (CanXModemLoader)"} +
                             CompletedBadly());
  Send(206);
  const Entries passedOn = {Enter("Info", "HandleControllerAbort"),
                            "Info CCanXModemLoader::Abort (CanXModemLoader)", Enter("Interface", "Aborted")};
  EXPECT_EQ(Journaled(), Received(206) + passedOn + kAborted);
}

}  // namespace
