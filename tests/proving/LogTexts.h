#pragma once

#include <string_view>

#include "Logging.h"

namespace proving {

/// Whether the module has a log line of this level and text. Numbers and texts of others within it may be
/// anything.
bool IsKnownLine(logging::TLevel level, std::string_view message);

}  // namespace proving
