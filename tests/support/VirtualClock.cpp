#include "VirtualClock.h"

#include <atomic>
#include <mutex>

#include "Clock.h"

namespace {

std::atomic<std::uint64_t> now_us{0};
std::atomic<std::uint64_t> yields{0};
std::atomic<virtual_clock::IWorldClock*> world{nullptr};
std::mutex sleeps_mutex;
std::vector<int> sleeps_us;

}  // namespace

namespace virtual_clock {

void Reset() {
  now_us = 0;
  yields = 0;
  world = nullptr;
  const std::lock_guard<std::mutex> lock(sleeps_mutex);
  sleeps_us.clear();
}

std::uint64_t Now_ms() {
  return now_us / 1000;
}

void Advance_ms(std::uint64_t ms) {
  now_us += ms * 1000;
}

std::vector<int> Sleeps_us() {
  const std::lock_guard<std::mutex> lock(sleeps_mutex);
  return sleeps_us;
}

std::uint64_t Yields() {
  return yields;
}

void SetWorld(IWorldClock* newWorld) {
  world = newWorld;
}

}  // namespace virtual_clock

TUint64 OSALTickCount() {
  auto* present = world.load();
  return present != nullptr ? present->Now_ms() : virtual_clock::Now_ms();
}

void platSleep(TInt microseconds) {
  if (microseconds == 0) {
    ++yields;
  } else {
    const std::lock_guard<std::mutex> lock(sleeps_mutex);
    sleeps_us.push_back(microseconds);
    now_us += static_cast<std::uint64_t>(microseconds);
  }
  if (auto* present = world.load()) {
    present->Sleep_us(microseconds);
  }
}
