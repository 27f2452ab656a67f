// The simulator's devices by one call.
#pragma once

#include <memory>
#include <string>

#include "simulator/DeviceList.h"

namespace simulator {

/// Makes the devices of a list such as "can,sanyo"; null if it is none. With `once` the list does not begin
/// again after its last device. Power on before use.
inline std::unique_ptr<DeviceList> MakeDevices(const std::string& kinds, const Options& options = {},
                                               bool once = false) {
  return MakeDevices(PlanDevices(kinds, options), once);
}

}  // namespace simulator
