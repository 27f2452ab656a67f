// Goal: the controller goes the documented way from every state with every event, and tells what happens.
// Method: a broker that records; events are handed to OnEvent as the module would post them. One table holds
// every state and every event.
#include "UpdateController.h"

#include <gmock/gmock.h>

#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <thread>
#include <vector>

namespace {

using host::Goal;
using host::Outcome;
using host::TimeLimits;
using host::UpdateController;
using host::UpdateState;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class RecordingBroker final : public IEventBroker {
 public:
  void Subscribe(const TEvent& filter, IEventObserver&) override { iSubscribed.push_back(filter.id); }
  void Unsubscribe(const TEvent& filter, IEventObserver&) override { iUnsubscribed.push_back(filter.id); }
  void Post(const TEvent& event) override {
    iPosted.push_back(std::to_string(event.type) + "/" + std::to_string(event.id) + " " +
                      std::string(static_cast<const char*>(event.data), event.length));
  }

  std::vector<TUint32> iSubscribed;
  std::vector<TUint32> iUnsubscribed;
  std::vector<std::string> iPosted;
};

class RecordingListener final : public host::UpdateListener {
 public:
  void OnState(UpdateState state) override {
    iState = state;
    iOnState(state);
    iTold.push_back("state");
  }
  void OnProgress(int percent) override {
    iProgress.push_back(percent);
    iTold.push_back("progress");
  }
  void OnMilestone(const std::string& text) override { iTold.push_back(text); }
  void OnRetry(int attempt, const host::Retries& retries) override {
    iTold.push_back("attempt " + std::to_string(attempt) + " of " + std::to_string(retries.count + 1));
  }

  std::function<void(UpdateState)> iOnState = [](UpdateState) {};
  UpdateState iState = UpdateState::AwaitingAnnouncement;
  std::vector<int> iProgress;
  std::vector<std::string> iTold;
};

constexpr const char* kId = "can";

// A controller, and the module's side of the talk. Following is finished from the start, so that Follow tells
// what there is and returns.
class Talk {
 public:
  explicit Talk(Goal goal = Goal::Update, const TimeLimits& limits = TimeLimits(), std::string id = kId)
      : iId(std::move(id)), iController(iBroker, iId, goal, limits, iListener) {
    iController.FinishFollowing();
  }

  void Announce(const std::string& id) {
    iController.OnEvent({EUserEvent, EFeatureAnnounce, static_cast<TUint32>(id.size()), id.data()});
  }

  void Result(TUint32 eventId, TBool flag, const std::string& id = kId, TUint32 length = 68) {
    TFeatureResultPayload payload = {};
    std::memcpy(payload.featureId, id.data(), id.size());
    payload.flag = flag;
    iController.OnEvent({EUserEvent, eventId, length, &payload});
  }

  void Progress(int percent, const std::string& id = kId, TUint32 length = 65) {
    TFeatureProgressPayload payload = {};
    std::memcpy(payload.featureId, id.data(), id.size());
    payload.percent = static_cast<TUint8>(percent);
    iController.OnEvent({EUserEvent, EInstallProgress, length, &payload});
  }

  void Bring(UpdateState state) {
    Announce(kId);
    if (state == UpdateState::Installing || state == UpdateState::Ended) {
      Result(EPrepareResult, ETrue);
    }
    if (state == UpdateState::Aborting) {
      iController.Abort();
    }
    if (state == UpdateState::Ended) {
      Result(EInstallResult, EFalse);
    }
    iController.Follow();
    iBroker.iPosted.clear();
  }

  UpdateState State() {
    iController.Follow();
    return iListener.iState;
  }

