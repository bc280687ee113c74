// Tests of the read: what patterns and the time window select, the merge
// order, what a read leaves in a status it shares, malformed patterns and
// the trace sites.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/String.h"
#include "qel/Trace.h"
#include "testing/TraceCapture.h"

namespace {

using KronlogReader::Config;
using KronlogReader::Status;
using KronlogWriter::WriterDir;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// One status entry: agent name, message group, timestamp, message.
using Row = std::tuple<std::string, std::string, double, std::string>;

std::vector<Row> rowsOf(const Status& status) {
  std::vector<Row> rows;
  for (Status::LogIteratorConst it = status.logIterConst(); it; ++it) {
    const KronlogReader::LogEntry& e = *it->value();
    rows.emplace_back(e.agentName().stdString(), e.messageGroup().stdString(), e.timestamp(),
                      e.message().stdString());
  }
  return rows;
}

// The writer directory `name` in `dir`, created on first use.
WriterDir::Ptr agentIn(const Qel::Dir::Ptr& dir, const std::string& name) {
  if (auto* existing = dynamic_cast<WriterDir*>(dir->entity(Qel::Name(name)))) {
    return existing;
  }
  WriterDir::Ptr agent = KronlogWriter::writerDirFactory(Qel::Name(name));
  dir->entityIs(agent);
  return agent;
}

KronlogWriter::Writer::Ptr writerIn(const Qel::Dir::Ptr& dir, const std::string& agent,
                                    const std::string& group) {
  return agentIn(dir, agent)->writerIs(Qel::Name(group), KronlogWriter::Config());
}

// Appends to the writer's log directly, so the timestamp is the caller's.
void addEntry(const Qel::Dir::Ptr& dir, const std::string& agent, const std::string& group,
              double t, const std::string& message) {
  writerIn(dir, agent, group)->logEnq(KronlogWriter::LogEntry(t, Qel::String(message)));
}

// One row per writer of `config`, at `t` with message "agent/group", in the
// order a read visits them: directory, then entity, then writer, each in its
// map's own order.
std::vector<Row> inVisitOrder(const Config& config, double t) {
  std::vector<Row> rows;
  for (const Qel::Dir& d : config.dirMap()) {
    for (const Qel::Entity& e : d.entityMap()) {
      auto* agent = dynamic_cast<const WriterDir*>(&e);
      if (!agent) continue;
      for (const KronlogWriter::Writer& w : agent->writerMap()) {
        const std::string a = agent->name().stdString(), g = w.name().stdString();
        rows.emplace_back(a, g, t, a + "/" + g);
      }
    }
  }
  return rows;
}

// Every read test works on one directory of agents, already in the
// configuration, and a status of its own.
class ReadTest : public ::testing::Test {
 protected:
  void addEntry(const std::string& agent, const std::string& group, double t,
                const std::string& message) {
    ::addEntry(dir_, agent, group, t, message);
  }
  void read() { KronlogReader::readerFactory(config_, status_); }
  std::vector<Row> statusRows() const { return rowsOf(*status_); }
  std::vector<std::string> statusMessages() const {
    std::vector<std::string> out;
    for (const Row& r : statusRows()) out.push_back(std::get<3>(r));
    return out;
  }
  std::vector<unsigned int> statusIndices() const {
    std::vector<unsigned int> out;
    for (Status::LogIteratorConst it = status_->logIterConst(); it; ++it) {
      out.push_back(it.index());
    }
    return out;
  }

