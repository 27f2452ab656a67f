// Goal: bytes take the time that the speed asks for, to the microsecond, and the faults of the line hit.
// Method: an echoing device on lines of several speeds; every arrival is compared with its moment.
#include "simulator/Line.h"

#include <gtest/gtest.h>

#include <numeric>
#include <utility>
#include <vector>

#include "ScriptedHost.h"

namespace simulator {

namespace {

/// Answers each byte with itself and keeps the moments of everything that happens.
class Echo : public Device {
 public:
  void PowerOn(Micros now) override { power_ons.push_back(now); }
  void Receive(std::uint8_t byte, Micros now) override {
    received.push_back(byte);
    arrivals.push_back(now);
    timer = byte_stops_timer ? kNever : timer;
    if (echoes) {
      iOutput.push_back(byte);
    }
  }
  void Advance(Micros now) override {
    advances.push_back(now);
    timer = kNever;
  }
  Micros NextTimer() const override { return timer; }
  Bytes TakeOutput() override { return std::exchange(iOutput, {}); }

  bool echoes = true;
  bool byte_stops_timer = false;
  Micros timer = kNever;
  Bytes received;
  std::vector<Micros> arrivals;
  std::vector<Micros> advances;
  std::vector<Micros> power_ons;

 private:
  Bytes iOutput;
};

LineOptions At(std::int64_t baud) {
  LineOptions options;
  options.baud = baud;
  return options;
}

}  // namespace

TEST(Line, ByteTakesTenBitsInEachDirection) {
  Echo echo;
  Line line(echo, At(9600), 1000);
  const Bytes byte{0x42};
  EXPECT_EQ(line.HostWrite(byte.data(), 1, 1000), 1);
  EXPECT_EQ(line.NextEvent(1000), 1000 + 1042);
  line.Advance(2041);
  EXPECT_TRUE(echo.received.empty());
  line.Advance(2042);
  EXPECT_EQ(echo.arrivals, std::vector<Micros>{2042});
  EXPECT_EQ(line.NextEvent(2042), 2042 + 1042);
  std::uint8_t back = 0;
  EXPECT_EQ(line.HostRead(&back, 1, 3083), 0);
  EXPECT_EQ(line.NextEvent(3083), 3084);
  EXPECT_EQ(line.HostRead(&back, 1, 3084), 1);
  EXPECT_EQ(back, 0x42);
  EXPECT_EQ(line.NextEvent(3084), kNever);
}

TEST(Line, BurstKeepsTheExactMeanRate) {
  Echo echo;
  Line line(echo, At(115200), 0);
  const Bytes burst = Pattern(1152);
  line.HostWrite(burst.data(), burst.size(), 0);
  EXPECT_EQ(line.HostWriteEnd(), 100000);
  line.Advance(kSecond);
  ASSERT_EQ(echo.arrivals.size(), 1152u);
  EXPECT_EQ(echo.arrivals[0], 87);
  EXPECT_EQ(echo.arrivals[1], 174);
  EXPECT_EQ(echo.arrivals[2], 261);
  EXPECT_EQ(echo.arrivals[11], 1042);
  EXPECT_EQ(echo.arrivals.back(), 100000);
  EXPECT_EQ(echo.received, burst);
}

TEST(Line, EventsKeepTheirMomentsHoweverLateTheCallerComes) {
  Echo echo;
  echo.timer = 5000;
  Line line(echo, At(9600), 0);
  const Bytes bytes{1, 2};
  line.HostWrite(bytes.data(), 2, 0);
  line.Advance(kSecond);
  EXPECT_EQ(echo.arrivals, (std::vector<Micros>{1042, 2084}));
  EXPECT_EQ(echo.advances, std::vector<Micros>{5000});
  line.Advance(kSecond - 1);
  EXPECT_EQ(echo.advances.size(), 1u);
}

TEST(Line, ByteInTheMomentOfATimerComesFirst) {
  Echo echo;
  echo.timer = 1042;
  Line line(echo, At(9600), 0);
  const Bytes byte{1};
  line.HostWrite(byte.data(), 1, 0);
  echo.byte_stops_timer = true;
  line.Advance(1042);
  EXPECT_EQ(echo.arrivals, std::vector<Micros>{1042});
  EXPECT_TRUE(echo.advances.empty());
}

TEST(Line, UnpacedBytesTakeNoTime) {
  Echo echo;
  Line line(echo, At(0), 0);
  const Bytes bytes = Pattern(3000);
  EXPECT_EQ(line.HostWrite(bytes.data(), bytes.size(), 7), 3000);
  EXPECT_EQ(line.NextEvent(7), 7);
  Bytes back(3000);
  EXPECT_EQ(line.HostRead(back.data(), back.size(), 7), 3000);
  EXPECT_EQ(back, bytes);
}

TEST(Line, AcceptsNoMoreThanItsCapacity) {
  Echo echo;
  Line line(echo, At(9600), 0);
  const Bytes bytes = Pattern(5000);
  EXPECT_EQ(line.HostWrite(bytes.data(), bytes.size(), 0), 4096);
  EXPECT_EQ(line.HostWriteSpace(), 0u);
  line.Advance(1042);
  EXPECT_EQ(line.HostWriteSpace(), 1u);
}

TEST(Line, WhatTheHostNeverReadsIsLostBeyondTheCapacity) {
  Echo echo;
  Line line(echo, At(0), 0);
  const Bytes bytes = Pattern(5000);
  EXPECT_EQ(line.HostWrite(bytes.data(), 4096, 0), 4096);
  EXPECT_EQ(line.LostToHost(), 0u);
  EXPECT_EQ(line.HostWrite(bytes.data(), 904, 0), 904);
  EXPECT_EQ(line.LostToHost(), 904u);
  Bytes back(5000);
  EXPECT_EQ(line.HostRead(back.data(), back.size(), 0), 4096);
}

TEST(Line, DiscardsOnlyWhatHasArrived) {
  Echo echo;
  Line line(echo, At(9600), 0);
  const Bytes bytes{1, 2, 3};
  line.HostWrite(bytes.data(), 3, 0);
  line.HostDiscardInput(3200);  // Bytes 1 and 2 are back at 2084 and 3126.
  std::uint8_t byte = 0;
  EXPECT_EQ(line.HostRead(&byte, 1, kSecond), 1);
  EXPECT_EQ(byte, 3);
}

TEST(Line, UnplugsAfterTheGivenNumberOfBytes) {
  Echo echo;
  LineOptions options = At(0);
  options.unplug_after_bytes = 3;
  Line line(echo, options, 0);
  const Bytes bytes = Pattern(5);
  EXPECT_EQ(line.HostWrite(bytes.data(), 2, 0), 2);
  EXPECT_FALSE(line.Unplugged());
  EXPECT_EQ(line.HostWrite(bytes.data(), 3, 0), -1);
  EXPECT_TRUE(line.Unplugged());
  std::uint8_t byte = 0;
  EXPECT_EQ(line.HostRead(&byte, 1, 0), -1);
  EXPECT_EQ(line.NextEvent(0), kNever);
  EXPECT_EQ(echo.received.size(), 3u);
}

TEST(Line, UnplugsAtTheGivenMoment) {
  Echo echo;
  LineOptions options = At(9600);
  options.unplug_at_us = 1500;
  Line line(echo, options, 0);
  const Bytes bytes{1, 2};
  line.HostWrite(bytes.data(), 2, 0);
  line.Advance(1042);
  EXPECT_EQ(line.NextEvent(1042), 1500);
  line.Advance(kSecond);
  EXPECT_TRUE(line.Unplugged());
  EXPECT_EQ(echo.received, Bytes{1});
}

TEST(Line, PowersTheDeviceOnAtTheBeginningAndWhenCycled) {
  Echo echo;
  Line line(echo, At(9600), 10);
  line.PowerCycle(500);
  EXPECT_EQ(echo.power_ons, (std::vector<Micros>{10, 500}));
}

TEST(Noise, DisturbsTheAskedShareOfBytesInAllThreeWays) {
  Echo echo;
  echo.echoes = false;
  LineOptions options = At(0);
  options.noise_rate = 0.1;
  Line line(echo, options, 0);
  int flipped = 0, lost = 0, inserted = 0;
  constexpr int kBytes = 30000;
  for (int index = 0; index < kBytes; ++index) {
    const std::uint8_t byte = 0;
    echo.received.clear();
    ASSERT_EQ(line.HostWrite(&byte, 1, 0), 1);
    flipped += echo.received.size() == 1 && echo.received[0] != 0 ? 1 : 0;
    lost += echo.received.empty() ? 1 : 0;
    inserted += echo.received.size() == 2 && echo.received[1] == 0 ? 1 : 0;
  }
  for (const int count : {flipped, lost, inserted}) {
    EXPECT_NEAR(count, kBytes / 30, 150);
  }
}

TEST(Noise, IsTheSameForTheSameSeedOnly) {
  const auto received = [](std::uint64_t seed) {
    Echo echo;
    LineOptions options = At(115200);
    options.noise_rate = 0.05;
    options.noise_seed = seed;
    Line line(echo, options, 0);
    const Bytes bytes = Pattern(2000);
    line.HostWrite(bytes.data(), bytes.size(), 0);
    line.Advance(kSecond);
    return echo.received;
  };
  EXPECT_EQ(received(5), received(5));
  EXPECT_NE(received(5), received(6));
}

}  // namespace simulator
