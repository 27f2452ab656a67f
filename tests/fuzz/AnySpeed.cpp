// In the place of the platform's, whose serial ports the targets replace: a line that can do every speed.
#include "LineSpeed.h"

namespace platform {

std::optional<TUint32> SpeedOfferedInsteadOf(TUint32 /*speed*/, int /*line*/) {
  return std::nullopt;
}

}  // namespace platform
