#pragma once

#include <string>

#include "Fault.h"
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
  SourceChanged = 9,
  WrongDigest = 10,
  ConfigUntrusted = 11,
  OutputLost = 12,
  TraceBroken = 20,
  ReplayDeparts = 21,
};

/// The exit code that stands for an outcome.
ExitCode ExitCodeOf(Outcome outcome);

/// The exit code that stands for what is wrong before anything was sent: that of the first fault.
ExitCode ExitCodeOf(const Faults& faults);

/// What an exit code becomes when something that was to be written could not be: what else went wrong counts.
ExitCode WithLoss(ExitCode exitCode);

/// The commands of peripheralctl; they can be combined.
enum Commands : unsigned {
  kUpdate = 1,
  kPrepare = 2,
  kPorts = 4,
  kTraceShow = 8,
  kTraceReplay = 16,
  kRuns = kUpdate | kPrepare,
  kTraces = kTraceShow | kTraceReplay,
  kAllCommands = kRuns | kPorts | kTraces
};

/// The exit codes that any of these commands can end with and their meaning, one a line, for --help.
std::string DescribeExitCodes(unsigned commands);

}  // namespace host
