#include "Flusher.h"

#include <pthread.h>
#include <signal.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace {

// Never deleted: threads may use their ports while the process ends.
std::atomic<CFlusher*> theFlusher{nullptr};

}  // namespace

// A child process has no thread but the one that made it.
void CFlusher::Replace() {
  theFlusher = new CFlusher;
}

CFlusher& CFlusher::Instance() {
  static const bool made = [] {
    Replace();
    ::pthread_atfork(nullptr, nullptr, Replace);
    return true;
  }();
  static_cast<void>(made);
  return *theFlusher;
}

bool CFlusher::CallAt(TMoment due, IGatherer& gatherer) {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iTimer.IsOpen() && !Start()) {
    return false;
  }
  Forget(gatherer);
  iCalls.push_back({due, &gatherer});
  if (due < iTimerSetFor) {
    SetTimer();
  }
  return true;
}

void CFlusher::Cancel(const IGatherer& gatherer) {
  const std::lock_guard<std::mutex> lock(iMutex);
  Forget(gatherer);
}

void CFlusher::Forget(const IGatherer& gatherer) {
  const auto isFor = [&](const TCall& call) { return call.gatherer == &gatherer; };
  iCalls.erase(std::remove_if(iCalls.begin(), iCalls.end(), isFor), iCalls.end());
}

std::vector<CFlusher::TCall>::iterator CFlusher::First() {
  return std::min_element(iCalls.begin(), iCalls.end(),
                          [](const TCall& one, const TCall& other) { return one.due < other.due; });
}

void CFlusher::SetTimer() {
  itimerspec first{};
  iTimerSetFor = TMoment::max();
  if (!iCalls.empty()) {
    iTimerSetFor = First()->due;
    const auto due = iTimerSetFor.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due);
    first.it_value.tv_sec = static_cast<time_t>(seconds.count());
    first.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(due - seconds).count());
  }
  ::timerfd_settime(iTimer.Get(), TFD_TIMER_ABSTIME, &first, nullptr);
}

// Signals are for the threads that the host has meant them for.
bool CFlusher::Start() {
  const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  if (timer == -1) {
    return false;
  }
  iTimer.Reset(timer);
  sigset_t all;
  sigset_t former;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &former);
  pthread_t thread;
  const auto run = [](void* flusher) -> void* { static_cast<CFlusher*>(flusher)->Run(); };
  const bool running = ::pthread_create(&thread, nullptr, run, this) == 0;
  ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
  if (running) {
    ::pthread_detach(thread);
  } else {
    iTimer.Close();
  }
  return running;
}

void CFlusher::Run() {
  for (;;) {
    while (IGatherer* const gatherer = NextDue()) {
      gatherer->FlushDue();
    }
    std::uint64_t expirations = 0;
    RetryInterrupted([&] { return ::read(iTimer.Get(), &expirations, sizeof expirations); });
  }
}

// Takes one whose moment has come off the list; null, with the timer set, when there is none.
IGatherer* CFlusher::NextDue() {
  const std::lock_guard<std::mutex> lock(iMutex);
  const auto next = First();
  if (next == iCalls.end() || next->due > std::chrono::steady_clock::now()) {
    SetTimer();
    return nullptr;
  }
  IGatherer* const gatherer = next->gatherer;
  iCalls.erase(next);
  return gatherer;
}
