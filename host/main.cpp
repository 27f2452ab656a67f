// peripheralctl: updates peripherals from the command line.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "CommandLine.h"
#include "Configuration.h"
#include "FeatureModule.h"
#include "JsonOutput.h"
#include "OutputFile.h"
#include "Peripherals.h"
#include "Ports.h"
#include "Preflight.h"
#include "ProgressDisplay.h"
#include "Replay.h"
#include "RunRecording.h"
#include "Terminal.h"
#include "Trust.h"
#include "UpdateRun.h"

namespace {

using namespace host;

constexpr const char* kDefaultFeatureId = "peripherals";

Configuration Gather(const Options& options, Faults& faults) {
  Configuration configuration;
  if (!options.configFile.empty()) {
    const bool doubtful = geteuid() == 0 && !options.trustConfig;
    if (const auto why = doubtful ? WhyUntrusted(options.configFile) : std::nullopt) {
      const std::string text = fmt::format(
          "{}: root does not follow a configuration that others may change: {}. Do that, or say "
          "--trust-config.",
          options.configFile, *why);
      faults.push_back({ErrorCode::ConfigUntrusted, text});
      configuration.isKnown = false;
      return configuration;
    }
    configuration = ReadConfiguration(options.configFile, faults);
  }
  for (const std::string& setting : options.settings) {
    ApplySetting(setting, configuration, faults);
  }
  return configuration;
}

std::unique_ptr<Output> MakeOutput(bool json, const PropertyMap& properties) {
  const std::vector<std::string> devices = NamesOf(PlanOf(properties));
  if (json) {
    return std::make_unique<JsonOutput>(std::cout, devices);
  }
  return std::make_unique<ProgressDisplay>(std::cout, std::cerr, LookOfStandardOutput(), devices);
}

// No run leaves what an earlier one has left. Returns what the exit code then is.
ExitCode Record(const Options& options, Output& output, ExitCode exitCode, const std::string& outcome,
                const Faults& faults) {
  const Faults complaints = RecordNoRun({options.traceFile, options.reportFile}, exitCode, outcome, faults);
  for (const Fault& complaint : complaints) {
    const bool isTold = std::any_of(faults.begin(), faults.end(),
                                    [&](const Fault& told) { return told.text == complaint.text; });
    if (!isTold) {
      output.OnWarning(complaint);
    }
  }
  return complaints.empty() ? exitCode : WithLoss(exitCode);
}

ExitCode Refuse(const Options& options, Output& output, const Faults& faults, ExitCode exitCode) {
  output.OnFaults(faults);
  Record(options, output, exitCode, kRefused, faults);
  output.OnRefusal(faults, exitCode);
  return exitCode;
}

// Adds to the faults of a configuration those of what it says. Where nothing of it is known it would only
// look as if properties were missing.
void Check(const Options& options, const Configuration& configuration, Output& output, Faults& faults) {
  if (!configuration.isKnown || (configuration.properties.empty() && !faults.empty())) {
    return;
  }
  const Findings found = CheckProperties(
      configuration.properties,
      {configuration.digests, options.requireDigest, configuration.misread, configuration.misreadDigests});
  faults.insert(faults.end(), found.faults.begin(), found.faults.end());
  if (options.goal == Goal::Prepare) {
    output.OnFiles(found.files);
  }
  for (const Fault& warning : found.warnings) {
    output.OnWarning(warning);
  }
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

ExitCode ExecuteRecorded(UpdateRun& run, Options& options) {
  RunRecording recording({options.traceFile, options.reportFile}, run.properties);
  if (const std::string fault = recording.Open(); !fault.empty()) {
    return Refuse(options, run.output, {{ErrorCode::BadUsage, fault}}, ExitCode::BadUsage);
  }
  // What is recorded makes way for no refusal any more.
  options.traceFile.clear();
  options.reportFile.clear();
  run.companion = &recording;
  return run.Execute();
}

bool IsSameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return std::filesystem::equivalent(a, b, error) && !error;
}

// What is written must destroy neither what is sent or read nor each other. Takes out of the options what
// would.
Faults CheckOutputs(Options& options, const std::string& library, const SourceFiles& files) {
  Faults faults;
  std::set<std::filesystem::path> paths;
  for (const auto& [kind, path] :
       {std::pair(&kLogFile, &options.logFile), std::pair(&kTraceFile, &options.traceFile),
        std::pair(&kReportFile, &options.reportFile)}) {
    std::error_code error;
    const char* use = nullptr;
    if (path->empty()) {
      continue;
    }
    if (files.Holds(*path)) {
      use = "is a file that is sent";
    } else if (IsSameFile(*path, options.configFile) || IsSameFile(*path, library)) {
      use = "is read by this run";
    } else if (!paths.insert(std::filesystem::weakly_canonical(*path, error)).second) {
      use = "is written already";
    }
    if (use != nullptr) {
      faults.push_back(
          {ErrorCode::BadUsage, fmt::format("'{}' {}; choose another after {}.", *path, use, kind->option)});
      path->clear();
    }
  }
  return faults;
}

// The module is asked to prepare even if faults are known, so that its log can be seen beside them.
ExitCode Run(Options& options, const Configuration& configuration, const SourceFiles& files,
             const Faults& faults, Output& output) {
  OutputFile logFile;
  OutputStream lines(logFile);
  const bool hasFile = !options.logFile.empty();
  if (const std::string fault = hasFile ? logFile.Open(options.logFile, kLogFile) : ""; !fault.empty()) {
    return Refuse(options, output, {{ErrorCode::BadUsage, fault}}, ExitCode::BadUsage);
  }
  const std::string featureId =
      options.featureId.value_or(configuration.featureId.value_or(kDefaultFeatureId));
  UpdateRun run{options.goal,
                options.limits,
                options.retries,
                Library(options, configuration),
                featureId,
                configuration.properties,
                files,
                faults,
                output,
                hasFile ? lines : output.Log(),
                hasFile ? &logFile : nullptr,
                options.logLevel};
  const bool isRecorded = !options.traceFile.empty() || !options.reportFile.empty();
  return isRecorded ? ExecuteRecorded(run, options) : run.Execute();
}

ExitCode Execute(Options& options) {
  if (options.trace.action != trace::TraceOptions::Action::None) {
    return ExecuteTrace(options.trace);
  }
  if (options.listPorts) {
    MakeOutput(options.json, {})->OnPorts(FindPorts());
    return ExitCode::Success;
  }
  Faults faults;
  const Configuration configuration = Gather(options, faults);
  const PropertyMap& properties = configuration.properties;
  const std::unique_ptr<Output> output = MakeOutput(options.json, properties);
  const SourceFiles files(properties);
  const Faults unfit = CheckOutputs(options, Library(options, configuration), files);
  // The module would be asked for something else than what was meant.
  const bool isMisread = !faults.empty() || !unfit.empty();
  Check(options, configuration, *output, faults);
  faults.insert(faults.end(), unfit.begin(), unfit.end());
  if (isMisread || (!faults.empty() && options.goal == Goal::Update)) {
    return Refuse(options, *output, faults, ExitCodeOf(faults));
  }
  if (faults.empty() && properties.at(kUpdateListKey).empty()) {
    const RunResult result = {options.goal, Outcome::NothingToUpdate, false, {}};
    const ExitCode exitCode = Record(options, *output, ExitCode::Success, Headline(result), {});
    output->OnResult(result, exitCode);
    return exitCode;
  }
  output->OnFaults(faults);
  return Run(options, configuration, files, faults, *output);
}

// A program that reads JSON is also told by JSON what ends the program before or outside of a run.
bool IsForPrograms(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc, [](std::string_view word) { return word == "--json"; });
}

