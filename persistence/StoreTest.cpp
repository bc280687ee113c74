// Tests of the JSON store driver: the bytes and traces of a save, what a
// restore accepts, refuses and dies on, reflection, and that a save replaces
// the store whole or not at all (faults injected mid-save: SaveFaultTest).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

using KronlogTesting::kEmptyStore;
using KronlogTesting::kStoreHeader;
using KronlogTesting::storeEntry;
using KronlogTesting::storeOf;

constexpr char kDefaultPath[] = "/mnt/flash/kronlog-persistent-store";
constexpr char kJsonDoStore[] = "virtual void KronlogStore::JsonStore::doStore()";
constexpr char kJsonDoRestore[] = "virtual void KronlogStore::JsonStore::doRestore()";

class StoreTest : public PersistenceTest {
 protected:
  static Seen trace(unsigned level, int line, const char* function, const std::string& text) {
    return {level, "KronlogStore", line, function, text};
  }
  static Seen saving(unsigned level, int line, const std::string& text = "") {
    return trace(level, line, "doStore", kJsonDoStore + text);
  }
  static Seen restoring(unsigned level, int line, const std::string& text = "") {
    return trace(level, line, "doRestore", kJsonDoRestore + text);
  }
  // The path resolution that opens every store operation.
  static Seen pathTrace(const std::string& path) {
    return trace(
        1, 33, "getStoreFilePath",
        "const char* KronlogStore::getStoreFilePath(Qel::String) KRONLOG storeFilePath=" + path);
  }
  // The traces of a save that opened `path` and wrote `count` entries.
  static std::vector<Seen> saved(const std::string& path, unsigned count) {
    return {saving(0, 51), pathTrace(path), saving(1, 62, " FORMAT: JSON"),
            saving(1, 63, " VERSION: 1"),
            saving(1, 64, " Event to store: " + std::to_string(count))};
  }
  static std::vector<Seen> notOpenedToStore(const std::string& path) {
    return {saving(0, 51), pathTrace(path), saving(0, 57, " Could not open " + path)};
  }
};

// ---- The bytes and traces of a save

// Timestamps are the shortest decimals that round-trip, always with a fraction.
TEST_F(StoreTest, EachEntryIsOneObjectWithItsFourMembersInOrder) {
  const std::string nul("ab\0cd", 5), escapes = "q\"b\\n\nt\tc\001d\037e\177";
  const std::string escaped = "q\\\"b\\\\n\\nt\\tc\\u0001d\\u001Fe\177";
  const std::string utf8 = "Gr\303\274\303\237e \360\237\230\200";
  const std::pair<std::vector<Row>, std::string> cases[] = {
      {{}, ""},
      {{{"Bgp", "peer", 1700000000.25, "link down"}},
       storeEntry("1700000000.25", "Bgp", "peer", "link down")},
      {{{"B", "y", 2, "b"}, {"A", "x", 1, "a"}},  // oldest first
       storeEntry("2.0", "B", "y", "b") + "," + storeEntry("1.0", "A", "x", "a")},
      {{{escapes, escapes, 1, escapes}}, storeEntry("1.0", escaped, escaped, escaped)},
      {{{nul, nul, 1, nul}}, storeEntry("1.0", "ab", "ab", "ab")},  // cut at the first NUL
      {{{"a", "g", 1, utf8}}, storeEntry("1.0", "a", "g", utf8)},
      {{{"a", "g", 1700000000.0, "m"}}, storeEntry("1700000000.0", "a", "g", "m")},
      {{{"a", "g", 0.0, "m"}, {"a", "g", -0.0, "m"}},
       storeEntry("0.0", "a", "g", "m") + "," + storeEntry("-0.0", "a", "g", "m")},
      {{{"a", "g", 0.1 + 0.2, "m"}}, storeEntry("0.30000000000000007", "a", "g", "m")},
      {{{"a", "g", 5e-324, "m"}, {"a", "g", -1.5, "m"}},
       storeEntry("5e-324", "a", "g", "m") + "," + storeEntry("-1.5", "a", "g", "m")},
      {{{"a", "g", DBL_MAX, "m"}}, storeEntry("1.7976931348623157e308", "a", "g", "m")},
  };
  for (const auto& [rows, array] : cases) {
    SCOPED_TRACE(array);
    writeStoreFile(std::string(10000, 'x'));  // a save replaces a longer file whole
    store(rows);
    EXPECT_EQ(readStoreFile(), storeOf(array));
  }
}

