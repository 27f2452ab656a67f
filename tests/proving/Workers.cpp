#include "Workers.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Oracles.h"
#include "Run.h"
#include "Scenario.h"

namespace proving {

namespace {

// Every so many-th run is repeated.
constexpr std::uint64_t kRepeatEvery = 20;
constexpr std::size_t kIdsKept = 16;
constexpr std::chrono::seconds kLongestRun{60};

// What a process shares with the one that started it.
struct Slot {
  Tally tally;
  char brokenIds[kIdsKept][64];
  std::atomic<std::uint64_t> current;
  std::atomic<bool> done;
};

void Count(Tally& tally, const Observation& seen) {
  ++tally.runs;
  tally.successes += seen.successes > 0 ? 1U : 0U;
  tally.faultsHappened += seen.faultsHappened > 0 ? 1U : 0U;
  ++tally.excuses[static_cast<std::size_t>(ExcuseOf(seen))];
}

void KeepBroken(Slot& slot, const std::string& id) {
  if (slot.tally.broken < kIdsKept) {
    std::snprintf(slot.brokenIds[slot.tally.broken], sizeof slot.brokenIds[0], "%s", id.c_str());
  }
  ++slot.tally.broken;
}

void RunOne(const std::string& id, std::uint64_t number, SourceFolder& sources, Slot& slot) {
  const auto scenario = ParseScenario(id);
  if (!scenario) {
    return KeepBroken(slot, id);
  }
  const Observation seen = Run(*scenario, sources).Observe();
  Count(slot.tally, seen);
  bool sound = Broken(seen).empty();
  if (number % kRepeatEvery == 0) {
    ++slot.tally.repeated;
    sound = sound && Run(*scenario, sources).Observe().trace == seen.trace;
  }
  if (!sound) {
    KeepBroken(slot, id);
  }
}

void RunShare(std::uint64_t first, std::uint64_t step, std::uint64_t count,
              const std::function<std::string(std::uint64_t)>& idOf, Slot& slot) {
  SourceFolder sources;
  for (std::uint64_t number = first; number < count; number += step) {
    slot.current = number;
    RunOne(idOf(number), number, sources, slot);
  }
  slot.done = true;
}

// Waits for a process. False if it died or had to be ended.
bool Await(pid_t process, const Slot& slot) {
  std::uint64_t last = UINT64_MAX;
  auto moved = std::chrono::steady_clock::now();
  int status = 0;
  while (waitpid(process, &status, WNOHANG) == 0) {
    const auto now = std::chrono::steady_clock::now();
    if (slot.current != last) {
      last = slot.current;
      moved = now;
    } else if (now - moved > kLongestRun) {
      kill(process, SIGKILL);
      waitpid(process, &status, 0);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && slot.done;
}

void Add(Tally& sum, const Tally& part) {
  sum.runs += part.runs;
  sum.repeated += part.repeated;
  sum.successes += part.successes;
  sum.faultsHappened += part.faultsHappened;
  sum.broken += part.broken;
  for (int excuse = 0; excuse < kExcuses; ++excuse) {
    sum.excuses[excuse] += part.excuses[excuse];
  }
}

}  // namespace

CampaignResult RunCampaign(std::uint64_t count, const std::function<std::string(std::uint64_t)>& idOf,
                           unsigned processes) {
  const std::size_t bytes = processes * sizeof(Slot);
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* slots = static_cast<Slot*>(memory);
  std::vector<pid_t> children;
  std::fflush(nullptr);
  for (unsigned process = 0; process < processes; ++process) {
    const pid_t child = fork();
    if (child == 0) {
      RunShare(process, processes, count, idOf, slots[process]);
      std::fflush(nullptr);
      _exit(0);
    }
    children.push_back(child);
  }
  CampaignResult result;
  for (unsigned process = 0; process < processes; ++process) {
    const Slot& slot = slots[process];
    if (!Await(children[process], slot)) {
      result.deaths.push_back(idOf(slot.current));
    }
    Add(result.tally, slot.tally);
    for (std::size_t index = 0; index < kIdsKept && index < slot.tally.broken; ++index) {
      result.brokenIds.emplace_back(slot.brokenIds[index]);
    }
  }
  munmap(memory, bytes);
  return result;
}

}  // namespace proving
