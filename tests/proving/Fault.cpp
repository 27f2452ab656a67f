#include "Fault.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace proving {

namespace {

// In the order of FaultKind.
constexpr const char* kNames[] = {"drop",       "flip", "double", "insert", "delay",   "readerror",
                                  "writeerror", "gone", "reset",  "abort",  "install", "delete"};

// NUL, all ones, SOH, STX, EOT, ACK, NAK, CAN and the request for CRC mode.
constexpr std::uint32_t kStrayBytes[] = {0x00, 0xFF, 0x01, 0x02, 0x04, 0x06, 0x15, 0x18, 'C'};

// Longer than any wait of host or device.
constexpr std::uint32_t kPastEveryWait_ms = 21'000;

bool HasValue(FaultKind kind) {
  return kind == FaultKind::kFlip || kind == FaultKind::kInsert || kind == FaultKind::kDelay;
}

std::vector<Fault> MakeEveryFault() {
  std::vector<Fault> faults;
  const auto add = [&](FaultKind kind, std::uint32_t value = 0) {
    faults.push_back({kind, Direction::kOut, 0, value});
  };
  add(FaultKind::kDrop);
  for (std::uint32_t bit = 0; bit < 8; ++bit) {
    add(FaultKind::kFlip, bit);
  }
  add(FaultKind::kDouble);
  for (const std::uint32_t byte : kStrayBytes) {
    add(FaultKind::kInsert, byte);
  }
  add(FaultKind::kDelay, kPastEveryWait_ms);
  for (const FaultKind kind :
       {FaultKind::kReadError, FaultKind::kWriteError, FaultKind::kGone, FaultKind::kReset, FaultKind::kAbort,
        FaultKind::kInstall, FaultKind::kDelete}) {
    add(kind);
  }
  return faults;
}

}  // namespace

const std::vector<Fault>& EveryFault() {
  static const std::vector<Fault> faults = MakeEveryFault();
  return faults;
}

std::string Text(const Fault& fault) {
  const std::string value = HasValue(fault.kind) ? std::to_string(fault.value) : "";
  return std::string(fault.direction == Direction::kOut ? "out:" : "in:") + std::to_string(fault.index) +
         ":" + kNames[static_cast<std::size_t>(fault.kind)] + value;
}

std::optional<Fault> ParseFault(const std::string& text) {
  const auto first = text.find(':');
  const auto second = text.find(':', first + 1);
  const std::string direction = text.substr(0, first);
  if (second == std::string::npos || (direction != "out" && direction != "in")) {
    return std::nullopt;
  }
  const std::string what = text.substr(second + 1);
  const std::string name = what.substr(0, what.find_first_of("0123456789"));
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) {
    return std::nullopt;
  }
  Fault fault{static_cast<FaultKind>(found - std::begin(kNames)),
              direction == "out" ? Direction::kOut : Direction::kIn,
              static_cast<std::uint32_t>(std::strtoul(text.c_str() + first + 1, nullptr, 10))};
  fault.value = static_cast<std::uint32_t>(std::strtoul(what.c_str() + name.size(), nullptr, 10));
  return fault;
}

}  // namespace proving
