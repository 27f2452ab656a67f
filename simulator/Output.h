#pragma once

#include <string_view>

#include "simulator/EndSignals.h"

namespace simulator {

/// What the program says on standard output while it plays. Nothing of it is kept back.
class Output {
 public:
  /// `signals` must outlive it.
  explicit Output(const EndSignals& signals) : iSignals(signals) {}

  /// Says a text. Waits for room, but no longer when the program is to end. What cannot be written is lost.
  void Say(std::string_view text);
  /// Whether all was said. Complains on stderr where it was not.
  bool IsSaid() const;

 private:
  bool HasRoom() const;

  const EndSignals& iSignals;
  bool iSaid = true;
};

/// Says a text on stderr. Waits for room, but not for long: a complaint must not keep the program from
/// ending.
void Complain(std::string_view text);

/// Complains that something was not said on standard output.
void TellLoss();

}  // namespace simulator
