// Goal: the rate is that of the last seconds, and the time left follows from it.
// Method: samples at made-up times.
#include "TransferRate.h"

#include <gtest/gtest.h>

namespace {

using host::TransferRate;
using namespace std::chrono_literals;

constexpr TransferRate::Time kStart{};

TEST(TransferRate, IsUnknownUntilTwoSamplesAreFarEnoughApart) {
  TransferRate rate;
  EXPECT_EQ(rate.Rate_Bps(), std::nullopt);
  rate.Add(0, kStart);
  rate.Add(100, kStart + 499ms);
  EXPECT_EQ(rate.Rate_Bps(), std::nullopt);
  EXPECT_EQ(rate.TimeFor(1), std::nullopt);
  rate.Add(100, kStart + 500ms);
  EXPECT_EQ(rate.Rate_Bps(), 200.0);
}

TEST(TransferRate, FollowsAChangeWithinTheWindow) {
  TransferRate rate;
  std::int64_t bytes = 0;
  for (int i = 0; i <= 200; ++i) {
    rate.Add(bytes, kStart + i * 100ms);
    bytes += i < 100 ? 1000 : 10;
  }
  EXPECT_EQ(rate.Rate_Bps(), 100.0);
}

TEST(TransferRate, CountsSamplesInQuickSuccession) {
  TransferRate rate;
  for (int i = 0; i <= 10000; ++i) {
    rate.Add(i, kStart + i * 1ms);
  }
  EXPECT_EQ(rate.Rate_Bps(), 1000.0);
}

TEST(TransferRate, TheTimeLeftIsRoundedUp) {
  TransferRate rate;
  rate.Add(0, kStart);
  rate.Add(1000, kStart + 1s);
  EXPECT_EQ(rate.TimeFor(0), 0s);
  EXPECT_EQ(rate.TimeFor(1001), 2s);
}

TEST(TransferRate, ALineThatStandsStillHasNoTimeLeft) {
  TransferRate rate;
  rate.Add(5, kStart);
  rate.Add(5, kStart + 1s);
  EXPECT_EQ(rate.Rate_Bps(), 0.0);
  EXPECT_EQ(rate.TimeFor(1), std::nullopt);
}

TEST(TransferRate, BeginsAnewWithAnotherAttempt) {
  TransferRate rate;
  rate.Add(1000, kStart);
  rate.Add(2000, kStart + 1s);
  rate.Add(10, kStart + 2s);
  EXPECT_EQ(rate.Rate_Bps(), std::nullopt);
}

}  // namespace
