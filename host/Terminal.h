#pragma once

#include "ProgressDisplay.h"

namespace host {

/// What standard output can show, by what it is and by the variables TERM and NO_COLOR.
Look LookOfStandardOutput();

}  // namespace host
