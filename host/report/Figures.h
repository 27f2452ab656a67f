// A run in numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace/Dialogue.h"

namespace host::report {

/// How much of the files arrived in each of equally long spans of time.
struct Rate {
  std::uint64_t step_us = 0;
  std::vector<std::uint64_t> bytes;  ///< acknowledged within each step, from the beginning of the trace
};

/// A block that was sent again.
struct Retransmission {
  std::uint64_t time_us;
  trace::Side sender;
  int block;
  std::string transfer;  ///< what the block belongs to
  std::string after;     ///< what the other side had said last
};

/// What is counted of a run.
struct Figures {
  std::uint64_t duration_us = 0;   ///< from the opening of the port to the end of the run
  std::uint64_t sent = 0;          ///< bytes on the line from the host
  std::uint64_t received = 0;      ///< and from the device
  std::uint64_t acknowledged = 0;  ///< data bytes of files that the device has taken
  int blocks = 0;                  ///< different ones of either side
  std::uint64_t paused_us = 0;     ///< all pauses together
  std::vector<Retransmission> retransmissions;
  Rate rate;
};

/// Counts a run.
Figures Count(const trace::Dialogue& dialogue);

}  // namespace host::report
