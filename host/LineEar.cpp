#include "LineEar.h"

#include <algorithm>

namespace host {

namespace {

// Half of what the module waits for progress: a device that is rejected or erases takes less, and one that
// dies between two steps of the progress has been silent for longer.
constexpr std::chrono::seconds kSilence(20);

// Until a first block goes out, everything that the host says is a byte that asks or answers.
bool BeginsBlock(TUint8 byte) {
  constexpr TUint8 kStartOfBlock = 0x01;
  constexpr TUint8 kStartOfLongBlock = 0x02;
  return byte == kStartOfBlock || byte == kStartOfLongBlock;
}

}  // namespace

Hearing LineEar::Hear(std::chrono::steady_clock::time_point now) {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iHeardAt) {
    return {iIsOpened ? Hearing::Kind::Nothing : Hearing::Kind::Unknown};
  }
  const auto silence = std::chrono::duration_cast<std::chrono::seconds>(now - *iHeardAt);
  return {silence >= kSilence ? Hearing::Kind::FellSilent : Hearing::Kind::Speaks, silence};
}

bool LineEar::KnowsThatNothingWasWritten() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iIsOpened && !iHasSentBlock;
}

void LineEar::OnOpened(const std::string& /*name*/, TUint32 /*speed*/) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iIsOpened = true;
  iHeardAt.reset();
}

void LineEar::OnSent(const TUint8* bytes, std::size_t count) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iHasSentBlock = iHasSentBlock || std::any_of(bytes, bytes + count, BeginsBlock);
}

void LineEar::OnReceived(const TUint8* /*bytes*/, std::size_t /*count*/) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iHeardAt = std::chrono::steady_clock::now();
}

}  // namespace host
