#include "ExitCode.h"

#include <fmt/format.h>

namespace host {

namespace {

struct Description {
  ExitCode code;
  unsigned commands;  ///< that can end with it
  const char* meaning;
};

constexpr Description kDescriptions[] = {
    {ExitCode::Success, kAllCommands, "success"},
    {ExitCode::Internal, kAllCommands, "internal error"},
    {ExitCode::BadUsage, kAllCommands, "bad usage of the command line"},
    {ExitCode::BadConfiguration, kRuns, "bad configuration; nothing was sent"},
    {ExitCode::ModuleNotLoadable, kRuns | kTraceReplay, "module not loadable"},
    {ExitCode::PrepareFailed, kRuns, "preparation failed; nothing was sent"},
    {ExitCode::UpdateFailed, kUpdate, "update failed"},
    {ExitCode::Aborted, kRuns | kTraceReplay, "aborted on request"},
    {ExitCode::NoResult, kRuns, "no result in time"},
    {ExitCode::SourceChanged, kUpdate, "a file changed while it was sent"},
    {ExitCode::WrongDigest, kRuns,
     "a file is not the one that its digest stands for, or has none; nothing was sent"},
    {ExitCode::ConfigUntrusted, kRuns, "others than root may change the configuration; nothing was sent"},
    {ExitCode::OutputLost, kAllCommands,
     "all went well, but an output, a log, a trace or a report could not be written"},
    {ExitCode::TraceBroken, kTraces,
     "the trace is broken, or none; what stands before the break was shown or replayed"},
    {ExitCode::ReplayDeparts, kTraceReplay, "the replay departs from the trace"},
};

}  // namespace

ExitCode ExitCodeOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Succeeded:
    case Outcome::NothingToUpdate:
      return ExitCode::Success;
    case Outcome::PrepareFailed:
      return ExitCode::PrepareFailed;
    case Outcome::InstallFailed:
      return ExitCode::UpdateFailed;
    case Outcome::SourceChanged:
      return ExitCode::SourceChanged;
    case Outcome::Aborted:
      return ExitCode::Aborted;
    case Outcome::NoResult:
      return ExitCode::NoResult;
  }
  return ExitCode::Internal;
}

namespace {

ExitCode ExitCodeOf(ErrorCode code) {
  switch (code) {
    case ErrorCode::DigestMissing:
    case ErrorCode::DigestWrong:
      return ExitCode::WrongDigest;
    case ErrorCode::ConfigUntrusted:
      return ExitCode::ConfigUntrusted;
    case ErrorCode::BadUsage:
      return ExitCode::BadUsage;
    case ErrorCode::ModuleNotLoadable:
      return ExitCode::ModuleNotLoadable;
    default:
      return ExitCode::BadConfiguration;
  }
}

}  // namespace

ExitCode ExitCodeOf(const Faults& faults) {
  return faults.empty() ? ExitCode::BadConfiguration : ExitCodeOf(faults.front().code);
}

ExitCode WithLoss(ExitCode exitCode) {
  return exitCode == ExitCode::Success ? ExitCode::OutputLost : exitCode;
}

std::string DescribeExitCodes(unsigned commands) {
  std::string text = "Exit codes:\n";
  for (const Description& description : kDescriptions) {
    if ((description.commands & commands) != 0) {
      text += fmt::format("  {:2}  {}\n", static_cast<int>(description.code), description.meaning);
    }
  }
  return text;
}

}  // namespace host
