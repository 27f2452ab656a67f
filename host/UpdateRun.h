#pragma once

#include <iosfwd>

#include "CommandLine.h"
#include "Configuration.h"
#include "ExitCode.h"

namespace host {

/// One run of the module from loading to unloading: everything that peripheralctl does once the configuration
/// is known to be good.
struct UpdateRun {
  Goal goal;
  TimeLimits limits;
  std::string library;
  std::string featureId;
  PropertyMap properties;
  std::ostream& log;                        ///< where log lines go
  std::optional<logging::TLevel> logLevel;  ///< nothing: no log lines

  /// Loads the module, drives it, shows progress on standard output and failures on standard error. Meanwhile
  /// Ctrl-C aborts. When the module cannot be made to let go of the delivery thread the process ends here.
  ExitCode Execute() const;
};

}  // namespace host
