#pragma once

#include <functional>
#include <string>

#include "OutputFile.h"
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

  /// Opens the files. Returns a fault for people, empty when all is well.
  std::string Open();

  void OnBegin(const std::function<void()>& abort) override;
  /// Returns why what was recorded is incomplete.
  std::string OnEnd(const RunResult& result, bool moduleGone) override;

 private:
  const Files iFiles;
  const std::string iDescription;
  trace::Recorder iRecorder;
  OutputFile iReport;
};

}  // namespace host