  RecordingBroker iBroker;
  RecordingListener iListener;
  std::string iId;
  UpdateController iController;
};

TEST(UpdateController, SubscribesToWhatTheFeatureSaysForAsLongAsItLives) {
  RecordingBroker broker;
  RecordingListener listener;
  {
    UpdateController controller(broker, kId, Goal::Update, TimeLimits(), listener);
    EXPECT_THAT(broker.iSubscribed, ElementsAre(200, 202, 204, 205, 207));
    EXPECT_THAT(broker.iUnsubscribed, IsEmpty());
  }
  EXPECT_THAT(broker.iUnsubscribed, ElementsAre(200, 202, 204, 205, 207));
  EXPECT_THAT(broker.iPosted, IsEmpty());
}

TEST(UpdateController, AnUpdatePreparesThenInstalls) {
  Talk talk;
  talk.Announce(kId);
  talk.Result(EPrepareResult, ETrue);
  EXPECT_EQ(talk.iController.Result(), std::nullopt);
  talk.Progress(50);
  talk.Result(EInstallResult, ETrue);
  EXPECT_EQ(talk.iController.Wait(), Outcome::Succeeded);
  EXPECT_EQ(talk.iController.Result(), Outcome::Succeeded);
  EXPECT_THAT(talk.iBroker.iPosted, ElementsAre("3/201 can", "3/203 can"));
}

TEST(UpdateController, APreparationEndsWithItsResult) {
  Talk talk(Goal::Prepare);
  talk.Announce(kId);
  talk.Result(EPrepareResult, ETrue);
  EXPECT_EQ(talk.iController.Wait(), Outcome::Succeeded);
  EXPECT_THAT(talk.iBroker.iPosted, ElementsAre("3/201 can"));

  Talk failing(Goal::Prepare);
  failing.Announce(kId);
  failing.Result(EPrepareResult, EFalse);
  EXPECT_EQ(failing.iController.Wait(), Outcome::PrepareFailed);
}

// What the module or a person may do, by a letter.
const std::map<char, std::function<void(Talk&)>> kEvents = {
    {'A', [](Talk& talk) { talk.Announce(kId); }},
    {'P', [](Talk& talk) { talk.Result(EPrepareResult, ETrue); }},
    {'p', [](Talk& talk) { talk.Result(EPrepareResult, EFalse); }},
    {'G', [](Talk& talk) { talk.Progress(10); }},
    {'I', [](Talk& talk) { talk.Result(EInstallResult, ETrue); }},
    {'i', [](Talk& talk) { talk.Result(EInstallResult, EFalse); }},
    {'X', [](Talk& talk) { talk.Result(EAbortResult, ETrue); }},
    {'x', [](Talk& talk) { talk.Result(EAbortResult, EFalse); }},
    {'C', [](Talk& talk) { talk.iController.Abort(); }},
};

struct Step {
  char event;
  UpdateState next;
  const char* posted;                   ///< empty: nothing
  Outcome outcome = Outcome::NoResult;  ///< of Ended
};

// What is not named leaves the state as it is and posts nothing.
const std::map<UpdateState, std::vector<Step>> kSteps = {
    {UpdateState::AwaitingAnnouncement,
     {{'A', UpdateState::Preparing, "3/201 can"}, {'C', UpdateState::Aborting, "3/206 can"}}},
    {UpdateState::Preparing,
     {{'P', UpdateState::Installing, "3/203 can"},
      {'p', UpdateState::Ended, "", Outcome::PrepareFailed},
      {'C', UpdateState::Aborting, "3/206 can"}}},
    {UpdateState::Installing,
     {{'I', UpdateState::Ended, "", Outcome::Succeeded},
      {'i', UpdateState::Ended, "", Outcome::InstallFailed},
      {'C', UpdateState::Aborting, "3/206 can"}}},
    {UpdateState::Aborting,
     {{'I', UpdateState::Ended, "", Outcome::Succeeded}, {'X', UpdateState::Ended, "", Outcome::Aborted}}},
    {UpdateState::Ended, {}},
};

Step Expected(UpdateState state, char event) {
  for (const Step& step : kSteps.at(state)) {
    if (step.event == event) {
      return step;
    }
  }
  return {event, state, ""};
}

TEST(UpdateController, EveryEventInEveryStateHasItsOneEffect) {
  for (const auto& [state, steps] : kSteps) {
    for (const auto& [letter, happen] : kEvents) {
      SCOPED_TRACE("state " + std::to_string(static_cast<int>(state)) + ", event " + letter);
      Talk talk;
      if (state != UpdateState::AwaitingAnnouncement) {
        talk.Bring(state);
      }
      ASSERT_EQ(talk.State(), state);
      happen(talk);
      const Step expected = Expected(state, letter);
      EXPECT_EQ(talk.State(), expected.next);
      const std::vector<std::string> posted(expected.posted[0] == '\0' ? 0 : 1, expected.posted);
      EXPECT_EQ(talk.iBroker.iPosted, posted);
      EXPECT_EQ(talk.iListener.iProgress.size(), state == UpdateState::Installing && letter == 'G' ? 1u : 0u);
      if (expected.next == UpdateState::Ended && state != UpdateState::Ended) {
        EXPECT_EQ(talk.iController.Wait(), expected.outcome);
      }
    }
  }
}

TEST(UpdateController, TheEndStaysWhatItWas) {
  Talk talk;
  talk.Bring(UpdateState::Ended);
  talk.Result(EInstallResult, ETrue);
  talk.iController.Abort();
  talk.Result(EAbortResult, ETrue);
  EXPECT_EQ(talk.iController.Wait(), Outcome::InstallFailed);
}

TEST(UpdateController, WhatAnotherFeatureSaysIsIgnored) {
  for (const char* id : {"", "ca", "cam", "can2"}) {
    Talk talk;
    talk.Announce(id);
    EXPECT_EQ(talk.State(), UpdateState::AwaitingAnnouncement) << id;
    talk.Bring(UpdateState::Preparing);
    talk.Result(EPrepareResult, ETrue, id);
    EXPECT_EQ(talk.State(), UpdateState::Preparing) << id;
    talk.Result(EPrepareResult, ETrue);
    talk.Progress(50, id);
    talk.Result(EInstallResult, ETrue, id);
    EXPECT_EQ(talk.State(), UpdateState::Installing) << id;
    talk.iController.Abort();
    talk.Result(EAbortResult, ETrue, id);
    EXPECT_EQ(talk.State(), UpdateState::Aborting) << id;
    EXPECT_THAT(talk.iListener.iProgress, IsEmpty());
  }
}

TEST(UpdateController, ARecordOfAWrongLengthIsIgnored) {
  for (const TUint32 length : {0u, 1u, 64u, 65u, 67u, 69u}) {
    Talk talk;
    talk.Bring(UpdateState::Preparing);
    talk.Result(EPrepareResult, ETrue, kId, length);
    EXPECT_EQ(talk.State(), UpdateState::Preparing) << length;
  }
  Talk talk;
  talk.Bring(UpdateState::Installing);
  talk.Progress(50, kId, 64);
  talk.iController.OnEvent({EUserEvent, EInstallProgress, 65, nullptr});
  talk.iController.OnEvent({7, EInstallResult, 0, nullptr});
  EXPECT_EQ(talk.State(), UpdateState::Installing);
  EXPECT_THAT(talk.iListener.iProgress, IsEmpty());
}

TEST(UpdateController, ALongFeatureIdIsKnownByItsFirst63CharactersInResultsAndAsAWholeWhenAnnounced) {
  const std::string id(70, 'a');
  Talk talk(Goal::Update, TimeLimits(), id);
  talk.Announce(id.substr(0, 63));
  EXPECT_EQ(talk.State(), UpdateState::AwaitingAnnouncement);
  talk.Announce(id);
  talk.Result(EPrepareResult, ETrue, id.substr(0, 64));
  EXPECT_EQ(talk.State(), UpdateState::Preparing);
  talk.Result(EPrepareResult, ETrue, id.substr(0, 63));
  EXPECT_EQ(talk.State(), UpdateState::Installing);
  EXPECT_THAT(talk.iBroker.iPosted, ElementsAre("3/201 " + id, "3/203 " + id));
}

TEST(UpdateController, AnyFlagButZeroIsASuccess) {
  Talk talk;
  talk.Bring(UpdateState::Installing);
  talk.Result(EInstallResult, -7);
  EXPECT_EQ(talk.iController.Wait(), Outcome::Succeeded);
}

TEST(UpdateController, ProgressNeverGoesBackNorBeyond100) {
  Talk talk;
  talk.Bring(UpdateState::Installing);
  for (const int percent : {0, 0, 14, 13, 14, 255, 100, 50}) {
    talk.Progress(percent);
  }
  talk.iController.Follow();
  EXPECT_THAT(talk.iListener.iProgress, ElementsAre(0, 14, 100));
}

TEST(UpdateController, EverySilentStateEndsWithoutAResult) {
  constexpr std::chrono::hours kLong(1);
  const std::map<UpdateState, TimeLimits> limits = {
      {UpdateState::AwaitingAnnouncement, {1ms, kLong, kLong}},
      {UpdateState::Preparing, {1ms, kLong, kLong}},
      {UpdateState::Installing, {kLong, 1ms, kLong}},
      {UpdateState::Aborting, {kLong, kLong, 1ms}},
  };
  for (const auto& [state, limit] : limits) {
    Talk talk(Goal::Update, limit);
    if (state != UpdateState::AwaitingAnnouncement) {
      talk.Bring(state);
    }
    EXPECT_EQ(talk.iController.Wait(), Outcome::NoResult) << static_cast<int>(state);
    EXPECT_EQ(talk.State(), UpdateState::Ended);
  }
}

// Has the same progress reported during Wait. Tells how long Wait went on after it, or nothing when the
// machine was too slow to report within the limit.
std::optional<std::chrono::nanoseconds> WaitAfterProgress(std::chrono::milliseconds limit) {
  const auto start = std::chrono::steady_clock::now();
  Talk talk(Goal::Update, {1h, limit, 1h});
  talk.Bring(UpdateState::Installing);
  talk.Progress(7);
  auto outcome = std::async(std::launch::async, [&] { return talk.iController.Wait(); });
  std::this_thread::sleep_for(limit / 2);
  const auto reported = std::chrono::steady_clock::now();
  talk.Progress(7);
  const bool inTime = std::chrono::steady_clock::now() - start < limit;
  EXPECT_EQ(outcome.get(), Outcome::NoResult);
  return inTime ? std::make_optional(std::chrono::steady_clock::now() - reported) : std::nullopt;
}

TEST(UpdateController, ProgressRenewsTheTimeLimitAlsoWhenItDoesNotMove) {
  auto limit = 100ms;
  auto waited = WaitAfterProgress(limit);
  while (!waited) {
    limit *= 2;
    waited = WaitAfterProgress(limit);
  }
  EXPECT_GE(*waited, limit);
}

TEST(UpdateController, TheListenerIsToldInOrderAndOnTheThreadThatFollows) {
  RecordingBroker broker;
  RecordingListener listener;
  UpdateController controller(broker, kId, Goal::Update, {1h, 1h, 1h}, listener);
  std::thread::id toldOn;
  std::promise<void> firstTold;
  listener.iOnState = [&](UpdateState state) {
    toldOn = std::this_thread::get_id();
    if (state == UpdateState::Preparing) {
      firstTold.set_value();
    }
  };
  std::thread follower([&] { controller.Follow(); });
  const std::thread::id followerId = follower.get_id();
  controller.OnEvent({EUserEvent, EFeatureAnnounce, 3, kId});
  firstTold.get_future().wait();
  controller.Post([&] { listener.OnMilestone("halfway"); });
  controller.Abort();
  controller.Post([&] { listener.OnMilestone("late"); });
  controller.FinishFollowing();
  follower.join();
  EXPECT_THAT(listener.iTold, ElementsAre("state", "halfway", "state", "late"));
  EXPECT_EQ(toldOn, followerId);
}

TEST(UpdateController, AListenerThatHangsHoldsUpNeitherTheEndNorTheTimeLimits) {
  Talk talk(Goal::Update, {1h, 1ms, 1h});
  std::promise<void> hanging;
  std::promise<void> goOn;
  talk.iListener.iOnState = [&](UpdateState state) {
    if (state == UpdateState::Preparing) {
      hanging.set_value();
      goOn.get_future().wait();
    }
  };
  talk.Announce(kId);
  std::thread follower([&] { talk.iController.Follow(); });
  hanging.get_future().wait();
  talk.Result(EPrepareResult, ETrue);
  EXPECT_EQ(talk.iController.Wait(), Outcome::NoResult);
  goOn.set_value();
  follower.join();
}

TEST(UpdateController, WaitIsWokenByTheEnd) {
  Talk talk(Goal::Update, {1h, 1h, 1h});
  talk.Announce(kId);
  auto outcome = std::async(std::launch::async, [&] { return talk.iController.Wait(); });
  talk.Result(EPrepareResult, EFalse);
  EXPECT_EQ(outcome.get(), Outcome::PrepareFailed);
}

// Whether the device may have been written to, after these events in this order.
struct Upload {
  const char* events;
  bool started;
};

TEST(UpdateController, AnUploadHasStartedWithTheFirstProgressOrWhenTheModuleDoesNotAnswer) {
  constexpr Upload kUploads[] = {
      {"", false},    {"A", false},   {"AC", false},   {"Ap", false},   {"ACX", false},
      {"AP", true},   {"APi", false}, {"APCX", false}, {"APG", true},   {"APGi", true},
      {"APGI", true}, {"APC", true},  {"APCG", true},  {"APCGX", true}, {"APGCX", true},
  };
  for (const Upload& upload : kUploads) {
    Talk talk;
    for (const char event : std::string(upload.events)) {
      kEvents.at(event)(talk);
    }
    EXPECT_EQ(talk.iController.UploadStarted(), upload.started) << upload.events;
  }
}

TEST(UpdateController, AnUploadMayHaveStartedWhenNoResultCameAfterTheRequestToInstall) {
  Talk talk(Goal::Update, {1h, 1ms, 1h});
  talk.Bring(UpdateState::Installing);
  EXPECT_EQ(talk.iController.Wait(), Outcome::NoResult);
  EXPECT_TRUE(talk.iController.UploadStarted());
  Talk early(Goal::Update, {1ms, 1h, 1h});
  early.Bring(UpdateState::Preparing);
  EXPECT_EQ(early.iController.Wait(), Outcome::NoResult);
  EXPECT_FALSE(early.iController.UploadStarted());
}

// ---- Retries ----

class RetryingTalk {
 public:
  explicit RetryingTalk(std::chrono::milliseconds pause)
      : iController(iBroker, kId, Goal::Update, {1h, 1h, 1h}, iListener, {1, pause}) {
    iController.OnEvent({EUserEvent, EFeatureAnnounce, 3, kId});
    Result(EPrepareResult, ETrue);
  }

