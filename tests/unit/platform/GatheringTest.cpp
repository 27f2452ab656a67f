// Goal: bytes that are written one by one go to the driver in one call, in order and within two milliseconds
// whatever follows; what goes wrong meanwhile is told at the next call; and waiting for input costs no
// processor. Method: pseudo-terminals; the writes that reach their driver are watched, and where it has to
// refuse something, answered in its place. Time is asserted generously, except as the best of many rounds.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>

#include "Clock.h"
#include "PortCalls.h"
#include "Support.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using Sizes = std::vector<std::size_t>;

constexpr std::size_t kFrame = 1029;
constexpr std::size_t kMemory = 2048;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i * 7 + i / 256);
  }
  return bytes;
}

double CpuSecondsOf(const std::function<void()>& body) {
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double start = now();
  body();
  return now() - start;
}

void Pause(int pause_ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
}

bool WaitsFor(const std::function<bool()>& condition) {
  bool met = condition();
  for (int wait_ms = 0; wait_ms < 2000 && !met; ++wait_ms) {
    Pause(1);
    met = condition();
  }
  return met;
}

std::size_t Sum(const Sizes& sizes) {
  std::size_t sum = 0;
  for (const std::size_t size : sizes) {
    sum += size;
  }
  return sum;
}

// The signals that threads other than the calling one do not take.
std::vector<unsigned long> BlockedSignalsOfOtherThreads() {
  std::vector<unsigned long> masks;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    std::string key;
    std::string value;
    while (task.path().filename() != std::to_string(getpid()) && status >> key >> value) {
      if (key == "SigBlk:") {
        masks.push_back(std::stoul(value, nullptr, 16));
      }
    }
  }
  return masks;
}

class Gathering : public testing::Test {
 protected:
  Gathering() : port(MakePort(pty.Name())) {
    if (port == nullptr) {
      throw std::runtime_error("no port");
    }
  }
  // What is still gathered would tell a later test that the line is lost.
  ~Gathering() override { ReadOnce(*port); }

  Pty pty;
  ISerialPort* const port;
};

using Waiting = Gathering;

}  // namespace

// A pause of the machine in the middle of a round may send the flusher first.
TEST_F(Gathering, AFrameReachesTheDriverInOneCallWhenTheUserTurnsToReading) {
  const std::string frame = Pattern(kFrame);
  Sizes calls;
  double seconds = 1;
  for (int round = 0; round < 200 && seconds > 0.001; ++round) {
    const WatchedWrites writes(pty.Name());
    seconds = SecondsOf([&] {
      EXPECT_TRUE(WritesOneByOne(*port, frame));
      calls = writes.Sizes();
      EXPECT_EQ(ReadOnce(*port), 0);
    });
    EXPECT_EQ(Sum(writes.Sizes()), kFrame) << "the read has handed over all there was";
    EXPECT_EQ(pty.Receive(kFrame), frame);
    if (seconds <= 0.001) {
      EXPECT_THAT(calls, ElementsAre());
      EXPECT_THAT(writes.Sizes(), ElementsAre(kFrame));
    }
  }
  EXPECT_LE(seconds, 0.001) << "no round was undisturbed; the machine is too busy for this test";
}

TEST_F(Gathering, WhatFillsTheMemoryGoesOutWithoutARead) {
  const WatchedWrites writes(pty.Name());
  EXPECT_TRUE(Writes(*port, Pattern(kMemory)));
  EXPECT_THAT(writes.Sizes(), ElementsAre(kMemory));
}

TEST_F(Gathering, WhatIsLargerThanTheMemoryGoesOutAtOnceAndInOrder) {
  const std::string large = Pattern(3 * kMemory);
  EXPECT_TRUE(WritesOneByOne(*port, "abc"));
  const WatchedWrites writes(pty.Name());
  EXPECT_TRUE(Writes(*port, large));
  EXPECT_GE(Sum(writes.Sizes()), large.size());
  EXPECT_EQ(pty.Receive(3 + large.size()), "abc" + large);
}

