// Writer directories streamed over a socketpair: the copy converges on the
// source through stalls, a follower of a copy accounts for every event, a
// hostile peer's records leave the copy intact, and a copy is read-only.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Exception.h"
#include "testing/StreamFixture.h"
#include "testing/TempDir.h"
#include "testing/WriterState.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::LogEntry;
using KronlogWriter::Writer;
using KronlogWriter::WriterDir;
using KronlogWriter::WriterFollower;
using LogMetadata = Writer::LogMetadata;
using Qel::NboAttrLog::RecordKind;

using WriterTesting::stateOf;

class WriterAdapterTest : public ::testing::Test {
 protected:
  WriterAdapterTest() { connect(); }
  // A fresh connected pair, the server streaming dir_.
  void connect() {
    pair_ = std::make_unique<StreamTesting::StreamPair>([this](Qel::Connection* c) {
      return new KronlogWriter::WriterDirNboAttrLogAdapter(c, dir_.ptr());
    });
  }
  void settle() { pair_->settle(); }
  void capacityIs(std::size_t bytes) { pair_->server->sendBufferCapacityIs(bytes); }
  WriterDir* copy() const { return pair_->copy<WriterDir>(); }
  Writer* copyOf(const char* name) const { return copy() ? copy()->writer(name).ptr() : nullptr; }

  static constexpr std::size_t kRoomy = Qel::Connection::kDefaultSendBufferBytes;
  WriterDir::Ptr dir_ = KronlogWriter::writerDirFactory("agent");
  std::unique_ptr<StreamTesting::StreamPair> pair_;
};

// JSONTestSuite's parsing cases, valid and broken JSON alike (invalid
// UTF-8, NUL bytes, lone surrogates, deep nesting), carried as messages:
// each arrives in the copy byte for byte, through live records and through
// a snapshot.
TEST_F(WriterAdapterTest, JsonTestSuiteCasesArriveByteForByteAsMessages) {
  std::vector<std::string> cases;
  for (const std::string& name : KronlogTesting::directoryEntries(KRONLOG_JSON_SUITE))
    cases.push_back(KronlogTesting::readFile(std::string(KRONLOG_JSON_SUITE) + "/" + name));
  ASSERT_EQ(cases.size(), 318u);
  Writer::Ptr w = dir_->writerIs("g", Config(1000, keepLastEntries));
  settle();
  for (const std::string& c : cases) w->eventIs(c);
  settle();
  auto expectCases = [&](const Writer* copy) {
    ASSERT_NE(copy, nullptr);
    ASSERT_EQ(copy->logs(), cases.size());
    unsigned index = 0;
    for (const std::string& c : cases) {
      const LogEntry e = copy->log(index++);
      ASSERT_EQ(std::string(e.message().data(), e.message().size()), c) << "entry " << index - 1;
    }
  };
  expectCases(copyOf("g"));  // sent live, one record per event
  connect();
  settle();
  expectCases(copyOf("g"));  // sent in a fresh connection's snapshot
}

// Random events, deletions and membership changes, with the connection
// stalled (a send buffer that fills at once) for stretches.
class RandomStreamTest : public WriterAdapterTest,
                         public ::testing::WithParamInterface<unsigned> {};

TEST_P(RandomStreamTest, QuietCopyEqualsTheSource) {
  std::mt19937 rng(GetParam());
  settle();
  const char* names[] = {"a", "b", "c", "d"};
  for (int round = 0; round < 40; ++round) {
    // Capacity 0 sends nothing at all (the loop never rests then, so the
    // stream is not settled meanwhile); 64 lets a record through now and then.
    const std::size_t capacities[] = {0, 64, kRoomy};
    const std::size_t capacity = capacities[rng() % 3];
    capacityIs(capacity);
    for (int op = 0; op < 50; ++op) {
      const char* name = names[rng() % 4];
      unsigned r = rng() % 100;
      if (r < 3) {
        dir_->writerDel(name);
      } else if (Writer::Ptr w = dir_->writer(name)) {
        if (r < 6) {
          w->logDeq();
        } else if (r < 9 && w->logs() > 0) {
          // Any entry, the newest included (which lowers the next index).
          w->logDel(w->logMetadata().firstIndex() + rng() % w->logs());
        } else {
          w->eventIs("e" + std::to_string(round) + "." + std::to_string(op));
        }
      } else {
        dir_->writerIs(name, Config(rng() % 6, rng() % 2 ? keepLastEntries : keepFirstEntries));
      }
    }
    if (capacity != 0 && rng() % 3 == 0) settle();
  }
  capacityIs(kRoomy);
  settle();
  EXPECT_EQ(stateOf(copy()), stateOf(dir_.ptr()));
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomStreamTest, ::testing::Range(1u, 9u));

