#include "simulator/Xmodem.h"

#include <array>
#include <numeric>

namespace simulator {

namespace {

constexpr std::array<std::uint16_t, 256> MakeCrcTable() {
  std::array<std::uint16_t, 256> table{};
  for (std::uint32_t index = 0; index < table.size(); ++index) {
    std::uint32_t remainder = index << 8;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder << 1) ^ ((remainder & 0x8000u) != 0 ? 0x1021u : 0u);
    }
    table[index] = static_cast<std::uint16_t>(remainder);
  }
  return table;
}

constexpr std::array<std::uint16_t, 256> kCrcTable = MakeCrcTable();

}  // namespace

const char* Describe(TransferResult result) {
  switch (result) {
    case TransferResult::kRunning:
      return "still running";
    case TransferResult::kComplete:
      return "complete";
    case TransferResult::kEmpty:
      return "the host sent nothing";
    case TransferResult::kCancelled:
      return "the host cancelled";
    case TransferResult::kSilence:
      return "the host fell silent";
    case TransferResult::kTooManyErrors:
      return "too many errors on the line";
    case TransferResult::kOutOfSequence:
      return "a block came out of sequence";
    case TransferResult::kNoRoom:
      return "the file does not fit";
    case TransferResult::kPeerReceives:
      return "the host began anew";
  }
  return "unknown";
}

std::uint16_t Crc16(const std::vector<std::uint8_t>& data) {
  std::uint16_t crc = 0;
  for (const std::uint8_t byte : data) {
    crc = static_cast<std::uint16_t>((crc << 8) ^ kCrcTable[(crc >> 8) ^ byte]);
  }
  return crc;
}

std::uint8_t Checksum(const std::vector<std::uint8_t>& data) {
  return static_cast<std::uint8_t>(std::accumulate(data.begin(), data.end(), 0u));
}

std::vector<std::uint8_t> TrailerOf(const std::vector<std::uint8_t>& data, Trailer kind) {
  if (kind == Trailer::kChecksum) {
    return {Checksum(data)};
  }
  const std::uint16_t crc = Crc16(data);
  return {static_cast<std::uint8_t>(crc >> 8), static_cast<std::uint8_t>(crc & 0xFF)};
}

std::vector<std::uint8_t> FrameBlock(std::uint8_t number, const std::vector<std::uint8_t>& data,
                                     Trailer kind) {
  const std::uint8_t start = data.size() == kShortBlock ? kSoh : kStx;
  std::vector<std::uint8_t> frame{start, number, static_cast<std::uint8_t>(0xFF - number)};
  frame.insert(frame.end(), data.begin(), data.end());
  const std::vector<std::uint8_t> trailer = TrailerOf(data, kind);
  frame.insert(frame.end(), trailer.begin(), trailer.end());
  return frame;
}

}  // namespace simulator
