// Goal: whatever a host sends, a simulated device stays within its memories, says only what the protocol
// knows, tells the time in order, and counts an update as one only when it holds what the host sent. Method:
// the first line says what hangs on the line, in words ("can,sanyo refuse=wr:2 once"); the rest is what the
// host sends, in the words of LineScript.h, where an error of the line is the power switched off and on. The
// line runs in virtual time.
#include <algorithm>
#include <charconv>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Frames.h"
#include "LineScript.h"
#include "SimulatedDevices.h"
#include "Target.h"
#include "simulator/Line.h"

namespace fuzz {
namespace {

using simulator::Micros;

constexpr std::size_t kLongestSettings = 120;
constexpr Micros kReadPeriod = 20 * simulator::kMillisecond;
constexpr Micros kAfterwards = 100 * simulator::kSecond;

struct Settings {
  std::string devices = "can";
  simulator::Options device;
  simulator::LineOptions line;
  bool once = false;
};

// A range of 32-bit addresses, such as "8000:1000".
void ParseRange(std::string_view text, std::uint64_t& base, std::uint64_t& size) {
  const std::string_view first = TakeUntil(text, ':');
  std::uint32_t number = 0;
  if (std::from_chars(first.data(), first.data() + first.size(), number, 16).ec == std::errc()) {
    base = number;
  }
  if (std::from_chars(text.data(), text.data() + text.size(), number, 16).ec == std::errc()) {
    size = number;
  }
}

void ParseFault(std::string_view word, simulator::Faults& faults) {
  const std::string_view name = TakeUntil(word, '=');
  const std::string value(word);
  const int number = TakeNumber(word, 1'000'000);
  if (name == "refuse") {
    faults.refusals.emplace_back();
    static_cast<void>(simulator::ParseRefusal(value, faults.refusals.back()));
  } else if (name == "silent") {
    static_cast<void>(simulator::ParseSilence(value, faults.silent_after));
  } else if (name == "slow") {
    faults.slow_ms = number;
  } else if (name == "nak") {
    faults.nak_every = number;
  } else if (name == "damage") {
    faults.damage_every = number;
  } else if (name == "cancel") {
    faults.cancel_after_bytes = static_cast<std::uint64_t>(number);
  } else {
    faults.checksum = faults.checksum || name == "checksum";
    faults.nak_first_eot = faults.nak_first_eot || name == "nakeot";
    faults.corrupt_flash = faults.corrupt_flash || name == "corrupt";
  }
}

Settings Parse(std::string_view words) {
  Settings settings;
  words = words.substr(0, kLongestSettings);
  settings.devices = TakeUntil(words, ' ');
  settings.device.ram_size = 0x800;
  settings.device.flash_size = 0x1000;
  while (!words.empty()) {
    std::string_view word = TakeUntil(words, ' ');
    ParseFault(word, settings.device.faults);
    const std::string_view name = TakeUntil(word, '=');
    if (name == "ram") {
      ParseRange(word, settings.device.ram_base, settings.device.ram_size);
    } else if (name == "flash") {
      ParseRange(word, settings.device.flash_base, settings.device.flash_size);
    } else if (name == "baud") {
      settings.line.baud = TakeNumber(word, 1'000'000);
    } else if (name == "noise") {
      settings.line.noise_rate = TakeNumber(word, 100) / 100.0;
    } else if (name == "unplug") {
      settings.line.unplug_after_bytes = static_cast<std::uint64_t>(TakeNumber(word, 1'000'000));
    } else if (name == "once") {
      settings.once = true;
    }
  }
  return settings;
}

// The data of every sound block among the bytes, in pieces of 128.
std::set<std::string> PiecesOf(const std::string& bytes) {
  std::set<std::string> pieces;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    for (const auto trailer : {simulator::Trailer::kCrc, simulator::Trailer::kChecksum}) {
      const std::optional<Frame> frame = FrameAt(std::string_view(bytes).substr(at), trailer);
      for (std::size_t i = 0; frame && i < frame->data.size(); i += simulator::kShortBlock) {
        pieces.insert(frame->data.substr(i, simulator::kShortBlock));
      }
    }
  }
  return pieces;
}

// The host's side of the line, and all that is promised to it.
class Bench {
 public:
  Bench(Settings settings, const LineScript& script)
      : iSettings(std::move(settings)), iScript(script), iIsClear(IsClear(iSettings)) {
    iSettings.device.on_milestone = [this](const simulator::Milestone& milestone) { Note(milestone); };
    iDevices = simulator::MakeDevices(iSettings.devices, iSettings.device, iSettings.once);
  }

  void Run() {
    if (iDevices == nullptr) {
      return;
    }
    simulator::Line line(*iDevices, iSettings.line, iNow);
    std::string bytes;
    for (const LineStep& step : iScript.steps) {
      if (step.kind == LineStep::kByte) {
        bytes += static_cast<char>(step.byte);
        continue;
      }
      Write(std::exchange(bytes, {}), line);
      Do(step, line);
    }
    Write(bytes, line);
    Wait(kAfterwards, line);
    CheckMemories();
    iIsClear = iIsClear && line.LostToHost() == 0;
    CheckSaid();
    Promise(iDevices->Updates() == iUpdatesTold, "an update is counted that was not told");
    // Each start of the list may update every device once.
    const std::uint64_t starts = 1 + iDevices->Failures() + iPowerCycles;
    Promise(!iSettings.once || iDevices->Updates() <= iDevices->Size() * starts, "more updates than devices");
  }

