// Events from an agent's eventIs to a follower's copy in another process,
// side by side with two peers in the same run, 64-byte messages:
//
//   raw floor  the bytes the agent sends for each event (captured from a
//              real connection), over the same socket type, in the same
//              64 KiB sends, read and dropped by the peer;
//   ZeroMQ     PUB/SUB over ipc://, one 64-byte message per event, the
//              publisher blocking at the high-water mark (XPUB_NODROP) so
//              that, as with ours, nothing is dropped.
//
// The agent writes into a full 1024-entry keepLastEntries writer (each
// event evicts one), served with writerDirServe; the follower mounts it
// with writerDirMount and counts entries through a WriterDirFollower. Every
// run checks that the follower received every event and lost none.
//
// Also measured: the latency from eventIs to the follower's onEntry at
// 10,000 events per second (p50, p99), the cost of eventIs in the agent
// with one follower connected against none (the agent services its loop
// every 64 events in both), the cost of writing one event's records alone,
// and the agent's resident memory over 10 million events while its
// follower is stopped (SIGSTOP).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Dir.h"
#include "qel/Trace.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "testing/StreamFixture.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::LogEntry;
using KronlogWriter::Writer;
using KronlogWriter::WriterDir;

constexpr std::size_t kMessageBytes = 64;
constexpr unsigned kLogSize = 1024;
constexpr int kEventsPerIteration = 1024;
constexpr std::size_t kBatchBytes = 64 * 1024;
// Room one event's records need in the send buffer: waiting for it keeps
// every event's records whole, so none is collapsed into a later transfer.
constexpr std::size_t kEventRoom = 512;

// Two 64-byte messages, so that consecutive events differ.
const std::string kMessages[2] = {std::string(kMessageBytes, 'a'), std::string(kMessageBytes, 'b')};

std::string socketPath(const char* what) {
  return "/tmp/kronlog-bench-" + std::to_string(::getpid()) + "-" + what + ".sock";
}

// What the follower process reports back when its stream ends.
struct FollowerReport {
  std::uint64_t entries = 0;
  std::uint64_t lost = 0;
  double p50Us = 0, p99Us = 0, maxUs = 0;  // eventIs to onEntry, for live entries
};

using StreamTesting::Child;

// Reads a follower's report line.
FollowerReport reportOf(const std::string& line) {
  FollowerReport r;
  std::istringstream in(line);
  if (!(in >> r.entries >> r.lost >> r.p50Us >> r.p99Us >> r.maxUs)) r.entries = ~0ull;
  return r;
}

// ---- The follower process

class CountingFollower : public KronlogWriter::WriterDirFollower {
 public:
  CountingFollower(const KronlogWriter::WriterDirMount::Ptr& m, unsigned liveFrom)
      : WriterDirFollower(m), liveFrom_(liveFrom) {}
  void onEntry(const Qel::Name&, unsigned int index, const LogEntry& entry) override {
    ++report.entries;
    if (index >= liveFrom_) latencies.push_back((Qel::utcNow() - entry.timestamp()) * 1e6);
  }
  void onLoss(const Qel::Name&, const KronlogWriter::WriterFollower::Loss& loss) override {
    report.lost += loss.count;
  }
  void onStale() override { ended = true; }

  FollowerReport report;
  std::vector<double> latencies;
  bool ended = false;

 private:
  unsigned liveFrom_;
};

// Mounts the agent at `path`, follows it until the agent goes away, then
// reports what it received. Latencies are kept for indices from `liveFrom`.
void follower(const std::string& path, unsigned liveFrom, int report) {
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  KronlogWriter::WriterDirMount::Ptr m =
      KronlogWriter::writerDirMount(loop.ptr(), agents, "agent", Qel::String(path));
  CountingFollower f(m, liveFrom);
  f.latencies.reserve(1 << 16);
  while (!f.ended) loop->runOnce(-1);
  std::sort(f.latencies.begin(), f.latencies.end());
  if (!f.latencies.empty()) {
    auto at = [&](double q) {
      return f.latencies[static_cast<std::size_t>(q * static_cast<double>(f.latencies.size() - 1))];
    };
    f.report.p50Us = at(0.50);
    f.report.p99Us = at(0.99);
    f.report.maxUs = f.latencies.back();
  }
  const FollowerReport& r = f.report;
  Child::say(report, std::to_string(r.entries) + " " + std::to_string(r.lost) + " " +
                         std::to_string(r.p50Us) + " " + std::to_string(r.p99Us) + " " +
                         std::to_string(r.maxUs) + "\n");
}

// ---- The agent

