// For the host alone: what the driver of a serial line can do.
#pragma once

#include <optional>

#include "Types.h"

namespace platform {

/// Has the driver of an open serial line try `speed` bit/s, sends nothing, and puts the line's settings back.
/// Returns the speed that it offers instead; nothing when it can do that one, or lets nobody try.
std::optional<TUint32> SpeedOfferedInsteadOf(TUint32 speed, int line);

}  // namespace platform
