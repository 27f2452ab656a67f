#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fault.h"
#include "Oracles.h"
#include "Run.h"
#include "SourceFolder.h"

namespace proving {

/// Every single fault of a set of updates, numbered.
class SingleFaults {
 public:
  /// Each fault at each byte of both directions, over the images at whose sizes blocks begin and end.
  static SingleFaults AtEachByte(SourceFolder& sources);
  /// Each fault at each turn of the dialogue, over images of so many blocks that their numbers wrap.
  static SingleFaults AtEachTurnOfWrappingNumbers(SourceFolder& sources);

  std::uint64_t Size() const { return iSize; }
  /// The updates that break a promise although nothing goes wrong in them: their bytes are not to be trusted.
  const std::vector<std::string>& BrokenBases() const { return iBrokenBases; }
  /// The id of the scenario with this number, below Size().
  std::string IdOf(std::uint64_t number) const;

 private:
  struct Place {
    Direction direction;
    std::uint32_t index;
  };
  struct Update {
    std::string base;
    std::vector<Place> places;
    std::uint64_t firstNumber;
  };

  Observation Measure(const std::string& base, SourceFolder& sources, Recorder* recorder);
  void Add(const std::string& base, std::vector<Place> places);

  std::vector<Update> iUpdates;
  std::vector<std::string> iBrokenBases;
  std::uint64_t iSize = 0;
};

/// What a campaign has seen, to be added up over its processes.
struct Tally {
  std::uint64_t runs = 0;
  std::uint64_t repeated = 0;  ///< of which a second time, with the same trace
  std::uint64_t successes = 0;
  std::uint64_t faultsHappened = 0;      ///< runs in which at least one did
  std::uint64_t excuses[kExcuses] = {};  ///< by Excuse
  std::uint64_t broken = 0;
};

}  // namespace proving
