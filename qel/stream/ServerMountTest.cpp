// Serving a path and mounting it: the socket file's mode and ownership
// rules, credentials, the mount's snapshot, stale copies, reconnection with
// backoff, and a resynchronisation that never shows a half-built copy.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "qel/Exception.h"
#include "qel/stream/Mount.h"
#include "qel/stream/StreamServer.h"
#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;
using StreamTesting::BoardAdapter;
using StreamTesting::Gauge;

class MountEvents : public Qel::Mount::Notifiee {
 public:
  void onSynced() override { ++synced; }
  void onStale() override { ++stale; }
  int synced = 0;
  int stale = 0;
};

class ServerMountTest : public ::testing::Test {
 protected:
  ServerMountTest() {
    StreamTesting::streamTestTypesRegister();
    char dir[] = "/tmp/kronlog-stream-XXXXXX";
    dir_ = ::mkdtemp(dir);
    path_ = dir_ + "/agent.sock";
    board_->gaugeIs("volts", "V")->valueIs(230);
  }
  ~ServerMountTest() override {
    mount_ = nullptr;
    server_ = nullptr;
    ::unlink(path_.c_str());
    ::unlink((dir_ + "/file").c_str());
    ::rmdir(dir_.c_str());
  }
  Qel::StreamServer::Ptr serve(Board::Ptr board) {
    return new Qel::StreamServer(loop_.ptr(), path_, [board](Qel::Connection* c) {
      return Qel::StreamAdapter::Ptr(new BoardAdapter(c, board.ptr()));
    });
  }
  void mount() {
    mount_ = new Qel::Mount(loop_.ptr(), path_);
    mount_->retryDelaysIs(0.005, 0.04);
    events_.notifierIs(mount_);
  }
  // Runs the loop until `done` holds; false after two seconds.
  template <class F>
  bool runUntil(F done) {
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + 2;
    while (!done()) {
      if (Qel::EventLoop::monotonicNow() > end) return false;
      loop_->runOnce(0.01);
    }
    return true;
  }
  Board* root() const { return static_cast<Board*>(mount_->root().ptr()); }
  // Serves board_, mounts it, then stops the server; returns the copy the
  // mount kept (now stale).
  Board::Ptr syncedThenServerLost() {
    server_ = serve(board_);
    mount();
    EXPECT_TRUE(runUntil([&] { return mount_->synced(); }));
    Board::Ptr copy = root();
    server_ = nullptr;
    EXPECT_TRUE(runUntil([&] { return mount_->stale(); }));
    return copy;
  }

  Qel::EventLoop::Ptr loop_ = new Qel::EventLoop;
  std::string dir_;
  std::string path_;
  Board::Ptr board_ = Board::BoardIs("agent");
  Qel::StreamServer::Ptr server_;
  Qel::Mount::Ptr mount_;
  MountEvents events_;
};

TEST_F(ServerMountTest, SocketFileIsMode0600WhateverTheUmask) {
  mode_t saved = ::umask(0);
  server_ = serve(board_);
  ::umask(saved);
  struct stat st {};
  ASSERT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(::umask(saved), saved);  // the process's umask is back
}

TEST_F(ServerMountTest, StaleSocketFileIsReplaced) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path_.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(fd);  // the file stays, with nobody behind it
  server_ = serve(board_);
  mount();
  EXPECT_TRUE(runUntil([&] { return mount_->synced(); }));
}

TEST_F(ServerMountTest, LiveServerIsNeverTakenOver) {
  server_ = serve(board_);
  try {
    serve(board_);
    FAIL() << "second server accepted";
  } catch (const Qel::RangeException& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot serve stream at " + path_ + ": another process is serving it");
  }
  mount();
  EXPECT_TRUE(runUntil([&] { return mount_->synced(); }));
}

TEST_F(ServerMountTest, FileThatIsNotASocketIsLeftAlone) {
  path_ = dir_ + "/file";
  std::ofstream(path_) << "keep me";
  EXPECT_THROW(serve(board_), Qel::RangeException);
  std::ifstream in(path_);
  std::string text;
  std::getline(in, text);
  EXPECT_EQ(text, "keep me");
}

TEST_F(ServerMountTest, StoppedServerRemovesItsSocketFile) {
  server_ = serve(board_);
  server_ = nullptr;
  struct stat st {};
  EXPECT_NE(::stat(path_.c_str(), &st), 0);
}

TEST_F(ServerMountTest, MountGetsTheSnapshotThenChanges) {
  server_ = serve(board_);
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  EXPECT_EQ(events_.synced, 1);
  EXPECT_EQ(root()->name(), "agent");
  EXPECT_EQ(root()->gauge("volts")->value(), 230u);
  board_->gauge("volts")->valueIs(231);
  EXPECT_TRUE(runUntil([&] { return root()->gauge("volts")->value() == 231u; }));
}

