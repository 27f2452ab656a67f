#pragma once

#include "ProgressDisplay.h"

namespace host {

/// What standard output can show, by what it is and by the variables TERM and NO_COLOR.
Look LookOfStandardOutput();

/// Sees to it that the descriptors of the standard streams are taken, so that nothing that is opened later, a
/// port for one, gets what is written there. Call it before anything is opened.
void HoldStandardStreams();

/// Writes out what standard output holds back. False when something of all that was written to it is lost,
/// unless because its reader has gone.
bool FlushStandardOutput();

}  // namespace host