TEST_F(Gathering, WhatNothingFollowsGoesOutWithinTwoMilliseconds) {
  const std::string cancel(6, '\x18');
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 100; ++round) {
    const WatchedWrites writes(pty.Name());
    const double seconds = SecondsOf([&] {
      EXPECT_TRUE(WritesOneByOne(*port, cancel));
      EXPECT_EQ(pty.Receive(cancel.size()), cancel);
    });
    EXPECT_LT(seconds, 0.5);
    best = std::min(best, seconds);
  }
  EXPECT_LT(best, 0.002);
  EXPECT_GT(best, 0.001) << "nothing would be gathered if it went out at once";
}

TEST_F(Gathering, PortsDoNotHoldUpOneAnother) {
  Pty other;
  ISerialPort* const second = MakePort(other.Name());
  ASSERT_NE(second, nullptr);
  const WriteDouble full(pty.Name(), [](std::size_t) { return -EAGAIN; });
  EXPECT_TRUE(Writes(*port, "stuck"));
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 100; ++round) {
    best = std::min(best, SecondsOf([&] {
                      EXPECT_TRUE(Writes(*second, "x"));
                      EXPECT_EQ(other.Receive(1), "x");
                    }));
  }
  EXPECT_LT(best, 0.002);
}

TEST_F(Gathering, AnErrorThatNobodySawIsToldByTheNextCall) {
  for (const bool byRead : {false, true}) {
    Pty broken;
    ISerialPort* const breaking = MakePort(broken.Name());
    ASSERT_NE(breaking, nullptr);
    const LogCapture log;
    const WriteDouble driver(broken.Name(), [](std::size_t) { return -EIO; });
    EXPECT_TRUE(Writes(*breaking, "x"));
    EXPECT_TRUE(WaitsFor([&] { return !log.Lines().empty(); }));
    EXPECT_EQ(byRead ? ReadOnce(*breaking) : Writes(*breaking, "y") ? 0 : -1, -1);
    EXPECT_THAT(log.OnlyError(), HasSubstr(broken.Name() + " is lost"));
  }
}

TEST_F(Gathering, AReadTellsTheErrorThatItMeets) {
  const LogCapture log;
  const WriteDouble driver(pty.Name(), [](std::size_t) { return -EIO; });
  EXPECT_TRUE(Writes(*port, "x"));
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_THAT(log.OnlyError(), HasSubstr("is lost"));
}

TEST_F(Gathering, ADriverThatTakesAFewBytesAtATimeGetsAllOfThemInOrder) {
  std::atomic<unsigned> calls{0};
  const WriteDouble driver(pty.Name(), [&](std::size_t size) {
    return calls++ % 2 == 0 ? -EAGAIN : static_cast<int>(std::min<std::size_t>(size, 100));
  });
  const std::string frame = Pattern(kFrame);
  EXPECT_TRUE(WritesOneByOne(*port, frame));
  EXPECT_EQ(ReadOnce(*port), 0);
  EXPECT_EQ(pty.Receive(kFrame), frame);
}

TEST_F(Gathering, ReadsHandOverWhatADriverHadNoRoomFor) {
  std::atomic<bool> full{true};
  const WriteDouble driver(pty.Name(),
                           [&](std::size_t size) { return full ? -EAGAIN : static_cast<int>(size); });
  EXPECT_TRUE(Writes(*port, "abc"));
  EXPECT_EQ(ReadOnce(*port), 0);
  full = false;
  const WatchedWrites writes(pty.Name());
  EXPECT_EQ(ReadOnce(*port), 0);
  EXPECT_EQ(Sum(writes.Sizes()), 3u);
  EXPECT_TRUE(Writes(*port, "def"));
  EXPECT_EQ(pty.Receive(6), "abcdef");
}

// Nobody calls meanwhile, so it is the flusher that asks.
TEST_F(Gathering, ADriverWithoutRoomIsAskedNowAndThenForFiveSecondsAndThenTheNextCallTells) {
  const LogCapture log;
  std::atomic<int> asked{0};
  {
    const WriteDouble driver(pty.Name(), [&](std::size_t) {
      ++asked;
      return -EAGAIN;
    });
    EXPECT_TRUE(WritesOneByOne(*port, "lost"));
    double cpu = 1;
    EXPECT_GE(SecondsOf([&] {
                cpu = CpuSecondsOf([&] {
                  Pause(4500);
                  EXPECT_TRUE(log.Lines().empty());
                  EXPECT_TRUE(WaitsFor([&] { return !log.Lines().empty(); }));
                });
              }),
              4.9);
    EXPECT_LT(cpu, 1.0);
    EXPECT_GT(asked, 10);
    EXPECT_LT(asked, 600);
  }
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_THAT(log.OnlyError(), HasSubstr(pty.Name() + " took only 0 of 4 bytes in 5000 ms"));
  EXPECT_EQ(ReadOnce(*port), 0) << "it is told once";
  EXPECT_TRUE(Writes(*port, "kept"));
  EXPECT_EQ(pty.Receive(4), "kept");
}