TEST_F(StoreTest, NonFiniteTimestampsAreLeftOutAndTraced) {
  const double inf = std::numeric_limits<double>::infinity();
  store({{"a", "g", 1, "kept"}, {"a", "nan", std::nan(""), "x"}, {"c", "-inf", -inf, "x"}});
  EXPECT_EQ(readStoreFile(), storeOf(storeEntry("1.0", "a", "g", "kept")));
  std::vector<Seen> expected = saved(storePath(), 3);
  for (const char* who : {" agentName: a messageGroup: nan", " agentName: c messageGroup: -inf"}) {
    expected.push_back(
        saving(0, 65, std::string(" Skipping an entry with a non-finite timestamp,") + who));
  }
  EXPECT_EQ(traces(), expected);
}

// ---- Where the file is

TEST_F(StoreTest, UnsetVariableMeansTheDefaultPath) {
  ::unsetenv(kPathVariable);
  traceLevels(1u << 1);  // only the path: the default file itself is not this test's to touch
  KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
  EXPECT_EQ(traces(), std::vector<Seen>{pathTrace(kDefaultPath)});
}

TEST_F(StoreTest, EmptyVariableIsAnEmptyPathThatCannotBeOpened) {
  storePathIs("");
  store({{"a", "g", 1, "m"}});
  EXPECT_EQ(traces(), notOpenedToStore(""));
  EXPECT_TRUE(directoryEntries(dir()).empty());
  clearTraces();
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(traces(), (std::vector<Seen>{restoring(0, 96), pathTrace(""),
                                         restoring(0, 102, " Could not open ")}));
}

// ---- Store, then restore

TEST_F(StoreTest, EntriesComeBackInOrderBitIdenticalAndUnchanged) {
  std::vector<Row> rows = {{"q\"b\\", "n\nt\t\001\037", 1, "Gr\303\274\303\237e"},
                           {"", "", 2, std::string(5000, 'z')}};
  for (double t : {0.1 + 0.2, 1700000000.123456789, 5e-324, DBL_MAX, -0.0, 0.0, 1e-7,
                   std::nextafter(1700000000.0, 2e9), 2251799813685248.25, -123456.789e-30, DBL_MIN,
                   9007199254740993.0}) {
    rows.push_back({"agent", "group", t, "at " + std::to_string(rows.size())});
  }
  store(rows);
  traceLevels(0);
  EXPECT_EQ(restore(), rows);
}

TEST_F(StoreTest, EachRestoreAppendsBehindWhatTheStatusHolds) {
  const Row held = {"x", "y", 1, "held"}, a = {"a", "g", 3, "m"}, b = {"b", "h", 2, "n"};
  store({a, b});
  KronlogReader::Status::Ptr status = statusOf({held});
  KronlogStore::jsonStoreFactory(status)->doRestore();
  KronlogStore::jsonStoreFactory(status)->doRestore();
  EXPECT_EQ(statusRows(*status), (std::vector<Row>{held, a, b, a, b}));
}

// ---- What a restore accepts: the rows and the level-0 traces

const Row kA = {"A", "g", 1.5, "m"}, kRow1 = {"a", "g", 1, "m"};

TEST_F(StoreTest, ARestoreAddsTheEntriesItFinds) {
  const std::string one = "{\"Kronlog\":[" + storeEntry("1.5", "A", "g", "m") + "]}";
  const std::string four = "{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\",";
  // The store, the rows it restores, and the level-0 trace besides the opening one.
  const std::tuple<std::string, std::vector<Row>, std::string> cases[] = {
      {"FORMAT: JSON\nVERSION: 2\n" + one + "\n",
       {kA},
       " store version is different, reader: 1 store file: 2"},
      {"12345678JSON\nabcdefghi1\n" + one, {kA}, ""},  // prefixes are removed by length only
      {storeOf("\n{\"timestamp\":\n1.5,\n\"agentName\":\"A\",\n\"messageGroup\":\"g\","
               "\"message\":\"li\nnk\"}\n"),
       {{"A", "g", 1.5, "link"}},
       ""},
      {storeOf("{\"message\":\"m\",\"messageGroup\":\"g\",\"timestamp\":1.5,\"agentName\":\"A\"}"),
       {kA},
       ""},
      {kStoreHeader + ("{\"before\":{\"Kronlog\":7},\"Kronlog\":[" +
                       storeEntry("1.5", "A", "g", "m") + "],\"after\":[1,2]}\n"),
       {kA},
       ""},
      {storeOf(four + "\"message\":\"m\",\"extra\":0}"), {kRow1, kRow1}, ""},  // a fifth member
      {storeOf(four.substr(0, four.size() - 1) + "}," +
               "{\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\",\"x\":0}," +
               "{\"message\":\"m\"}," + storeEntry("2", "b", "h", "n")),
       {{"b", "h", 2, "n"}},
       ""},
      {storeOf(storeEntry("1", "a\\u0000b", "g", "\\u0000abc")), {{"a", "g", 1, ""}}, ""},
      {storeOf(storeEntry("-5", "a", "g", "m") + "," +
               storeEntry("18446744073709551615", "a", "g", "m")),
       {{"a", "g", -5.0, "m"}, {"a", "g", 18446744073709551615.0, "m"}},
       ""},
      {kEmptyStore, {}, ""},
  };
  for (const auto& [content, rows, warning] : cases) {
    SCOPED_TRACE(content);
    writeStoreFile(content);
    clearTraces();
    EXPECT_EQ(restore(), rows);
    std::vector<Seen> expected = {restoring(0, 96)}, level0;
    if (!warning.empty()) expected.push_back(restoring(0, 120, warning));
    for (const Seen& s : traces()) {
      if (s.level == 0) level0.push_back(s);
    }
    EXPECT_EQ(level0, expected);
  }
}

