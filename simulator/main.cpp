#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <exception>
#include <vector>

#include "simulator/Bench.h"
#include "simulator/CommandLine.h"
#include "simulator/EndSignals.h"
#include "simulator/Output.h"

namespace simulator {

namespace {

/// Takes the descriptors of standard streams that whoever started the program has closed, lest the port
/// become one of them. Where it can be, what is said there is told to be lost.
void HoldStandardStreams() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/full", O_RDWR);
    descriptor = descriptor < 0 ? open("/dev/null", O_RDWR) : descriptor;
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

Micros MonotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Micros>(now.tv_sec) * kSecond + now.tv_nsec / 1000;
}

/// Plays all lines until a signal comes, or until each has come to its end.
void Play(std::deque<Bench>& benches, Micros start, const EndSignals& signals) {
  std::vector<pollfd> ports(benches.size());
  while (!signals.HaveCome()) {
    const Micros now = MonotonicNow() - start;
    Micros wake = kNever;
    for (std::size_t i = 0; i < benches.size(); ++i) {
      benches[i].Step(now);
      ports[i] = benches[i].Waiting();
      wake = std::min(wake, benches[i].NextWake(now));
    }
    if (std::all_of(benches.begin(), benches.end(), [](const Bench& each) { return each.HasEnded(); })) {
      return;
    }
    const Micros pause = std::max<Micros>(wake - (MonotonicNow() - start), 0);
    const timespec timeout{static_cast<time_t>(pause / kSecond), static_cast<long>(pause % kSecond * 1000)};
    signals.Wait(ports.data(), ports.size(), wake == kNever ? nullptr : &timeout);
  }
}

int Main(int argc, char** argv) {
  std::vector<Settings> lines;
  if (const std::optional<int> exit_code = ParseCommandLine(argc, argv, lines)) {
    return *exit_code;
  }
  signal(SIGPIPE, SIG_IGN);
  const EndSignals signals;
  const Micros start = MonotonicNow();
  Output output(signals);
  std::deque<Bench> benches;
  for (const Settings& line : lines) {
    if (!benches.emplace_back(line, output).Start(0)) {
      return kExitSystem;
    }
  }
  Play(benches, start, signals);
  int exit_code = kExitOk;
  for (Bench& bench : benches) {
    exit_code = std::max(exit_code, bench.End());
  }
  return !output.IsSaid() && exit_code == kExitOk ? kExitSystem : exit_code;
}

}  // namespace

}  // namespace simulator

int main(int argc, char** argv) {
  simulator::HoldStandardStreams();
  try {
    return simulator::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bootloader-simulator: internal error: %s\n", error.what());
    return simulator::kExitSystem;
  }
}
