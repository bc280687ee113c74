// The end-to-end story: agents record, a reader merges, a saver stores, the
// agents' process ends, and a new process restores and shows the history.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogStore.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "tools/Commands.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/Sink.h"
#include "tools/StoreView.h"
#include "tools/TimeArg.h"
#include "tools/Usage.h"

extern char** environ;

namespace KronlogTool {

namespace {

// The agents' process runs on a simulated clock: one hour of activity,
// starting an hour ago, advanced explicitly between events.
double simulatedNow = 0;
double simulatedClock() {
  return simulatedNow;
}

void step(const char* text) {
  std::printf("\n== %s\n", text);
}

void writeEntries(const KronlogReader::Status& status) {
  std::fflush(stdout);
  Sink sink(1);
  OutputOptions options;
  EntryPrinter printer(sink, options);
  for (auto it = status.logIterConst(); it; ++it) printer.print(*it->value());
  sink.flush();
}

void printWriter(const KronlogWriter::Writer& w) {
  const KronlogWriter::Config& c = w.config();
  std::printf("  %-10s size %-3u %-16s entries %-3u overflowCount %-3u logMetadata {%u, %u}\n",
              w.name().c_str(), c.size(), KronlogWriter::stringValue(c.overflowAction()).c_str(),
              w.logs(), w.overflowCount(), w.logMetadata().firstIndex(),
              w.logMetadata().nextIndex());
}

void record(const KronlogWriter::Writer::Ptr& w, double at, const std::string& text) {
  simulatedNow = at;
  w->eventIs(Qel::String(text));
}

// Runs this program again as `command`, the store path in the environment
// of the new process only; returns its exit status.
int runStage(const char* command, const std::string& store, double start) {
  std::vector<std::string> env = {"KRONLOG_STORE_FILE_PATH=" + store};
  for (char** e = environ; *e; ++e) {
    if (std::string(*e).rfind("KRONLOG_STORE_FILE_PATH=", 0) != 0) env.emplace_back(*e);
  }
  std::vector<std::string> args = {"kronlog", command, std::to_string(start)};
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  std::fflush(stdout);
  pid_t pid;
  if (::posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), envp.data()) != 0) {
    std::perror("kronlog demo: cannot start a process");
    return kExitData;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : kExitData;
}

}  // namespace

// The agents' process: three agents record an hour of events, then a reader
// and a saver run over them.
int demoAgentsCommand(const Args& args) {
  const double start = args.empty() ? Qel::utcNow() - 3600 : std::strtod(args[0].c_str(), nullptr);
  const std::string store = KronlogStore::storeFilePath();
  Qel::utcNowFunctionIs(&simulatedClock);
  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  auto bgp = KronlogWriter::writerDirFactory("Bgp");
  auto ospf = KronlogWriter::writerDirFactory("Ospf");
  auto lldp = KronlogWriter::writerDirFactory("Lldp");
  agents->entityIs(bgp);
  agents->entityIs(ospf);
  agents->entityIs(lldp);

  using KronlogWriter::Config;
  auto peer = bgp->writerIs("peer", Config(8, KronlogWriter::keepLastEntries));
  auto route = bgp->writerIs("route", Config(4, KronlogWriter::keepFirstEntries));
  auto adjacency = ospf->writerIs("adjacency", Config(6, KronlogWriter::keepLastEntries));
  auto neighbor = lldp->writerIs("neighbor", Config(5, KronlogWriter::keepLastEntries));
  auto debug = lldp->writerIs("debug", Config(0, KronlogWriter::keepLastEntries));

  step("1. agents record events (child process)");
  std::printf("child pid %d: agents Bgp, Ospf and Lldp, an hour of simulated time\n",
              static_cast<int>(::getpid()));
  for (int i = 0; i < 60; ++i) {
    const double t = start + i * 60.0;
    if (i % 3 == 0) record(peer, t + 1, "peer 10.0.0." + std::to_string(i % 7) + " state change");
    if (i % 7 == 0) record(route, t + 2, "route table update " + std::to_string(i));
    if (i % 4 == 1) record(adjacency, t + 3, "adjacency eth" + std::to_string(i % 3) + " full");
    if (i % 6 == 2) record(neighbor, t + 4, "neighbor switch-" + std::to_string(i) + " seen");
    if (i % 10 == 5) record(debug, t + 5, "debug detail " + std::to_string(i));
  }
  std::printf(
      "writers after recording (keepLastEntries evicts the oldest, keepFirstEntries\n"
      "drops the newest, size 0 keeps nothing; every lost event is counted):\n");
  for (const auto& dir : {bgp, ospf, lldp}) {
    std::printf(" %s\n", dir->name().c_str());
    for (auto w = dir->writerIter(); w; ++w) printWriter(*w.value());
  }

  step("2. a reader merges Bgp and Ospf over the last 30 minutes");
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents);
  config->agentPatternIs("Bgp|Ospf");
  config->minTimestampIs(start + 30 * 60);
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogReader::readerFactory(config, status);
  std::printf("agentPattern \"Bgp|Ospf\", window [%s, +inf]: %u entries in time order\n",
              formatTime(config->minTimestamp()).c_str(), status->logs());
  writeEntries(*status);

  step("3. a saver writes every agent's history to the store");
  KronlogReader::Config::Ptr all = KronlogReader::configFactory();
  all->dirIs(agents);
  KronlogSaver::saverFactory(all);
  // The saver reports only through traces: look at what reached the file.
  KronlogReader::Status::Ptr saved = KronlogReader::statusFactory();
  const KronlogStore::StoreReading reading = KronlogStore::readStoreFile(store, *saved);
  if (!reading.complete()) {
    std::fflush(stdout);
    std::fprintf(stderr, "kronlog demo: the save to %s failed: %s\n",
                 escapeForTerminal(store).c_str(),
                 escapeForTerminal(reading.problems.front().text).c_str());
    return kExitData;
  }
  std::printf("saved %zu events to %s\n", reading.entries, escapeForTerminal(store).c_str());
  std::printf("the agents' process exits now (the restart)\n");
  std::fflush(stdout);
  return kExitOk;
}

