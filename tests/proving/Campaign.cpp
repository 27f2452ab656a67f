#include "Campaign.h"

#include <algorithm>
#include <initializer_list>

#include "Run.h"
#include "Scenario.h"

namespace proving {

namespace {

constexpr std::uint32_t kBlockEdges[] = {0, 1, 127, 128, 129, 1023, 1024, 1025, 2500};
constexpr std::uint32_t kWrappingImage = 260 * 1024;

// Where the line changes its direction.
class Turns : public Recorder {
 public:
  struct Turn {
    Direction direction;
    std::uint32_t index;
  };

  void OnByte(std::int64_t, Direction direction, std::uint8_t) override {
    std::uint32_t& count = iCounts[static_cast<std::size_t>(direction)];
    if (turns.empty() || turns.back().direction != direction) {
      turns.push_back({direction, count});
    }
    ++count;
  }

  void OnLine(std::int64_t, const std::string&) override {}

  std::vector<Turn> turns;

 private:
  std::uint32_t iCounts[2] = {};
};

}  // namespace

SingleFaults SingleFaults::AtEachByte(SourceFolder& sources) {
  SingleFaults faults;
  for (const char* device : {"can", "sanyo"}) {
    for (const bool checksum : {false, true}) {
      for (const std::uint32_t size : kBlockEdges) {
        const std::string base = BaseId(device, checksum, size);
        const Observation seen = faults.Measure(base, sources, nullptr);
        std::vector<Place> places;
        for (std::uint32_t index = 0; index < seen.bytesOut; ++index) {
          places.push_back({Direction::kOut, index});
        }
        for (std::uint32_t index = 0; index < seen.bytesIn; ++index) {
          places.push_back({Direction::kIn, index});
        }
        faults.Add(base, std::move(places));
      }
    }
  }
  return faults;
}

SingleFaults SingleFaults::AtEachTurnOfWrappingNumbers(SourceFolder& sources) {
  SingleFaults faults;
  for (const char* device : {"can", "sanyo"}) {
    for (const bool checksum : {false, true}) {
      const std::string base = BaseId(device, checksum, kWrappingImage);
      Turns turns;
      const Observation seen = faults.Measure(base, sources, &turns);
      std::vector<Place> places;
      for (const Turns::Turn& turn : turns.turns) {
        // Behind the update come the turns of the one afterwards.
        const bool isOut = turn.direction == Direction::kOut;
        if (turn.index < (isOut ? seen.bytesOut : seen.bytesIn)) {
          places.push_back({turn.direction, turn.index});
        }
      }
      faults.Add(base, std::move(places));
    }
  }
  return faults;
}

Observation SingleFaults::Measure(const std::string& base, SourceFolder& sources, Recorder* recorder) {
  const std::string id = base + "/none";
  Observation seen = Run(*ParseScenario(id), sources, recorder).Observe();
  if (!Broken(seen).empty()) {
    iBrokenBases.push_back(id);
  }
  return seen;
}

void SingleFaults::Add(const std::string& base, std::vector<Place> places) {
  const std::uint64_t count = places.size() * EveryFault().size();
  iUpdates.push_back({base, std::move(places), iSize});
  iSize += count;
}

std::string SingleFaults::IdOf(std::uint64_t number) const {
  const auto behind = std::upper_bound(
      iUpdates.begin(), iUpdates.end(), number,
      [](std::uint64_t wanted, const Update& update) { return wanted < update.firstNumber; });
  const Update& update = *(behind - 1);
  const auto within = static_cast<std::size_t>(number - update.firstNumber);
  const Place& place = update.places[within / EveryFault().size()];
  Fault fault = EveryFault()[within % EveryFault().size()];
  fault.direction = place.direction;
  fault.index = place.index;
  return update.base + "/" + Text(fault);
}

}  // namespace proving
