// The cost of recording one event on a full writer (keepLastEntries, 1024
// entries, so every event evicts the oldest), tracing off, measured side by
// side with spdlog's ring-buffer sink doing the same job: keep the last 1024
// lines of 64 bytes.
//
// Google Benchmark first times each job on its own. The summary that
// follows is what the figures are quoted from: 31 rounds in which every job
// runs once, in a rotating order, each on a fresh full log that is built
// before and released (with the allocator trimmed) after its clock; it
// prints each job's median and 10th to 90th percentile spread, entries per
// second, the per-round ratios to spdlog, the cost of an event apart from
// its clock read, the heap per stored entry as the allocator counts it, and
// the heap allocations per event.
//
// Allocations are counted by interposing malloc, calloc and realloc in this
// executable: the framework's strings and its per-type allocator call malloc
// directly, so counting operator new alone would miss exactly the blocks
// that matter here.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/Spread.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/String.h"
#include "qel/Trace.h"

// ---- Allocation counting

namespace {
std::uint64_t gAllocations = 0;  // the benchmarks run on one thread
}

// AddressSanitizer owns malloc in its builds; there the counts stay 0 and the
// summary says they are unavailable.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCountsAllocations = false;
#else
constexpr bool kCountsAllocations = true;

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* p, std::size_t size);
}

extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept {
  ++gAllocations;
  return __libc_malloc(size);
}
extern "C" __attribute__((visibility("default"))) void* calloc(std::size_t count,
                                                               std::size_t size) noexcept {
  ++gAllocations;
  return __libc_calloc(count, size);
}
extern "C" __attribute__((visibility("default"))) void* realloc(void* p,
                                                                std::size_t size) noexcept {
  ++gAllocations;
  return __libc_realloc(p, size);
}
#endif

namespace {

constexpr unsigned kCapacity = 1024;
constexpr std::size_t kMessageBytes = 64;

// 64 bytes of a plausible event line.
const std::string& messageText() {
  static const std::string text = [] {
    std::string s = "bgp peer 192.0.2.17 state change Established -> Idle (hold timer)";
    s.resize(kMessageBytes, '.');
    return s;
  }();
  return text;
}

Qel::String freshMessage() {
  return Qel::String(messageText().data(), messageText().size());
}

// A writer whose log is full, so that each further event evicts one entry.
KronlogWriter::Writer::Ptr fullWriter() {
  KronlogWriter::Writer::Ptr w = KronlogWriter::writerFactory(
      "bench", KronlogWriter::Config(kCapacity, KronlogWriter::keepLastEntries));
  for (unsigned k = 0; k < kCapacity; ++k) w->eventIs(freshMessage());
  return w;
}

struct SpdlogRing {
  SpdlogRing()
      : sink(std::make_shared<spdlog::sinks::ringbuffer_sink_st>(kCapacity)),
        logger("bench", sink) {
    logger.set_pattern("%v");
    logger.set_level(spdlog::level::info);
    for (unsigned k = 0; k < kCapacity; ++k) logger.info(std::string_view(messageText()));
  }
  std::shared_ptr<spdlog::sinks::ringbuffer_sink_st> sink;
  spdlog::logger logger;
};

std::uint64_t nodeSystemAllocations() {
  return KronlogWriter::Writer::QelLog::qelAllocator().systemAllocations();
}

void tracingOff() {
  Qel::traceLevelsIs("Kronlog", 0);
}

// Reported with each run: heap allocations per event inside the timed loop.
void allocationCounters(benchmark::State& state, std::uint64_t allocations,
                        std::uint64_t nodeAllocations) {
  const double n = static_cast<double>(state.iterations());
  state.counters["allocs/event"] = static_cast<double>(allocations) / n;
  state.counters["nodeAllocs/event"] = static_cast<double>(nodeAllocations) / n;
}

void BM_WriterEventFreshString(benchmark::State& state) {
  tracingOff();
  KronlogWriter::Writer::Ptr w = fullWriter();
  const std::uint64_t allocations = gAllocations;
  const std::uint64_t nodes = nodeSystemAllocations();
  for (auto _ : state) {
    w->eventIs(freshMessage());
  }
  allocationCounters(state, gAllocations - allocations, nodeSystemAllocations() - nodes);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriterEventFreshString);

// Records `message` on a full writer, counting what the writer allocates.
template <class Message>
void writerEvent(benchmark::State& state, const Message& message) {
  tracingOff();
  KronlogWriter::Writer::Ptr w = fullWriter();
  const std::uint64_t allocations = gAllocations;
  const std::uint64_t nodes = nodeSystemAllocations();
  for (auto _ : state) {
    w->eventIs(message);
  }
  allocationCounters(state, gAllocations - allocations, nodeSystemAllocations() - nodes);
  state.SetItemsProcessed(state.iterations());
}

// The same call shape as spdlog's: the writer copies the caller's text.
void BM_WriterEventStringView(benchmark::State& state) {
  writerEvent(state, std::string_view(messageText()));
}
BENCHMARK(BM_WriterEventStringView);

void BM_WriterEventPrebuiltString(benchmark::State& state) {
  writerEvent(state, freshMessage());
}
BENCHMARK(BM_WriterEventPrebuiltString);

void BM_SpdlogRingbufferEvent(benchmark::State& state) {
  SpdlogRing ring;
  const std::string_view message(messageText());
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    ring.logger.info(message);
  }
  allocationCounters(state, gAllocations - allocations, 0);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogRingbufferEvent);

