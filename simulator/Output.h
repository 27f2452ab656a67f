#pragma once

#include <string_view>

namespace simulator {

/// What the program says on standard output while it plays. Nothing of it is kept back.
class Output {
 public:
  /// Says a text. What cannot be written is lost.
  void Say(std::string_view text);
  /// Whether all was said. Complains on stderr where it was not.
  bool IsSaid() const;

 private:
  bool iSaid = true;
};

/// Complains on stderr that something was not said.
void TellLoss();

}  // namespace simulator
