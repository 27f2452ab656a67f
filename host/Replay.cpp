#include "Replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <system_error>
#include <utility>

#include "LogFollower.h"
#include "Peripherals.h"
#include "Preflight.h"
#include "ProgressDisplay.h"
#include "Report.h"
#include "SourceFiles.h"
#include "Terminal.h"
#include "UpdateRun.h"
#include "trace/Player.h"

namespace host {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPropertyPrefix = "property.";
constexpr const char* kFeatureId = "replay";
constexpr const char* kImageKey = "xmodemsource-image";
constexpr const char* kLoaderKey = "xmodemsource-loader";

// A folder of its own for the files that are sent.
class Scratch {
 public:
  Scratch() : iPath((fs::temp_directory_path() / "peripheralctl-XXXXXX").string()) {
    if (mkdtemp(iPath.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "cannot make a folder like " + iPath);
    }
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() { Remove(); }

  // Any thread.
  void Remove() const {
    std::error_code ignored;
    fs::remove_all(iPath, ignored);
  }

  std::string File(const std::string& name) const { return iPath + "/" + name; }

 private:
  std::string iPath;
};

// What was sent, as far as the trace goes.
struct SentFiles {
  std::string loader;
  std::string image;
};

SentFiles FilesOf(const trace::Dialogue& dialogue) {
  SentFiles files;
  bool loaderIsNext = false;
  for (const trace::Transfer& transfer : dialogue.transfers) {
    // A device that tells its version takes its loader first.
    loaderIsNext = loaderIsNext || transfer.purpose == trace::Transfer::Purpose::Version;
    if (transfer.purpose != trace::Transfer::Purpose::File) {
      continue;
    }
    std::string content;
    for (const std::size_t frame : transfer.frames) {
      content += dialogue.frames[frame].Data();
    }
    std::string& file = std::exchange(loaderIsNext, false) ? files.loader : files.image;
    file = content.size() > file.size() ? content : file;
  }
  return files;
}

// The last block was filled up, and what was not sent is not known: the file has its size from elsewhere.
// Without a size that a file may have there is none, which the checks before the run notice.
void MakeFile(const std::string& path, const std::string& content, const std::string& size) {
  std::int32_t bytes = 0;
  const auto read = std::from_chars(size.data(), size.data() + size.size(), bytes);
  if (read.ec != std::errc() || bytes < 0 || !(std::ofstream(path, std::ios::binary) << content)) {
    return;
  }
  std::error_code error;
  fs::resize_file(path, static_cast<std::uintmax_t>(bytes), error);
  if (error) {
    fs::remove(path, error);
  }
}

PropertyMap Rebuild(const trace::Dialogue& dialogue, const Scratch& scratch, const std::string& port) {
  PropertyMap properties;
  for (const auto& [key, value] : dialogue.description) {
    if (key.rfind(kPropertyPrefix, 0) == 0) {
      properties[key.substr(kPropertyPrefix.size())] = value;
    }
  }
  const SentFiles files = FilesOf(dialogue);
  for (const auto& [key, content] :
       {std::pair(kImageKey, files.image), std::pair(kLoaderKey, files.loader)}) {
    // A file of this machine has nothing to do with the trace.
    properties.erase(key);
    const auto size = dialogue.description.find(std::string("size.") + key);
    if (size != dialogue.description.end()) {
      MakeFile(scratch.File(key), content, size->second);
      properties[key] = scratch.File(key);
    }
  }
  properties["xmodemportname"] = port;
  return properties;
}

// How often the recorded run began an installation; the others were repetitions of a failed one.
int AttemptsIn(const trace::Dialogue& dialogue) {
  return static_cast<int>(
      std::count_if(dialogue.frames.begin(), dialogue.frames.end(), [](const trace::Frame& frame) {
        return frame.kind == trace::Frame::Kind::Log && BeginsAnAttempt(trace::LogLineOf(frame).message);
      }));
}

// Has the player accompany the run, and tells people how it compares.
class Replaying final : public RunCompanion {
 public:
  Replaying(trace::Player& player, const Scratch& scratch) : iPlayer(player), iScratch(scratch) {}

