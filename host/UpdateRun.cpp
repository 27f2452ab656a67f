#include "UpdateRun.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "EventBroker.h"
#include "FeatureModule.h"
#include "ProgressDisplay.h"
#include "Report.h"
#include "RunLog.h"
#include "SignalWatch.h"

namespace host {

namespace {

constexpr std::chrono::seconds kStopPatience(2);
constexpr int kDefaultColumns = 80;

class NoInterfaces final : public IInterfaceBroker {};

bool IsTerminal() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

int Columns() {
  winsize size = {};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kDefaultColumns;
}

[[noreturn]] void ExitAtOnce(ExitCode code) {
  std::_Exit(static_cast<int>(code));
}

// Writes past the streams: their owner may be stuck in them.
[[noreturn]] void ExitOnSecondSignal() {
  constexpr char kText[] =
      "\nExiting at once. The device may hold an incomplete image: run the update again.\n";
  (void)!write(STDERR_FILENO, kText, sizeof(kText) - 1);
  ExitAtOnce(ExitCode::Aborted);
}

void Show(const RunResult& result) {
  (result.outcome == Outcome::Succeeded ? std::cout : std::cerr) << ReportFor(result) << std::flush;
}

}  // namespace

ExitCode UpdateRun::Execute() const {
  PropertyStore store;
  store.Set(featureId, properties);
  NoInterfaces interfaces;
  ProgressDisplay display(std::cout, IsTerminal(), Columns());
  EventBroker broker;
  UpdateController controller(broker, featureId, goal, limits, display);
  RunLog runLog(log, logLevel, [&controller](const std::string& text) { controller.AddMilestone(text); });

  std::string fault;
  std::unique_ptr<FeatureModule> module = FeatureModule::Load(library, fault);
  const SignalWatch signals([&controller] { controller.Abort(); }, ExitOnSecondSignal);
  if (module == nullptr || !module->Create(featureId, interfaces, broker, store, fault)) {
    std::cerr << "peripheralctl: " << fault << std::endl;
    return ExitCode::ModuleNotLoadable;
  }
  // Only now, so that the module is whole when the first request reaches it.
  broker.Start();
  const Outcome outcome = controller.Wait();
  const bool stopped = broker.StopWithin(kStopPatience);
  if (stopped) {
    module.reset();
  }
  controller.Tell();
  Show({goal, outcome, controller.InstallRequested(), runLog.Reasons()});
  if (!stopped) {
    ExitAtOnce(ExitCodeOf(outcome));
  }
  return ExitCodeOf(outcome);
}

}  // namespace host
