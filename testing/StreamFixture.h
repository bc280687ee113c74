// Test support for the stream layer: a serving and a mounting connection
// joined by a socketpair on one event loop, a served socket path, frame
// builders for hand-made input, and a capture of the stream layer's traces.
#ifndef KRONLOG_TESTING_STREAMFIXTURE_H
#define KRONLOG_TESTING_STREAMFIXTURE_H

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
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

// Keeps the "QelStream" records of the given levels while it lives.
class StreamTraces : public Qel::TraceSink {
 public:
  explicit StreamTraces(std::uint32_t levels = 1u) : saved_(Qel::traceLevels("QelStream")) {
    Qel::traceLevelsIs("QelStream", levels);
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
    for (int i = 0; i < 10000; ++i) {
      if (loop->runOnce(0) == 0) return;
    }
    throw std::runtime_error("stream pair never settled");
  }
  Board* copy() const {
    Qel::StreamAdapter* a = client->adapter(Qel::NboAttrLog::kRootEntity);
    return a ? static_cast<Board*>(a->entity()) : nullptr;
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::String peer;
  Qel::Connection::Ptr server;
  Qel::Connection::Ptr client;

 private:
  Qel::StreamServer::RootAdapterFactory root_;
};

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
  // Runs the loop until `done` holds; false once `seconds` have passed.
  template <class F>
  bool runUntil(F done, Qel::Seconds seconds = 5) {
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + seconds;
    while (!done()) {
      if (Qel::EventLoop::monotonicNow() > end) return false;
      loop->runOnce(0.01);
    }
    return true;
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  std::string dir;
  std::string path;
};

// One frame, built by hand.
inline std::string frameOf(Qel::NboAttrLog::RecordKind kind, Qel::AttributeId attr,
                           Qel::NboAttrLog::EntityId entity, const std::string& payload) {
  Qel::NboAttrLog::Out out;
  out.frameBegin(static_cast<std::uint8_t>(kind), attr, entity);
  out.bytes(payload.data(), payload.size());
  out.frameEnd();
  // The payload went in as a length-prefixed string; take the prefix out.
  std::string f(out.data(), out.size());
  f.erase(Qel::NboAttrLog::kHeaderBytes, 4);
  std::uint32_t length = static_cast<std::uint32_t>(f.size() - 4);
  for (int i = 0; i < 4; ++i) f[i] = static_cast<char>((length >> (8 * (3 - i))) & 0xff);
  return f;
}

inline std::string u32Bytes(std::uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * (3 - i))) & 0xff);
  return s;
}

inline std::string stringBytes(const std::string& v) {
  return u32Bytes(static_cast<std::uint32_t>(v.size())) + v;
}

}  // namespace StreamTesting

#endif  // KRONLOG_TESTING_STREAMFIXTURE_H
