// The frames of a trace as a dialogue: what each transfer is for, and what went wrong in it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "trace/Frames.h"

namespace host::trace {

/// One XMODEM transfer, whichever side sends.
struct Transfer {
  enum class Purpose { Version, Command, File, Answer };
  enum class Result { Complete, Cancelled, Unfinished };

  Purpose purpose;
  Side sender;
  std::string text =
      {};  ///< the version, the command or the answer; of a file where it goes, empty if unsaid
  Result result = Result::Unfinished;
  std::uint64_t begin_us = 0;
  std::uint64_t end_us = 0;
  int blocks = 0;                        ///< different ones
  int resent = 0;                        ///< blocks that were sent again
  std::uint64_t size = 0;                ///< data bytes of the different blocks
  std::vector<std::size_t> frames = {};  ///< the first sending of each block

  /// What it is, in words.
  std::string Name() const;
};

/// "complete", "cancelled" or "unfinished".
const char* Name(Transfer::Result result);

/// What a frame is in its transfer.
struct Place {
  std::size_t transfer = 0;
  std::uint64_t dataOffset = 0;  ///< where the block's data begin in the transfer
  bool resent = false;
};

/// A time in which nobody spoke.
struct Pause {
  std::size_t before = 0;  ///< the frame that ended it
  std::uint64_t length_us = 0;
};

/// A trace, understood.
struct Dialogue {
  std::map<std::string, std::string> description;  ///< of the run, from the trace's start record
  std::vector<Frame> frames;
  std::vector<Transfer> transfers;
  std::map<std::size_t, Place> places;  ///< of the frames that are blocks
  std::vector<Pause> pauses;
  std::optional<int> exitCode;  ///< nothing: the trace has no end
  std::string outcome;          ///< in words
};

/// How long nobody must have spoken for it to count as a pause.
constexpr std::uint64_t kPause_us = 1'000'000;

/// Understands a trace, as far as it goes.
Dialogue Understand(const Trace& trace);

}  // namespace host::trace
