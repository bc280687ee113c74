// Writer directories streamed between real processes: a forked agent makes
// random changes while this process mounts it and stalls; once the agent is
// quiet the mounted copy equals what the agent reports.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "testing/StreamFixture.h"
#include "testing/WriterState.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::WriterDir;
using StreamTesting::Child;
using WriterTesting::stateOf;

// The agent: serves its directory at `path`, records `rounds` stretches of
// random changes, then reports its final state and serves until killed.
void agent(const std::string& path, unsigned seed, int rounds, int report) {
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  WriterDir::Ptr dir = KronlogWriter::writerDirFactory("agent");
  Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), dir, path);
  server->sendBufferCapacityIs(4096);
  // Recording starts once the mount is in, so that it streams live and
  // meets this process's stalls rather than ending in one snapshot.
  StreamTesting::runUntil(
      loop.ptr(), [&] { return !server->connections().empty(); }, 10);
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
        dir->writerIs(name, Config(1 + rng() % 50, rng() % 2 ? KronlogWriter::keepLastEntries
                                                             : KronlogWriter::keepFirstEntries));
      }
    }
    loop->runOnce(0.002);
  }
  for (int i = 0; i < 100; ++i) loop->runOnce(0.001);
  Child::say(report, stateOf(dir.ptr()) + '\0');
  loop->run();
}

class WriterProcessTest : public ::testing::Test, public StreamTesting::SocketDir {
 protected:
  ~WriterProcessTest() override { ::rmdir((dir + "/kronlog").c_str()); }
  WriterDir* mounted() const { return dynamic_cast<WriterDir*>(agents_->entity("agent")); }
  Qel::Dir::Ptr agents_ = Qel::dirFactory("agents");
};

TEST_F(WriterProcessTest, StalledMountConvergesOnTheAgent) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Child agentProcess([&](int report) { agent(path, seed, 60, report); });
    KronlogWriter::WriterDirMount::Ptr m =
        KronlogWriter::writerDirMount(loop.ptr(), agents_, "agent", path);
    m->mount()->retryDelaysIs(0.01, 0.05);
    ASSERT_TRUE(runUntil([&] { return mounted() != nullptr; }, 10));
    // Stalls: this process stops reading while the agent keeps recording.
    for (int i = 0; i < 6; ++i) {
      ::usleep(20000);
      for (int k = 0; k < 5; ++k) loop->runOnce(0.001);
    }
    std::string expected = agentProcess.next(loop.ptr(), '\0', 20);
    ASSERT_NE(expected, "");
    runUntil([&] { return stateOf(mounted()) == expected; }, 10);
    EXPECT_EQ(stateOf(mounted()), expected);
    EXPECT_TRUE(mounted()->readOnly());
    m = nullptr;
    agents_->entityDelAll();
  }
}

TEST_F(WriterProcessTest, DefaultPathIsUnderTheRuntimeDirectoryWhichIsPrivate) {
  const char* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string keep = saved ? saved : "";
  ::setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
  EXPECT_EQ(KronlogWriter::writerDirSocketPath("Bgp"), dir + "/kronlog/Bgp.sock");
  WriterDir::Ptr source = KronlogWriter::writerDirFactory("agent");
  source->writerIs("g", Config())->eventIs("hello");
  {
    Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), source);
    struct stat st {};
    ASSERT_EQ(::stat((dir + "/kronlog").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    KronlogWriter::WriterDirMount::Ptr m =
        KronlogWriter::writerDirMount(loop.ptr(), agents_, "agent");
    EXPECT_TRUE(runUntil([&] { return mounted() != nullptr; }));
    EXPECT_EQ(stateOf(mounted()), stateOf(source.ptr()));
  }
  ::unlink((dir + "/kronlog/agent.sock").c_str());
  if (saved) {
    ::setenv("XDG_RUNTIME_DIR", keep.c_str(), 1);
  } else {
    ::unsetenv("XDG_RUNTIME_DIR");
  }
  EXPECT_EQ(KronlogWriter::writerDirSocketPath("Bgp").stdString().substr(0, 1), "/");
}

TEST_F(WriterProcessTest, UnwritableSocketDirectoryIsAClearError) {
  EXPECT_THROW(KronlogWriter::writerDirServe(loop.ptr(), KronlogWriter::writerDirFactory("a"),
                                             "/proc/nonexistent/kronlog/a.sock"),
               Qel::RangeException);
}

}  // namespace
