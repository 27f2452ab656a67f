#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "FeatureEvents.h"
#include "IEventBroker.h"

namespace host {

/// How far the controller wants to go.
enum class Goal { Prepare, Update };

/// What the controller is waiting for.
enum class UpdateState { AwaitingAnnouncement, Preparing, Installing, Pausing, Aborting, Ended };

/// How it ended. Two are no results of the module: with SourceChanged it reported success, but a file that
/// was sent changed meanwhile; with NothingToUpdate it was not asked.
enum class Outcome {
  Succeeded,
  PrepareFailed,
  InstallFailed,
  Aborted,
  NoResult,
  SourceChanged,
  NothingToUpdate
};

/// How long each state waits without a sign of life from the module: announcement and result while preparing,
/// progress or result while installing, result while aborting.
struct TimeLimits {
  std::chrono::milliseconds prepare = std::chrono::seconds(30);
  std::chrono::milliseconds install = std::chrono::seconds(90);
  std::chrono::milliseconds abort = std::chrono::seconds(10);
};

/// How often, and after which pause, a failed installation is asked for again.
struct Retries {
  int count = 0;
  std::chrono::milliseconds pause = std::chrono::seconds(3);
  /// Asked at the end of each pause, by the thread that waits; false ends the update as failed. Empty: true.
  std::function<bool()> isWorthwhile = nullptr;
};

/// Who follows an update. Called only from within UpdateController::Follow, on its caller's thread, so that a
/// terminal that is slow or stopped holds up nobody else.
class UpdateListener {
 public:
  virtual ~UpdateListener() = default;
  virtual void OnState(UpdateState state) = 0;
  /// 0 to 100, in one attempt each value once and never less than before.
  virtual void OnProgress(int percent) = 0;
  virtual void OnMilestone(const std::string& text) = 0;
  /// The attempt of that number, from 2, is made after the pause.
  virtual void OnRetry(int attempt, const Retries& retries) = 0;
};

/// The software-update controller for one feature: waits for its announcement, has it prepare and install,
/// and understands its results. What another feature says, or what has a wrong length, is ignored.
class UpdateController final : public IEventObserver {
 public:
  /// Subscribes; create it before the module, whose announcement it must not miss. Broker and listener must
  /// outlive it.
  UpdateController(IEventBroker& broker, TFeatureId featureId, Goal goal, const TimeLimits& limits,
                   UpdateListener& listener, const Retries& retries = {});
  UpdateController(const UpdateController&) = delete;
  UpdateController& operator=(const UpdateController&) = delete;
  ~UpdateController() override;

  /// Waits for the end and returns how it ended. One thread, neither the broker's nor that of Follow.
  Outcome Wait();

  /// Tells the listener what happens, in order, until FinishFollowing was called and all that came in before
  /// is told. One thread, not the broker's.
  void Follow();

  /// Has Follow return as soon as everything is told. Any thread.
  void FinishFollowing();

  /// Asks the module to abort; the end comes through Wait. Without effect when asked before or at the end.
  /// Any thread.
  void Abort();

  /// How it ended, or nothing while it goes on. Any thread.
  std::optional<Outcome> Result();

  /// Tells whether the device may have been written to: the module has reported progress, which it does from
  /// the moment that its port is open, or it has not answered the request to install. Any thread.
  bool UploadStarted();

  /// Queues something to tell the listener. Any thread.
  void Post(std::function<void()> notice);

  void OnEvent(const TEvent& event) override;

 private:
  enum class Occurrence {
    None,
    Announced,
    Prepared,  // and the goal is more than that
    GoalPrepared,
    PrepareFailed,
    Progressed,
    Installed,
    InstallFailed,
    InstallToBeRetried,
    AbortAsked,
    AbortDone,
    TimedOut
  };

  using Action = void (UpdateController::*)();

  struct Transition {
    UpdateState from;
    Occurrence occurrence;
    UpdateState to;
    Action action;
  };

  static const Transition kTransitions[];

  Occurrence Classify(const TEvent& event) const;
  Occurrence ClassifyResult(const TEvent& event, Occurrence success, Occurrence failure) const;
  bool IsOurs(const TEvent& event, std::size_t length) const;

  void Happened(Occurrence occurrence);
  void Enter(UpdateState state);
  void RequestPrepare();
  void RequestInstall();
  void RequestAbort();
  void PlanRetry();
  void TakeProgress();
  template <Outcome kOutcome>
  void Conclude();

  std::chrono::milliseconds Limit() const;
  void Send(TFeatureEventId request);

  IEventBroker& iBroker;
  const TFeatureId iFeatureId;
  const Goal iGoal;
  const TimeLimits iLimits;
  UpdateListener& iListener;
  const Retries iRetries;

  std::mutex iMutex;
  std::condition_variable iChanged;
  UpdateState iState = UpdateState::AwaitingAnnouncement;
  Outcome iOutcome = Outcome::NoResult;
  std::chrono::steady_clock::time_point iDeadline;
  bool iInstallRequested = false;
  bool iUploadStarted = false;
  int iReported = 0;  ///< percent in the progress event at hand
  int iPercent = -1;  ///< highest percent told so far
  int iAttempt = 1;
  std::deque<std::function<void()>> iNotices;
  bool iFollowingFinished = false;
};

}  // namespace host