// The same two jobs with the clock taken out: both sides read the time once
// per event (about 30 ns on this kind of virtual machine, a large part of
// either side's cost), so these show what the recording itself costs.
Qel::Seconds fixedClock() {
  return 1763805600.125;
}

void BM_WriterEventFixedClock(benchmark::State& state) {
  tracingOff();
  KronlogWriter::Writer::Ptr w = fullWriter();
  const Qel::String message = freshMessage();
  Qel::utcNowFunctionIs(&fixedClock);
  for (auto _ : state) {
    w->eventIs(message);
  }
  Qel::utcNowFunctionIs(nullptr);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriterEventFixedClock);

void BM_SpdlogRingbufferEventFixedClock(benchmark::State& state) {
  SpdlogRing ring;
  const std::string_view message(messageText());
  const auto when = spdlog::log_clock::now();
  for (auto _ : state) {
    ring.logger.log(when, spdlog::source_loc{}, spdlog::level::info, message);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogRingbufferEventFixedClock);

// ---- The interleaved summary
//
// Google Benchmark times each job on its own, one after the other, so the
// allocator state one side leaves is the state the next side starts from.
// The summary runs every job once per round, in an order that rotates from
// round to round; each job gets a fresh full log built outside the clock,
// and its log is released and the allocator trimmed outside the clock
// before the next job starts.

constexpr int kRounds = 31;
constexpr int kTimedEvents = 16 * kCapacity;  // each sample cycles the log 16 times

using Clock = std::chrono::steady_clock;

double nsPerEvent(Clock::time_point start, Clock::time_point stop) {
  return std::chrono::duration<double, std::nano>(stop - start).count() / kTimedEvents;
}

// The allocator gives freed memory back (and coalesces) before the next
// job, so that no job runs on another job's leftovers.
void settle() {
  malloc_trim(0);
}

// One sample of our side: a fresh full log, one lap outside the clock so
// that every timed event evicts, then kTimedEvents timed events.
template <class Record>
double oursSample(Record&& record) {
  double ns = 0;
  {
    KronlogWriter::Writer::Ptr w = fullWriter();
    for (unsigned k = 0; k < kCapacity; ++k) record(*w);
    const Clock::time_point start = Clock::now();
    for (int k = 0; k < kTimedEvents; ++k) record(*w);
    ns = nsPerEvent(start, Clock::now());
  }
  settle();
  return ns;
}

template <class Record>
double spdlogSample(Record&& record) {
  double ns = 0;
  {
    SpdlogRing ring;
    for (unsigned k = 0; k < kCapacity; ++k) record(ring.logger);
    const Clock::time_point start = Clock::now();
    for (int k = 0; k < kTimedEvents; ++k) record(ring.logger);
    ns = nsPerEvent(start, Clock::now());
  }
  settle();
  return ns;
}

template <class Read>
double clockSample(Read&& read) {
  const Clock::time_point start = Clock::now();
  for (int k = 0; k < kTimedEvents; ++k) benchmark::DoNotOptimize(read());
  const double ns = nsPerEvent(start, Clock::now());
  settle();
  return ns;
}

struct Job {
  const char* label;
  std::function<double()> sample;
  std::vector<double> ns;
};

// Per-round ratios of two jobs, so that a slow round slows both sides.
std::vector<double> ratios(const Job& a, const Job& b) {
  std::vector<double> r;
  for (std::size_t k = 0; k < a.ns.size(); ++k) r.push_back(a.ns[k] / b.ns[k]);
  return r;
}

std::vector<double> differences(const Job& a, const Job& b) {
  std::vector<double> d;
  for (std::size_t k = 0; k < a.ns.size(); ++k) d.push_back(a.ns[k] - b.ns[k]);
  return d;
}

// The allocator's bytes in use, chunk headers and rounding included: the
// arena's chunks and the blocks large enough to be mapped on their own
// (spdlog's ring is one such block).
std::size_t heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Heap held per stored entry beyond the message bytes, as the allocator
// counts it: the growth of the heap while a fresh container is made and
// takes 4 * kCapacity events (so that what is measured is eviction's steady
// state), per stored entry, less the message bytes. The container's own
// fixed memory is counted too, which favours neither side: spdlog's ring
// is allocated up front, ours grows by node. `make` builds an empty
// container; `record` adds one event to it.
template <class Make, class Record>
double heapPerEntry(Make&& make, Record&& record) {
  settle();
  const std::size_t before = heapInUse();
  auto container = make();
  for (unsigned k = 0; k < 4 * kCapacity; ++k) record(*container);
  const std::size_t full = heapInUse();
  return static_cast<double>(full - before) / kCapacity - static_cast<double>(kMessageBytes);
}

struct HeapFigures {
  double ours, spdlog;
};

// Run before anything else, while the node allocator's free list is still
// empty, so that every node counted comes from the system.
HeapFigures measureHeap() {
  tracingOff();
  const std::string_view text(messageText());
  HeapFigures h;
  h.ours = heapPerEntry(
      [] {
        return KronlogWriter::writerFactory(
            "heap", KronlogWriter::Config(kCapacity, KronlogWriter::keepLastEntries));
      },
      [&](KronlogWriter::Writer& w) { w.eventIs(text); });
  h.spdlog = heapPerEntry(
      [] {
        auto logger = std::make_unique<spdlog::logger>(
            "heap", std::make_shared<spdlog::sinks::ringbuffer_sink_st>(kCapacity));
        logger->set_pattern("%v");
        return logger;
      },
      [&](spdlog::logger& l) { l.info(text); });
  return h;
}

// Heap allocations per event outside the timing loop, over many events.
template <class Record>
double allocationsPerEvent(Record&& record) {
  constexpr int kEvents = 100000;
  const std::uint64_t before = gAllocations;
  for (int k = 0; k < kEvents; ++k) record();
  return static_cast<double>(gAllocations - before) / kEvents;
}

void printSummary(const HeapFigures& heap) {
  tracingOff();
  const std::string_view text(messageText());
  const Qel::String prebuilt = freshMessage();
  const auto when = spdlog::log_clock::now();

  std::vector<Job> jobs;
  jobs.push_back({"ours, eventIs(string_view)",
                  [&] { return oursSample([&](KronlogWriter::Writer& w) { w.eventIs(text); }); },
                  {}});
  jobs.push_back(
      {"ours, eventIs(prebuilt Qel::String)",
       [&] { return oursSample([&](KronlogWriter::Writer& w) { w.eventIs(prebuilt); }); },
       {}});
  jobs.push_back(
      {"ours, caller builds a Qel::String",
       [&] { return oursSample([&](KronlogWriter::Writer& w) { w.eventIs(freshMessage()); }); },
       {}});
  jobs.push_back({"spdlog ringbuffer_sink_st log(info, sv)",
                  [&] { return spdlogSample([&](spdlog::logger& l) { l.info(text); }); },
                  {}});
  jobs.push_back({"ours, string_view, fixed clock",
                  [&] {
                    Qel::utcNowFunctionIs(&fixedClock);
                    const double ns =
                        oursSample([&](KronlogWriter::Writer& w) { w.eventIs(text); });
                    Qel::utcNowFunctionIs(nullptr);
                    return ns;
                  },
                  {}});
  jobs.push_back({"spdlog, fixed clock",
                  [&] {
                    return spdlogSample([&](spdlog::logger& l) {
                      l.log(when, spdlog::source_loc{}, spdlog::level::info, text);
                    });
                  },
                  {}});
  jobs.push_back({"clock read alone, Qel::utcNow()", [] { return clockSample(&Qel::utcNow); }, {}});
  jobs.push_back({"clock read alone, spdlog log_clock",
                  [] { return clockSample([] { return spdlog::log_clock::now(); }); },
                  {}});

  for (int r = 0; r < kRounds; ++r) {
    for (std::size_t k = 0; k < jobs.size(); ++k) {
      Job& job = jobs[(k + r) % jobs.size()];
      job.ns.push_back(job.sample());
    }
  }

  std::printf(
      "\n---- writer event on a full log of %u, %zu-byte message, tracing off, %zu-bit build\n",
      kCapacity, kMessageBytes, 8 * sizeof(void*));
  std::printf("%d interleaved rounds of %d events per job (ns/event: median [p10 .. p90]):\n",
              kRounds, kTimedEvents);
  for (const Job& job : jobs) {
    const Spread s = spreadOf(job.ns);
    std::printf("  %-40s %7.1f [%6.1f .. %6.1f]  %6.2f M entries/s\n", job.label, s.median, s.p10,
                s.p90, 1e3 / s.median);
  }
  const Job& view = jobs[0];
  const Job& spdlogJob = jobs[3];
  std::printf("ratio ours/spdlog, median of the per-round ratios [p10 .. p90] (target <= 0.6):\n");
  for (int k = 0; k < 3; ++k) {
    const Spread s = spreadOf(ratios(jobs[k], spdlogJob));
    std::printf("  %-40s %7.2f [%5.2f .. %5.2f]\n", jobs[k].label, s.median, s.p10, s.p90);
  }
  const Spread fixed = spreadOf(ratios(jobs[4], jobs[5]));
  std::printf("  %-40s %7.2f [%5.2f .. %5.2f]\n", "without the clock (fixed clock both)",
              fixed.median, fixed.p10, fixed.p90);
  const Spread apart = spreadOf(differences(view, jobs[6]));
  const Spread spdlogApart = spreadOf(differences(spdlogJob, jobs[7]));
  std::printf("cost apart from reading the clock (event less clock read, per round):\n");
  std::printf("  %-40s %7.1f [%6.1f .. %6.1f] ns\n", "ours, eventIs(string_view)", apart.median,
              apart.p10, apart.p90);
  std::printf("  %-40s %7.1f [%6.1f .. %6.1f] ns\n", "spdlog", spdlogApart.median, spdlogApart.p10,
              spdlogApart.p90);

  std::printf("heap per stored entry beyond the %zu message bytes (allocator's in-use bytes,\n",
              kMessageBytes);
  std::printf("chunk headers and rounding included; target <= 48 B on 64-bit, 32 B on 32-bit):\n");
  std::printf("  ours   %6.1f B\n", heap.ours);
  std::printf("  spdlog %6.1f B\n", heap.spdlog);

  KronlogWriter::Writer::Ptr w = fullWriter();
  const double viewAllocs = allocationsPerEvent([&] { w->eventIs(text); });
  const double freshAllocs = allocationsPerEvent([&] { w->eventIs(freshMessage()); });
  const double callerAllocs = allocationsPerEvent([] { benchmark::DoNotOptimize(freshMessage()); });
  const double prebuiltAllocs = allocationsPerEvent([&] { w->eventIs(prebuilt); });
  SpdlogRing ring;
  const double spdlogAllocs = allocationsPerEvent([&] { ring.logger.info(text); });
  std::printf("heap allocations per event on a full log (malloc/calloc/realloc calls):\n");
  if (!kCountsAllocations) std::printf("  (not counted in AddressSanitizer builds)\n");
  std::printf("  ours, eventIs(string_view)     %.3f\n", viewAllocs);
  std::printf("  ours, prebuilt string          %.3f\n", prebuiltAllocs);
  std::printf("  ours, caller builds the string %.3f, of which the caller's %.3f\n", freshAllocs,
              callerAllocs);
  std::printf("  spdlog                         %.3f\n", spdlogAllocs);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const HeapFigures heap = measureHeap();
  benchmark::RunSpecifiedBenchmarks();
  printSummary(heap);
  benchmark::Shutdown();
  return 0;
}
