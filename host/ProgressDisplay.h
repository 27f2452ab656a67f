#pragma once

#include <ostream>
#include <string>

#include "UpdateController.h"

namespace host {

/// Shows an update to people: on a terminal a progress bar that is redrawn in place, elsewhere a line every
/// 10 %; milestones as lines of their own. One thread. A stream that refuses to be written to is no reason to
/// stop.
class ProgressDisplay final : public UpdateListener {
 public:
  /// `columns` is the terminal's width; without effect when `terminal` is false.
  ProgressDisplay(std::ostream& out, bool terminal, int columns);

  void OnState(UpdateState state) override;
  void OnProgress(int percent) override;
  void OnMilestone(const std::string& text) override;

 private:
  void Line(const std::string& text);
  void DrawBar();

  std::ostream& iOut;
  const bool iTerminal;
  const int iBarWidth;
  int iPercent = -1;    ///< what the bar shows; below 0 there is no bar
  int iLastTenth = -1;  ///< the last tenth that has a line
};

}  // namespace host
