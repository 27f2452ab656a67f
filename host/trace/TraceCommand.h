// "peripheralctl trace ...": what can be done with a trace.
#pragma once

#include <string>

#include "ExitCode.h"

namespace CLI {
class App;
}

namespace host::trace {

/// What a person asked "peripheralctl trace" for.
struct TraceOptions {
  enum class Action { None, Show, Replay };

  Action action = Action::None;
  std::string file;
  std::string format = "text";  ///< or "svg"
  bool bytes = false;
  bool log = false;
  bool fast = false;    ///< replay without the device's short pauses
  std::string library;  ///< the module to replay to; empty for the default
};

/// Adds the command with its own ones to the command line. `options` is filled when it is parsed.
void AddTraceCommand(CLI::App& app, TraceOptions& options);

/// Shows a trace on standard output; what is wrong with it on standard error.
ExitCode ShowTrace(const TraceOptions& options);

}  // namespace host::trace
