// Goal: the clock counts milliseconds, and a pause lasts as long as it was asked for.
// Method: compared with the C++ library's steady clock; signals interrupt a pause many times.
#include "Clock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include "Support.h"

namespace {

// Interrupts the process every five milliseconds for as long as it lives.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &iFormer);
    SetTimer(5000);
  }
  ~Interruptions() {
    SetTimer(0);
    sigaction(SIGALRM, &iFormer, nullptr);
  }

 private:
  static void SetTimer(suseconds_t period_us) {
    const itimerval timer{{0, period_us}, {0, period_us}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }

  struct sigaction iFormer {};
};

}  // namespace

TEST(Clock, CountsMilliseconds) {
  const TUint64 start = OSALTickCount();
  const double seconds = SecondsOf([] { platSleep(120000); });
  const auto counted = static_cast<double>(OSALTickCount() - start);
  EXPECT_GE(counted, 119);
  EXPECT_NEAR(counted, seconds * 1000, 20);
}

TEST(Clock, APauseLastsAtLeastAsLongAsAsked) {
  EXPECT_GE(SecondsOf([] { platSleep(20000); }), 0.020);
  EXPECT_GE(SecondsOf([] { platSleep(1100000); }), 1.100);
}

TEST(Clock, SignalsDoNotShortenAPause) {
  const Interruptions interruptions;
  EXPECT_GE(SecondsOf([] { platSleep(100000); }), 0.100);
}

TEST(Clock, ZeroAndLessDoNotPause) {
  EXPECT_LT(SecondsOf([] {
              for (int i = 0; i < 100; ++i) {
                platSleep(0);
                platSleep(-1000000);
              }
            }),
            0.9);
}
