#include <fmt/core.h>
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>

#include "simulator/CommandLine.h"
#include "simulator/DeviceList.h"
#include "simulator/Dump.h"
#include "simulator/Line.h"
#include "simulator/PseudoTerminal.h"

namespace simulator {

namespace {

volatile sig_atomic_t gStopRequested = 0;

void RequestStop(int) {
  gStopRequested = 1;
}

/// Catches SIGINT and SIGTERM, and keeps them back but during the wait whose signal mask is returned.
sigset_t CatchSignals() {
  struct sigaction action {};
  action.sa_handler = RequestStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigset_t original;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &original);
  sigdelset(&original, SIGINT);
  sigdelset(&original, SIGTERM);
  return original;
}

Micros MonotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Micros>(now.tv_sec) * kSecond + now.tv_nsec / 1000;
}

void PrintMilestone(const Milestone& milestone) {
  const double seconds = static_cast<double>(milestone.time_us) / static_cast<double>(kSecond);
  fmt::print("{:10.3f} {}: {}\n", seconds, milestone.device, milestone.text);
  std::fflush(stdout);
}

/// The program's loop: bytes between the pseudo-terminal and the line, in real time.
class Bench {
 public:
  /// `wait_mask` lets the signals through that ask the program to end.
  Bench(const Settings& settings, PseudoTerminal& port, const sigset_t& wait_mask)
      : iSettings(settings),
        iPort(port),
        iWaitMask(wait_mask),
        iStart(MonotonicNow()),
        iDevices(MakeDevices(settings.devices, settings.device)),
        iLine(*iDevices, settings.line, 0) {}

  /// Runs until a signal, an unplugging or, with --once, the end of the list. Returns the exit code.
  int Run() {
    Pump();
    while (gStopRequested == 0 && !iLine.Unplugged() && !IsOver()) {
      Wait();
      Pump();
      DumpAfterUpdate();
    }
    if (iLine.Unplugged()) {
      iPort.Unplug();
    } else if (gStopRequested == 0) {
      iPort.AwaitHostClosing(kHostClosing_ms);
    }
    Dump();
    if (!iDumped) {
      return kExitSystem;
    }
    return iSettings.device.once && !iDevices->Finished() ? kExitUpdateFailed : kExitOk;
  }

 private:
  static constexpr Micros kBatch = 2 * kMillisecond;
  static constexpr Micros kLastWords = 100 * kMillisecond;
  static constexpr int kHostClosing_ms = 2000;

  Micros Now() const { return MonotonicNow() - iStart; }

  bool IsOver() {
    if (!iSettings.device.once) {
      return false;
    }
    if (iDevices->Finished()) {
      return iLine.NextEvent(Now()) == kNever;
    }
    if (iDevices->Failures() > 0 && iFailedAt == kNever) {
      iFailedAt = Now();
    }
    // What a device says when it gives up still has to reach the host.
    return iFailedAt != kNever && Now() - iFailedAt > kLastWords;
  }

  void Pump() {
    std::array<std::uint8_t, Wire::kCapacity> buffer;
    const std::size_t space = iLine.HostWriteSpace();
    const std::size_t received = space == 0 ? 0 : iPort.Read(buffer.data(), std::min(space, buffer.size()));
    const Micros now = Now();
    iLine.HostWrite(buffer.data(), received, now);
    const int count = iLine.HostRead(buffer.data(), buffer.size(), now);
    if (count > 0) {
      iPort.Write(buffer.data(), static_cast<std::size_t>(count));
    }
  }

  /// The line keeps exact time by itself, so bytes from the host may be handed on in small batches. Only the
  /// end of what the host has sent is waited for exactly, since the device may answer it.
  Micros NextWake() const {
    const Micros now = Now();
    const Micros batch = std::min(iLine.HostWriteEnd(), now + kBatch);
    const Micros next = iLine.NextEvent(now);
    return iLine.HostWriteEnd() == kNever ? next : std::max(next, batch);
  }

  void Wait() {
    pollfd port{iPort.Descriptor(), static_cast<short>(iLine.HostWriteSpace() > 0 ? POLLIN : 0), 0};
    const Micros wake = std::min(NextWake(), iFailedAt == kNever ? kNever : iFailedAt + kLastWords);
    const Micros pause = std::max<Micros>(wake - Now(), 0);
    const timespec timeout{static_cast<time_t>(pause / kSecond), static_cast<long>(pause % kSecond * 1000)};
    ppoll(&port, 1, wake == kNever ? nullptr : &timeout, &iWaitMask);
  }

  void DumpAfterUpdate() {
    if (iDevices->Updates() != iDumpedUpdates) {
      iDumpedUpdates = iDevices->Updates();
      Dump();
    }
  }

  void Dump() { iDumped = DumpMemories(*iDevices, iSettings.dump_ram, iSettings.dump_flash) && iDumped; }

  const Settings& iSettings;
  PseudoTerminal& iPort;
  sigset_t iWaitMask;
  Micros iStart;
  std::unique_ptr<DeviceList> iDevices;
  Line iLine;
  Micros iFailedAt = kNever;
  std::uint64_t iDumpedUpdates = 0;
  bool iDumped = true;
};

int Main(int argc, char** argv) {
  Settings settings;
  if (const std::optional<int> exit_code = ParseCommandLine(argc, argv, settings)) {
    return *exit_code;
  }
  settings.device.on_milestone = PrintMilestone;
  const sigset_t wait_mask = CatchSignals();
  PseudoTerminal port;
  if (!port.Open() || (!settings.link.empty() && !port.Link(settings.link))) {
    return kExitSystem;
  }
  fmt::print("port: {}\n", port.Name());
  std::fflush(stdout);
  return Bench(settings, port, wait_mask).Run();
}

}  // namespace

}  // namespace simulator

int main(int argc, char** argv) {
  try {
    return simulator::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bootloader-simulator: internal error: %s\n", error.what());
    return simulator::kExitSystem;
  }
}
