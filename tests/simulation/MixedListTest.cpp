// Goal: devices of both kinds are updated one after the other, in every order: each gets its files, the
// overall percentage is right at every hand-over, a failure or an abort anywhere has its due effect, and an
// update can be repeated after each.
// Method: lists as data, one letter a device: "cs" is a CAN controller before a Sanyo device. The module's
// objects, simulated bootloaders and a simulated clock in one process; a witness notes every call of the
// broker.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "FeatureEvents.h"
#include "Journal.h"
#include "SerialPorts.h"
#include "UpdateBench.h"

namespace {

using simulator::Options;
using simulator::SilentStage;
using Strings = std::vector<std::string>;

// The names of the kinds, with a separator between.
std::string Spelled(const std::string& kinds, const std::string& can, const std::string& sanyo,
                    char separator) {
  std::string names;
  for (const char kind : kinds) {
    names += (names.empty() ? "" : std::string(1, separator)) + (kind == 'c' ? can : sanyo);
  }
  return names;
}

class MixedBench : public UpdateBench {
 public:
  explicit MixedBench(const std::string& kinds, const Options& options = {})
      : UpdateBench(Spelled(kinds, "can", "sanyo", ','), options), iKinds(kinds) {
    Properties().Set("updatelist", Spelled(kinds, "xmodem", "sanyoxmodem", ';'));
    World().SetWitness(&witness);
  }
  ~MixedBench() override {
    DeleteModule();
    World().SetWitness(nullptr);
  }

  /// Prepares and asks for the update.
  void Start() {
    Request(EPrepareRequest);
    ASSERT_TRUE(WaitFor(EPrepareResult));
    ASSERT_EQ(Events().back(), "202 1");
    Request(EInstallRequest);
  }

