#pragma once

#include <string>

#include "UpdateController.h"

namespace host {

/// What peripheralctl tells its caller.
enum class ExitCode {
  Success = 0,
  Internal = 1,
  BadUsage = 2,
  BadConfiguration = 3,
  ModuleNotLoadable = 4,
  PrepareFailed = 5,
  UpdateFailed = 6,
  Aborted = 7,
  NoResult = 8,
  TraceBroken = 20,
  ReplayDeparts = 21,
};

/// The exit code that stands for an outcome.
ExitCode ExitCodeOf(Outcome outcome);

/// All exit codes with their meaning, one a line, for --help.
std::string DescribeExitCodes();

}  // namespace host
