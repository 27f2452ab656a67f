#include "JsonOutput.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

namespace host {

namespace {

using Json = nlohmann::ordered_json;

std::string Now() {
  const auto now = std::chrono::system_clock::now();
  const auto sinceEpoch_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(seconds), sinceEpoch_ms.count() % 1000);
}

// What a device sent need not be text; what is no UTF-8 becomes U+FFFD.
void Write(std::ostream& out, const char* event, const Json& fields) {
  Json line = {{"event", event}, {"time", Now()}};
  line.update(fields);
  out << line.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
}

const char* Name(UpdateState state) {
  switch (state) {
    case UpdateState::AwaitingAnnouncement:
      return "awaiting-announcement";
    case UpdateState::Preparing:
      return "preparing";
    case UpdateState::Installing:
      return "installing";
    case UpdateState::Pausing:
      return "pausing";
    case UpdateState::Aborting:
      return "aborting";
    case UpdateState::Ended:
      return "ended";
  }
  return "";
}

const char* Name(Outcome outcome) {
  switch (outcome) {
    case Outcome::Succeeded:
      return "succeeded";
    case Outcome::NothingToUpdate:
      return "nothing-to-update";
    case Outcome::Aborted:
      return "aborted";
    case Outcome::NoResult:
      return "no-result";
    case Outcome::PrepareFailed:
    case Outcome::InstallFailed:
    case Outcome::SourceChanged:
      return "failed";
  }
  return "";
}

const char* Name(ModemManagerRisk risk) {
  switch (risk) {
    case ModemManagerRisk::NotRunning:
      return "not-running";
    case ModemManagerRisk::KeptAway:
      return "kept-away";
    case ModemManagerRisk::Unlikely:
      return "unlikely";
    case ModemManagerRisk::Likely:
      return "likely";
  }
  return "";
}

Json ErrorFields(ErrorCode code, const std::string& message, bool isFinal = true) {
  const ErrorDescription& description = Describe(code);
  return {{"code", description.name},
          {"message", message},
          {"cause", description.cause},
          {"advice", description.advice},
          {"final", isFinal}};
}

// Of several faults the first one gives the code.
Json CodeOf(const Faults& faults) {
  return faults.empty() ? Json(nullptr) : Json(Describe(faults.front().code).name);
}

void WriteUntouched(std::ostream& out, const char* outcome, ExitCode exitCode, const Faults& faults) {
  Json reasons = Json::array();
  for (const Fault& fault : faults) {
    reasons.push_back(fault.text);
  }
  Write(out, "result",
        {{"outcome", outcome},
         {"exit_code", static_cast<int>(exitCode)},
         {"code", CodeOf(faults)},
         {"device_touched", false},
         {"reasons", reasons}});
}

Json WithDevice(std::size_t device, const std::vector<std::string>& devices) {
  return {{"device", device + 1}, {"name", device < devices.size() ? devices[device] : "device"}};
}

}  // namespace

JsonOutput::JsonOutput(std::ostream& out, std::vector<std::string> devices)
    : iOut(out), iDevices(std::move(devices)) {}

void JsonOutput::OnState(UpdateState state) {
  Write(iOut, "state", {{"state", Name(state)}});
}

void JsonOutput::OnProgress(int percent) {
  Write(iOut, "progress", {{"percent", percent}});
}

void JsonOutput::OnMilestone(const std::string& text) {
  Write(iOut, "milestone", {{"text", text}});
}

void JsonOutput::OnRetry(int attempt, const Retries& retries) {
  if (const std::optional<Cause> cause = Why(attempt - 1)) {
    Write(iOut, "error", ErrorFields(cause->code, cause->detail, false));
  }
  Write(iOut, "retry",
        {{"attempt", attempt}, {"attempts", retries.count + 1}, {"pause_ms", retries.pause.count()}});
}

void JsonOutput::OnStep(const DeviceStep& step) {
  Json fields = WithDevice(step.device, iDevices);
  fields["step"] = step.text;
  Write(iOut, "step", fields);
}

void JsonOutput::OnSentBytes(const SentBytes& sent, const Pace& pace) {
  Json fields = WithDevice(sent.device, iDevices);
  fields["device_bytes"] = sent.deviceBytes;
  fields["device_total"] = sent.deviceTotal;
  fields["bytes"] = sent.bytes;
  fields["total"] = sent.total;
  fields["rate_bytes_per_s"] = pace.rate_Bps ? Json(std::llround(*pace.rate_Bps)) : Json(nullptr);
  fields["left_s"] = pace.left ? Json(pace.left->count()) : Json(nullptr);
  Write(iOut, "transfer", fields);
}

void JsonOutput::OnPorts(const std::vector<Port>& ports) {
  for (const Port& port : ports) {
    Json holders = Json::array();
    for (const PortHolder& holder : port.holders) {
      holders.push_back({{"pid", holder.pid}, {"name", holder.name}});
    }
    Write(iOut, "port",
          {{"device", port.device},
           {"stable_names", port.stableNames},
           {"adapter", port.adapter},
           {"holders", holders},
           {"access", port.mayBeOpened},
           {"group", port.group},
           {"modem_manager", Name(port.modemManager)}});
  }
  WriteUntouched(iOut, "succeeded", ExitCode::Success, {});
}

void JsonOutput::OnFiles(const std::vector<CheckedFile>& files) {
  for (const CheckedFile& file : files) {
    Write(iOut, "file", {{"key", file.key}, {"path", file.path}, {"digest", file.isCompared}});
  }
}

void JsonOutput::OnFaults(const Faults& faults) {
  for (const Fault& fault : faults) {
    Write(iOut, "error", ErrorFields(fault.code, fault.text));
  }
}

void JsonOutput::OnWarning(const Fault& warning) {
  Write(iOut, "warning", {{"code", Describe(warning.code).name}, {"text", warning.text}});
}

void JsonOutput::OnRefusal(const Faults& faults, ExitCode exitCode) {
  WriteUntouched(iOut, "refused", exitCode, faults);
}

void JsonOutput::OnResult(const RunResult& result, ExitCode exitCode) {
  const std::optional<Cause> cause = CauseOf(result);
  if (cause) {
    Write(iOut, "error", ErrorFields(cause->code, cause->detail));
  }
  Write(iOut, "result",
        {{"outcome", Name(result.outcome)},
         {"exit_code", static_cast<int>(exitCode)},
         {"code", cause ? Json(Describe(cause->code).name) : CodeOf(result.faults)},
         {"device_touched", result.uploadStarted},
         {"reasons", result.outcome == Outcome::Succeeded ? Json::array() : Json(result.reasons)}});
}

}  // namespace host
