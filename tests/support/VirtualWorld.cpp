#include "VirtualWorld.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>

#include "SerialPorts.h"

namespace {

// How far the clock jumps at most while somebody waits, so that waits end close to their limits.
constexpr std::int64_t kLongestJump_us = 100'000;

VirtualWorld* present_world = nullptr;

}  // namespace

class VirtualWorld::Port : public ISerialPort {
 public:
  Port(VirtualWorld& world, IWorldLine& line) : iWorld(world), iLine(&line) {}

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override {
    for (*written = 0; *written < count; ++*written) {
      if (iLine == nullptr || !iLine->HostWrite(buffer[*written], iWorld.iNow_us)) {
        return -1;
      }
    }
    iWorld.LetEventThreadCatchUp();
    return 0;
  }

  TInt32 Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) override {
    const int result = iLine == nullptr ? -1 : iLine->HostRead(*buffer, iWorld.iNow_us);
    iWorld.iLastReadWasEmpty = result == 0;
    *received = result == 1 ? 1 : 0;
    iWorld.LetEventThreadCatchUp();
    return result < 0 ? -1 : 0;
  }

  IWorldLine* Line() const { return iLine; }
  void LoseLine() { iLine = nullptr; }

 private:
  VirtualWorld& iWorld;
  IWorldLine* iLine;
};

VirtualWorld::VirtualWorld() {
  present_world = this;
  virtual_clock::Reset();
  virtual_clock::SetWorld(this);
  SetPortFactory([this](const PortRequest& request) { return MakePort(request.name); });
}

VirtualWorld::~VirtualWorld() {
  SetPortFactory(nullptr);
  virtual_clock::Reset();
  present_world = nullptr;
}

VirtualWorld* VirtualWorld::Present() {
  return present_world;
}

void VirtualWorld::Plug(const std::string& portName, IWorldLine& line) {
  iPortName = portName;
  iLine = &line;
}

// As the platform does: a port made anew takes the line over from the one before.
ISerialPort* VirtualWorld::MakePort(const std::string& name) {
  if (iLine == nullptr || name != iPortName) {
    return nullptr;
  }
  for (const auto& port : iPorts) {
    if (port->Line() == iLine) {
      port->LoseLine();
    }
  }
  iLine->Opened(iNow_us);
  iPorts.push_back(std::make_unique<Port>(*this, *iLine));
  return iPorts.back().get();
}

// ---- The broker ----

void VirtualWorld::Subscribe(const TEvent& filter, IEventObserver& observer) {
  if (iWitness != nullptr) {
    iWitness->Subscribe(filter, observer);
  }
  const std::int64_t period_us = filter.type == ETimerEvent ? std::int64_t{filter.length} * 1000 : 0;
  iSubscriptions.push_back(
      {filter.type, filter.id, period_us, filter.data != nullptr, iNow_us + period_us, &observer});
}

void VirtualWorld::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
  if (iWitness != nullptr) {
    iWitness->Unsubscribe(filter, observer);
  }
  iSubscriptions.erase(std::remove_if(iSubscriptions.begin(), iSubscriptions.end(),
                                      [&](const Subscription& subscription) {
                                        return subscription.type == filter.type &&
                                               subscription.id == filter.id &&
                                               subscription.observer == &observer;
                                      }),
                       iSubscriptions.end());
}

void VirtualWorld::Post(const TEvent& event) {
  if (iWitness != nullptr) {
    iWitness->Post(event);
  }
  const auto* bytes = static_cast<const char*>(event.data);
  iQueue.push_back({event, bytes == nullptr ? std::string() : std::string(bytes, event.length)});
}

bool VirtualWorld::DeliverOne() {
  if (iQueue.empty()) {
    return false;
  }
  const QueuedEvent queued = std::move(iQueue.front());
  iQueue.pop_front();
  TEvent event = queued.event;
  event.data = queued.payload.data();
  Deliver(event);
  return true;
}

// Observers may come and go while an event is delivered; only those that were there at first and still are
// get it.
void VirtualWorld::Deliver(const TEvent& event) {
  std::vector<IEventObserver*> observers;
  for (const Subscription& subscription : iSubscriptions) {
    if (subscription.type == event.type && subscription.id == event.id) {
      observers.push_back(subscription.observer);
    }
  }
  for (IEventObserver* observer : observers) {
    const bool isStillThere =
        std::any_of(iSubscriptions.begin(), iSubscriptions.end(), [&](const Subscription& subscription) {
          return subscription.observer == observer && subscription.type == event.type &&
                 subscription.id == event.id;
        });
    if (isStillThere) {
      observer->OnEvent(event);
    }
  }
}

