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
#include "Replay.h"
#include "RunRecording.h"
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
  // A file that was not understood would only look as if its properties were missing.
  if (faults.empty()) {
    faults = CheckProperties(configuration.properties);
  }
  return configuration;
}

ExitCode Refuse(const Faults& faults) {
  for (const std::string& fault : faults) {
    std::cerr << "peripheralctl: " << fault << "\n";
  }
  return ExitCode::BadConfiguration;
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

ExitCode ExecuteTrace(const trace::TraceOptions& options) {
  return options.action == trace::TraceOptions::Action::Show
             ? trace::ShowTrace(options)
             : Replay(options.file, options.library.empty() ? DefaultLibrary() : options.library,
                      options.fast);
}

ExitCode ExecuteRecorded(UpdateRun& run, const Options& options) {
  RunRecording recording({options.traceFile, options.reportFile}, run.properties);
  if (const std::string fault = recording.Open(); !fault.empty()) {
    std::cerr << "peripheralctl: " << fault << "\n";
    return ExitCode::BadUsage;
  }
  run.companion = &recording;
  const ExitCode result = run.Execute();
  if (const std::string fault = recording.Fault(); !fault.empty()) {
    std::cerr << "peripheralctl: " << fault << "\n";
  }
  return result;
}

ExitCode Execute(const Options& options) {
  if (options.trace.action != trace::TraceOptions::Action::None) {
    return ExecuteTrace(options.trace);
  }
  Faults faults;
  const Configuration configuration = Gather(options, faults);
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
  UpdateRun run{options.goal,    options.limits,           Library(options, configuration),
                featureId,       configuration.properties, log,
                options.logFile, options.logLevel};
  return options.traceFile.empty() ? run.Execute() : ExecuteRecorded(run, options);
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
