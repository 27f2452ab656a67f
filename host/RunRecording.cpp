#include "RunRecording.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>

#include "Digest.h"
#include "ExitCode.h"
#include "OutputFile.h"
#include "Peripherals.h"
#include "Version.h"
#include "report/RunReport.h"

namespace host {

namespace {

// Other properties may hold anything, since nobody has checked them.
std::string ReadProperties(const PropertyMap& properties) {
  PropertyMap read;
  for (const std::string_view entry : UpdateListEntries(properties.at(kUpdateListKey))) {
    for (const char* key : FindPeripheralKind(entry)->requiredKeys) {
      read[key] = properties.at(key);
    }
  }
  read[kUpdateListKey] = properties.at(kUpdateListKey);
  std::string lines;
  for (const auto& [key, value] : read) {
    lines += fmt::format("property.{}={}\n", key, value);
    std::error_code gone;
    const bool isFile = FindPropertyKey(key)->kind == ValueKind::File;
    const std::uintmax_t size = isFile ? std::filesystem::file_size(value, gone) : 0;
    const std::optional<std::string> digest = isFile ? Sha256Of(value) : std::nullopt;
    // The preparation complains of a file that has gone since it was checked.
    if (digest && !gone) {
      lines += fmt::format("size.{}={}\nsha256.{}={}\n", key, size, key, *digest);
    }
  }
  return lines;
}

std::string Describe(const PropertyMap& properties) {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  return fmt::format("time={:%Y-%m-%dT%H:%M:%S}Z\nprogram=peripheralctl {}\n",
                     fmt::gmtime(std::chrono::system_clock::to_time_t(now)), kVersion) +
         ReadProperties(properties);
}

Faults ErrorsOf(const RunResult& result) {
  const std::optional<Cause> cause = CauseOf(result);
  return cause ? Faults{{cause->code, cause->detail}} : result.faults;
}

void AddUnlessEmpty(Faults& faults, ErrorCode code, const std::string& fault) {
  if (!fault.empty()) {
    faults.push_back({code, fault});
  }
}

// Returns a fault for people where something else would be lost.
std::string WhyNotReplaced(const std::string& path, const OutputKind& kind, std::string_view beginning) {
  return IsMissingOrBegins(path, beginning)
             ? ""
             : fmt::format("'{}' is no {} and is left as it is. Choose another file after {}.", path,
                           kind.name, kind.option);
}

std::string BeginTrace(const std::string& path, trace::Recorder& recorder) {
  const std::string fault = WhyNotReplaced(path, kTraceFile, trace::FileHeader());
  return fault.empty() ? recorder.OpenFile(path) : fault;
}

std::string ReplaceTrace(const std::string& path, const std::string& content) {
  OutputFile file;
  std::string fault = WhyNotReplaced(path, kTraceFile, trace::FileHeader());
  fault = fault.empty() ? file.Open(path, kTraceFile) : fault;
  file.Write(content);
  return fault + file.Fault();
}

std::string MakeRoomForReport(const std::string& path) {
  report::Format format = {};
  report::FormatOf(path, format);
  const std::string fault = WhyNotReplaced(path, kReportFile, report::BeginningOf(format));
  return fault.empty() ? MakeRoom(path, kReportFile) : fault;
}

std::string ReplaceReport(const std::string& path, const std::string& content) {
  const std::string fault = MakeRoomForReport(path);
  return fault.empty() ? WriteWhole(path, kReportFile, content) : fault;
}

}  // namespace

RunRecording::RunRecording(Files files, const PropertyMap& properties)
    : iFiles(std::move(files)), iDescription(Describe(properties)) {}

std::string RunRecording::Open() {
  std::string fault = iFiles.trace.empty() ? "" : BeginTrace(iFiles.trace, iRecorder);
  if (fault.empty() && !iFiles.report.empty()) {
    iRecorder.KeepContent();
    fault = MakeRoomForReport(iFiles.report);
  }
  return fault;
}

void RunRecording::OnBegin(const std::function<void()>& /*abort*/) {
  iRecorder.Start(iDescription);
}

// A module that is still there goes on logging and sending, to a recorder that must live as long.
Faults RunRecording::OnEnd(const RunResult& result, bool moduleGone) {
  if (moduleGone) {
    iRecorder.Stop();
  }
  iRecorder.End(static_cast<int>(ExitCodeOf(result.outcome)), Headline(result));
  Faults faults;
  AddUnlessEmpty(faults, ErrorCode::TraceNotWritten, iRecorder.Fault());
  if (!iFiles.report.empty()) {
    const std::string content =
        report::Render(iFiles.report, trace::Decode(iRecorder.Content()), ErrorsOf(result));
    AddUnlessEmpty(faults, ErrorCode::ReportNotWritten, WriteWhole(iFiles.report, kReportFile, content));
  }
  iIsComplete = faults.empty();
  return faults;
}

Faults RunRecording::OnRefusal(const Faults& faults, ExitCode exitCode) {
  return RecordNoRun(iFiles, exitCode, kRefused, faults);
}

Faults RecordNoRun(const RunRecording::Files& files, ExitCode exitCode, const std::string& outcome,
                   const Faults& errors) {
  const std::string end =
      trace::FileHeader() +
      trace::Encode({trace::Kind::End, 0, fmt::format("{} {}", static_cast<int>(exitCode), outcome)});
  Faults faults;
  AddUnlessEmpty(faults, ErrorCode::TraceNotWritten,
                 files.trace.empty() ? "" : ReplaceTrace(files.trace, end));
  if (!files.report.empty()) {
    const std::string content = report::Render(files.report, trace::Decode(end), errors);
    AddUnlessEmpty(faults, ErrorCode::ReportNotWritten, ReplaceReport(files.report, content));
  }
  return faults;
}

}  // namespace host
