#include "TransferWatch.h"

#include <algorithm>
#include <utility>

#include "simulator/Xmodem.h"
#include "simulator/XmodemReceiver.h"

namespace proving {

void TransferWatch::Begin(bool isImage, std::uint32_t forgedAcks, std::int64_t now_us) {
  End(forgedAcks, now_us);
  iSendsImage = isImage;
  iBegin = iDelivered.size();
  iForgedBefore = forgedAcks;
  iEndsWritten = iEndsDelivered = 0;
}

void TransferWatch::End(std::uint32_t forgedAcks, std::int64_t now_us) {
  if (!std::exchange(iSendsImage, false)) {
    return;
  }
  NoteQuiet(now_us);
  const std::uint32_t forged_ends = iEndsDelivered - std::min(iEndsDelivered, iEndsWritten);
  iTransfers.push_back({iBegin, iDelivered.size(), forgedAcks - iForgedBefore, forged_ends});
}

void TransferWatch::OnDelivered(std::uint8_t byte, std::size_t taker, std::int64_t now_us) {
  NoteQuiet(now_us);
  iLastDelivery_us = now_us;
  iDelivered.push_back(byte);
  iTakers.push_back(static_cast<std::uint8_t>(taker));
}

void TransferWatch::MoveTo(Observation& seen) {
  seen.transfers = std::move(iTransfers);
  seen.delivered = std::move(iDelivered);
  seen.takers = std::move(iTakers);
}

// A device takes an EOT for one only if nothing follows it.
void TransferWatch::NoteQuiet(std::int64_t now_us) {
  const bool is_quiet = now_us - iLastDelivery_us >= simulator::XmodemReceiver::kEotQuiet;
  const bool is_lone = iDelivered.size() > iBegin && iDelivered.back() == simulator::kEot;
  iEndsDelivered += is_quiet && is_lone ? 1U : 0U;
}

}  // namespace proving
