// Tests of the writer: recording under both overflow policies, the text
// overloads, its attributes, logIs, traces and block reuse. The log
// accessors every owner shares are in reader/LogAttributeTest.cpp.
#include <gtest/gtest.h>

#include <cstdint>
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

  static std::string joined(const Strings& s) {
    std::string out;
    for (const std::string& e : s) out += (out.empty() ? "" : ", ") + e;
    return out;
  }

  static Indices indices(const Writer& w) {
    Indices out;
    for (auto it = w.logIterConst(); it; ++it) out.push_back(it->index());
    return out;
  }
};

// ---- eventIs under each policy: `before` events fill the log (after
// `enqueued` entries appended past the policy, as restores and streamed
// copies do), then the events up to `last` are heard.

struct PolicyCase {
  const char* what;
  unsigned size;
  OverflowActionType action;
  int enqueued, before, last;
  const char* heard;
  const char* kept;
  LogMetadata metadata;
};

const char* const kThreeOverflows = "overflowCount 1, overflowCount 2, overflowCount 3";

const PolicyCase kPolicyCases[] = {
    {"size 0 keep first", 0, keepFirstEntries, 0, 0, 3, kThreeOverflows, "", LogMetadata(0, 0)},
    {"size 0 keep last", 0, keepLastEntries, 0, 0, 3, kThreeOverflows, "", LogMetadata(0, 0)},
    {"exactly full keep first", 3, keepFirstEntries, 0, 0, 3, "log 0, log 1, log 2",
     "event 1, event 2, event 3", LogMetadata(0, 3)},
    {"exactly full keep last", 3, keepLastEntries, 0, 0, 3, "log 0, log 1, log 2",
     "event 1, event 2, event 3", LogMetadata(0, 3)},
    {"full keep last evicts the oldest before appending", 3, keepLastEntries, 0, 3, 5,
     "log 0, overflowCount 1, log 3, log 1, overflowCount 2, log 4", "event 3, event 4, event 5",
     LogMetadata(2, 5)},
    {"full keep first drops", 3, keepFirstEntries, 0, 3, 5, "overflowCount 1, overflowCount 2",
     "event 1, event 2, event 3", LogMetadata(0, 3)},
    {"overfull keep last trims the oldest, then evicts", 2, keepLastEntries, 4, 0, 1,
     "log 0, overflowCount 1, log 1, overflowCount 2, log 2, overflowCount 3, log 4",
     "entry 3, event 1", LogMetadata(3, 5)},
    {"overfull keep first trims the newest by index, then drops", 2, keepFirstEntries, 4, 0, 1,
     "log 3, overflowCount 1, log 2, overflowCount 2, overflowCount 3", "entry 0, entry 1",
     LogMetadata(0, 2)},
};

TEST_F(WriterTest, EventsAreKeptEvictedOrDroppedByThePolicy) {
  for (const PolicyCase& c : kPolicyCases) {
    SCOPED_TRACE(c.what);
    Writer::Ptr w = writer(c.size, c.action);
    enqueue(*w, c.enqueued);
    events(*w, 1, c.before);
    Recorder r(w);
    events(*w, c.before + 1, c.last);
    EXPECT_EQ(joined(r.heard), c.heard);
    EXPECT_EQ(joined(messages(*w)), c.kept);
    EXPECT_EQ(w->logMetadata(), c.metadata);
  }
}

// ---- The text overloads store the same bytes; a dropped event reads no clock.

const std::string_view kBytes("nul\0inside\n", 11);

struct Overload {
  const char* name;
  void (*record)(Writer&, std::string_view);
  std::string_view stored;
};

const Overload kOverloads[] = {
    {"QelString", [](Writer& w, std::string_view t) { w.eventIs(Qel::String(t)); }, kBytes},
    {"StringView", [](Writer& w, std::string_view t) { w.eventIs(t); }, kBytes},
    {"StdString", [](Writer& w, std::string_view t) { w.eventIs(std::string(t)); }, kBytes},
    {"CharPointer", [](Writer& w, std::string_view t) { w.eventIs(t.data()); },
     "nul"},  // ends at NUL
};

