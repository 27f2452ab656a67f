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

/// What came of a command line.
struct CommandLine {
  Options options;          ///< if the usage was wrong, as much as was understood
  bool isAnswered = false;  ///< help or the version was asked for and stands in `out`
  std::string fault;        ///< for people, how the usage was wrong; empty when it was right
};

/// Reads the command line.
CommandLine ParseCommandLine(int argc, const char* const* argv, std::ostream& out);

}  // namespace host
