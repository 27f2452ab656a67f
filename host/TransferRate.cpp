#include "TransferRate.h"

#include <cmath>

namespace host {

namespace {

constexpr std::chrono::seconds kWindow(10);
// Two samples closer together say more about the scheduler than about the line.
constexpr std::chrono::milliseconds kShortest(500);
constexpr std::chrono::milliseconds kBetweenSamples(100);

}  // namespace

void TransferRate::Add(std::int64_t bytes, Time now) {
  if (!iSamples.empty() && bytes < iSamples.back().bytes) {
    iSamples.clear();
  }
  // The last one is always the latest; those before keep a distance.
  if (iSamples.size() > 1 && iSamples.back().at - iSamples[iSamples.size() - 2].at < kBetweenSamples) {
    iSamples.pop_back();
  }
  iSamples.push_back({bytes, now});
  while (iSamples.size() > 2 && now - iSamples[1].at >= kWindow) {
    iSamples.pop_front();
  }
}

std::optional<double> TransferRate::Rate_Bps() const {
  if (iSamples.empty() || iSamples.back().at - iSamples.front().at < kShortest) {
    return std::nullopt;
  }
  const std::chrono::duration<double> time = iSamples.back().at - iSamples.front().at;
  return static_cast<double>(iSamples.back().bytes - iSamples.front().bytes) / time.count();
}

std::optional<std::chrono::seconds> TransferRate::TimeFor(std::int64_t bytes) const {
  const std::optional<double> rate_Bps = Rate_Bps();
  if (!rate_Bps || *rate_Bps <= 0) {
    return std::nullopt;
  }
  return std::chrono::seconds(std::llround(std::ceil(static_cast<double>(bytes) / *rate_Bps)));
}

}  // namespace host
