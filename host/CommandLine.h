#pragma once

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Logging.h"
#include "UpdateController.h"
#include "trace/TraceCommand.h"

namespace host {

/// What a person asked peripheralctl for.
struct Options {
  Goal goal = Goal::Update;
  std::string configFile;                   ///< empty when none is named
  std::vector<std::string> settings;        ///< "key=value"
  std::optional<logging::TLevel> logLevel;  ///< nothing: no log lines
  std::string logFile;                      ///< empty: lines go to standard error
  std::string traceFile;                    ///< empty: no trace
  std::string reportFile;                   ///< empty: no report
  trace::TraceOptions trace;                ///< when an action is asked for, nothing else counts
  TimeLimits limits;
  Retries retries;
  bool requireDigest = false;
  bool trustConfig = false;
  bool json = false;
  bool listPorts = false;  ///< that alone; everything else but `json` is without effect then
  std::optional<std::string> library;
  std::optional<std::string> featureId;
};

/// Reads the command line. Returns nothing when there is nothing left to do: help or the version was asked
/// for and stands in `out`, or the usage was wrong and `err` says how; `exitCode` is then what to exit with.
std::optional<Options> ParseCommandLine(int argc, const char* const* argv, std::ostream& out,
                                        std::ostream& err, int& exitCode);

}  // namespace host
