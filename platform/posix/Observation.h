// How the ports tell their observer.
#pragma once

#include <atomic>
#include <cerrno>
#include <mutex>
#include <utility>

#include "LineObserver.h"
#include "SeldomShared.h"

/// The process's observer of serial lines, if there is one.
class CObservation {
 public:
  /// The one of the process; never destroyed, since threads may use their ports while the process ends.
  static CObservation& Instance() {
    static auto* const observation = new CObservation;
    return *observation;
  }

  /// Returns the former one, which is not called any more.
  platform::ILineObserver* Replace(platform::ILineObserver* observer) {
    const std::lock_guard<CSeldomShared> lock(iLock);
    iIsOn.store(observer != nullptr, std::memory_order_relaxed);
    return std::exchange(iObserver, observer);
  }

  /// Calls `tell` with the observer if there is one. errno is as before.
  template <typename TTell>
  void Tell(TTell tell) {
    if (!iIsOn.load(std::memory_order_relaxed)) {
      return;
    }
    const int error = errno;
    const std::lock_guard<CSeldomShared> lock(iLock);
    if (iObserver != nullptr) {
      tell(*iObserver);
    }
    errno = error;
  }

  /// A child process has no observer: that of its parent may be at work on a thread that the child does not
  /// have.
  void StartAnewInChild() {
    iIsOn.store(false, std::memory_order_relaxed);
    iObserver = nullptr;
    iLock.unlock();
  }

 private:
  std::atomic<bool> iIsOn{false};
  CSeldomShared iLock;
  platform::ILineObserver* iObserver = nullptr;
};
