// The cost of recording one event on a full writer (keepLastEntries, 1024
// entries, so every event evicts the oldest), tracing off, measured side by
// side with spdlog's ring-buffer sink doing the same job: keep the last 1024
// lines of 64 bytes. Our side runs twice: with the caller building a fresh
// Qel::String per event (what an agent does with a line it just formatted)
// and with the caller handing over one already built.
//
// After the runs a summary gives the time per event of each, the ratio to
// spdlog, the heap allocations per event on our side beyond the caller's own
// message string, and the heap held per stored entry beyond the message
// bytes.
//
// Allocations are counted by interposing malloc, calloc and realloc in this
// executable: the framework's strings and its per-type allocator call malloc
// directly, so counting operator new alone would miss exactly the blocks
// that matter here.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

void BM_WriterEventPrebuiltString(benchmark::State& state) {
  tracingOff();
  KronlogWriter::Writer::Ptr w = fullWriter();
  const Qel::String message = freshMessage();
  const std::uint64_t allocations = gAllocations;
  const std::uint64_t nodes = nodeSystemAllocations();
  for (auto _ : state) {
    w->eventIs(message);
  }
  allocationCounters(state, gAllocations - allocations, nodeSystemAllocations() - nodes);
  state.SetItemsProcessed(state.iterations());
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

// Shows the runs as the console reporter does and keeps each run's wall and
// CPU time per event, so that the summary can compare them.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal, so that saved output stays plain text.
  CollectingReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}

  struct Times {
    std::vector<double> real;
    std::vector<double> cpu;
  };

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred || r.iterations == 0) continue;
      const double n = static_cast<double>(r.iterations);
      Times& t = times_[r.run_name.function_name];
      t.real.push_back(r.real_accumulated_time * 1e9 / n);
      t.cpu.push_back(r.cpu_accumulated_time * 1e9 / n);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Medians over the repetitions in ns, or negative when the benchmark did
  // not run (filtered out).
  double realNs(const std::string& name) const { return median(name, &Times::real); }
  double cpuNs(const std::string& name) const { return median(name, &Times::cpu); }

 private:
  double median(const std::string& name, std::vector<double> Times::*which) const {
    auto it = times_.find(name);
    if (it == times_.end() || (it->second.*which).empty()) return -1;
    std::vector<double> v = it->second.*which;
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
  }
  std::map<std::string, Times> times_;
};

// Heap allocations per event outside the timing loop, over many events.
template <class Record>
double allocationsPerEvent(Record&& record) {
  constexpr int kEvents = 100000;
  const std::uint64_t before = gAllocations;
  for (int k = 0; k < kEvents; ++k) record();
  return static_cast<double>(gAllocations - before) / kEvents;
}

