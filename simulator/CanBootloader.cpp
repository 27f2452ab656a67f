#include "simulator/CanBootloader.h"

#include <algorithm>
#include <charconv>

namespace simulator {

namespace {

constexpr char kAccepted[] = "000";
constexpr char kRefused[] = "001";
constexpr std::size_t kVerbSize = 2;
constexpr std::size_t kMaxCommand = 128;
constexpr int kMaxSolicitations = 10;

/// Reads a hexadecimal number of up to 32 bits, with or without "0x".
bool ParseAddress(std::string text, std::uint64_t& address) {
  if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X") {
    text.erase(0, 2);
  }
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, 16);
  address = value;
  return result.ec == std::errc() && result.ptr == end;
}

/// A command as it may stand in a log: whatever a noisy line made of it.
std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char character) { return character < ' ' || character > '~'; }, '?');
  return text;
}

}  // namespace

CanBootloader::CanBootloader(const Options& options)
    : Bootloader("can", options), iOccurrences(options.faults.refusals.size(), 0) {}

void CanBootloader::Begin(Micros now) {
  iStage = Stage::kVersion;
  SendVersion(now);
}

void CanBootloader::OnReceived(TransferResult result, Micros now) {
  if (result != TransferResult::kComplete && result != TransferResult::kEmpty) {
    return Fail(Describe(result), now);
  }
  if (iStage == Stage::kCommand) {
    return Obey(now);
  }
  EndWrite(now);
}

void CanBootloader::OnSent(TransferResult result, Micros now) {
  if (result != TransferResult::kComplete) {
    return HasBeenTouched() ? Fail(Describe(result), now) : Leave();
  }
  if (iStage == Stage::kAnswer) {
    return OnAnswered(now);
  }
  Tell("version sent", now);
  if (!DiesAt(SilentStage::kVersion, now)) {
    ListenFor(Stage::kCommand, now);
  }
}

bool CanBootloader::TakeBlock(const std::vector<std::uint8_t>& data, bool first) {
  if (iStage == Stage::kCommand) {
    TakeCommandBlock(data, first);
  } else {
    TakeFileBlock(data, first);
  }
  return true;
}

void CanBootloader::ListenFor(Stage stage, Micros now) {
  iStage = stage;
  if (stage == Stage::kCommand) {
    iCommand.clear();
  }
  Listen(kMaxSolicitations, now);
}

void CanBootloader::TakeFileBlock(const std::vector<std::uint8_t>& data, bool first) {
  if (first && iFileBytes > 0) {
    iFileBytes = 0;
    iFileFits = true;
    if (iTarget != nullptr) {
      iTarget->Begin(iAddress);
    }
  }
  iFileBytes += data.size();
  if (iTarget != nullptr && iFileFits) {
    iFileFits = iTarget->Append(data);
  }
}

void CanBootloader::TakeCommandBlock(const std::vector<std::uint8_t>& data, bool first) {
  if (first) {
    iCommand.clear();
  }
  const auto end = std::find(data.begin(), data.end(), 0);
  iCommand.append(data.begin(), end);
  iCommand.resize(std::min(iCommand.size(), kMaxCommand));
}

void CanBootloader::Obey(Micros now) {
  const bool well_formed = iCommand.size() > kVerbSize && iCommand[kVerbSize] == ' ';
  iVerb = well_formed ? iCommand.substr(0, kVerbSize) : "";
  iAddressValid = well_formed && ParseAddress(iCommand.substr(kVerbSize + 1), iAddress);
  iAfterAnswer = AfterAnswer::kNextCommand;
  if (iVerb == "wr") {
    return BeginWrite(now);
  }
  if (DiesInThisCommand(now)) {
    return;
  }
  if (iVerb == "gt") {
    return Go(now);
  }
  if (iVerb == "ck") {
    return Check(now);
  }
  Conclude("", "unknown command", now);
}

void CanBootloader::BeginWrite(Micros now) {
  iTarget = iAddressValid ? MemoryAt(iAddress) : nullptr;
  iFileBytes = 0;
  iFileFits = true;
  if (iTarget != nullptr) {
    iTarget->Begin(iAddress);
  }
  ListenFor(Stage::kFile, now);
}

void CanBootloader::EndWrite(Micros now) {
  std::string complaint;
  if (iTarget == nullptr) {
    complaint = iAddressValid ? "outside RAM and flash" : "no hexadecimal address";
  } else if (!iFileFits) {
    complaint = "the file does not fit";
  } else {
    iTarget->Complete();
  }
  if (iTarget == &iFlash) {
    MaybeCorrupt(iAddress);
  }
  if (!DiesInThisCommand(now)) {
    Conclude(std::to_string(iFileBytes) + " bytes", complaint, now);
  }
}

void CanBootloader::Go(Micros now) {
  const bool runnable = iAddressValid && iRam.Holds(iAddress);
  Conclude("", runnable ? "" : "no program there", now);
}

void CanBootloader::Check(Micros now) {
  const bool sound = iAddressValid && iFlash.Check(iAddress);
  iAfterAnswer = AfterAnswer::kUpdated;
  Conclude("ok", sound ? "" : "flash does not hold what was received", now);
}

void CanBootloader::Conclude(const std::string& done, const std::string& complaint, Micros now) {
  const std::string ordered = OrderedRefusal();
  std::string answer = complaint.empty() ? kAccepted : kRefused;
  std::string outcome = complaint.empty() ? done : "refused with 001: " + complaint;
  if (!ordered.empty()) {
    answer = ordered;
    outcome = "refused with " + Printable(ordered) + " on purpose";
  }
  if (answer != kAccepted && iAfterAnswer == AfterAnswer::kUpdated) {
    iAfterAnswer = AfterAnswer::kRefusedCheck;
  }
  Tell(Printable(iCommand) + (outcome.empty() ? "" : ": ") + outcome, now);
  iStage = Stage::kAnswer;
  Answer(answer, now);
}

void CanBootloader::OnAnswered(Micros now) {
  switch (iAfterAnswer) {
    case AfterAnswer::kNextCommand:
      return ListenFor(Stage::kCommand, now);
    case AfterAnswer::kUpdated:
      return Succeed(now);
    case AfterAnswer::kRefusedCheck:
      return Fail("the check was refused", now);
  }
}

std::string CanBootloader::OrderedRefusal() {
  std::string answer;
  for (std::size_t index = 0; index < iOccurrences.size(); ++index) {
    const Refusal& refusal = iOptions.faults.refusals[index];
    if (refusal.verb != iVerb) {
      continue;
    }
    ++iOccurrences[index];
    if (refusal.occurrence == 0 || refusal.occurrence == iOccurrences[index]) {
      answer = refusal.answer;
    }
  }
  return answer;
}

Memory* CanBootloader::MemoryAt(std::uint64_t address) {
  if (iRam.Contains(address)) {
    return &iRam;
  }
  return iFlash.Contains(address) ? &iFlash : nullptr;
}

bool CanBootloader::DiesInThisCommand(Micros now) {
  if (iVerb == "gt") {
    return DiesAt(SilentStage::kGo, now);
  }
  if (iVerb == "ck") {
    return DiesAt(SilentStage::kCheck, now);
  }
  if (iVerb != "wr" || iTarget == nullptr) {
    return false;
  }
  return DiesAt(iTarget == &iRam ? SilentStage::kWriteRam : SilentStage::kWriteFlash, now);
}

}  // namespace simulator
