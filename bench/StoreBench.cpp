// The JSON store against RapidJSON used directly, over a log of 65,536
// entries: what the driver adds to building, writing, reading and parsing
// the same document.
//
//   Store:   JsonStore::doStore, against a Writer over a StringBuffer written
//            with fopen/fwrite/fclose. doStore syncs the file to disk and
//            renames it over the store (a crash must never leave half a
//            store), so the raw side is also run with an fsync (RawStoreFsync)
//            and as the same temporary-file-plus-rename sequence
//            (RawStoreAtomic): the last is the like-for-like baseline.
//   Restore: JsonStore::doRestore into an empty status, against reading the
//            file, parsing it into a Document and reading the four members
//            of every element (with the default flags, and with the full
//            precision flag the store parses with).
//
// After the runs the ratios of each driver operation to its baselines are
// printed, of wall-clock time (what a caller waits, syncing included) and of
// CPU time (steadier on a busy machine, but blind to the wait for the disk).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "persistence/Json.h"
#include "qel/Trace.h"

namespace {

constexpr int kEntries = 65536;
constexpr char kHeader[] = "FORMAT: JSON\nVERSION: 1\n";

// The log every benchmark works on, and a private directory for the files.
struct Setup {
  Setup() {
    char dir[] = "/tmp/kronlog-store-bench-XXXXXX";
    if (!::mkdtemp(dir)) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    directory = dir;
    storePath = directory + "/store";
    rawPath = directory + "/raw";
    ::setenv("KRONLOG_STORE_FILE_PATH", storePath.c_str(), 1);
    Qel::traceLevelsIs("Kronlog", 0);
    status = KronlogReader::statusFactory();
    const char* agents[] = {"Bgp", "Ospf", "Lldp", "Stp", "Fhrp"};
    const char* groups[] = {"peer", "adjacency", "neighbor", "port", "session", "link", "route"};
    for (int k = 0; k < kEntries; ++k) {
      const std::string message = "event " + std::to_string(k) +
                                  ": state changed from Established to Idle, reason \"hold "
                                  "timer expired\"";
      status->logEnq(KronlogReader::logEntryFactory(agents[k % 5], groups[k % 7],
                                                    1700000000.0 + k * 0.001234, message));
    }
  }
  ~Setup() {
    for (const std::string& f : {storePath, rawPath, rawPath + ".tmp"}) ::unlink(f.c_str());
    ::rmdir(directory.c_str());
  }

  std::string directory;
  std::string storePath;
  std::string rawPath;
  KronlogReader::Status::Ptr status;
};

Setup& setup() {
  static Setup s;
  return s;
}

// ---- Store

void BM_JsonStore_doStore(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) KronlogStore::jsonStoreFactory(s.status)->doStore();
  state.SetItemsProcessed(state.iterations() * kEntries);
}

enum class Durability { none, fsync, atomic };

void rawStore(const KronlogReader::Status& status, const std::string& path, Durability durability) {
  Json::Buffer buffer;
  Json::Writer writer(buffer);
  writer.StartObject();
  writer.Key("Kronlog");
  writer.StartArray();
  for (auto it = status.logIterConst(); it; ++it) {
    const KronlogReader::LogEntry& e = *it->value();
    writer.StartObject();
    writer.Key("timestamp");
    writer.Double(e.timestamp());
    writer.Key("agentName");
    writer.String(e.agentName().c_str());
    writer.Key("messageGroup");
    writer.String(e.messageGroup().c_str());
    writer.Key("message");
    writer.String(e.message().c_str());
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();

  const std::string writing = durability == Durability::atomic ? path + ".tmp" : path;
  std::FILE* f = std::fopen(writing.c_str(), "wb");
  if (!f) std::abort();
  std::fwrite(kHeader, 1, sizeof kHeader - 1, f);
  std::fwrite(buffer.GetString(), 1, buffer.GetSize(), f);
  std::fputc('\n', f);
  if (durability != Durability::none) {
    std::fflush(f);
    ::fsync(::fileno(f));
  }
  std::fclose(f);
  if (durability == Durability::atomic) {
    ::rename(writing.c_str(), path.c_str());
    const std::string dir = path.substr(0, path.rfind('/'));
    const int d = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    ::fsync(d);
    ::close(d);
  }
}

void BM_RawStore(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) rawStore(*s.status, s.rawPath, Durability::none);
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void BM_RawStoreFsync(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) rawStore(*s.status, s.rawPath, Durability::fsync);
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void BM_RawStoreAtomic(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) rawStore(*s.status, s.rawPath, Durability::atomic);
  state.SetItemsProcessed(state.iterations() * kEntries);
}

// ---- Restore

