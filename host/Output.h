#pragma once

#include <chrono>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ExitCode.h"
#include "Fault.h"
#include "LogFollower.h"
#include "Ports.h"
#include "Preflight.h"
#include "Report.h"
#include "UpdateController.h"

namespace host {

/// How fast the bytes go out and how long the rest takes, as far as that is known.
struct Pace {
  std::optional<double> rate_Bps;
  std::optional<std::chrono::seconds> left;
};

/// What a run of peripheralctl tells its caller, be it a person or a program. One thread at a time.
class Output : public UpdateListener {
 public:
  virtual void OnStep(const DeviceStep& step) = 0;
  virtual void OnSentBytes(const SentBytes& sent, const Pace& pace) = 0;
  /// The ports that there are: all that such a run tells.
  virtual void OnPorts(const std::vector<Port>& ports) = 0;
  /// The files that can be sent, each what its digest stands for or without one.
  virtual void OnFiles(const std::vector<CheckedFile>& files) = 0;
  /// What is wrong and keeps the update from being begun.
  virtual void OnFaults(const Faults& faults) = 0;
  /// What is wrong but ends nothing.
  virtual void OnWarning(const Fault& warning) = 0;
  /// The faults, told before, are the end of it: nothing was begun.
  virtual void OnRefusal(const Faults& faults, ExitCode exitCode) = 0;
  /// How it ended: the last that is told.
  virtual void OnResult(const RunResult& result, ExitCode exitCode) = 0;

  /// Where log lines go that no file takes, each flushed as a whole.
  virtual std::ostream& Log() { return std::cerr; }

  /// Has retries give the cause that `why` knows for the attempt before, counted from 1.
  void AskWhy(std::function<std::optional<Cause>(int)> why) { iWhy = std::move(why); }

 protected:
  std::optional<Cause> Why(int attempt) const { return iWhy ? iWhy(attempt) : std::nullopt; }

 private:
  std::function<std::optional<Cause>(int)> iWhy;
};

}  // namespace host
