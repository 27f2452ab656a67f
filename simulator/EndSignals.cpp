#include "simulator/EndSignals.h"

namespace simulator {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

volatile sig_atomic_t gHaveCome = 0;

void Note(int) {
  gHaveCome = 1;
}

}  // namespace

EndSignals::EndSignals() {
  struct sigaction action {};
  action.sa_handler = Note;
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int each : kSignals) {
    sigaction(each, &action, nullptr);
    sigaddset(&blocked, each);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, &iWaitMask);
  for (const int each : kSignals) {
    sigdelset(&iWaitMask, each);
  }
}

bool EndSignals::HaveCome() const {
  return gHaveCome != 0;
}

int EndSignals::Wait(pollfd* ports, std::size_t count, const timespec* timeout) const {
  return ppoll(ports, count, timeout, &iWaitMask);
}

}  // namespace simulator
