#include "Clock.h"

#include <sched.h>

#include <cerrno>
#include <ctime>

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
    sched_yield();
    return;
  }
  timespec rest{microseconds / 1000000, (microseconds % 1000000) * 1000L};
  while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
  }
}
