#include "EventBroker.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace host {

namespace {

using std::chrono::steady_clock;

bool IsTimer(TUint32 type, TUint32 id) {
  return type == ETimerEvent && id == 0;
}

bool Repeats(const TEvent& filter) {
  return reinterpret_cast<std::uintptr_t>(filter.data) == 1;
}

std::chrono::milliseconds Period(const TEvent& filter) {
  return std::chrono::milliseconds(std::max<TUint32>(filter.length, 1));
}

steady_clock::time_point DueAfter(steady_clock::time_point due, const TEvent& filter) {
  const auto now = steady_clock::now();
  const auto missed = (now - due) / Period(filter);
  return due + (missed + 1) * Period(filter);
}

}  // namespace

EventBroker::~EventBroker() {
  Stop();
}

void EventBroker::Start() {
  const std::lock_guard<std::mutex> joinLock(iJoinMutex);
  const std::lock_guard<std::mutex> lock(iMutex);
  if (iStopping || iThread.joinable()) {
    return;
  }
  iThreadEnded = false;
  iThread = std::thread([this] { Run(); });
  iThreadId = iThread.get_id();
}

void EventBroker::Stop() {
  if (RequestStop()) {
    const std::lock_guard<std::mutex> joinLock(iJoinMutex);
    if (iThread.joinable()) {
      iThread.join();
    }
  }
}

bool EventBroker::StopWithin(std::chrono::milliseconds patience) {
  if (!RequestStop()) {
    return false;
  }
  {
    std::unique_lock<std::mutex> lock(iMutex);
    if (!iDelivered.wait_for(lock, patience, [this] { return iThreadEnded; })) {
      return false;
    }
  }
  Stop();
  return true;
}

// Tells whether the caller may wait for the delivery thread, that is, does not run on it.
bool EventBroker::RequestStop() {
  const std::lock_guard<std::mutex> lock(iMutex);
  iStopping = true;
  iQueue.clear();
  iWork.notify_all();
  return std::this_thread::get_id() != iThreadId;
}

void EventBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
  const std::lock_guard<std::mutex> lock(iMutex);
  const bool timer = IsTimer(filter.type, filter.id);
  const Time due = timer ? steady_clock::now() + Period(filter) : Time();
  const auto known = Find(filter, observer);
  if (known == iSubscriptions.end()) {
    iSubscriptions.push_back(std::make_shared<Subscription>(Subscription{filter, &observer, due, true}));
  } else if (timer) {
    (*known)->filter = filter;
    (*known)->due = due;
  }
  iWork.notify_all();
}

void EventBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
  std::unique_lock<std::mutex> lock(iMutex);
  const auto known = Find(filter, observer);
  if (known != iSubscriptions.end()) {
    (*known)->active = false;
    iSubscriptions.erase(known);
  }
  if (std::this_thread::get_id() == iThreadId) {
    return;
  }
  // The running call is recognised by the pair and not by the subscription: the pair may have been
  // unsubscribed from inside that call already.
  const auto running = [&] {
    return iRunning != nullptr && iRunning->observer == &observer && iRunning->filter.type == filter.type &&
           iRunning->filter.id == filter.id;
  };
  const std::uint64_t delivery = iDeliveries;
  iDelivered.wait(lock, [&] { return !running() || iDeliveries != delivery; });
}

void EventBroker::Post(const TEvent& event) {
  if (IsTimer(event.type, event.id)) {
    return;
  }
  QueuedEvent queued{event.type, event.id, {}};
  if (event.data != nullptr) {
    const auto* bytes = static_cast<const std::uint8_t*>(event.data);
    queued.payload.assign(bytes, bytes + event.length);
  }
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iStopping) {
    iQueue.push_back(std::move(queued));
    iWork.notify_all();
  }
}

// Ticks and queued events take turns, so that neither a fast timer nor a flood of posts starves the other.
void EventBroker::Run() {
  std::unique_lock<std::mutex> lock(iMutex);
  while (!iStopping) {
    WaitForWork(lock);
    DeliverDueTick(lock);
    DeliverNextEvent(lock);
  }
  iThreadEnded = true;
  iThreadId = std::thread::id();
  iDelivered.notify_all();
}

void EventBroker::WaitForWork(std::unique_lock<std::mutex>& lock) {
  if (iStopping || !iQueue.empty()) {
    return;
  }
  if (const SubscriptionPtr timer = NextTimer()) {
    const Time due = timer->due;
    iWork.wait_until(lock, due);
  } else {
    iWork.wait(lock);
  }
}

void EventBroker::DeliverDueTick(std::unique_lock<std::mutex>& lock) {
  const SubscriptionPtr timer = NextTimer();
  if (iStopping || timer == nullptr || timer->due > steady_clock::now()) {
    return;
  }
  const TEvent tick = timer->filter;
  if (Repeats(tick)) {
    timer->due = DueAfter(timer->due, tick);
  } else {
    Remove(timer);
  }
  Deliver(lock, timer, tick);
}

void EventBroker::DeliverNextEvent(std::unique_lock<std::mutex>& lock) {
  if (iStopping || iQueue.empty()) {
    return;
  }
  const QueuedEvent queued = std::move(iQueue.front());
  iQueue.pop_front();
  const TEvent event{queued.type, queued.id, static_cast<TUint32>(queued.payload.size()),
                     queued.payload.empty() ? nullptr : queued.payload.data()};
  for (const SubscriptionPtr& subscriber : Subscribers(queued)) {
    if (subscriber->active && !iStopping) {
      Deliver(lock, subscriber, event);
    }
  }
}

void EventBroker::Deliver(std::unique_lock<std::mutex>& lock, const SubscriptionPtr& to,
                          const TEvent& event) {
  iRunning = to;
  ++iDeliveries;
  lock.unlock();
  to->observer->OnEvent(event);
  lock.lock();
  iRunning = nullptr;
  iDelivered.notify_all();
}

std::vector<EventBroker::SubscriptionPtr>::iterator EventBroker::Find(const TEvent& filter,
                                                                      const IEventObserver& observer) {
  return std::find_if(iSubscriptions.begin(), iSubscriptions.end(), [&](const SubscriptionPtr& known) {
    return known->filter.type == filter.type && known->filter.id == filter.id && known->observer == &observer;
  });
}

std::vector<EventBroker::SubscriptionPtr> EventBroker::Subscribers(const QueuedEvent& event) const {
  std::vector<SubscriptionPtr> subscribers;
  std::copy_if(iSubscriptions.begin(), iSubscriptions.end(), std::back_inserter(subscribers),
               [&](const SubscriptionPtr& subscription) {
                 return subscription->filter.type == event.type && subscription->filter.id == event.id;
               });
  return subscribers;
}

EventBroker::SubscriptionPtr EventBroker::NextTimer() const {
  SubscriptionPtr next;
  for (const SubscriptionPtr& subscription : iSubscriptions) {
    if (IsTimer(subscription->filter.type, subscription->filter.id) &&
        (next == nullptr || subscription->due < next->due)) {
      next = subscription;
    }
  }
  return next;
}

void EventBroker::Remove(const SubscriptionPtr& subscription) {
  subscription->active = false;
  iSubscriptions.erase(std::find(iSubscriptions.begin(), iSubscriptions.end(), subscription));
}

}  // namespace host
