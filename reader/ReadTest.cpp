// Tests of the read: which writer directories and writers a pattern selects,
// the time window, the merge order, what a read leaves in a status it
// shares, failures of malformed patterns, the trace sites, and a comparison
// with a plain read (patterns compiled per writer, std::multimap merge) over
// generated directories.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
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

Row rowOf(const KronlogReader::LogEntry& e) {
  return Row{e.agentName().stdString(), e.messageGroup().stdString(), e.timestamp(),
             e.message().stdString()};
}

std::vector<Row> rowsOf(const Status& status) {
  std::vector<Row> rows;
  for (Status::LogIteratorConst it = status.logIterConst(); it; ++it) {
    rows.push_back(rowOf(*it->value()));
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

// The (agent, group) pairs of `config` in the order a read visits them:
// directory, then entity, then writer, each in its map's own order.
std::vector<std::pair<std::string, std::string>> visitOrder(const Config& config) {
  std::vector<std::pair<std::string, std::string>> order;
  for (const Qel::Dir& d : config.dirMap()) {
    for (const Qel::Entity& e : d.entityMap()) {
      auto* agent = dynamic_cast<const WriterDir*>(&e);
      if (!agent) continue;
      for (const KronlogWriter::Writer& w : agent->writerMap()) {
        order.emplace_back(agent->name().stdString(), w.name().stdString());
      }
    }
  }
  return order;
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

struct PatternCase {
  const char* pattern;
  const char* name;
  bool selected;
};

std::ostream& operator<<(std::ostream& os, const PatternCase& c) {
  return os << '"' << c.pattern << "\" on \"" << c.name << '"';
}

const PatternCase kPatternCases[] = {
    {"agent", "agent", true},
    {"agent", "agent1", false},
    {"agent", "xagent", false},
    {"agent", "Agent", false},
    {"bgp|ospf", "ospf", true},
    {"bgp|ospf", "bgpospf", false},
    {"^agent$", "agent", true},
    {"agent[0-9]+", "agent12", true},
    {"", "", true},
    {"", "a", false},
    {".+", "", false},
};

class PatternMatchTest : public ReadTest, public ::testing::WithParamInterface<PatternCase> {};

// The writer is named like its agent and the other pattern is left at ".*",
// so the entry is read exactly when the pattern under test selects the name.
TEST_P(PatternMatchTest, AgentAndGroupPatternsSelectWholeNamesOnly) {
  addEntry(GetParam().name, GetParam().name, 1.0, "m");
  for (bool agent : {true, false}) {
    Status::Ptr status = KronlogReader::statusFactory();
    Config::Ptr config = KronlogReader::configFactory();
    config->dirIs(dir_);
    if (agent) config->agentPatternIs(GetParam().pattern);
    if (!agent) config->messageGroupPatternIs(GetParam().pattern);
    KronlogReader::readerFactory(config, status);
    EXPECT_EQ(status->logs(), GetParam().selected ? 1u : 0u) << (agent ? "agent" : "group");
  }
}

INSTANTIATE_TEST_SUITE_P(Table, PatternMatchTest, ::testing::ValuesIn(kPatternCases));

TEST_F(ReadTest, BothPatternsMustMatch) {
  addEntry("bgp", "peer", 1.0, "bgp peer");
  addEntry("bgp", "route", 2.0, "bgp route");
  addEntry("ospf", "peer", 3.0, "ospf peer");
  config_->agentPatternIs("bgp");
  config_->messageGroupPatternIs("peer");
  read();
  EXPECT_EQ(statusMessages(), std::vector<std::string>{"bgp peer"});
}

// ---- ".*" and its look-alikes select exactly what std::regex_match does,
// also for names holding line terminators, NULs and multi-byte characters.

const std::vector<std::string> kAwkwardNames = {
    "",
    "plain",
    "a\nb",
    "trailing\r",
    std::string("nul\0inside", 10),
    "\xc3\xa4gent",  // a-umlaut
    "\xe2\x80\xa8",  // U+2028 LINE SEPARATOR, as UTF-8 bytes
    "\xc2\x85",      // U+0085 NEXT LINE, as UTF-8 bytes
    "\xff\xfe",
};

std::vector<std::string> regexSelected(const std::string& pattern,
                                       const std::vector<std::string>& names) {
  const std::regex re(pattern);
  std::vector<std::string> out;
  for (const std::string& n : names) {
    if (std::regex_match(n, re)) out.push_back(n);
  }
  std::sort(out.begin(), out.end());
  return out;
}

class DotStarTest : public ReadTest, public ::testing::WithParamInterface<const char*> {};

// Each writer is named like its agent, so an entry is kept exactly when its
// name passes both patterns.
TEST_P(DotStarTest, BothPatternsAgreeWithRegexMatch) {
  for (const std::string& name : kAwkwardNames) addEntry(name, name, 1.0, name);
  config_->agentPatternIs(GetParam());
  config_->messageGroupPatternIs(GetParam());
  read();
  std::vector<std::string> kept = statusMessages();
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, regexSelected(GetParam(), kAwkwardNames));
}

INSTANTIATE_TEST_SUITE_P(Patterns, DotStarTest,
                         ::testing::Values(".*", "(.*)", ".+", ".*\\n?", "[^\\n]*", "[\\s\\S]*"));

// ---- The time window: both ends inclusive, NaN never inside.

struct WindowCase {
  double min;
  double max;
  double t;
  bool kept;
};

std::ostream& operator<<(std::ostream& os, const WindowCase& c) {
  return os << c.t << " in [" << c.min << ", " << c.max << "]";
}

const WindowCase kWindowCases[] = {
    {1.0, 2.0, 1.0, true},
    {1.0, 2.0, 2.0, true},
    {1.0, 2.0, std::nextafter(1.0, 0.0), false},
    {1.0, 2.0, std::nextafter(2.0, 3.0), false},
    {2.0, 2.0, 2.0, true},
    {3.0, 1.0, 2.0, false},  // an inverted window holds nothing
    {0.0, kInf, -1e-300, false},
    {-kInf, kInf, kNaN, false},
    {0.0, kNaN, 1.0, false},
};

class TimeWindowTest : public ReadTest, public ::testing::WithParamInterface<WindowCase> {};

TEST_P(TimeWindowTest, KeepsEntryExactlyWhenInsideWindow) {
  addEntry("agent", "group", GetParam().t, "m");
  config_->minTimestampIs(GetParam().min);
  config_->maxTimestampIs(GetParam().max);
  read();
  EXPECT_EQ(status_->logs(), GetParam().kept ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, TimeWindowTest, ::testing::ValuesIn(kWindowCases));

TEST_F(ReadTest, DefaultWindowDropsNegativeAndNaNTimestampsOnly) {
  for (double t : {-5.0, 3.0, kNaN, 0.0, -kInf, kInf, -0.5, -0.0})
    addEntry("agent", "group", t, "m");
  read();
  std::vector<double> kept;
  for (const Row& r : statusRows()) kept.push_back(std::get<2>(r));
  EXPECT_EQ(kept, (std::vector<double>{0.0, -0.0, 3.0, kInf}));
}

// ---- Merge order.

class MergeOrderTest : public ReadTest {
 protected:
  // Expected rows when every writer holds one entry at the same time: in
  // visiting order, whatever that order is.
  std::vector<Row> inVisitOrder(double t) const {
    std::vector<Row> rows;
    for (const auto& [agent, group] : visitOrder(*config_)) {
      rows.emplace_back(agent, group, t, agent + "/" + group);
    }
    return rows;
  }
};

TEST_F(MergeOrderTest, EntriesComeOutInTimestampOrderAcrossWriters) {
  addEntry("bgp", "peer", 3.0, "c");
  addEntry("bgp", "peer", 7.0, "g");
  addEntry("ospf", "route", 1.0, "a");
  addEntry("ospf", "route", 5.0, "e");
  addEntry("isis", "adj", 2.0, "b");
  addEntry("isis", "adj", 6.0, "f");
  read();
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"a", "b", "c", "e", "f", "g"}));
}