TEST_F(WriterTest, TextOverloadsStoreTheBytesAndDropWithoutReadingTheClock) {
  for (const Overload& o : kOverloads) {
    SCOPED_TRACE(o.name);
    gClockReads = 0;
    Writer::Ptr w = writer(1, keepFirstEntries);
    o.record(*w, kBytes);
    o.record(*w, kBytes);
    EXPECT_EQ(gClockReads, 1);
    EXPECT_EQ(w->log(0), LogEntry(gClockNow - 1, Qel::String(o.stored)));
    EXPECT_EQ(w->logs(), 1u);
    EXPECT_EQ(w->overflowCount(), 1u);
  }
}

// ---- Attributes

// overflowCount notifies only on a change and wraps modulo 2^32; logMetadataIs
// notifies every time.
TEST_F(WriterTest, AttributeSettersNotify) {
  Writer::Ptr w = writer(3, keepLastEntries);
  Recorder r(w);
  EXPECT_EQ(w->overflowCountInc(5), 5u);
  EXPECT_EQ(w->overflowCountInc(0), 5u);
  w->overflowCountIs(5);
  w->overflowCountIs(4294967290u);
  EXPECT_EQ(w->overflowCountInc(10), 4u);
  w->logMetadataIs(LogMetadata(7, 7));
  w->logMetadataIs(LogMetadata(7, 7));
  EXPECT_EQ(r.heard, (Strings{"overflowCount 5", "overflowCount 4294967290", "overflowCount 4",
                              "logMetadata", "logMetadata"}));
}

TEST_F(WriterTest, RegisteredTypeReadsTheAttributes) {
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

// ---- logIs on a log holding indices 1 and 2: an equal value below the
// entry count (2) is silent, at the count it notifies.

struct LogIsCase {
  unsigned index;
  LogEntry entry;
  bool notifies;
  Indices after;
};

TEST_F(WriterTest, LogIsNotifiesUnlessEqualBelowTheCount) {
  const LogIsCase cases[] = {
      {1, LogEntry(1, "entry 1"), false, {1, 2}}, {2, LogEntry(2, "entry 2"), true, {1, 2}},
      {1, LogEntry(1, "changed"), true, {1, 2}},  {1, LogEntry(1.5, "entry 1"), true, {1, 2}},
      {5, LogEntry(5, "new"), true, {1, 2, 5}},   {0, LogEntry(0, "new"), true, {0, 1, 2}}};
  for (const LogIsCase& c : cases) {
    SCOPED_TRACE(::testing::Message() << "logIs(" << c.index << ", " << c.entry << ")");
    Writer::Ptr w = writer(10, keepLastEntries);
    enqueue(*w, 3);
    w->logDeq();
    Recorder r(w);
    w->logIs(c.index, c.entry);
    EXPECT_EQ(r.heard, c.notifies ? Strings{"log " + std::to_string(c.index)} : Strings{});
    EXPECT_EQ(w->log(c.index), c.entry);
    EXPECT_EQ(indices(*w), c.after);
  }
}

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
    Qel::traceLevelsIs("Kronlog", 0);
    sink_.records.clear();
    Writer::Ptr w = writer(3, action);
    events(*w, 1, 3);
    Qel::traceLevelsIs("Kronlog", mask);
    w->eventIs(message);
    return sink_.records;
  }

  CapturingSink sink_;
};

