#include "simulator/Bench.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>

#include "simulator/CommandLine.h"
#include "simulator/Dump.h"

namespace simulator {

namespace {

constexpr Micros kBatch = 2 * kMillisecond;
constexpr Micros kLastWords = 100 * kMillisecond;
constexpr Micros kHostClosing = 2 * kSecond;

std::string Described(const std::string& line_name, const Milestone& milestone) {
  const double seconds = static_cast<double>(milestone.time_us) / static_cast<double>(kSecond);
  return fmt::format("{:10.3f} {}{}{}: {}\n", seconds, line_name, line_name.empty() ? "" : " ",
                     milestone.device, milestone.text);
}

}  // namespace

Bench::Bench(const Settings& settings, Output& output) : iSettings(settings), iOutput(output) {
  for (DevicePlan& plan : iSettings.devices) {
    plan.options.on_milestone = [name = iSettings.name, &output](const Milestone& milestone) {
      output.Say(Described(name, milestone));
    };
  }
  iDevices = MakeDevices(iSettings.devices, iSettings.once);
}

bool Bench::Start(Micros now) {
  iPort.emplace();
  if (!MayBeDumped(*iDevices, iSettings.dump_ram, iSettings.dump_flash)) {
    return false;
  }
  if (!iPort->Open() || (!iSettings.link.empty() && !iPort->Link(iSettings.link))) {
    return false;
  }
  iOutput.Say(
      fmt::format("{}{}port: {}\n", iSettings.name, iSettings.name.empty() ? "" : " ", iPort->Name()));
  iLine.emplace(*iDevices, iSettings.line, now);
  return true;
}

void Bench::Step(Micros now) {
  if (iPhase == Phase::kPlaying) {
    Play(now);
  }
  if (iPhase == Phase::kClosing) {
    Close(now);
  }
}

void Bench::Play(Micros now) {
  std::array<std::uint8_t, Wire::kCapacity> buffer;
  const std::size_t space = iLine->HostWriteSpace();
  const std::size_t received = space == 0 ? 0 : iPort->Read(buffer.data(), std::min(space, buffer.size()));
  iLine->HostWrite(buffer.data(), received, now);
  const int count = iLine->HostRead(buffer.data(), buffer.size(), now);
  if (count > 0) {
    iPort->Write(buffer.data(), static_cast<std::size_t>(count));
  }
  if (iDevices->Updates() != iDumpedUpdates) {
    iDumpedUpdates = iDevices->Updates();
    Dump();
  }
  if (iLine->Unplugged()) {
    iPort.reset();
    iPhase = Phase::kEnded;
  } else if (IsOver(now)) {
    iPort->LetGo();
    iClosedAt = now;
    iPhase = Phase::kClosing;
  }
}

bool Bench::IsOver(Micros now) {
  if (!iSettings.once) {
    return false;
  }
  if (iDevices->Finished()) {
    return iLine->NextEvent(now) == kNever;
  }
  if (iDevices->Failures() > 0 && iFailedAt == kNever) {
    iFailedAt = now;
  }
  // What a device says when it gives up still has to reach the host.
  return iFailedAt != kNever && now - iFailedAt > kLastWords;
}

void Bench::Close(Micros now) {
  // Closing this side earlier would take from the host what it has not read yet.
  if (iPort->HostHasClosed() || now - iClosedAt >= kHostClosing) {
    iPort.reset();
    iPhase = Phase::kEnded;
  }
}

pollfd Bench::Waiting() const {
  const bool listens = iPhase == Phase::kPlaying && iLine->HostWriteSpace() > 0;
  return {iPort ? iPort->Descriptor() : -1, static_cast<short>(listens ? POLLIN : 0), 0};
}

// The line keeps exact time by itself, so bytes from the host may be handed on in small batches. Only the end
// of what the host has sent is waited for exactly, since the device may answer it.
Micros Bench::NextWake(Micros now) const {
  switch (iPhase) {
    case Phase::kPlaying:
      break;
    case Phase::kClosing:
      return iClosedAt + kHostClosing;
    case Phase::kEnded:
      return kNever;
  }
  const Micros batch = std::min(iLine->HostWriteEnd(), now + kBatch);
  const Micros next = iLine->NextEvent(now);
  const Micros wake = iLine->HostWriteEnd() == kNever ? next : std::max(next, batch);
  return std::min(wake, iFailedAt == kNever ? kNever : iFailedAt + kLastWords);
}

int Bench::End() {
  Dump();
  if (!iDumped) {
    return kExitSystem;
  }
  return iSettings.once && !iDevices->Finished() ? kExitUpdateFailed : kExitOk;
}

void Bench::Dump() {
  iDumped = DumpMemories(*iDevices, iSettings.dump_ram, iSettings.dump_flash) && iDumped;
}

}  // namespace simulator