TEST_F(MergeOrderTest, EqualTimestampsOfManyWritersKeepVisitingOrder) {
  Qel::Dir::Ptr second = Qel::dirFactory("more agents");
  config_->dirIs(second);
  for (const char* agent : {"zeta", "alpha", "mid"}) {
    for (const char* group : {"w3", "w1", "w2"}) {
      addEntry(agent, group, 5.0, std::string(agent) + "/" + group);
      ::addEntry(second, std::string(agent) + "2", group, 5.0, std::string(agent) + "2/" + group);
    }
  }
  read();
  EXPECT_EQ(statusRows(), inVisitOrder(5.0));
}

// A log filled out of time order (a restored or streamed one) still merges
// stably: equal timestamps keep their log order across runs.
TEST_F(MergeOrderTest, EqualTimestampsAcrossOutOfOrderRunsKeepLogOrder) {
  for (auto [t, m] : {std::pair(2.0, "a"), {1.0, "b"}, {2.0, "c"}, {1.0, "d"}, {0.5, "e"}}) {
    addEntry("agent", "group", t, m);
  }
  read();
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"e", "b", "d", "a", "c"}));
}

// ---- The status: appended to, never cleared or reordered.

class AppendToStatusTest : public ReadTest {};

TEST_F(AppendToStatusTest, SecondReaderAppendsSeparatelyOrderedRun) {
  addEntry("agent", "group", 2.0, "first read, late");
  addEntry("agent", "group", 1.0, "first read, early");
  read();
  addEntry("agent", "group", 0.5, "second read, earliest");
  read();
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"first read, early", "first read, late",
                                                        "second read, earliest",
                                                        "first read, early", "first read, late"}));
  EXPECT_EQ(statusIndices(), (std::vector<unsigned int>{0, 1, 2, 3, 4}));
}