TEST_F(Gathering, WritingByteByByteWithoutRoomFailsAfterFiveSecondsAndLeavesThePortAlive) {
  const LogCapture log;
  {
    const WriteDouble driver(pty.Name(), [](std::size_t) { return -EAGAIN; });
    const std::string bytes(2 * kMemory, 'x');
    const double seconds = SecondsOf([&] { EXPECT_FALSE(WritesOneByOne(*port, bytes)); });
    EXPECT_GE(seconds, 4.9);
    EXPECT_LT(seconds, 7.0);
  }
  EXPECT_THAT(log.OnlyError(),
              AllOf(HasSubstr("bytes in 5000 ms; is the device on"), Not(HasSubstr(" AND "))));
  EXPECT_TRUE(Writes(*port, "kept"));
  EXPECT_EQ(pty.Receive(4), "kept");
}

TEST_F(Gathering, ATakeOverHandsOverWhatTheOlderPortHasGathered) {
  EXPECT_TRUE(WritesOneByOne(*port, "older "));
  const WatchedWrites writes(pty.Name());
  ISerialPort* const newer = MakePort(pty.Name());
  ASSERT_NE(newer, nullptr);
  EXPECT_TRUE(Writes(*newer, "newer"));
  EXPECT_EQ(pty.Receive(11), "older newer");
}