// The process after the restart: restores agent Bgp's history.
int demoRestoreCommand(const Args&) {
  std::printf("pid %d (the agents' process is gone)\n", static_cast<int>(::getpid()));
  KronlogWriter::WriterDir::Ptr bgp = KronlogWriter::writerDirFactory("Bgp");
  KronlogRestorer::restorerFactory(KronlogRestorer::Config(bgp));
  std::printf(
      "restored writers get the default configuration, entries keep their saved\n"
      "timestamps and every restored entry is kept:\n");
  for (auto w = bgp->writerIter(); w; ++w) {
    printWriter(*w.value());
    for (auto e = w->logIterConst(); e; ++e) {
      std::printf("    [%u] %s %s\n", e.index(), formatTime(e->entry().timestamp()).c_str(),
                  escapeForTerminal(e->entry().message().stdString()).c_str());
    }
  }
  std::fflush(stdout);
  return kExitOk;
}

int demoCommand(const Args& args) {
  Options options({{"store", 0, true, false}});
  if (const int status = startCommand("demo", kDemoUsage, args, options); status >= 0) {
    return status;
  }
  const std::string store = options.value("store", "kronlog-demo-store");
  ::unlink(store.c_str());
  const double start = Qel::utcNow() - 3600;
  std::printf("kronlog demo: store file %s\n", escapeForTerminal(store).c_str());
  if (runStage("demo-agents", store, start) != kExitOk) {
    std::fprintf(stderr, "kronlog demo: the agents' process failed\n");
    return kExitData;
  }

  step("4. after the restart: a new process restores agent Bgp");
  LoadedStore loaded = loadStore(store);
  if (loaded.reading.entries > KronlogRestorer::kMaxRestorableEntries) {
    // Such a store is for reading with show: the restorer would never end.
    std::printf("the store holds %zu entries, more than the restorer's %zu: not restored\n",
                loaded.reading.entries, KronlogRestorer::kMaxRestorableEntries);
  } else if (runStage("demo-restore", store, start) != kExitOk) {
    std::fprintf(stderr, "kronlog demo: the restoring process failed\n");
    return kExitData;
  }
  std::printf(
      "(the restorer walks at most %zu entries; a larger store never finishes\n"
      "restoring, and is for kronlog show only)\n",
      KronlogRestorer::kMaxRestorableEntries);

  step("5. the whole store, merged in time order (kronlog show)");
  std::vector<LoadedStore> stores;
  stores.push_back(std::move(loaded));
  const std::vector<KronlogReader::LogEntry::Ptr> merged = mergeStores(stores, EntryFilter());
  std::fflush(stdout);
  Sink sink(1);
  OutputOptions plain;
  EntryPrinter printer(sink, plain);
  for (const auto& e : merged) printer.print(*e);
  sink.flush();
  std::printf("\n%zu events in %s; try: kronlog show --store %s --agent Lldp --output jsonl\n",
              merged.size(), escapeForTerminal(store).c_str(), escapeForTerminal(store).c_str());

  step("6. live: another process follows an agent as it records (kronlog follow)");
  char socketDir[] = "/tmp/kronlog-demo-XXXXXX";
  if (!::mkdtemp(socketDir)) {
    std::perror("kronlog demo: cannot make a directory for the agent's socket");
    return kExitData;
  }
  const std::string socketPath = std::string(socketDir) + "/Ospf.sock";
  const bool live = demoLive(socketPath);
  ::unlink(socketPath.c_str());
  ::rmdir(socketDir);
  if (!live) {
    std::fprintf(stderr, "kronlog demo: the live stage failed\n");
    return kExitData;
  }
  return kExitOk;
}

}  // namespace KronlogTool
