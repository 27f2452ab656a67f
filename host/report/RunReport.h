#pragma once

#include <string>
#include <string_view>

#include "Fault.h"
#include "trace/Record.h"

namespace host::report {

/// How a report is written.
enum class Format { Json, Html };

/// Which one a file's name asks for: .json, or .html and .htm. False for any other name.
bool FormatOf(const std::string& file, Format& format);

/// How every report of that format begins.
std::string_view BeginningOf(Format format);

/// A run in the format that the file's name asks for. `errors` are why it did not succeed.
std::string Render(const std::string& file, const trace::Trace& trace, const Faults& errors);

/// A run as a JSON object; docs/TRACES.md has its members.
std::string JsonReport(const trace::Trace& trace, const Faults& errors);

/// A run as one HTML page that needs nothing else: how it ended and why, of which device, port and files, its
/// figures, the rate over time,
/// what was sent again, the dialogue as a chart, and the log.
std::string HtmlReport(const trace::Trace& trace, const Faults& errors);

}  // namespace host::report
