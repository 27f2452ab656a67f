// Blocks and transfers, read out of what went over a line. CRCs and checksums are the simulator's, which
// share no line with the engine's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/Xmodem.h"

namespace fuzz {

/// A whole block whose number, complement and trailer fit.
struct Frame {
  std::uint8_t number;
  std::string data;
  std::size_t size;  ///< of the block on the line
};

/// The block that `bytes` start with, if it is sound.
std::optional<Frame> FrameAt(std::string_view bytes, simulator::Trailer trailer);

/// What a sender and receiver wrote: blocks, single bytes, and perhaps the beginning of a block at the end.
struct WrittenItem {
  enum Kind { kBlock, kByte, kTornBlock } kind;
  std::uint8_t byte;  ///< of a kByte
  Frame frame;        ///< of a kBlock
};

/// Takes apart what the engine wrote. Breaks a promise where there is anything but sound blocks and single
/// bytes of the protocol; only at the very end a block may be torn. Without `trailer` either kind will do.
std::vector<WrittenItem> WrittenItems(std::string_view written, std::optional<simulator::Trailer> trailer);

/// `text` with zeros up to the size of the blocks that it is sent in: of 1024 bytes while more than 128 are
/// left, else of 128.
std::string Padded(const std::string& text);

/// Whether `received` is what the blocks among `arrived` hold, numbers from 1 on without a gap; the last
/// block may be cut.
bool ConsistsOfBlocks(std::string_view received, std::string_view arrived);

}  // namespace fuzz
