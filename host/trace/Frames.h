// The bytes of a trace as the frames of XMODEM.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "trace/Record.h"

namespace host::trace {

/// Who speaks.
enum class Side { Host, Device };

/// A piece of the dialogue: a block, some single bytes, or something that happened to the port.
struct Frame {
  enum class Kind {
    Block,       ///< SOH or STX and what belongs to it
    Ack,         ///< one byte, as the next three
    Nak,         ///<
    Eot,         ///<
    CrcRequest,  ///< 'C'
    Cancel,      ///< one CAN or more in a row
    Stray,       ///< bytes that mean nothing where they stand
    Opened,      ///< the port was opened
    Lost,        ///< the line broke
    Closed,      ///< the port was closed
    Log,         ///< a line of the log
    End          ///< the run ended
  };

  Kind kind;
  Side side = Side::Host;      ///< of bytes
  std::uint64_t begin_us = 0;  ///< when the first byte crossed
  std::uint64_t end_us = 0;    ///< when the last one did
  std::uint64_t offset = 0;    ///< how many bytes of this side came before the first
  std::string bytes = {};      ///< as they crossed
  std::string text = {};       ///< of what are no bytes, as in the record

  // Of a block:
  int number = 0;        ///< as it stands behind the start byte
  bool complete = true;  ///< else the rest never came
  bool numberRight = true;
  bool hasCrc = true;  ///< else its trailer is a checksum of one byte
  bool trailerRight = true;
  unsigned trailer = 0;   ///< as sent
  unsigned computed = 0;  ///< as it should be

  /// The data of a block, as far as they came.
  std::string_view Data() const;
};

/// Takes the bytes of the trace apart, in the order in which the frames began. How a block ends, in a CRC or
/// in a checksum, depends on what its receiver asked for before; a device's block counts as one only where
/// the host receives. What the host does not wait for any more is not its rest.
std::vector<Frame> FramesOf(const Trace& trace);

/// A line of the log; its parts point into the frame.
struct LogLine {
  std::string_view level;
  std::string_view module;
  std::string_view message;
};

/// The parts of a frame that is a line of the log.
LogLine LogLineOf(const Frame& frame);

}  // namespace host::trace
