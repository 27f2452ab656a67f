#pragma once

#include <cstdint>
#include <vector>

#include "simulator/Micros.h"

namespace simulator {

/// Something that hangs on a serial line. It has no clock and no thread: whoever holds it says what time it
/// is, and calls Advance() at NextTimer().
class Device {
 public:
  virtual ~Device() = default;

  /// Starts from the very beginning; memories keep what they hold.
  virtual void PowerOn(Micros now) = 0;
  /// Takes one byte from the line.
  virtual void Receive(std::uint8_t byte, Micros now) = 0;
  /// Does what is due at `now`.
  virtual void Advance(Micros now) = 0;
  /// When Advance() has something to do if no byte comes before; kNever if nothing.
  virtual Micros NextTimer() const = 0;
  /// Hands over the bytes for the host that the last calls produced.
  virtual std::vector<std::uint8_t> TakeOutput() = 0;
};

}  // namespace simulator
