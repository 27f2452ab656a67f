// Goal: the broker keeps what its header promises, whoever calls what from where.
// Method: observers that run a function of the test in OnEvent. Tests wait for what must happen, without a
// limit of their own, and assert lower bounds of time only: a busy machine makes them slow, never wrong. Each
// stops the broker before its observers go.
#include "EventBroker.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>

namespace {

using host::EventBroker;
using namespace std::chrono_literals;
using testing::ElementsAre;

TEvent User(TUint32 id) {
  return {EUserEvent, id, 0, nullptr};
}

TEvent Timer(TUint32 period_ms, bool repeating) {
  return {ETimerEvent, 0, period_ms, reinterpret_cast<const void*>(repeating ? 1 : 0)};
}

class Observer final : public IEventObserver {
 public:
  explicit Observer(std::function<void(const TEvent&)> action) : iAction(std::move(action)) {}
  void OnEvent(const TEvent& event) override { iAction(event); }

 private:
  std::function<void(const TEvent&)> iAction;
};

// Counts what it gets, and lets the test wait for a count.
class Counter final : public IEventObserver {
 public:
  void OnEvent(const TEvent& event) override {
    const std::lock_guard<std::mutex> lock(iMutex);
    iEvents.push_back(event);
    iTimes.push_back(std::chrono::steady_clock::now());
    iChanged.notify_all();
  }

  void WaitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(iMutex);
    iChanged.wait(lock, [&] { return iEvents.size() >= count; });
  }

  std::size_t Count() {
    const std::lock_guard<std::mutex> lock(iMutex);
    return iEvents.size();
  }

  // To be read when nothing is delivered any more.
  std::vector<TEvent> iEvents;
  std::vector<std::chrono::steady_clock::time_point> iTimes;

 private:
  std::mutex iMutex;
  std::condition_variable iChanged;
};

class EventBrokerTest : public testing::Test {
 protected:
  // Posts an event that is delivered behind all that is queued, and waits for it.
  void Drain() {
    Counter last;
    iBroker.Subscribe(User(9999), last);
    iBroker.Post(User(9999));
    last.WaitFor(1);
    iBroker.Unsubscribe(User(9999), last);
  }

  EventBroker iBroker;
};

TEST_F(EventBrokerTest, DeliversToEverySubscriberInTheOrderOfSubscription) {
  std::vector<int> order;
  Observer first([&](const TEvent&) { order.push_back(1); });
  Observer second([&](const TEvent&) { order.push_back(2); });
  iBroker.Subscribe(User(1), first);
  iBroker.Subscribe(User(1), second);
  iBroker.Start();
  iBroker.Post(User(1));
  Drain();
  EXPECT_THAT(order, ElementsAre(1, 2));
  iBroker.Stop();
}

