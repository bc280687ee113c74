// libFuzzer target: the receiving side of a stream connection.
//
// Input: byte 0 holds flags (bit 0: start with a valid handshake, so that
// the fuzzer spends its time on records), byte 1 a chunk size (0: all at
// once), then the bytes a peer would send. They are fed to a mounting
// connection in chunks of that size, exercising frames split anywhere. The
// streamed test types give create, member and attribute records real
// adapters to reach. Whatever the input, nothing may crash, leak, read out
// of bounds or grow past the frame cap; a bad input closes the connection.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "qel/Trace.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/Record.h"
#include "testing/StreamTestTypes.h"

namespace {

Qel::EventLoop* loop() {
  static Qel::EventLoop::Ptr l = [] {
    StreamTesting::streamTestTypesRegister();
    Qel::traceLevelsIs("QelStream", 0);  // a trace per input would drown the output
    return Qel::EventLoop::Ptr(new Qel::EventLoop);
  }();
  return l.ptr();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  Qel::Connection::Ptr c =
      new Qel::Connection(loop(), fds[1], Qel::Connection::Role::mounting, "fuzz[1]", "me");
  if (data[0] & 1) {
    Qel::NboAttrLog::Out hello;
    Qel::NboAttrLog::handshakeWrite(hello, 1, "srv");
    c->bytesReceived(hello.data(), hello.size());
  }
  std::size_t chunk = data[1] == 0 ? size : data[1];
  const char* p = reinterpret_cast<const char*>(data) + 2;
  std::size_t left = size - 2;
  while (left > 0 && c->open()) {
    std::size_t n = left < chunk ? left : chunk;
    c->bytesReceived(p, n);
    p += n;
    left -= n;
  }
  c->close("input done");
  ::close(fds[0]);
  return 0;
}
