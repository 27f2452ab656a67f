#include "Report.h"

#include <fmt/format.h>

#include <cctype>

namespace host {

namespace {

constexpr const char* kIncomplete = "The device may hold an incomplete image: run the update again.";
constexpr const char* kOnlyMemory =
    "Only the device's memory was written, its flash is as it was: run the update again.";
constexpr const char* kUntouched = "Nothing was written to the device.";

bool Succeeded(const RunResult& result) {
  return result.outcome == Outcome::Succeeded || result.outcome == Outcome::NothingToUpdate;
}

std::string Reasons(const RunResult& result) {
  std::string text = result.reasons.empty() ? "" : "Reasons given, oldest first:\n";
  for (const std::string& reason : result.reasons) {
    text += fmt::format("  - {}\n", reason);
  }
  return text;
}

// What stands in place of the reasons of a failure that has none.
const char* WithoutReason(const RunResult& result) {
  if (result.outcome == Outcome::Aborted || result.cause || !result.reasons.empty()) {
    return "";
  }
  return result.faults.empty() ? "No reason was given; --log-level info shows what happened.\n"
                               : "The module itself logs nothing about it.\n";
}

std::string Advice(const RunResult& result) {
  if (result.cause) {
    std::string advice = Describe(result.cause->code).advice;
    advice.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(advice.front())));
    return advice + ".\n";
  }
  switch (result.outcome) {
    case Outcome::Succeeded:
    case Outcome::NothingToUpdate:
    case Outcome::Aborted:
      break;
    case Outcome::PrepareFailed:
      return "Correct what is named above and run the command again.\n";
    case Outcome::InstallFailed:
      return "Check that the device has power and is in its bootloader, that the cable is plugged in, and "
             "that no other program uses the port.\n";
    case Outcome::NoResult:
      return "Check the port and the device's power; --timeout allows for more time.\n";
    case Outcome::SourceChanged:
      return "Wait until the file is finished, then update with it.\n";
  }
  return "";
}

const char* DeviceState(const RunResult& result) {
  if (!result.uploadStarted) {
    return kUntouched;
  }
  return result.onlyMemoryWritten ? kOnlyMemory : kIncomplete;
}

ErrorCode CodeOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::PrepareFailed:
      return ErrorCode::PrepareFailed;
    case Outcome::Aborted:
      return ErrorCode::Aborted;
    case Outcome::NoResult:
      return ErrorCode::NoResult;
    case Outcome::SourceChanged:
      return ErrorCode::FileChanged;
    case Outcome::Succeeded:
    case Outcome::NothingToUpdate:
    case Outcome::InstallFailed:
      break;
  }
  return ErrorCode::UpdateFailed;
}

}  // namespace

const char* Headline(const RunResult& result) {
  switch (result.outcome) {
    case Outcome::Succeeded:
      return result.goal == Goal::Update
                 ? "The update has succeeded."
                 : "The preparation has succeeded: settings, files and port are in order.";
    case Outcome::NothingToUpdate:
      return "Nothing to update: the update list is empty.";
    case Outcome::PrepareFailed:
      return "The preparation failed.";
    case Outcome::InstallFailed:
      return "The update failed.";
    case Outcome::Aborted:
      return "Aborted.";
    case Outcome::NoResult:
      return "No result in time: the module gave no sign of life.";
    case Outcome::SourceChanged:
      return "The update failed: a file changed while it was being sent.";
  }
  return "";
}

std::optional<Cause> CauseOf(const RunResult& result) {
  if (Succeeded(result) || !result.faults.empty()) {
    return std::nullopt;
  }
  if (result.cause) {
    return result.cause;
  }
  const bool hasChanges = result.outcome == Outcome::SourceChanged && !result.reasons.empty();
  return Cause{
      CodeOf(result.outcome),
      hasChanges ? fmt::format("{} {}", Headline(result), fmt::join(result.reasons, " ")) : Headline(result)};
}

std::string AccountOf(const RunResult& result) {
  std::string text = std::string(Headline(result)) + "\n";
  if (Succeeded(result)) {
    return text;
  }
  if (result.cause) {
    text += fmt::format("{} [{}]\n", result.cause->detail, Describe(result.cause->code).name);
  }
  return result.outcome == Outcome::Aborted ? text : text + Reasons(result);
}

std::string ReportFor(const RunResult& result) {
  if (Succeeded(result)) {
    return AccountOf(result);
  }
  return AccountOf(result) + WithoutReason(result) + Advice(result) + DeviceState(result) + "\n";
}

std::string HurriedReportFor(const RunResult& result) {
  const bool done = result.outcome == Outcome::Succeeded;
  return fmt::format("\nExiting at once. {}\n", done ? Headline(result) : DeviceState(result));
}

}  // namespace host
