#include "UpdatingHost.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "FailingCalls.h"
#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "LineTime.h"

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                                           IEventBroker& eventBroker, const IFeatureProperties& properties);

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kFeature[] = "peripherals";
constexpr std::int64_t kTickPeriod_us = 500'000;
constexpr std::chrono::milliseconds kTurn(5);
constexpr std::chrono::seconds kLongestTurn(1);
constexpr std::chrono::seconds kBound(60);
constexpr int kTicksBehindResult = 3;
constexpr TFeatureEventId kHeard[] = {EPrepareResult, EInstallResult, EInstallProgress};

bool IsTick(const TEvent& filter) {
  return filter.type == ETimerEvent && filter.id == 0;
}

template <typename TPayload>
TPayload PayloadOf(const TEvent& event) {
  TPayload payload = {};
  std::memcpy(&payload, event.data, std::min<std::size_t>(event.length, sizeof payload));
  return payload;
}

}  // namespace

// ---- PumpedBroker ----

void PumpedBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
  NoteThread();
  if (Find(filter, observer) == iSubscriptions.end()) {
    iSubscriptions.push_back({filter, &observer});
  }
}

void PumpedBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
  NoteThread();
  const auto known = Find(filter, observer);
  if (known != iSubscriptions.end()) {
    iSubscriptions.erase(known);
  }
}

void PumpedBroker::Post(const TEvent& event) {
  NoteThread();
  const auto* bytes = static_cast<const char*>(event.data);
  iPosts.push_back({event.type, event.id, std::string(bytes, event.length)});
}

void PumpedBroker::DeliverPosts() {
  while (!iPosts.empty()) {
    const Posted post = iPosts.front();
    iPosts.pop_front();
    Deliver({post.type, post.id, static_cast<TUint32>(post.payload.size()), post.payload.data()});
  }
}

void PumpedBroker::Tick() {
  Deliver({ETimerEvent, 0, 0, nullptr});
}

// Whoever subscribes meanwhile gets the next one, whoever unsubscribes does not get this one any more.
void PumpedBroker::Deliver(const TEvent& event) {
  for (const Subscription& one : std::vector<Subscription>(iSubscriptions)) {
    if (one.filter.type == event.type && one.filter.id == event.id &&
        Find(one.filter, *one.observer) != iSubscriptions.end()) {
      one.observer->OnEvent(IsTick(event) ? one.filter : event);
    }
  }
}

std::vector<PumpedBroker::Subscription>::iterator PumpedBroker::Find(const TEvent& filter,
                                                                     const IEventObserver& observer) {
  return std::find_if(iSubscriptions.begin(), iSubscriptions.end(), [&](const Subscription& one) {
    return one.filter.type == filter.type && one.filter.id == filter.id && one.observer == &observer;
  });
}

void PumpedBroker::NoteThread() {
  iCalledOnOneThread = iCalledOnOneThread && std::this_thread::get_id() == iThread;
}

// ---- UpdatingHost ----

UpdatingHost::UpdatingHost(const IFeatureProperties& properties)
    : iThreadsWithoutUpload(failing_calls::RunningThreads()) {
  for (const TFeatureEventId id : kHeard) {
    iBroker.Subscribe({EUserEvent, id, 0, nullptr}, *this);
  }
  iModule.reset(FeatureCreate2(kFeature, iInterfaces, iBroker, properties));
}

UpdatingHost::~UpdatingHost() = default;

Told UpdatingHost::Update() {
  iTold = {};
  iPercent = 0;
  Request(EPrepareRequest);
  Drive([this] { return iTold.prepared.has_value(); });
  if (iTold.prepared == true) {
    Request(EInstallRequest);
    Drive([this] { return iTold.results > 0; });
  }
  for (int tick = 0; tick < kTicksBehindResult; ++tick) {
    iBroker.Tick();
    iBroker.DeliverPosts();
  }
  return iTold;
}

bool UpdatingHost::DeleteModule() {
  iModule.reset();
  return iBroker.Subscriptions() == std::size(kHeard) && iBroker.CalledOnOneThread();
}

void UpdatingHost::OnEvent(const TEvent& event) {
  switch (event.id) {
    case EPrepareResult:
      iTold.prepared = PayloadOf<TFeatureResultPayload>(event).flag != EFalse;
      break;
    case EInstallResult:
      ++iTold.results;
      iTold.success = PayloadOf<TFeatureResultPayload>(event).flag != EFalse;
      break;
    default:
      TakeProgress(PayloadOf<TFeatureProgressPayload>(event).percent);
      break;
  }
}

void UpdatingHost::TakeProgress(int percent) {
  iTold.progressFell = iTold.progressFell || percent < iPercent;
  iPercent = percent;
}

void UpdatingHost::Request(TUint32 id) {
  iBroker.Post({EUserEvent, id, sizeof kFeature - 1, kFeature});
}

// Delivers posts and ticks until it is enough.
template <typename TEnough>
void UpdatingHost::Drive(TEnough enough) {
  const Clock::time_point end = Clock::now() + kBound;
  for (iBroker.DeliverPosts(); !enough() && Clock::now() < end; iBroker.DeliverPosts()) {
    const std::int64_t last_us = line_time::Now_us();
    const Clock::time_point latest = Clock::now() + kLongestTurn;
    do {
      std::this_thread::sleep_for(kTurn);
    } while (!TickIsDue(last_us) && Clock::now() < latest);
    iBroker.Tick();
  }
}

// By the line's time, so that an upload on a loaded machine is not taken for one that stalls. Without an
// upload there is nobody to wait for.
bool UpdatingHost::TickIsDue(std::int64_t last_us) const {
  return line_time::Now_us() - last_us >= kTickPeriod_us ||
         failing_calls::RunningThreads() <= iThreadsWithoutUpload;
}
