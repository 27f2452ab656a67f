#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "Report.h"
#include "UpdateRun.h"
#include "trace/Recorder.h"

namespace host {

/// Records one run: into a trace file, a report, or both.
class RunRecording final : public RunCompanion {
 public:
  /// Where to record to; an empty name is for none.
  struct Files {
    std::string trace;
    std::string report;
  };

  /// `properties` are those of the run to come.
  RunRecording(Files files, const PropertyMap& properties);

  /// Opens the trace and makes room for the report: nothing is left there of an earlier run. Returns a fault
  /// for people, empty when all is well.
  std::string Open();

  void OnBegin(const std::function<void()>& abort) override;
  /// Returns why what was recorded is incomplete.
  Faults OnEnd(const RunResult& result, bool moduleGone) override;
  void OnBreak() override { iRecorder.Stop(); }
  bool OnHaste() override { return !iIsComplete; }
  Faults OnRefusal(const Faults& faults, ExitCode exitCode) override;

 private:
  const Files iFiles;
  const std::string iDescription;
  trace::Recorder iRecorder;
  std::atomic<bool> iIsComplete{false};
};

/// Leaves behind what a run has to say that does not take place: a trace with nothing but its end, and a
/// report that says why. Older ones make way, any other file stays. Returns what went wrong, for people.
Faults RecordNoRun(const RunRecording::Files& files, ExitCode exitCode, const std::string& outcome,
                   const Faults& errors);

}  // namespace host
