// Records per second from one process to another through the stream layer,
// side by side with the raw floor: the same bytes over the same socket type
// (an AF_UNIX stream socketpair), sent in the same batches (64 KiB sends,
// waiting for writability when the socket is full), which the peer reads in
// the same 64 KiB reads and drops.
//
// Framework side: the parent changes the label of one of 64 gauges per
// record; their adapters write attrUpdate records into the connection's
// send buffer (waiting for room rather than collapsing changes, so every
// change is one record). The child mounts them: it decodes each frame,
// finds the entity, applies the label to its read-only copy and notifies.
// Both children report how many records (frames) they received, and a run
// whose count differs from what was sent fails; they also report their CPU
// time, so that each run shows which side bounds it (receiver_ns against
// sender_ns, both CPU per record).
//
// Arg: label bytes per record (the frame is 20 bytes more).
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "qel/Trace.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/Record.h"
#include "testing/StreamTestTypes.h"

namespace {

using StreamTesting::Board;
using StreamTesting::Gauge;

constexpr int kGauges = 64;
constexpr std::size_t kBatchBytes = 64 * 1024;
constexpr int kRecordsPerIteration = 1024;

// What a child reports: records received and the CPU time it took.
struct Received {
  std::uint64_t records = ~0ull;
  std::uint64_t cpuNs = 0;
};

std::uint64_t cpuNs(const rusage& ru) {
  auto ns = [](const timeval& t) {
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(t.tv_usec) * 1000ull;
  };
  return ns(ru.ru_utime) + ns(ru.ru_stime);
}

// A child process at the other end of a socketpair; reports its count and
// CPU time back through a pipe when its end of the socket is closed.
struct Child {
  pid_t pid = -1;
  int socket = -1;  // the parent's end
  int report = -1;
  template <class F>
  static Child spawn(F body) {
    int sv[2], pipefd[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 || ::pipe(pipefd) != 0) std::abort();
    Child c;
    c.pid = ::fork();
    if (c.pid == 0) {
      ::close(sv[0]);
      ::close(pipefd[0]);
      Received r;
      r.records = body(sv[1]);
      rusage ru{};
      ::getrusage(RUSAGE_SELF, &ru);
      r.cpuNs = cpuNs(ru);
      (void)!::write(pipefd[1], &r, sizeof r);
      ::_exit(0);
    }
    ::close(sv[1]);
    ::close(pipefd[1]);
    c.socket = sv[0];
    c.report = pipefd[0];
    return c;
  }
  // Waits for the child's report after the parent's end is closed.
  Received finish() {
    Received r;
    if (::read(report, &r, sizeof r) != static_cast<ssize_t>(sizeof r)) r = Received();
    ::waitpid(pid, nullptr, 0);
    ::close(report);
    return r;
  }
};

std::vector<Qel::String> labels(std::size_t bytes) {
  // Two labels per size, so that every change is a change.
  return {Qel::String(std::string(bytes, 'a')), Qel::String(std::string(bytes, 'b'))};
}

std::uint64_t selfCpuNs() {
  rusage ru{};
  ::getrusage(RUSAGE_SELF, &ru);
  return cpuNs(ru);
}

// CPU per record on each side: this process's since `senderStart` (taken
// just before sending), and the child's whole life (its setup is small
// against a run).
void cpuCounters(benchmark::State& state, std::uint64_t senderStart, std::uint64_t sent,
                 const Received& received) {
  const double records = static_cast<double>(sent);
  state.counters["sender_ns"] = static_cast<double>(selfCpuNs() - senderStart) / records;
  state.counters["receiver_ns"] = static_cast<double>(received.cpuNs) / records;
}

// ---- Raw floor

void BM_RawFloor(benchmark::State& state) {
  std::size_t bytes = static_cast<std::size_t>(state.range(0));
  // The same frames the framework sends: attrUpdate of attribute 262.
  std::vector<std::string> frames;
  for (const Qel::String& l : labels(bytes)) {
    Qel::NboAttrLog::Out out;
    out.frameBegin(static_cast<std::uint8_t>(Qel::NboAttrLog::RecordKind::attrUpdate),
                   StreamTesting::kLabelAttr, 2);
    out.string(l);
    out.frameEnd();
    frames.emplace_back(out.data(), out.size());
  }
  std::size_t frameBytes = frames[0].size();
  Child child = Child::spawn([frameBytes](int fd) {
    std::vector<char> buf(kBatchBytes);
    std::uint64_t total = 0;
    ssize_t n;
    while ((n = ::read(fd, buf.data(), buf.size())) > 0) total += static_cast<std::uint64_t>(n);
    return total / frameBytes;
  });
  std::string batch;
  std::uint64_t sent = 0;
  auto flush = [&] {
    std::size_t off = 0;
    while (off < batch.size()) {
      ssize_t n =
          ::send(child.socket, batch.data() + off, batch.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        off += static_cast<std::size_t>(n);
      } else {
        pollfd p{child.socket, POLLOUT, 0};
        ::poll(&p, 1, -1);
      }
    }
    batch.clear();
  };
  const std::uint64_t senderStart = selfCpuNs();
  for (auto _ : state) {
    for (int i = 0; i < kRecordsPerIteration; ++i) {
      batch += frames[sent & 1];
      ++sent;
      if (batch.size() >= kBatchBytes) flush();
    }
  }
  flush();
  ::close(child.socket);
  const Received received = child.finish();
  if (received.records != sent) state.SkipWithError("the peer did not receive every record");
  state.counters["records/s"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
  cpuCounters(state, senderStart, sent, received);
  state.SetBytesProcessed(static_cast<std::int64_t>(sent * frameBytes));
}

// ---- Through the framework

void BM_Framework(benchmark::State& state) {
  std::size_t bytes = static_cast<std::size_t>(state.range(0));
  Qel::traceLevelsIs("QelStream", 0);
  StreamTesting::streamTestTypesRegister();
  Child child = Child::spawn([](int fd) {
    Qel::EventLoop::Ptr loop = new Qel::EventLoop;
    Qel::Connection::Ptr c =
        new Qel::Connection(loop.ptr(), fd, Qel::Connection::Role::mounting, "bench", "peer");
    while (c->open()) loop->runOnce(-1);
    return c->recordsIn();
  });
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Connection::Ptr server = new Qel::Connection(
      loop.ptr(), child.socket, Qel::Connection::Role::serving, "bench", "server");
  Board::Ptr board = Board::BoardIs("board");
  std::vector<Gauge::Ptr> gauges;
  for (int i = 0; i < kGauges; ++i)
    gauges.push_back(board->gaugeIs(Qel::Name("g" + std::to_string(i)), "u"));
  while (!server->handshook()) loop->runOnce(-1);
  server->adapterIs(new StreamTesting::BoardAdapter(server.ptr(), board.ptr()));
  while (server->flowOutQueued() > 0 || server->sendBufferBytes() > 0) loop->runOnce(-1);
  std::uint64_t before = 0;  // records of the snapshot, counted by the peer too
  std::vector<Qel::String> ls = labels(bytes);
  std::uint64_t sent = 0;
  const std::uint64_t senderStart = selfCpuNs();
  for (auto _ : state) {
    for (int i = 0; i < kRecordsPerIteration; ++i) {
      // Wait for room rather than let changes collapse: one change, one record.
      while (!server->mayTransmit()) loop->runOnce(-1);
      gauges[sent % kGauges]->labelIs(ls[(sent / kGauges) & 1]);
      ++sent;
    }
  }
  while (server->sendBufferBytes() > 0) loop->runOnce(-1);
  before = server->recordsIn();  // the peer's handshake
  (void)before;
  server->close("done");
  const Received received = child.finish();
  // The peer also received the handshake, the snapshot (board, transaction
  // pair, 64 creates, 64 members, 128 attribute values) and its end.
  std::uint64_t snapshot = 1 + 1 + 2 + 2 * kGauges + 2 * kGauges + 1;
  if (received.records != sent + snapshot)
    state.SkipWithError("the peer did not receive every record");
  state.counters["records/s"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
  cpuCounters(state, senderStart, sent, received);
}

// ---- The receiving side alone, in one process

// A mounting connection applies ready-made attrUpdate frames (the ones
// BM_Framework's peer receives) handed to it in 64 KiB chunks: the
// receiving side's own cost per record, without the socket and without a
// second process, so that a change to the decode path shows up clearly.
void BM_ReceiveOnly(benchmark::State& state) {
  std::size_t bytes = static_cast<std::size_t>(state.range(0));
  Qel::traceLevelsIs("QelStream", 0);
  StreamTesting::streamTestTypesRegister();
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Connection::Ptr c =
      new Qel::Connection(loop.ptr(), fds[1], Qel::Connection::Role::mounting, "bench", "me");
  Qel::NboAttrLog::Out setup;
  Qel::NboAttrLog::handshakeWrite(setup, 1, "server");
  using Qel::NboAttrLog::RecordKind;
  for (int i = 0; i < kGauges; ++i) {
    setup.frameBegin(static_cast<std::uint8_t>(RecordKind::create), 0,
                     static_cast<Qel::NboAttrLog::EntityId>(i + 1));
    setup.string("StreamTesting::Gauge");
    setup.string(Qel::String("g" + std::to_string(i)));
    setup.string("u");
    setup.frameEnd();
  }
  c->bytesReceived(setup.data(), setup.size());
  std::vector<Qel::String> ls = labels(bytes);
  Qel::NboAttrLog::Out chunk;
  std::uint64_t perChunk = 0;
  for (; chunk.size() + bytes + 20 <= kBatchBytes; ++perChunk) {
    chunk.frameBegin(static_cast<std::uint8_t>(RecordKind::attrUpdate), StreamTesting::kLabelAttr,
                     static_cast<Qel::NboAttrLog::EntityId>(perChunk % kGauges + 1));
    chunk.string(ls[(perChunk / kGauges) & 1]);
    chunk.frameEnd();
  }
  const std::uint64_t recordsBefore = c->recordsIn();
  std::uint64_t fed = 0;
  for (auto _ : state) {
    c->bytesReceived(chunk.data(), chunk.size());
    fed += perChunk;
  }
  if (!c->open() || c->recordsIn() - recordsBefore != fed)
    state.SkipWithError("the connection did not apply every record");
  state.counters["ns/record"] = benchmark::Counter(
      static_cast<double>(fed), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  ::close(fds[0]);
}

BENCHMARK(BM_RawFloor)->Arg(16)->Arg(80)->Arg(200)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Framework)->Arg(16)->Arg(80)->Arg(200)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ReceiveOnly)->Arg(16)->Arg(80)->Arg(200);

}  // namespace
