#include "simulator/EndSignals.h"

#include <initializer_list>

namespace simulator {

namespace {

volatile sig_atomic_t gHaveCome = 0;

void Note(int) {
  gHaveCome = 1;
}

bool IsIgnored(int number) {
  struct sigaction action {};
  sigaction(number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

sigset_t ToBeCaught() {
  sigset_t caught;
  sigemptyset(&caught);
  sigaddset(&caught, SIGINT);
  sigaddset(&caught, SIGTERM);
  // Under nohup a closed terminal is to be survived.
  if (!IsIgnored(SIGHUP)) {
    sigaddset(&caught, SIGHUP);
  }
  return caught;
}

}  // namespace

EndSignals::EndSignals() {
  const sigset_t caught = ToBeCaught();
  pthread_sigmask(SIG_BLOCK, &caught, &iWaitMask);
  struct sigaction action {};
  action.sa_handler = Note;
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigismember(&caught, each) == 1) {
      sigaction(each, &action, nullptr);
      sigdelset(&iWaitMask, each);
    }
  }
}

bool EndSignals::HaveCome() const {
  return gHaveCome != 0;
}

int EndSignals::Wait(pollfd* ports, std::size_t count, const timespec* timeout) const {
  return ppoll(ports, count, timeout, &iWaitMask);
}

}  // namespace simulator
