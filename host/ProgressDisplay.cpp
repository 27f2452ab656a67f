#include "ProgressDisplay.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace host {

namespace {

constexpr int kMinBarWidth = 10;
constexpr int kMaxBarWidth = 50;
constexpr int kBarWidthBesideStatus = 20;
constexpr int kColumnsBesideBar = 9;  // brackets, two blanks, "100 %"
constexpr const char* kClearLine = "\r\x1b[K";
constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kPlain = "\x1b[0m";

std::string Size(double bytes) {
  constexpr double kKibi = 1024;
  return bytes < kKibi * kKibi ? fmt::format("{:.1f} KiB", bytes / kKibi)
                               : fmt::format("{:.1f} MiB", bytes / kKibi / kKibi);
}

std::string Duration(std::chrono::seconds time) {
  return fmt::format("{}:{:02}", time.count() / 60, time.count() % 60);
}

std::string Describe(const SentBytes& sent, const Pace& pace) {
  std::string text = fmt::format("{} of {}", Size(static_cast<double>(sent.deviceBytes)),
                                 Size(static_cast<double>(sent.deviceTotal)));
  if (pace.rate_Bps) {
    text += fmt::format(", {}/s", Size(*pace.rate_Bps));
  }
  if (pace.left) {
    text += fmt::format(", {} left", Duration(*pace.left));
  }
  return text;
}

int PercentOfDevice(const SentBytes& sent) {
  return sent.deviceTotal > 0 ? static_cast<int>(sent.deviceBytes * 100 / sent.deviceTotal) : 0;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::ostream& out, std::ostream& err, Look look,
                                 std::vector<std::string> devices)
    : iOut(out), iErr(err), iLook(std::move(look)), iDevices(std::move(devices)) {}

void ProgressDisplay::OnState(UpdateState state) {
  switch (state) {
    case UpdateState::AwaitingAnnouncement:
    case UpdateState::Pausing:
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
      LeaveBar();
      break;
  }
}

void ProgressDisplay::OnProgress(int percent) {
  iPercent = percent;
  if (iLook.terminal) {
    DrawBar();
  } else if (percent / 10 > iLastTenth || iLastTenth < 0) {
    iLastTenth = percent / 10;
    Line(fmt::format("Progress: {} %{}", percent, iSent.empty() ? "" : " (" + iSent + ")"));
  }
}

void ProgressDisplay::OnMilestone(const std::string& text) {
  Line(text);
}

void ProgressDisplay::OnRetry(int attempt, const Retries& retries) {
  LeaveBar();
  iStep.clear();
  iSent.clear();
  iLastTenth = -1;
  const std::optional<Cause> cause = Why(attempt - 1);
  Line(fmt::format("The attempt failed{}; attempt {} of {} begins in {:.0f} s.",
                   cause ? " (" + cause->detail + ")" : "", attempt, retries.count + 1,
                   std::chrono::duration<double>(retries.pause).count()));
}

void ProgressDisplay::OnStep(const DeviceStep& step) {
  iStep = fmt::format("{}: {}", Device(step.device), step.text);
  if (!iLook.terminal) {
    Line("  " + iStep);
  } else if (iPercent >= 0) {
    DrawBar();
  }
}

void ProgressDisplay::OnSentBytes(const SentBytes& sent, const Pace& pace) {
  const std::string percent =
      iDevices.size() > 1 ? fmt::format("{} {} %, ", Device(sent.device), PercentOfDevice(sent)) : "";
  iSent = percent + Describe(sent, pace);
  if (iLook.terminal && iPercent >= 0) {
    DrawBar();
  }
}

void ProgressDisplay::OnPorts(const std::vector<Port>& ports) {
  iOut << DescribePorts(ports) << std::flush;
}

void ProgressDisplay::OnFaults(const Faults& faults) {
  for (const Fault& fault : faults) {
    iErr << "peripheralctl: " << fault.text << std::endl;
  }
}

void ProgressDisplay::OnWarning(const std::string& text) {
  iErr << "peripheralctl: " << text << std::endl;
}

// The faults say it all.
void ProgressDisplay::OnRefusal(const Faults& /*faults*/, ExitCode /*exitCode*/) {}

void ProgressDisplay::OnResult(const RunResult& result, ExitCode exitCode) {
  (exitCode == ExitCode::Success ? iOut : iErr) << ReportFor(result) << std::flush;
}

// Flushed at once: a line that waits in a buffer while the device is updated helps nobody.
void ProgressDisplay::Line(const std::string& text) {
  if (iLook.terminal && iPercent >= 0) {
    iOut << kClearLine << text << "\n";
    DrawBar();
  } else {
    iOut << text << std::endl;
  }
}

void ProgressDisplay::LeaveBar() {
  if (iLook.terminal && iPercent >= 0) {
    iOut << std::endl;
  }
  iPercent = -1;
}

// The line never reaches the last column, where some terminals would begin another.
void ProgressDisplay::DrawBar() {
  const int room = iLook.columns() - 1;
  const std::string status = Status();
  const int wide = std::clamp(room - kColumnsBesideBar, kMinBarWidth, kMaxBarWidth);
  const int width = status.empty() ? wide : std::min(wide, kBarWidthBesideStatus);
  const int filled = width * iPercent / 100;
  iOut << kClearLine
       << fmt::format("[{}{:#>{}}{}{:.>{}}]  {:3} %", iLook.colour ? kGreen : "", "", filled,
                      iLook.colour ? kPlain : "", "", width - filled, iPercent);
  const int rest = room - width - kColumnsBesideBar;
  if (!status.empty() && rest > 0) {
    iOut << ("  " + status).substr(0, static_cast<std::size_t>(rest));
  }
  iOut << std::flush;
}

std::string ProgressDisplay::Device(std::size_t index) const {
  return index < iDevices.size() ? iDevices[index] : "device";
}

std::string ProgressDisplay::Status() const {
  return iStep.empty() || iSent.empty() ? iStep + iSent : iSent + "  " + iStep;
}

}  // namespace host
