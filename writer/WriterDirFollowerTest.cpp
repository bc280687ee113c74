// Following a whole writer directory mounted from a real socket: every
// writer from its first event, writers coming and going, a resync to the
// same process continuing without repeats, and a mount that is waiting for
// its server connecting the moment the server listens.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kronlog/KronlogWriterStreaming.h"
#include "testing/StreamFixture.h"
#include "testing/TempDir.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::Writer;
using KronlogWriter::WriterFollower;
using Loss = WriterFollower::Loss;

// Every callback as one line: "g 3 m3", "g slow 2 0-1", "f overflow 2", "restart".
class Lines : public KronlogWriter::WriterDirFollower {
 public:
  using WriterDirFollower::WriterDirFollower;
  void onEntry(const Qel::Name& writer, unsigned int index,
               const KronlogWriter::LogEntry& entry) override {
    lines.push_back(writer.stdString() + " " + std::to_string(index) + " " +
                    entry.message().stdString());
  }
  void onLoss(const Qel::Name& writer, const Loss& loss) override {
    const bool slow = loss.reason == WriterFollower::LossReason::slow;
    lines.push_back(
        writer.stdString() + (slow ? " slow " : " overflow ") + std::to_string(loss.count) +
        (slow ? " " + std::to_string(loss.fromIndex) + "-" + std::to_string(loss.toIndex) : ""));
  }
  void onRestart() override { lines.push_back("restart"); }
  std::vector<std::string> lines;
};

class WriterDirFollowerTest : public ::testing::Test {
 protected:
  void serve() { server_ = KronlogWriter::writerDirServe(loop_.ptr(), dir_, path_); }
  void mount() {
    mount_ = KronlogWriter::writerDirMount(loop_.ptr(), agents_, "agent", path_);
    follower_.reset(new Lines(mount_, WriterFollower::Start::beginning));
  }
  template <class F>
  bool runUntil(F done) {
    return StreamTesting::runUntil(loop_.ptr(), done);
  }
  // Runs until the copy stops changing.
  void settle() {
    for (int quiet = 0; quiet < 5;) quiet = loop_->runOnce(0.01) == 0 ? quiet + 1 : 0;
  }
  std::vector<std::string> taken() { return std::exchange(follower_->lines, {}); }
  void record(const char* writer, int from, int to) {
    for (int i = from; i <= to; ++i) dir_->writer(writer)->eventIs("m" + std::to_string(i));
  }

  KronlogTesting::TempDir tmp_{"kronlog-follow"};
  std::string path_ = tmp_.pathIn("agent.sock");
  Qel::EventLoop::Ptr loop_ = new Qel::EventLoop;
  KronlogWriter::WriterDir::Ptr dir_ = KronlogWriter::writerDirFactory("agent");
  Qel::Ptr<Qel::Dir> agents_ = Qel::Dir::DirIs("agents");
  Qel::StreamServer::Ptr server_;
  KronlogWriter::WriterDirMount::Ptr mount_;
  std::unique_ptr<Lines> follower_;
};

TEST_F(WriterDirFollowerTest, EveryWriterIsFollowedFromItsFirstEvent) {
  dir_->writerIs("g", Config(3, keepLastEntries));
  dir_->writerIs("f", Config(2, keepFirstEntries));
  record("g", 0, 4);  // 0 and 1 evicted
  record("f", 0, 3);  // 2 and 3 refused
  serve();
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->mount()->synced(); }));
  std::vector<std::string> lines = taken();
  std::sort(lines.begin(), lines.end());  // writers come in the map's order
  EXPECT_EQ(lines, (std::vector<std::string>{"f 0 m0", "f 1 m1", "f overflow 2", "g 2 m2", "g 3 m3",
                                             "g 4 m4", "g slow 2 0-1"}));
  EXPECT_EQ(follower_->agent(), "agent");
}

TEST_F(WriterDirFollowerTest, WritersAddedLaterAreFollowedAndRemovedOnesLetGo) {
  dir_->writerIs("g", Config(3, keepLastEntries));
  serve();
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->mount()->synced(); }));
  dir_->writerIs("h", Config(3, keepLastEntries));
  record("h", 0, 0);
  settle();
  EXPECT_EQ(taken(), std::vector<std::string>{"h 0 m0"});
  EXPECT_EQ(follower_->writersFollowed(), 2u);
  dir_->writerDel("g");
  settle();
  EXPECT_EQ(follower_->writersFollowed(), 1u);
}

// The server goes and comes back in the same process (the same
// incarnation): following continues, the events evicted meanwhile are one
// slow loss, and nothing is handed over twice.
TEST_F(WriterDirFollowerTest, ResyncToTheSameProcessContinuesWithoutRepeats) {
  dir_->writerIs("g", Config(3, keepLastEntries));
  record("g", 0, 1);
  serve();
  mount();
  ASSERT_TRUE(runUntil([&] { return mount_->mount()->synced(); }));
  EXPECT_EQ(taken(), (std::vector<std::string>{"g 0 m0", "g 1 m1"}));
  server_ = nullptr;
  ASSERT_TRUE(runUntil([&] { return mount_->mount()->stale(); }));
  record("g", 2, 9);
  serve();
  ASSERT_TRUE(runUntil([&] { return mount_->mount()->syncs() == 2; }));
  EXPECT_EQ(taken(), (std::vector<std::string>{"g slow 5 2-6", "g 7 m7", "g 8 m8", "g 9 m9"}));
}

// A backoff of a minute would leave the mount waiting; watching the
// directory, it connects as soon as the socket is there.
TEST_F(WriterDirFollowerTest, MountWaitingForItsServerConnectsWhenTheSocketAppears) {
  mount();
  mount_->mount()->retryDelaysIs(60, 60);
  for (int i = 0; i < 5; ++i) loop_->runOnce(0.01);
  ASSERT_FALSE(mount_->mount()->synced());
  serve();
  EXPECT_TRUE(runUntil([&] { return mount_->mount()->synced(); }));
}

}  // namespace