  Qel::Dir::Ptr dir_ = Qel::dirFactory("agents");
  Config::Ptr config_ = [this] {
    Config::Ptr c = KronlogReader::configFactory();
    c->dirIs(dir_);
    return c;
  }();
  Status::Ptr status_ = KronlogReader::statusFactory();
};

// ---- Patterns: whole-string, case-sensitive ECMAScript matches.

// The other name is plain and the other pattern is left at ".*", so the
// entry is read exactly when the pattern under test selects the name.
TEST_F(ReadTest, AgentAndGroupPatternsSelectWholeNamesOnly) {
  const std::tuple<const char*, const char*, bool> cases[] = {{"agent", "agent", true},
                                                              {"agent", "agent1", false},
                                                              {"agent", "xagent", false},
                                                              {"agent", "Agent", false},
                                                              {"bgp|ospf", "ospf", true},
                                                              {"bgp|ospf", "bgpospf", false},
                                                              {"^agent$", "agent", true},
                                                              {"agent[0-9]+", "agent12", true},
                                                              {"", "", true},
                                                              {"", "a", false},
                                                              // ".*" as std::regex_match has it
                                                              {".*", "a\nb", false},
                                                              {".*", "x\ry", false},
                                                              {".*", "\xe2\x80\xa8", true},
                                                              {".*", "\xc2\x85\xff", true},
                                                              {"[^\\n]*", "x\ry", true},
                                                              {".+", "", false}};
  for (const auto& [pattern, name, selected] : cases) {
    for (bool agent : {true, false}) {
      SCOPED_TRACE(::testing::Message()
                   << (agent ? "agent " : "group ") << pattern << " on " << name);
      Qel::Dir::Ptr dir = Qel::dirFactory("agents");
      ::addEntry(dir, agent ? name : "a", agent ? "g" : name, 1.0, "m");
      Config::Ptr config = KronlogReader::configFactory();
      config->dirIs(dir);
      agent ? config->agentPatternIs(pattern) : config->messageGroupPatternIs(pattern);
      Status::Ptr status = KronlogReader::statusFactory();
      KronlogReader::readerFactory(config, status);
      EXPECT_EQ(status->logs(), selected ? 1u : 0u);
    }
  }
}

// ---- The time window: both ends inclusive, NaN never inside.

TEST_F(ReadTest, WindowKeepsAnEntryExactlyWhenInsideIt) {
  const double cases[][4] = {// min, max, timestamp, kept
                             {1.0, 2.0, 1.0, true},
                             {1.0, 2.0, 2.0, true},
                             {1.0, 2.0, std::nextafter(1.0, 0.0), false},
                             {1.0, 2.0, std::nextafter(2.0, 3.0), false},
                             {2.0, 2.0, 2.0, true},
                             {3.0, 1.0, 2.0, false},  // an inverted window holds nothing
                             {0.0, kInf, -1e-300, false},
                             {-kInf, kInf, kNaN, false},
                             {0.0, kNaN, 1.0, false},
                             {kNaN, kInf, 1.0, false},
                             {0.0, kInf, -0.0, true},
                             {-kInf, kInf, kInf, true},
                             {-kInf, kInf, -kInf, true}};
  KronlogWriter::Writer::Ptr w = writerIn(dir_, "agent", "group");
  for (const auto& [min, max, t, kept] : cases) {
    SCOPED_TRACE(::testing::Message() << t << " in [" << min << ", " << max << "]");
    w->logDelAll();
    w->logEnq(KronlogWriter::LogEntry(t, "m"));
    config_->minTimestampIs(min);
    config_->maxTimestampIs(max);
    status_ = KronlogReader::statusFactory();
    read();
    EXPECT_EQ(status_->logs(), kept ? 1u : 0u);
  }
}

// ---- Merge order.

TEST_F(ReadTest, EqualTimestampsOfManyWritersKeepVisitingOrder) {
  Qel::Dir::Ptr second = Qel::dirFactory("more agents");
  config_->dirIs(second);
  for (const char* agent : {"zeta", "alpha", "mid"}) {
    for (const char* group : {"w3", "w1", "w2"}) {
      addEntry(agent, group, 5.0, std::string(agent) + "/" + group);
      ::addEntry(second, std::string(agent) + "2", group, 5.0, std::string(agent) + "2/" + group);
    }
  }
  read();
  EXPECT_EQ(statusRows(), inVisitOrder(*config_, 5.0));
}

// A log filled out of time order (a restored or streamed one) is merged by
// its runs, equal timestamps keeping their log order, and only the final
// merge reaches the status.
TEST_F(ReadTest, LogsThatStepBackMergeByRunsKeepingLogOrderForEqualTimes) {
  for (auto [t, m] : {std::pair(2.0, "a"), {1.0, "b"}, {2.0, "c"}, {1.0, "d"}, {0.5, "e"}}) {
    addEntry("agent", "group", t, m);
  }
  addEntry("other", "group", 1.5, "f");
  addEntry("other", "group", 3.0, "g");
  const auto live = Qel::liveObjects("KronlogReader::LogEntry");
  read();
  EXPECT_EQ(Qel::liveObjects("KronlogReader::LogEntry"), live + 7);  // no scratch entries left
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"e", "b", "d", "f", "a", "c", "g"}));
  EXPECT_EQ(statusIndices(), (std::vector<unsigned int>{0, 1, 2, 3, 4, 5, 6}));
}