void BM_JsonStore_doRestore(benchmark::State& state) {
  Setup& s = setup();
  KronlogStore::jsonStoreFactory(s.status)->doStore();
  KronlogReader::Status::Ptr restored;
  for (auto _ : state) {
    // Releasing the previous result is the caller's cost, not the restore's:
    // also the allocator's merging of the small blocks it freed, which the
    // next large allocation would otherwise do inside the timed part.
    state.PauseTiming();
    restored = KronlogReader::statusFactory();
    std::free(std::malloc(64 << 10));
    state.ResumeTiming();
    KronlogStore::jsonStoreFactory(restored)->doRestore();
  }
  if (restored->logs() != static_cast<unsigned>(kEntries))
    state.SkipWithError("restore incomplete");
  state.SetItemsProcessed(state.iterations() * kEntries);
}

template <unsigned kFlags>
void BM_RawRestore(benchmark::State& state) {
  Setup& s = setup();
  KronlogStore::jsonStoreFactory(s.status)->doStore();
  std::size_t elements = 0;
  for (auto _ : state) {
    std::FILE* f = std::fopen(s.storePath.c_str(), "rb");
    if (!f) std::abort();
    std::string text;
    char chunk[1 << 16];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) text.append(chunk, n);
    std::fclose(f);
    const std::size_t json = text.find('\n', text.find('\n') + 1) + 1;  // after the two lines

    Json::Document document;
    document.Parse<kFlags>(text.c_str() + json, text.size() - json);
    std::size_t bytes = 0;
    double sum = 0;
    elements = 0;
    for (const Json::Value& e : document["Kronlog"].GetArray()) {
      sum += e["timestamp"].GetDouble();
      bytes += e["agentName"].GetStringLength() + e["messageGroup"].GetStringLength() +
               e["message"].GetStringLength();
      benchmark::DoNotOptimize(e["message"].GetString());
      ++elements;
    }
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(bytes);
  }
  if (elements != static_cast<std::size_t>(kEntries)) state.SkipWithError("parse incomplete");
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void BM_RawRestore(benchmark::State& state) {
  BM_RawRestore<rapidjson::kParseDefaultFlags>(state);
}
void BM_RawRestoreFullPrecision(benchmark::State& state) {
  BM_RawRestore<rapidjson::kParseFullPrecisionFlag>(state);
}

BENCHMARK(BM_JsonStore_doStore)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawStore)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawStoreFsync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawStoreAtomic)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_JsonStore_doRestore)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawRestore)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawRestoreFullPrecision)->Unit(benchmark::kMillisecond)->UseRealTime();

// Prints as usual and keeps each benchmark's times per iteration, one pair
// per repetition, for the ratios (of medians: the machine this runs on is
// shared, and a median shrugs off a repetition that met a busy moment).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
      Times& t = times_[r.run_name.function_name];
      t.real.push_back(r.GetAdjustedRealTime());
      t.cpu.push_back(r.GetAdjustedCPUTime());
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatio(const char* driver, const char* baseline, const char* what) const {
    auto d = times_.find(driver), b = times_.find(baseline);
    if (d == times_.end() || b == times_.end()) return;
    const double dReal = median(d->second.real), bReal = median(b->second.real);
    const double dCpu = median(d->second.cpu), bCpu = median(b->second.cpu);
    std::printf(
        "  %-22s / %-26s wall %7.2f / %7.2f ms = %5.2fx   cpu %7.2f / %7.2f ms = %5.2fx  %s\n",
        driver, baseline, dReal, bReal, dReal / bReal, dCpu, bCpu, dCpu / bCpu, what);
  }

 private:
  struct Times {
    std::vector<double> real;
    std::vector<double> cpu;
  };
  static double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
  }
  std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
  // Repetitions run in random order, so that a busy spell of the machine
  // falls on driver and baseline alike; arguments given override these.
  std::vector<char*> args = {argv[0], const_cast<char*>("--benchmark_repetitions=5"),
                             const_cast<char*>("--benchmark_enable_random_interleaving=true")};
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nDriver against raw RapidJSON (%d entries, medians; target <= 1.25x):\n", kEntries);
  reporter.printRatio("BM_JsonStore_doStore", "BM_RawStore", "as is (raw side never syncs)");
  reporter.printRatio("BM_JsonStore_doStore", "BM_RawStoreFsync", "raw side fsyncs the file");
  reporter.printRatio("BM_JsonStore_doStore", "BM_RawStoreAtomic",
                      "like for like: temp file, fsync, rename");
  reporter.printRatio("BM_JsonStore_doRestore", "BM_RawRestore", "default parse flags");
  reporter.printRatio("BM_JsonStore_doRestore", "BM_RawRestoreFullPrecision",
                      "like for like: full precision");
  benchmark::Shutdown();
  return 0;
}