struct Agent {
  explicit Agent(const std::string& path) {
    Qel::traceLevelsIs("QelStream", 0);
    writer = dir->writerIs("g", Config(kLogSize, KronlogWriter::keepLastEntries));
    for (unsigned i = 0; i < kLogSize; ++i) writer->eventIs(kMessages[i & 1]);
    server = KronlogWriter::writerDirServe(loop.ptr(), dir, Qel::String(path));
  }
  // Waits until one follower is connected and has everything.
  Qel::Connection* followerConnected() {
    while (server->connections().empty() || !server->connections().front()->drained())
      loop->runOnce(0.01);
    return server->connections().front().ptr();
  }
  // Runs the loop until the connection has handed everything to the socket.
  void drain(Qel::Connection* c) {
    while (c->open() && !c->drained()) loop->runOnce(-1);
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  WriterDir::Ptr dir = KronlogWriter::writerDirFactory("agent");
  Writer::Ptr writer;
  Qel::StreamServer::Ptr server;
};

// Everything readable on `fd` now.
std::string drainFd(int fd) {
  std::string got;
  char buf[65536];
  ssize_t n;
  while ((n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0)
    got.append(buf, static_cast<std::size_t>(n));
  return got;
}

// The bytes a connection carries for each of `events` events of a full
// writer, read off a real serving connection: the raw floor sends exactly
// these. Its peer's handshake is the one a real mounting connection sends.
std::vector<std::string> capturedEventBytes(int events) {
  Qel::traceLevelsIs("QelStream", 0);
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  int a[2], b[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, a) != 0 ||
      ::socketpair(AF_UNIX, SOCK_STREAM, 0, b) != 0)
    std::abort();
  std::string handshake;
  {
    Qel::Connection::Ptr mounting =
        new Qel::Connection(loop.ptr(), a[0], Qel::Connection::Role::mounting, "agent", "capture");
    while (handshake.empty()) {
      loop->runOnce(0.01);
      handshake = drainFd(a[1]);
    }
    mounting->close("captured");
  }
  ::close(a[1]);
  WriterDir::Ptr dir = KronlogWriter::writerDirFactory("agent");
  Writer::Ptr writer = dir->writerIs("g", Config(kLogSize, KronlogWriter::keepLastEntries));
  for (unsigned i = 0; i < kLogSize; ++i) writer->eventIs(kMessages[i & 1]);
  Qel::Connection::Ptr c =
      new Qel::Connection(loop.ptr(), b[0], Qel::Connection::Role::serving, "capture", "agent");
  if (::write(b[1], handshake.data(), handshake.size()) != static_cast<ssize_t>(handshake.size()))
    std::abort();
  while (!c->handshook()) loop->runOnce(0.01);
  c->adapterIs(new KronlogWriter::WriterDirNboAttrLogAdapter(c.ptr(), dir.ptr()));
  while (!c->drained()) loop->runOnce(0.01);
  drainFd(b[1]);  // the handshake and the snapshot
  std::vector<std::string> bytes;
  for (int i = 0; i < events; ++i) {
    writer->eventIs(kMessages[i & 1]);
    while (!c->drained()) loop->runOnce(0.01);
    bytes.push_back(drainFd(b[1]));
  }
  c->close("captured");
  ::close(b[1]);
  return bytes;
}

double rssKiB() {
  long pages = 0, resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f) return 0;
  if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(f);
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024.0;
}

// ---- Raw floor

void BM_RawFloor(benchmark::State& state) {
  std::vector<std::string> events = capturedEventBytes(kLogSize);
  std::uint64_t bytesPerCycle = 0;
  for (const std::string& e : events) bytesPerCycle += e.size();
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) std::abort();
  Child peer([&](int report) {
    ::close(sv[0]);
    std::vector<char> buf(kBatchBytes);
    std::uint64_t total = 0;
    ssize_t n;
    while ((n = ::read(sv[1], buf.data(), buf.size())) > 0) total += static_cast<std::uint64_t>(n);
    Child::say(report, std::to_string(total) + "\n");
  });
  ::close(sv[1]);
  std::string batch;
  std::uint64_t sent = 0, sentBytes = 0;
  auto flush = [&] {
    std::size_t off = 0;
    while (off < batch.size()) {
      ssize_t n =
          ::send(sv[0], batch.data() + off, batch.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        off += static_cast<std::size_t>(n);
      } else {
        pollfd p{sv[0], POLLOUT, 0};
        ::poll(&p, 1, -1);
      }
    }
    batch.clear();
  };
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerIteration; ++i) {
      const std::string& e = events[sent % events.size()];
      batch += e;
      sentBytes += e.size();
      ++sent;
      if (batch.size() >= kBatchBytes) flush();
    }
  }
  flush();
  ::close(sv[0]);
  Qel::EventLoop::Ptr idle = new Qel::EventLoop;
  if (peer.next(idle.ptr(), '\n', 60) != std::to_string(sentBytes))
    state.SkipWithError("the peer did not receive every byte");
  state.counters["events/s"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
  state.counters["bytes/event"] = static_cast<double>(bytesPerCycle) / events.size();
}

