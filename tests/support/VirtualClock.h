#pragma once

#include <cstdint>
#include <functional>
#include <vector>

/// The platform's clock and sleep in tests: time stands still but for what the test and its fakes advance.
namespace virtual_clock {

/// Back to time 0, no sleeps, no hook.
void Reset();

std::uint64_t Now_ms();
void Advance_ms(std::uint64_t ms);

/// Every platSleep but the yields, in microseconds. A sleep advances the time.
std::vector<int> Sleeps_us();

/// How often the processor was given away by platSleep(0).
std::uint64_t Yields();

/// Called instead of the clock's own answer; a simulated world puts itself here. Null takes it away.
struct IWorldClock {
  virtual ~IWorldClock() = default;
  virtual std::uint64_t Now_ms() = 0;
  virtual void Sleep_us(int us) = 0;
};
void SetWorld(IWorldClock* world);

}  // namespace virtual_clock
