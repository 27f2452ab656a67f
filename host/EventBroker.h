#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "IEventBroker.h"

namespace host {

/// The host's event broker: a queue, timers, and one thread that delivers both.
///
/// Beyond what IEventBroker promises:
/// - An event reaches the observers that are subscribed when its turn comes, in the order of their
///   subscriptions. Who subscribes while it is being delivered gets the next one.
/// - The same filter and observer subscribed twice count once. For a timer the second subscription replaces
///   period and kind, and starts the timer anew.
/// - Timers: each subscriber has one of its own. Ticks that come too late for a whole period or more are left
///   out, not made up for; a period of 0 counts as 1 ms. A timer that does not repeat is unsubscribed by its
///   tick. A tick is the filter as it was subscribed. Timer events cannot be posted: Post ignores them.
/// - Unsubscribe on another thread waits for an OnEvent of that pair that is running. So do not call it while
///   holding a lock that this OnEvent takes.
/// - Before Start everything may be called; what is posted then is delivered after Start. After Stop nothing
///   more is delivered, and further posts are dropped.
class EventBroker final : public IEventBroker {
 public:
  EventBroker() = default;
  EventBroker(const EventBroker&) = delete;
  EventBroker& operator=(const EventBroker&) = delete;

  /// Stops. No observer may be subscribed on another thread any more.
  ~EventBroker() override;

  /// Starts delivering. Without effect when started already or stopped.
  void Start();

  /// Ends delivering, drops what is queued and waits for the OnEvent that is running, if any. May be called
  /// several times. From inside OnEvent it only announces the end, and the next call waits.
  void Stop();

  /// As Stop, but waits at most `patience`. Returns false when an OnEvent is still running then; its observer
  /// must be kept, and Stop will wait for it.
  bool StopWithin(std::chrono::milliseconds patience);

  void Subscribe(const TEvent& filter, IEventObserver& observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
  void Post(const TEvent& event) override;

 private:
  using Time = std::chrono::steady_clock::time_point;

  struct Subscription {
    TEvent filter;
    IEventObserver* observer;
    Time due;
    bool active;
  };
  using SubscriptionPtr = std::shared_ptr<Subscription>;

  struct QueuedEvent {
    TUint32 type;
    TUint32 id;
    std::vector<std::uint8_t> payload;
  };

  void Run();
  void WaitForWork(std::unique_lock<std::mutex>& lock);
  void DeliverDueTick(std::unique_lock<std::mutex>& lock);
  void DeliverNextEvent(std::unique_lock<std::mutex>& lock);
  void Deliver(std::unique_lock<std::mutex>& lock, const SubscriptionPtr& to, const TEvent& event);
  std::vector<SubscriptionPtr>::iterator Find(const TEvent& filter, const IEventObserver& observer);
  std::vector<SubscriptionPtr> Subscribers(const QueuedEvent& event) const;
  SubscriptionPtr NextTimer() const;
  void Remove(const SubscriptionPtr& subscription);
  bool RequestStop();

  std::mutex iMutex;
  std::condition_variable iWork;
  std::condition_variable iDelivered;
  std::vector<SubscriptionPtr> iSubscriptions;
  std::deque<QueuedEvent> iQueue;
  SubscriptionPtr iRunning;       ///< whose OnEvent runs now; null between two
  std::uint64_t iDeliveries = 0;  ///< counts the calls of OnEvent
  bool iStopping = false;
  bool iThreadEnded = true;
  std::thread::id iThreadId;
  std::mutex iJoinMutex;  ///< guards iThread; never taken on the delivery thread
  std::thread iThread;
};

/// Starts a broker, and stops it at the end of the scope, however that is left. What the delivery thread
/// calls must have been made before.
class ScopedDelivery {
 public:
  explicit ScopedDelivery(EventBroker& broker) : iBroker(broker) { iBroker.Start(); }
  ScopedDelivery(const ScopedDelivery&) = delete;
  ScopedDelivery& operator=(const ScopedDelivery&) = delete;
  ~ScopedDelivery() { iBroker.Stop(); }

 private:
  EventBroker& iBroker;
};

}  // namespace host
