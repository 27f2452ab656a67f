#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace proving {

/// A block as it stands on the wire, right in every respect: start, number, complement, data and check value.
struct Frame {
  std::size_t begin;   ///< of its first byte
  std::size_t length;  ///< up to its last
  std::uint8_t number;
  std::vector<std::uint8_t> data;
};

/// All frames in a row of bytes, in their order.
std::vector<Frame> FindFrames(const std::vector<std::uint8_t>& bytes);

}  // namespace proving
