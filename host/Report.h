#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Fault.h"
#include "LogFollower.h"
#include "UpdateController.h"

namespace host {

/// What is said of a run that was refused.
constexpr const char* kRefused = "The run was refused; nothing was sent.";

/// How a run ended, as far as people are told.
struct RunResult {
  Goal goal;
  Outcome outcome;
  bool uploadStarted;                ///< the device may have been written to
  std::vector<std::string> reasons;  ///< errors that the module or the platform logged, or the changed files
  std::optional<Cause> cause = {};   ///< what the log tells of the failure
  Faults faults = {};                ///< what was found wrong, and told, before the module was asked
  bool onlyMemoryWritten = false;    ///< and no further than into its memory
};

/// Why it did not succeed: what the log tells, or what the outcome says by itself. Nothing after a success,
/// and when the faults have told.
std::optional<Cause> CauseOf(const RunResult& result);

/// How it ended, in a sentence.
const char* Headline(const RunResult& result);

/// What happened: the outcome, and the reasons of a failure as far as there are any. Ends with a line break.
std::string AccountOf(const RunResult& result);

/// What to tell a person at the end: the outcome, the reasons of a failure, and what to do next. Ends with a
/// line break.
std::string ReportFor(const RunResult& result);

/// The same in one line, for a person who does not wait for the end.
std::string HurriedReportFor(const RunResult& result);

}  // namespace host
