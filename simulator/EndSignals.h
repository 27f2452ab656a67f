#pragma once

#include <poll.h>
#include <signal.h>
#include <time.h>

#include <cstddef>

namespace simulator {

/// The signals that ask the program to end: SIGINT, SIGTERM, and SIGHUP unless it is ignored. From its making
/// on they are kept back but while Wait() waits, so that they interrupt nothing else.
class EndSignals {
 public:
  EndSignals();

  /// Whether one has come.
  bool HaveCome() const;
  /// Waits like poll(2); null: for as long as it takes. Such a signal ends the wait, too.
  int Wait(pollfd* ports, std::size_t count, const timespec* timeout) const;

 private:
  sigset_t iWaitMask;
};

}  // namespace simulator
