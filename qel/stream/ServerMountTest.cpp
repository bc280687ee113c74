// Serving a path and mounting it: the socket file's mode and ownership
// rules, credentials, the mount's snapshot, stale copies, reconnection with
// backoff, and a resynchronisation that never shows a half-built copy.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "qel/Exception.h"
#include "qel/stream/Mount.h"
#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;

class MountEvents : public Qel::Mount::Notifiee {
 public:
  void onSynced() override { ++synced; }
  void onStale() override { ++stale; }
  void onFailure(const Qel::String& reason) override { failures.push_back(reason.stdString()); }
  int synced = 0;
  int stale = 0;
  std::vector<std::string> failures;
};

class ServerMountTest : public ::testing::Test, public StreamTesting::SocketDir {
 protected:
  ServerMountTest() { board_->gaugeIs("volts", "V")->valueIs(230); }
  void mount() {
    mount_ = new Qel::Mount(loop.ptr(), path);
    mount_->retryDelaysIs(0.005, 0.04);
    events_.notifierIs(mount_);
  }
  bool served() {
    server_ = serve(board_);
    mount();
    return runUntil([&] { return mount_->synced(); });
  }
  Board* root() const { return static_cast<Board*>(mount_->root().ptr()); }
  // Serves board_, mounts it, then stops the server; returns the copy the
  // mount kept (now stale).
  Board::Ptr syncedThenServerLost() {
    EXPECT_TRUE(served());
    Board::Ptr copy = root();
    server_ = nullptr;
    EXPECT_TRUE(runUntil([&] { return mount_->stale(); }));
    return copy;
  }

  Board::Ptr board_ = Board::BoardIs("agent");
  Qel::StreamServer::Ptr server_;
  Qel::Mount::Ptr mount_;
  MountEvents events_;
};

TEST_F(ServerMountTest, SocketFileIsMode0600WhateverTheUmaskAndGoesWithTheServer) {
  mode_t saved = ::umask(0);
  server_ = serve(board_);
  ::umask(saved);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(::umask(saved), saved);  // the process's umask is back
  server_ = nullptr;
  EXPECT_NE(::stat(path.c_str(), &st), 0);
}

TEST_F(ServerMountTest, StaleSocketFileIsReplaced) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(fd);  // the file stays, with nobody behind it
  EXPECT_TRUE(served());
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(ServerMountTest, LiveServerIsNeverTakenOver) {
  Qel::StreamServer::Ptr first = serve(board_);
  try {
    serve(board_);
    FAIL() << "second server accepted";
  } catch (const Qel::RangeException& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot serve stream at " + path + ": another process is serving it");
  }
  mount();
  EXPECT_TRUE(runUntil([&] { return mount_->synced(); }));
}

TEST_F(ServerMountTest, FileThatIsNotASocketIsLeftAlone) {
  path = dir + "/file";
  std::ofstream(path) << "keep me";
  EXPECT_THROW(serve(board_), Qel::RangeException);
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  EXPECT_EQ(text, "keep me");
}

TEST_F(ServerMountTest, MountGetsTheSnapshotNamingItsPeerThenChanges) {
  ASSERT_TRUE(served());
  EXPECT_EQ(events_.synced, 1);
  EXPECT_EQ(server_->refusals(), 0u);  // the default check accepts the same user
  EXPECT_EQ(root()->gauge("volts")->value(), 230u);
  std::string expected = Qel::processName(static_cast<std::int32_t>(::getpid())).stdString();
  EXPECT_TRUE(std::regex_match(expected, std::regex(R"(.+\[[0-9]+\])")));
  EXPECT_EQ(server_->connections().at(0)->peerName(), expected);
  EXPECT_EQ(root()->readOnlyPeerName(), expected);
  board_->gauge("volts")->valueIs(231);
  EXPECT_TRUE(runUntil([&] { return root()->gauge("volts")->value() == 231u; }));
}

TEST_F(ServerMountTest, PeerRefusedByTheCheckNeverMounts) {
  StreamTesting::StreamTraces traces;
  server_ = serve(board_);
  server_->peerCheckIs([](const Qel::PeerCredentials&) { return false; });
  mount();
  ASSERT_TRUE(runUntil([&] { return server_->refusals() >= 2; }));
  EXPECT_EQ(mount_->root(), nullptr);
  std::string name = Qel::processName(static_cast<std::int32_t>(::getpid())).stdString();
  EXPECT_NE(std::find(traces.texts.begin(), traces.texts.end(),
                      "refused peer: " + name + " uid: " + std::to_string(::geteuid())),
            traces.texts.end());
}

