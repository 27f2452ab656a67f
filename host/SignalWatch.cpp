#include "SignalWatch.h"

#include <pthread.h>

#include <utility>

namespace host {

namespace {

// Wakes the thread when it is to end; nobody else sends it.
constexpr int kWakeSignal = SIGUSR2;

// By whoever started the program: nohup wants a closed terminal to be survived, a shell's script Ctrl-C by
// what it runs in the background.
bool IsIgnored(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

SignalWatch::SignalWatch(std::function<void()> onFirst, std::function<void()> onFurther)
    : iOnFirst(std::move(onFirst)), iOnFurther(std::move(onFurther)) {
  sigemptyset(&iSignals);
  sigaddset(&iSignals, kWakeSignal);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (!IsIgnored(signal)) {
      sigaddset(&iSignals, signal);
    }
  }
  pthread_sigmask(SIG_BLOCK, &iSignals, &iPreviousMask);
  iThread = std::thread([this] { Run(); });
}

SignalWatch::~SignalWatch() {
  iEnding = true;
  pthread_kill(iThread.native_handle(), kWakeSignal);
  iThread.join();
  pthread_sigmask(SIG_SETMASK, &iPreviousMask, nullptr);
}

void SignalWatch::Run() {
  bool first = true;
  for (int signal = 0; !iEnding;) {
    if (sigwait(&iSignals, &signal) != 0 || signal == kWakeSignal) {
      continue;
    }
    (first ? iOnFirst : iOnFurther)();
    first = false;
  }
}

}  // namespace host