// ---- Through the library: eventIs to the copy's onEntry

void BM_Kronlog(benchmark::State& state) {
  std::string path = socketPath("kronlog");
  Agent agent(path);
  Child peer([&](int report) { follower(path, ~0u, report); });
  Qel::Connection* c = agent.followerConnected();
  std::uint64_t sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerIteration; ++i) {
      while (c->sendBufferBytes() + kEventRoom > c->sendBufferCapacity()) agent.loop->runOnce(-1);
      agent.writer->eventIs(kMessages[sent & 1]);
      ++sent;
    }
  }
  agent.drain(c);
  agent.server = nullptr;  // the follower sees its agent go and reports
  const FollowerReport r = reportOf(peer.next(agent.loop.ptr(), '\n', 60));
  if (r.entries != kLogSize + sent || r.lost != 0)
    state.SkipWithError("the follower did not receive every event exactly once");
  state.counters["events/s"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
}

// ---- ZeroMQ PUB/SUB over ipc://

void BM_ZeroMQ(benchmark::State& state) {
  std::string endpoint = "ipc://" + socketPath("zmq");
  Child peer([&](int report) {
    void* ctx = zmq_ctx_new();
    void* sub = zmq_socket(ctx, ZMQ_SUB);
    zmq_setsockopt(sub, ZMQ_SUBSCRIBE, "", 0);
    zmq_connect(sub, endpoint.c_str());
    std::uint64_t count = 0;
    bool ready = false;
    char buf[256];
    for (;;) {
      int n = zmq_recv(sub, buf, sizeof buf, 0);
      if (n == static_cast<int>(kMessageBytes)) {
        ++count;
      } else if (n == 1 && buf[0] == 'H' && !ready) {
        ready = true;  // subscribed: the publisher may start
        Child::say(report, "ready\n");
      } else if (n == 1 && buf[0] == 'E') {
        break;
      }
    }
    Child::say(report, std::to_string(count) + "\n");
    zmq_close(sub);
    zmq_ctx_term(ctx);
  });
  void* ctx = zmq_ctx_new();
  void* pub = zmq_socket(ctx, ZMQ_PUB);
  int one = 1;
  zmq_setsockopt(pub, ZMQ_XPUB_NODROP, &one, sizeof one);
  zmq_bind(pub, endpoint.c_str());
  // A subscriber hears only what is published after it joined: greet until
  // it answers.
  Qel::EventLoop::Ptr idle = new Qel::EventLoop;
  do {
    zmq_send(pub, "H", 1, ZMQ_DONTWAIT);
  } while (peer.next(idle.ptr(), '\n', 0.001) != "ready");
  std::uint64_t sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerIteration; ++i) {
      zmq_send(pub, kMessages[sent & 1].data(), kMessageBytes, 0);  // blocks at the HWM
      ++sent;
    }
  }
  zmq_send(pub, "E", 1, 0);
  if (peer.next(idle.ptr(), '\n', 60) != std::to_string(sent))
    state.SkipWithError("the subscriber did not receive every message");
  zmq_close(pub);
  zmq_ctx_term(ctx);
  ::unlink(endpoint.c_str() + 6);
  state.counters["events/s"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
}

// ---- Latency at 10,000 events per second

void BM_KronlogLatencyAt10kPerSecond(benchmark::State& state) {
  std::string path = socketPath("latency");
  Agent agent(path);
  Child peer([&](int report) { follower(path, kLogSize, report); });
  Qel::Connection* c = agent.followerConnected();
  constexpr int kEvents = 20000;
  constexpr double kInterval = 1e-4;
  for (auto _ : state) {
    double start = Qel::EventLoop::monotonicNow();
    for (int i = 0; i < kEvents; ++i) {
      double due = start + i * kInterval;
      for (double now; (now = Qel::EventLoop::monotonicNow()) < due;)
        agent.loop->runOnce(due - now);
      agent.writer->eventIs(kMessages[i & 1]);
      agent.loop->runOnce(0);  // back to the agent's loop, which sends
    }
  }
  agent.drain(c);
  agent.server = nullptr;
  const FollowerReport r = reportOf(peer.next(agent.loop.ptr(), '\n', 60));
  if (r.entries != kLogSize + kEvents || r.lost != 0)
    state.SkipWithError("the follower did not receive every event exactly once");
  state.counters["p50_us"] = r.p50Us;
  state.counters["p99_us"] = r.p99Us;
  state.counters["max_us"] = r.maxUs;
}

// ---- eventIs in the agent: one follower against none

