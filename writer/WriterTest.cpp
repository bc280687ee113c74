// Tests of the writer: recording events under both overflow policies, the
// text overloads of eventIs, the writer's own attributes and logIs, trace
// records and node release. The log accessors it shares with every log
// owner are tested once, over both owners, in reader/LogAttributeTest.cpp.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Exception.h"
#include "qel/Trace.h"
#include "qel/Type.h"
#include "testing/TraceCapture.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::LogEntry;
using KronlogWriter::OverflowActionType;
using KronlogWriter::Writer;
using LogMetadata = Writer::LogMetadata;
using Strings = std::vector<std::string>;
using Indices = std::vector<unsigned>;

// A clock that counts its reads; each read moves it on by the step.
Qel::Seconds gClockNow = 0;
Qel::Seconds gClockStep = 0;
int gClockReads = 0;

Qel::Seconds fakeNow() {
  ++gClockReads;
  const Qel::Seconds now = gClockNow;
  gClockNow += gClockStep;
  return now;
}

// Hears every change of a writer, in order, as text.
class Recorder : public Writer::Notifiee {
 public:
  explicit Recorder(const Writer::Ptr& w) { notifierIs(w); }
  using Writer::Notifiee::onLog;
  void onLog(unsigned int index) override { heard.push_back("log " + std::to_string(index)); }
  void onOverflowCount() override {
    heard.push_back("overflowCount " + std::to_string(notifier()->overflowCount()));
  }
  void onLogMetadata() override { heard.push_back("logMetadata"); }
  Strings heard;
};

class WriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gClockNow = 1763805600.25;
    gClockStep = 1.0;
    gClockReads = 0;
    Qel::utcNowFunctionIs(&fakeNow);
  }
  void TearDown() override { Qel::utcNowFunctionIs(nullptr); }

  static Writer::Ptr writer(unsigned size, OverflowActionType action) {
    return KronlogWriter::writerFactory("w", Config(size, action));
  }

  // Records "event <k>" for k in [first, last].
  static void events(Writer& w, int first, int last) {
    for (int k = first; k <= last; ++k) w.eventIs(Qel::String("event " + std::to_string(k)));
  }

  // Appends "entry <k>" stamped k, for k in [0, n), bypassing the policy.
  static void enqueue(Writer& w, int n) {
    for (int k = 0; k < n; ++k) w.logEnq(LogEntry(k, Qel::String("entry " + std::to_string(k))));
  }

  static Strings messages(const Writer& w) {
    Strings out;
    for (const Writer::QelLog& m : w.logQueue()) out.push_back(m.entry().message().stdString());
    return out;
  }

  static Indices indices(const Writer& w) {
    Indices out;
    for (auto it = w.logIterConst(); it; ++it) out.push_back(it->index());
    return out;
  }
};

// ---- eventIs, the same under both policies

class EventEitherPolicyTest : public WriterTest,
                              public ::testing::WithParamInterface<OverflowActionType> {};

TEST_P(EventEitherPolicyTest, SizeZeroNeverStoresAndCountsOneOverflowPerEvent) {
  Writer::Ptr w = writer(0, GetParam());
  Recorder r(w);
  events(*w, 1, 3);
  EXPECT_EQ(w->logs(), 0u);
  EXPECT_EQ(w->logMetadata(), LogMetadata(0, 0));
  EXPECT_EQ(r.heard, (Strings{"overflowCount 1", "overflowCount 2", "overflowCount 3"}));
}

TEST_P(EventEitherPolicyTest, FillingExactlyToSizeKeepsAndNotifiesEveryEvent) {
  Writer::Ptr w = writer(3, GetParam());
  Recorder r(w);
  events(*w, 1, 3);
  EXPECT_EQ(r.heard, (Strings{"log 0", "log 1", "log 2"}));
  EXPECT_EQ(messages(*w), (Strings{"event 1", "event 2", "event 3"}));
  EXPECT_EQ(w->logMetadata(), LogMetadata(0, 3));
}

INSTANTIATE_TEST_SUITE_P(Policies, EventEitherPolicyTest,
                         ::testing::Values(keepFirstEntries, keepLastEntries),
                         [](const ::testing::TestParamInfo<OverflowActionType>& p) {
                           return KronlogWriter::stringValue(p.param).stdString();
                         });

// ---- eventIs on a full log

class EventOnFullLogTest : public WriterTest {};

