// The other process of the cross-process stream tests.
//
//   stream_peer serve PATH GAUGES    serves a board "agent" of GAUGES gauges
//                                    (gauge gN has value N); prints "serving"
//   stream_peer mount PATH           mounts PATH; prints "synced <gauges>
//                                    <sum of values>" after every snapshot
//                                    and "stale" when the server goes
//   stream_peer garbage PATH         connects, sends bytes no peer would,
//                                    and prints "closed" when refused
//
// Each runs until killed (garbage: until the server closes on it).
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel/stream/Mount.h"
#include "qel/stream/StreamServer.h"
#include "testing/StreamTestTypes.h"

namespace {

using StreamTesting::Board;

class Reporter : public Qel::Mount::Notifiee {
 public:
  void onSynced() override {
    auto* b = static_cast<Board*>(notifier()->root().ptr());
    unsigned long sum = 0;
    for (auto it = b->gaugeIter(); it; ++it) sum += it->value();
    std::printf("synced %zu %lu\n", b->gauges(), sum);
    std::fflush(stdout);
  }
  void onStale() override {
    std::printf("stale\n");
    std::fflush(stdout);
  }
};

int serve(const char* path, int gauges) {
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Board::Ptr board = Board::BoardIs("agent");
  for (int i = 0; i < gauges; ++i) {
    board->gaugeIs(Qel::Name("g" + std::to_string(i)), "u")->valueIs(static_cast<unsigned>(i));
  }
  Qel::StreamServer::Ptr server =
      new Qel::StreamServer(loop.ptr(), path, [board](Qel::Connection* c) {
        return Qel::StreamAdapter::Ptr(new StreamTesting::BoardAdapter(c, board.ptr()));
      });
  std::printf("serving\n");
  std::fflush(stdout);
  loop->run();
  return 0;
}

int mount(const char* path) {
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Mount::Ptr m = new Qel::Mount(loop.ptr(), path);
  m->retryDelaysIs(0.01, 0.1);
  Reporter reporter;
  reporter.notifierIs(m);
  loop->run();
  return 0;
}

int garbage(const char* path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return 1;
  // A plausible start, then a length field claiming far past the cap.
  const char bytes[] = "\x7f\xff\xff\xff\x01\x00\x00\x00\x00\x00\x00\x00garbage";
  (void)::write(fd, bytes, sizeof bytes - 1);
  char b[4096];
  while (::read(fd, b, sizeof b) > 0) {
  }
  std::printf("closed\n");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  StreamTesting::streamTestTypesRegister();
  if (argc == 4 && std::strcmp(argv[1], "serve") == 0) return serve(argv[2], std::atoi(argv[3]));
  if (argc == 3 && std::strcmp(argv[1], "mount") == 0) return mount(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "garbage") == 0) return garbage(argv[2]);
  std::fprintf(stderr, "usage: stream_peer serve PATH GAUGES | mount PATH | garbage PATH\n");
  return 2;
}
