#pragma once

#include <string>

#include "SourceFolder.h"

namespace proving {

/// Runs one scenario and prints it: the decoded wire on the left; log, events and the devices' milestones on
/// the right; then what it breaks. False if it breaks anything, or if there is no such scenario.
bool Replay(const std::string& id, SourceFolder& sources);

}  // namespace proving
