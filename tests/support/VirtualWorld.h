#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
  /// When something will happen by itself, or kNever.
  virtual std::int64_t NextEvent_us(std::int64_t now_us) = 0;
  /// The time has come to `now_us`.
  virtual void Advance(std::int64_t now_us) = 0;

  static constexpr std::int64_t kNever = INT64_MAX;
};

/// A whole host in simulated time: the clock, the broker with its timers, the serial lines and the worker
/// threads of the module. One thread runs at a time, the others wait for their turn, so that a run is the
/// same every time. When all of them wait, the clock jumps to the next thing that happens.
///
/// The test's thread is the thread that delivers events. The executable is linked with --wrap=pthread_create
/// and
/// --wrap=pthread_join. One world exists at a time.
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

  /// A serial device; the line must live as long as the world.
  void Plug(const std::string& portName, IWorldLine& line);

  /// Delivers events and lets time pass until `isDone` holds, at the longest for `limit_ms`. Whether it held.
  bool RunUntil(const std::function<bool()>& isDone, std::int64_t limit_ms);
  void RunFor(std::int64_t ms);

  std::int64_t Now_us() const { return iNow_us; }

  /// Ports made so far, and subscriptions and workers that exist now.
  std::size_t PortsMade() const { return iPorts.size(); }
  std::size_t Subscriptions() const { return iSubscriptions.size(); }
  std::size_t Workers() const { return iWorkers.size(); }

  /// For the wrapped thread functions.
  int CreateWorker(pthread_t* thread, void* (*entry)(void*), void* argument);
  int JoinWorker(pthread_t thread, void** result);
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
    int id;
    pthread_t thread;
    bool idle;
    bool ended;
  };
  struct QueuedEvent {
    TEvent event;
    std::string payload;
  };
  struct Start {
    VirtualWorld* world;
    int id;
    void* (*entry)(void*);
    void* argument;
  };
  static constexpr int kEventThread = 0;

  std::uint64_t Now_ms() override { return static_cast<std::uint64_t>(iNow_us / 1000); }
  void Sleep_us(int us) override;

  static void* RunWorker(void* start);
  ISerialPort* MakePort(const std::string& name);

  void PassTurnTo(int id);
  void WaitForTurn(int id);
  Worker* FindWorker(int id);
  Worker* NextBusyWorker();

  bool DeliverOne();
  bool DeliverDueTick();
  void Deliver(const TEvent& event);
  std::int64_t NextTick_us() const;
  void JumpToNextEvent();
  void JumpTo(std::int64_t time_us);

  std::int64_t iNow_us = 0;
  std::int64_t iLimit_us = IWorldLine::kNever;
  IEventBroker* iWitness = nullptr;
  std::vector<Subscription> iSubscriptions;
  std::deque<QueuedEvent> iQueue;
  std::map<std::string, IWorldLine*> iLines;
  std::vector<std::unique_ptr<Port>> iPorts;
  std::vector<Worker> iWorkers;
  int iLastWorker = 0;

  std::mutex iMutex;
  std::condition_variable iTurnPassed;
  int iTurn = kEventThread;
};
