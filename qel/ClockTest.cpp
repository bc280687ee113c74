// The tick clock against a scripted counter and wall clock, then utcNow
// against the system's real-time clock.
#include <time.h>

#include <gtest/gtest.h>

#include <cmath>

#include "qel/String.h"
#include "qel/TickClock.h"

namespace {

using Qel::Seconds;
using Qel::TickClock;

// A 1 GHz counter and a wall clock that the tests move; the wall runs at
// the counter's rate times (1 + drift), plus any step a test makes.
struct Fake {
  static inline TickClock::Ticks ticks = 0;
  static inline Seconds wallAtZero = 1.7e9;
  static inline double drift = 0;
  static inline int wallReads = 0;
  static TickClock::Ticks readTicks() { return ticks; }
  static Seconds wall() { return wallAtZero + static_cast<double>(ticks) * 1e-9 * (1 + drift); }
  static Seconds readWall() {
    ++wallReads;
    return wall();
  }
};

class TickClockTest : public ::testing::Test {
 protected:
  TickClockTest() {
    Fake::ticks = 1000;
    Fake::wallAtZero = 1.7e9;
    Fake::drift = 0;
    Fake::wallReads = 0;
  }
  // Moves the counter on by `seconds` and reads the clock.
  Seconds after(Seconds seconds) {
    Fake::ticks += static_cast<TickClock::Ticks>(seconds * 1e9);
    return clock_.now();
  }
  // Reads every 0.1 ms until the rate is known.
  void calibrate() {
    while (!clock_.calibrated()) after(1e-4);
    Fake::wallReads = 0;
  }

  TickClock clock_{&Fake::readTicks, &Fake::readWall};
};

TEST_F(TickClockTest, UntilAMillisecondOfWallTimeHasPassedEveryReadingIsAWallRead) {
  for (int i = 0; i < 10; ++i) {  // from 0 to 0.9 ms after the first reading
    const Seconds read = after(1e-4);
    EXPECT_EQ(read, Fake::wall());
  }
  EXPECT_EQ(Fake::wallReads, 10);
  EXPECT_FALSE(clock_.calibrated());
  after(2e-4);
  EXPECT_TRUE(clock_.calibrated());
  // Measured from seconds since the epoch in doubles: close, not exact.
  EXPECT_NEAR(clock_.secondsPerTick(), 1e-9, 1e-12);
}

TEST_F(TickClockTest, OnceCalibratedItReadsTheWallOnceAMillisecondAndExtrapolatesBetween) {
  calibrate();
  for (int i = 0; i < 1100; ++i) {
    const Seconds read = after(1e-6);
    EXPECT_NEAR(read, Fake::wall(), 1e-6);  // the resolution of a double near 1.7e9 s
  }
  EXPECT_EQ(Fake::wallReads, 1);  // 1.1 ms of ticks: one refresh
}

TEST_F(TickClockTest, AWallClockStepEitherWayIsFollowedAtTheNextRefresh) {
  for (Seconds step : {+1.0, -1.0, +2e-4}) {
    SCOPED_TRACE(step);
    calibrate();
    Fake::wallAtZero += step;
    Seconds read = 0;
    for (int i = 0; i < 1100; ++i) read = after(1e-6);
    EXPECT_EQ(read, Fake::wall());
    EXPECT_FALSE(clock_.calibrated()) << "the rate is measured again after a step";
  }
}

TEST_F(TickClockTest, ACounterThatGoesBackwardsIsNotExtrapolatedFrom) {
  calibrate();
  Fake::ticks -= 5000;
  EXPECT_EQ(clock_.now(), Fake::wall());
  EXPECT_EQ(Fake::wallReads, 1);
  EXPECT_FALSE(clock_.calibrated());
}

TEST_F(TickClockTest, ACounterThatStandsStillNeverCalibrates) {
  for (int i = 0; i < 20; ++i) {
    Fake::wallAtZero += 1e-3;
    EXPECT_EQ(clock_.now(), Fake::wall());
  }
  EXPECT_FALSE(clock_.calibrated());
}

// A wall clock slewed slower than the measured rate: the refresh finds it a
// little behind the extrapolation, and readings hold still rather than go
// back; they stay within the drift of the wall clock.
TEST_F(TickClockTest, ReadingsNeverGoBackAndStayWithinTheDriftOfTheWall) {
  Fake::wallAtZero = 1000;  // near zero, a double resolves well below the steps
  calibrate();
  Fake::drift = -5e-4;  // NTP's largest slew: 0.5 us behind per millisecond
  Seconds previous = clock_.now();
  for (int i = 0; i < 100000; ++i) {
    const Seconds read = after(1e-7);
    ASSERT_GE(read, previous) << "reading " << i;
    ASSERT_NEAR(read, Fake::wall(), 2e-6);
    previous = read;
  }
  EXPECT_GE(Fake::wallReads, 9);
}

TEST(UtcNowTest, FollowsTheSystemRealTimeClock) {
  Qel::utcNowFunctionIs(nullptr);
  // Long enough for the tick clock, where it is used, to calibrate and
  // refresh many times.
  for (int i = 0; i < 200000; ++i) {
    const Seconds ours = Qel::utcNow();
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    const Seconds system = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
    // Loose: this thread may be preempted between the two reads.
    ASSERT_LT(std::fabs(system - ours), 0.05) << "reading " << i;
  }
}

}  // namespace
