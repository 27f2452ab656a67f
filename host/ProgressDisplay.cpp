#include "ProgressDisplay.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace host {

namespace {

constexpr int kMostBeforeTheEnd = 99;

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
      LeaveBar();
      Line("Aborting. Waiting for the module's answer; a second Ctrl-C exits at once.");
      break;
  }
}

// What is told of the bytes says the same more finely. Two measures side by side would contradict each other.
void ProgressDisplay::OnProgress(int percent) {
  if (!iCountsBytes || iFacts.percent < 0) {
    ShowProgress(percent);
  }
}

// Every byte may be on its way and the update fail all the same.
void ProgressDisplay::ShowProgress(int percent) {
  iFacts.percent = std::max(iFacts.percent, std::min(percent, kMostBeforeTheEnd));
  Redraw();
}

void ProgressDisplay::Redraw() {
  if (iLook.terminal) {
    iScreen.ShowBar(ProgressLine(iFacts, iLook.columns(), iLook.colour));
  } else if (iFacts.percent / 10 > iLastTenth || iLastTenth < 0) {
    iLastTenth = iFacts.percent / 10;
    const std::vector<std::string> known = DescribeBytes(iFacts);
    const std::string facts = known.empty() ? "" : fmt::format(" ({})", fmt::join(known, ", "));
    Line(fmt::format("Progress: {} %{}", iFacts.percent, facts));
  }
}

void ProgressDisplay::OnMilestone(const std::string& text) {
  Line(text);
}

void ProgressDisplay::OnRetry(int attempt, const Retries& retries) {
  LeaveBar();
  iLastTenth = -1;
  const std::optional<Cause> cause = Why(attempt - 1);
  Line(fmt::format("The attempt failed{}; attempt {} of {} begins in {:.0f} s.",
                   cause ? " (" + cause->detail + ")" : "", attempt, retries.count + 1,
                   std::chrono::duration<double>(retries.pause).count()));
}

void ProgressDisplay::OnStep(const DeviceStep& step) {
  if (iFacts.sent && iFacts.sent->device != step.device) {
    iFacts.sent.reset();
  }
  iFacts.device = ShownDevice(step.device);
  iFacts.step = step.text;
  if (!iLook.terminal) {
    Line(fmt::format("  {}: {}", Device(step.device), step.text));
  } else if (iFacts.percent >= 0) {
    Redraw();
  }
}

void ProgressDisplay::OnSentBytes(const SentBytes& sent, const Pace& pace) {
  iFacts.device = ShownDevice(sent.device);
  iFacts.sent = sent;
  iFacts.pace = pace;
  iCountsBytes = sent.total > 0;
  if (iFacts.percent >= 0) {
    ShowProgress(iCountsBytes ? static_cast<int>(sent.bytes * 100 / sent.total) : 0);
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

void ProgressDisplay::OnWarning(const Fault& warning) {
  iScreen.Print(iErr, "peripheralctl: " + warning.text + "\n");
}

// The faults say it all.
void ProgressDisplay::OnRefusal(const Faults& /*faults*/, ExitCode /*exitCode*/) {}

void ProgressDisplay::OnResult(const RunResult& result, ExitCode exitCode) {
  // What could not be written elsewhere makes it no failure.
  const bool isGood = exitCode == ExitCode::Success || exitCode == ExitCode::OutputLost;
  EndProgress(isGood);
  (isGood ? iOut : iErr) << ReportFor(result) << std::flush;
}

void ProgressDisplay::EndProgress(bool isDone) {
  if (isDone && iFacts.percent >= 0) {
    iFacts = {};
    iFacts.percent = 100;
    Redraw();
  }
  LeaveBar();
}

void ProgressDisplay::Line(const std::string& text) {
  iScreen.Print(iOut, text + "\n");
}

void ProgressDisplay::LeaveBar() {
  iScreen.LeaveBar();
  iFacts = {};
  iCountsBytes = false;
}

std::string ProgressDisplay::Device(std::size_t index) const {
  return index < iDevices.size() ? iDevices[index] : "device";
}

// Where there is but one its name tells nothing.
std::string ProgressDisplay::ShownDevice(std::size_t index) const {
  return iDevices.size() > 1 ? Device(index) : "";
}

}  // namespace host