  void OnBegin(const std::function<void()>& abort) override { iPlayer.Start(abort); }
  Faults OnEnd(const RunResult& result, bool /*moduleGone*/) override {
    iVerdict = iPlayer.Finish(static_cast<int>(ExitCodeOf(result.outcome)));
    return {};
  }
  void OnBreak() override { iPlayer.Stop(); }
  // Nobody else removes the firmware then.
  bool OnHaste() override {
    iScratch.Remove();
    return false;
  }

  // Nothing before the end of the run.
  const std::optional<trace::Player::Verdict>& Verdict() const { return iVerdict; }

 private:
  trace::Player& iPlayer;
  const Scratch& iScratch;
  std::optional<trace::Player::Verdict> iVerdict;
};

// There is no device that could be looked after: what people can look at is the trace.
class ReplayDisplay final : public ProgressDisplay {
 public:
  ReplayDisplay(const Replaying& replaying, const std::string& trace, std::vector<std::string> devices)
      : ProgressDisplay(std::cout, std::cerr, LookOfStandardOutput(), std::move(devices)),
        iReplaying(replaying),
        iTrace(trace) {}

  void OnState(UpdateState state) override {
    if (state == UpdateState::Installing) {
      OnMilestone("Updating as recorded. Ctrl-C ends the replay.");
    } else if (state == UpdateState::Aborting) {
      OnMilestone("Ending the run.");
    } else {
      ProgressDisplay::OnState(state);
    }
  }

  void OnResult(const RunResult& result, ExitCode /*exitCode*/) override {
    EndProgress(result.outcome == Outcome::Succeeded);
    const trace::Player::Verdict& verdict = *iReplaying.Verdict();
    std::cout << (verdict.endedByPlayer ? "" : AccountOf(result)) << verdict.text << "\n";
    if (verdict.departs) {
      std::cout << fmt::format(
          "The module or the trace is another than it was, or the recorded host had stood still: "
          "'peripheralctl trace show --bytes {}' shows what was recorded up to there.\n",
          iTrace);
    }
    std::cout << std::flush;
  }

 private:
  const Replaying& iReplaying;
  const std::string& iTrace;
};

ExitCode CodeFor(const trace::Player::Verdict& verdict, const trace::Trace& trace) {
  if (verdict.departs || verdict.endedByUser) {
    return verdict.departs ? ExitCode::ReplayDeparts : ExitCode::Aborted;
  }
  return trace.soundness == trace::Soundness::Broken ? ExitCode::TraceBroken : ExitCode::Success;
}

}  // namespace

ExitCode Replay(const std::string& name, const std::string& library, bool fast) {
  const trace::Trace trace = trace::ReadTrace(name);
  if (!trace.fault.empty()) {
    std::cerr << "peripheralctl: " << trace.fault << std::endl;
  }
  if (trace.soundness == trace::Soundness::Foreign) {
    return ExitCode::TraceBroken;
  }
  trace::Player player(trace, !fast);
  if (const std::string fault = player.Open(); !fault.empty()) {
    std::cerr << "peripheralctl: " << fault << std::endl;
    return ExitCode::Internal;
  }
  const Scratch scratch;
  const trace::Dialogue dialogue = trace::Understand(trace);
  const PropertyMap properties = Rebuild(dialogue, scratch, player.PortName());
  if (const Faults faults = CheckProperties(properties).faults; !faults.empty()) {
    std::cerr << "peripheralctl: the trace does not tell what is needed for a run: " << faults.front().text
              << std::endl;
    return ExitCode::TraceBroken;
  }
  std::cout << "Replaying " << name << ": the device's side comes from the trace." << std::endl;
  Replaying replaying(player, scratch);
  ReplayDisplay display(replaying, name, NamesOf(PlanOf(properties)));
  const SourceFiles files(properties);
  const Retries retries = {std::max(AttemptsIn(dialogue) - 1, 0), std::chrono::milliseconds(0)};
  const ExitCode code =
      UpdateRun{Goal::Update, {},      retries,       library, kFeatureId,   properties, files,
                {},           display, display.Log(), nullptr, std::nullopt, &replaying}
          .Execute();
  return replaying.Verdict() ? CodeFor(*replaying.Verdict(), trace) : code;
}

}  // namespace host