  /// Lets time pass until the n-th session (from 1) has started, and then some more.
  bool RunIntoSession(std::size_t n) {
    const bool started = World().RunUntil([&] { return PercentagesOfSessions().size() >= n; }, 600'000);
    World().RunFor(700);
    return started;
  }

  /// What was told in 205 since each session's start and before the next one's.
  std::vector<std::vector<int>> PercentagesOfSessions() const {
    std::vector<std::vector<int>> sessions;
    for (const RecordingBroker::Call& call : witness.Calls()) {
      if (call.kind == RecordingBroker::Call::kSubscribe && call.type == ETimerEvent) {
        sessions.emplace_back();
      } else if (call.kind == RecordingBroker::Call::kPost && call.id == EInstallProgress) {
        sessions.back().push_back(static_cast<unsigned char>(call.payload.back()));
      }
    }
    return sessions;
  }

  /// All 204 so far.
  Strings Results() const {
    Strings results;
    for (const std::string& event : Events()) {
      if (event.rfind("204 ", 0) == 0) {
        results.push_back(event);
      }
    }
    return results;
  }

  bool DeviceHoldsItsFiles(std::size_t device) const {
    return FlashHoldsImage(device) && (iKinds[device] == 's' || RamHoldsLoader(device));
  }
  bool AllHoldTheirFiles() const {
    for (std::size_t device = 0; device < iKinds.size(); ++device) {
      if (!DeviceHoldsItsFiles(device)) {
        return false;
      }
    }
    return true;
  }
  void PowerCycle() { Line().PowerCycle(World().Now_us()); }

  RecordingBroker witness;

 private:
  std::string iKinds;
};

// ---- The overall percentage ----

struct ListCase {
  std::string kinds;
  std::vector<int> first;  ///< percentage with which each session begins
  std::vector<int> last;   ///< and ends
};

void PrintTo(const ListCase& list, std::ostream* output) {
  *output << list.kinds;
}

class MixedList : public testing::TestWithParam<ListCase> {};

TEST_P(MixedList, IsUpdatedInItsOrderAndAddsUp) {
  const ListCase& list = GetParam();
  MixedBench bench(list.kinds);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.AllHoldTheirFiles());
  EXPECT_EQ(bench.Devices().Updates(), list.kinds.size());
  EXPECT_EQ(bench.Devices().Failures(), 0U);
  EXPECT_EQ(bench.World().PortsMade(), list.kinds.size());
  EXPECT_EQ(bench.Results(), Strings{"204 1"});
  EXPECT_EQ(bench.Events().back(), "204 1");
  std::vector<int> first;
  std::vector<int> last;
  for (const std::vector<int>& session : bench.PercentagesOfSessions()) {
    EXPECT_TRUE(std::is_sorted(session.begin(), session.end()));
    first.push_back(session.front());
    last.push_back(session.back());
  }
  EXPECT_EQ(first, list.first);
  EXPECT_EQ(last, list.last);
}

// After a Sanyo device's 101 % in the middle of three, the whole falls by one.
const ListCase kLists[] = {
    {"c", {0}, {100}},
    {"s", {0}, {101}},
    {"cc", {0, 50}, {50, 100}},
    {"cs", {0, 50}, {50, 100}},
    {"sc", {0, 50}, {50, 100}},
    {"ss", {0, 50}, {50, 100}},
    {"ccc", {0, 33, 66}, {33, 66, 100}},
    {"ccs", {0, 33, 66}, {33, 66, 100}},
    {"csc", {0, 33, 66}, {33, 67, 100}},
    {"css", {0, 33, 66}, {33, 67, 100}},
    {"scc", {0, 33, 66}, {33, 66, 100}},
    {"scs", {0, 33, 66}, {33, 66, 100}},
    {"ssc", {0, 33, 66}, {33, 67, 100}},
    {"sss", {0, 33, 66}, {33, 67, 100}},
    {"cscs", {0, 25, 50, 75}, {25, 50, 75, 100}},
    {"scsscs", {0, 16, 33, 50, 66, 83}, {16, 33, 50, 66, 83, 100}},
    {"ssscsss", {0, 14, 28, 42, 57, 71, 85}, {14, 28, 43, 57, 71, 85, 100}},
};

INSTANTIATE_TEST_SUITE_P(Of, MixedList, testing::ValuesIn(kLists),
                         [](const auto& list) { return list.param.kinds; });

struct UnknownCase {
  const char* list;
  const char* kinds;
  std::vector<int> last;
  Strings unknown;
};

TEST(MixedListWithUnknownEntries, CountsOnlyTheKnownOnes) {
  const UnknownCase cases[] = {
      {"foo;sanyoxmodem;;bar;xmodem;", "sc", {50, 100}, {"foo", "", "bar"}},
      {"xmodem;nothing;sanyoxmodem", "cs", {50, 100}, {"nothing"}},
      {"xmodem;sanyo;sanyoxmodem;XMODEM;xmodem", "csc", {33, 67, 100}, {"sanyo", "XMODEM"}},
      {";sanyoxmodem", "s", {101}, {""}},
  };
  for (const UnknownCase& one : cases) {
    SCOPED_TRACE(one.list);
    MixedBench bench(one.kinds);
    bench.Properties().Set("updatelist", one.list);
    EXPECT_TRUE(bench.Update());
    EXPECT_TRUE(bench.AllHoldTheirFiles());
    std::vector<int> last;
    for (const std::vector<int>& session : bench.PercentagesOfSessions()) {
      last.push_back(session.back());
    }
    EXPECT_EQ(last, one.last);
    Strings errors;
    for (const std::string& unknown : one.unknown) {
      errors.push_back("Error (Unknown peripheral found and ignored: " + unknown + ")");
    }
    Strings logged = bench.Log().Messages(logging::EError);
    logged.erase(std::remove_if(logged.begin(), logged.end(),
                                [](const std::string& line) { return line.rfind("Always", 0) == 0; }),
                 logged.end());
    EXPECT_EQ(logged, errors);
  }
}

// ---- Failures ----

// A place in a list.
struct Position {
  std::string kinds;
  std::size_t index;
};

void PrintTo(const Position& position, std::ostream* output) {
  *output << position.kinds << " at " << position.index;
}

// Every place from `first` on in every list of two and three devices.
std::vector<Position> PositionsFrom(std::size_t first) {
  std::vector<Position> positions;
  for (const ListCase& list : kLists) {
    const bool isShort = list.kinds.size() == 2 || list.kinds.size() == 3;
    for (std::size_t i = first; isShort && i < list.kinds.size(); ++i) {
      positions.push_back({list.kinds, i});
    }
  }
  return positions;
}

std::string NameOf(const testing::TestParamInfo<Position>& test) {
  return test.param.kinds + "_" + std::to_string(test.param.index);
}

class MixedListAt : public testing::TestWithParam<Position> {
 protected:
  const std::string& Kinds() const { return GetParam().kinds; }
  std::size_t Index() const { return GetParam().index; }

