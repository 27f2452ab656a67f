// A dialogue as lines for people.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "trace/Dialogue.h"

namespace host::trace {

/// One line of what is shown of a dialogue.
struct Step {
  enum class Look { Good, Bad, Plain };

  std::optional<Side> from;  ///< who speaks; nobody for pauses and for what happens to the port
  std::uint64_t begin_us = 0;
  std::string text;
  Look look = Look::Plain;
  std::vector<std::size_t> frames;  ///< what it stands for
};

/// Which steps are wanted.
enum class Detail {
  Frames,        ///< one for each frame but for log lines
  FramesAndLog,  ///< also the log
  Condensed      ///< several sound and acknowledged blocks in a row are one
};

/// The steps of a dialogue, in their order, pauses among them.
std::vector<Step> StepsOf(const Dialogue& dialogue, Detail detail);

/// A frame in words.
std::string Describe(const Dialogue& dialogue, std::size_t frame);

/// "host" or "device".
const char* Name(Side side);

/// Seconds with six decimals.
std::string Seconds(std::uint64_t time_us);

/// Bytes as hexadecimal numbers with blanks between.
std::string Hexadecimal(std::string_view bytes);

}  // namespace host::trace
