#include "simulator/Line.h"

#include <algorithm>

namespace simulator {

namespace {

constexpr std::int64_t kBitsPerByte = 10;

}  // namespace

Wire::Wire(std::int64_t baud, double noise_rate, std::uint64_t noise_seed)
    : iBaud(baud), iNoiseRate(noise_rate), iNoise(noise_seed) {}

void Wire::Send(std::uint8_t byte, Micros now) {
  if (!IsDisturbed()) {
    return Put(byte, now);
  }
  enum Disturbance { kFlip, kLose, kInsert, kDisturbances };
  switch (iNoise() % kDisturbances) {
    case kFlip:
      return Put(static_cast<std::uint8_t>(byte ^ (1u << (iNoise() % 8))), now);
    case kLose:
      Schedule(now);
      return;
    default:
      Put(static_cast<std::uint8_t>(iNoise() & 0xFF), now);
      Put(byte, now);
  }
}

std::uint8_t Wire::Take() {
  const std::uint8_t value = iBytes.front().value;
  iBytes.pop_front();
  return value;
}

std::size_t Wire::Space() const {
  // Noise may make two bytes of one.
  const std::size_t free = kCapacity - std::min(kCapacity, iBytes.size());
  return iNoiseRate > 0 ? free / 2 : free;
}

Micros Wire::Schedule(Micros now) {
  if (iBaud <= 0) {
    return now;
  }
  if (now >= iFree) {
    iBurstStart = now;
    iBurstBytes = 0;
  }
  ++iBurstBytes;
  const std::int64_t bits = iBurstBytes * kBitsPerByte;
  iFree = iBurstStart + (bits * kSecond + iBaud - 1) / iBaud;
  return iFree;
}

void Wire::Put(std::uint8_t byte, Micros now) {
  if (iBytes.size() == kCapacity) {
    ++iLost;
    return;
  }
  iBytes.push_back(Byte{byte, Schedule(now)});
}

bool Wire::IsDisturbed() {
  if (iNoiseRate <= 0) {
    return false;
  }
  constexpr double kScale = 1.0 / 9007199254740992.0;  // 2^-53: the draw's upper bits as a share of one.
  return static_cast<double>(iNoise() >> 11) * kScale < iNoiseRate;
}

Line::Line(Device& device, const LineOptions& options, Micros now)
    : iDevice(device),
      iOptions(options),
      iToDevice(options.baud, options.noise_rate, options.noise_seed),
      iToHost(options.baud, options.noise_rate, options.noise_seed + 1),
      iNow(now) {
  PowerCycle(now);
}

int Line::HostWrite(const std::uint8_t* data, std::size_t count, Micros now) {
  Advance(now);
  std::size_t accepted = 0;
  while (accepted < count && !iUnplugged && HostWriteSpace() > 0) {
    iToDevice.Send(data[accepted], iNow);
    ++accepted;
    if (iToDevice.NextArrival() <= iNow) {
      Advance(iNow);
    }
  }
  return iUnplugged ? -1 : static_cast<int>(accepted);
}

int Line::HostRead(std::uint8_t* buffer, std::size_t capacity, Micros now) {
  Advance(now);
  if (iUnplugged) {
    return -1;
  }
  std::size_t count = 0;
  while (count < capacity && iToHost.NextArrival() <= iNow) {
    buffer[count] = iToHost.Take();
    ++count;
  }
  return static_cast<int>(count);
}

void Line::HostDiscardInput(Micros now) {
  Advance(now);
  while (iToHost.NextArrival() <= iNow) {
    iToHost.Take();
  }
}

std::size_t Line::HostWriteSpace() const {
  return iUnplugged ? 0 : iToDevice.Space();
}

void Line::Advance(Micros now) {
  while (!iUnplugged && NextCause() <= now) {
    iNow = std::max(iNow, NextCause());
    Step();
  }
  iNow = std::max(iNow, now);
}

Micros Line::NextEvent(Micros now) const {
  if (iUnplugged) {
    return kNever;
  }
  return std::max(now, std::min(NextCause(), iToHost.NextArrival()));
}

void Line::PowerCycle(Micros now) {
  Advance(now);
  if (!iUnplugged) {
    iDevice.PowerOn(iNow);
    Forward();
  }
}

Micros Line::NextCause() const {
  return std::min({iToDevice.NextArrival(), iDevice.NextTimer(), iOptions.unplug_at_us});
}

void Line::Step() {
  if (iOptions.unplug_at_us <= iNow) {
    return Unplug();
  }
  // A byte that arrives in the moment in which a wait for it ends has arrived in time.
  if (iToDevice.NextArrival() <= iNow) {
    Deliver();
  } else {
    iDevice.Advance(iNow);
  }
  Forward();
}

void Line::Deliver() {
  iDevice.Receive(iToDevice.Take(), iNow);
  ++iDelivered;
  if (iDelivered == iOptions.unplug_after_bytes) {
    Unplug();
  }
}

void Line::Forward() {
  for (const std::uint8_t byte : iDevice.TakeOutput()) {
    iToHost.Send(byte, iNow);
  }
}

}  // namespace simulator
