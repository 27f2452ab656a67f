#include "simulator/SanyoBootloader.h"

#include <string>

namespace simulator {

SanyoBootloader::SanyoBootloader(const Options& options) : Bootloader("sanyo", options) {}

void SanyoBootloader::Begin(Micros now) {
  const Micros patience = Patient() ? 0 : kHandOverPatience;
  Listen(static_cast<int>(patience / XmodemReceiver::kSolicitPeriod), now);
}

void SanyoBootloader::OnReceived(TransferResult result, Micros now) {
  if (result != TransferResult::kComplete) {
    return HasBeenTouched() ? Fail(Describe(result), now) : Leave();
  }
  iFlash.Complete();
  MaybeCorrupt(iOptions.flash_base);
  Tell("image: " + std::to_string(iFileBytes) + " bytes", now);
  Succeed(now);
}

void SanyoBootloader::OnSent(TransferResult, Micros) {
  // This device never sends a text.
}

bool SanyoBootloader::TakeBlock(const std::vector<std::uint8_t>& data, bool first) {
  if (first) {
    MarkTouched();
    iFileBytes = 0;
    iFlash.Begin(iOptions.flash_base);
  }
  iFileBytes += data.size();
  return iFlash.Append(data);
}

}  // namespace simulator
