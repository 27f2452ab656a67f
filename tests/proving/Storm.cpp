#include "Storm.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>

namespace proving {

namespace {

// SplitMix64: a few instructions to begin with a seed, which happens once a run.
class Random {
 public:
  explicit Random(std::uint64_t seed) : iState(seed) {}

  std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(Next() % limit); }
  bool OneIn(std::uint32_t count) { return Below(count) == 0; }

  template <typename T>
  T OneOf(std::initializer_list<T> choices) {
    return *(choices.begin() + Below(static_cast<std::uint32_t>(choices.size())));
  }

 private:
  std::uint64_t Next() {
    iState += 0x9E3779B97F4A7C15u;
    std::uint64_t mixed = iState;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
  }

  std::uint64_t iState;
};

std::uint32_t DrawImageSize(Random& random) {
  if (random.OneIn(2)) {
    return random.OneOf<std::uint32_t>({0, 1, 127, 128, 129, 1023, 1024, 1025, 2047, 2048, 2049, 2500});
  }
  return random.Below(random.OneIn(10) ? 20'000 : 4'000);
}

// Up to and beyond each wait of host and device.
std::uint32_t DrawPause_ms(Random& random) {
  return random.OneOf<std::uint32_t>({1,      150,    199,    200,    201,    999,   1'000, 1'001,
                                      2'999,  3'001,  4'990,  5'001,  5'100,  5'999, 6'001, 9'999,
                                      19'990, 20'001, 20'100, 29'999, 30'001, 45'000});
}

std::string DrawText(Random& random, std::uint32_t longest) {
  std::string text(random.Below(longest + 1), '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(1 + random.Below(255)); });
  return text;
}

simulator::Refusal DrawRefusal(Random& random) {
  simulator::Refusal refusal;
  refusal.verb = random.OneOf({"wr", "gt", "ck"});
  refusal.occurrence = static_cast<int>(random.Below(3));
  refusal.answer = random.OneOf({"001", "00", "0000", "000 ", "0", "", "999", "OK"});
  if (random.OneIn(4)) {
    refusal.answer = DrawText(random, 1500);
  }
  return refusal;
}

void DrawMisbehaviour(Random& random, simulator::Options& options) {
  using simulator::SilentStage;
  simulator::Faults& faults = options.faults;
  switch (random.Below(9)) {
    case 0:
      options.version_text = DrawText(random, 2000);
      break;
    case 1:
      faults.refusals.push_back(DrawRefusal(random));
      break;
    case 2:
      faults.silent_after = {
          random.OneOf({SilentStage::kVersion, SilentStage::kWriteRam, SilentStage::kGo,
                        SilentStage::kWriteFlash, SilentStage::kCheck, SilentStage::kBytes}),
          1 + random.Below(4000)};
      break;
    case 3:
      faults.slow_ms = DrawPause_ms(random);
      break;
    case 4:
      faults.nak_every = random.OneOf({1, 2, 3, 10, 11});
      break;
    case 5:
      faults.nak_first_eot = true;
      break;
    case 6:
      faults.damage_every = random.OneOf({1, 2, 3});
      break;
    case 7:
      faults.cancel_after_bytes = 1 + random.Below(4000);
      break;
    default:
      faults.corrupt_flash = true;
      break;
  }
}

FaultKind DrawKind(Random& random) {
  // What ends a run at once is rarer than what a run may live through.
  if (random.OneIn(8)) {
    return random.OneOf({FaultKind::kGone, FaultKind::kReset, FaultKind::kAbort, FaultKind::kInstall,
                         FaultKind::kDelete, FaultKind::kReadError, FaultKind::kWriteError});
  }
  return random.OneOf(
      {FaultKind::kDrop, FaultKind::kFlip, FaultKind::kDouble, FaultKind::kInsert, FaultKind::kDelay});
}

Fault DrawFault(Random& random, std::uint32_t bytes_out, std::uint32_t bytes_in) {
  Fault fault{DrawKind(random), random.OneIn(2) ? Direction::kOut : Direction::kIn, 0};
  fault.index = random.Below(fault.direction == Direction::kOut ? bytes_out : bytes_in);
  switch (fault.kind) {
    case FaultKind::kFlip:
      fault.value = random.Below(8);
      break;
    case FaultKind::kInsert:
      fault.value = random.OneIn(2) ? random.OneOf<std::uint32_t>({0, 1, 2, 4, 6, 0x15, 0x18, 'C', 0xFF})
                                    : random.Below(256);
      break;
    case FaultKind::kDelay:
      fault.value = DrawPause_ms(random);
      break;
    default:
      break;
  }
  return fault;
}

// Never two of a kind: on the line that they share one would pass for the other.
std::vector<std::string> DrawDevices(Random& random) {
  switch (random.Below(20)) {
    case 0:
      return {"can", "sanyo"};
    case 1:
      return {"sanyo", "can"};
    default:
      return {random.OneIn(2) ? "can" : "sanyo"};
  }
}

}  // namespace

Scenario MakeStorm(std::uint64_t seed) {
  Random random(seed);
  Scenario scenario;
  scenario.id = "storm/" + std::to_string(seed);
  scenario.healthyDevicesAfterwards = true;
  scenario.devices = DrawDevices(random);
  scenario.imageSize = DrawImageSize(random);
  scenario.options.faults.checksum = random.OneIn(3);
  for (std::uint32_t count = random.OneIn(2) ? 1 + random.Below(2) : 0; count > 0; --count) {
    DrawMisbehaviour(random, scenario.options);
  }
  // About what an update needs, and some more for what is sent again.
  const auto devices = static_cast<std::uint32_t>(scenario.devices.size());
  const std::uint32_t bytes_out = devices * (scenario.imageSize + 1'200);
  const std::uint32_t bytes_in = devices * 900;
  const std::uint32_t faults = random.OneIn(6) ? random.Below(60) : random.Below(5);
  for (std::uint32_t count = 0; count < faults; ++count) {
    scenario.faults.push_back(DrawFault(random, bytes_out, bytes_in));
  }
  if (devices > 1) {
    // Two sessions at once in a list of several would each start what comes next.
    scenario.faults.erase(
        std::remove_if(scenario.faults.begin(), scenario.faults.end(),
                       [](const Fault& fault) { return fault.kind == FaultKind::kInstall; }),
        scenario.faults.end());
  }
  return scenario;
}

}  // namespace proving
