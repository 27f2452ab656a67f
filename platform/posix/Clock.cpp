#include "Clock.h"

#include <sched.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "Waiting.h"

namespace {

thread_local IPolled* lastPolled = nullptr;

void GiveProcessorAway() {
  // Once only: the thread may have turned to something else after the pause that belongs to the poll.
  if (IPolled* const polled = std::exchange(lastPolled, nullptr)) {
    polled->AwaitChange();
  } else {
    sched_yield();
  }
}

}  // namespace

void HasPolled(IPolled* polled) {
  lastPolled = polled;
}

TUint64 OSALTickCount() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<TUint64>(now.tv_sec) * 1000 + static_cast<TUint64>(now.tv_nsec) / 1000000;
}

void platSleep(TInt microseconds) {
  if (microseconds < 0) {
    return;
  }
  if (microseconds == 0) {
    GiveProcessorAway();
    return;
  }
  timespec rest{microseconds / 1000000, (microseconds % 1000000) * 1000L};
  while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
  }
}