TEST_F(AppendToStatusTest, EntriesFollowWhatTheStatusHeld) {
  status_->logEnq(KronlogReader::logEntryFactory("held", "held", 99.0, "held"));
  status_->logIs(7, KronlogReader::logEntryFactory("held", "held", 98.0, "held at 7"));
  addEntry("agent", "group", 2.0, "b");
  addEntry("agent", "group", 1.0, "a");
  read();
  EXPECT_EQ(statusMessages(), (std::vector<std::string>{"held", "held at 7", "a", "b"}));
  EXPECT_EQ(statusIndices(), (std::vector<unsigned int>{0, 7, 8, 9}));
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

class MalformedPatternTest : public ReadTest {
 protected:
  void SetUp() override {
    status_->logEnq(KronlogReader::logEntryFactory("held", "held", 1.0, "held"));
    before_ = statusRows();
  }
  std::vector<Row> before_;
};

TEST_F(MalformedPatternTest, BadAgentPatternThrowsAndLeavesStatusUntouched) {
  addEntry("agent", "group", 1.0, "m");
  config_->agentPatternIs("(");
  EXPECT_THROW(read(), std::regex_error);
  EXPECT_EQ(statusRows(), before_);
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(0, 1));
}

TEST_F(MalformedPatternTest, BadGroupPatternThrowsAfterEarlierWritersWereCollected) {
  addEntry("good", "group", 1.0, "m");
  addEntry("bad", "group", 2.0, "m");
  config_->messageGroupPatternIs("a{2,1}");
  EXPECT_THROW(read(), std::regex_error);
  EXPECT_EQ(statusRows(), before_);
}

