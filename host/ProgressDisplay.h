#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "Output.h"
#include "ProgressLine.h"
#include "Screen.h"

namespace host {

/// What lines may look like.
struct Look {
  bool terminal;                 ///< lines may be redrawn in place
  bool colour;                   ///< without effect when `terminal` is false
  bool errorsToo;                ///< standard error is a terminal as well, most likely the same one
  std::function<int()> columns;  ///< the terminal's width, which may change
};

/// Tells people: on a terminal by a progress bar that is redrawn in place, elsewhere by a line every 10 % and
/// one for each step; milestones as lines of their own, failures on `err`. Only a success is 100 %. A stream
/// that refuses to be written to is no reason to stop.
class ProgressDisplay : public Output {
 public:
  /// `devices` are the names of those that are updated, in their order.
  ProgressDisplay(std::ostream& out, std::ostream& err, Look look, std::vector<std::string> devices);

  void OnState(UpdateState state) override;
  void OnProgress(int percent) override;
  void OnMilestone(const std::string& text) override;
  void OnRetry(int attempt, const Retries& retries) override;
  void OnStep(const DeviceStep& step) override;
  void OnSentBytes(const SentBytes& sent, const Pace& pace) override;
  void OnPorts(const std::vector<Port>& ports) override;
  void OnFiles(const std::vector<CheckedFile>& files) override;
  void OnFaults(const Faults& faults) override;
  void OnWarning(const Fault& warning) override;
  void OnRefusal(const Faults& faults, ExitCode exitCode) override;
  void OnResult(const RunResult& result, ExitCode exitCode) override;

  /// Any thread, unlike the rest: lines that share the terminal with the bar stand above it.
  std::ostream& Log() override;

 protected:
  /// No progress is shown after this; all of it is, if it is done.
  void EndProgress(bool isDone);

 private:
  void ShowProgress(int percent);
  void Line(const std::string& text);
  void LeaveBar();
  void Redraw();
  std::string Device(std::size_t index) const;
  std::string ShownDevice(std::size_t index) const;

  std::ostream& iOut;
  std::ostream& iErr;
  const Look iLook;
  Screen iScreen;
  ScreenStream iLog;
  const std::vector<std::string> iDevices;
  ProgressFacts iFacts;       ///< without a percentage nothing is shown
  bool iCountsBytes = false;  ///< the percentage is that of the bytes, not the module's
  int iLastTenth = -1;        ///< the last tenth that has a line
};

}  // namespace host
