// Streaming between real processes: a stopped mount costs the server at
// most its send buffer. (Garbage from a peer: ConnectionTest and
// ServerMountTest.)
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "qel/stream/Mount.h"
#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;
using StreamTesting::Child;

// The other processes. Mounts `path`, says "synced <gauges> <sum of values>"
// once the snapshot is in, and stays until killed.
void mountChild(const std::string& path, int report) {
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Mount::Ptr m = new Qel::Mount(loop.ptr(), path);
  m->retryDelaysIs(0.01, 0.1);
  if (!StreamTesting::runUntil(loop.ptr(), [&] { return m->synced(); })) return;
  auto* b = static_cast<Board*>(m->root().ptr());
  unsigned long sum = 0;
  for (auto it = b->gaugeIter(); it; ++it) sum += it->value();
  Child::say(report, "synced " + std::to_string(b->gauges()) + " " + std::to_string(sum) + "\n");
  loop->run();
}

std::size_t residentBytes() {
  std::ifstream status("/proc/self/status");
  std::string key;
  std::size_t kb = 0;
  while (status >> key && key != "VmRSS:") {
  }
  status >> kb;
  return kb * 1024;
}

class StreamProcessTest : public ::testing::Test, public StreamTesting::SocketDir {
 protected:
  Board::Ptr board_ = Board::BoardIs("agent");
  Qel::StreamServer::Ptr server_;
};

TEST_F(StreamProcessTest, StoppedMountCostsTheServerAtMostItsBuffer) {
  for (int i = 0; i < 50; ++i) board_->gaugeIs(Qel::Name("g" + std::to_string(i)), "u");
  server_ = serve(board_);
  Child mount([&](int report) { mountChild(path, report); });
  ASSERT_EQ(mount.next(loop.ptr()), "synced 50 0");
  mount.signal(SIGSTOP);
  ASSERT_EQ(server_->connections().size(), 1u);
  Qel::Connection::Ptr c = server_->connections()[0];
  std::size_t capacity = c->sendBufferCapacity();
  std::size_t most = 0;
  std::size_t rssAfterWarmup = 0;
  const std::string label(200, 'x');
  // About 60 MB of changes while the peer reads nothing.
  for (unsigned round = 0; round < 300; ++round) {
    for (unsigned i = 0; i < 1000; ++i) {
      Qel::Name name("g" + std::to_string(i % 50));
      board_->gauge(name)->valueIs(round * 1000 + i + 1);
      board_->gauge(name)->labelIs(Qel::String(label + std::to_string(i)));
    }
    loop->runOnce(0);
    most = std::max(most, c->sendBufferBytes());
    if (round == 30) rssAfterWarmup = residentBytes();
  }
  EXPECT_TRUE(c->open());
  EXPECT_GE(most, capacity);  // the peer really stopped reading
  EXPECT_LE(most, capacity + 512);
  EXPECT_LE(c->flowOutQueued(), c->adapters());
#if defined(__SANITIZE_ADDRESS__)
  (void)rssAfterWarmup;  // the sanitizer's quarantine keeps freed memory
#else
  EXPECT_LT(residentBytes(), rssAfterWarmup + 4 * 1024 * 1024);
#endif
  // Woken, the peer catches up to the current values and the buffer drains.
  mount.signal(SIGCONT);
  EXPECT_TRUE(runUntil([&] { return c->sendBufferBytes() == 0 && c->flowOutQueued() == 0; }));
}

}  // namespace
