// Updates in a simulated world in which chosen things go wrong, by the hundred thousand. Every run is judged
// by the same promises (Oracles.cpp); one that breaks a promise is printed with what replays it.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "Oracles.h"
#include "Replay.h"
#include "Run.h"
#include "Workers.h"

namespace {

using proving::SingleFaults;

struct Arguments {
  std::uint64_t runs = 20'000;
  std::uint64_t seed = 1;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  bool wraps = false;
  std::string replay;
};

// Single faults make up to four fifths of a campaign, or all of it where numbers wrap: each of them, or every
// so many-th. Storms are the rest.
class Plan {
 public:
  Plan(const SingleFaults& singles, const Arguments& arguments)
      : iSingles(singles), iArguments(arguments), iCount(CountSingles(singles.Size(), arguments)) {}

  std::uint64_t Singles() const { return iCount; }
  std::uint64_t Size() const { return iArguments.wraps ? iCount : iArguments.runs; }
  std::string IdOf(std::uint64_t number) const {
    if (number >= iCount) {
      return "storm/" + std::to_string(iArguments.seed * 1'000'000'000 + number - iCount);
    }
    // Spread evenly, and shifted by the seed.
    const std::uint64_t spread = number * iSingles.Size() / iCount;
    return iSingles.IdOf((spread + iArguments.seed) % iSingles.Size());
  }

 private:
  static std::uint64_t CountSingles(std::uint64_t all, const Arguments& arguments) {
    const bool noStorms = arguments.wraps || arguments.runs >= all;
    return std::min(all, noStorms ? arguments.runs : arguments.runs / 5 * 4);
  }

  const SingleFaults& iSingles;
  const Arguments& iArguments;
  std::uint64_t iCount;
};

void Report(const proving::CampaignResult& result, double seconds, unsigned jobs) {
  const proving::Tally& tally = result.tally;
  const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  std::printf("%llu runs in %.1f s on %u processes: %.0f runs a second\n", number(tally.runs), seconds, jobs,
              static_cast<double>(tally.runs) / seconds);
  std::printf("  %llu in which what was to go wrong did, %llu installations that succeeded all the same\n",
              number(tally.faultsHappened), number(tally.successes));
  std::printf("  %llu repeated, each with the same bytes, events and log\n", number(tally.repeated));
  for (int excuse = 1; excuse < proving::kExcuses; ++excuse) {
    if (tally.excuses[excuse] > 0) {
      std::printf("  %llu false successes that no host could have noticed: %s\n",
                  number(tally.excuses[excuse]), proving::Name(static_cast<proving::Excuse>(excuse)));
    }
  }
  std::printf("  %llu broke a promise\n", number(tally.broken));
}

// Whether nothing was broken.
bool Show(const proving::CampaignResult& result, proving::SourceFolder& sources) {
  constexpr std::size_t kShown = 2;
  for (const std::string& id : result.deaths) {
    std::printf("DIED or stood still. See it: script/prove --replay %s\n", id.c_str());
  }
  for (const std::string& id : result.brokenIds) {
    std::printf("BROKEN. See it: script/prove --replay %s\n", id.c_str());
  }
  for (std::size_t index = 0; index < std::min(kShown, result.brokenIds.size()); ++index) {
    proving::Replay(result.brokenIds[index], sources);
  }
  return result.deaths.empty() && result.brokenIds.empty() && result.tally.broken == 0;
}

// Lets the n-th call of each kind fail, for every n until a run has none that fails.
std::vector<std::string> NthFailures(proving::SourceFolder& sources) {
  using proving::resources::Call;
  std::vector<std::string> ids;
  for (const char* device : {"can", "sanyo"}) {
    for (const Call call : {Call::kMalloc, Call::kOpen, Call::kRead, Call::kThread}) {
      for (std::uint32_t n = 1;; ++n) {
        const std::string id = proving::BaseId(device, false, 2500) + "/" + proving::Text(call, n);
        if (proving::Run(*proving::ParseScenario(id), sources).Observe().faultsHappened == 0) {
          break;
        }
        ids.push_back(id);
      }
    }
  }
  return ids;
}

int Prove(const Arguments& arguments) {
  proving::SourceFolder sources;
  const SingleFaults singles = arguments.wraps ? SingleFaults::AtEachTurnOfWrappingNumbers(sources)
                                               : SingleFaults::AtEachByte(sources);
  const std::vector<std::string> nth = arguments.wraps ? std::vector<std::string>() : NthFailures(sources);
  for (const std::string& id : singles.BrokenBases()) {
    std::printf("BROKEN without a fault. See it: script/prove --replay %s\n", id.c_str());
  }
  const Plan plan(singles, arguments);
  const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  std::printf("%llu single faults of %llu, %llu failing calls, %llu storms of seed %llu\n",
              number(plan.Singles()), number(singles.Size()), number(nth.size()),
              number(plan.Size() - plan.Singles()), number(arguments.seed));
  std::fflush(stdout);
  const auto idOf = [&](std::uint64_t index) {
    return index < nth.size() ? nth[static_cast<std::size_t>(index)] : plan.IdOf(index - nth.size());
  };
  const auto start = std::chrono::steady_clock::now();
  const auto result = proving::RunCampaign(nth.size() + plan.Size(), idOf, arguments.jobs);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  Report(result, seconds.count(), arguments.jobs);
  return Show(result, sources) && singles.BrokenBases().empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app(
      "Updates in a simulated world in which things go wrong, judged by what every update promises.");
  app.add_option("--runs", arguments.runs, "How many runs: single faults as far as there are, and storms")
      ->capture_default_str();
  app.add_option("--seed", arguments.seed, "Which storms, and which single faults if not all")
      ->capture_default_str();
  app.add_option("--jobs", arguments.jobs, "How many processes")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_flag("--wraps", arguments.wraps,
               "Single faults at the turns of updates whose block numbers wrap, and no storms");
  app.add_option("--replay", arguments.replay, "Run one again and print its wire and log");
  CLI11_PARSE(app, argc, argv);
  if (!arguments.replay.empty()) {
    proving::SourceFolder sources;
    return proving::Replay(arguments.replay, sources) ? 0 : 1;
  }
  return Prove(arguments);
}