// A log in time order is merged from its first entry inside the window, and
// its entries past the window's end are left out; a step back hidden behind
// an entry outside the window still sends the read round by runs.
TEST_F(ReadTest, LogsAreCutToTheWindowAndAStepBackBehindAnEntryOutsideItIsFound) {
  for (double t : {-1.0, 1.0, 2.0, 3.0, 5.0}) addEntry("A", "g", t, "a" + std::to_string(int(t)));
  for (auto [t, m] : {std::pair(2.5, "b2.5"), {100.0, "b100"}, {1.5, "b1.5"}}) {
    addEntry("B", "g", t, m);
  }
  config_->minTimestampIs(1.0);
  config_->maxTimestampIs(3.0);
  read();
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"a1", "b1.5", "a2", "b2.5", "a3"}));
}

// Merged entries are linked in at once: a full index space fails at the
// entry where one-by-one appends would, and no scratch entries stay behind.
TEST_F(ReadTest, FullIndexSpaceFailsAtTheSameEntryAsAppendsWould) {
  for (double t : {1.0, 2.0, 3.0}) addEntry("A", "g", t, std::to_string(static_cast<int>(t)));
  status_->logEnq(KronlogReader::logEntryFactory("x", "y", 0, "kept"));
  // One append fits between tail and head, the second would leave no index free.
  status_->logMetadataIs(Status::LogMetadata(0, 4294967294u));
  try {
    read();
    FAIL() << "the read filled the index space without an error";
  } catch (const Qel::RangeException& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(statusIndices(), (std::vector<unsigned int>{0, 4294967294u}));
  EXPECT_EQ(status_->log(4294967294u)->message(), "1");
}

// ---- The status: appended to, never cleared or reordered.

// Each read appends its own ordered run behind what the status held.
TEST_F(ReadTest, EachReadAppendsASeparatelyOrderedRunBehindWhatTheStatusHeld) {
  status_->logEnq(KronlogReader::logEntryFactory("held", "held", 99.0, "held"));
  status_->logIs(7, KronlogReader::logEntryFactory("held", "held", 98.0, "held at 7"));
  addEntry("agent", "group", 2.0, "b");
  addEntry("agent", "group", 1.0, "a");
  read();
  addEntry("agent", "group", 0.5, "earliest");
  read();
  EXPECT_EQ(statusMessages(),
            (std::vector<std::string>{"held", "held at 7", "a", "b", "earliest", "a", "b"}));
  EXPECT_EQ(statusIndices(), (std::vector<unsigned int>{0, 7, 8, 9, 10, 11, 12}));
}

// ---- What a directory holds besides writer directories.

TEST_F(ReadTest, OnlyWriterDirectoriesDirectlyInAConfiguredDirectoryAreRead) {
  dir_->entityIs(Qel::dirFactory("agent0"));  // a plain directory among agents
  addEntry("agent1", "group", 1.0, "from agent1");
  Qel::Dir::Ptr nested = Qel::dirFactory("nested");
  dir_->entityIs(nested);
  ::addEntry(nested, "deep", "group", 1.0, "deep");
  config_->dirIs(Qel::dirFactory("empty"));
  agentIn(dir_, "no writers");
  writerIn(dir_, "agent2", "empty writer");
  read();
  EXPECT_EQ(statusMessages(), std::vector<std::string>{"from agent1"});
}

// ---- Malformed patterns fail at the first comparison, and only then.

TEST_F(ReadTest, BadPatternThrowsCreatesNoReaderAndLeavesTheStatusUntouched) {
  status_->logEnq(KronlogReader::logEntryFactory("held", "held", 1.0, "held"));
  addEntry("agent", "group", 1.0, "m");
  config_->agentPatternIs("(");
  EXPECT_THROW(read(), std::regex_error);
  EXPECT_EQ(Qel::liveObjects("KronlogReader::Reader"), 0u);
  EXPECT_EQ(statusMessages(), std::vector<std::string>{"held"});
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(0, 1));
}

