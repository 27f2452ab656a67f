#include "ExitCode.h"

#include <fmt/format.h>

namespace host {

namespace {

struct Description {
  ExitCode code;
  const char* meaning;
};

constexpr Description kDescriptions[] = {
    {ExitCode::Success, "success"},
    {ExitCode::Internal, "internal error"},
    {ExitCode::BadUsage, "bad usage of the command line"},
    {ExitCode::BadConfiguration, "bad configuration; nothing was sent"},
    {ExitCode::ModuleNotLoadable, "module not loadable"},
    {ExitCode::PrepareFailed, "preparation failed; nothing was sent"},
    {ExitCode::UpdateFailed, "update failed, or a file changed while it was sent"},
    {ExitCode::Aborted, "aborted on request"},
    {ExitCode::NoResult, "no result in time"},
    {ExitCode::TraceBroken, "the trace is broken, or none; what stands before the break was shown"},
    {ExitCode::ReplayDeparts, "the replay departs from the trace"},
};

}  // namespace

ExitCode ExitCodeOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Succeeded:
      return ExitCode::Success;
    case Outcome::PrepareFailed:
      return ExitCode::PrepareFailed;
    case Outcome::InstallFailed:
    case Outcome::SourceChanged:
      return ExitCode::UpdateFailed;
    case Outcome::Aborted:
      return ExitCode::Aborted;
    case Outcome::NoResult:
      return ExitCode::NoResult;
  }
  return ExitCode::Internal;
}

std::string DescribeExitCodes() {
  std::string text = "Exit codes:\n";
  for (const Description& description : kDescriptions) {
    text += fmt::format("  {:<2}  {}\n", static_cast<int>(description.code), description.meaning);
  }
  return text;
}

}  // namespace host