  void Result(TFeatureEventId id, TBool flag) {
    TFeatureResultPayload payload = {};
    std::memcpy(payload.featureId, kId, std::strlen(kId));
    payload.flag = flag;
    iController.OnEvent({EUserEvent, id, sizeof(payload), &payload});
  }

  RecordingBroker iBroker;
  RecordingListener iListener;
  UpdateController iController;
};

TEST(UpdateController, AFailedInstallationIsAskedForAgainAfterThePause) {
  RetryingTalk talk(20ms);
  const auto start = std::chrono::steady_clock::now();
  auto outcome = std::async(std::launch::async, [&] { return talk.iController.Wait(); });
  // By then it waits for the end, whose time limit is an hour.
  std::this_thread::sleep_for(100ms);
  talk.Result(EInstallResult, EFalse);
  std::this_thread::sleep_for(200ms);
  talk.Result(EInstallResult, ETrue);
  EXPECT_EQ(outcome.get(), Outcome::Succeeded);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  talk.iController.FinishFollowing();
  talk.iController.Follow();
  EXPECT_THAT(talk.iListener.iTold, testing::Contains("attempt 2 of 2"));
}

TEST(UpdateController, TheLastFailureIsTheResult) {
  RetryingTalk talk(0ms);
  auto outcome = std::async(std::launch::async, [&] { return talk.iController.Wait(); });
  // By then it waits for the end, whose time limit is an hour.
  std::this_thread::sleep_for(100ms);
  talk.Result(EInstallResult, EFalse);
  std::this_thread::sleep_for(200ms);
  talk.Result(EInstallResult, EFalse);
  EXPECT_EQ(outcome.get(), Outcome::InstallFailed);
}

TEST(UpdateController, AnAbortDuringThePauseEndsIt) {
  RetryingTalk talk(1h);
  talk.Result(EInstallResult, EFalse);
  EXPECT_EQ(talk.iController.Result(), std::nullopt);
  talk.iController.Abort();
  EXPECT_EQ(talk.iController.Result(), Outcome::Aborted);
}

}  // namespace
