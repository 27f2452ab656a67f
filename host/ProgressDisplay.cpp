#include "ProgressDisplay.h"

#include <fmt/format.h>

#include <algorithm>

namespace host {

namespace {

constexpr int kMinBarWidth = 10;
constexpr int kMaxBarWidth = 50;
constexpr int kColumnsBesideBar = 9;  // brackets, two blanks, "100 %"
constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

ProgressDisplay::ProgressDisplay(std::ostream& out, bool terminal, int columns)
    : iOut(out),
      iTerminal(terminal),
      iBarWidth(std::clamp(columns - kColumnsBesideBar - 1, kMinBarWidth, kMaxBarWidth)) {}

void ProgressDisplay::OnState(UpdateState state) {
  switch (state) {
    case UpdateState::AwaitingAnnouncement:
      break;
    case UpdateState::Preparing:
      Line("Preparing: the module checks its settings, the files and the port.");
      break;
    case UpdateState::Installing:
      Line("Updating. Leave the device powered and connected; Ctrl-C aborts.");
      break;
    case UpdateState::Aborting:
      Line("Aborting. Waiting for the module's answer; a second Ctrl-C exits at once.");
      break;
    case UpdateState::Ended:
      if (iTerminal && iPercent >= 0) {
        iOut << std::endl;
      }
      iPercent = -1;
      break;
  }
}

void ProgressDisplay::OnProgress(int percent) {
  iPercent = percent;
  if (iTerminal) {
    DrawBar();
  } else if (percent / 10 > iLastTenth || iLastTenth < 0) {
    iLastTenth = percent / 10;
    Line(fmt::format("Progress: {} %", percent));
  }
}

void ProgressDisplay::OnMilestone(const std::string& text) {
  Line(text);
}

// Flushed at once: a line that waits in a buffer while the device is updated helps nobody.
void ProgressDisplay::Line(const std::string& text) {
  if (iTerminal && iPercent >= 0) {
    iOut << kClearLine << text << "\n";
    DrawBar();
  } else {
    iOut << text << std::endl;
  }
}

void ProgressDisplay::DrawBar() {
  const int filled = iBarWidth * iPercent / 100;
  iOut << kClearLine << fmt::format("[{:#>{}}{:.>{}}]  {:3} %", "", filled, "", iBarWidth - filled, iPercent)
       << std::flush;
}

}  // namespace host