TEST_F(EventOnFullLogTest, KeepLastFiveEventsInSizeThreeEvictsTheOldestBeforeAppending) {
  Writer::Ptr w = writer(3, keepLastEntries);
  events(*w, 1, 3);
  Recorder r(w);
  events(*w, 4, 5);
  EXPECT_EQ(r.heard,
            (Strings{"log 0", "overflowCount 1", "log 3", "log 1", "overflowCount 2", "log 4"}));
  EXPECT_EQ(messages(*w), (Strings{"event 3", "event 4", "event 5"}));
  EXPECT_EQ(indices(*w), (Indices{2, 3, 4}));
  EXPECT_EQ(w->logMetadata(), LogMetadata(2, 5));
}

TEST_F(EventOnFullLogTest, KeepFirstFiveEventsInSizeThreeDropsTheLastTwoUnstamped) {
  Writer::Ptr w = writer(3, keepFirstEntries);
  events(*w, 1, 3);
  Recorder r(w);
  events(*w, 4, 5);
  EXPECT_EQ(gClockReads, 3);
  EXPECT_EQ(r.heard, (Strings{"overflowCount 1", "overflowCount 2"}));
  EXPECT_EQ(messages(*w), (Strings{"event 1", "event 2", "event 3"}));
  EXPECT_EQ(w->logMetadata(), LogMetadata(0, 3));
}

// ---- eventIs on a log holding more entries than its size (filled with
// logEnq, which ignores the policy, as restores and streamed copies do)

class EventOnOverfullLogTest : public WriterTest {
 protected:
  // Size 2, holding indices 0..3.
  Writer::Ptr overfull(OverflowActionType action) {
    Writer::Ptr w = writer(2, action);
    enqueue(*w, 4);
    return w;
  }
};

TEST_F(EventOnOverfullLogTest, KeepLastTrimsTheOldestThenEvictsAndAppendsAtTheNextIndex) {
  Writer::Ptr w = overfull(keepLastEntries);
  Recorder r(w);
  w->eventIs("new");
  EXPECT_EQ(r.heard, (Strings{"log 0", "overflowCount 1", "log 1", "overflowCount 2", "log 2",
                              "overflowCount 3", "log 4"}));
  EXPECT_EQ(messages(*w), (Strings{"entry 3", "new"}));
  EXPECT_EQ(indices(*w), (Indices{3, 4}));
}

TEST_F(EventOnOverfullLogTest, KeepFirstTrimsTheNewestByIndexThenDrops) {
  Writer::Ptr w = overfull(keepFirstEntries);
  Recorder r(w);
  w->eventIs("new");
  EXPECT_EQ(r.heard,
            (Strings{"log 3", "overflowCount 1", "log 2", "overflowCount 2", "overflowCount 3"}));
  EXPECT_EQ(messages(*w), (Strings{"entry 0", "entry 1"}));
  EXPECT_EQ(w->logMetadata(), LogMetadata(0, 2));
}

// ---- The text overloads of eventIs: each stores the same bytes, and a
// dropped event neither reads the clock nor touches the log.

const std::string_view kBytes("nul\0inside\n", 11);

struct Overload {
  const char* name;
  void (*record)(Writer&, std::string_view);
  std::string_view stored;  // what lands in the log
};

std::ostream& operator<<(std::ostream& os, const Overload& o) {
  return os << o.name;
}

const Overload kOverloads[] = {
    {"QelString", [](Writer& w, std::string_view t) { w.eventIs(Qel::String(t)); }, kBytes},
    {"StringView", [](Writer& w, std::string_view t) { w.eventIs(t); }, kBytes},
    {"StdString", [](Writer& w, std::string_view t) { w.eventIs(std::string(t)); }, kBytes},
    // A C string ends at its first NUL.
    {"CharPointer", [](Writer& w, std::string_view t) { w.eventIs(t.data()); }, "nul"},
};

class EventIsOverloadTest : public WriterTest, public ::testing::WithParamInterface<Overload> {};

TEST_P(EventIsOverloadTest, StoresTheBytesStampedWithOneClockRead) {
  Writer::Ptr w = writer(2, keepLastEntries);
  GetParam().record(*w, kBytes);
  EXPECT_EQ(gClockReads, 1);
  EXPECT_EQ(w->log(0), LogEntry(1763805600.25, Qel::String(GetParam().stored)));
}

TEST_P(EventIsOverloadTest, DroppedEventLeavesTheLogAndCountsOneOverflow) {
  Writer::Ptr full = writer(1, keepFirstEntries);
  full->eventIs("kept");
  for (const Writer::Ptr& w : {writer(0, keepLastEntries), full}) {
    GetParam().record(*w, kBytes);
    EXPECT_EQ(w->overflowCount(), 1u);
    EXPECT_EQ(messages(*w), w == full ? Strings{"kept"} : Strings{});
  }
  EXPECT_EQ(gClockReads, 1);
}

