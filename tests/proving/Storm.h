#pragma once

#include <cstdint>

#include "Scenario.h"

namespace proving {

/// Devices, an image, misbehaviour of both and faults of the line: how many, where and which, all drawn from
/// the seed.
Scenario MakeStorm(std::uint64_t seed);

}  // namespace proving