TEST_F(WriterTraceTest, EventOnAFullLogTracesEntryStepsAndOutcomeAtTheEnabledLevelsOnly) {
  EXPECT_EQ(tracedEventOnFull(keepLastEntries, 0x7, Qel::String("link\0down", 9)),
            (Records{kEventIsEntry, sizeLen(3, 3), kTrimEntry, kAdmitEntry,
                     recorded("1.76381e+09", std::string("link\0down", 9))}));
  EXPECT_EQ(tracedEventOnFull(keepFirstEntries, 0x7, "link down"),
            (Records{kEventIsEntry, sizeLen(3, 3), kTrimEntry, kAdmitEntry, kQueueFull}));
  gClockNow = 1234.5;  // the stream's default format
  EXPECT_EQ(tracedEventOnFull(keepLastEntries, 0x1, "m"),
            (Records{kEventIsEntry, kTrimEntry, kAdmitEntry, recorded("1234.5", "m")}));
  EXPECT_EQ(tracedEventOnFull(keepLastEntries, 0, "m"), Records{});
  EXPECT_EQ(tracedEventOnFull(keepFirstEntries, 0, "m"), Records{});
}

TEST_F(WriterTraceTest, TrimmingTracesEachRemoval) {
  Writer::Ptr w = writer(2, keepLastEntries);
  enqueue(*w, 4);
  Qel::traceLevelsIs("Kronlog", 0x2);
  w->eventIs("new");
  EXPECT_EQ(sink_.records, (Records{sizeLen(2, 4), trimmed(2, 3), trimmed(2, 2)}));
}

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

// ---- Block reuse: a full keep-last log reuses the evicted entry's block
// when nothing else holds it; whatever still does keeps the old message.

class EventBlockTest : public WriterTest {
 protected:
  static std::uint64_t systemNodes() { return Writer::QelLog::qelAllocator().systemAllocations(); }
};

TEST_F(EventBlockTest, HeldMessagesSurviveEvictionReplacementAndTheWriterWithEitherPointerKind) {
  for (bool threadSafe : {false, true}) {
    Qel::VFPtrInterface::enableThreadSafePointers = threadSafe;
    Writer::Ptr w = writer(1, keepLastEntries);
    w->eventIs("first");
    const Qel::String first = w->log(0).message();
    events(*w, 1, 2);
    const Qel::String second = w->log(2).message();
    w->logIs(2, LogEntry(5, "replaced"));
    w->eventIs("next");
    EXPECT_EQ(messages(*w), Strings({"next"}));
    w = nullptr;  // the copies outlive the writer too
    EXPECT_STREQ(first.c_str(), "first");
    EXPECT_EQ(second, "event 2");
  }
  Qel::VFPtrInterface::enableThreadSafePointers = false;
}

TEST_F(EventBlockTest, IteratorOnAnEvictedEntryKeepsItsMessage) {
  Writer::Ptr w = writer(1, keepLastEntries);
  w->eventIs("old");
  Writer::LogIteratorConst it = w->logIterConst();
  w->eventIs("new");
  EXPECT_EQ(it->entry().message(), "old");
  EXPECT_EQ(messages(*w), Strings({"new"}));
}

TEST_F(EventBlockTest, LongerAndShorterMessagesAfterEvictionAreExact) {
  Writer::Ptr w = writer(1, keepLastEntries);
  for (const std::string& text : {std::string("ab"), std::string(500, 'x'), std::string("c"),
                                  std::string(17, 'y'), std::string(), std::string("d")}) {
    w->eventIs(text);
    const Qel::String stored = w->log(w->logMetadata().nextIndex() - 1).message();
    EXPECT_EQ(stored.stdString(), text);
    EXPECT_EQ(std::string(stored.c_str()), text);
  }
}

TEST_F(EventBlockTest, FullLogOfEqualMessagesTakesNothingFromTheSystem) {
  Writer::Ptr w = writer(8, keepLastEntries);
  events(*w, 10, 17);
  const std::uint64_t before = systemNodes();
  events(*w, 20, 99);
  EXPECT_EQ(systemNodes(), before);
  EXPECT_EQ(messages(*w).front(), "event 92");
}

}  // namespace
