#pragma once

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Fiber.h"
#include "IEventBroker.h"
#include "ISerialPort.h"
#include "VirtualClock.h"

/// What hangs on a serial port of the world. Times are microseconds of the world's clock.
class IWorldLine {
 public:
  virtual ~IWorldLine() = default;

  /// The host sends a byte. False when the line is broken.
  virtual bool HostWrite(std::uint8_t byte, std::int64_t now_us) = 0;
  /// What has arrived at the host: 1 and a byte, 0 for nothing, -1 when the line is broken.
  virtual int HostRead(std::uint8_t& byte, std::int64_t now_us) = 0;
  /// Lets the time pass to `limit_us`, or only to the moment at which a byte arrives at the host or the line
  /// breaks. Returns that moment.
  virtual std::int64_t AdvanceToArrival(std::int64_t limit_us) = 0;
  /// The host has made a port on this line at `now_us`.
  virtual void Opened(std::int64_t /*now_us*/) {}
};

/// A whole host in simulated time: the clock, the broker with its timers, a serial line and the worker
/// threads of the module. The workers are fibers that take turns with the thread that delivers events, which
/// is the test's, so that a run is the same every time. When all of them wait, the clock jumps to the next
/// thing that happens.
///
/// The executable is linked with --wrap=pthread_create and --wrap=pthread_join. One world exists at a time.
class VirtualWorld : public IEventBroker, private virtual_clock::IWorldClock {
 public:
  VirtualWorld();
  ~VirtualWorld() override;
  VirtualWorld(const VirtualWorld&) = delete;
  VirtualWorld& operator=(const VirtualWorld&) = delete;

  void Subscribe(const TEvent& filter, IEventObserver& observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
  void Post(const TEvent& event) override;

  /// Passes every call of the broker on to `witness` before it is carried out. Null ends it.
  void SetWitness(IEventBroker* witness) { iWitness = witness; }

  /// The one serial device, in the place of the one before; the line must live as long as the world.
  void Plug(const std::string& portName, IWorldLine& line);

  /// Delivers events and lets time pass until `isDone` holds, at the longest for `limit_ms`. Whether it held.
  bool RunUntil(const std::function<bool()>& isDone, std::int64_t limit_ms);
  void RunFor(std::int64_t ms);

  std::int64_t Now_us() const { return iNow_us; }

  /// Ports made so far, and subscriptions and workers that exist now.
  std::size_t PortsMade() const { return iPorts.size(); }
  std::size_t Subscriptions() const { return iSubscriptions.size(); }
  std::size_t Workers() const { return iWorkers.size(); }
  /// Workers whose function has not returned yet.
  std::size_t BusyWorkers() const;
  /// Whether the caller is the thread that delivers events.
  static bool OnEventThread() { return Fiber::Current() == nullptr; }

  /// Asked before each worker is made: true lets its creation fail.
  void RefuseThreads(std::function<bool()> refuses) { iRefusesThread = std::move(refuses); }

  /// For the wrapped thread functions.
  int CreateWorker(pthread_t* thread, void* (*entry)(void*), void* argument);
  int JoinWorker(pthread_t thread);
  static VirtualWorld* Present();

 private:
  class Port;
  struct Subscription {
    std::uint32_t type;
    std::uint32_t id;
    std::int64_t period_us;
    bool repeats;
    std::int64_t due_us;
    IEventObserver* observer;
  };
  struct Worker {
    pthread_t thread;
    bool idle;
    std::unique_ptr<Fiber> fiber;
  };
  struct QueuedEvent {
    TEvent event;
    std::string payload;
  };
  static constexpr std::int64_t kNever = INT64_MAX;

  std::uint64_t Now_ms() override { return static_cast<std::uint64_t>(iNow_us / 1000); }
  void Sleep_us(int us) override;

  ISerialPort* MakePort(const std::string& name);

  Worker* FindWorker(pthread_t thread);
  Worker* CurrentWorker();
  Worker* NextBusyWorker();
  void LetEventThreadCatchUp();

  bool DeliverOne();
  bool DeliverDueTick();
  void Deliver(const TEvent& event);
  std::int64_t NextTick_us() const;
  void JumpToNextEvent();

  std::int64_t iNow_us = 0;
  std::int64_t iLimit_us = kNever;
  IEventBroker* iWitness = nullptr;
  std::vector<Subscription> iSubscriptions;
  std::deque<QueuedEvent> iQueue;
  std::string iPortName;
  IWorldLine* iLine = nullptr;
  std::vector<std::unique_ptr<Port>> iPorts;
  std::vector<Worker> iWorkers;
  std::function<bool()> iRefusesThread;
  pthread_t iLastThread = 0;
  bool iLastReadWasEmpty = false;
};
