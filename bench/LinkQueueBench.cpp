// Hot-path costs: appending to and draining an attribute's link queue in
// steady state, and a trace site whose level is off (against an empty loop,
// so that the difference is the site's level test alone).
#include <benchmark/benchmark.h>

#include <cstdint>

#include "qel/LinkQueue.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/Trace.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace {

struct Entry : Qel::LinkQueueMember<Entry, Qel::String> {
  using LinkQueueMember::LinkQueueMember;
};
using Queue = Qel::LinkQueue<Entry, unsigned int, Qel::String>;

void append(Queue& q, const Qel::String& payload) {
  q.doMemberIs(q.effectiveNextIndex(), new Entry(0, payload), false);
}

// Each iteration appends one member and dequeues the oldest, so the queue
// stays at its depth: one allocation, one free and the link updates.
void BM_LinkQueueEnqDeq(benchmark::State& state) {
  const Qel::String payload("a typical attribute value of some forty bytes");
  Queue q;
  for (std::int64_t k = 0; k < state.range(0); ++k) append(q, payload);
  for (auto _ : state) {
    append(q, payload);
    Qel::Ptr<Entry> oldest = q.deq();
    benchmark::DoNotOptimize(oldest.ptr());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LinkQueueEnqDeq)->Arg(1024);

void BM_TraceSiteDisabled(benchmark::State& state) {
  const std::uint32_t saved = Qel::traceLevels("Kronlog");
  Qel::traceLevelsIs("Kronlog", 1u << 0);  // level 3 below is off
  std::int64_t n = 0;
  for (auto _ : state) {
    KRONLOG_TRACE(3, "LinkQueueBench", 1, "traceSiteDisabled", << "value " << n);
    benchmark::DoNotOptimize(++n);
  }
  Qel::traceLevelsIs("Kronlog", saved);
}
BENCHMARK(BM_TraceSiteDisabled);

void BM_EmptyLoop(benchmark::State& state) {
  std::int64_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++n);
  }
}
BENCHMARK(BM_EmptyLoop);

}  // namespace
