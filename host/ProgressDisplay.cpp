#include "ProgressDisplay.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace host {

namespace {

constexpr int kMinBarWidth = 10;
constexpr int kMaxBarWidth = 50;
constexpr int kMinBarWidthBesideStatus = 5;
constexpr int kMaxBarWidthBesideStatus = 20;
constexpr int kMinStatusWidth = 12;
constexpr int kMostBeforeTheEnd = 99;
constexpr int kColumnsBesideBar = 9;  // brackets, two blanks, "100 %"
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

std::vector<std::string> Describe(const SentBytes& sent, const Pace& pace) {
  std::vector<std::string> facts = {fmt::format("{} of {}", Size(static_cast<double>(sent.deviceBytes)),
                                                Size(static_cast<double>(sent.deviceTotal)))};
  if (pace.rate_Bps) {
    facts.push_back(Size(*pace.rate_Bps) + "/s");
  }
  if (pace.left) {
    facts.push_back(Duration(*pace.left) + " left");
  }
  return facts;
}

int PercentOfDevice(const SentBytes& sent) {
  return sent.deviceTotal > 0 ? static_cast<int>(sent.deviceBytes * 100 / sent.deviceTotal) : 0;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::ostream& out, std::ostream& err, Look look,
                                 std::vector<std::string> devices)
    : iOut(out),
      iErr(err),
      iLook(std::move(look)),
      iScreen(out),
      iLog(iScreen, err),
      iDevices(std::move(devices)) {}

std::ostream& ProgressDisplay::Log() {
  return iLook.terminal && iLook.errorsToo ? iLog : iErr;
}

void ProgressDisplay::OnState(UpdateState state) {
  switch (state) {
    case UpdateState::AwaitingAnnouncement:
    case UpdateState::Pausing:
    case UpdateState::Ended:
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
  }
}

// Every byte may be on its way and the update fail all the same.
void ProgressDisplay::OnProgress(int percent) {
  ShowProgress(std::min(percent, kMostBeforeTheEnd));
}

void ProgressDisplay::ShowProgress(int percent) {
  iPercent = percent;
  if (iLook.terminal) {
    DrawBar();
  } else if (percent / 10 > iLastTenth || iLastTenth < 0) {
    iLastTenth = percent / 10;
    const std::string facts = iSent.empty() ? "" : fmt::format(" ({})", fmt::join(iSent, ", "));
    Line(fmt::format("Progress: {} %{}", percent, facts));
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
  iSent = Describe(sent, pace);
  if (iDevices.size() > 1) {
    iSent.front() = fmt::format("{} {} %, {}", Device(sent.device), PercentOfDevice(sent), iSent.front());
  }
  if (iLook.terminal && iPercent >= 0) {
    DrawBar();
  }
}

void ProgressDisplay::OnPorts(const std::vector<Port>& ports) {
  iOut << DescribePorts(ports) << std::flush;
}

void ProgressDisplay::OnFiles(const std::vector<CheckedFile>& files) {
  iOut << Describe(files) << std::flush;
}

void ProgressDisplay::OnFaults(const Faults& faults) {
  for (const Fault& fault : faults) {
    iErr << "peripheralctl: " << fault.text << std::endl;
  }
}

void ProgressDisplay::OnWarning(const std::string& text) {
  if (iLook.terminal) {
    LeaveBar();
  }
  iScreen.Print(iErr, "peripheralctl: " + text + "\n");
}

// The faults say it all.
void ProgressDisplay::OnRefusal(const Faults& /*faults*/, ExitCode /*exitCode*/) {}

void ProgressDisplay::OnResult(const RunResult& result, ExitCode exitCode) {
  EndProgress(exitCode == ExitCode::Success);
  (exitCode == ExitCode::Success ? iOut : iErr) << ReportFor(result) << std::flush;
}

void ProgressDisplay::EndProgress(bool isDone) {
  iStep.clear();
  iSent.clear();
  if (isDone && iPercent >= 0) {
    ShowProgress(100);
  }
  LeaveBar();
}

void ProgressDisplay::Line(const std::string& text) {
  iScreen.Print(iOut, text + "\n");
}

void ProgressDisplay::LeaveBar() {
  iScreen.LeaveBar();
  iPercent = -1;
}

// The line never reaches the last column, where some terminals would begin another.
void ProgressDisplay::DrawBar() {
  const int room = iLook.columns() - 1;
  const std::string status = Status(room - kColumnsBesideBar - kMinBarWidthBesideStatus);
  const int rest = room - kColumnsBesideBar - static_cast<int>(status.size());
  const int width = status.empty() ? std::clamp(rest, kMinBarWidth, kMaxBarWidth)
                                   : std::min(rest, kMaxBarWidthBesideStatus);
  const int filled = width * iPercent / 100;
  iScreen.ShowBar(fmt::format("[{}{:#>{}}{}{:.>{}}]  {:3} %{}", iLook.colour ? kGreen : "", "", filled,
                              iLook.colour ? kPlain : "", "", width - filled, iPercent, status));
}

std::string ProgressDisplay::Device(std::size_t index) const {
  return index < iDevices.size() ? iDevices[index] : "device";
}

// The step counts most, and of the bytes what is left.
std::string ProgressDisplay::Status(int room) const {
  if (room < kMinStatusWidth) {
    return "";
  }
  for (auto fact = iSent.begin();; ++fact) {
    std::string status = fact == iSent.end() ? "" : fmt::format("  {}", fmt::join(fact, iSent.end(), ", "));
    status += iStep.empty() ? "" : "  " + iStep;
    if (fact == iSent.end() || status.size() <= static_cast<std::size_t>(room)) {
      return status.substr(0, static_cast<std::size_t>(room));
    }
  }
}

}  // namespace host
