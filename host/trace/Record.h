// The format of traces; docs/TRACES.md describes it for those who write tools of their own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace host::trace {

/// What a record tells of. The value is the byte in the file.
enum class Kind : char {
  Start = 'S',     ///< the run begins; lines of "key=value"
  Opened = 'O',    ///< the port was opened: its speed in bit/s, a blank, its name
  Sent = '>',      ///< bytes from the host to the device
  Received = '<',  ///< bytes from the device to the host
  Lost = 'L',      ///< the line broke; the reason
  Closed = 'C',    ///< the port was closed; nothing
  Log = 'M',       ///< a line of the log: its level, a blank, its module, a blank, its message
  End = 'E'        ///< the run ended: the exit code, a blank, the outcome in words
};

/// One record of a trace.
struct Record {
  Kind kind;
  std::uint64_t time_us;  ///< since the recording began
  std::string payload;
};

/// How far a trace could be read.
enum class Soundness {
  Whole,   ///< to its end record
  Open,    ///< the last record is complete, but is no end record: the recording program was killed
  Broken,  ///< something is cut off or wrong; what stands before it was read
  Foreign  ///< not a trace, or of a version that this program does not know; nothing was read
};

/// A trace as it was read.
struct Trace {
  std::vector<Record> records;
  Soundness soundness = Soundness::Foreign;
  std::string fault;  ///< for people, a sentence about what is wrong; empty for a whole one
};

/// The longest payload that a record can have, in bytes.
constexpr std::size_t kMaxPayload_bytes = 1 << 20;

/// What a trace starts with.
std::string FileHeader();

/// The record as it stands in a file. A longer payload than kMaxPayload_bytes is cut.
std::string Encode(const Record& record);

/// Reads a trace as far as it is sound.
Trace Decode(std::string_view content);

/// Reads a trace from a file. Where that cannot be read, the trace is Foreign and the fault tells why.
Trace ReadTrace(const std::string& path);

}  // namespace host::trace
