// The wall clock, read through a cheap tick counter.
//
// Reading CLOCK_REALTIME costs 20 to 30 ns on the virtual machines a device
// image is tested on, more than recording the rest of an event; the
// processor's time-stamp counter costs a third of that. A TickClock reads
// the wall clock once a millisecond and, in between, extrapolates from the
// ticks at a rate it measures itself, so a reading stays within a
// microsecond or so of the wall clock (the rate error times one
// millisecond) and follows every step of it within a millisecond.
//
// A counter that stops or jumps (a suspend, a virtual machine moved to
// another host) is caught at the next refresh, within a millisecond of
// ticks: until then readings continue from the last wall read.
//
// Internal to the framework: utcNow() uses one per thread when the counter
// is trustworthy (an invariant TSC that the kernel itself uses as its
// clock source), the system clock otherwise.
#ifndef QEL_TICKCLOCK_H
#define QEL_TICKCLOCK_H

#include <cstdint>

#include "qel/String.h"

namespace Qel {

class TickClock {
 public:
  using Ticks = std::uint64_t;
  using TickSource = Ticks (*)();
  using WallSource = Seconds (*)();

  // The wall clock is read at least this often.
  static constexpr Seconds kRefresh = 1e-3;
  // The rate is measured over at least this much wall time; until then
  // every reading is a wall-clock read.
  static constexpr Seconds kMinWindow = 1e-3;
  // A refresh that finds the wall clock further than this from the
  // extrapolation (a clock step, a counter that jumped) starts measuring
  // the rate over; a smaller difference backwards is not passed on, so
  // readings of one clock never go back by less than this.
  static constexpr Seconds kTolerance = 1e-4;
  // A counter between 1 MHz and 100 GHz; a measured rate outside these
  // bounds is not a clock, and the measurement starts over.
  static constexpr double kMinSecondsPerTick = 1e-11;
  static constexpr double kMaxSecondsPerTick = 1e-6;
  // Invariant: refreshTicks_ < 2^31, so the ticks since the anchor that
  // now() extrapolates from fit a signed 32-bit integer: converting one to
  // double is a single instruction even in 32-bit code, where an unsigned
  // 64-bit one goes through memory twice and costs more than the rest of
  // the reading.
  static_assert(kRefresh / kMinSecondsPerTick < 2147483647.0,
                "a refresh interval's ticks must fit 31 bits");

  // Constant-initialised, so that a thread_local instance needs no guard.
  constexpr TickClock(TickSource ticks, WallSource wall) noexcept : ticks_(ticks), wall_(wall) {}

  Seconds now() noexcept {
    const Ticks t = ticks_();
    if (secondsPerTick_ > 0) {
      // Unsigned: a counter that went backwards reads as far ahead and
      // takes the refresh, which then finds the mismatch.
      const Ticks since = t - anchorTicks_;
      if (since < refreshTicks_) {
        const Seconds s =
            anchorWall_ + static_cast<double>(static_cast<std::int32_t>(since)) * secondsPerTick_;
        if (s > last_) last_ = s;
        return last_;
      }
    }
    return refresh(t);
  }

  bool calibrated() const noexcept { return secondsPerTick_ > 0; }
  double secondsPerTick() const noexcept { return secondsPerTick_; }

 private:
  Seconds refresh(Ticks t) noexcept;
  Seconds restart(Ticks t, Seconds wall) noexcept;

  TickSource ticks_;
  WallSource wall_;
  // Invariant: secondsPerTick_ > 0 exactly when refreshTicks_ is set from
  // it and the anchor is a (ticks, wall) pair read together.
  double secondsPerTick_ = 0;
  Ticks refreshTicks_ = 0;
  Ticks anchorTicks_ = 0;
  Seconds anchorWall_ = 0;
  // Where the rate measurement started.
  Ticks baseTicks_ = 0;
  Seconds baseWall_ = 0;
  bool based_ = false;
  // The latest reading handed out.
  Seconds last_ = 0;
};

}  // namespace Qel

#endif  // QEL_TICKCLOCK_H
