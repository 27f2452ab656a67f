#pragma once

#include <string>
#include <vector>

#include "Observation.h"

namespace proving {

/// A promise that every run keeps, as a user would sign it.
struct Oracle {
  const char* sentence;
  bool (*holds)(const Observation& seen);
};

const std::vector<Oracle>& Oracles();

/// Why a success may be false although nothing is wrong with the module: what no host could have noticed over
/// this protocol. Each is computed from the bytes, not believed.
enum class Excuse {
  kNone,
  kForgedAck,
  kSurplusAck,
  kForgedEnd,
  kOtherDevice,
  kCollision,
  kWrappedNumber,
  kErasedAgain,
  kFlashError
};
constexpr int kExcuses = 9;

const char* Name(Excuse excuse);

/// The excuse of a false success; kNone if there was no false success, or if it has no excuse.
Excuse ExcuseOf(const Observation& seen);

/// The sentences that this run breaks.
std::vector<std::string> Broken(const Observation& seen);

}  // namespace proving
