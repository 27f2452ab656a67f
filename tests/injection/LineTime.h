#pragma once

#include <cstdint>

/// A clock for a line and both its ends, fast but patient: it goes on by leaps, and only when the line is
/// quiet and the host has looked at the clock since the last leap. So no wait ends because a loaded machine
/// has left somebody without a turn. Linking the library of this name gives it to the platform's own clock.
namespace line_time {

/// Microseconds since some fixed moment. Any thread.
std::int64_t Now_us();

/// The line has been quiet for a while of real time.
void LineIsQuiet();

}  // namespace line_time
