#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Output.h"

namespace host {

/// Tells programs: one JSON object a line, as docs/JSON.md and docs/peripheralctl.schema.json describe it.
class JsonOutput final : public Output {
 public:
  /// `devices` are the names of those that are updated, in their order.
  JsonOutput(std::ostream& out, std::vector<std::string> devices);

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

 private:
  std::ostream& iOut;
  const std::vector<std::string> iDevices;
};

}  // namespace host