// Timestamps are traced in six significant digits.
TEST_F(StoreTest, OneElementIsTracedFieldByFieldAndAdded) {
  writeStoreFile(storeOf(storeEntry("1700000000.25", "A", "g", "m")));
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1700000000.25, "m"}}));
  std::vector<Seen> expected = {restoring(0, 96), pathTrace(storePath())};
  for (const auto& [line, text] : std::vector<std::pair<int, const char*>>{
           {141, " Reading Kronlog from store file."},
           {166, " Reading timestamp"},
           {168, " timestamp: 1.7e+09"},
           {156, " Reading agentName"},
           {158, " agentName: A"},
           {161, " Reading messageGroup"},
           {163, " messageGroup: g"},
           {171, " Reading message"},
           {174, " message: m"},
           {187, " Added entry agentName: A messageGroup: g timestamp: 1.7e+09 message: m"}}) {
    expected.push_back(restoring(2, line, text));
  }
  EXPECT_EQ(traces(), expected);
}

// ---- Refusals: each traced exactly, and the status left as it was

TEST_F(StoreTest, ARefusedStoreIsTracedAndLeavesTheStatusAsItWas) {
  const std::string formatError = " store format error, expected: JSON actual: ";
  const std::string noContent = " No json content found in the store file.";
  // A null content is a missing file.
  const std::tuple<const char*, int, unsigned, std::string> cases[] = {
      {nullptr, 102, 0, " Could not open " + storePath()},
      {"", 115, 0, formatError},
      {"JSON\nVERSION: 1\n{\"Kronlog\":[]}\n", 115, 0, formatError},
      {"FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n", 115, 0, formatError + "JSON\r"},
      {"FORMAT: XML\nVERSION: 1\n<Kronlog/>\n", 115, 0, formatError + "XML"},
      {"FORMAT: JSON\nVERSION: 1\n", 132, 0, noContent},
      {"FORMAT: JSON\nVERSION: 1\n\n\n", 132, 0, noContent},
      {"FORMAT: JSON\nVERSION: 1\n{\"kronlog\":[],\"Kronlogs\":[]}\n", 193, 2,
       " Could not find Kronlog in store."},
  };
  for (const auto& [content, line, level, text] : cases) {
    SCOPED_TRACE(content ? content : "(no file)");
    if (content) writeStoreFile(content);
    KronlogReader::Status::Ptr status = statusOf({kRow1});
    clearTraces();
    KronlogStore::jsonStoreFactory(status)->doRestore();
    EXPECT_EQ(statusRows(*status), std::vector<Row>{kRow1});
    EXPECT_EQ(traces(), (std::vector<Seen>{restoring(0, 96), pathTrace(storePath()),
                                           restoring(level, line, text)}));
  }
}

// ---- Fatal: JSON of the wrong shape ends the process in its assertion

class StoreDeathTest : public DeathTestBase {};

