#include "LogFollower.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Peripherals.h"

namespace host {

namespace {

constexpr std::string_view kStarting = "SWL: Starting upload";
constexpr std::string_view kFinishedDevice = "SWL: Finished uploading using ";
constexpr std::string_view kVersion = "Received version ";
constexpr std::string_view kSendingCommand = "Sending command ";
constexpr std::string_view kAndFile = " and file ";
constexpr std::string_view kSendingFile = "Sending file ";
constexpr std::string_view kAnswer = "Received answer ";
constexpr std::string_view kLeft = "Left ";
constexpr std::string_view kOf = " of ";
constexpr std::string_view kSuccess = "000";
constexpr std::string_view kGivenUp = "Timeout in polling";
constexpr std::string_view kFile = "The file ";
constexpr std::string_view kNotOpened = " could not be opened";

// What a line of a failing update says about its cause.
struct Symptom {
  std::string_view text;  ///< the line begins with it
  ErrorCode code;
  const char* what;         ///< for people; the line itself when it is null
  std::string_view also{};  ///< the line holds it, too
};

constexpr Symptom kSymptoms[] = {
    {"Received serial port error", ErrorCode::PortLost, "the port failed"},
    {"Failed writing[", ErrorCode::PortLost, "the port takes no more bytes"},
    {"Serial port ", ErrorCode::PortUnusable, nullptr, " cannot do "},
    {"Serial port ", ErrorCode::PortLost, nullptr},
    {"Cannot use serial port ", ErrorCode::PortUnusable, nullptr},
    {"Error creating serialport", ErrorCode::PortUnusable, "the port could not be set up"},
    {"Too many NAKs", ErrorCode::TooManyNaks, "the device rejected what it was sent too often"},
    {"The transfer has been canceled", ErrorCode::TransferCancelled, "the device cancelled the transfer"},
    {"Transmission canceled", ErrorCode::TransferCancelled, "the device cancelled the transfer"},
    {"Transfer cancelled", ErrorCode::TransferCancelled, "the device cancelled the transfer"},
    {"[Timeout]", ErrorCode::DeviceSilent, "the device did not answer in time"},
    {kGivenUp, ErrorCode::Stalled, "nothing moved any more"},
    {"Unexpected reply", ErrorCode::LineGarbled, "the device sent an unexpected byte"},
    {"Wrong reply", ErrorCode::LineGarbled, "the device sent an unexpected byte"},
    {"Invalid Checksum", ErrorCode::LineGarbled, "a block of the device came damaged"},
    {"The checksum of", ErrorCode::LineGarbled, "a block of the device came damaged"},
    {"The packet received", ErrorCode::LineGarbled, "the device's blocks came in the wrong order"},
    {"The first packet", ErrorCode::LineGarbled, "the device's first block came with a wrong number"},
    {"No valid packet", ErrorCode::LineGarbled, "the device sent no block but something else"},
    {"EOT arrived", ErrorCode::LineGarbled, "the device's text came to its end before it began"},
    {kFile, ErrorCode::FileUnusable, nullptr},
};

// What the engine says of the port it also says when it is told to stop, as when the next attempt takes its
// place: any other symptom says more. The platform's lines speak for themselves.
bool IsVague(const Symptom& symptom) {
  return symptom.code == ErrorCode::PortLost && symptom.what != nullptr;
}

bool StartsWith(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

std::string FileName(std::string_view path) {
  return std::filesystem::path(path).filename().string();
}

std::int64_t FileSize(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<std::int64_t>(size);
}

std::int64_t Number(std::string_view text) {
  std::int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// A wait that ends because the port is gone looks like silence; a file is also said to be unusable when only
// its receiver does not start; and why a port cannot be used is told first.
bool Outweighs(ErrorCode before, ErrorCode now) {
  return now == ErrorCode::FileUnusable || before == ErrorCode::PortUnusable ||
         (before == ErrorCode::PortLost && now != ErrorCode::PortLost);
}

}  // namespace

std::vector<PlannedDevice> PlanOf(const PropertyMap& properties) {
  std::vector<PlannedDevice> plan;
  const auto found = properties.find(kUpdateListKey);
  const std::string list = found == properties.end() ? "" : found->second;
  for (const std::string_view entry : UpdateListEntries(list)) {
    const PeripheralKind* kind = FindPeripheralKind(entry);
    if (kind == nullptr) {
      continue;
    }
    PlannedDevice device = {kind->device, 0};
    for (const std::string& key : FileKeysOf(entry)) {
      const auto path = properties.find(key);
      device.size_bytes += path == properties.end() ? 0 : FileSize(path->second);
    }
    plan.push_back(device);
  }
  return plan;
}

std::vector<std::string> NamesOf(const std::vector<PlannedDevice>& plan) {
  std::vector<std::string> names;
  names.reserve(plan.size());
  for (const PlannedDevice& device : plan) {
    names.push_back(device.name);
  }
  return names;
}

// The engine says the same when a receiver does not start, of which another line has told before.
std::string ReasonFor(const std::string& line, const std::optional<Cause>& cause) {
  const bool isNoFile = StartsWith(line, kFile) && line.find(kNotOpened) != std::string::npos && cause &&
                        cause->code != ErrorCode::FileUnusable;
  return isNoFile ? line + " (not so: its transfer was not begun, since the device never asked for it)"
                  : line;
}

bool BeginsAnAttempt(std::string_view text) {
  return StartsWith(text, kStarting);
}

LogFollower::LogFollower(std::vector<PlannedDevice> plan, StepHandler onStep, SentBytesHandler onSentBytes,
                         Hear hear)
    : iPlan(std::move(plan)),
      iOnStep(std::move(onStep)),
      iOnSentBytes(std::move(onSentBytes)),
      iHear(std::move(hear)),
      iCauses(1) {
  for (std::size_t device = 0; device < iPlan.size(); ++device) {
    iTotal += SizeOf(device);
  }
}

void LogFollower::Take(const logging::TLine& line) {
  const std::lock_guard<std::mutex> lock(iMutex);
  const std::string_view text = line.message;
  const auto rest = [&text](std::string_view head) { return logging::Printable(text.substr(head.size())); };
  if (StartsWith(text, kLeft)) {
    TakeFileProgress(text);
  } else if (BeginsAnAttempt(text)) {
    StartOver();
  } else if (StartsWith(text, kFinishedDevice)) {
    NextDevice();
  } else if (StartsWith(text, kVersion)) {
    iVersion = rest(kVersion);
    Step(fmt::format("version {}", iVersion), "");
  } else if (StartsWith(text, kSendingCommand)) {
    const std::string command = rest(kSendingCommand);
    NoteCommand();
    const std::size_t file = std::min(command.find(kAndFile), command.size());
    Step(command.substr(0, file), file < command.size() ? command.substr(file + kAndFile.size()) : "");
  } else if (StartsWith(text, kSendingFile)) {
    iMayBeIncomplete.insert(iDevice);
    Step("image", rest(kSendingFile));
  } else if (StartsWith(text, kAnswer)) {
    TakeAnswer(rest(kAnswer));
  } else if (line.level >= logging::EWarning) {
    BlameFor(line);
  }
}

std::optional<Cause> LogFollower::WhyFailed() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iCauses.back();
}

std::optional<Cause> LogFollower::WhyFailed(std::size_t attempt) {
  const std::lock_guard<std::mutex> lock(iMutex);
  return attempt < iCauses.size() ? iCauses[attempt] : std::nullopt;
}

std::optional<std::string> LogFollower::Place() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iCauses.size() > 1 ? std::make_optional(PresentPlace()) : std::nullopt;
}

bool LogFollower::OnlyMemoryWritten() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iCommands == 1 && iMayBeIncomplete.empty();
}

