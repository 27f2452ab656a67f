#include "Frames.h"

#include <algorithm>
#include <optional>

#include "simulator/Xmodem.h"

namespace proving {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHeaderSize = 3;

std::optional<Frame> FrameAt(const Bytes& bytes, std::size_t begin) {
  const bool isStart = bytes[begin] == simulator::kSoh || bytes[begin] == simulator::kStx;
  const std::size_t size = bytes[begin] == simulator::kSoh ? simulator::kShortBlock : simulator::kLongBlock;
  const std::size_t rest = bytes.size() - begin;
  if (!isStart || rest <= kHeaderSize + size || bytes[begin + 1] + bytes[begin + 2] != 0xFF) {
    return std::nullopt;
  }
  const auto data = bytes.begin() + static_cast<std::ptrdiff_t>(begin + kHeaderSize);
  const auto behind = data + static_cast<std::ptrdiff_t>(size);
  Frame frame{begin, 0, bytes[begin + 1], {data, behind}};
  for (const auto kind : {simulator::Trailer::kCrc, simulator::Trailer::kChecksum}) {
    const Bytes trailer = simulator::TrailerOf(frame.data, kind);
    frame.length = kHeaderSize + size + trailer.size();
    if (frame.length <= rest && std::equal(trailer.begin(), trailer.end(), behind)) {
      return frame;
    }
  }
  return std::nullopt;
}

}  // namespace

std::vector<Frame> FindFrames(const Bytes& bytes) {
  std::vector<Frame> frames;
  for (std::size_t at = 0; at < bytes.size();) {
    auto frame = FrameAt(bytes, at);
    at += frame ? frame->length : 1;
    if (frame) {
      frames.push_back(std::move(*frame));
    }
  }
  return frames;
}

}  // namespace proving