TEST_F(ServerMountTest, PeerIsNamedByCommandAndPid) {
  server_ = serve(board_);
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  std::string expected = Qel::processName(static_cast<std::int32_t>(::getpid())).stdString();
  EXPECT_TRUE(std::regex_match(expected, std::regex(R"(.+\[[0-9]+\])")));
  ASSERT_EQ(server_->connections().size(), 1u);
  EXPECT_EQ(server_->connections()[0]->peerName(), expected);
  EXPECT_EQ(mount_->connection()->peerName(), expected);
  EXPECT_EQ(root()->readOnlyPeerName(), expected);
}

TEST_F(ServerMountTest, PeerRefusedByTheCheckNeverMounts) {
  StreamTesting::StreamTraces traces(1u);
  server_ = serve(board_);
  server_->peerCheckIs([](const Qel::PeerCredentials&) { return false; });
  mount();
  ASSERT_TRUE(runUntil([&] { return server_->refusals() >= 2; }));
  EXPECT_FALSE(mount_->synced());
  EXPECT_EQ(mount_->root(), nullptr);
  std::string name = Qel::processName(static_cast<std::int32_t>(::getpid())).stdString();
  EXPECT_NE(std::find(traces.texts.begin(), traces.texts.end(),
                      "refused peer: " + name + " uid: " + std::to_string(::geteuid())),
            traces.texts.end());
}

TEST_F(ServerMountTest, DefaultCheckAcceptsTheSameUser) {
  server_ = serve(board_);
  mount();
  EXPECT_TRUE(runUntil([&] { return mount_->synced(); }));
  EXPECT_EQ(server_->refusals(), 0u);
}

TEST_F(ServerMountTest, LostServerLeavesAStaleCopy) {
  Board::Ptr copy = syncedThenServerLost();
  EXPECT_EQ(events_.stale, 1);
  EXPECT_EQ(mount_->root(), copy);
  EXPECT_EQ(copy->gauge("volts")->value(), 230u);
  EXPECT_TRUE(copy->readOnly());
}

TEST_F(ServerMountTest, RetryDelayDoublesUpToItsCeiling) {
  mount();
  ASSERT_EQ(mount_->retryDelay(), 0.005);
  ASSERT_TRUE(runUntil([&] { return mount_->retryDelay() == 0.02; }));
  ASSERT_TRUE(runUntil([&] { return mount_->retryDelay() == 0.04; }));
  for (int i = 0; i < 10; ++i) loop_->runOnce(0.01);
  EXPECT_EQ(mount_->retryDelay(), 0.04);
}

TEST_F(ServerMountTest, RestartedServerIsRemountedIntoAFreshCopy) {
  Board::Ptr old = syncedThenServerLost();
  Board::Ptr restarted = Board::BoardIs("agent");
  restarted->gaugeIs("amps", "A")->valueIs(4);
  server_ = serve(restarted);
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  EXPECT_EQ(mount_->syncs(), 2u);
  EXPECT_NE(root(), old.ptr());
  EXPECT_EQ(root()->gauge("amps")->value(), 4u);
  EXPECT_EQ(root()->gauge("volts"), nullptr);
  EXPECT_EQ(old->gauge("volts")->value(), 230u);  // the old copy is as it was
  EXPECT_EQ(mount_->retryDelay(), 0.005);         // backoff starts over
}

TEST_F(ServerMountTest, ResyncNeverShowsAHalfBuiltCopy) {
  Board::Ptr old = syncedThenServerLost();
  Board::Ptr big = Board::BoardIs("agent");
  for (int i = 0; i < 400; ++i) big->gaugeIs(Qel::Name("g" + std::to_string(i)), "u");
  server_ = serve(big);
  server_->sendBufferCapacityIs(512);  // the snapshot takes many rounds
  bool sawOnlyWholeCopies = true;
  ASSERT_TRUE(runUntil([&] {
    Board* r = root();
    if (r != old.ptr() && r->gauges() != 400u) sawOnlyWholeCopies = false;
    if (r == old.ptr() && r->gauges() != 1u) sawOnlyWholeCopies = false;
    return mount_->synced();
  }));
  EXPECT_TRUE(sawOnlyWholeCopies);
  EXPECT_EQ(root()->gauges(), 400u);
}

TEST_F(ServerMountTest, SilentPeerIsDroppedByTheMountTimeout) {
  server_ = serve(board_);
  server_->heartbeatIntervalIs(0);  // for connections accepted from now on
  mount_ = new Qel::Mount(loop_.ptr(), path_);
  mount_->peerTimeoutIs(0.05);
  events_.notifierIs(mount_);
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  EXPECT_TRUE(runUntil([&] { return mount_->stale(); }));
  EXPECT_EQ(events_.stale, 1);
}

TEST_F(ServerMountTest, HeartbeatsKeepAQuietPeerMounted) {
  server_ = serve(board_);
  server_->heartbeatIntervalIs(0.01);
  mount_ = new Qel::Mount(loop_.ptr(), path_);
  mount_->peerTimeoutIs(0.1);
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  Qel::Seconds end = Qel::EventLoop::monotonicNow() + 0.4;
  while (Qel::EventLoop::monotonicNow() < end) loop_->runOnce(0.01);
  EXPECT_FALSE(mount_->stale());
  EXPECT_GT(mount_->connection()->recordsIn(), 5u);
}

}  // namespace