std::string LogFollower::PresentPlace() const {
  const std::string device = iDevice < iPlan.size() ? iPlan[iDevice].name : "device";
  return fmt::format("{}, {}", device, iStep.empty() ? "before the first step" : iStep);
}

void LogFollower::StartOver() {
  iCauses.emplace_back();
  iStep.clear();
  iIsGivenUp = iIsVague = false;
  iDevice = 0;
  iCommands = 0;
  iBefore = iFilesBefore = iFileSize = iFileSent = 0;
}

void LogFollower::NextDevice() {
  iBefore += SizeOf(iDevice);
  iMayBeIncomplete.erase(iDevice);
  ++iDevice;
  iCommands = 0;
  iStep.clear();
  iFilesBefore = iFileSize = iFileSent = 0;
}

void LogFollower::Step(const std::string& text, const std::string& file) {
  EndFile();
  if (!iIsGivenUp) {
    iCauses.back().reset();
  }
  iStep = file.empty() ? text : fmt::format("{}, {}", text, FileName(file));
  iOnStep({iDevice, iStep});
}

// The first command brings the loader program into memory; from then on the device may change what it holds.
void LogFollower::NoteCommand() {
  ++iCommands;
  if (iCommands > 1) {
    iMayBeIncomplete.insert(iDevice);
  }
}

