#pragma once

#include <string>

#include "trace/Record.h"

namespace host::report {

/// How a report is written.
enum class Format { Json, Html };

/// Which one a file's name asks for: .json, or .html and .htm. False for any other name.
bool FormatOf(const std::string& file, Format& format);

/// A run as a JSON object; docs/TRACES.md has its members.
std::string JsonReport(const trace::Trace& trace);

/// A run as one HTML page that needs nothing else: how it ended, its figures, the rate over time, what was
/// sent again, the dialogue as a chart, and the log.
std::string HtmlReport(const trace::Trace& trace);

}  // namespace host::report