  // The devices before the position hold their files, those behind it were never reached.
  void ExpectEndAtPosition(const MixedBench& bench) {
    EXPECT_EQ(bench.PercentagesOfSessions().size(), Index() + 1);
    for (std::size_t device = 0; device < Kinds().size(); ++device) {
      EXPECT_EQ(bench.DeviceHoldsItsFiles(device), device < Index()) << device;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Each, MixedListAt, testing::ValuesIn(PositionsFrom(0)), NameOf);

struct FaultCase {
  const char* name;
  void (*arrange)(simulator::Faults&);
  bool needsPower;  ///< for the next update
};

const FaultCase kFaults[] = {
    {"cancels", [](simulator::Faults& faults) { faults.cancel_after_bytes = 5000; }, false},
    {"dies",
     [](simulator::Faults& faults) {
       faults.silent_after = {SilentStage::kBytes, 5000};
     },
     true},
    {"dies at once",
     [](simulator::Faults& faults) {
       faults.silent_after = {SilentStage::kBytes, 1};
     },
     true},
};

TEST_P(MixedListAt, AFailureEndsTheListAndTheNextUpdateBeginsItAnew) {
  for (const FaultCase& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    Options options;
    options.faulty_device = static_cast<int>(Index()) + 1;
    fault.arrange(options.faults);
    MixedBench bench(Kinds(), options);
    EXPECT_FALSE(bench.Update());
    EXPECT_EQ(bench.Results(), Strings{"204 0"});
    EXPECT_EQ(bench.Events().back(), "204 0");
    ExpectEndAtPosition(bench);

    if (fault.needsPower) {
      bench.PowerCycle();
    }
    bench.witness.Clear();
    EXPECT_TRUE(bench.Update());
    EXPECT_TRUE(bench.AllHoldTheirFiles());
    EXPECT_EQ(bench.Results(), (Strings{"204 0", "204 1"})) << "the failed session is not heard of again";
    EXPECT_EQ(bench.PercentagesOfSessions().front().front(), 0);
    EXPECT_EQ(bench.PercentagesOfSessions().size(), Kinds().size());
    EXPECT_EQ(bench.World().PortsMade(), Index() + 1 + Kinds().size());
  }
}

// Places to which a hand-over leads.
class MixedListBehindAnother : public MixedListAt {};

INSTANTIATE_TEST_SUITE_P(Each, MixedListBehindAnother, testing::ValuesIn(PositionsFrom(1)), NameOf);

TEST_P(MixedListBehindAnother, ARefusedPortEndsTheListFromWithinTheHandOver) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index()));
  SetPortFactory(nullptr);
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  EXPECT_EQ(bench.Results(), Strings{"204 0"});
  EXPECT_EQ(bench.PercentagesOfSessions().size(), Index());
  EXPECT_EQ(LastOf(bench.witness.Summary(), 2), (Strings{"post 3/204 flag 0", "unsubscribe 0/0"}));
  EXPECT_TRUE(bench.DeviceHoldsItsFiles(Index() - 1));
}

TEST_P(MixedListAt, AnUnpluggedLineEndsTheListWithOneResult) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  bench.Line().Unplug();
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  bench.World().RunFor(300'000);
  EXPECT_EQ(bench.Results(), Strings{"204 0"});
  ExpectEndAtPosition(bench);
}

// ---- Aborts and further requests ----

TEST_P(MixedListAt, AnAbortIsReportedAtOnceAndStopsNothing) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  const auto requested_us = bench.World().Now_us();
  bench.Request(EAbortRequest);
  ASSERT_TRUE(bench.WaitFor(EAbortResult));
  EXPECT_EQ(bench.Events().back(), "207 1");
  EXPECT_EQ(bench.World().Now_us(), requested_us);
  EXPECT_EQ(bench.Results(), Strings());
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  EXPECT_EQ(bench.Results(), Strings{"204 1"});
  EXPECT_TRUE(bench.AllHoldTheirFiles());
}