INSTANTIATE_TEST_SUITE_P(Overloads, EventIsOverloadTest, ::testing::ValuesIn(kOverloads),
                         [](const ::testing::TestParamInfo<Overload>& p) {
                           return std::string(p.param.name);
                         });

// ---- Attributes

class WriterAttributeTest : public WriterTest {};

TEST_F(WriterAttributeTest, OverflowCountSettersNotifyOnlyOnChangeAndWrapModulo2To32) {
  Writer::Ptr w = writer(3, keepLastEntries);
  Recorder r(w);
  EXPECT_EQ(w->overflowCountInc(5), 5u);
  EXPECT_EQ(w->overflowCountInc(0), 5u);
  w->overflowCountIs(5);
  w->overflowCountIs(4294967290u);
  EXPECT_EQ(w->overflowCountInc(10), 4u);
  EXPECT_EQ(r.heard, (Strings{"overflowCount 5", "overflowCount 4294967290", "overflowCount 4"}));
}

TEST_F(WriterAttributeTest, LogMetadataIsAlwaysNotifiesAndMovesWhereTheNextEntryGoes) {
  Writer::Ptr w = writer(3, keepLastEntries);
  Recorder r(w);
  w->logMetadataIs(LogMetadata(0, 0));
  w->logMetadataIs(LogMetadata(7, 7));
  w->logMetadataIs(LogMetadata(7, 7));
  EXPECT_EQ(r.heard, (Strings{"logMetadata", "logMetadata", "logMetadata"}));
  w->eventIs("e");
  EXPECT_EQ(w->logMetadata(), LogMetadata(7, 8));
}

TEST_F(WriterAttributeTest, RegisteredTypeReadsTheAttributes) {
  Writer::Ptr w = writer(3, keepLastEntries);
  events(*w, 1, 5);
  const Qel::TypeNode* type = Qel::typeNode("KronlogWriter::Writer");
  ASSERT_EQ(w->fwkType(), type);
  EXPECT_EQ(type->attribute(*w, "name"), "'w'");
  EXPECT_EQ(type->attribute(*w, "config"),
            "Value('KronlogWriter::Config', ** {'size': 3, 'overflowAction': keepLastEntries})");
  EXPECT_EQ(type->attribute(*w, "overflowCount"), "2");
  EXPECT_EQ(type->attribute(*w, "logMetadata"),
            "Value('KronlogWriter::Writer::LogMetadata', ** {'firstIndex': 2, 'nextIndex': 5})");
}

// ---- logIs on a log holding indices 1 and 2 (two entries: index 1 is below
// the entry count, index 2 is at it)

struct LogIsCase {
  const char* what;
  unsigned index;
  LogEntry entry;
  bool notifies;
  Indices after;
};

std::ostream& operator<<(std::ostream& os, const LogIsCase& c) {
  return os << "logIs(" << c.index << ", " << c.entry << ")";
}

class LogIsTest : public WriterTest, public ::testing::WithParamInterface<LogIsCase> {};

TEST_P(LogIsTest, WritesAndNotifiesUnlessEqualBelowTheCount) {
  const LogIsCase& c = GetParam();
  Writer::Ptr w = writer(10, keepLastEntries);
  enqueue(*w, 3);
  w->logDeq();
  Recorder r(w);
  w->logIs(c.index, c.entry);
  EXPECT_EQ(r.heard, c.notifies ? Strings{"log " + std::to_string(c.index)} : Strings{});
  EXPECT_EQ(w->log(c.index), c.entry);
  EXPECT_EQ(indices(*w), c.after);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LogIsTest,
    ::testing::Values(LogIsCase{"sameBelowCount", 1, LogEntry(1, "entry 1"), false, {1, 2}},
                      LogIsCase{"sameAtCount", 2, LogEntry(2, "entry 2"), true, {1, 2}},
                      LogIsCase{"otherMessageBelowCount", 1, LogEntry(1, "changed"), true, {1, 2}},
                      LogIsCase{"otherTimeBelowCount", 1, LogEntry(1.5, "entry 1"), true, {1, 2}},
                      LogIsCase{"absentAfterTail", 5, LogEntry(5, "new"), true, {1, 2, 5}},
                      LogIsCase{"absentBeforeHead", 0, LogEntry(0, "new"), true, {0, 1, 2}}),
    [](const ::testing::TestParamInfo<LogIsCase>& p) { return std::string(p.param.what); });