// What was lost does not hide what else went wrong.
ExitCode WithOutput(ExitCode exitCode) {
  if (FlushStandardOutput()) {
    return exitCode;
  }
  std::cerr << "peripheralctl: what was to be said on standard output could not be written. Is the disk full?"
            << std::endl;
  return WithLoss(exitCode);
}

// Ends the program before or outside of a run. People who watch a program that reads JSON are told too.
ExitCode Fail(const Options& options, bool isForPrograms, const Fault& fault, ExitCode exitCode) {
  if (isForPrograms) {
    std::cerr << "peripheralctl: " << fault.text << std::endl;
  }
  return Refuse(options, *MakeOutput(isForPrograms, {}), {fault}, exitCode);
}

ExitCode Main(int argc, const char* const* argv, CommandLine& line) {
  line = ParseCommandLine(argc, argv, std::cout);
  if (line.isAnswered) {
    return ExitCode::Success;
  }
  if (line.fault.empty()) {
    return Execute(line.options);
  }
  Fail(line.options, IsForPrograms(argc, argv), {ErrorCode::BadUsage, line.fault}, ExitCode::BadUsage);
  std::cerr << "Run 'peripheralctl --help' for the usage.\n";
  return ExitCode::BadUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // A reader of our output that goes away must not end an update half-way.
  std::signal(SIGPIPE, SIG_IGN);
  HoldStandardStreams();
  const PatientOutput output;
  const PatientErrors errors;
  CommandLine line;
  try {
    return static_cast<int>(WithOutput(Main(argc, argv, line)));
  } catch (const std::exception& error) {
    const Fault fault = {ErrorCode::Internal, fmt::format("internal error: {}", error.what())};
    return static_cast<int>(Fail(line.options, IsForPrograms(argc, argv), fault, ExitCode::Internal));
  }
}
