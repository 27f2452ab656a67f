#include "UpdateController.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace host {

namespace {

using std::chrono::steady_clock;

constexpr int kMaxPercent = 100;
constexpr std::array<TFeatureEventId, 5> kFeatureEvents = {EFeatureAnnounce, EPrepareResult, EInstallResult,
                                                           EInstallProgress, EAbortResult};

TEvent Filter(TFeatureEventId id) {
  return {EUserEvent, id, 0, nullptr};
}

}  // namespace

// What is not listed changes nothing. During a pause the module has nothing to abort. While aborting, a
// success that is already on its way still counts: the device then has the whole image.
const UpdateController::Transition UpdateController::kTransitions[] = {
    // clang-format off
    {UpdateState::AwaitingAnnouncement, Occurrence::Announced,     UpdateState::Preparing,  &UpdateController::RequestPrepare},
    {UpdateState::AwaitingAnnouncement, Occurrence::AbortAsked,    UpdateState::Aborting,   &UpdateController::RequestAbort},
    {UpdateState::AwaitingAnnouncement, Occurrence::TimedOut,      UpdateState::Ended,      &UpdateController::Conclude<Outcome::NoResult>},
    {UpdateState::Preparing,            Occurrence::Prepared,      UpdateState::Installing, &UpdateController::RequestInstall},
    {UpdateState::Preparing,            Occurrence::GoalPrepared,  UpdateState::Ended,      &UpdateController::Conclude<Outcome::Succeeded>},
    {UpdateState::Preparing,            Occurrence::PrepareFailed, UpdateState::Ended,      &UpdateController::Conclude<Outcome::PrepareFailed>},
    {UpdateState::Preparing,            Occurrence::AbortAsked,    UpdateState::Aborting,   &UpdateController::RequestAbort},
    {UpdateState::Preparing,            Occurrence::TimedOut,      UpdateState::Ended,      &UpdateController::Conclude<Outcome::NoResult>},
    {UpdateState::Installing,           Occurrence::Progressed,    UpdateState::Installing, &UpdateController::TakeProgress},
    {UpdateState::Installing,           Occurrence::Installed,     UpdateState::Ended,      &UpdateController::Conclude<Outcome::Succeeded>},
    {UpdateState::Installing,           Occurrence::InstallFailed, UpdateState::Ended,      &UpdateController::Conclude<Outcome::InstallFailed>},
    {UpdateState::Installing,           Occurrence::InstallToBeRetried, UpdateState::Pausing, &UpdateController::PlanRetry},
    {UpdateState::Pausing,              Occurrence::TimedOut,      UpdateState::Installing, &UpdateController::RequestInstall},
    {UpdateState::Pausing,              Occurrence::InstallFailed, UpdateState::Ended,      &UpdateController::Conclude<Outcome::InstallFailed>},
    {UpdateState::Pausing,              Occurrence::AbortAsked,    UpdateState::Ended,      &UpdateController::Conclude<Outcome::Aborted>},
    {UpdateState::Installing,           Occurrence::AbortAsked,    UpdateState::Aborting,   &UpdateController::RequestAbort},
    {UpdateState::Installing,           Occurrence::TimedOut,      UpdateState::Ended,      &UpdateController::Conclude<Outcome::NoResult>},
    {UpdateState::Aborting,             Occurrence::Installed,     UpdateState::Ended,      &UpdateController::Conclude<Outcome::Succeeded>},
    {UpdateState::Aborting,             Occurrence::AbortDone,     UpdateState::Ended,      &UpdateController::Conclude<Outcome::Aborted>},
    {UpdateState::Aborting,             Occurrence::TimedOut,      UpdateState::Ended,      &UpdateController::Conclude<Outcome::NoResult>},
    // clang-format on
};

UpdateController::UpdateController(IEventBroker& broker, TFeatureId featureId, Goal goal,
                                   const TimeLimits& limits, UpdateListener& listener, const Retries& retries)
    : iBroker(broker),
      iFeatureId(std::move(featureId)),
      iGoal(goal),
      iLimits(limits),
      iListener(listener),
      iRetries(retries),
      iDeadline(steady_clock::now() + limits.prepare) {
  for (const TFeatureEventId id : kFeatureEvents) {
    iBroker.Subscribe(Filter(id), *this);
  }
}

UpdateController::~UpdateController() {
  for (const TFeatureEventId id : kFeatureEvents) {
    iBroker.Unsubscribe(Filter(id), *this);
  }
}

Outcome UpdateController::Wait() {
  std::unique_lock<std::mutex> lock(iMutex);
  while (iState != UpdateState::Ended) {
    // Progress may put the deadline off meanwhile, and a pause may bring it nearer; whether time has run out
    // is decided by the present one.
    const steady_clock::time_point deadline = iDeadline;
    iChanged.wait_until(lock, deadline, [&] { return iState == UpdateState::Ended || iDeadline < deadline; });
    if (steady_clock::now() >= iDeadline) {
      const bool isInVain =
          iState == UpdateState::Pausing && iRetries.isWorthwhile && !iRetries.isWorthwhile();
      Happened(isInVain ? Occurrence::InstallFailed : Occurrence::TimedOut);
    }
  }
  return iOutcome;
}

