#pragma once

#include <cstdint>
#include <limits>

namespace simulator {

/// A moment or a span in microseconds. The caller chooses where zero is; time never runs backwards.
using Micros = std::int64_t;

constexpr Micros kMillisecond = 1000;
constexpr Micros kSecond = 1000 * kMillisecond;

/// The moment of something that will not happen by itself.
constexpr Micros kNever = std::numeric_limits<Micros>::max();

}  // namespace simulator
