#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace host {

/// Turns the signals that ask a program to end (Ctrl-C, SIGTERM, a closed terminal) into calls on a thread of
/// its own. Create it before any other thread, which inherit that these signals are blocked.
class SignalWatch {
 public:
  /// `onFirst` is called for the first signal, `onFurther` for each one after it.
  SignalWatch(std::function<void()> onFirst, std::function<void()> onFurther);
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  /// Ends the thread and gives the signals back.
  ~SignalWatch();

 private:
  void Run();

  const std::function<void()> iOnFirst;
  const std::function<void()> iOnFurther;
  sigset_t iSignals;
  sigset_t iPreviousMask;
  std::atomic<bool> iEnding{false};
  std::thread iThread;
};

}  // namespace host