TEST_F(Gathering, ATakeOverDoesNotWaitForADriverWithoutRoom) {
  const LogCapture log;
  ISerialPort* newer = nullptr;
  {
    const WriteDouble driver(pty.Name(), [](std::size_t) { return -EAGAIN; });
    EXPECT_TRUE(Writes(*port, "dropped"));
    EXPECT_LT(SecondsOf([&] { newer = MakePort(pty.Name()); }), 1.0);
  }
  ASSERT_NE(newer, nullptr);
  Pause(30);
  EXPECT_TRUE(Writes(*newer, "newer"));
  EXPECT_EQ(pty.Receive(5), "newer");
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Gathering, AProcessThatEndsHandsOverWhatItHasGathered) {
  for (int round = 0; round < 20; ++round) {
    Pty line;
    const CDescriptor keepsTheSlave(open(line.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int result = InChild([&] {
      ISerialPort* const last = MakePort(line.Name());
      if (last == nullptr || !WritesOneByOne(*last, "last words")) {
        return 1;
      }
      std::exit(0);
    });
    EXPECT_EQ(result, 0);
    ASSERT_EQ(line.Receive(10), "last words");
  }
}

TEST_F(Gathering, WithoutAThreadToHaveNothingIsHeldBack) {
  const int result = InChild([] {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
      return 2;
    }
    const rlimit none{0, 0};
    Pty line;
    ISerialPort* const alone = MakePort(line.Name());
    if (alone == nullptr || setrlimit(RLIMIT_NPROC, &none) != 0) {
      return 3;
    }
    const WatchedWrites writes(line.Name());
    return WritesOneByOne(*alone, "abc") && writes.Sizes() == Sizes{1, 1, 1} ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(Gathering, AChildProcessGathersAndFlushesByItself) {
  SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE();
  EXPECT_TRUE(Writes(*port, "parent"));
  EXPECT_EQ(pty.Receive(6), "parent");
  const int result = InChild([] {
    Pty line;
    ISerialPort* const own = MakePort(line.Name());
    return own != nullptr && WritesOneByOne(*own, "child") && line.Receive(5) == "child" ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(Gathering, AChildProcessDoesNotRepeatWhatItsParentHasGathered) {
  SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE();
  const WriteDouble notYet(pty.Name(), [parent = getpid()](std::size_t size) {
    return getpid() == parent ? -EAGAIN : static_cast<int>(size);
  });
  EXPECT_TRUE(WritesOneByOne(*port, "once"));
  EXPECT_EQ(InChild([] {
              std::exit(0);
              return 1;
            }),
            0);
  EXPECT_EQ(InChild([&] { return MakePort(pty.Name()) != nullptr ? 0 : 1; }), 0);
  pollfd repeated{pty.Master(), POLLIN, 0};
  EXPECT_EQ(poll(&repeated, 1, 50), 0);
}

// Whatever moment of the flusher and of the port's user the process divides at.
TEST_F(Gathering, AChildProcessGoesOnWithItsParentsPortButNotWithItsParentsBytes) {
  SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE();
  for (int round = 0; round < 20; ++round) {
    EXPECT_TRUE(WritesOneByOne(*port, "parent "));
    const int result =
        InChild([&] { return WritesOneByOne(*port, "child ") && ReadOnce(*port) == 0 ? 0 : 1; });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ReadOnce(*port), 0);
    const std::string both = pty.Receive(13);
    EXPECT_TRUE(both == "parent child " || both == "child parent ") << both;
  }
}

TEST_F(Gathering, AWriteThatWaitsForRoomDoesNotHoldUpOtherPorts) {
  Pty other;
  ISerialPort* const second = MakePort(other.Name());
  ASSERT_NE(second, nullptr);
  const CDescriptor filler(open(pty.Name().c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  std::size_t filled = 0;
  while (write(filler.Get(), "f", 1) == 1) {
    ++filled;
  }
  EXPECT_TRUE(Writes(*port, "x"));
  std::thread waiting([&] { EXPECT_TRUE(Writes(*port, Pattern(kMemory))); });
  Pause(5);
  std::vector<double> seconds(20);
  for (double& taken : seconds) {
    taken = SecondsOf([&] {
      EXPECT_TRUE(Writes(*second, "x"));
      EXPECT_EQ(other.Receive(1), "x");
    });
  }
  EXPECT_EQ(pty.Receive(filled + 1 + kMemory), std::string(filled, 'f') + "x" + Pattern(kMemory));
  waiting.join();
  std::sort(seconds.begin(), seconds.end());
  EXPECT_LT(seconds[10], 0.02) << "half of them would wait for the other port's 50 ms";
}

TEST_F(Gathering, AFlusherWithNothingToDoSleepsAndTakesNoSignals) {
  EXPECT_TRUE(Writes(*port, "x"));
  EXPECT_EQ(pty.Receive(1), "x");
  EXPECT_LT(CpuSecondsOf([] { Pause(500); }), 0.1);
  const auto masks = BlockedSignalsOfOtherThreads();
  const unsigned long meantForTheHost = 1UL << (SIGINT - 1) | 1UL << (SIGTERM - 1) | 1UL << (SIGUSR1 - 1);
  EXPECT_TRUE(std::any_of(masks.begin(), masks.end(),
                          [&](unsigned long mask) { return (mask & meantForTheHost) == meantForTheHost; }));
}

TEST_F(Gathering, ReadsAreServedFromWhatOneCallHasFetched) {
  pty.Send("abc");
  EXPECT_EQ(ReadBytes(*port, 0), "");
  TUint8 byte = 0;
  TUint32 received = 0;
  EXPECT_TRUE(WaitsFor([&] { return port->Read(&byte, 1, &received) == 0 && received == 1; }));
  EXPECT_EQ(byte, 'a');
  pty.Unplug();
  const LogCapture log;
  EXPECT_EQ(ReadBytes(*port, 2), "bc");
  EXPECT_EQ(ReadOnce(*port), -1);
}

TEST_F(Gathering, AnyMixOfWritesReadsAndPausesKeepsEveryByteInItsPlace) {
  constexpr std::size_t kSize = 2 * 1024 * 1024;
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(static_cast<unsigned>(seed));
  std::string there(kSize, '\0');
  std::string back(kSize, '\0');
  std::generate(there.begin(), there.end(), [&] { return static_cast<char>(random()); });
  std::generate(back.begin(), back.end(), [&] { return static_cast<char>(random()); });
  std::string arrived;
  std::thread device([&] { arrived = pty.Receive(kSize); });
  std::thread talker([&, pieces = std::mt19937(seed + 1)]() mutable {
    for (std::size_t sent = 0; sent < kSize;) {
      const std::size_t piece = std::min<std::size_t>(1 + pieces() % 1500, kSize - sent);
      const ssize_t taken = write(pty.Master(), back.data() + sent, piece);
      ASSERT_GT(taken, 0);
      sent += static_cast<std::size_t>(taken);
    }
  });
  std::string received;
  std::size_t written = 0;
  while (written < kSize || received.size() < kSize) {
    const std::size_t choice = random() % 100;
    const std::size_t burst = choice < 60 ? 1 : choice < 90 ? random() % 64 : random() % 6000;
    const std::size_t count = std::min(burst, kSize - written);
    const std::string piece = there.substr(written, count);
    ASSERT_TRUE(choice < 95 ? Writes(*port, piece) : WritesOneByOne(*port, piece));
    written += count;
    std::array<TUint8, 5000> block;
    TUint32 got = 0;
    ASSERT_EQ(port->Read(block.data(), static_cast<TUint32>(1 + random() % (block.size() - 1)), &got), 0);
    received.append(reinterpret_cast<const char*>(block.data()), got);
    if (random() % 2000 == 0) {
      Pause(3);
    }
  }
  device.join();
  talker.join();
  EXPECT_TRUE(arrived == there);
  EXPECT_TRUE(received == back);
}

// ---- Waiting ----

TEST_F(Waiting, APollingLoopOnASilentLineLeavesTheProcessorAlone) {
  int polls = 0;
  const double cpu = CpuSecondsOf([&] {
    const TUint64 start_ms = OSALTickCount();
    while (OSALTickCount() - start_ms < 500) {
      ASSERT_EQ(ReadOnce(*port), 0);
      platSleep(0);
      ++polls;
    }
  });
  EXPECT_LT(cpu, 0.1);
  EXPECT_LE(polls, 101) << "a pause lasts five milliseconds";
  EXPECT_GT(polls, 1);
}

TEST_F(Waiting, APauseEndsWhenSomethingArrives) {
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(ReadOnce(*port), 0);
    std::thread device([&] {
      Pause(1);
      pty.Send("x");
    });
    best = std::min(best, SecondsOf([] { platSleep(0); }));
    device.join();
    EXPECT_EQ(ReadBytes(*port, 1), "x");
  }
  EXPECT_LT(best, 0.004) << "a pause that nothing ends lasts five milliseconds";
}

TEST_F(Waiting, BytesThatAreThereAreTakenWithoutAPause) {
  const std::string bytes = Pattern(1000);
  pty.Send(bytes);
  std::string taken = ReadBytes(*port, 1);
  const double seconds = SecondsOf([&] {
    while (taken.size() < bytes.size()) {
      TUint8 byte = 0;
      TUint32 received = 0;
      ASSERT_EQ(port->Read(&byte, 1, &received), 0);
      platSleep(0);
      taken.append(received, static_cast<char>(byte));
    }
  });
  EXPECT_EQ(taken, bytes);
  EXPECT_LT(seconds, 2.5) << "a pause that nothing ends lasts five milliseconds";
}

TEST_F(Waiting, OnlyTheFirstPauseAfterAPollBelongsToIt) {
  ASSERT_EQ(ReadOnce(*port), 0);
  platSleep(0);
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 10; ++round) {
    best = std::min(best, SecondsOf([] {
                      for (int i = 0; i < 40; ++i) {
                        platSleep(0);
                      }
                    }));
  }
  EXPECT_LT(best, 0.1) << "a pause after a poll lasts five milliseconds";
}

TEST_F(Waiting, AHungUpLineEndsThePauseAndTheNextReadTells) {
  const LogCapture log;
  ASSERT_EQ(ReadOnce(*port), 0);
  pty.Unplug();
  EXPECT_LT(SecondsOf([] { platSleep(0); }), 1.0);
  EXPECT_EQ(ReadOnce(*port), -1);
}

TEST_F(Waiting, ATakenOverPortIsNotWaitedFor) {
  ASSERT_EQ(ReadOnce(*port), 0);
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  EXPECT_LT(SecondsOf([] { platSleep(0); }), 1.0);
}