// ---- Error paths

TEST_F(WriterTest, FullIndexSpaceRaisesKeepsNothingAndIsSilent) {
  Writer::Ptr w = writer(10, keepLastEntries);
  w->logMetadataIs(LogMetadata(5, 4));  // index 4 is the last one left
  Recorder r(w);
  EXPECT_THROW(w->newLog(4, LogEntry(1, "x")), Qel::RangeException);
  EXPECT_THROW(w->logEnq(LogEntry(1, "x")), Qel::RangeException);
  EXPECT_EQ(w->logs(), 0u);
  EXPECT_TRUE(r.heard.empty());
}

// ---- Trace records of eventIs

using KronlogTesting::CapturingSink;
using KronlogTesting::Seen;
using Records = std::vector<Seen>;

const Seen kEventIsEntry{0, "KronlogWriter", 14, "eventIs",
                         "void KronlogWriter::Writer::eventIs(Qel::String)"};
const Seen kTrimEntry{0, "KronlogWriter", 34, "handleExcessiveLogEntries",
                      "void KronlogWriter::handleExcessiveLogEntries(KronlogWriter::Writer::Ptr)"};
const Seen kAdmitEntry{0, "KronlogWriter", 55, "isLogEntryAllowed",
                       "bool KronlogWriter::isLogEntryAllowed(KronlogWriter::Writer::Ptr)"};
const Seen kQueueFull{1, "KronlogWriter", 71, "isLogEntryAllowed",
                      "isLogEntryAllowed Queue full. WriterConfig has "
                      "overflowAction==keepFirstEntries. Dropping message."};

Seen sizeLen(unsigned size, unsigned len) {
  return {1, "KronlogWriter", 17, "eventIs",
          "eventIs size: " + std::to_string(size) + " len: " + std::to_string(len)};
}
Seen trimmed(unsigned size, unsigned len) {
  return {
      1, "KronlogWriter", 49, "handleExcessiveLogEntries",
      "handleExcessiveLogEntries size: " + std::to_string(size) + " len: " + std::to_string(len)};
}
Seen recorded(const std::string& timestamp, const std::string& message) {
  return {0, "KronlogWriter", 27, "eventIs",
          "eventIs timestamp: " + timestamp + " message: " + message};
}

class WriterTraceTest : public WriterTest {
 protected:
  void SetUp() override {
    WriterTest::SetUp();
    gClockStep = 0;  // trace records read the clock too
  }

  // Fills a writer with tracing off, then records `message` with `mask` on.
  Records tracedEventOnFull(OverflowActionType action, std::uint32_t mask,
                            const Qel::String& message) {
    Writer::Ptr w = writer(3, action);
    events(*w, 1, 3);
    Qel::traceLevelsIs("Kronlog", mask);
    w->eventIs(message);
    return sink_.records;
  }

  CapturingSink sink_;
};

TEST_F(WriterTraceTest, FullKeepLastEventTracesEntryStepsAndTheRecordedEntry) {
  EXPECT_EQ(tracedEventOnFull(keepLastEntries, 0x7, Qel::String("link\0down", 9)),
            (Records{kEventIsEntry, sizeLen(3, 3), kTrimEntry, kAdmitEntry,
                     recorded("1.76381e+09", std::string("link\0down", 9))}));
}

TEST_F(WriterTraceTest, FullKeepFirstEventTracesTheDroppedMessage) {
  EXPECT_EQ(tracedEventOnFull(keepFirstEntries, 0x7, "link down"),
            (Records{kEventIsEntry, sizeLen(3, 3), kTrimEntry, kAdmitEntry, kQueueFull}));
}

TEST_F(WriterTraceTest, OnlyEnabledLevelsAreEmittedWithTheStreamsDefaultTimestamp) {
  gClockNow = 1234.5;
  EXPECT_EQ(tracedEventOnFull(keepLastEntries, 0x1, "m"),
            (Records{kEventIsEntry, kTrimEntry, kAdmitEntry, recorded("1234.5", "m")}));
}

TEST_F(WriterTraceTest, TrimmingTracesEachRemoval) {
  Writer::Ptr w = writer(2, keepLastEntries);
  enqueue(*w, 4);
  Qel::traceLevelsIs("Kronlog", 0x2);
  w->eventIs("new");
  EXPECT_EQ(sink_.records, (Records{sizeLen(2, 4), trimmed(2, 3), trimmed(2, 2)}));
}