TEST_P(MixedListAt, AnUpdateAfterAnAbortedOneThatEndedWellGoesWell) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  bench.Request(EAbortRequest);
  ASSERT_TRUE(bench.WaitFor(EInstallResult));
  bench.MakeFiles(900, 12'000);
  EXPECT_TRUE(bench.Update());
  EXPECT_TRUE(bench.AllHoldTheirFiles());
  EXPECT_EQ(bench.Results(), (Strings{"204 1", "204 1"}));
}

// The session that lost its line fails and says so while the list runs anew.
void ExpectBegunAnewWithOneSurplusFailure(MixedBench& bench, std::size_t devices) {
  bench.witness.Clear();
  bench.Request(EInstallRequest);
  // What was on its way to the device is over when it comes up again.
  bench.World().RunFor(200);
  bench.PowerCycle();
  ASSERT_TRUE(bench.World().RunUntil([&] { return bench.Results().size() == 2; }, 600'000));
  bench.World().RunFor(300'000);
  EXPECT_EQ(bench.Results(), (Strings{"204 0", "204 1"}));
  EXPECT_TRUE(bench.AllHoldTheirFiles());
  EXPECT_EQ(bench.PercentagesOfSessions().size(), devices);
  EXPECT_EQ(bench.PercentagesOfSessions().front().front(), 0);
}

TEST_P(MixedListAt, ASecondInstallInTheMiddleBeginsTheListAnew) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  ExpectBegunAnewWithOneSurplusFailure(bench, Kinds().size());
}

TEST_P(MixedListAt, AnInstallBehindAnAbortBeginsTheListAnew) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  bench.Request(EAbortRequest);
  ASSERT_TRUE(bench.WaitFor(EAbortResult));
  ExpectBegunAnewWithOneSurplusFailure(bench, Kinds().size());
}

TEST_P(MixedListAt, TheModuleCanBeDeletedInTheMiddle) {
  MixedBench bench(Kinds());
  bench.Start();
  ASSERT_TRUE(bench.RunIntoSession(Index() + 1));
  ASSERT_GE(bench.World().Workers(), 1U);
  bench.DeleteModule();
  EXPECT_EQ(bench.World().Workers(), 0U);
  EXPECT_EQ(bench.World().Subscriptions(), 5U) << "those of the test's controller";
}

// ---- The hand-over ----

// Line by line, from the last progress of the first session to its end.
class HandOver : public testing::Test {
 protected:
  static Strings Progress(const std::string& remaining, const std::string& total, const std::string& overall,
                          const std::string& own) {
    return {
        "Interface CPeripheralLoader::Progress (RemainingSize: " + remaining + ", TotalSize: " + total + ")",
        "Info CPeripheralLoader::HandleLoaderProgress ()",
        "Info CPeripheralLoader::HandleLoaderProgress (Calculated progress: " + overall +
            ". Received progress: " + own + ")",
        "post 3/205 " + overall + " %"};
  }

  static Strings NextChain(const std::string& name) {
    return {"Info C" + name + "XModemLoader::Install (" + name + "XModemLoader)",
            "Interface IXModem::Create ()",
            "Interface CXModem::CXModem ()",
            "Interface C" + name + "XModemSwl::Create ()",
            "Interface CXModemSwl::CXModemSwl ()",
            "Interface C" + name + "XModemSwl::C" + name + "XModemSwl ()",
            "Interface CXModemSwl::StartUpload ()",
            "subscribe 0/0"};
  }

  static Strings Concatenate(const std::vector<Strings>& parts) {
    Strings all;
    for (const Strings& part : parts) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }

  // Everything in the tick in which the first session of the list ends.
  Strings HandOverOf(const std::string& kinds) {
    MixedBench bench(kinds);
    Journal journal;
    const JournalLog log(journal);
    JournalBroker broker(journal);
    bench.World().SetWitness(&broker);
    bench.Start();
    bench.World().RunUntil([&] { return Count(broker, "unsubscribe 0/0") == 1; }, 600'000);
    bench.World().SetWitness(nullptr);
    ExpectThatTheFirstLeaves(broker);
    Strings entries = journal.Take();
    const auto last =
        std::find_if(entries.rbegin(), entries.rend(), [first = true](const std::string& e) mutable {
          const bool isProgress = e.rfind("Interface CPeripheralLoader::Progress", 0) == 0;
          return isProgress && !std::exchange(first, false);
        });
    return {last.base() - 1, entries.end()};
  }

  static std::ptrdiff_t Count(const RecordingBroker& broker, const std::string& call) {
    const Strings calls = broker.Summary();
    return std::count(calls.begin(), calls.end(), call);
  }

  // With two observers of one timer, the right one goes.
  static void ExpectThatTheFirstLeaves(const RecordingBroker& broker) {
    std::vector<IEventObserver*> subscribed;
    for (const RecordingBroker::Call& call : broker.Calls()) {
      if (call.kind == RecordingBroker::Call::kSubscribe && call.type == ETimerEvent) {
        subscribed.push_back(call.observer);
      }
    }
    ASSERT_EQ(subscribed.size(), 2U);
    EXPECT_NE(subscribed[0], subscribed[1]);
    EXPECT_EQ(broker.Calls().back().observer, subscribed[0]);
  }

  const Strings kSuccess = {"Interface CPeripheralLoader::Completed (Successful: ETrue)",
                            "Info CPeripheralLoader::HandleLoaderCompleted ()"};
  const Strings kLeaves = {"Interface CXModemSwl::UnsubscribeTimerEvent ()", "unsubscribe 0/0"};
};

TEST_F(HandOver, FromACanControllerToASanyoDeviceRunsThus) {
  EXPECT_EQ(HandOverOf("cs"), Concatenate({Progress("0", "145", "50", "100"), kSuccess, NextChain("Sanyo"),
                                           Progress("1", "1", "50", "0"), kLeaves}));
}

TEST_F(HandOver, FromASanyoDeviceToACanControllerRunsThus) {
  EXPECT_EQ(HandOverOf("sc"), Concatenate({Progress("4294967295", "150", "50", "101"), kSuccess,
                                           NextChain("Can"), Progress("1", "1", "50", "0"), kLeaves}));
}

TEST(MixedListMilestones, OfAllSessionsStandBetweenTheModulesTwo) {
  MixedBench bench("cs");
  ASSERT_TRUE(bench.Update());
  EXPECT_THAT(bench.Log().Messages(logging::EAlways),
              testing::ElementsAre("Always (SWL: Starting upload in PeripheralLoader)",
                                   "Always (SWL: Started uploading using CanXModem)",
                                   "Always (SWL: Finished uploading using CanXModem)",
                                   "Always (SWL: Started uploading using SanyoXModem)",
                                   "Always (SWL: Finished uploading using SanyoXModem)",
                                   "Always (SWL: Finished upload in PeripheralLoader)"));
}

// ---- Preparation ----

TEST(MixedListPreparation, WantsTheCanControllersPropertiesOnlyForACanController) {
  const struct {
    const char* kinds;
    const char* withAll;
    const char* withoutCans;
  } cases[] = {{"c", "202 1", "202 0"},
               {"s", "202 1", "202 1"},
               {"cs", "202 1", "202 0"},
               {"sc", "202 1", "202 0"},
               {"ss", "202 1", "202 1"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.kinds);
    MixedBench bench(one.kinds);
    bench.Request(EPrepareRequest);
    ASSERT_TRUE(bench.WaitFor(EPrepareResult));
    EXPECT_EQ(bench.Events().back(), one.withAll);
    for (const char* key : {"xmodemsource-loader", "xmodemramaddress", "xmodemflashaddress"}) {
      bench.Properties().Remove(key);
    }
    bench.Request(EPrepareRequest);
    ASSERT_TRUE(bench.WaitFor(EPrepareResult));
    EXPECT_EQ(bench.Events().back(), one.withoutCans);
  }
}

}  // namespace