// A bad pattern fails only when there is a name to compare with it.
TEST_F(ReadTest, BadPatternsSucceedWithNothingToCompare) {
  agentIn(dir_, "agent");  // matched, but without writers
  writerIn(dir_, "excluded", "group");
  config_->agentPatternIs("agent");
  config_->messageGroupPatternIs("(");
  Qel::Dir::Ptr plain = Qel::dirFactory("plain");
  plain->entityIs(Qel::dirFactory("not an agent"));
  Config::Ptr noAgents = KronlogReader::configFactory();
  noAgents->agentPatternIs("(");
  noAgents->dirIs(plain);
  EXPECT_NO_THROW(read());
  EXPECT_NO_THROW(KronlogReader::readerFactory(noAgents, status_));
  EXPECT_EQ(status_->logs(), 0u);
}

// ---- Trace sites.

using KronlogTesting::CapturingSink;
using Traced = KronlogTesting::Seen;

class ReadTraceTest : public ReadTest {
 protected:
  // Enables exactly these levels for the read that follows.
  void readTracing(std::uint32_t mask) {
    Qel::traceLevelsIs("Kronlog", mask);
    read();
    Qel::traceLevelsIs("Kronlog", 0);
  }
  static Traced entry(const std::string& text) {
    return {1, "KronlogReader", 90, "handleWriter", text};
  }

  CapturingSink sink_;
};

TEST_F(ReadTraceTest, LevelTwoTracesTheWindowOncePerSelectedWriterInStreamFormat) {
  addEntry("agent", "one", 1.0, "m");
  addEntry("agent", "two", 1.0, "m");
  addEntry("agent", "skipped", 1.0, "m");
  config_->messageGroupPatternIs("one|two");
  config_->minTimestampIs(1763805600.125);
  config_->maxTimestampIs(-0.25);
  readTracing(1u << 2);
  const Traced window{2, "KronlogReader", 85, "handleWriter",
                      "handleWriter config->minTimestamp: 1.76381e+09 config->maxTimestamp: -0.25"};
  EXPECT_EQ(sink_.records, (std::vector<Traced>{window, window}));
}

// Each entry once, in log order, even when the log steps back and its runs
// are merged separately.
TEST_F(ReadTraceTest, LevelOneListsEveryEntryExaminedIncludingRejectedOnes) {
  addEntry("bgp", "peer", 5.0, "inside");
  addEntry("bgp", "peer", -1.0, "too early");
  addEntry("bgp", "peer", 3.0, "earlier");
  addEntry("bgp", "peer", 100.0, "too late");
  addEntry("bgp", "peer", kNaN, "no time");
  config_->maxTimestampIs(10.0);
  readTracing(1u << 1);
  const std::string head = "handleWriter agentName: bgp messageGroup: peer timestamp: ";
  EXPECT_EQ(sink_.records,
            (std::vector<Traced>{
                entry(head + "5 message: inside"), entry(head + "-1 message: too early"),
                entry(head + "3 message: earlier"), entry(head + "100 message: too late"),
                entry(head + "nan message: no time")}));
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"earlier", "inside"}));
}

// Names and messages are written raw, NULs and all.
TEST_F(ReadTraceTest, AllLevelsTraceInReadOrderWithRawNamesAndMessages) {
  addEntry(std::string("a\0b", 3), "g'1", 1.0, std::string("x\ny\0z", 5));
  readTracing(0x7);
  EXPECT_EQ(
      sink_.records,
      (std::vector<Traced>{
          {0, "KronlogReader", 29, "doRead", "void KronlogReader::Reader::doRead()"},
          {2, "KronlogReader", 85, "handleWriter",
           "handleWriter config->minTimestamp: 0 config->maxTimestamp: inf"},
          entry(std::string("handleWriter agentName: a\0b messageGroup: g'1 timestamp: 1 message: "
                            "x\ny\0z",
                            73))}));
}

}  // namespace