 private:
  static bool IsClear(const Settings& settings) {
    return settings.line.noise_rate <= 0 && settings.device.faults.damage_every == 0;
  }

  void Do(const LineStep& step, simulator::Line& line) {
    if (step.kind == LineStep::kSilence) {
      return Wait(static_cast<Micros>(step.silence_ms) * simulator::kMillisecond, line);
    }
    if (step.kind == LineStep::kError) {
      // What the device was saying is cut off.
      iIsClear = false;
      ++iPowerCycles;
      return line.PowerCycle(iNow);
    }
  }

  // All at once, as a program that does not listen would.
  void Write(std::string_view bytes, simulator::Line& line) {
    while (!bytes.empty() && !line.Unplugged()) {
      const std::size_t space = line.HostWriteSpace();
      const int written =
          line.HostWrite(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), iNow);
      Promise(written <= static_cast<int>(bytes.size()), "the line took more than it was given");
      Promise(written != 0 || space == 0, "the line refuses what it has space for");
      bytes.remove_prefix(static_cast<std::size_t>(std::max(written, 0)));
      Read(line);
      if (line.HostWriteEnd() != simulator::kNever) {
        Wait(line.HostWriteEnd() - iNow, line);
      }
    }
  }

  // A bit longer than to the next event each time, so that what arrives is read before there is too much of
  // it.
  void Wait(Micros span, simulator::Line& line) {
    const Micros end = iNow + span;
    while (iNow < end) {
      const Micros next = line.NextEvent(iNow);
      Promise(next >= iNow, "an event lies in the past");
      iNow = next > end ? end : std::min(end, next + kReadPeriod);
      line.Advance(iNow);
      Read(line);
    }
  }

  void Read(simulator::Line& line) {
    std::uint8_t buffer[512];
    int count = 0;
    do {
      count = line.HostRead(buffer, sizeof buffer, iNow);
      Promise(count >= -1 && count <= static_cast<int>(sizeof buffer), "more was read than asked for");
      iSaid.append(buffer, buffer + std::max(count, 0));
    } while (count > 0);
  }

  void Note(const simulator::Milestone& milestone) {
    Promise(milestone.device == "can" || milestone.device == "sanyo", "a milestone of no device");
    Promise(milestone.time_us >= iLastMilestone, "milestones run backwards");
    Promise(std::all_of(milestone.text.begin(), milestone.text.end(),
                        [](char character) { return character >= ' ' && character <= '~'; }),
            "a milestone cannot be printed");
    iLastMilestone = milestone.time_us;
    iUpdatesTold += milestone.text == "updated" ? 1 : 0;
    if (milestone.text == "updated") {
      CheckImage(milestone.device);
    }
  }

  // The device's flash must start with what the host sent in a sound block.
  void CheckImage(const std::string& device) {
    if (iSettings.line.noise_rate > 0 || (iSettings.device.faults.corrupt_flash && device == "sanyo")) {
      return;
    }
    if (iPieces.empty()) {
      iPieces = PiecesOf(BytesOf(iScript));
    }
    const std::vector<std::uint8_t> flash = iDevices->At(iDevices->Current()).Flash().Contents();
    bool isSent = false;
    for (std::size_t at = 0; !isSent && at + simulator::kShortBlock <= flash.size(); ++at) {
      const auto begin = flash.begin() + static_cast<std::ptrdiff_t>(at);
      isSent = iPieces.count({begin, begin + simulator::kShortBlock}) != 0;
    }
    Promise(isSent, "updated, but the flash holds nothing of what was sent");
  }

  void CheckMemories() const {
    for (std::size_t i = 0; i < iDevices->Size(); ++i) {
      Promise(iDevices->At(i).Ram().Contents().size() <= iSettings.device.ram_size,
              "RAM holds more than fits");
      Promise(iDevices->At(i).Flash().Contents().size() <= iSettings.device.flash_size,
              "flash holds more than fits");
    }
  }

  // On a clear line a host sees sound blocks and single bytes.
  void CheckSaid() const {
    if (iIsClear) {
      static_cast<void>(WrittenItems(iSaid, std::nullopt));
    }
  }

  Settings iSettings;
  const LineScript& iScript;
  bool iIsClear;
  std::unique_ptr<simulator::DeviceList> iDevices;
  Micros iNow = 0;
  std::string iSaid;
  Micros iLastMilestone = 0;
  std::uint64_t iUpdatesTold = 0;
  std::uint64_t iPowerCycles = 0;
  std::set<std::string> iPieces;
};

}  // namespace

void Run(std::string_view input) {
  const Settings settings = Parse(TakeUntil(input, '\n'));
  const LineScript script = ParseLineScript(input);
  Bench(settings, script).Run();
}

}  // namespace fuzz
