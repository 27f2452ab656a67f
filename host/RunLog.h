#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Logging.h"

namespace host {

/// The log of one run: writes the lines that are wanted to a stream, passes milestones on, and remembers
/// errors as the reasons to give when the run fails.
class RunLog final : public logging::ISink {
 public:
  using MilestoneHandler = std::function<void(const std::string&)>;
  using LineHandler = std::function<void(const logging::TLine&)>;

  /// Takes the platform's log, and its lowest level, over until destruction. Lines at `lowest` and above are
  /// written to `out`, with date and time; none without a level. `onMilestone` gets the text of each
  /// milestone line, on whichever thread logs it, and must not log; so does `onLine` with every line of every
  /// level.
  RunLog(std::ostream& out, std::optional<logging::TLevel> lowest, MilestoneHandler onMilestone,
         LineHandler onLine);
  RunLog(const RunLog&) = delete;
  RunLog& operator=(const RunLog&) = delete;
  ~RunLog() override;

  void Write(const logging::TLine& line) override;

  /// The most recent errors, oldest first, each text once. Any thread.
  std::vector<std::string> Reasons();

  /// Tells whether a line could not be written. Any thread.
  bool LinesLost() const { return iLinesLost; }

 private:
  void Remember(const std::string& reason);

  std::ostream& iOut;
  const std::optional<logging::TLevel> iLowest;
  const MilestoneHandler iOnMilestone;
  const LineHandler iOnLine;
  std::mutex iMutex;
  std::deque<std::string> iReasons;
  std::atomic<bool> iLinesLost{false};
  const logging::TLevel iPreviousLevel;
  logging::ISink* const iPrevious;
};

}  // namespace host
