// The demo's live stage: an agent process records while this process
// follows it over the agent's socket, through a moment when the follower
// is too slow, and the copy ends equal to the source.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kronlog/KronlogWriterStreaming.h"
#include "tools/Commands.h"
#include "tools/Output.h"
#include "tools/TimeArg.h"

extern char** environ;

namespace KronlogTool {

namespace {

constexpr int kBurst = 2000;
const std::string kBurstText(1000, '.');  // long, so the socket fills

void runFor(Qel::EventLoop* loop, double seconds) {
  const double end = Qel::EventLoop::monotonicNow() + seconds;
  while (Qel::EventLoop::monotonicNow() < end) loop->runOnce(0.01);
}

std::string counters(const KronlogWriter::Writer& w) {
  return "overflowCount " + std::to_string(w.overflowCount()) + ", logMetadata {" +
         std::to_string(w.logMetadata().firstIndex()) + ", " +
         std::to_string(w.logMetadata().nextIndex()) + "}";
}

// Prints the short events as they arrive; the burst's long ones are
// counted, with its losses, and summed up when it is over.
class Printer : public KronlogWriter::WriterDirFollower {
 public:
  using WriterDirFollower::WriterDirFollower;
  void onEntry(const Qel::Name&, unsigned int index,
               const KronlogWriter::LogEntry& entry) override {
    if (entry.message().size() == kBurstText.size()) {
      ++burstReceived_;
      return;
    }
    burstSummary();
    std::printf("  [%u] %s %s\n", index, formatTime(entry.timestamp()).c_str(),
                escapeForTerminal(entry.message().stdString()).c_str());
    ++received;
  }
  void onLoss(const Qel::Name&, const KronlogWriter::WriterFollower::Loss& loss) override {
    if (gaps_++ == 0) firstLost_ = loss.fromIndex;
    lastLost_ = loss.toIndex;
    lost_ += loss.count;
  }
  unsigned received = 0;

 private:
  void burstSummary() {
    if (burstReceived_ == 0 && gaps_ == 0) return;
    std::printf(
        "  -- lost %u events: evicted before they were received, in %u gaps "
        "(indices %u to %u)\n"
        "  %u events of the burst received + %u lost = %u recorded\n",
        lost_, gaps_, firstLost_, lastLost_, burstReceived_, lost_, burstReceived_ + lost_);
    burstReceived_ = lost_ = gaps_ = 0;
  }
  unsigned burstReceived_ = 0;
  unsigned lost_ = 0;
  unsigned gaps_ = 0;
  unsigned firstLost_ = 0;
  unsigned lastLost_ = 0;
};

}  // namespace

// The agent: serves Ospf's writer on the socket given, records slowly, then
// a burst, then slowly again; writes its final counters to descriptor 3.
int demoLiveAgentCommand(const Args& args) {
  if (args.size() != 1) return kExitUsage;
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  KronlogWriter::WriterDir::Ptr ospf = KronlogWriter::writerDirFactory("Ospf");
  KronlogWriter::Writer::Ptr w =
      ospf->writerIs("adjacency", KronlogWriter::Config(5, KronlogWriter::keepLastEntries));
  Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), ospf, args[0]);
  server->sendBufferCapacityIs(4096);
  const double end = Qel::EventLoop::monotonicNow() + 5;
  while (server->connections().empty() && Qel::EventLoop::monotonicNow() < end) {
    loop->runOnce(0.01);
  }
  for (int i = 1; i <= 3; ++i) {
    w->eventIs("adjacency eth" + std::to_string(i) + " full");
    runFor(loop.ptr(), 0.1);
  }
  w->eventIs("the burst starts");
  runFor(loop.ptr(), 0.2);  // the follower stops reading meanwhile
  for (int i = 0; i < kBurst; ++i) {
    w->eventIs(kBurstText);
    if (i % 50 == 0) loop->runOnce(0);
  }
  w->eventIs("the burst is over");
  for (int i = 1; i <= 2; ++i) {
    runFor(loop.ptr(), 0.1);
    w->eventIs("adjacency eth" + std::to_string(i) + " down");
  }
  for (double stop = Qel::EventLoop::monotonicNow() + 10; Qel::EventLoop::monotonicNow() < stop;) {
    loop->runOnce(0.05);
    bool drained = true;
    for (const Qel::Connection::Ptr& c : server->connections()) drained = drained && c->drained();
    if (drained) break;
  }
  const std::string line = counters(*w);
  return ::write(3, line.data(), line.size()) == static_cast<ssize_t>(line.size()) ? kExitOk
                                                                                   : kExitData;
}

// Runs the agent as a child process and follows it; false if that fails.
bool demoLive(const std::string& socketPath) {
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, report[1], 3);
  std::string self = "kronlog", command = "demo-live-agent", path = socketPath;
  char* argv[] = {self.data(), command.data(), path.data(), nullptr};
  pid_t pid;
  const bool started = ::posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  ::close(report[1]);
  if (!started) return ::close(report[0]), false;

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Ptr<Qel::Dir> agents = Qel::Dir::DirIs("agents");
  KronlogWriter::WriterDirMount::Ptr mount =
      KronlogWriter::writerDirMount(loop.ptr(), agents, "Ospf", socketPath);
  Printer printer(mount, KronlogWriter::WriterFollower::Start::beginning);
  std::printf("agent process %d serves Ospf on %s; this process follows it:\n",
              static_cast<int>(pid), escapeForTerminal(socketPath).c_str());
  std::fflush(stdout);
  bool slept = false;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    loop->runOnce(0.01);
    if (!slept && printer.received == 4) {
      slept = true;
      std::printf(
          "  (the follower stops reading for a second, as a busy process would;\n"
          "   the agent records %d long events meanwhile, into a writer of 5)\n",
          kBurst);
      std::fflush(stdout);
      ::sleep(1);
    }
    std::fflush(stdout);
  }
  runFor(loop.ptr(), 0.1);  // what the agent sent before it went
  char buf[256];
  const ssize_t n = ::read(report[0], buf, sizeof buf);
  ::close(report[0]);
  const KronlogWriter::WriterDir::Ptr copy = mount->copy();
  const KronlogWriter::Writer::Ptr w = copy ? copy->writer("adjacency") : nullptr;
  if (n <= 0 || !w) return false;
  const std::string source(buf, static_cast<std::size_t>(n));
  std::printf("source: %s\ncopy:   %s (%s)\n", source.c_str(), counters(*w).c_str(),
              source == counters(*w) ? "equal" : "DIFFERENT");
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && source == counters(*w);
}

}  // namespace KronlogTool
