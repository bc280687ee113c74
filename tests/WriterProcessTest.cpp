// Writer directories streamed between real processes: a forked agent makes
// random changes while this process mounts it and stalls; once the agent is
// quiet the mounted copy equals what the agent reports.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/stream/EventLoop.h"
#include "testing/WriterState.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::WriterDir;
using WriterTesting::stateOf;

class WriterProcessTest : public ::testing::Test {
 protected:
  WriterProcessTest() {
    char dir[] = "/tmp/kronlog-writerproc-XXXXXX";
    dir_ = ::mkdtemp(dir);
    path_ = dir_ + "/agent.sock";
  }
  ~WriterProcessTest() override {
    stop();
    ::unlink(path_.c_str());
    ::rmdir((dir_ + "/kronlog").c_str());
    ::rmdir(dir_.c_str());
  }

  // The agent: serves its directory, records `rounds` stretches of random
  // changes, then writes its final state to `out` and serves until killed.
  [[noreturn]] void agent(unsigned seed, int rounds, int out) {
    Qel::EventLoop::Ptr loop = new Qel::EventLoop;
    WriterDir::Ptr dir = KronlogWriter::writerDirFactory("agent");
    Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), dir, path_);
    server->sendBufferCapacityIs(4096);
    // Recording starts once the mount is in, so that it streams live and
    // meets this process's stalls rather than ending in one snapshot.
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + 10;
    while (server->connections().empty() && Qel::EventLoop::monotonicNow() < end) {
      loop->runOnce(0.01);
    }
    std::mt19937 rng(seed);
    const char* names[] = {"a", "b", "c"};
    const std::string pad(100, '.');
    for (int round = 0; round < rounds; ++round) {
      for (int op = 0; op < 500; ++op) {
        const char* name = names[rng() % 3];
        unsigned r = rng() % 1000;
        if (r < 3) {
          dir->writerDel(name);
        } else if (KronlogWriter::Writer::Ptr w = dir->writer(name)) {
          w->eventIs(std::to_string(round) + "." + std::to_string(op) + pad);
        } else {
          dir->writerIs(name,
                        Config(1 + rng() % 50, rng() % 2 ? keepLastEntries : keepFirstEntries));
        }
      }
      loop->runOnce(0.002);
    }
    for (int i = 0; i < 100; ++i) loop->runOnce(0.001);
    std::string state = stateOf(dir.ptr()) + '\0';
    for (ssize_t at = 0, n; at < static_cast<ssize_t>(state.size()); at += n) {
      if ((n = ::write(out, state.data() + at, state.size() - at)) <= 0) ::_exit(1);
    }
    loop->run();
    ::_exit(0);
  }
  void stop() {
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    if (report_ >= 0) ::close(report_);
    pid_ = report_ = -1;
  }
  void fork(unsigned seed, int rounds) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[0]);
      agent(seed, rounds, fds[1]);
    }
    ::close(fds[1]);
    report_ = fds[0];
  }
  // The agent's final state, read while the loop runs (so the agent can
  // send); "" after 20 seconds.
  std::string agentState() {
    ::fcntl(report_, F_SETFL, O_NONBLOCK);
    std::string got;
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + 20;
    while (Qel::EventLoop::monotonicNow() < end) {
      char b[4096];
      ssize_t n = ::read(report_, b, sizeof b);
      if (n > 0) got.append(b, static_cast<std::size_t>(n));
      if (!got.empty() && got.back() == '\0') {
        got.pop_back();
        return got;
      }
      loop_->runOnce(0.005);
    }
    return "";
  }
  template <class F>
  bool runUntil(F done, Qel::Seconds seconds = 10) {
    Qel::Seconds end = Qel::EventLoop::monotonicNow() + seconds;
    while (!done()) {
      if (Qel::EventLoop::monotonicNow() > end) return false;
      loop_->runOnce(0.01);
    }
    return true;
  }
  WriterDir* mounted() const { return dynamic_cast<WriterDir*>(agents_->entity("agent")); }

  Qel::EventLoop::Ptr loop_ = new Qel::EventLoop;
  Qel::Dir::Ptr agents_ = Qel::dirFactory("agents");
  std::string dir_;
  std::string path_;
  pid_t pid_ = -1;
  int report_ = -1;
};

TEST_F(WriterProcessTest, StalledMountConvergesOnTheAgent) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    fork(seed, 60);
    KronlogWriter::WriterDirMount::Ptr m =
        KronlogWriter::writerDirMount(loop_.ptr(), agents_, "agent", path_);
    m->mount()->retryDelaysIs(0.01, 0.05);
    ASSERT_TRUE(runUntil([&] { return mounted() != nullptr; }));
    // Stalls: this process stops reading while the agent keeps recording.
    for (int i = 0; i < 6; ++i) {
      ::usleep(20000);
      for (int k = 0; k < 5; ++k) loop_->runOnce(0.001);
    }
    std::string expected = agentState();
    ASSERT_NE(expected, "");
    runUntil([&] { return stateOf(mounted()) == expected; });
    EXPECT_EQ(stateOf(mounted()), expected);
    EXPECT_TRUE(mounted()->readOnly());
    m = nullptr;
    stop();
    agents_->entityDelAll();
  }
}

TEST_F(WriterProcessTest, DefaultPathIsUnderTheRuntimeDirectoryWhichIsPrivate) {
  const char* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string keep = saved ? saved : "";
  ::setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
  EXPECT_EQ(KronlogWriter::writerDirSocketPath("Bgp"), dir_ + "/kronlog/Bgp.sock");
  WriterDir::Ptr dir = KronlogWriter::writerDirFactory("agent");
  dir->writerIs("g", Config())->eventIs("hello");
  {
    Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop_.ptr(), dir);
    struct stat st {};
    ASSERT_EQ(::stat((dir_ + "/kronlog").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    KronlogWriter::WriterDirMount::Ptr m =
        KronlogWriter::writerDirMount(loop_.ptr(), agents_, "agent");
    EXPECT_TRUE(runUntil([&] { return mounted() != nullptr; }));
    EXPECT_EQ(stateOf(mounted()), stateOf(dir.ptr()));
  }
  ::unlink((dir_ + "/kronlog/agent.sock").c_str());
  if (saved) {
    ::setenv("XDG_RUNTIME_DIR", keep.c_str(), 1);
  } else {
    ::unsetenv("XDG_RUNTIME_DIR");
  }
  EXPECT_EQ(std::string(KronlogWriter::writerDirSocketPath("Bgp").stdString()).substr(0, 1), "/");
}

TEST_F(WriterProcessTest, UnwritableSocketDirectoryIsAClearError) {
  EXPECT_THROW(KronlogWriter::writerDirServe(loop_.ptr(), KronlogWriter::writerDirFactory("a"),
                                             "/proc/nonexistent/kronlog/a.sock"),
               Qel::RangeException);
}

}  // namespace