TEST_F(EventBrokerTest, DeliversOnlyTheTypeAndIdSubscribedTo) {
  Counter counter;
  iBroker.Subscribe(User(1), counter);
  iBroker.Start();
  iBroker.Post(User(2));
  iBroker.Post({7, 1, 0, nullptr});
  iBroker.Post(User(1));
  Drain();
  ASSERT_EQ(counter.iEvents.size(), 1u);
  EXPECT_EQ(counter.iEvents[0].type, EUserEvent);
  EXPECT_EQ(counter.iEvents[0].id, 1u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, CopiesThePayloadBeforePostReturns) {
  std::string received;
  Observer observer(
      [&](const TEvent& event) { received.assign(static_cast<const char*>(event.data), event.length); });
  iBroker.Subscribe(User(1), observer);
  std::string payload = "before";
  iBroker.Post({EUserEvent, 1, static_cast<TUint32>(payload.size()), payload.data()});
  payload = "behind";
  iBroker.Start();
  Drain();
  EXPECT_EQ(received, "before");
  iBroker.Stop();
}

TEST_F(EventBrokerTest, ANullPayloadHasNoLength) {
  Counter counter;
  iBroker.Subscribe(User(1), counter);
  iBroker.Start();
  iBroker.Post({EUserEvent, 1, 12, nullptr});
  Drain();
  EXPECT_EQ(counter.iEvents[0].length, 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, DeliversWhatWasPostedBeforeStart) {
  Counter counter;
  iBroker.Subscribe(User(1), counter);
  iBroker.Post(User(1));
  EXPECT_EQ(counter.Count(), 0u);
  iBroker.Start();
  counter.WaitFor(1);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AllDeliveriesAreOnOneThreadThatIsNotThePosters) {
  std::vector<std::thread::id> threads;
  Observer observer([&](const TEvent&) { threads.push_back(std::this_thread::get_id()); });
  iBroker.Subscribe(User(1), observer);
  iBroker.Start();
  iBroker.Start();
  iBroker.Post(User(1));
  std::thread([&] { iBroker.Post(User(1)); }).join();
  Drain();
  ASSERT_EQ(threads.size(), 2u);
  EXPECT_EQ(threads[0], threads[1]);
  EXPECT_NE(threads[0], std::this_thread::get_id());
  iBroker.Stop();
}

TEST_F(EventBrokerTest, TheSamePairSubscribedTwiceIsDeliveredOnceAndUnsubscribedOnce) {
  Counter counter;
  iBroker.Subscribe(User(1), counter);
  iBroker.Subscribe(User(1), counter);
  iBroker.Start();
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(counter.Count(), 1u);
  iBroker.Unsubscribe(User(1), counter);
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(counter.Count(), 1u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, WhatIsPostedFromInsideIsDeliveredAfterwards) {
  std::vector<std::string> order;
  Observer inner([&](const TEvent&) { order.push_back("inner"); });
  Observer outer([&](const TEvent&) {
    iBroker.Post(User(2));
    order.push_back("outer");
  });
  iBroker.Subscribe(User(1), outer);
  iBroker.Subscribe(User(2), inner);
  iBroker.Start();
  iBroker.Post(User(1));
  Drain();
  Drain();
  EXPECT_THAT(order, ElementsAre("outer", "inner"));
  iBroker.Stop();
}

TEST_F(EventBrokerTest, WhoIsSubscribedFromInsideGetsTheNextEventAndNotThisOne) {
  Counter late;
  Observer observer([&](const TEvent&) { iBroker.Subscribe(User(1), late); });
  iBroker.Subscribe(User(1), observer);
  iBroker.Start();
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(late.Count(), 0u);
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(late.Count(), 1u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AnObserverMayUnsubscribeItselfFromInside) {
  int calls = 0;
  Observer* self = nullptr;
  Observer observer([&](const TEvent&) {
    ++calls;
    iBroker.Unsubscribe(User(1), *self);
  });
  self = &observer;
  iBroker.Subscribe(User(1), observer);
  iBroker.Start();
  iBroker.Post(User(1));
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(calls, 1);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AnObserverUnsubscribedByTheOneBeforeItIsNotCalledAnyMore) {
  auto next = std::make_unique<Counter>();
  Observer first([&](const TEvent&) {
    if (next != nullptr) {
      iBroker.Unsubscribe(User(1), *next);
      next.reset();
    }
  });
  iBroker.Subscribe(User(1), first);
  iBroker.Subscribe(User(1), *next);
  iBroker.Start();
  iBroker.Post(User(1));
  Drain();
  EXPECT_EQ(next, nullptr);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AnUnknownPairIsIgnoredInsideAndOutside) {
  Counter stranger;
  Counter counter;
  Observer observer([&](const TEvent&) { iBroker.Unsubscribe(User(1), stranger); });
  iBroker.Unsubscribe(User(1), stranger);
  iBroker.Subscribe(User(1), observer);
  iBroker.Subscribe(User(1), counter);
  iBroker.Start();
  iBroker.Post(User(1));
  counter.WaitFor(1);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, UnsubscribingOnAnotherThreadWaitsForTheRunningCall) {
  std::promise<void> entered;
  std::atomic<bool> finished{false};
  Observer observer([&](const TEvent&) {
    entered.set_value();
    std::this_thread::sleep_for(50ms);
    finished = true;
  });
  iBroker.Subscribe(User(1), observer);
  iBroker.Start();
  iBroker.Post(User(1));
  entered.get_future().wait();
  iBroker.Unsubscribe(User(1), observer);
  EXPECT_TRUE(finished);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, UnsubscribingWaitsAlsoWhenTheRunningCallHasUnsubscribedItself) {
  std::promise<void> entered;
  std::atomic<bool> finished{false};
  Observer* self = nullptr;
  Observer observer([&](const TEvent&) {
    iBroker.Unsubscribe(User(1), *self);
    entered.set_value();
    std::this_thread::sleep_for(50ms);
    finished = true;
  });
  self = &observer;
  iBroker.Subscribe(User(1), observer);
  iBroker.Start();
  iBroker.Post(User(1));
  entered.get_future().wait();
  iBroker.Unsubscribe(User(1), observer);
  EXPECT_TRUE(finished);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, UnsubscribingDoesNotWaitForTheCallOfAnotherPair) {
  std::promise<void> entered;
  std::promise<void> release;
  Counter other;
  Observer observer([&](const TEvent&) {
    entered.set_value();
    release.get_future().wait();
  });
  iBroker.Subscribe(User(1), observer);
  iBroker.Subscribe(User(2), other);
  iBroker.Start();
  iBroker.Post(User(1));
  entered.get_future().wait();
  iBroker.Unsubscribe(User(2), other);
  release.set_value();
  Drain();
  iBroker.Stop();
}

TEST_F(EventBrokerTest, ARepeatingTimerTicksWithItsFilterAndNotTooEarly) {
  Counter counter;
  const auto start = std::chrono::steady_clock::now();
  iBroker.Subscribe(Timer(5, true), counter);
  iBroker.Start();
  counter.WaitFor(4);
  iBroker.Stop();
  EXPECT_GE(counter.iTimes[3] - start, 20ms);
  EXPECT_EQ(counter.iEvents[0].type, ETimerEvent);
  EXPECT_EQ(counter.iEvents[0].id, 0u);
  EXPECT_EQ(counter.iEvents[0].length, 5u);
  EXPECT_EQ(counter.iEvents[0].data, reinterpret_cast<const void*>(1));
  iBroker.Stop();
}

TEST_F(EventBrokerTest, ATimerThatDoesNotRepeatTicksOnceAndMayBeStartedAgain) {
  Counter once;
  Counter repeating;
  iBroker.Subscribe(Timer(1, false), once);
  iBroker.Subscribe(Timer(2, true), repeating);
  iBroker.Start();
  repeating.WaitFor(5);
  EXPECT_EQ(once.Count(), 1u);
  iBroker.Subscribe(Timer(1, false), once);
  once.WaitFor(2);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, EachTimerSubscriberHasItsOwnPeriod) {
  Counter fast;
  Counter slow;
  iBroker.Subscribe(Timer(3600 * 1000, true), slow);
  iBroker.Subscribe(Timer(1, true), fast);
  iBroker.Start();
  fast.WaitFor(10);
  EXPECT_EQ(slow.Count(), 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, SubscribingATimerAgainReplacesItsPeriodAndStartsItAnew) {
  Counter counter;
  iBroker.Subscribe(Timer(3600 * 1000, false), counter);
  iBroker.Start();
  iBroker.Subscribe(Timer(1, true), counter);
  counter.WaitFor(2);
  iBroker.Unsubscribe(Timer(0, false), counter);
  EXPECT_EQ(counter.iEvents[0].length, 1u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, TicksMissedDuringASlowCallAreNotMadeUpFor) {
  constexpr auto kPeriod = 20ms;
  Counter counter;
  Observer slowOnce([&](const TEvent& event) {
    counter.OnEvent(event);
    if (counter.Count() == 1) {
      std::this_thread::sleep_for(10 * kPeriod);
    }
  });
  iBroker.Subscribe(Timer(20, true), slowOnce);
  iBroker.Start();
  counter.WaitFor(5);
  iBroker.Stop();
  // The second tick is the late one. Whatever the machine does, the fifth is due two periods after it at
  // least.
  EXPECT_GE(counter.iTimes[4] - counter.iTimes[1], 2 * kPeriod);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AFastTimerWithASlowObserverDoesNotKeepEventsFromBeingDelivered) {
  Observer slow([](const TEvent&) { std::this_thread::sleep_for(5ms); });
  iBroker.Subscribe(Timer(0, true), slow);
  iBroker.Start();
  Drain();
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AFloodOfEventsDoesNotKeepATimerFromTicking) {
  Counter ticks;
  Observer flood([&](const TEvent&) { iBroker.Post(User(1)); });
  iBroker.Subscribe(User(1), flood);
  iBroker.Subscribe(Timer(1, true), ticks);
  iBroker.Start();
  iBroker.Post(User(1));
  ticks.WaitFor(3);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, ATimerMayBeUnsubscribedAndSubscribedFromItsOwnTick) {
  Counter counter;
  Observer* self = nullptr;
  Observer observer([&](const TEvent& event) {
    iBroker.Unsubscribe(event, *self);
    if (counter.Count() < 2) {
      iBroker.Subscribe(Timer(1, true), *self);
    }
    counter.OnEvent(event);
  });
  self = &observer;
  iBroker.Subscribe(Timer(1, true), observer);
  iBroker.Start();
  counter.WaitFor(3);
  Counter others;
  iBroker.Subscribe(Timer(1, true), others);
  others.WaitFor(5);
  EXPECT_EQ(counter.Count(), 3u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, TimerEventsCannotBePosted) {
  Counter counter;
  iBroker.Subscribe(Timer(3600 * 1000, true), counter);
  iBroker.Start();
  iBroker.Post(Timer(500, true));
  Drain();
  EXPECT_EQ(counter.Count(), 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, StopWaitsForTheRunningCallAndDropsWhatIsQueued) {
  std::promise<void> entered;
  std::promise<void> release;
  Counter queued;
  Observer observer([&](const TEvent&) {
    entered.set_value();
    release.get_future().wait();
  });
  iBroker.Subscribe(User(1), observer);
  iBroker.Subscribe(User(1), queued);
  iBroker.Subscribe(User(2), queued);
  iBroker.Start();
  iBroker.Post(User(1));
  iBroker.Post(User(2));
  entered.get_future().wait();
  EXPECT_FALSE(iBroker.StopWithin(1ms));
  release.set_value();
  iBroker.Stop();
  iBroker.Stop();
  EXPECT_TRUE(iBroker.StopWithin(0ms));
  EXPECT_EQ(queued.Count(), 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AfterStopEverythingMayBeCalledAndNothingIsDelivered) {
  Counter counter;
  iBroker.Start();
  iBroker.Stop();
  iBroker.Start();
  iBroker.Subscribe(User(1), counter);
  iBroker.Post(User(1));
  iBroker.Unsubscribe(User(1), counter);
  EXPECT_EQ(counter.Count(), 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, StopWithoutStartReturnsAtOnce) {
  EXPECT_TRUE(iBroker.StopWithin(0ms));
  iBroker.Stop();
}

TEST_F(EventBrokerTest, StopFromInsideAnnouncesTheEndAndTheNextStopWaits) {
  Counter counter;
  std::promise<bool> stopped;
  Observer observer([&](const TEvent&) {
    iBroker.Stop();
    stopped.set_value(iBroker.StopWithin(0ms));
  });
  iBroker.Subscribe(User(1), observer);
  iBroker.Subscribe(User(1), counter);
  iBroker.Start();
  iBroker.Post(User(1));
  EXPECT_FALSE(stopped.get_future().get());
  iBroker.Stop();
  EXPECT_EQ(counter.Count(), 0u);
  iBroker.Stop();
}

TEST_F(EventBrokerTest, ManyThreadsMayPostSubscribeAndUnsubscribeAtOnce) {
  iBroker.Start();
  std::vector<std::thread> threads;
  for (TUint32 id = 1; id <= 4; ++id) {
    threads.emplace_back([this, id] {
      for (int round = 0; round < 200; ++round) {
        std::atomic<int> delivered{0};
        bool alive = true;
        Observer observer([&](const TEvent&) {
          EXPECT_TRUE(alive);
          ++delivered;
        });
        iBroker.Subscribe(User(id % 2), observer);
        iBroker.Subscribe(Timer(1, true), observer);
        iBroker.Post(User(id % 2));
        // Most rounds unsubscribe in the thick of it, some after a delivery that must come.
        while (round % 20 == 0 && delivered == 0) {
          std::this_thread::yield();
        }
        iBroker.Unsubscribe(User(id % 2), observer);
        iBroker.Unsubscribe(Timer(1, true), observer);
        alive = false;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  iBroker.Stop();
}

TEST_F(EventBrokerTest, AScopeDeliversUntilItIsLeftHowever) {
  std::atomic<int> calls{0};
  std::atomic<bool> failed{false};
  try {
    const host::ScopedDelivery delivery(iBroker);
    Drain();
    throw std::runtime_error("left");
  } catch (const std::runtime_error&) {
    failed = true;
  }
  Observer late([&](const TEvent&) { ++calls; });
  iBroker.Subscribe(Timer(1, true), late);
  std::this_thread::sleep_for(20ms);
  iBroker.Stop();
  EXPECT_TRUE(failed);
  EXPECT_EQ(calls, 0);
}

}  // namespace
