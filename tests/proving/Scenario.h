#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Fault.h"
#include "Resources.h"
#include "simulator/Options.h"

namespace proving {

/// What one run is made of. A run is told by its id alone:
///   can/crc/1025/none             an update of a CAN device with an image of 1025 bytes, nothing goes wrong
///   sanyo/sum/128/out:17:flip3    checksums instead of CRCs, and a fault at a byte
///   can/crc/300/malloc:2          the second call of malloc fails
///   storm/4711                    devices, image and any number of faults drawn from a seed
struct Scenario {
  std::string id;
  std::vector<std::string> devices;  ///< "can" and "sanyo", in the order of the update list
  std::uint32_t imageSize = 0;
  std::vector<Fault> faults;
  simulator::Options options;  ///< what the devices are like
  resources::Call failingCall = resources::Call::kMalloc;
  std::uint32_t failingCallNumber = 0;  ///< 0: none fails
  /// The update afterwards meets devices without misbehaviour.
  bool healthyDevicesAfterwards = false;
};

/// Nothing if the id is none.
std::optional<Scenario> ParseScenario(const std::string& id);

/// "can/crc/1025", the beginning of an id.
std::string BaseId(const std::string& device, bool checksum, std::uint32_t imageSize);

/// "malloc:2", the end of an id.
std::string Text(resources::Call call, std::uint32_t number);

}  // namespace proving
