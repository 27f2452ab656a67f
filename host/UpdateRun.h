#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

#include "ExitCode.h"
#include "Logging.h"
#include "Output.h"
#include "OutputFile.h"
#include "PropertyStore.h"
#include "SourceFiles.h"
#include "UpdateController.h"

namespace host {

class RunLog;
struct RunResult;

/// Who accompanies a run. But for OnHaste, all calls come on the thread that executes it.
class RunCompanion {
 public:
  virtual ~RunCompanion() = default;
  /// The module is there and is asked for nothing yet. `abort` asks for an abort as Ctrl-C does; any thread,
  /// until OnEnd.
  virtual void OnBegin(const std::function<void()>& abort) = 0;
  /// The run is over. Without `moduleGone` the module is still at work, until the process ends soon. Returns
  /// what went wrong with accompanying it, for people.
  virtual Faults OnEnd(const RunResult& result, bool moduleGone) = 0;
  /// Instead of OnEnd: an exception ends the run.
  virtual void OnBreak() {}
  /// The process ends at once, before or after OnEnd. On any thread. Returns whether a recording of the run
  /// is left incomplete.
  virtual bool OnHaste() { return false; }
  /// Instead of all others: the module could not be had. Returns what OnEnd does.
  virtual Faults OnRefusal(const Faults& /*faults*/, ExitCode /*exitCode*/) { return {}; }
};

/// One run of the module from loading to unloading: everything that peripheralctl does once it knows what
/// there is to do.
struct UpdateRun {
  Goal goal;
  TimeLimits limits;
  Retries retries;
  std::string library;
  std::string featureId;
  PropertyMap properties;
  const SourceFiles& files;                 ///< as they were before anybody read them
  Faults faults;                            ///< found and told before; the preparation has failed with any
  Output& output;                           ///< told what happens
  std::ostream& log;                        ///< where log lines go
  const OutputFile* logFile;                ///< behind `log`, null when that is standard error
  std::optional<logging::TLevel> logLevel;  ///< nothing: no log lines
  RunCompanion* companion = nullptr;        ///< null for nobody

  /// Loads the module, drives it, tells the output. An update during which a file that is sent changed has
  /// failed. When the module cannot be made to let go of the delivery thread the process ends here.
  ///
  /// Ctrl-C aborts, a second one ends the process at once. Both, the time limits and the end of the module
  /// work also while an output takes nothing (a full pipe, a stopped terminal); only the return then waits
  /// for it. Log lines are written by whoever logs: a log that takes nothing does hold up the module.
  ExitCode Execute() const;

 private:
  std::string LossOf(const RunLog& lines) const;
  ExitCode RefuseModule(const std::string& fault) const;
  ExitCode Warn(const Faults& complaints, ExitCode exitCode) const;
};

}  // namespace host
