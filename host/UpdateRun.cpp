#include "UpdateRun.h"

#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

#include "EventBroker.h"
#include "FeatureModule.h"
#include "LineEar.h"
#include "Report.h"
#include "RunLog.h"
#include "SignalWatch.h"
#include "Terminal.h"
#include "TransferRate.h"

namespace host {

namespace {

constexpr std::chrono::seconds kStopPatience(2);
// More often is of no use to people, and programs need not keep up with a fast line.
constexpr std::chrono::milliseconds kBetweenTellings(200);

class NoInterfaces final : public IInterfaceBroker {};

ExitCode ExitCodeOf(const RunResult& result) {
  return result.faults.empty() ? host::ExitCodeOf(result.outcome) : host::ExitCodeOf(result.faults);
}

[[noreturn]] void ExitAtOnce(ExitCode code) {
  std::_Exit(static_cast<int>(code));
}

// Has the companion, if there is one, know of the run's end, however that comes.
class Accompaniment {
 public:
  explicit Accompaniment(RunCompanion* companion) : iCompanion(companion) {}
  Accompaniment(const Accompaniment&) = delete;
  Accompaniment& operator=(const Accompaniment&) = delete;
  ~Accompaniment() {
    if (iHasBegun && !iHasEnded) {
      iCompanion->OnBreak();
    }
  }

  void Begin(const std::function<void()>& abort) {
    if (iCompanion != nullptr) {
      iHasBegun = true;
      iCompanion->OnBegin(abort);
    }
  }

  Faults End(const RunResult& result, bool moduleGone) {
    Faults complaints = iCompanion != nullptr ? iCompanion->OnEnd(result, moduleGone) : Faults{};
    iHasEnded = true;
    return complaints;
  }

  // Any thread. Whether a recording is left incomplete.
  bool Hasten() { return iCompanion != nullptr && iCompanion->OnHaste(); }

 private:
  RunCompanion* const iCompanion;
  bool iHasBegun = false;
  bool iHasEnded = false;
};

// Writes past the streams, whose owner may be stuck in them, and only what a full pipe or a stopped terminal
// has room for.
[[noreturn]] void ExitInHaste(const RunResult& result, Accompaniment& accompaniment) {
  const bool isLoss = accompaniment.Hasten();
  const std::string text =
      HurriedReportFor(result) + (isLoss ? "What was to be recorded of it is incomplete.\n" : "");
  pollfd room = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&room, 1, 0) == 1 && (room.revents & POLLOUT) != 0) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
  }
  ExitAtOnce(isLoss ? WithLoss(ExitCodeOf(result)) : ExitCodeOf(result));
}

// What has become of the files that are sent, until the sending has ended or until now. Any thread.
class FilesWhileSent {
 public:
  explicit FilesWhileSent(const SourceFiles& files) : iFiles(files) {}

  void OnSendingEnded() {
    std::vector<std::string> changes = iFiles.Changes();
    const std::lock_guard<std::mutex> lock(iMutex);
    iChanges = std::move(changes);
  }

  std::vector<std::string> Changes() {
    const std::lock_guard<std::mutex> lock(iMutex);
    return iChanges ? *iChanges : iFiles.Changes();
  }

 private:
  const SourceFiles& iFiles;
  std::mutex iMutex;
  std::optional<std::vector<std::string>> iChanges;
};

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
bool Drive(UpdateController& controller, EventBroker& broker, std::unique_ptr<FeatureModule>& module,
           FilesWhileSent& files) {
  const DisplayThread display(controller);
  controller.Wait();
  files.OnSendingEnded();
  const bool stopped = broker.StopWithin(kStopPatience);
  if (stopped) {
    module.reset();
  }
  return stopped;
}

// Thins out what the log tells of bytes, and adds their pace. Called on the thread that logs.
class SentBytesFeed {
 public:
  SentBytesFeed(UpdateController& controller, Output& output) : iController(controller), iOutput(output) {}

  void Take(const SentBytes& sent) {
    const auto now = std::chrono::steady_clock::now();
    iRate.Add(sent.bytes, now);
    if (now - iTold < kBetweenTellings && sent.deviceBytes < sent.deviceTotal) {
      return;
    }
    iTold = now;
    const Pace pace = {iRate.Rate_Bps(), iRate.TimeFor(sent.total - sent.bytes)};
    iController.Post([&output = iOutput, sent, pace] { output.OnSentBytes(sent, pace); });
  }

 private:
  UpdateController& iController;
  Output& iOutput;
  TransferRate iRate;
  std::chrono::steady_clock::time_point iTold;
};

// Follows what is logged for as long as it lives.
class Listening {
 public:
  Listening(const UpdateRun& run, UpdateController& controller)
      : iFeed(controller, run.output),
        iFollower(
            PlanOf(run.properties),
            [&controller, &output = run.output](const DeviceStep& step) {
              controller.Post([&output, step] { output.OnStep(step); });
            },
            [this](const SentBytes& sent) { iFeed.Take(sent); }, [this] { return iEar.Hear(); }),
        iLog(
            run.log, run.logLevel,
            [&controller, &output = run.output](const std::string& text) {
              controller.Post([&output, text] { output.OnMilestone(text); });
            },
            [this](const logging::TLine& line) { iFollower.Take(line); }) {
    run.output.AskWhy([this](int attempt) { return iFollower.WhyFailed(static_cast<std::size_t>(attempt)); });
  }