bool VirtualWorld::DeliverDueTick() {
  const auto due = std::find_if(iSubscriptions.begin(), iSubscriptions.end(), [&](const Subscription& timer) {
    return timer.period_us > 0 && timer.due_us <= iNow_us;
  });
  if (due == iSubscriptions.end()) {
    return false;
  }
  due->due_us += due->period_us;
  const TEvent tick = {due->type, due->id, static_cast<TUint32>(due->period_us / 1000), nullptr};
  due->observer->OnEvent(tick);
  return true;
}

std::int64_t VirtualWorld::NextTick_us() const {
  std::int64_t next_us = kNever;
  for (const Subscription& timer : iSubscriptions) {
    if (timer.period_us > 0) {
      next_us = std::min(next_us, timer.due_us);
    }
  }
  return next_us;
}

// ---- Time and turns ----

bool VirtualWorld::RunUntil(const std::function<bool()>& isDone, std::int64_t limit_ms) {
  iLimit_us = iNow_us + limit_ms * 1000;
  while (!isDone() && iNow_us < iLimit_us) {
    if (DeliverOne() || DeliverDueTick()) {
      continue;
    }
    if (Worker* worker = NextBusyWorker()) {
      worker->fiber->Resume();
    } else {
      JumpToNextEvent();
    }
  }
  return isDone();
}

void VirtualWorld::RunFor(std::int64_t ms) {
  RunUntil([] { return false; }, ms);
}

void VirtualWorld::JumpToNextEvent() {
  const std::int64_t longest_us = BusyWorkers() == 0 ? iLimit_us : iNow_us + kLongestJump_us;
  const std::int64_t limit_us = std::min({longest_us, NextTick_us(), iLimit_us});
  iNow_us = iLine == nullptr ? limit_us : iLine->AdvanceToArrival(limit_us);
  for (Worker& worker : iWorkers) {
    worker.idle = false;
  }
}

// A worker that has just found nothing to read gives its turn away, or moves the clock when everybody waits.
void VirtualWorld::Sleep_us(int /*us*/) {
  if (OnEventThread() || !iLastReadWasEmpty) {
    return;
  }
  Worker* self = CurrentWorker();
  self->idle = true;
  if (NextBusyWorker() != nullptr) {
    self->fiber->Yield();
    return;
  }
  const std::int64_t tick_us = NextTick_us();
  JumpToNextEvent();
  if (iNow_us >= tick_us || iNow_us >= iLimit_us) {
    self->fiber->Yield();
  }
}

// What was posted while a worker used the line is delivered at once, as on a machine of several processors.
void VirtualWorld::LetEventThreadCatchUp() {
  if (!iQueue.empty() && !OnEventThread()) {
    Fiber::Current()->Yield();
  }
}

VirtualWorld::Worker* VirtualWorld::FindWorker(pthread_t thread) {
  const auto worker = std::find_if(iWorkers.begin(), iWorkers.end(),
                                   [thread](const Worker& candidate) { return candidate.thread == thread; });
  return worker == iWorkers.end() ? nullptr : &*worker;
}

VirtualWorld::Worker* VirtualWorld::CurrentWorker() {
  const auto worker = std::find_if(iWorkers.begin(), iWorkers.end(), [](const Worker& candidate) {
    return candidate.fiber.get() == Fiber::Current();
  });
  return &*worker;
}

VirtualWorld::Worker* VirtualWorld::NextBusyWorker() {
  const auto worker = std::find_if(iWorkers.begin(), iWorkers.end(), [](const Worker& candidate) {
    return !candidate.idle && !candidate.fiber->Ended();
  });
  return worker == iWorkers.end() ? nullptr : &*worker;
}

std::size_t VirtualWorld::BusyWorkers() const {
  return static_cast<std::size_t>(std::count_if(iWorkers.begin(), iWorkers.end(),
                                                [](const Worker& worker) { return !worker.fiber->Ended(); }));
}

// ---- Worker threads ----

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_join(pthread_t, void**);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
  VirtualWorld* world = VirtualWorld::Present();
  return world != nullptr ? world->CreateWorker(thread, entry, argument)
                          : __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_pthread_join(pthread_t thread, void** result) {
  VirtualWorld* world = VirtualWorld::Present();
  return world != nullptr ? world->JoinWorker(thread) : __real_pthread_join(thread, result);
}
}

int VirtualWorld::CreateWorker(pthread_t* thread, void* (*entry)(void*), void* argument) {
  if (iRefusesThread && iRefusesThread()) {
    return EAGAIN;
  }
  *thread = ++iLastThread;
  auto fiber = std::make_unique<Fiber>([entry, argument] { entry(argument); });
  iWorkers.push_back({*thread, false, std::move(fiber)});
  return 0;
}

int VirtualWorld::JoinWorker(pthread_t thread) {
  Worker* worker = FindWorker(thread);
  while (!worker->fiber->Ended()) {
    worker->fiber->Resume();
  }
  iWorkers.erase(iWorkers.begin() + (worker - iWorkers.data()));
  return 0;
}
