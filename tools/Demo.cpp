// The end-to-end story: agents record, a reader merges, a saver stores, the
// agents' process ends, and a new process restores and shows the history.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "tools/Commands.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/StoreCheck.h"
#include "tools/StoreView.h"
#include "tools/TimeArg.h"

namespace KronlogTool {

namespace {

const char kDemoUsage[] =
    "usage: kronlog demo [--store PATH]\n"
    "\n"
    "Runs the whole system once: a child process plays a device's agents,\n"
    "records events (some overflow), reads them merged and saves the store;\n"
    "then this process restores one agent's history and shows the store.\n"
    "  --store PATH   where the store file goes (default: ./kronlog-demo-store)\n";

// The agents' process runs on a simulated clock: one hour of activity,
// starting an hour ago, advanced explicitly between events.
double simulatedNow = 0;
double simulatedClock() {
  return simulatedNow;
}

void step(const char* text) {
  std::printf("\n== %s\n", text);
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

// The child: three agents record an hour of events, then a reader and a
// saver run over them. Returns the child's exit status.
int runAgents(const std::string& store, double start) {
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
  writeEntries(stdout, *status, OutputFormat::shortText);

  step("3. a saver writes every agent's history to the store");
  KronlogReader::Config::Ptr all = KronlogReader::configFactory();
  all->dirIs(agents);
  KronlogSaver::saverFactory(all);
  std::printf("saved to %s\n", store.c_str());
  std::printf("the agents' process exits now (the restart)\n");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int demoCommand(const Args& args) {
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") {
      std::fputs(kDemoUsage, stdout);
      return kExitOk;
    }
  }
  Options options;
  if (!options.parse(args, {"store"}, {})) {
    std::fprintf(stderr, "kronlog demo: %s (try 'kronlog demo --help')\n", options.error().c_str());
    return kExitUsage;
  }
  const std::string store = options.value("store", "kronlog-demo-store");
  ::setenv("KRONLOG_STORE_FILE_PATH", store.c_str(), 1);
  ::unlink(store.c_str());
  const double start = Qel::utcNow() - 3600;

  std::printf("kronlog demo: store file %s\n", store.c_str());
  std::fflush(stdout);
  pid_t child = ::fork();
  if (child < 0) {
    std::perror("kronlog demo: fork");
    return kExitData;
  }
  if (child == 0) {
    int rc = runAgents(store, start);
    std::fflush(stdout);
    ::_exit(rc);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "kronlog demo: the agents' process failed\n");
    return kExitData;
  }

  step("4. after the restart: a new process restores agent Bgp");
  std::printf("pid %d (the agents' process is gone)\n", static_cast<int>(::getpid()));
  StoreCheck check = checkStoreFile(store);
  if (!check.restorable()) {
    std::fprintf(stderr, "kronlog demo: the store cannot be restored: %s\n",
                 check.problems.empty() ? "?" : check.problems.front().c_str());
    return kExitData;
  }
  KronlogWriter::WriterDir::Ptr bgp = KronlogWriter::writerDirFactory("Bgp");
  KronlogRestorer::restorerFactory(KronlogRestorer::Config(bgp));
  std::printf(
      "restored writers get the default configuration, entries keep their saved\n"
      "timestamps and every restored entry is kept:\n");
  for (auto w = bgp->writerIter(); w; ++w) {
    printWriter(*w.value());
    for (auto e = w->logIterConst(); e; ++e) {
      std::printf(
          "    [%u] %s %s\n", e.index(), formatTime(e->entry().timestamp()).c_str(),
          escapeForTerminal(e->entry().message().data(), e->entry().message().size()).c_str());
    }
  }

  step("5. the whole store, merged in time order (kronlog show)");
  KronlogReader::Status::Ptr merged = mergeStore(*loadStore(store), Filter());
  writeEntries(stdout, *merged, OutputFormat::shortText);
  std::printf("\n%u events in %s; try: kronlog show --store %s --agent Lldp --output jsonl\n",
              merged->logs(), store.c_str(), store.c_str());
  return kExitOk;
}

}  // namespace KronlogTool
