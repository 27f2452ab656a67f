#pragma once

#include <optional>
#include <vector>

#include "simulator/Settings.h"

namespace simulator {

/// Exit codes of the program.
enum ExitCode { kExitOk = 0, kExitUpdateFailed = 1, kExitBadUsage = 2, kExitSystem = 3 };

/// Reads the command line, and the scenario that it may name, into `lines`. Returns the exit code to end with
/// at once, after help or a complaint has been printed, or nothing to go on.
std::optional<int> ParseCommandLine(int argc, char** argv, std::vector<Settings>& lines);

}  // namespace simulator
