#pragma once

#include <string>
#include <vector>

#include "Files.h"

/// Small shell scripts that stand first in PATH under the names of real tools while the object lives. Each
/// writes down how it was called and answers what the test wants; untold, exit status 0.
class RecordingTools {
 public:
  explicit RecordingTools(const std::vector<std::string>& names);
  ~RecordingTools();
  RecordingTools(const RecordingTools&) = delete;
  RecordingTools& operator=(const RecordingTools&) = delete;

  /// PATH holds nothing but these tools.
  void HideOthers() const;

  /// The tool's next calls, one for each, exit with these statuses; those behind them with 0.
  void Answer(const std::string& tool, const std::vector<int>& statuses) const;

  /// The tool's next calls, one for each, run these lines of shell; those behind them exit with 0.
  void Run(const std::string& tool, const std::vector<std::string>& scripts) const;

  /// From now on a shell does not find the tool.
  void Remove(const std::string& tool) const;

  /// How tools were called since the last Take, as "umount|-d|/media": the name and every argument.
  std::vector<std::string> Take() const;

 private:
  TemporaryFolder iTools;
  TemporaryFolder iRecords;
  std::string iFormerPath;
};