void printSummary(const CollectingReporter& reporter) {
  const char* kFresh = "BM_WriterEventFreshString";
  const char* kPrebuilt = "BM_WriterEventPrebuiltString";
  const char* kSpdlog = "BM_SpdlogRingbufferEvent";

  tracingOff();
  KronlogWriter::Writer::Ptr w = fullWriter();
  const Qel::String prebuiltMessage = freshMessage();
  const std::uint64_t nodesBefore = nodeSystemAllocations();
  const double freshAllocs = allocationsPerEvent([&] { w->eventIs(freshMessage()); });

  // What one stored entry holds on the heap: its node from the writer's
  // allocator, and its own message block (a header and a NUL beyond the
  // bytes); the log holds fresh strings only at this point.
  const KronlogWriter::Writer::QelLog* node = w->logQueue().head();
  const Qel::String& stored = node->entry().message();
  const char* block = stored.data() - (Qel::String::kOverheadBytes - 1);  // header precedes bytes
  const std::size_t nodeSize = sizeof(KronlogWriter::Writer::QelLog);
  const std::size_t nodeUsable =
      malloc_usable_size(const_cast<KronlogWriter::Writer::QelLog*>(node));
  const std::size_t blockUsable = malloc_usable_size(const_cast<char*>(block));
  const std::size_t storedBytes = stored.size();  // the entry is evicted below
  // glibc hands out chunks of usable size + one size word, in steps of
  // 2 * sizeof(size_t).
  auto chunk = [](std::size_t usable) { return usable + sizeof(std::size_t); };

  const double callerAllocs = allocationsPerEvent([] { benchmark::DoNotOptimize(freshMessage()); });
  const double prebuiltAllocs = allocationsPerEvent([&] { w->eventIs(prebuiltMessage); });
  const std::uint64_t nodeAllocs = nodeSystemAllocations() - nodesBefore;
  SpdlogRing ring;
  const double spdlogAllocs =
      allocationsPerEvent([&] { ring.logger.info(std::string_view(messageText())); });

  std::printf("\n---- writer event on a full log of %u, %zu-byte message, tracing off\n", kCapacity,
              kMessageBytes);
  std::printf("time per event, median of the runs (wall / CPU):\n");
  const char* labels[] = {"ours, fresh Qel::String per event", "ours, prebuilt Qel::String",
                          "spdlog ringbuffer_sink_st"};
  const char* names[] = {kFresh, kPrebuilt, kSpdlog};
  for (int k = 0; k < 3; ++k) {
    std::printf("  %-34s %7.1f ns / %7.1f ns\n", labels[k], reporter.realNs(names[k]),
                reporter.cpuNs(names[k]));
  }
  if (reporter.realNs(kSpdlog) > 0) {
    std::printf("ratio ours/spdlog (target <= 0.5), wall / CPU:\n");
    for (int k = 0; k < 2; ++k) {
      std::printf("  %-34s %7.2f    / %7.2f\n", labels[k],
                  reporter.realNs(names[k]) / reporter.realNs(kSpdlog),
                  reporter.cpuNs(names[k]) / reporter.cpuNs(kSpdlog));
    }
  }
  const char* kFixed = "BM_WriterEventFixedClock";
  const char* kSpdlogFixed = "BM_SpdlogRingbufferEventFixedClock";
  if (reporter.cpuNs(kFixed) > 0 && reporter.cpuNs(kSpdlogFixed) > 0) {
    std::printf("without the clock read (a fixed time on both sides), CPU:\n");
    std::printf("  ours, prebuilt Qel::String          %7.1f ns\n", reporter.cpuNs(kFixed));
    std::printf("  spdlog ringbuffer_sink_st           %7.1f ns\n", reporter.cpuNs(kSpdlogFixed));
    std::printf("  ratio ours/spdlog                   %7.2f\n",
                reporter.cpuNs(kFixed) / reporter.cpuNs(kSpdlogFixed));
  }
  std::printf("heap allocations per event (malloc/calloc/realloc calls):\n");
  if (!kCountsAllocations) std::printf("  (not counted in AddressSanitizer builds)\n");
  std::printf(
      "  ours, fresh string     %.3f total, of which the caller's string %.3f -> %.3f "
      "by the writer (target 0)\n",
      freshAllocs, callerAllocs, freshAllocs - callerAllocs);
  std::printf("  ours, prebuilt string  %.3f by the writer (target 0)\n", prebuiltAllocs);
  std::printf("  log nodes taken from the system over %d events: %llu\n", 2 * 100000,
              static_cast<unsigned long long>(nodeAllocs));
  std::printf("  spdlog                 %.3f\n", spdlogAllocs);
  std::printf("memory per stored entry beyond the message bytes (64-bit build):\n");
  std::printf("  sizeof(Writer::QelLog) %zu + String::kOverheadBytes %zu = %zu (target <= 48)\n",
              nodeSize, Qel::String::kOverheadBytes, nodeSize + Qel::String::kOverheadBytes);
  std::printf("  node block: malloc_usable_size %zu, chunk %zu\n", nodeUsable, chunk(nodeUsable));
  std::printf(
      "  message block: malloc_usable_size %zu - %zu message bytes = %zu, chunk %zu - %zu = "
      "%zu\n",
      blockUsable, storedBytes, blockUsable - storedBytes, chunk(blockUsable), storedBytes,
      chunk(blockUsable) - storedBytes);
  std::printf("  as the allocator rounds: usable %zu, with chunk headers %zu\n",
              nodeUsable + blockUsable - storedBytes,
              chunk(nodeUsable) + chunk(blockUsable) - storedBytes);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printSummary(reporter);
  benchmark::Shutdown();
  return 0;
}