TEST_F(StoreDeathTest, EachWrongShapeEndsTheProcessInItsAssertion) {
  const auto element = [](const char* t, const char* agent, const char* group, const char* m) {
    return "{\"Kronlog\":[" + KronlogTesting::storeMembers(t, agent, group, m) + "]}";
  };
  const std::pair<std::string, const char*> cases[] = {
      {"[1]", "IsObject"},
      {"{", "IsObject"},
      {"{\"Kronlog\":[]} trailing", "IsObject"},
      {"{\"Kronlog\":{}}", "IsArray"},
      {"{\"Kronlog\":[1]}", "IsObject"},
      {element("1", "1", "\"g\"", "\"m\""), "IsString"},
      {element("1", "\"a\"", "null", "\"m\""), "IsString"},
      {element("1", "\"a\"", "\"g\"", "[]"), "IsString"},
      {element("\"1\"", "\"a\"", "\"g\"", "\"m\""), "IsNumber"},
  };
  for (const auto& [json, assertion] : cases) {
    SCOPED_TRACE(json);
    EXPECT_DEATH(
        {
          storeInMemoryIs(kStoreHeader + json + "\n");
          KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
        },
        std::string("Assertion `") + assertion + "\\(\\)' failed\\.");
  }
}

TEST_F(StoreDeathTest, StoringThroughTheAbstractDriverIsNotImplemented) {
  EXPECT_DEATH(KronlogStore::storeFactory(KronlogReader::statusFactory())->doStore(),
               "Assertion `false && \"not implemented!\"' failed\\.");
}

// ---- Reflection and the abstract driver

TEST_F(StoreTest, JsonStoreDerivesFromStoreAndHasItsOwnFormatConstants) {
  const Qel::TypeNode *json = Qel::typeNode("KronlogStore::JsonStore"),
                      *base = Qel::typeNode("KronlogStore::Store");
  ASSERT_TRUE(json && base);
  EXPECT_EQ(json->base(), base);
  EXPECT_EQ(json->constant("klStoreFile"), kDefaultPath);  // inherited
  EXPECT_THROW(base->constant("storeFormat"), Qel::RangeException);
}

TEST_F(StoreTest, OperationsReachTheJsonDriverButTheAbstractRestoreOnlyTraces) {
  const Qel::TypeNode* base = Qel::typeNode("KronlogStore::Store");
  base->operationDo(*KronlogStore::jsonStoreFactory(statusOf({kA})), "doStore");
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  clearTraces();
  base->operationDo(*KronlogStore::storeFactory(status), "doRestore");
  EXPECT_EQ(traces(), std::vector<Seen>{trace(0, 46, "doRestore",
                                              "virtual void KronlogStore::Store::doRestore()")});
  base->operationDo(*KronlogStore::jsonStoreFactory(status), "doRestore");
  EXPECT_EQ(statusRows(*status), std::vector<Row>{kA});
}

// ---- Crash safety: the store is replaced whole or not at all

const std::vector<Row> kNext = {{"new", "g", 2, "next"}, {"new", "g", 3, "more"}};

class StoreReplaceTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    store({{"old", "g", 1, "previous"}});
    previous_ = readStoreFile();
    clearTraces();
  }
  std::string previous_;
};

TEST_F(StoreReplaceTest, ATakenTemporaryNameKeepsThePreviousStore) {
  const std::string temporary = storePath() + "." + std::to_string(::getpid()) + ".tmp";
  ASSERT_EQ(::mkdir(temporary.c_str(), 0755), 0);
  store(kNext);
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(traces(), notOpenedToStore(storePath()));
  EXPECT_TRUE(fs::is_empty(temporary));
}

TEST_F(StoreReplaceTest, ASymbolicLinkIsWrittenThroughAndStaysALink) {
  const std::string link = pathIn("link"), target = pathIn("target");
  writeFile(target, previous_);
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  storePathIs(link);
  store(kNext);
  EXPECT_EQ(fs::read_symlink(link), target);
  storePathIs(storePath());
  store(kNext);
  EXPECT_EQ(readFile(target), readStoreFile()) << "the link's target holds the new store";
  EXPECT_EQ(directoryEntries(dir()), (std::vector<std::string>{"link", "store", "target"}));
}

TEST_F(StoreReplaceTest, ADeviceIsWrittenInPlaceAndAFailedWriteIsTraced) {
  storePathIs("/dev/full");
  store(kNext);
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
  EXPECT_EQ(traces().back(), saving(0, 70,
                                    " Could not write /dev/full: No space left on device; the "
                                    "previous store is kept"));
}

TEST_F(StoreReplaceTest, TheModeOfTheStoreIsKept) {
  const mode_t savedMask = ::umask(022);  // would narrow 0666 to 0644 if it applied
  for (mode_t mode : {0600, 0640, 0666, 0604}) {
    SCOPED_TRACE(mode);
    ::chmod(storePath().c_str(), mode);
    store(kNext);
    EXPECT_EQ(fs::status(storePath()).permissions(), static_cast<fs::perms>(mode));
  }
  ::umask(savedMask);
}

}  // namespace
}  // namespace KronlogTest