TEST_F(WriterTraceTest, TracingOffEmitsNothing) {
  events(*writer(2, keepFirstEntries), 1, 3);
  events(*writer(2, keepLastEntries), 1, 3);
  EXPECT_TRUE(sink_.records.empty());
}

// ---- Lifetimes

TEST_F(WriterTest, RemovedEntriesAndDroppedWritersReleaseTheirLogNodes) {
  const std::uint64_t nodes = Qel::liveObjects("KronlogWriter::Writer::QelLog");
  const std::uint64_t writers = Qel::liveObjects("KronlogWriter::Writer");
  {
    Writer::Ptr a = writer(3, keepLastEntries), b = writer(10, keepFirstEntries);
    events(*a, 1, 50);  // 47 evictions
    enqueue(*b, 6);
    b->logDeq();
    b->logDel(3);
    EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer::QelLog") - nodes, 7u);
  }
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer::QelLog"), nodes);
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer"), writers);
}

// ---- Entries that share their block with the message
//
// A full keep-last log reuses the evicted entry's block for the next event
// when nothing else holds it; anything that still does must keep seeing
// the old message.

class EventBlockTest : public WriterTest {
 protected:
  static std::uint64_t systemNodes() { return Writer::QelLog::qelAllocator().systemAllocations(); }
};

TEST_F(EventBlockTest, MessageCopyOutlivesEvictionUnchanged) {
  Writer::Ptr w = writer(1, keepLastEntries);
  w->eventIs("first message");
  const Qel::String held = w->log(0).message();
  w->eventIs("other message");
  w->eventIs("third message");
  EXPECT_EQ(held, "first message");
  EXPECT_EQ(messages(*w), Strings({"third message"}));
}

TEST_F(EventBlockTest, MessageCopyOutlivesTheWriter) {
  Qel::String held;
  {
    Writer::Ptr w = writer(2, keepLastEntries);
    w->eventIs("kept after the writer");
    held = w->log(0).message();
  }
  EXPECT_EQ(held, "kept after the writer");
  EXPECT_STREQ(held.c_str(), "kept after the writer");
}

TEST_F(EventBlockTest, IteratorOnAnEvictedEntryKeepsItsMessage) {
  Writer::Ptr w = writer(1, keepLastEntries);
  w->eventIs("old");
  Writer::LogIteratorConst it = w->logIterConst();
  w->eventIs("new");
  EXPECT_EQ(it->entry().message(), "old");
  EXPECT_EQ(messages(*w), Strings({"new"}));
}

TEST_F(EventBlockTest, ReplacedMessageDoesNotExposeTheBlockToReuse) {
  Writer::Ptr w = writer(1, keepLastEntries);
  w->eventIs("recorded");
  const Qel::String held = w->log(0).message();
  w->logIs(0, LogEntry(5, "replaced"));
  w->eventIs("next event");
  EXPECT_EQ(held, "recorded");
  EXPECT_EQ(messages(*w), Strings({"next event"}));
}

TEST_F(EventBlockTest, LongerAndShorterMessagesAfterEvictionAreExact) {
  Writer::Ptr w = writer(1, keepLastEntries);
  const std::string longText(500, 'x');
  for (const std::string& text : {std::string("ab"), longText, std::string("c"),
                                  std::string(17, 'y'), std::string(), std::string("d")}) {
    w->eventIs(text);
    EXPECT_EQ(w->log(w->logMetadata().nextIndex() - 1).message().stdString(), text);
    EXPECT_EQ(std::string(w->log(w->logMetadata().nextIndex() - 1).message().c_str()), text);
  }
}

TEST_F(EventBlockTest, FullLogOfEqualMessagesTakesNothingFromTheSystem) {
  Writer::Ptr w = writer(8, keepLastEntries);
  events(*w, 10, 17);
  const std::uint64_t before = systemNodes();
  events(*w, 20, 99);
  EXPECT_EQ(systemNodes(), before);
  EXPECT_EQ(messages(*w).front(), "event 92");
  EXPECT_EQ(w->overflowCount(), 80u);
}

TEST_F(EventBlockTest, CopiesSurviveEvictionWithThreadSafePointers) {
  Qel::VFPtrInterface::enableThreadSafePointers = true;
  {
    Writer::Ptr w = writer(1, keepLastEntries);
    w->eventIs("shared one");
    const Qel::String held = w->log(0).message();
    w->eventIs("shared two");
    w->eventIs("shared three");
    EXPECT_EQ(held, "shared one");
    EXPECT_EQ(messages(*w), Strings({"shared three"}));
  }
  Qel::VFPtrInterface::enableThreadSafePointers = false;
}

}  // namespace
