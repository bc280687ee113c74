// How a read merges: logs in time order are merged in one pass, a log that
// steps back in time sends the read round again with its runs split, and
// the merged entries are linked into the status at once, so a failure part
// way leaves the status as it was and a full index space fails where
// one-by-one appends would.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "testing/TraceCapture.h"

namespace {

using Timed = std::vector<std::pair<double, std::string>>;

class MergeTest : public ::testing::Test {
 protected:
  // A writer `group` of agent `agent` holding `entries` in this order.
  void writer(const char* agent, const char* group, const Timed& entries) {
    auto* existing = dynamic_cast<KronlogWriter::WriterDir*>(agents_->entity(agent));
    KronlogWriter::WriterDir::Ptr dir = existing;
    if (!dir) {
      dir = KronlogWriter::writerDirFactory(agent);
      agents_->entityIs(dir);
    }
    KronlogWriter::Writer::Ptr w =
        dir->writerIs(group, KronlogWriter::Config(100, KronlogWriter::keepLastEntries));
    for (const auto& [t, m] : entries) w->logEnq(KronlogWriter::LogEntry(t, Qel::String(m)));
  }
  void read() { KronlogReader::readerFactory(config_, status_); }
  Timed merged() const {
    Timed out;
    for (const KronlogReader::Status::QelLog& m : status_->logQueue()) {
      out.emplace_back(m.value()->timestamp(), m.value()->message().stdString());
    }
    return out;
  }
  std::vector<unsigned int> indexes() const {
    std::vector<unsigned int> out;
    for (const KronlogReader::Status::QelLog& m : status_->logQueue()) out.push_back(m.index());
    return out;
  }

  Qel::Dir::Ptr agents_ = Qel::dirFactory("agents");
  KronlogReader::Config::Ptr config_ = [this] {
    KronlogReader::Config::Ptr c = KronlogReader::configFactory();
    c->dirIs(agents_);
    return c;
  }();
  KronlogReader::Status::Ptr status_ = KronlogReader::statusFactory();
};

TEST_F(MergeTest, LogThatStepsBackMidMergeIsMergedByItsRuns) {
  writer("A", "g", {{5, "a5"}, {1, "a1"}, {6, "a6"}});
  writer("B", "g", {{3, "b3"}, {7, "b7"}});
  read();
  EXPECT_EQ(merged(), (Timed{{1, "a1"}, {3, "b3"}, {5, "a5"}, {6, "a6"}, {7, "b7"}}));
  EXPECT_EQ(indexes(), (std::vector<unsigned int>{0, 1, 2, 3, 4}));  // nothing of the first pass
}

TEST_F(MergeTest, EntriesOutsideTheWindowDoNotSplitARun) {
  config_->minTimestampIs(2);
  writer("A", "g", {{2, "a"}, {0, "old"}, {3, "b"}});
  writer("B", "g", {{2.5, "c"}});
  read();
  EXPECT_EQ(merged(), (Timed{{2, "a"}, {2.5, "c"}, {3, "b"}}));
}

TEST_F(MergeTest, SplitRunsAreMergedTheSameWhenEntriesAreTraced) {
  KronlogTesting::CapturingSink sink;
  Qel::traceLevelsIs("Kronlog", 1u << 1);
  writer("A", "g", {{5, "a5"}, {1, "a1"}});
  writer("B", "g", {{3, "b3"}});
  read();
  EXPECT_EQ(merged(), (Timed{{1, "a1"}, {3, "b3"}, {5, "a5"}}));
  ASSERT_EQ(sink.records.size(), 3u);  // each entry once, in log order
  EXPECT_EQ(sink.records[1].text,
            "handleWriter agentName: A messageGroup: g timestamp: 1 message: a1");
}

TEST_F(MergeTest, ASecondReadAppendsBehindTheFirstWithContinuingIndexes) {
  writer("A", "g", {{1, "a"}, {2, "b"}});
  read();
  status_->logDeq();
  read();
  EXPECT_EQ(indexes(), (std::vector<unsigned int>{1, 2, 3}));
}

TEST_F(MergeTest, FullIndexSpaceFailsAtTheSameEntryAsAppendsWould) {
  writer("A", "g", {{1, "a"}, {2, "b"}, {3, "c"}});
  status_->logEnq(KronlogReader::logEntryFactory("x", "y", 0, "kept"));
  // Head index 0, next index 4294967294: one append fits, the second would
  // leave no index free between tail and head.
  status_->logMetadataIs(KronlogReader::Status::LogMetadata(0, 4294967294u));
  try {
    read();
    FAIL() << "the read filled the index space without an error";
  } catch (const Qel::RangeException& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(indexes(), (std::vector<unsigned int>{0, 4294967294u}));
  EXPECT_EQ(status_->log(4294967294u)->message(), "a");
}

TEST_F(MergeTest, AReadLeavesNoScratchEntriesBehind) {
  writer("A", "g", {{5, "a5"}, {1, "a1"}});
  const auto live = Qel::liveObjects("KronlogReader::LogEntry");
  read();
  EXPECT_EQ(Qel::liveObjects("KronlogReader::LogEntry"), live + 2);
}

}  // namespace
