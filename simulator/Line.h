#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>

#include "simulator/Device.h"
#include "simulator/Micros.h"
#include "simulator/Options.h"

namespace simulator {

/// One direction of a serial line: bytes go in at any time and come out 10 bits later, one after the other.
class Wire {
 public:
  /// Bytes that may be under way or waiting to be taken.
  static constexpr std::size_t kCapacity = 4096;

  Wire(std::int64_t baud, double noise_rate, std::uint64_t noise_seed);

  /// Puts a byte on the wire; it is lost if the wire is full.
  void Send(std::uint8_t byte, Micros now);
  /// When the next byte comes out, or came out if it still waits to be taken; kNever if there is none.
  Micros NextArrival() const { return iBytes.empty() ? kNever : iBytes.front().arrival; }
  /// When the last byte comes out; kNever if there is none.
  Micros LastArrival() const { return iBytes.empty() ? kNever : iBytes.back().arrival; }
  /// Takes the next byte, which must have arrived.
  std::uint8_t Take();
  /// How many bytes Send() certainly does not lose.
  std::size_t Space() const;
  /// How many bytes it has lost because it was full.
  std::uint64_t Lost() const { return iLost; }

 private:
  struct Byte {
    std::uint8_t value;
    Micros arrival;
  };

  /// The moment at which a byte that goes in at `now` comes out. Exact over any number of bytes in a row.
  Micros Schedule(Micros now);
  void Put(std::uint8_t byte, Micros now);
  bool IsDisturbed();

  std::int64_t iBaud;
  double iNoiseRate;
  std::mt19937_64 iNoise;
  std::deque<Byte> iBytes;
  Micros iBurstStart = 0;
  std::int64_t iBurstBytes = 0;
  Micros iFree = 0;
  std::uint64_t iLost = 0;
};

/// A full-duplex serial line between a host and a device, in virtual time: every byte and every timer of the
/// device happens at its exact moment, however late the caller comes. All moments handed in must not
/// decrease.
class Line {
 public:
  /// `device` must outlive the line and is powered on at `now`.
  Line(Device& device, const LineOptions& options, Micros now);

  /// The host sends up to `count` bytes at `now`. Returns how many were accepted, fewer than `count` when the
  /// line is behind by Wire::kCapacity bytes, or -1 if it is unplugged.
  int HostWrite(const std::uint8_t* data, std::size_t count, Micros now);
  /// The host takes up to `capacity` bytes that have arrived by `now`. Returns their number, 0 if there are
  /// none, or -1 if the line is unplugged; bytes not taken before that are lost.
  int HostRead(std::uint8_t* buffer, std::size_t capacity, Micros now);
  /// The host drops what has arrived by `now`, as it does when it opens a port.
  void HostDiscardInput(Micros now);
  /// How many bytes HostWrite() would accept.
  std::size_t HostWriteSpace() const;
  /// When the last byte that the host has sent arrives at the device; kNever if none is under way.
  Micros HostWriteEnd() const { return iToDevice.LastArrival(); }
  /// How many bytes of the device were lost because the host was behind by Wire::kCapacity bytes.
  std::uint64_t LostToHost() const { return iToHost.Lost(); }

  /// Lets everything happen that is due by `now`.
  void Advance(Micros now);
  /// When something happens next: a byte arrives at either side, the device's timer, the unplugging. `now` if
  /// bytes wait for the host, kNever if nothing is to come by itself.
  Micros NextEvent(Micros now) const;

  /// Pulls the plug for good.
  void Unplug() { iUnplugged = true; }
  bool Unplugged() const { return iUnplugged; }
  /// Switches the device off and on at `now`.
  void PowerCycle(Micros now);

 private:
  Micros NextCause() const;
  void Step();
  void Deliver();
  void Forward();

  Device& iDevice;
  LineOptions iOptions;
  Wire iToDevice;
  Wire iToHost;
  Micros iNow;
  std::uint64_t iDelivered = 0;
  bool iUnplugged = false;
};

}  // namespace simulator
