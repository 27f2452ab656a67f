#include "RunRecording.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <filesystem>

#include "ExitCode.h"
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
    if (FindPropertyKey(key)->kind == ValueKind::File) {
      lines += fmt::format("size.{}={}\n", key, std::filesystem::file_size(value));
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

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

RunRecording::RunRecording(Files files, const PropertyMap& properties)
    : iFiles(std::move(files)), iDescription(Describe(properties)) {}

std::string RunRecording::Open() {
  std::string fault = iFiles.trace.empty() ? "" : iRecorder.OpenFile(iFiles.trace);
  if (fault.empty() && !iFiles.report.empty()) {
    iRecorder.KeepContent();
    fault = iReport.Open(iFiles.report, kReportFile);
  }
  return fault;
}

void RunRecording::OnBegin(const std::function<void()>& /*abort*/) {
  iRecorder.Start(iDescription);
}

// A module that is still there goes on logging and sending, to a recorder that must live as long.
std::string RunRecording::OnEnd(const RunResult& result, bool moduleGone) {
  if (moduleGone) {
    iRecorder.Stop();
  }
  iRecorder.End(static_cast<int>(ExitCodeOf(result.outcome)), FirstLine(ReportFor(result)));
  if (!iFiles.report.empty()) {
    const trace::Trace trace = trace::Decode(iRecorder.Content());
    report::Format format = {};
    report::FormatOf(iFiles.report, format);
    iReport.Write(format == report::Format::Json ? report::JsonReport(trace) : report::HtmlReport(trace));
  }
  const std::string fault = iRecorder.Fault();
  return fault.empty() ? iReport.Fault() : fault;
}

}  // namespace host