// ---- Following a copy

// Every event in these tests has its index as its message. Slow losses are
// kept as "from-to", overflow losses summed.
class Recorder : public WriterFollower {
 public:
  void onEntry(unsigned int index, const LogEntry& entry) override {
    EXPECT_EQ(entry.message(), std::to_string(index));
    indices.push_back(index);
  }
  void onLoss(const Loss& l) override {
    if (l.reason == LossReason::overflow) {
      overflow += l.count;
    } else {
      slow += l.count;
      gaps.push_back(std::to_string(l.fromIndex) + "-" + std::to_string(l.toIndex));
    }
  }
  std::vector<unsigned int> indices;
  unsigned slow = 0;
  unsigned overflow = 0;
  std::vector<std::string> gaps;
};

class FollowerTest : public WriterAdapterTest {
 protected:
  // A follower of the copy of a new writer `g` whose indices start at `first`.
  Writer::Ptr followed(Config config, unsigned first = 0) {
    Writer::Ptr w = dir_->writerIs("g", config);
    w->logMetadataIs(LogMetadata(first, first));
    settle();
    follower_.writerIs(copyOf("g"));
    return w;
  }
  // Records `n` events, the connection stalled for every third stretch of
  // 40, and returns how many were recorded.
  unsigned record(Writer* w, unsigned n, unsigned first = 0) {
    for (unsigned i = 0; i < n; ++i) {
      if (i % 40 == 0) {
        bool stall = (i / 40) % 3 == 1;
        capacityIs(stall ? 32 : kRoomy);
        if (!stall) settle();
      }
      w->eventIs(std::to_string(first + i));
      if (i % 7 == 0) settle();
    }
    capacityIs(kRoomy);
    settle();
    return n;
  }
  // Lets the server's adapter of `w` write exactly one more record.
  void stepFlowOut(Writer* w) {
    for (Qel::StreamAdapter::EntityId id = 1; id < 16; ++id) {
      auto* a = dynamic_cast<KronlogWriter::WriterNboAttrLogAdapter*>(pair_->server->adapter(id));
      if (!a || a->entity() != w) continue;
      capacityIs(pair_->server->sendBufferBytes() + 1);
      a->handleAttrFlowOut();
      capacityIs(0);
      return;
    }
    FAIL() << "no adapter streams " << w->name();
  }
  Recorder follower_;
};

// Starts at the top of the index space, so that the indices wrap.
TEST_F(FollowerTest, EntriesPlusSlowLossesEqualEventsRecordedAcrossTheIndexWrap) {
  Writer::Ptr w = followed(Config(5, keepLastEntries), 0xffffff00u);
  unsigned n = record(w.ptr(), 600, 0xffffff00u);
  EXPECT_GT(follower_.slow, 0u);  // the stalls did cost events
  EXPECT_EQ(follower_.indices.size() + follower_.slow, n);
  EXPECT_EQ(follower_.overflow, 0u);
  for (std::size_t k = 1; k < follower_.indices.size(); ++k) {
    EXPECT_LT(follower_.indices[k] - follower_.indices[k - 1] - 1, n);  // increasing
  }
  EXPECT_EQ(follower_.nextIndex(), 0xffffff00u + n);
  EXPECT_EQ(stateOf(copy()), stateOf(dir_.ptr()));
}

// A whole-log transfer that waits for room with its bookmark on the tail,
// which is deleted and its index taken by a new event meanwhile, resumes
// with what the index holds now: the follower gets the new event, not the
// deleted one (which would make it skip the new one as already delivered).
TEST_F(FollowerTest, TransferSendsWhatTheBookmarkedIndexHoldsNow) {
  Writer::Ptr w = followed(Config(4, keepLastEntries));
  for (int i = 0; i < 3; ++i) w->eventIs(std::to_string(i));
  settle();
  capacityIs(0);
  w->eventIs("deleted");  // index 3; the log is dirty now
  // One record per step: the transaction's opening, then entries 0 to 2;
  // the transfer then waits with its bookmark on index 3.
  for (int step = 0; step < 4; ++step) stepFlowOut(w.ptr());
  w->logDel(3);  // the tail: the next index falls back to 3
  w->eventIs("3");
  capacityIs(kRoomy);
  settle();
  EXPECT_EQ(follower_.indices, (std::vector<unsigned int>{0, 1, 2, 3}));
  EXPECT_EQ(stateOf(copy()), stateOf(dir_.ptr()));
}

