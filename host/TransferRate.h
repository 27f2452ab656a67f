#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace host {

/// How fast bytes go out, over the last seconds. One thread.
class TransferRate {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Takes that `bytes` were sent in all by then. Fewer than before begin anew.
  void Add(std::int64_t bytes, Time now);

  /// Bytes a second; nothing before enough is known.
  std::optional<double> Rate_Bps() const;

  /// The time that so many more bytes take at this rate; nothing before enough is known.
  std::optional<std::chrono::seconds> TimeFor(std::int64_t bytes) const;

 private:
  struct Sample {
    std::int64_t bytes;
    Time at;
  };

  std::deque<Sample> iSamples;
};

}  // namespace host