  RunLog& Log() { return iLog; }
  bool MayHaveWritten() { return !iEar.KnowsThatNothingWasWritten(); }
  bool OnlyMemoryWritten() { return iFollower.OnlyMemoryWritten(); }
  std::optional<Cause> WhyFailed() { return iFollower.WhyFailed(); }
  std::optional<Cause> WhereSilent() {
    const std::optional<std::string> place = iFollower.Place();
    return place ? std::make_optional(Cause{ErrorCode::NoResult, *place + ": no sign of life in time"})
                 : std::nullopt;
  }

 private:
  LineEar iEar;
  SentBytesFeed iFeed;
  LogFollower iFollower;
  RunLog iLog;
};

// Before the end this is what leaving it now comes to.
RunResult Judge(const UpdateRun& run, UpdateController& controller, Listening& listening,
                FilesWhileSent& files) {
  RunResult result = {run.goal, controller.Result().value_or(Outcome::Aborted),
                      controller.UploadStarted() && listening.MayHaveWritten(), listening.Log().Reasons()};
  result.onlyMemoryWritten = listening.OnlyMemoryWritten();
  result.faults = run.faults;
  if (!run.faults.empty() && result.outcome == Outcome::Succeeded) {
    result.outcome = Outcome::PrepareFailed;
  }
  if (result.outcome == Outcome::InstallFailed) {
    result.cause = listening.WhyFailed();
  } else if (result.outcome == Outcome::NoResult) {
    result.cause = listening.WhereSilent();
  }
  for (std::string& reason : result.reasons) {
    reason = ReasonFor(reason, result.cause);
  }
  const bool isSent = result.outcome == Outcome::Succeeded || result.outcome == Outcome::InstallFailed;
  if (run.goal == Goal::Update && isSent) {
    const std::vector<std::string> changes = files.Changes();
    if (!changes.empty()) {
      result.outcome = Outcome::SourceChanged;
      result.cause.reset();
      result.reasons = changes;
    }
  }
  return result;
}

}  // namespace

ExitCode UpdateRun::Execute() const {
  PropertyStore store;
  store.Set(featureId, properties);
  NoInterfaces interfaces;
  EventBroker broker;
  // A file that has changed is another one than was checked.
  const Retries whileUnchanged = {retries.count, retries.pause, [this] { return files.Changes().empty(); }};
  UpdateController controller(broker, featureId, goal, limits, output, whileUnchanged);
  Listening listening(*this, controller);
  FilesWhileSent sent(files);
  const auto result = [&] { return Judge(*this, controller, listening, sent); };

  std::string fault;
  std::unique_ptr<FeatureModule> module = FeatureModule::Load(library, fault);
  Accompaniment accompaniment(companion);
  const SignalWatch signals([&controller] { controller.Abort(); },
                            [&] { ExitInHaste(result(), accompaniment); });
  if (module == nullptr || !module->Create(featureId, interfaces, broker, store, fault)) {
    return RefuseModule(fault);
  }
  accompaniment.Begin([&controller] { controller.Abort(); });
  // Only now, so that the module is whole when the first request reaches it.
  const ScopedDelivery delivery(broker);
  const bool stopped = Drive(controller, broker, module, sent);
  const RunResult ended = result();
  Faults complaints = accompaniment.End(ended, stopped);
  if (const std::string loss = LossOf(listening.Log()); !loss.empty()) {
    complaints.push_back({ErrorCode::LogNotWritten, loss});
  }
  const ExitCode exitCode = Warn(complaints, ExitCodeOf(ended));
  output.OnResult(ended, exitCode);
  if (!stopped) {
    accompaniment.Hasten();
    ExitAtOnce(FlushStandardOutput() ? exitCode : WithLoss(exitCode));
  }
  return exitCode;
}

// Why the log is incomplete, for people; empty when it is not, or when nobody wants to read it any more.
std::string UpdateRun::LossOf(const RunLog& lines) const {
  if (!lines.LinesLost() || (logFile == nullptr && IsReaderGone(STDERR_FILENO))) {
    return "";
  }
  return logFile != nullptr ? logFile->Fault() : "the log on standard error is incomplete. Is the disk full?";
}

ExitCode UpdateRun::RefuseModule(const std::string& fault) const {
  Faults all = faults;
  all.push_back({ErrorCode::ModuleNotLoadable, fault});
  const ExitCode exitCode = host::ExitCodeOf(all);
  output.OnFaults({all.back()});
  if (companion != nullptr) {
    Warn(companion->OnRefusal(all, exitCode), exitCode);
  }
  output.OnRefusal(all, exitCode);
  return exitCode;
}

// Returns the exit code that the complaints make of that one.
ExitCode UpdateRun::Warn(const Faults& complaints, ExitCode exitCode) const {
  for (const Fault& complaint : complaints) {
    output.OnWarning(complaint);
  }
  return complaints.empty() ? exitCode : WithLoss(exitCode);
}

}  // namespace host
