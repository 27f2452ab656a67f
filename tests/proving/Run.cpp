#include "Run.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "Frames.h"
#include "LogTexts.h"
#include "SimulatedDevices.h"
#include "simulator/Xmodem.h"

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&);

namespace proving {

namespace {

constexpr char kFeatureId[] = "can-controller";
constexpr std::string_view kFileSize = "File size : ";
constexpr char kFlashAddress[] = "8000";
constexpr std::uint32_t kTold[] = {EPrepareResult, EInstallResult, EInstallProgress, EAbortResult};
constexpr std::uint32_t kDeleteModule = 900;

// The stall watchdog ends an upload of which no step is done for 80 ticks of half a second; no upload has
// more than 150 steps, and a tick may come late by one.
constexpr std::int64_t kLongestUpload_ms = (150 + 1) * (80 + 1) * 500;
// What a thread may still need that has lost its supervision: ten waits for a start, or a block that is sent
// eleven times and answered in the last of ten waits each time.
constexpr std::int64_t kLongestFarewell_ms = 10 * 20'000 + std::int64_t{11} * 10 * 5'000;
// And when every byte of ten packets comes after the longest wait for it.
constexpr std::int64_t kLongestTrickle_ms = std::int64_t{10} * 1'029 * 5'000;
// Longer than a device waits for a host that has gone away in mid-transfer, and than any byte is delayed.
constexpr std::int64_t kPause_ms = 70'000;
// Images of more than this are not sent a second time whole.
constexpr std::uint32_t kLargestImageAfterwards = 1'025;
constexpr std::uint32_t kSmallImage = 200;

std::string UpdateList(const std::vector<std::string>& devices) {
  std::string list;
  for (const std::string& device : devices) {
    list += (list.empty() ? "" : ";") + std::string(device == "can" ? "xmodem" : "sanyoxmodem");
  }
  return list;
}

std::string SimulatorList(const std::vector<std::string>& devices) {
  std::string list;
  for (const std::string& device : devices) {
    list += (list.empty() ? "" : ",") + device;
  }
  return list;
}

std::uint32_t Flag(const TEvent& event) {
  TBool flag = EFalse;
  std::memcpy(&flag, static_cast<const char*>(event.data) + KFeatureIdFieldSize, sizeof flag);
  return static_cast<std::uint32_t>(flag);
}

// Whether the host turned to something else before the frame's end.
bool CutWithin(const Frame& frame, const std::vector<std::size_t>& bursts) {
  const auto next = std::upper_bound(bursts.begin(), bursts.end(), frame.begin);
  return next != bursts.end() && *next < frame.begin + frame.length;
}

std::uint64_t Hash(std::string_view text) {
  return std::hash<std::string_view>{}(text);
}

// Few lines are new: what was found to be known once needs no search again.
bool IsKnown(logging::TLevel level, std::string_view message, std::uint64_t hash) {
  constexpr std::size_t kSlots = 4096;
  static std::vector<std::uint64_t> known(kSlots);
  const std::uint64_t key = hash * 31 + level + 1;
  std::uint64_t& slot = known[key % kSlots];
  if (slot == key) {
    return true;
  }
  if (!IsKnownLine(level, message)) {
    return false;
  }
  slot = key;
  return true;
}

}  // namespace

Run::Run(const Scenario& scenario, SourceFolder& sources, Recorder* recorder)
    : iScenario(scenario), iSources(sources), iRecorder(recorder), iPreviousSink(logging::SetSink(this)) {
  iInstallsTwice = std::any_of(scenario.faults.begin(), scenario.faults.end(),
                               [](const Fault& fault) { return fault.kind == FaultKind::kInstall; });
  logging::SetLowestLevel(logging::EInterface);
  iWorld.SetWitness(this);
  iWorld.RefuseThreads(resources::ThreadShallFail);
  iProperties.Set("updatelist", UpdateList(scenario.devices));
  iProperties.Set("xmodemsource-loader", sources.LoaderPath());
  iProperties.Set("xmodemspeed", "115200");
  iProperties.Set("xmodemportname", sources.PortPath());
  iProperties.Set("xmodemramaddress", "1000");
  iProperties.Set("xmodemflashaddress", kFlashAddress);
  SwitchOnDevices(scenario.options);
  LineWitness& witness = *this;
  iLine = std::make_unique<FaultyLine>(*iDevices.back(), scenario.faults, witness);
  iWorld.Plug(sources.PortPath(), *iLine);
  for (const std::uint32_t id : kTold) {
    iWorld.Subscribe({EUserEvent, id, 0, nullptr}, *this);
  }
  iWorld.Subscribe({EUserEvent, kDeleteModule, 0, nullptr}, *this);
  iOwnSubscriptions = iWorld.Subscriptions();
}

Run::~Run() {
  iModule.reset();
  resources::Reset();
  logging::SetSink(iPreviousSink);
}

Observation Run::Observe() {
  resources::FailNth(iScenario.failingCall, iScenario.failingCallNumber);
  CreateModule();
  iProperties.Set("xmodemsource-image", iSources.ImagePath(iScenario.imageSize));
  iExpected = iSources.Padded(iScenario.imageSize);
  if (Prepare()) {
    Install();
  }
  iTransfers.End(iLine->ForgedAcks(), iWorld.Now_us());
  iTransfers.MoveTo(iSeen);
  iSettled = true;
  JudgeBlocks();
  iSeen.faultsHappened = iLine->Happened() + (resources::HasFailed() ? 1 : 0);
  iSeen.workersEnded = iWorld.BusyWorkers() == 0;
  resources::FailNth(iScenario.failingCall, 0);
  Recover();
  DeleteModule();
  Mix(static_cast<std::uint64_t>(iWorld.Now_us()));
  return std::move(iSeen);
}

// ---- The controller ----

void Run::Request(std::uint32_t id) {
  iWorld.Post({EUserEvent, id, static_cast<TUint32>(std::strlen(kFeatureId)), kFeatureId});
}

bool Run::Prepare() {
  iPreparation.reset();
  Request(EPrepareRequest);
  iWorld.RunUntil([this] { return iPreparation.has_value(); }, kPause_ms);
  return iPreparation.value_or(false);
}

void Run::Install() {
  ++iSeen.installs;
  iLastPercent = 0;
  iLastSign_us = iWorld.Now_us();
  Request(EInstallRequest);
  const auto isDone = [this] { return iModule == nullptr || iSeen.results >= iSeen.installs; };
  const auto loaders = static_cast<std::int64_t>(iScenario.devices.size());
  iSeen.endedInTime = iWorld.RunUntil(isDone, loaders * kLongestUpload_ms);
  // Whoever ends late must not be heard any more. A device that goes on talking keeps a thread in its packet.
  iLastRead_us = iWorld.Now_us();
  const auto isQuiet = [this] {
    return iWorld.BusyWorkers() == 0 || iWorld.Now_us() - iLastRead_us > kLongestFarewell_ms * 1000;
  };
  iWorld.RunUntil(isQuiet, kLongestTrickle_ms);
  iWorld.RunFor(kPause_ms);
}

void Run::Recover() {
  iRecovering = true;
  iLine->Heal();
  if (iScenario.healthyDevicesAfterwards) {
    simulator::Options healthy = iScenario.options;
    healthy.faults = simulator::Faults{};
    healthy.faults.checksum = iScenario.options.faults.checksum;
    SwitchOnDevices(healthy);
    iLine->Replace(*iDevices.back());
  }
  if (iModule == nullptr) {
    CreateModule();
  }
  const std::uint32_t size =
      iScenario.imageSize <= kLargestImageAfterwards ? iScenario.imageSize : kSmallImage;
  iProperties.Set("xmodemsource-image", iSources.ImagePath(size));
  iExpected = iSources.Padded(size);
  Tell("---- the update afterwards ----");
  if (!Prepare()) {
    return;
  }
  iChecksPassed = 0;
  Request(EInstallRequest);
  iWorld.RunUntil([this] { return iRecoveryResults > 0; }, kLongestUpload_ms);
  iSeen.recovered = iRecoverySuccesses == 1 && DevicesHoldImage();
  // An empty image leaves a CAN device nothing to check: it says so, and the update is told as failed.
  const bool hasCan = std::count(iScenario.devices.begin(), iScenario.devices.end(), "can") != 0;
  if (size == 0 && hasCan) {
    iSeen.recovered = iRecoveryResults == 1 && iRecoverySuccesses == 0;
  }
}

void Run::OnEvent(const TEvent& event) {
  Mix(event.id);
  CheckPayload(event);
  switch (event.id) {
    case kDeleteModule:
      iSeen.deleted = true;
      return DeleteModule();
    case EPrepareResult:
      iPreparation = Flag(event) == ETrue;
      return Tell("202 " + std::to_string(*iPreparation));
    case EInstallResult:
      return OnResult(Flag(event) == ETrue);
    case EInstallProgress:
      return OnProgress(static_cast<const std::uint8_t*>(event.data)[KFeatureIdFieldSize]);
    default:
      ++iSeen.abortResults;
      return Tell("207 " + std::to_string(Flag(event)));
  }
}

void Run::OnResult(bool success) {
  Mix(success ? 1 : 0);
  Tell("204 " + std::to_string(success));
  if (iRecovering) {
    ++iRecoveryResults;
    iRecoverySuccesses += success ? 1U : 0U;
    return;
  }
  NoteSign();
  ++iSeen.results;
  iSeen.bytesOut = iLine->Count(Direction::kOut);
  iSeen.bytesIn = iLine->Count(Direction::kIn);
  if (success) {
    ++iSeen.successes;
    JudgeSuccess();
  }
}

// What every event of the module carries: its id, zeros up to 64 bytes, and a flag or a percentage.
void Run::CheckPayload(const TEvent& event) {
  if (event.id == kDeleteModule) {
    return;
  }
  const bool isProgress = event.id == EInstallProgress;
  char field[KFeatureIdFieldSize] = {};
  std::memcpy(field, kFeatureId, sizeof kFeatureId);
  const bool isRight = event.length == KFeatureIdFieldSize + (isProgress ? 1 : sizeof(TBool)) &&
                       std::memcmp(event.data, field, sizeof field) == 0 &&
                       (isProgress || Flag(event) <= 1) && (event.id != EAbortResult || Flag(event) == 1);
  // A success is told over a full bar; 101 is what a Sanyo device's steps come to.
  const bool isFull = iLastPercent == 100 || iLastPercent == 101;
  const bool isBare =
      event.id == EInstallResult && Flag(event) == 1 && !iRecovering && iSeen.installs == 1 && !isFull;
  iSeen.wrongPayloads += isRight && !isBare ? 0U : 1U;
}

// Something was told that shows that the installation lives, or that it has ended.
void Run::NoteSign() {
  if (!iRecovering && iSeen.results < iSeen.installs) {
    iSeen.longestSilence_us = std::max(iSeen.longestSilence_us, iWorld.Now_us() - iLastSign_us);
    iLastSign_us = iWorld.Now_us();
  }
}

void Run::OnProgress(int percent) {
  Mix(static_cast<std::uint64_t>(percent));
  if (iRecorder != nullptr) {
    Tell("205 " + std::to_string(percent) + " %");
  }
  // Of two sessions at once each tells its own.
  if (!iRecovering && iSeen.installs == 1) {
    iSeen.progressFell += percent < iLastPercent ? 1U : 0U;
    iLastPercent = percent;
  }
}

// ---- What a success is worth ----

void Run::JudgeSuccess() {
  const simulator::DeviceList& devices = *iDevices.back();
  std::uint32_t checks_due = 0;
  iSeen.resets = iLine->Resets();
  // While a second installation runs, the first may have ended well before the flash was erased again.
  const bool heldBefore = iSeen.installs > 1 && iHeldWhenUpdated;
  for (std::size_t index = 0; index < devices.Size(); ++index) {
    checks_due += devices.At(index).Name() == "can" ? iSeen.successes : 0;
    std::vector<std::uint8_t> flash = devices.At(index).Flash().Contents();
    if (flash != iExpected) {
      iSeen.wrongHoldings.push_back({devices.At(index).Name(), index, std::move(flash), iExpected,
                                     iScenario.options.faults.corrupt_flash, heldBefore});
    }
  }
  iSeen.checkMissing = iSeen.checkMissing || iChecksPassed < checks_due;
}

// The blocks that the host wrote, each of which must be one that it had to write; and whether the one thing
// that went wrong, if any, was a byte within one of them.
void Run::JudgeBlocks() {
  iSeen.bytesBehindCancel = iLine->BytesBehindCancel();
  const bool couldCancel = !iSeen.deleted && !iLine->HasFailedToWrite() && iSeen.installs == 1;
  if (couldCancel) {
    iSeen.cancelsMissing =
        iLine->CansMissing() + (iVerdicts > iLine->Cancels() ? iVerdicts - iLine->Cancels() : 0);
  }
  const bool isStorm = iScenario.healthyDevicesAfterwards;
  const bool isRefused = iScenario.imageSize == 0 && iScenario.devices[0] == "can";
  iSeen.successDue = !isStorm && !isRefused && iScenario.faults.empty() && iScenario.failingCallNumber == 0;
  for (const Frame& frame : FindFrames(iSeen.written)) {
    // What a cut block and the one behind it look like together is no block.
    if (!std::binary_search(iSeen.bursts.begin(), iSeen.bursts.end(), frame.begin) ||
        CutWithin(frame, iSeen.bursts)) {
      continue;
    }
    iSeen.foreignFrames += iSources.IsDue(frame, iScenario.imageSize) ? 0U : 1U;
    if (!isStorm && !isRefused && iScenario.faults.size() == 1) {
      const Fault& fault = iScenario.faults[0];
      const bool isWithin = fault.index >= frame.begin + 3 && fault.index < frame.begin + frame.length;
      iSeen.successDue = iSeen.successDue ||
                         (isWithin && fault.direction == Direction::kOut && fault.kind <= FaultKind::kInsert);
    }
  }
}

bool Run::DevicesHoldImage() const {
  const simulator::DeviceList& devices = *iDevices.back();
  for (std::size_t index = 0; index < devices.Size(); ++index) {
    if (devices.At(index).Flash().Contents() != iExpected) {
      return false;
    }
  }
  return true;
}

// ---- Witnesses ----

void Run::Subscribe(const TEvent& /*filter*/, IEventObserver& /*observer*/) {
  iSeen.callsOffEventThread += VirtualWorld::OnEventThread() ? 0U : 1U;
}

void Run::Unsubscribe(const TEvent& /*filter*/, IEventObserver& /*observer*/) {
  iSeen.callsOffEventThread += VirtualWorld::OnEventThread() ? 0U : 1U;
}

void Run::Post(const TEvent& event) {
  const bool isOwn = event.id == kDeleteModule || event.id == EPrepareRequest ||
                     event.id == EInstallRequest || event.id == EAbortRequest;
  iSeen.callsOffEventThread += VirtualWorld::OnEventThread() || isOwn ? 0U : 1U;
  iSeen.saidAfterDeletion += iModuleExists || isOwn ? 0U : 1U;
}

void Run::Write(const logging::TLine& line) {
  const std::uint64_t hash = Hash(line.message);
  Mix(hash + line.level);
  iSeen.saidAfterDeletion += iModuleExists ? 0U : 1U;
  if (!IsKnown(line.level, line.message, hash)) {
    iSeen.unknownLines.emplace_back(line.message);
  }
  NoteVerdict(line.message);
  if (iRecorder != nullptr && !line.message.empty()) {
    Tell(std::string(logging::Name(line.level)) + " (" + logging::Printable(line.message) + ")");
  }
}

// What the log says of the run's course, beside what the line shows.
void Run::NoteVerdict(std::string_view message) {
  const auto begins = [&](std::string_view text) { return message.substr(0, text.size()) == text; };
  if (begins("RemainingSize: ")) {
    NoteSign();
  } else if (begins(kFileSize)) {
    iStartByteRead = false;
    const bool isImage = message.substr(kFileSize.size()) == std::to_string(iScenario.imageSize);
    iTransfers.Begin(isImage, iLine->ForgedAcks(), iWorld.Now_us());
  } else if (begins("The file ") && !iStartByteRead && iScenario.failingCallNumber == 0) {
    // A transfer without a start keeps its file and its buffer; and it cancels nothing.
    ++iSeen.filesKept;
    iVerdicts -= iVerdicts > 0 && !iRecovering ? 1U : 0U;
  }
  constexpr std::string_view kGivenUp[] = {"[Timeout] while",   "Unexpected reply",
                                           "Too many NAKs",     "Wrong reply",
                                           "[Timeout] arrived", "EOT arrived",
                                           "No valid packet",   "The first packet",
                                           "The checksum of",   "The packet received has"};
  if (!iRecovering) {
    iVerdicts += std::any_of(std::begin(kGivenUp), std::end(kGivenUp), begins) ? 1U : 0U;
  }
}

void Run::OnHostByte(Direction direction, std::uint8_t byte, std::int64_t now_us) {
  Mix((static_cast<std::uint64_t>(now_us) << 9) | (static_cast<std::uint64_t>(direction) << 8) | byte);
  iStartByteRead =
      iStartByteRead || (direction == Direction::kIn && (byte == 'C' || byte == simulator::kNak));
  if (direction == Direction::kOut && !iSettled) {
    if (iBurstBegins || now_us != iLastWrite_us) {
      iSeen.bursts.push_back(iSeen.written.size());
      if (byte == simulator::kEot) {
        iTransfers.OnEndWritten();
      }
    }
    iLastWrite_us = now_us;
    iSeen.written.push_back(byte);
  }
  iBurstBegins = direction == Direction::kIn;
  iLastRead_us = iBurstBegins ? now_us : iLastRead_us;
  if (iRecorder != nullptr) {
    iRecorder->OnByte(now_us, direction, byte);
  }
}

void Run::OnDelivered(std::uint8_t byte, std::int64_t now_us) {
  if (!iSettled) {
    iTransfers.OnDelivered(byte, iDevices.back()->Current(), now_us);
  }
}

void Run::OnRequest(FaultKind kind) {
  switch (kind) {
    case FaultKind::kAbort:
      ++iSeen.aborts;
      return Request(EAbortRequest);
    case FaultKind::kInstall:
      if (iSeen.results == iSeen.installs++) {
        iLastSign_us = iWorld.Now_us();
      }
      return Request(EInstallRequest);
    default:
      return iWorld.Post({EUserEvent, kDeleteModule, 0, nullptr});
  }
}

// ---- The world's parts ----

void Run::CreateModule() {
  iModuleExists = true;
  iModule.reset(FeatureCreate2(kFeatureId, iInterfaceBroker, iWorld, iProperties));
}

void Run::DeleteModule() {
  if (iModule == nullptr) {
    return;
  }
  iModule.reset();
  iModuleExists = false;
  iSeen.threadsLeft += iWorld.Workers();
  iSeen.subscriptionsLeft += iWorld.Subscriptions() - iOwnSubscriptions;
  iSeen.filesLeft = std::max(iSeen.filesLeft, resources::Files());
  iSeen.blocksLeft = std::max(iSeen.blocksLeft, resources::Blocks());
}

void Run::SwitchOnDevices(const simulator::Options& options) {
  simulator::Options own = options;
  own.on_milestone = [this](const simulator::Milestone& milestone) {
    if (milestone.text.rfind("ck ", 0) == 0 && milestone.text.find(": ok") != std::string::npos) {
      ++iChecksPassed;
    }
    if (milestone.text == "updated" && iInstallsTwice) {
      iHeldWhenUpdated = iHeldWhenUpdated || DevicesHoldImage();
    }
    if (iRecorder != nullptr) {
      Tell(milestone.device + ": " + milestone.text);
    }
  };
  iDevices.push_back(simulator::MakeDevices(SimulatorList(iScenario.devices), own));
}

void Run::Mix(std::uint64_t value) {
  iSeen.trace = (iSeen.trace ^ value) * 0x9E3779B97F4A7C15u;
  iSeen.trace ^= iSeen.trace >> 29;
}

void Run::Tell(const std::string& text) {
  if (iRecorder != nullptr) {
    iRecorder->OnLine(iWorld.Now_us(), text);
  }
}

}  // namespace proving