void UpdateController::Follow() {
  std::unique_lock<std::mutex> lock(iMutex);
  while (true) {
    iChanged.wait(lock, [this] { return !iNotices.empty() || iFollowingFinished; });
    if (iNotices.empty()) {
      return;
    }
    const std::function<void()> tell = std::move(iNotices.front());
    iNotices.pop_front();
    lock.unlock();
    tell();
    lock.lock();
  }
}

void UpdateController::FinishFollowing() {
  const std::lock_guard<std::mutex> lock(iMutex);
  iFollowingFinished = true;
  iChanged.notify_all();
}

void UpdateController::Abort() {
  const std::lock_guard<std::mutex> lock(iMutex);
  Happened(Occurrence::AbortAsked);
}

std::optional<Outcome> UpdateController::Result() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iState == UpdateState::Ended ? std::make_optional(iOutcome) : std::nullopt;
}

bool UpdateController::UploadStarted() {
  const std::lock_guard<std::mutex> lock(iMutex);
  const bool answered = iState == UpdateState::Ended && iOutcome != Outcome::NoResult;
  return iUploadStarted || (iInstallRequested && !answered);
}

void UpdateController::Post(std::function<void()> notice) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iNotices.push_back(std::move(notice));
  iChanged.notify_all();
}

void UpdateController::OnEvent(const TEvent& event) {
  const std::lock_guard<std::mutex> lock(iMutex);
  const Occurrence occurrence = Classify(event);
  if (occurrence == Occurrence::Progressed) {
    iUploadStarted = true;
    TFeatureProgressPayload payload = {};
    std::memcpy(&payload, event.data, sizeof(payload));
    iReported = payload.percent;
  }
  Happened(occurrence);
}

UpdateController::Occurrence UpdateController::Classify(const TEvent& event) const {
  if (event.type != EUserEvent) {
    return Occurrence::None;
  }
  switch (event.id) {
    case EFeatureAnnounce: {
      const std::string_view announced(static_cast<const char*>(event.data), event.length);
      return announced == iFeatureId ? Occurrence::Announced : Occurrence::None;
    }
    case EPrepareResult:
      return ClassifyResult(event, iGoal == Goal::Prepare ? Occurrence::GoalPrepared : Occurrence::Prepared,
                            Occurrence::PrepareFailed);
    case EInstallProgress:
      return IsOurs(event, sizeof(TFeatureProgressPayload)) ? Occurrence::Progressed : Occurrence::None;
    case EInstallResult:
      return ClassifyResult(
          event, Occurrence::Installed,
          iAttempt <= iRetries.count ? Occurrence::InstallToBeRetried : Occurrence::InstallFailed);
    case EAbortResult:
      return ClassifyResult(event, Occurrence::AbortDone, Occurrence::None);
    default:
      return Occurrence::None;
  }
}

UpdateController::Occurrence UpdateController::ClassifyResult(const TEvent& event, Occurrence success,
                                                              Occurrence failure) const {
  if (!IsOurs(event, sizeof(TFeatureResultPayload))) {
    return Occurrence::None;
  }
  TFeatureResultPayload payload = {};
  std::memcpy(&payload, event.data, sizeof(payload));
  return payload.flag != EFalse ? success : failure;
}

bool UpdateController::IsOurs(const TEvent& event, std::size_t length) const {
  char expected[KFeatureIdFieldSize] = {};
  std::copy_n(iFeatureId.begin(), std::min(iFeatureId.size(), KFeatureIdFieldSize - 1), expected);
  return event.length == length && event.data != nullptr &&
         std::memcmp(event.data, expected, KFeatureIdFieldSize) == 0;
}

void UpdateController::Happened(Occurrence occurrence) {
  for (const Transition& transition : kTransitions) {
    if (transition.from == iState && transition.occurrence == occurrence) {
      (this->*transition.action)();
      Enter(transition.to);
      return;
    }
  }
}

void UpdateController::Enter(UpdateState state) {
  if (state != iState) {
    iState = state;
    iNotices.emplace_back([this, state] { iListener.OnState(state); });
  }
  iDeadline = steady_clock::now() + Limit();
  iChanged.notify_all();
}

void UpdateController::RequestPrepare() {
  Send(EPrepareRequest);
}

void UpdateController::RequestInstall() {
  iInstallRequested = true;
  Send(EInstallRequest);
}

void UpdateController::RequestAbort() {
  Send(EAbortRequest);
}

void UpdateController::PlanRetry() {
  ++iAttempt;
  iPercent = -1;
  iNotices.emplace_back([this, attempt = iAttempt] { iListener.OnRetry(attempt, iRetries); });
}

void UpdateController::TakeProgress() {
  const int percent = std::min(iReported, kMaxPercent);
  if (percent > iPercent) {
    iPercent = percent;
    iNotices.emplace_back([this, percent] { iListener.OnProgress(percent); });
  }
}

template <Outcome kOutcome>
void UpdateController::Conclude() {
  iOutcome = kOutcome;
}

std::chrono::milliseconds UpdateController::Limit() const {
  switch (iState) {
    case UpdateState::Installing:
      return iLimits.install;
    case UpdateState::Pausing:
      return iRetries.pause;
    case UpdateState::Aborting:
      return iLimits.abort;
    case UpdateState::AwaitingAnnouncement:
    case UpdateState::Preparing:
    case UpdateState::Ended:
      break;
  }
  return iLimits.prepare;
}

void UpdateController::Send(TFeatureEventId request) {
  iBroker.Post({EUserEvent, request, static_cast<TUint32>(iFeatureId.size()), iFeatureId.data()});
}

}  // namespace host
