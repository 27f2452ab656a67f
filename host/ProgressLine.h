#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Output.h"

namespace host {

/// What is known of a running update, as far as people are shown it in one line.
struct ProgressFacts {
  int percent = -1;    ///< of everything; below 0 it is not known
  std::string device;  ///< whose turn it is; empty when there is but one
  std::string step;    ///< of its dialogue; empty before the first one
  std::optional<SentBytes> sent;
  Pace pace;
};

/// What is known of the bytes, the device's share of them first if it has a name.
std::vector<std::string> DescribeBytes(const ProgressFacts& facts);

/// The facts as a line that is narrower than the terminal: first what counts most, in short where there is
/// little room, with a bar before it where there is enough.
std::string ProgressLine(const ProgressFacts& facts, int columns, bool colour);

}  // namespace host
