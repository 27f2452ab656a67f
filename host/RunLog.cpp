#include "RunLog.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace host {

namespace {

constexpr std::size_t kMaxReasons = 5;
constexpr std::string_view kMilestonePrefix = "SWL: ";

std::string Now() {
  const auto now = std::chrono::system_clock::now();
  const auto sinceEpoch_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", fmt::localtime(seconds), sinceEpoch_ms.count() % 1000);
}

}  // namespace

RunLog::RunLog(std::ostream& out, std::optional<logging::TLevel> lowest, MilestoneHandler onMilestone,
               LineHandler onLine)
    : iOut(out),
      iLowest(lowest),
      iOnMilestone(std::move(onMilestone)),
      iOnLine(std::move(onLine)),
      iPreviousLevel(logging::LowestLevel()),
      iPrevious(logging::SetSink(this)) {
  logging::SetLowestLevel(logging::EInterface);
}

RunLog::~RunLog() {
  logging::SetSink(iPrevious);
  logging::SetLowestLevel(iPreviousLevel);
}

void RunLog::Write(const logging::TLine& line) {
  if (iLowest && line.level >= *iLowest) {
    // As one text: a display may write to the same stream at the same time.
    iOut << Now() + " " + logging::Format(line) + "\n" << std::flush;
    iLinesLost = iLinesLost || !iOut;
  }
  iOnLine(line);
  if (line.level == logging::EError) {
    Remember(logging::Printable(line.message));
  }
  const bool milestone = line.message.substr(0, kMilestonePrefix.size()) == kMilestonePrefix;
  if (line.level == logging::EAlways && milestone) {
    iOnMilestone(logging::Printable(line.message.substr(kMilestonePrefix.size())));
  }
}

std::vector<std::string> RunLog::Reasons() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return {iReasons.begin(), iReasons.end()};
}

void RunLog::Remember(const std::string& reason) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iReasons.erase(std::remove(iReasons.begin(), iReasons.end(), reason), iReasons.end());
  iReasons.push_back(reason);
  if (iReasons.size() > kMaxReasons) {
    iReasons.pop_front();
  }
}

}  // namespace host
