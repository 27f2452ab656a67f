#pragma once

#include <optional>
#include <string>

#include "simulator/Options.h"

namespace simulator {

/// Exit codes of the program.
enum ExitCode { kExitOk = 0, kExitUpdateFailed = 1, kExitBadUsage = 2, kExitSystem = 3 };

/// What the command line asks for.
struct Settings {
  std::string devices = "can";
  Options device;
  LineOptions line;
  std::string link;
  std::string dump_ram;
  std::string dump_flash;
};

/// Reads the command line into `settings`. Returns the exit code to end with at once, after help or a
/// complaint has been printed, or nothing to go on.
std::optional<int> ParseCommandLine(int argc, char** argv, Settings& settings);

}  // namespace simulator