void LogFollower::EndFile() {
  iFilesBefore += iFileSize;
  iFileSize = iFileSent = 0;
}

// "Left 3 of 4"
void LogFollower::TakeFileProgress(std::string_view text) {
  const std::size_t of = text.find(kOf);
  if (of == std::string_view::npos) {
    return;
  }
  iFileSize = Number(text.substr(of + kOf.size()));
  iFileSent = iFileSize - Number(text.substr(kLeft.size()));
  TellSentBytes();
}

void LogFollower::TakeAnswer(const std::string& answer) {
  if (answer == kSuccess) {
    return;
  }
  if (answer == iVersion) {
    Blame(ErrorCode::DeviceRestarted, fmt::format("the device told its version, \"{}\", once more", answer));
  } else {
    Blame(ErrorCode::CommandRefused, fmt::format("the device answered \"{}\"", answer));
  }
}

void LogFollower::BlameFor(const logging::TLine& line) {
  const auto* const symptom =
      std::find_if(std::begin(kSymptoms), std::end(kSymptoms), [&text = line.message](const Symptom& known) {
        return StartsWith(text, known.text) && text.find(known.also) != std::string_view::npos;
      });
  if (symptom == std::end(kSymptoms)) {
    return;
  }
  if (IsVague(*symptom) && iCauses.back() && !iIsVague) {
    return;
  }
  const std::string what = symptom->what != nullptr ? symptom->what : logging::Printable(line.message);
  if (symptom->code == ErrorCode::DeviceSilent || symptom->code == ErrorCode::Stalled) {
    BlameSilence(symptom->code, what);
  } else {
    Blame(symptom->code, what);
  }
  iIsVague = IsVague(*symptom);
  iIsGivenUp = iIsGivenUp || StartsWith(line.message, kGivenUp);
}

// The module gives up sooner than its waits for the device end, and says the same of a device that is dead
// and of one that is slow: the line knows better.
void LogFollower::BlameSilence(ErrorCode code, const std::string& otherwise) {
  const Hearing hearing = iHear ? iHear() : Hearing{};
  if (hearing.kind == Hearing::Kind::Nothing) {
    Blame(ErrorCode::DeviceSilent, "nothing was heard of the device at all");
  } else if (hearing.kind == Hearing::Kind::FellSilent) {
    Blame(ErrorCode::DeviceSilent,
          fmt::format("the device fell silent and has said nothing for {} s", hearing.silence.count()));
  } else {
    Blame(code, otherwise);
  }
}

void LogFollower::Blame(ErrorCode code, const std::string& what) {
  std::optional<Cause>& cause = iCauses.back();
  if (iIsGivenUp || (cause && !iIsVague && Outweighs(cause->code, code))) {
    return;
  }
  cause = Cause{code, fmt::format("{}: {}", PresentPlace(), what)};
}

void LogFollower::TellSentBytes() {
  const std::int64_t size = SizeOf(iDevice);
  const std::int64_t sent = std::clamp<std::int64_t>(iFilesBefore + iFileSent, 0, size);
  iOnSentBytes({iDevice, sent, size, iBefore + sent, iTotal});
}

std::int64_t LogFollower::SizeOf(std::size_t device) const {
  return device < iPlan.size() ? iPlan[device].size_bytes : 0;
}

}  // namespace host
