#pragma once

#include <cstdint>
#include <vector>

#include "simulator/Bootloader.h"

namespace simulator {

/// The Sanyo device's bootloader: takes one file into flash, at its base, and says nothing.
class SanyoBootloader : public Bootloader {
 public:
  explicit SanyoBootloader(const Options& options);

 private:
  void Begin(Micros now) override;
  void OnReceived(TransferResult result, Micros now) override;
  void OnSent(TransferResult result, Micros now) override;
  bool TakeBlock(const std::vector<std::uint8_t>& data, bool first) override;

  std::uint64_t iFileBytes = 0;
};

}  // namespace simulator