// A bad pattern fails only when there is a name to compare with it.
TEST_F(MalformedPatternTest, BadPatternsSucceedWithNothingToCompare) {
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
  EXPECT_EQ(statusRows(), before_);
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

TEST_F(ReadTraceTest, LevelOneListsEveryEntryExaminedIncludingRejectedOnes) {
  addEntry("bgp", "peer", -1.0, "too early");
  addEntry("bgp", "peer", 5.0, "inside");
  addEntry("bgp", "peer", 100.0, "too late");
  addEntry("bgp", "peer", kNaN, "no time");
  config_->maxTimestampIs(10.0);
  readTracing(1u << 1);
  EXPECT_EQ(
      sink_.records,
      (std::vector<Traced>{
          entry("handleWriter agentName: bgp messageGroup: peer timestamp: -1 message: too early"),
          entry("handleWriter agentName: bgp messageGroup: peer timestamp: 5 message: inside"),
          entry("handleWriter agentName: bgp messageGroup: peer timestamp: 100 message: too late"),
          entry(
              "handleWriter agentName: bgp messageGroup: peer timestamp: nan message: no time")}));
  EXPECT_EQ(statusMessages(), std::vector<std::string>{"inside"});
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

// ---- Against a plain read over generated directories.

// The read done the plain way: both patterns compiled afresh per writer
// directory and per writer, one std::multimap for the merge. Returns what the
// status should hold afterwards, or nothing when the read throws
// std::regex_error.
std::optional<std::vector<Row>> plainRead(const Config& config, std::vector<Row> rows) {
  std::multimap<double, Row> merged;
  try {
    for (const Qel::Dir& d : config.dirMap()) {
      for (const Qel::Entity& e : d.entityMap()) {
        auto* agent = dynamic_cast<const WriterDir*>(&e);
        if (!agent) continue;
        const std::regex agentRe(config.agentPattern().begin(), config.agentPattern().end());
        if (!std::regex_match(agent->name().begin(), agent->name().end(), agentRe)) continue;
        for (const KronlogWriter::Writer& writer : agent->writerMap()) {
          const std::regex groupRe(config.messageGroupPattern().begin(),
                                   config.messageGroupPattern().end());
          if (!std::regex_match(writer.name().begin(), writer.name().end(), groupRe)) continue;
          for (const KronlogWriter::Writer::QelLog& node : writer.logQueue()) {
            const double t = node.entry().timestamp();
            if (!(config.minTimestamp() <= t && t <= config.maxTimestamp())) continue;
            merged.insert({t, Row{agent->name().stdString(), writer.name().stdString(), t,
                                  node.entry().message().stdString()}});
          }
        }
      }
    }
  } catch (const std::regex_error&) {
    return std::nullopt;
  }
  for (const auto& [t, row] : merged) rows.push_back(row);
  return rows;
}

// Directories, agents, writers and logs drawn from small pools, so that
// names repeat, timestamps tie, and logs come in and out of time order.
class Generator {
 public:
  explicit Generator(std::uint32_t seed) : rng_(seed) {}

  std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(rng_() % n); }
  template <class T, std::size_t N>
  const T& pick(const T (&pool)[N]) {
    return pool[below(N)];
  }

  std::vector<Qel::Dir::Ptr> directories() {
    std::vector<Qel::Dir::Ptr> dirs;
    const std::uint32_t n = 1 + below(3);
    for (std::uint32_t d = 0; d < n; ++d) {
      Qel::Dir::Ptr dir = Qel::dirFactory(Qel::Name("dir" + std::to_string(d)));
      for (std::uint32_t k = below(7); k > 0; --k) fillEntity(dir);
      dirs.push_back(dir);
    }
    return dirs;
  }

  Config::Ptr config(const std::vector<Qel::Dir::Ptr>& dirs) {
    static const char* const kAgentPatterns[] = {".*",   ".*",  "agent[0-9]", "bgp|ospf", "",
                                                 "(.*)", "A.*", "(",          "[^\\n]*"};
    static const char* const kGroupPatterns[] = {".*", ".*", "peer|route", "P.*",
                                                 "",   "[",  ".+",         ".*r"};
    static const double kWindows[][2] = {{0, kInf}, {0, kInf}, {-kInf, kInf}, {1, 3},
                                         {2, 2},    {3, 1},    {kNaN, kInf}};
    Config::Ptr c = KronlogReader::configFactory();
    for (const Qel::Dir::Ptr& d : dirs) {
      if (below(4) != 0) c->dirIs(d);
    }
    c->agentPatternIs(pick(kAgentPatterns));
    c->messageGroupPatternIs(pick(kGroupPatterns));
    const auto& window = pick(kWindows);
    c->minTimestampIs(window[0]);
    c->maxTimestampIs(window[1]);
    return c;
  }

 private:
  void fillEntity(const Qel::Dir::Ptr& dir) {
    static const std::string kAgents[] = {"agent0", "agent1", "agent10",
                                          "Agent1", "bgp",    "a\nb",
                                          "",       "x\ry",   std::string("nul\0x", 5)};
    const std::string& name = pick(kAgents);
    if (dir->entity(Qel::Name(name))) return;
    if (below(6) == 0) {
      dir->entityIs(Qel::dirFactory(Qel::Name(name)));  // not a writer directory
      return;
    }
    WriterDir::Ptr agent = agentIn(dir, name);
    for (std::uint32_t w = below(4); w > 0; --w) fillWriter(*agent);
  }

  void fillWriter(WriterDir& agent) {
    static const std::string kGroups[] = {"peer", "route", "Peer", "g\n", "", "p\r"};
    static const double kTimes[] = {-1, -0.0, 0, 1, 1, 2, 2, 2, 3, 5, kInf, -kInf, kNaN};
    const KronlogWriter::Writer::Ptr writer =
        agent.writerIs(Qel::Name(pick(kGroups)), KronlogWriter::Config());
    std::vector<double> times(below(12));
    for (double& t : times) t = pick(kTimes);
    if (below(2) == 0) {  // in time order, as a live writer's log is; else as drawn
      times.erase(
          std::remove_if(times.begin(), times.end(), [](double t) { return std::isnan(t); }),
          times.end());
      std::stable_sort(times.begin(), times.end());
    }
    for (double t : times) {
      writer->logEnq(KronlogWriter::LogEntry(t, Qel::String("m" + std::to_string(serial_++))));
    }
  }

  std::mt19937 rng_;
  unsigned serial_ = 0;
};

class PlainReadEquivalenceTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(PlainReadEquivalenceTest, StatusMatchesPlainReadForGeneratedDirectories) {
  Generator gen(GetParam());
  const std::vector<Qel::Dir::Ptr> dirs = gen.directories();
  for (int round = 0; round < 10; ++round) {
    Config::Ptr config = gen.config(dirs);
    Status::Ptr status = KronlogReader::statusFactory();
    for (std::uint32_t k = gen.below(3); k > 0; --k) {
      status->logEnq(KronlogReader::logEntryFactory("held", "held", 1.0, "held"));
    }
    const std::vector<Row> before = rowsOf(*status);
    const std::optional<std::vector<Row>> expected = plainRead(*config, before);
    SCOPED_TRACE("round " + std::to_string(round) + ", agent pattern \"" +
                 config->agentPattern().stdString() + "\", group pattern \"" +
                 config->messageGroupPattern().stdString() + "\"");
    if (expected) {
      ASSERT_NO_THROW(KronlogReader::readerFactory(config, status));
      ASSERT_EQ(rowsOf(*status), *expected);
    } else {
      ASSERT_THROW(KronlogReader::readerFactory(config, status), std::regex_error);
      ASSERT_EQ(rowsOf(*status), before);
    }
  }
}

TEST_P(PlainReadEquivalenceTest, LongInterleavedLogsMatchPlainRead) {
  // Many writers with long logs of few distinct timestamps: many runs and
  // many ties for the merge.
  std::mt19937 rng(GetParam());
  Qel::Dir::Ptr dir = Qel::dirFactory("agents");
  for (int a = 0; a < 5; ++a) {
    for (int w = 0; w < 4; ++w) {
      const std::string agent = "agent" + std::to_string(a);
      const std::string group = "group" + std::to_string(w);
      const bool ordered = rng() % 4 != 0;
      double t = 0;
      for (int k = 0; k < 200; ++k) {
        t = ordered ? t + static_cast<double>(rng() % 2) : static_cast<double>(rng() % 50);
        addEntry(dir, agent, group, t, agent + "/" + group + "#" + std::to_string(k));
      }
    }
  }
  Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(dir);
  config->minTimestampIs(static_cast<double>(rng() % 10));
  config->maxTimestampIs(40 + static_cast<double>(rng() % 100));
  Status::Ptr status = KronlogReader::statusFactory();
  const std::optional<std::vector<Row>> expected = plainRead(*config, {});
  ASSERT_TRUE(expected);
  KronlogReader::readerFactory(config, status);
  EXPECT_EQ(rowsOf(*status), *expected);
}

INSTANTIATE_TEST_SUITE_P(Seeds, PlainReadEquivalenceTest, ::testing::Range<std::uint32_t>(1, 13));

}  // namespace
