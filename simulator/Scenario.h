#pragma once

#include <string>
#include <vector>

#include "simulator/Settings.h"

namespace simulator {

/// Reads a scenario: a TOML file with one table [[line]] for each line, and in it one table [[line.device]]
/// for each device on it. docs/SCENARIOS.md names the keys. Relative paths in it are relative to its folder.
/// What is wrong with it is added to `faults`, each with its place in the file; what is returned then is
/// incomplete.
std::vector<Settings> ReadScenario(const std::string& path, std::vector<std::string>& faults);

}  // namespace simulator
