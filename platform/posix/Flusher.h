// Sees to it that what was gathered goes out though nobody calls again.
#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include "Descriptor.h"

using TMoment = std::chrono::steady_clock::time_point;

/// Something that keeps bytes back for a short while.
class IGatherer {
 public:
  /// Called on the flusher's thread when the moment has come that was asked for.
  virtual void FlushDue() = 0;

 protected:
  ~IGatherer() = default;
};

/// A thread that sleeps until something is due. There is one per process, begun when it is needed first, and
/// it ends with the process. Cancelling a call costs no system call, nor does asking for one that is later
/// than the timer's moment: the thread wakes then, finds nothing due and sets the timer anew.
class CFlusher {
 public:
  /// The one of this process, be it a child of another.
  static CFlusher& Instance();

  /// Calls the gatherer, which must live until the process ends, at `due`, and not when it was asked to
  /// before. False when there is no thread to be had. Any thread; it may hold a lock that FlushDue() takes.
  bool CallAt(TMoment due, IGatherer& gatherer);

  /// Does not call the gatherer, unless it is about to. Any thread, as above.
  void Cancel(const IGatherer& gatherer);

 private:
  struct TCall {
    TMoment due;
    IGatherer* gatherer;
  };

  CFlusher() = default;
  static void Replace();
  bool Start();
  [[noreturn]] void Run();
  IGatherer* NextDue();
  void Forget(const IGatherer& gatherer);
  std::vector<TCall>::iterator First();
  void SetTimer();

  std::mutex iMutex;
  // Goes off at the first moment in iCalls at the latest.
  CDescriptor iTimer;
  TMoment iTimerSetFor = TMoment::max();
  std::vector<TCall> iCalls;
};
