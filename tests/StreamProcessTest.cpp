// Streaming between real processes: a stopped mount costs the server at
// most its send buffer, a mount follows its server across a restart, and a
// process sending garbage is refused without harm to anyone else.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "qel/stream/Mount.h"
#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;

// A stream_peer process whose standard output is read line by line.
class Peer {
 public:
  explicit Peer(std::vector<std::string> args) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(fds[1], 1);
      ::close(fds[0]);
      ::close(fds[1]);
      std::vector<char*> argv;
      static std::string program = STREAM_PEER;
      argv.push_back(&program[0]);
      for (auto& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      ::execv(program.c_str(), argv.data());
      ::_exit(127);
    }
    ::close(fds[1]);
    out_ = fds[0];
    ::fcntl(out_, F_SETFL, O_NONBLOCK);
  }
  ~Peer() {
    signal(SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::close(out_);
  }
  void signal(int sig) {
    if (pid_ > 0) ::kill(pid_, sig);
  }
  // The next line printed, running `loop` meanwhile; "" after 5 seconds.
  std::string line(Qel::EventLoop* loop) {
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + 5;
    while (Qel::EventLoop::monotonicNow() < end) {
      std::size_t nl = pending_.find('\n');
      if (nl != std::string::npos) {
        std::string l = pending_.substr(0, nl);
        pending_.erase(0, nl + 1);
        return l;
      }
      char b[256];
      ssize_t n = ::read(out_, b, sizeof b);
      if (n > 0) {
        pending_.append(b, static_cast<std::size_t>(n));
      } else {
        loop->runOnce(0.01);
      }
    }
    return "";
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string pending_;
};

std::size_t residentBytes() {
  std::ifstream status("/proc/self/status");
  std::string key;
  std::size_t kb = 0;
  while (status >> key) {
    if (key == "VmRSS:") {
      status >> kb;
      break;
    }
  }
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
  Peer mount({"mount", path});
  ASSERT_EQ(mount.line(loop.ptr()), "synced 50 0");
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

TEST_F(StreamProcessTest, MountFollowsItsServerAcrossARestart) {
  Qel::Mount::Ptr mount;
  Board::Ptr first;
  {
    Peer server({"serve", path, "3"});
    ASSERT_EQ(server.line(loop.ptr()), "serving");
    mount = new Qel::Mount(loop.ptr(), path);
    mount->retryDelaysIs(0.01, 0.1);
    ASSERT_TRUE(runUntil([&] { return mount->synced(); }));
    first = static_cast<Board*>(mount->root().ptr());
    EXPECT_EQ(first->gauges(), 3u);
    EXPECT_EQ(first->gauge("g2")->value(), 2u);
  }  // killed: its socket file stays behind, stale
  ASSERT_TRUE(runUntil([&] { return mount->stale(); }));
  Peer restarted({"serve", path, "5"});
  ASSERT_EQ(restarted.line(loop.ptr()), "serving");
  ASSERT_TRUE(runUntil([&] { return mount->synced(); }));
  EXPECT_EQ(mount->syncs(), 2u);
  auto* second = static_cast<Board*>(mount->root().ptr());
  EXPECT_EQ(second->gauges(), 5u);
  EXPECT_EQ(second->gauge("g4")->value(), 4u);
  EXPECT_EQ(first->gauges(), 3u);  // the stale copy is as it was
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(StreamProcessTest, GarbageFromAProcessIsRefusedAndOthersStillMount) {
  board_->gaugeIs("g0", "u")->valueIs(9);
  server_ = serve(board_);
  Peer hostile({"garbage", path});
  EXPECT_EQ(hostile.line(loop.ptr()), "closed");
  Peer mount({"mount", path});
  EXPECT_EQ(mount.line(loop.ptr()), "synced 1 9");
}

}  // namespace
