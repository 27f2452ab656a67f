#pragma once

#include <string>

#include "ExitCode.h"

namespace host {

/// Runs the module in `library` against the device's side of the trace in the file `name`, and tells on
/// standard output whether the run goes as it was recorded, or where it departs. The files that were sent are
/// made anew from the trace. `fast`: as Player without keepPauses.
ExitCode Replay(const std::string& name, const std::string& library, bool fast);

}  // namespace host
