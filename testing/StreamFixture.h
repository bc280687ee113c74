// Test support for the stream layer: a serving and a mounting connection
// joined by a socketpair on one event loop, a served socket path, a forked
// child process, frame builders for hand-made input, and a capture of the
// stream layer's traces.
#ifndef KRONLOG_TESTING_STREAMFIXTURE_H
#define KRONLOG_TESTING_STREAMFIXTURE_H

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "qel/Trace.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/NboAttrLog.h"
#include "qel/stream/Record.h"
#include "qel/stream/StreamServer.h"
#include "qel/stream/UnixSocket.h"
#include "testing/StreamTestTypes.h"

namespace StreamTesting {

// Keeps the "QelStream" records of level 1 while it lives.
class StreamTraces : public Qel::TraceSink {
 public:
  StreamTraces() : saved_(Qel::traceLevels("QelStream")) {
    Qel::traceLevelsIs("QelStream", 1u);
    Qel::traceSinkIs(this);
  }
  ~StreamTraces() override {
    Qel::traceSinkIs(nullptr);
    Qel::traceLevelsIs("QelStream", saved_);
  }
  StreamTraces(const StreamTraces&) = delete;
  StreamTraces& operator=(const StreamTraces&) = delete;
  void onRecord(const Qel::TraceRecord& r) override {
    if (r.facility == "QelStream") texts.push_back(r.text.stdString());
  }
  std::vector<std::string> texts;

 private:
  std::uint32_t saved_;
};

inline Qel::StreamServer::RootAdapterFactory boardRoot(Board::Ptr board) {
  return [board](Qel::Connection* c) {
    return Qel::StreamAdapter::Ptr(new BoardAdapter(c, board.ptr()));
  };
}

// Calls `on("value")` or `on("label")` as a gauge changes.
class GaugeWatch : public Gauge::Notifiee {
 public:
  GaugeWatch(Gauge* g, std::function<void(const char*)> on) : on_(std::move(on)) { notifierIs(g); }
  void onValue() override { on_("value"); }
  void onLabel() override { on_("label"); }

 private:
  std::function<void(const char*)> on_;
};

// A serving and a mounting connection over a socketpair; the serving side
// streams the root adapter `root` makes once the peer's handshake is in.
class StreamPair : public Qel::Connection::Notifiee {
 public:
  explicit StreamPair(Qel::StreamServer::RootAdapterFactory root) : root_(std::move(root)) {
    streamTestTypesRegister();
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) throw std::runtime_error("socketpair");
    peer = Qel::peerName(fds[0]);
    server = new Qel::Connection(loop.ptr(), fds[0], Qel::Connection::Role::serving, peer, "srv");
    client = new Qel::Connection(loop.ptr(), fds[1], Qel::Connection::Role::mounting, peer, "cli");
    notifierIs(server);
  }
  explicit StreamPair(Board::Ptr board) : StreamPair(boardRoot(board)) {}
  ~StreamPair() override {
    notifierIs(nullptr);
    client->close("test over");
    server->close("test over");
  }
  void onHandshake() override { server->adapterIs(root_(server.ptr())); }
  // Runs the loop until nothing is ready (bounded, so a livelock fails).
  void settle() {
    for (int i = 0; i < 100000; ++i) {
      if (loop->runOnce(0) == 0) return;
    }
    throw std::runtime_error("stream pair never settled");
  }
  template <class T = Board>
  T* copy() const {
    Qel::StreamAdapter* a = client->adapter(Qel::NboAttrLog::kRootEntity);
    return a ? dynamic_cast<T*>(a->entity()) : nullptr;
  }
  // Feeds hand-made bytes to the mounting side; returns their first offset.
  std::uint64_t inject(const std::string& bytes) {
    std::uint64_t at = client->bytesIn();
    client->bytesReceived(bytes.data(), bytes.size());
    return at;
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::String peer;
  Qel::Connection::Ptr server;
  Qel::Connection::Ptr client;

 private:
  Qel::StreamServer::RootAdapterFactory root_;
};

// Runs `loop` until `done` holds; false once `seconds` have passed.
template <class F>
bool runUntil(Qel::EventLoop* loop, F done, Qel::Seconds seconds = 5) {
  Qel::Seconds end = Qel::EventLoop::monotonicNow() + seconds;
  while (!done()) {
    if (Qel::EventLoop::monotonicNow() > end) return false;
    loop->runOnce(0.01);
  }
  return true;
}

// A socket path in a fresh temporary directory and a loop to serve it on.
class SocketDir {
 public:
  SocketDir() {
    streamTestTypesRegister();
    char d[] = "/tmp/kronlog-stream-XXXXXX";
    if (!::mkdtemp(d)) throw std::runtime_error("mkdtemp");
    dir = d;
    path = dir + "/agent.sock";
  }
  ~SocketDir() {
    ::unlink(path.c_str());
    ::rmdir(dir.c_str());
  }
  Qel::StreamServer::Ptr serve(Board::Ptr board) {
    return new Qel::StreamServer(loop.ptr(), path, boardRoot(board));
  }
  template <class F>
  bool runUntil(F done, Qel::Seconds seconds = 5) {
    return StreamTesting::runUntil(loop.ptr(), done, seconds);
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  std::string dir;
  std::string path;
};

// A forked process running `body`, which reports on the pipe it is given;
// killed when this goes.
class Child {
 public:
  explicit Child(const std::function<void(int report)>& body) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[0]);
      body(fds[1]);
      ::_exit(0);
    }
    ::close(fds[1]);
    report_ = fds[0];
    ::fcntl(report_, F_SETFL, O_NONBLOCK);
  }
  ~Child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::close(report_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  void signal(int sig) { ::kill(pid_, sig); }
  // The report up to the next `end` byte, running `loop` meanwhile; "" once
  // `seconds` have passed.
  std::string next(Qel::EventLoop* loop, char end = '\n', Qel::Seconds seconds = 5) {
    std::size_t at = std::string::npos;
    runUntil(
        loop,
        [&] {
          char b[4096];
          ssize_t n = ::read(report_, b, sizeof b);
          if (n > 0) pending_.append(b, static_cast<std::size_t>(n));
          return (at = pending_.find(end)) != std::string::npos;
        },
        seconds);
    if (at == std::string::npos) return "";
    std::string r = pending_.substr(0, at);
    pending_.erase(0, at + 1);
    return r;
  }
  // Writes `text` to `report` whole; in the child.
  static void say(int report, const std::string& text) {
    for (ssize_t at = 0, n; at < static_cast<ssize_t>(text.size()); at += n) {
      if ((n = ::write(report, text.data() + at, text.size() - at)) <= 0) ::_exit(1);
    }
  }

 private:
  pid_t pid_ = -1;
  int report_ = -1;
  std::string pending_;
};

inline std::string u32Bytes(std::uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * (3 - i))) & 0xff);
  return s;
}

inline std::string stringBytes(const std::string& v) {
  return u32Bytes(static_cast<std::uint32_t>(v.size())) + v;
}

// One frame, built by hand: length, kind, flags, attribute, entity, payload.
inline std::string frameOf(Qel::NboAttrLog::RecordKind kind, Qel::AttributeId attr,
                           Qel::NboAttrLog::EntityId entity, const std::string& payload) {
  return u32Bytes(static_cast<std::uint32_t>(8 + payload.size())) + static_cast<char>(kind) + '\0' +
         u32Bytes(attr).substr(2) + u32Bytes(entity) + payload;
}

}  // namespace StreamTesting

#endif  // KRONLOG_TESTING_STREAMFIXTURE_H
