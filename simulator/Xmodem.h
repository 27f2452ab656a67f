#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace simulator {

constexpr std::uint8_t kSoh = 0x01;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEot = 0x04;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
constexpr std::uint8_t kCan = 0x18;
constexpr std::uint8_t kCrcRequest = 'C';

constexpr std::size_t kShortBlock = 128;
constexpr std::size_t kLongBlock = 1024;

/// What follows the data of a block.
enum class Trailer { kCrc, kChecksum };

/// How a transfer stands or ended. kRunning is the only one that is not final.
enum class TransferResult {
  kRunning,
  kComplete,
  kEmpty,          ///< Ended by the sender before any block.
  kCancelled,      ///< The other side sent two CAN in a row.
  kSilence,        ///< The other side has gone away.
  kTooManyErrors,  ///< Given up after damaged blocks, or refused ones.
  kOutOfSequence,  ///< A sound block that is neither the next nor the last one.
  kNoRoom,         ///< The taker of the blocks has no place for more.
  kPeerReceives    ///< The other side asks for data itself: it has begun anew.
};

/// For people: why a transfer ended with `result`.
const char* Describe(TransferResult result);

/// CRC-16 with polynomial 0x1021 and initial value 0.
std::uint16_t Crc16(const std::vector<std::uint8_t>& data);

/// Sum of all bytes modulo 256.
std::uint8_t Checksum(const std::vector<std::uint8_t>& data);

/// The trailer bytes of a block's data, as they go on the wire.
std::vector<std::uint8_t> TrailerOf(const std::vector<std::uint8_t>& data, Trailer kind);

/// A whole block as it goes on the wire. `data` must be 128 or 1024 bytes.
std::vector<std::uint8_t> FrameBlock(std::uint8_t number, const std::vector<std::uint8_t>& data,
                                     Trailer kind);

}  // namespace simulator
