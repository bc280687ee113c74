// utcNow: the system's real-time clock, read through a per-thread
// TickClock where the processor's counter can be trusted.
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "qel/String.h"
#include "qel/TickClock.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <x86intrin.h>
#define QEL_HAS_TSC 1
#endif

namespace Qel {

// ---- TickClock

Seconds TickClock::restart(Ticks t, Seconds wall) noexcept {
  secondsPerTick_ = 0;
  refreshTicks_ = 0;
  baseTicks_ = anchorTicks_ = t;
  baseWall_ = anchorWall_ = wall;
  based_ = true;
  last_ = wall;
  return wall;
}

Seconds TickClock::refresh(Ticks t) noexcept {
  const Seconds wall = wall_();
  if (!based_) return restart(t, wall);
  if (secondsPerTick_ > 0) {
    const Seconds predicted = anchorWall_ + static_cast<double>(t - anchorTicks_) * secondsPerTick_;
    const Seconds off = wall - predicted;
    if (t < anchorTicks_ || off > kTolerance || off < -kTolerance) return restart(t, wall);
  } else if (t <= baseTicks_ || wall < baseWall_) {
    return restart(t, wall);
  }
  if (wall - baseWall_ >= kMinWindow) {
    // Over the whole time since the measurement started: the longer the
    // window, the smaller the error a wall read's own jitter leaves.
    const double rate = (wall - baseWall_) / static_cast<double>(t - baseTicks_);
    if (!(rate > kMinSecondsPerTick && rate < kMaxSecondsPerTick)) return restart(t, wall);
    secondsPerTick_ = rate;
    refreshTicks_ = static_cast<Ticks>(kRefresh / rate);
  }
  anchorTicks_ = t;
  anchorWall_ = wall;
  // A wall read a little behind what was already handed out (the rate's
  // error) is not passed on; a step back beyond kTolerance restarted above.
  if (wall > last_) last_ = wall;
  return last_;
}

// ---- utcNow

namespace {

Seconds systemUtcNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

#ifdef QEL_HAS_TSC
TickClock::Ticks readTsc() {
  return __rdtsc();
}

// The counter is used only when the processor says it runs at a constant
// rate in every power state (invariant TSC) and the kernel keeps its own
// clock on it, which it does only after checking that the counters of all
// processors agree.
bool tscTrusted() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  // Declared returning int by some compilers' headers, unsigned by others.
  if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) < 0x80000007u) return false;
  __cpuid(0x80000007u, a, b, c, d);
  if (!(d & (1u << 8))) return false;
  std::FILE* f =
      std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "r");
  if (!f) return false;
  char source[32] = {};
  const bool read = std::fgets(source, sizeof source, f) != nullptr;
  const bool closed = std::fclose(f) == 0;
  return read && closed && std::strcmp(source, "tsc\n") == 0;
}

// One per thread: the clock keeps state, and threads share none.
__attribute__((tls_model("initial-exec"))) thread_local TickClock tscClock(&readTsc, &systemUtcNow);

enum : int { kUnknown = 0, kTicks = 1, kSystem = 2 };
// Decided once; a race between two first calls decides the same thing twice.
std::atomic<int> clockMode{kUnknown};

Seconds defaultUtcNow() {
  int mode = clockMode.load(std::memory_order_relaxed);
  if (mode == kUnknown) {
    mode = tscTrusted() ? kTicks : kSystem;
    clockMode.store(mode, std::memory_order_relaxed);
  }
  return mode == kTicks ? tscClock.now() : systemUtcNow();
}
#else
Seconds defaultUtcNow() {
  return systemUtcNow();
}
#endif

Seconds (*clockFunction)() = &defaultUtcNow;

}  // namespace

Seconds utcNow() {
  return clockFunction();
}

void utcNowFunctionIs(Seconds (*clock)()) {
  clockFunction = clock ? clock : &defaultUtcNow;
}

}  // namespace Qel
