// A lock that is cheap where it is free, and that a child process can be rid of.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

/// A lock that is hardly ever wanted by two threads at a time: that of a port, which its user takes for every
/// byte, and those of the table of ports and of the observer. With a std::mutex, locking would be the largest
/// part of what sending costs. Who finds it taken looks again after a while, which may be longer than need
/// be. Unlike a std::mutex it may be unlocked in a child process, where the thread that held it does not
/// exist.
class CSeldomShared {
 public:
  void lock() {
    while (!try_lock()) {
      std::this_thread::sleep_for(KLookAgainAfter);
    }
  }
  bool try_lock() { return !iTaken.exchange(true, std::memory_order_acquire); }
  void unlock() { iTaken.store(false, std::memory_order_release); }

 private:
  static constexpr std::chrono::microseconds KLookAgainAfter{50};

  std::atomic<bool> iTaken{false};
};
