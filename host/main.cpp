// peripheralctl: updates peripherals from the command line.
#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

#include "CommandLine.h"
#include "Configuration.h"
#include "FeatureModule.h"
#include "Preflight.h"
#include "UpdateRun.h"

namespace {

using namespace host;

constexpr const char* kDefaultFeatureId = "peripherals";

Configuration Gather(const Options& options, Faults& faults) {
  Configuration configuration;
  if (!options.configFile.empty()) {
    configuration = ReadConfiguration(options.configFile, faults);
  }
  for (const std::string& setting : options.settings) {
    ApplySetting(setting, configuration, faults);
  }
  return configuration;
}

ExitCode Refuse(const Faults& faults) {
  for (const Fault& fault : faults) {
    std::cerr << "peripheralctl: " << fault.text << "\n";
  }
  return ExitCodeOf(faults);
}

std::string DefaultLibrary() {
  std::error_code error;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return FeatureModule::DefaultLibrary(executable.parent_path().string());
}

std::string Library(const Options& options, const Configuration& configuration) {
  const std::optional<std::string>& chosen = options.library ? options.library : configuration.library;
  return chosen ? *chosen : DefaultLibrary();
}

ExitCode Execute(const Options& options) {
  Faults faults;
  const Configuration configuration = Gather(options, faults);
  const SourceFiles files(configuration.properties);
  // A file that was not understood would only look as if its properties were missing.
  if (faults.empty()) {
    faults = CheckProperties(configuration.properties, {configuration.digests, options.requireDigest});
  }
  if (!faults.empty()) {
    return Refuse(faults);
  }
  std::ofstream logFile;
  if (!options.logFile.empty()) {
    logFile.open(options.logFile, std::ios::app);
    if (!logFile) {
      std::cerr << fmt::format(
          "peripheralctl: cannot write the log file '{}': {}. Choose another after --log-file.\n",
          options.logFile, std::generic_category().message(errno));
      return ExitCode::BadUsage;
    }
  }
  std::ostream& log = options.logFile.empty() ? std::cerr : logFile;
  const std::string featureId =
      options.featureId.value_or(configuration.featureId.value_or(kDefaultFeatureId));
  return UpdateRun{options.goal, options.limits,           Library(options, configuration),
                   featureId,    configuration.properties, files,
                   log,          options.logFile,          options.logLevel}
      .Execute();
}

}  // namespace

int main(int argc, char** argv) {
  // A reader of our output that goes away must not end an update half-way.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    int exitCode = 0;
    const std::optional<Options> options = ParseCommandLine(argc, argv, std::cout, std::cerr, exitCode);
    return options ? static_cast<int>(Execute(*options)) : exitCode;
  } catch (const std::exception& error) {
    std::cerr << "peripheralctl: internal error: " << error.what() << std::endl;
    return static_cast<int>(ExitCode::Internal);
  }
}
