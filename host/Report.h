#pragma once

#include <string>
#include <vector>

#include "UpdateController.h"

namespace host {

/// How a run ended, as far as people are told.
struct RunResult {
  Goal goal;
  Outcome outcome;
  bool installRequested;             ///< the device may have been written to
  std::vector<std::string> reasons;  ///< errors that the module or the platform logged
};

/// What to tell a person at the end: the outcome, the reasons of a failure, and what to do next. Ends with a
/// line break.
std::string ReportFor(const RunResult& result);

}  // namespace host
