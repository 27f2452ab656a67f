#pragma once

#include <string>

#include "trace/Dialogue.h"

namespace host::trace {

/// A dialogue as a sequence chart: an SVG element with its own styles, which can stand alone as a file or
/// inside an HTML page.
std::string SequenceChart(const Dialogue& dialogue);

/// Text as it stands in SVG and HTML. What no such document can hold is written as "\x.." before.
std::string Escaped(const std::string& text);

}  // namespace host::trace