// Arg 0: no follower; 1: one follower connected. The agent services its
// loop (without waiting) every 64 events in both cases, so the difference
// is what streaming costs the agent.
void BM_AgentEventIs(benchmark::State& state) {
  std::string path = socketPath("agent");
  Agent agent(path);
  std::unique_ptr<Child> peer;
  if (state.range(0) == 1) {
    peer = std::make_unique<Child>([&](int report) { follower(path, ~0u, report); });
    agent.followerConnected();
  }
  std::uint64_t sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerIteration; ++i) {
      agent.writer->eventIs(kMessages[sent & 1]);
      if ((++sent & 63) == 0) agent.loop->runOnce(0);
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(sent));
  if (peer) {
    Qel::Connection* c = agent.server->connections().front().ptr();
    agent.drain(c);
    agent.server = nullptr;
    // Entries plus losses are every event: a follower that fell behind
    // lost what was evicted before it could be sent, and counts it.
    const FollowerReport r = reportOf(peer->next(agent.loop.ptr(), '\n', 60));
    if (r.entries + r.lost != kLogSize + sent)
      state.SkipWithError("the follower's entries and losses do not add up");
    state.counters["delivered"] = static_cast<double>(r.entries) / (kLogSize + sent);
  }
}

// ---- The records of one event, written alone
//
// The three records a full writer's event becomes (the new entry, the
// deletion of the entry it evicted, the overflow count), written straight
// into a send buffer that is emptied every 64 KiB: no notification, no
// adapter, no socket. What streaming must add to eventIs in the agent is
// at least this plus the raw floor's cost of sending the same bytes (its
// CPU column).
void BM_EventRecordsWritten(benchmark::State& state) {
  using Qel::NboAttrLog::RecordKind;
  const std::size_t captured = capturedEventBytes(1).front().size();
  Qel::Ptr<Qel::NboAttrLog::Out> out = new Qel::NboAttrLog::Out;
  const Qel::String messages[2] = {Qel::String(kMessages[0]), Qel::String(kMessages[1])};
  const Qel::NboAttrLog::EntityId entity = 3;
  std::uint32_t index = kLogSize;
  std::uint64_t bytes = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerIteration; ++i, ++index) {
      const std::size_t before = out->size();
      out->frameBegin(static_cast<std::uint8_t>(RecordKind::attrUpdate), 263, entity);
      out->u32(index);
      out->f64(1.7e9 + index);
      out->string(messages[index & 1]);
      out->frameEnd();
      out->frameBegin(static_cast<std::uint8_t>(RecordKind::memberDel), 263, entity);
      out->u32(index - kLogSize);
      out->frameEnd();
      out->frameBegin(static_cast<std::uint8_t>(RecordKind::attrUpdate), 261, entity);
      out->u32(index - kLogSize + 1);
      out->frameEnd();
      bytes += out->size() - before;
      if (out->size() >= kBatchBytes) out->consume(out->size());
    }
  }
  benchmark::DoNotOptimize(out->data());
  const std::uint64_t events = static_cast<std::uint64_t>(index - kLogSize);
  if (bytes != events * captured)
    state.SkipWithError("these are not the bytes a real connection sends per event");
  state.SetItemsProcessed(static_cast<std::int64_t>(events));
  state.counters["bytes/event"] = static_cast<double>(bytes) / static_cast<double>(events);
}

// ---- Agent memory over 10 million events, follower stopped

void BM_AgentMemoryWithStoppedFollower(benchmark::State& state) {
  std::string path = socketPath("memory");
  Agent agent(path);
  Child peer([&](int report) { follower(path, ~0u, report); });
  Qel::Connection* c = agent.followerConnected();
  peer.signal(SIGSTOP);
  double atOneMillion = 0, atEnd = 0;
  std::size_t maxBuffered = 0;
  for (auto _ : state) {
    for (std::uint64_t i = 1; i <= 10000000; ++i) {
      agent.writer->eventIs(kMessages[i & 1]);
      if ((i & 1023) == 0) {
        agent.loop->runOnce(0);
        maxBuffered = std::max(maxBuffered, c->sendBufferBytes());
      }
      if (i == 1000000) atOneMillion = rssKiB();
    }
    atEnd = rssKiB();
  }
  peer.signal(SIGCONT);
  agent.server = nullptr;
  state.counters["rss_at_1M_KiB"] = atOneMillion;
  state.counters["rss_at_10M_KiB"] = atEnd;
  state.counters["growth_KiB"] = atEnd - atOneMillion;
  state.counters["max_send_buffer_KiB"] = static_cast<double>(maxBuffered) / 1024.0;
}

BENCHMARK(BM_RawFloor)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_Kronlog)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_ZeroMQ)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_KronlogLatencyAt10kPerSecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_AgentEventIs)->Arg(0)->Arg(1)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_EventRecordsWritten)->MinTime(1.0);
BENCHMARK(BM_AgentMemoryWithStoppedFollower)->UseRealTime()->Iterations(1);

}  // namespace
