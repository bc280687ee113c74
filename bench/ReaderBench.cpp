// The cost of a read: 64 writer directories of 4 writers with 256 entries
// each (65,536 entries, timestamps interleaved across all writers, every
// log in time order), read with the default patterns and with an agent
// pattern that selects 8 of the 64 agents. Each case runs twice: through
// KronlogReader::Reader, and through a plain read written here (both
// patterns compiled with std::regex per writer directory and per writer,
// one std::multimap for the merge, then Status::logEnq for each entry).
//
// Each iteration reads into a fresh status; releasing the status afterwards
// is left out of the measurement for both. After the runs a summary gives
// both CPU times per case, the ratio plain/Reader and the time per entry.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/String.h"

namespace {

constexpr int kAgents = 64;
constexpr int kWritersPerAgent = 4;
constexpr int kEntriesPerWriter = 256;
constexpr int kWriters = kAgents * kWritersPerAgent;
constexpr double kStart = 1763805600.0;

// The agents' directory, built once and shared by every run.
const Qel::Dir::Ptr& agents() {
  static const Qel::Dir::Ptr dir = [] {
    Qel::Dir::Ptr d = Qel::dirFactory("agents");
    std::vector<KronlogWriter::Writer::Ptr> writers;
    char name[32];
    for (int a = 0; a < kAgents; ++a) {
      std::snprintf(name, sizeof name, "agent%02d", a);
      KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory(name);
      d->entityIs(agent);
      for (int w = 0; w < kWritersPerAgent; ++w) {
        std::snprintf(name, sizeof name, "group%d", w);
        writers.push_back(agent->writerIs(
            name, KronlogWriter::Config(kEntriesPerWriter, KronlogWriter::keepLastEntries)));
      }
    }
    // Round robin over all writers: the k-th entry of every writer comes
    // before the (k+1)-th of any, so the merge has to interleave them all.
    for (int k = 0; k < kEntriesPerWriter; ++k) {
      for (int g = 0; g < kWriters; ++g) {
        const double t = kStart + (k * kWriters + g) * 0.001;
        writers[g]->logEnq(
            KronlogWriter::LogEntry(t, Qel::String("event " + std::to_string(k) + " of writer " +
                                                   std::to_string(g) + ": state changed")));
      }
    }
    return d;
  }();
  return dir;
}

struct Case {
  const char* name;
  const char* agentPattern;
};

const Case kCases[] = {
    {"all_agents", ".*"},
    {"8_of_64_agents", "agent0[0-7]"},
};

KronlogReader::Config::Ptr configFor(const Case& c) {
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents());
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
  for (KronlogReader::Config::DirIterator d = config->dirIter(); d; ++d) {
    for (Qel::Dir::EntityIterator e = d.value()->entityIter(); e; ++e) {
      auto* agent = dynamic_cast<KronlogWriter::WriterDir*>(e.member());
      if (!agent) continue;
      const std::regex agentRe(agentPattern.begin(), agentPattern.end());
      if (!std::regex_match(agent->name().begin(), agent->name().end(), agentRe)) continue;
      for (KronlogWriter::WriterDir::WriterIterator w = agent->writerIter(); w; ++w) {
        const std::regex groupRe(groupPattern.begin(), groupPattern.end());
        const KronlogWriter::Writer& writer = *w.value();
        if (!std::regex_match(writer.name().begin(), writer.name().end(), groupRe)) continue;
        for (auto it = writer.logIterConst(); it; ++it) {
          const double t = it->entry().timestamp();
          if (!(config->minTimestamp() <= t && t <= config->maxTimestamp())) continue;
          merged.insert({t, KronlogReader::logEntryFactory(agent->name(), writer.name(), t,
                                                           it->entry().message())});
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
  state.counters["kept"] = static_cast<double>(kept);
  state.counters["per_kept_entry"] =
      benchmark::Counter(static_cast<double>(kept), benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
  state.counters["per_scanned_entry"] = benchmark::Counter(
      static_cast<double>(kWriters * kEntriesPerWriter),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Both reads must agree before their times mean anything.
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

// Prints the usual table and remembers each run's CPU time per iteration
// (the median when repetitions are asked for) for the summary. CPU time,
// because the machines this runs on are shared: time spent waiting for a
// core would otherwise blur the ratio.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      const std::string name = r.run_name.function_name;
      if (r.run_type == Run::RT_Iteration) {
        if (!medians_.count(name)) seconds_[name] = r.GetAdjustedCPUTime() / multiplier(r);
      } else if (r.aggregate_name == "median") {
        medians_[name] = true;
        seconds_[name] = r.GetAdjustedCPUTime() / multiplier(r);
      }
    }
  }
  double seconds(const std::string& name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? 0.0 : it->second;
  }

 private:
  static double multiplier(const Run& r) { return benchmark::GetTimeUnitMultiplier(r.time_unit); }
  std::map<std::string, double> seconds_;
  std::map<std::string, bool> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  for (const Case& c : kCases) {
    if (!sameResult(c)) {
      std::fprintf(stderr, "ReaderBench: Reader and plain read disagree for %s\n", c.name);
      return 1;
    }
    benchmark::RegisterBenchmark((std::string("read/") + c.name + "/reader").c_str(), runRead, c,
                                 readerRead)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("read/") + c.name + "/plain").c_str(), runRead, c,
                                 plainRead)
        ->Unit(benchmark::kMillisecond);
  }
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::printf("\nReader against the plain read (%d entries in %d writers of %d agents):\n",
              kWriters * kEntriesPerWriter, kWriters, kAgents);
  for (const Case& c : kCases) {
    const std::string base = std::string("read/") + c.name;
    const double ours = reporter.seconds(base + "/reader");
    const double plain = reporter.seconds(base + "/plain");
    if (ours <= 0 || plain <= 0) continue;  // filtered out
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    readerRead(configFor(c), status);
    const double kept = status->logs();
    std::printf(
        "  %-16s reader %8.3f ms  plain %8.3f ms  plain/reader %5.2fx  "
        "reader per kept entry %6.1f ns, per scanned entry %5.1f ns\n",
        c.name, ours * 1e3, plain * 1e3, plain / ours, ours / kept * 1e9,
        ours / (kWriters * kEntriesPerWriter) * 1e9);
  }
  return 0;
}
