// The cost of a read, against a plain read written here: both patterns
// compiled with std::regex per writer directory and per writer, one
// std::multimap keyed by timestamp for the merge, then Status::logEnq for
// each entry.
//
// Three inputs of 65,536 entries each:
//   round_robin  64 agents x 4 writers x 256 entries, the k-th entry of every
//                writer before the (k+1)-th of any, short messages;
//   sequential_256  the same 256 writers filled one after the other, each
//                with its own start and irregular gaps, so timestamps
//                interleave irregularly across writers; messages of 60 to
//                120 bytes;
//   sequential_64   16 agents x 4 writers x 1024 entries, filled the same way.
// Every input is read with the default patterns; round_robin also with an
// agent pattern that selects 8 of its 64 agents.
//
// Google Benchmark times each side on its own. The summary that follows
// runs 31 rounds per case, ours and the plain read alternating within each
// round, each into a fresh status released outside the clock, and prints
// the median and the 10th to 90th percentile spread of each side, then the
// heap per entry: what the writers hold per stored entry beyond the message
// bytes, and what a read's result holds per entry (its strings are shared
// with the writers, not copied).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "bench/Spread.h"
#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Dir.h"
#include "qel/String.h"

namespace {

constexpr double kStart = 1763805600.0;
constexpr int kRounds = 31;

struct Input {
  const char* name;
  int agents;
  int writersPerAgent;
  int entriesPerWriter;
  bool roundRobin;
};

const Input kInputs[] = {
    {"round_robin", 64, 4, 256, true},
    {"sequential_256", 64, 4, 256, false},
    {"sequential_64", 16, 4, 1024, false},
};

// A message of 60 to 120 bytes, as device events are.
Qel::String message(std::mt19937& rng, int writer, int k) {
  std::string text = "event " + std::to_string(k) + " of writer " + std::to_string(writer) +
                     ": neighbor 10.0.0." + std::to_string(k % 250) + " state changed";
  const std::size_t length = 60 + rng() % 61;
  while (text.size() < length) text += " detail";
  text.resize(length);
  return Qel::String(text);
}

// The allocator's bytes in use, chunk headers and rounding included.
std::size_t heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Bytes held by live objects of the framework's tracked types (each pooled
// object is exactly its type's size: the pools keep no headers).
std::size_t pooledBytes() {
  std::size_t bytes = 0;
  for (const Qel::TypeAllocator* a : Qel::typeAllocators()) bytes += a->live() * a->objectSize();
  return bytes;
}

// What building an input cost: heap growth and the message bytes in it.
struct BuiltHeap {
  std::size_t heap = 0;
  std::size_t messageBytes = 0;
  std::size_t entries = 0;
};
std::map<const Input*, BuiltHeap> builtHeap;

Qel::Dir::Ptr build(const Input& in) {
  const std::size_t heapBefore = heapInUse();
  std::size_t messageBytes = 0;
  Qel::Dir::Ptr dir = Qel::dirFactory("agents");
  std::vector<KronlogWriter::Writer::Ptr> writers;
  char name[32];
  for (int a = 0; a < in.agents; ++a) {
    std::snprintf(name, sizeof name, "agent%02d", a);
    KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory(name);
    dir->entityIs(agent);
    for (int w = 0; w < in.writersPerAgent; ++w) {
      std::snprintf(name, sizeof name, "group%d", w);
      writers.push_back(agent->writerIs(
          name, KronlogWriter::Config(in.entriesPerWriter, KronlogWriter::keepLastEntries)));
    }
  }
  const int n = static_cast<int>(writers.size());
  std::mt19937 rng(20261123);
  if (in.roundRobin) {
    for (int k = 0; k < in.entriesPerWriter; ++k) {
      for (int g = 0; g < n; ++g) {
        const double t = kStart + (k * n + g) * 0.001;
        const Qel::String text("event " + std::to_string(k) + " of writer " + std::to_string(g) +
                               ": state changed");
        messageBytes += text.size();
        writers[g]->logEnq(KronlogWriter::LogEntry(t, text));
      }
    }
  } else {
    std::uniform_real_distribution<double> start(0.0, 600.0);
    std::exponential_distribution<double> gap(1.0 / 0.5);
    for (int g = 0; g < n; ++g) {
      double t = kStart + start(rng);
      for (int k = 0; k < in.entriesPerWriter; ++k) {
        t += gap(rng);
        const Qel::String text = message(rng, g, k);
        messageBytes += text.size();
        writers[g]->logEnq(KronlogWriter::LogEntry(t, text));
      }
    }
  }
  builtHeap[&in] = {heapInUse() - heapBefore, messageBytes,
                    static_cast<std::size_t>(n) * static_cast<std::size_t>(in.entriesPerWriter)};
  return dir;
}

struct Case {
  std::string name;
  const Input* input;
  const char* agentPattern;
};

std::vector<Case> cases() {
  std::vector<Case> all;
  for (const Input& in : kInputs) all.push_back({std::string(in.name) + "/all", &in, ".*"});
  all.push_back({"round_robin/8_of_64_agents", &kInputs[0], "agent0[0-7]"});
  return all;
}

KronlogReader::Config::Ptr configFor(const Case& c) {
  static std::map<const Input*, Qel::Dir::Ptr> built;
  Qel::Dir::Ptr& dir = built[c.input];
  if (!dir) dir = build(*c.input);
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(dir);
  config->agentPatternIs(c.agentPattern);
  return config;
}

void readerRead(const KronlogReader::Config::Ptr& config,
                const KronlogReader::Status::Ptr& status) {
  KronlogReader::readerFactory(config, status);
}

void plainRead(const KronlogReader::Config::Ptr& config, const KronlogReader::Status::Ptr& status) {
  std::multimap<double, KronlogReader::LogEntry::Ptr> merged;
  const Qel::String& agentPattern = config->agentPattern();
  const Qel::String& groupPattern = config->messageGroupPattern();
  for (const Qel::Dir& dir : config->dirMap()) {
    for (const Qel::Entity& e : dir.entityMap()) {
      auto* agent = dynamic_cast<const KronlogWriter::WriterDir*>(&e);
      if (!agent) continue;
      const std::regex agentRe(agentPattern.begin(), agentPattern.end());
      if (!std::regex_match(agent->name().begin(), agent->name().end(), agentRe)) continue;
      for (const KronlogWriter::Writer& writer : agent->writerMap()) {
        const std::regex groupRe(groupPattern.begin(), groupPattern.end());
        if (!std::regex_match(writer.name().begin(), writer.name().end(), groupRe)) continue;
        for (const KronlogWriter::Writer::QelLog& node : writer.logQueue()) {
          const double t = node.entry().timestamp();
          if (!(config->minTimestamp() <= t && t <= config->maxTimestamp())) continue;
          merged.insert({t, KronlogReader::logEntryFactory(agent->name(), writer.name(), t,
                                                           node.entry().message())});
        }
      }
    }
  }
  for (const auto& [t, entry] : merged) status->logEnq(entry);
}

using ReadFunction = void (*)(const KronlogReader::Config::Ptr&, const KronlogReader::Status::Ptr&);

void runRead(benchmark::State& state, const Case& c, ReadFunction read) {
  const KronlogReader::Config::Ptr config = configFor(c);
  std::int64_t kept = 0;
  for (auto _ : state) {
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    read(config, status);
    state.PauseTiming();
    kept = status->logs();
    status = nullptr;  // releasing the entries is not part of the read
    state.ResumeTiming();
  }
  state.counters["entries_per_s"] =
      benchmark::Counter(static_cast<double>(kept), benchmark::Counter::kIsIterationInvariantRate);
}

// Both reads must agree, entry for entry, before their times mean anything.
bool sameResult(const Case& c) {
  KronlogReader::Status::Ptr ours = KronlogReader::statusFactory();
  KronlogReader::Status::Ptr plain = KronlogReader::statusFactory();
  readerRead(configFor(c), ours);
  plainRead(configFor(c), plain);
  if (ours->logs() != plain->logs()) return false;
  auto a = ours->logIterConst();
  auto b = plain->logIterConst();
  for (; a && b; ++a, ++b) {
    const KronlogReader::LogEntry& x = *a->value();
    const KronlogReader::LogEntry& y = *b->value();
    if (a.index() != b.index() || x.agentName() != y.agentName() ||
        x.messageGroup() != y.messageGroup() || x.timestamp() != y.timestamp() ||
        x.message() != y.message()) {
      return false;
    }
  }
  return true;
}

// One timed read into a fresh status; the status is released after the
// clock stops.
double timedRead(const KronlogReader::Config::Ptr& config, ReadFunction read, unsigned* kept) {
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  const auto start = std::chrono::steady_clock::now();
  read(config, status);
  const auto stop = std::chrono::steady_clock::now();
  *kept = status->logs();
  return std::chrono::duration<double>(stop - start).count();
}

void summary() {
  std::printf(
      "\nReader against the plain read, %d interleaved rounds per case (ms: median "
      "[p10 .. p90]):\n",
      kRounds);
  for (const Case& c : cases()) {
    const KronlogReader::Config::Ptr config = configFor(c);
    std::vector<double> ours, plain;
    unsigned kept = 0;
    for (int r = 0; r < kRounds; ++r) {
      // Alternate which side goes first, so that neither always runs on the
      // allocator state the other left.
      if (r % 2 == 0) {
        ours.push_back(timedRead(config, readerRead, &kept));
        plain.push_back(timedRead(config, plainRead, &kept));
      } else {
        plain.push_back(timedRead(config, plainRead, &kept));
        ours.push_back(timedRead(config, readerRead, &kept));
      }
    }
    const Spread o = spreadOf(ours), p = spreadOf(plain);
    std::printf(
        "  %-28s reader %7.2f [%6.2f .. %6.2f]  plain %7.2f [%6.2f .. %6.2f]  "
        "plain/reader %5.2fx  reader %6.1f ns/entry, %5.2f M entries/s\n",
        c.name.c_str(), o.median * 1e3, o.p10 * 1e3, o.p90 * 1e3, p.median * 1e3, p.p10 * 1e3,
        p.p90 * 1e3, p.median / o.median, o.median / kept * 1e9, kept / o.median / 1e6);
  }
  std::printf("\nHeap per entry (allocator's in-use bytes, chunk headers included):\n");
  for (const Input& in : kInputs) {
    const BuiltHeap& b = builtHeap[&in];
    const KronlogReader::Config::Ptr config = configFor({in.name, &in, ".*"});
    // The result's objects come from the framework's per-type pools, which
    // earlier reads filled: count them by type, plus whatever the system
    // allocator handed out on top.
    const std::size_t before = heapInUse();
    const std::size_t pooledBefore = pooledBytes();
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    readerRead(config, status);
    const double result =
        static_cast<double>(pooledBytes() - pooledBefore + (heapInUse() - before)) / status->logs();
    std::printf(
        "  %-16s writers (filled by logEnq) %6.1f B per entry beyond its %5.1f message bytes; "
        "a read's result %6.1f B per entry\n",
        in.name, (static_cast<double>(b.heap) - static_cast<double>(b.messageBytes)) / b.entries,
        static_cast<double>(b.messageBytes) / b.entries, result);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  static const std::vector<Case> all = cases();
  for (const Case& c : all) {
    if (!sameResult(c)) {
      std::fprintf(stderr, "ReaderBench: Reader and plain read disagree for %s\n", c.name.c_str());
      return 1;
    }
    benchmark::RegisterBenchmark(("read/" + c.name + "/reader").c_str(), runRead, c, readerRead)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("read/" + c.name + "/plain").c_str(), runRead, c, plainRead)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  summary();
  return 0;
}
