#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Observation.h"

namespace proving {

/// Parts what reaches the devices into the transfers of the image, and notes of each what a false success may
/// rest on.
class TransferWatch {
 public:
  /// A file's transfer begins, and the one before ends. `forgedAcks` are those of the line so far.
  void Begin(bool isImage, std::uint32_t forgedAcks, std::int64_t now_us);
  void End(std::uint32_t forgedAcks, std::int64_t now_us);
  /// The host wrote an EOT that is no part of a block.
  void OnEndWritten() { ++iEndsWritten; }
  /// `taker` is the index of the device that has the line.
  void OnDelivered(std::uint8_t byte, std::size_t taker, std::int64_t now_us);
  /// Hands over all that was seen.
  void MoveTo(Observation& seen);

 private:
  void NoteQuiet(std::int64_t now_us);

  std::vector<Transfer> iTransfers;
  std::vector<std::uint8_t> iDelivered;
  std::vector<std::uint8_t> iTakers;
  bool iSendsImage = false;
  std::size_t iBegin = 0;
  std::uint32_t iForgedBefore = 0;
  std::uint32_t iEndsWritten = 0;
  std::uint32_t iEndsDelivered = 0;
  std::int64_t iLastDelivery_us = 0;
};

}  // namespace proving
