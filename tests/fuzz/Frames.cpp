#include "Frames.h"

#include <algorithm>
#include <string>

#include "Target.h"

namespace fuzz {
namespace {

constexpr std::size_t kHeaderSize = 3;

bool IsBlockStart(char byte) {
  return byte == simulator::kSoh || byte == simulator::kStx;
}

std::size_t DataSize(char start) {
  return start == simulator::kSoh ? simulator::kShortBlock : simulator::kLongBlock;
}

std::size_t FrameSize(char start, simulator::Trailer trailer) {
  return kHeaderSize + DataSize(start) + (trailer == simulator::Trailer::kCrc ? 2 : 1);
}

std::optional<Frame> FrameOfEither(std::string_view bytes, std::optional<simulator::Trailer> trailer) {
  if (trailer) {
    return FrameAt(bytes, *trailer);
  }
  std::optional<Frame> frame = FrameAt(bytes, simulator::Trailer::kCrc);
  return frame ? frame : FrameAt(bytes, simulator::Trailer::kChecksum);
}

// From `from` on in `arrived` blocks number `number` and up bring `received`.
bool Explains(std::string_view received, std::string_view arrived, std::uint8_t number) {
  for (std::size_t at = 0; !received.empty() && at < arrived.size(); ++at) {
    const std::optional<Frame> frame = FrameAt(arrived.substr(at), simulator::Trailer::kCrc);
    if (!frame || frame->number != number) {
      continue;
    }
    const std::size_t count = std::min(frame->data.size(), received.size());
    if (received.substr(0, count) == frame->data.substr(0, count) &&
        Explains(received.substr(count), arrived.substr(at + frame->size),
                 static_cast<std::uint8_t>(number + 1))) {
      return true;
    }
  }
  return received.empty();
}

}  // namespace

std::optional<Frame> FrameAt(std::string_view bytes, simulator::Trailer trailer) {
  if (bytes.empty() || !IsBlockStart(bytes[0]) || bytes.size() < FrameSize(bytes[0], trailer)) {
    return std::nullopt;
  }
  bytes = bytes.substr(0, FrameSize(bytes[0], trailer));
  const auto number = static_cast<std::uint8_t>(bytes[1]);
  const auto complement = static_cast<std::uint8_t>(bytes[2]);
  if (number + complement != 0xFF) {
    return std::nullopt;
  }
  const std::string data(bytes.substr(kHeaderSize, DataSize(bytes[0])));
  const std::vector<std::uint8_t> expected = simulator::TrailerOf({data.begin(), data.end()}, trailer);
  const std::string_view sent = bytes.substr(kHeaderSize + data.size());
  const bool fits = std::equal(sent.begin(), sent.end(), expected.begin(), expected.end(),
                               [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  return fits ? std::optional<Frame>({number, data, bytes.size()}) : std::nullopt;
}

std::vector<WrittenItem> WrittenItems(std::string_view written, std::optional<simulator::Trailer> trailer) {
  const std::string single = {simulator::kEot, simulator::kAck, simulator::kNak, simulator::kCan,
                              simulator::kCrcRequest};
  std::vector<WrittenItem> items;
  while (!written.empty()) {
    if (!IsBlockStart(written[0])) {
      Promise(single.find(written[0]) != std::string::npos, "a byte on the line belongs to no block");
      items.push_back({WrittenItem::kByte, static_cast<std::uint8_t>(written[0]), {}});
      written.remove_prefix(1);
      continue;
    }
    const std::optional<Frame> frame = FrameOfEither(written, trailer);
    if (!frame) {
      const auto longest = FrameSize(written[0], trailer.value_or(simulator::Trailer::kCrc));
      Promise(written.size() < longest, "a block that was sent is not sound");
      items.push_back({WrittenItem::kTornBlock, 0, {}});
      break;
    }
    items.push_back({WrittenItem::kBlock, 0, *frame});
    written.remove_prefix(frame->size);
  }
  return items;
}

std::string Padded(const std::string& text) {
  std::size_t size = 0;
  while (size < text.size()) {
    size += text.size() - size <= simulator::kShortBlock ? simulator::kShortBlock : simulator::kLongBlock;
  }
  std::string padded = text;
  padded.resize(size, '\0');
  return padded;
}

bool ConsistsOfBlocks(std::string_view received, std::string_view arrived) {
  return Explains(received, arrived, 1);
}

}  // namespace fuzz
