#include "UpdateRun.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>

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
  const char* terminal = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): nobody sets variables
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

// Writes past the streams, whose owner may be stuck in them, and only what a full pipe or a stopped terminal
// has room for.
[[noreturn]] void ExitInHaste(const RunResult& result) {
  const std::string text = HurriedReportFor(result);
  pollfd room = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&room, 1, 0) == 1 && (room.revents & POLLOUT) != 0) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
  }
  ExitAtOnce(ExitCodeOf(result.outcome));
}

// Serves the display on a thread of its own.
class DisplayThread {
 public:
  explicit DisplayThread(UpdateController& controller)
      : iController(controller), iThread([this] { iController.Follow(); }) {}
  DisplayThread(const DisplayThread&) = delete;
  DisplayThread& operator=(const DisplayThread&) = delete;

  // Waits until everything is shown.
  ~DisplayThread() {
    iController.FinishFollowing();
    iThread.join();
  }

 private:
  UpdateController& iController;
  std::thread iThread;
};

// Runs the module to the end and deletes it. Returns false, and keeps it, when it does not let go of the
// delivery thread. What is shown does not decide how long the module lives: it goes on writing to the device
// until then.
bool Drive(UpdateController& controller, EventBroker& broker, std::unique_ptr<FeatureModule>& module) {
  const DisplayThread display(controller);
  controller.Wait();
  const bool stopped = broker.StopWithin(kStopPatience);
  if (stopped) {
    module.reset();
  }
  return stopped;
}

// Before the end this is what leaving it now comes to.
RunResult Judge(Goal goal, UpdateController& controller, const SourceFiles& files, RunLog& runLog) {
  RunResult result = {goal, controller.Result().value_or(Outcome::Aborted), controller.UploadStarted(),
                      runLog.Reasons()};
  if (goal == Goal::Update && result.outcome == Outcome::Succeeded) {
    const std::vector<std::string> changes = files.Changes();
    if (!changes.empty()) {
      result.outcome = Outcome::SourceChanged;
      result.reasons = changes;
    }
  }
  return result;
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
  const auto result = [&] { return Judge(goal, controller, files, runLog); };

  std::string fault;
  std::unique_ptr<FeatureModule> module = FeatureModule::Load(library, fault);
  const SignalWatch signals([&controller] { controller.Abort(); }, [&result] { ExitInHaste(result()); });
  if (module == nullptr || !module->Create(featureId, interfaces, broker, store, fault)) {
    std::cerr << "peripheralctl: " << fault << std::endl;
    return ExitCode::ModuleNotLoadable;
  }
  // Only now, so that the module is whole when the first request reaches it.
  const ScopedDelivery delivery(broker);
  const bool stopped = Drive(controller, broker, module);
  const RunResult ended = result();
  Show(ended);
  if (runLog.LinesLost() && !logFile.empty()) {
    std::cerr << "peripheralctl: the log file '" << logFile
              << "' is incomplete: it could not be written. Is the disk full?" << std::endl;
  }
  if (!stopped) {
    ExitAtOnce(ExitCodeOf(ended.outcome));
  }
  return ExitCodeOf(ended.outcome);
}

}  // namespace host