// The default check for real: a process of another user that reaches the
// socket (opened wide for this test) is refused by its credentials alone.
TEST_F(ServerMountTest, PeerOfAnotherUserIsRefusedByDefault) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run a child as another user";
  StreamTesting::StreamTraces traces;
  server_ = serve(board_);
  ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  StreamTesting::Child child([&](int report) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) StreamTesting::Child::say(report, "setuid\n");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      StreamTesting::Child::say(report, "connect failed\n");
    }
    char b[256];
    while (::read(fd, b, sizeof b) > 0) {
    }
    StreamTesting::Child::say(report, "closed\n");
  });
  EXPECT_EQ(child.next(loop.ptr()), "closed");
  EXPECT_EQ(server_->refusals(), 1u);
  EXPECT_TRUE(server_->connections().empty());
  EXPECT_TRUE(std::any_of(traces.texts.begin(), traces.texts.end(), [](const std::string& t) {
    return t.rfind("refused peer: ", 0) == 0 && t.find(" uid: 65534") != std::string::npos;
  }));
}

TEST_F(ServerMountTest, RetryDelayDoublesUpToItsCeiling) {
  mount();
  ASSERT_EQ(mount_->retryDelay(), 0.005);
  ASSERT_TRUE(runUntil([&] { return mount_->retryDelay() == 0.02; }));
  ASSERT_TRUE(runUntil([&] { return mount_->retryDelay() == 0.04; }));
  for (int i = 0; i < 10; ++i) loop->runOnce(0.01);
  EXPECT_EQ(mount_->retryDelay(), 0.04);
}

TEST_F(ServerMountTest, RestartedServerIsRemountedIntoAFreshCopyAndTheStaleOneStays) {
  Board::Ptr old = syncedThenServerLost();
  EXPECT_EQ(events_.stale, 1);
  Board::Ptr restarted = Board::BoardIs("agent");
  restarted->gaugeIs("amps", "A")->valueIs(4);
  server_ = serve(restarted);
  ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
  EXPECT_EQ(mount_->syncs(), 2u);
  // Served from this same process: the same incarnation, so a follower
  // would continue rather than start over.
  EXPECT_EQ(mount_->incarnation(), Qel::NboAttrLog::processIncarnation());
  EXPECT_NE(root(), old.ptr());
  EXPECT_EQ(root()->gauge("amps")->value(), 4u);
  EXPECT_EQ(root()->gauge("volts"), nullptr);
  EXPECT_EQ(old->gauge("volts")->value(), 230u);  // the old copy is as it was
  EXPECT_TRUE(old->readOnly());
  EXPECT_EQ(mount_->retryDelay(), 0.005);  // backoff starts over
  EXPECT_TRUE(events_.failures.empty());   // a server going away is no failure
}

// Another program's socket: the mount says why it dropped the connection,
// and keeps trying.
TEST_F(ServerMountTest, SocketThatDoesNotSpeakTheStreamIsReportedAsAFailure) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.data(), path.size());
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->connection() != nullptr; }));
  const int peer = ::accept(listener, nullptr, nullptr);
  const std::string reply = "HTTP/1.1 400 Bad Request\r\n\r\n";
  ASSERT_EQ(::write(peer, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
  ASSERT_TRUE(runUntil([&] { return !events_.failures.empty(); }));
  EXPECT_EQ(events_.failures,
            std::vector<std::string>{"frame length 1213486160 exceeds the limit of 1048572"});
  EXPECT_EQ(events_.stale, 0);  // never synced, so nothing went stale
  ::close(peer);
  ::close(listener);
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
    if (r->gauges() != (r == old.ptr() ? 1u : 400u)) sawOnlyWholeCopies = false;
    return mount_->synced();
  }));
  EXPECT_TRUE(sawOnlyWholeCopies);
}

// A peer silent for the mount's timeout is dropped; heartbeats keep it.
TEST_F(ServerMountTest, MountTimeoutDropsASilentPeerButNotOneSendingHeartbeats) {
  for (Qel::Seconds heartbeat : {0.0, 0.01}) {
    SCOPED_TRACE(heartbeat);
    server_ = serve(board_);
    server_->heartbeatIntervalIs(heartbeat);  // for connections accepted from now on
    mount();
    mount_->peerTimeoutIs(0.1);
    ASSERT_TRUE(runUntil([&] { return mount_->synced(); }));
    EXPECT_EQ(runUntil([&] { return mount_->stale(); }, 0.4), heartbeat == 0);
    mount_ = nullptr;
    server_ = nullptr;
  }
}

}  // namespace