TEST_F(FollowerTest, FreshCopyOfTheSameWriterContinuesWithoutRepeats) {
  Writer::Ptr first = KronlogWriter::writerFactory("g", Config(8, keepLastEntries));
  for (int i = 0; i < 3; ++i) first->eventIs(std::to_string(i));
  follower_.writerIs(first);
  Writer::Ptr second = KronlogWriter::writerFactory("g", Config(8, keepLastEntries));
  for (unsigned i = 1; i < 6; ++i) second->logIs(i, LogEntry(i, std::to_string(i)));
  follower_.writerIs(second);
  EXPECT_EQ(follower_.indices, (std::vector<unsigned int>{0, 1, 2, 3, 4, 5}));
  Writer::Ptr third = KronlogWriter::writerFactory("g", Config(8, keepLastEntries));
  third->logIs(9, LogEntry(9, "9"));
  follower_.writerIs(third);
  EXPECT_EQ(follower_.gaps, std::vector<std::string>{"6-8"});
  EXPECT_EQ(follower_.indices.back(), 9u);
}

// ---- A read-only copy

TEST_F(WriterAdapterTest, CopyRefusesItsUsersChanges) {
  dir_->writerIs("g", Config())->eventIs("x");
  settle();
  WriterDir* d = copy();
  Writer* w = copyOf("g");
  EXPECT_THROW(d->writerIs("h", Config()), Qel::ReadOnlyException);
  EXPECT_THROW(d->writerDel("g"), Qel::ReadOnlyException);
  EXPECT_THROW(w->eventIs("y"), Qel::ReadOnlyException);
  EXPECT_THROW(w->logEnq(LogEntry(1, "y")), Qel::ReadOnlyException);
  EXPECT_THROW(w->logDeq(), Qel::ReadOnlyException);
  EXPECT_THROW(w->overflowCountIs(9), Qel::ReadOnlyException);
  EXPECT_THROW(w->logMetadataIs(LogMetadata(7, 7)), Qel::ReadOnlyException);
  EXPECT_EQ(stateOf(d), stateOf(dir_.ptr()));
}

// ---- A hostile peer

struct Hostile {
  const char* what;
  RecordKind kind;
  Qel::AttributeId attr;
  std::uint32_t entity;
  std::string payload;
  const char* reason;
};

TEST_F(WriterAdapterTest, MalformedWriterRecordsCloseTheStreamAndChangeNothing) {
  using StreamTesting::stringBytes;
  using StreamTesting::u32Bytes;
  const std::vector<Hostile> cases = {
      {"truncated entry", RecordKind::attrUpdate, 263, 2, u32Bytes(9) + std::string(3, 'x'),
       "truncated double: 8 bytes needed, 3 left"},
      {"trailing bytes", RecordKind::attrUpdate, 261, 2, u32Bytes(9) + "z",
       "1 trailing bytes after the last field"},
      {"unknown attribute", RecordKind::attrUpdate, 270, 2, u32Bytes(1),
       "unknown attribute identifier 270"},
      {"member deletion of a counter", RecordKind::memberDel, 261, 2, u32Bytes(1),
       "member deletion on a value"},
      {"metadata cut short", RecordKind::attrUpdate, 262, 2, u32Bytes(1),
       "truncated u32: 4 bytes needed, 0 left"},
      {"deletion of an absent writer", RecordKind::memberDel, 258, 1, stringBytes("nope"),
       "no member nope"},
      {"membership of a non-writer", RecordKind::attrUpdate, 258, 1, stringBytes("g") + u32Bytes(1),
       "is not an orphan writer g"},
      {"creation with an unknown overflow action", RecordKind::create, 0, 50,
       stringBytes("KronlogWriter::Writer") + stringBytes("w") + u32Bytes(3) + u32Bytes(7),
       "OverflowActionType has no value 7"},
  };
  for (const Hostile& c : cases) {
    SCOPED_TRACE(c.what);
    dir_->writerIs("g", Config(3, keepLastEntries));
    dir_->writer("g")->eventIs("kept");
    settle();
    std::string before = stateOf(copy());
    Qel::Ptr<WriterDir> held = copy();
    pair_->inject(StreamTesting::frameOf(c.kind, c.attr, c.entity, c.payload));
    Qel::Connection* client = pair_->client.ptr();
    EXPECT_FALSE(client->open());
    EXPECT_NE(client->reason().stdString().find(c.reason), std::string::npos) << client->reason();
    EXPECT_EQ(stateOf(held.ptr()), before);
    connect();
  }
}

}  // namespace
