// Tests of the JSON store driver: the exact bytes of the store file, where
// the file is, what a restore accepts and rejects, the exact round trip of
// timestamps, the fatal checks on malformed JSON, reflection, and that a
// save replaces the file atomically (also when the saving process is killed).
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <csignal>
#include <limits>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

constexpr char kDefaultPath[] = "/mnt/flash/kronlog-persistent-store";

std::string storing(const std::string& text) {
  return kJsonDoStore + text;
}
std::string restoring(const std::string& text) {
  return kJsonDoRestore + text;
}

// The traces of a save that opened its file and wrote `count` entries.
std::vector<Seen> savedTraces(const std::string& path, unsigned count) {
  return {storeTrace(0, 51, "doStore", kJsonDoStore), pathTrace(path),
          storeTrace(1, 62, "doStore", storing(" FORMAT: JSON")),
          storeTrace(1, 63, "doStore", storing(" VERSION: 1")),
          storeTrace(1, 64, "doStore", storing(" Event to store: ") + std::to_string(count))};
}

std::vector<Seen> couldNotOpen(int entryLine, int line, const char* function, const char* label,
                               const std::string& path) {
  return {storeTrace(0, entryLine, function, label), pathTrace(path),
          storeTrace(0, line, function, label + (" Could not open " + path))};
}
std::vector<Seen> couldNotOpenToStore(const std::string& path) {
  return couldNotOpen(51, 57, "doStore", kJsonDoStore, path);
}

using KronlogTesting::kEmptyStore;
using KronlogTesting::storeOf;
constexpr const char* kHeader = KronlogTesting::kStoreHeader;

std::string members(const std::string& timestamp, const std::string& agentName,
                    const std::string& messageGroup, const std::string& message) {
  return KronlogTesting::storeMembers(timestamp, agentName, messageGroup, message);
}
std::string entry(const std::string& timestamp, const std::string& agentName,
                  const std::string& messageGroup, const std::string& message) {
  return KronlogTesting::storeEntry(timestamp, agentName, messageGroup, message);
}

// ---- The bytes written

class StoreFileBytesTest : public PersistenceTest {};

TEST_F(StoreFileBytesTest, EmptyLogWritesTheHeaderAndAnEmptyArray) {
  store({});
  EXPECT_EQ(readStoreFile(), kEmptyStore);
  EXPECT_EQ(traces(), savedTraces(storePath(), 0));
}

TEST_F(StoreFileBytesTest, EachEntryIsOneObjectWithItsFourMembersInOrder) {
  const std::string nul("ab\0cd", 5), escapes = "q\"b\\n\nt\tc\001d\037e\177";
  const std::string escaped = "q\\\"b\\\\n\\nt\\tc\\u0001d\\u001Fe\177";
  const std::string utf8 = "Gr\303\274\303\237e \360\237\230\200";
  const std::pair<std::vector<Row>, std::string> cases[] = {
      {{{"Bgp", "peer", 1700000000.25, "link down"}},
       entry("1700000000.25", "Bgp", "peer", "link down")},
      {{{"B", "y", 2, "b"}, {"A", "x", 1, "a"}},  // oldest first
       entry("2.0", "B", "y", "b") + "," + entry("1.0", "A", "x", "a")},
      {{{escapes, escapes, 1, escapes}}, entry("1.0", escaped, escaped, escaped)},
      {{{nul, nul, 1, nul}}, entry("1.0", "ab", "ab", "ab")},  // cut at the first NUL
      {{{"a", "g", 1, utf8}}, entry("1.0", "a", "g", utf8)},
  };
  for (const auto& [rows, array] : cases) {
    SCOPED_TRACE(array);
    writeStoreFile(std::string(10000, 'x'));  // a save replaces a longer file whole
    store(rows);
    EXPECT_EQ(readStoreFile(), storeOf(array));
  }
}

TEST_F(StoreFileBytesTest, TimestampsAreShortestRoundTripDecimalsWithAFraction) {
  const std::pair<double, const char*> cases[] = {
      {1700000000.0, "1700000000.0"},     {0.0, "0.0"},       {-0.0, "-0.0"},
      {0.1 + 0.2, "0.30000000000000007"}, {5e-324, "5e-324"}, {-1.5, "-1.5"},
      {DBL_MAX, "1.7976931348623157e308"}};
  for (const auto& [value, written] : cases) {
    SCOPED_TRACE(written);
    store({{"a", "g", value, "m"}});
    EXPECT_EQ(readStoreFile(), storeOf(entry(written, "a", "g", "m")));
  }
}

TEST_F(StoreFileBytesTest, NonFiniteTimestampsAreLeftOutAndTraced) {
  const double inf = std::numeric_limits<double>::infinity();
  store({{"a", "g", 1, "kept"}, {"a", "nan", std::nan(""), "x"}, {"c", "-inf", -inf, "x"}});
  EXPECT_EQ(readStoreFile(), storeOf(entry("1.0", "a", "g", "kept")));
  std::vector<Seen> expected = savedTraces(storePath(), 3);
  for (const char* who : {" agentName: a messageGroup: nan", " agentName: c messageGroup: -inf"}) {
    expected.push_back(storeTrace(
        0, 65, "doStore", storing(" Skipping an entry with a non-finite timestamp,") + who));
  }
  EXPECT_EQ(traces(), expected);
}

// ---- Where the file is

class StoreFilePathTest : public PersistenceTest {};

TEST_F(StoreFilePathTest, UnsetVariableMeansTheDefaultPath) {
  ::unsetenv(kPathVariable);
  traceLevels(1u << 1);  // only the path: the default file itself is not this test's to touch
  KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
  EXPECT_EQ(traces(), std::vector<Seen>{pathTrace(kDefaultPath)});
}

TEST_F(StoreFilePathTest, SetVariableIsThePath) {
  const std::string path = pathIn("elsewhere");
  storePathIs(path);
  store({});
  EXPECT_EQ(readFile(path), kEmptyStore);
  EXPECT_EQ(traces(), savedTraces(path, 0));
}

TEST_F(StoreFilePathTest, EmptyVariableIsAnEmptyPathThatCannotBeOpened) {
  storePathIs("");
  store({{"a", "g", 1, "m"}});
  EXPECT_EQ(traces(), couldNotOpenToStore(""));
  EXPECT_TRUE(directoryEntries(dir()).empty());
  clearTraces();
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(traces(), couldNotOpen(96, 102, "doRestore", kJsonDoRestore, ""));
}

// ---- Store, then restore

class StoreRoundTripTest : public PersistenceTest {};

TEST_F(StoreRoundTripTest, EntriesComeBackInOrderBitIdenticalAndUnchanged) {
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

TEST_F(StoreRoundTripTest, EachRestoreAppendsBehindWhatTheStatusHolds) {
  const Row held = {"x", "y", 1, "held"}, a = {"a", "g", 3, "m"}, b = {"b", "h", 2, "n"};
  store({a, b});
  KronlogReader::Status::Ptr status = statusOf({held});
  KronlogStore::jsonStoreFactory(status)->doRestore();
  KronlogStore::jsonStoreFactory(status)->doRestore();
  EXPECT_EQ(statusRows(*status), (std::vector<Row>{held, a, b, a, b}));
}

// ---- What a restore accepts

const std::string kOneEntry = "{\"Kronlog\":[" + entry("1.5", "A", "g", "m") + "]}";
const Row kA = {"A", "g", 1.5, "m"};

struct Accepted {
  const char* name;
  std::string content;
  std::vector<Row> rows;
  std::string warning = "";  // the level-0 trace besides the opening one, if any
  friend void PrintTo(const Accepted& c, std::ostream* os) { *os << c.name; }
};

class StoreRestoreTest : public PersistenceTest, public ::testing::WithParamInterface<Accepted> {};

TEST_P(StoreRestoreTest, RestoresTheEntriesItFinds) {
  writeStoreFile(GetParam().content);
  EXPECT_EQ(restore(), GetParam().rows);
  std::vector<Seen> level0 = {storeTrace(0, 96, "doRestore", kJsonDoRestore)};
  if (!GetParam().warning.empty()) {
    level0.push_back(storeTrace(0, 120, "doRestore", restoring(GetParam().warning)));
  }
  EXPECT_EQ(tracesWhere([](const Seen& s) { return s.level == 0; }), level0);
}

const Row kRow1 = {"a", "g", 1, "m"};

INSTANTIATE_TEST_SUITE_P(
    Stores, StoreRestoreTest,
    ::testing::Values(
        Accepted{"OtherVersionWarns",
                 "FORMAT: JSON\nVERSION: 2\n" + kOneEntry + "\n",
                 {kA},
                 " store version is different, reader: 1 store file: 2"},
        Accepted{"PrefixesAreRemovedByLengthOnly", "12345678JSON\nabcdefghi1\n" + kOneEntry, {kA}},
        Accepted{"JsonOverSeveralLines",
                 storeOf("\n{\"timestamp\":\n1.5,\n\"agentName\":\"A\",\n\"messageGroup\":\"g\","
                         "\"message\":\"li\nnk\"}\n"),
                 {{"A", "g", 1.5, "link"}}},
        Accepted{"MembersInAnyOrder",
                 storeOf("{\"message\":\"m\",\"messageGroup\":\"g\",\"timestamp\":1.5,"
                         "\"agentName\":\"A\"}"),
                 {kA}},
        Accepted{"OtherRootMembersIgnored",
                 kHeader + ("{\"before\":{\"Kronlog\":7},\"Kronlog\":[" +
                            entry("1.5", "A", "g", "m") + "],\"after\":[1,2]}\n"),
                 {kA}},
        Accepted{"FifthMemberAddsTheEntryAgain",
                 storeOf("{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\","
                         "\"message\":\"m\",\"extra\":0}"),
                 {kRow1, kRow1}},
        Accepted{"ThreeMembersAddNothing",
                 storeOf("{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\"},"
                         "{\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\",\"x\":0},"
                         "{\"message\":\"m\"}," +
                         entry("2", "b", "h", "n")),
                 {{"b", "h", 2, "n"}}},
        Accepted{"EscapedNulCutsTheValue",
                 storeOf(entry("1", "a\\u0000b", "g", "\\u0000abc")),
                 {{"a", "g", 1, ""}}},
        Accepted{"IntegerTimestampsOfAnyWidth",
                 storeOf(entry("-5", "a", "g", "m") + "," +
                         entry("18446744073709551615", "a", "g", "m")),
                 {{"a", "g", -5.0, "m"}, {"a", "g", 18446744073709551615.0, "m"}}},
        Accepted{"EmptyArray", kEmptyStore, {}}),
    [](const ::testing::TestParamInfo<Accepted>& p) { return std::string(p.param.name); });

class StoreRestoreTraceTest : public PersistenceTest {};

// Timestamps are traced in six significant digits.
TEST_F(StoreRestoreTraceTest, OneElementIsTracedFieldByFieldAndAdded) {
  writeStoreFile(storeOf(entry("1700000000.25", "A", "g", "m")));
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1700000000.25, "m"}}));
  std::vector<Seen> expected = {storeTrace(0, 96, "doRestore", kJsonDoRestore),
                                pathTrace(storePath())};
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
    expected.push_back(storeTrace(2, line, "doRestore", restoring(text)));
  }
  EXPECT_EQ(traces(), expected);
}

// ---- Refusals: each traced exactly, and the status left as it was

struct Refused {
  const char* name;
  const char* content;
  int line;
  unsigned level;
  const char* text;
  friend void PrintTo(const Refused& c, std::ostream* os) { *os << c.name; }
};

class StoreRefusalTest : public PersistenceTest, public ::testing::WithParamInterface<Refused> {
 protected:
  // Restores into a status holding one entry, which must still hold just it.
  std::vector<Seen> refusal() {
    KronlogReader::Status::Ptr status = statusOf({{"x", "y", 1, "held"}});
    KronlogStore::jsonStoreFactory(status)->doRestore();
    EXPECT_EQ(statusRows(*status), (std::vector<Row>{{"x", "y", 1, "held"}}));
    return traces();
  }
  std::vector<Seen> refused(int line, unsigned level, const std::string& text) {
    return {storeTrace(0, 96, "doRestore", kJsonDoRestore), pathTrace(storePath()),
            storeTrace(level, line, "doRestore", restoring(text))};
  }
};

TEST_F(StoreRefusalTest, MissingFile) {
  EXPECT_EQ(refusal(), refused(102, 0, " Could not open " + storePath()));
}

TEST_P(StoreRefusalTest, LeavesTheStatusAsItWas) {
  writeStoreFile(GetParam().content);
  EXPECT_EQ(refusal(), refused(GetParam().line, GetParam().level, GetParam().text));
}

constexpr char kFormatError[] = " store format error, expected: JSON actual: ";
constexpr char kNoContent[] = " No json content found in the store file.";

INSTANTIATE_TEST_SUITE_P(
    Stores, StoreRefusalTest,
    ::testing::Values(
        Refused{"EmptyFile", "", 115, 0, kFormatError},
        Refused{"ShortFirstLine", "JSON\nVERSION: 1\n{\"Kronlog\":[]}\n", 115, 0, kFormatError},
        Refused{"CrLfKeepsTheCr", "FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n", 115, 0,
                " store format error, expected: JSON actual: JSON\r"},
        Refused{"OtherFormat", "FORMAT: XML\nVERSION: 1\n<Kronlog/>\n", 115, 0,
                " store format error, expected: JSON actual: XML"},
        Refused{"HeaderOnly", "FORMAT: JSON\nVERSION: 1\n", 132, 0, kNoContent},
        Refused{"OnlyEmptyLines", "FORMAT: JSON\nVERSION: 1\n\n\n", 132, 0, kNoContent},
        Refused{"RootWithoutKronlog",
                "FORMAT: JSON\nVERSION: 1\n{\"kronlog\":[],\"Kronlogs\":[]}\n", 193, 2,
                " Could not find Kronlog in store."}),
    [](const ::testing::TestParamInfo<Refused>& p) { return std::string(p.param.name); });

// ---- Fatal: JSON of the wrong shape ends the process

struct Fatal {
  const char* name;
  std::string json;
  const char* assertion;
  friend void PrintTo(const Fatal& c, std::ostream* os) { *os << c.name; }
};

class StoreDeathTest : public DeathTestBase, public ::testing::WithParamInterface<Fatal> {};

TEST_P(StoreDeathTest, EndsTheProcessInItsAssertion) {
  EXPECT_DEATH(
      {
        storeInMemoryIs(kHeader + GetParam().json + "\n");
        KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
      },
      std::string("Assertion `") + GetParam().assertion + "\\(\\)' failed\\.");
}

std::string element(const std::string& timestamp, const std::string& agentName,
                    const std::string& messageGroup, const std::string& message) {
  return "{\"Kronlog\":[" + members(timestamp, agentName, messageGroup, message) + "]}";
}

INSTANTIATE_TEST_SUITE_P(
    Json, StoreDeathTest,
    ::testing::Values(Fatal{"RootArray", "[1]", "IsObject"}, Fatal{"Unparseable", "{", "IsObject"},
                      Fatal{"TrailingText", "{\"Kronlog\":[]} trailing", "IsObject"},
                      Fatal{"KronlogObject", "{\"Kronlog\":{}}", "IsArray"},
                      Fatal{"ElementNumber", "{\"Kronlog\":[1]}", "IsObject"},
                      Fatal{"AgentNumber", element("1", "1", "\"g\"", "\"m\""), "IsString"},
                      Fatal{"GroupNull", element("1", "\"a\"", "null", "\"m\""), "IsString"},
                      Fatal{"MessageArray", element("1", "\"a\"", "\"g\"", "[]"), "IsString"},
                      Fatal{"TimestampString", element("\"1\"", "\"a\"", "\"g\"", "\"m\""),
                            "IsNumber"}),
    [](const ::testing::TestParamInfo<Fatal>& p) { return std::string(p.param.name); });

class AbstractStoreDeathTest : public DeathTestBase {};

TEST_F(AbstractStoreDeathTest, StoringThroughTheAbstractDriverIsNotImplemented) {
  EXPECT_DEATH(KronlogStore::storeFactory(KronlogReader::statusFactory())->doStore(),
               "Assertion `false && \"not implemented!\"' failed\\.");
}

// ---- Reflection and the abstract driver

class StoreReflectionTest : public PersistenceTest {
 protected:
  const Qel::TypeNode* json_ = Qel::typeNode("KronlogStore::JsonStore");
  const Qel::TypeNode* base_ = Qel::typeNode("KronlogStore::Store");
};

TEST_F(StoreReflectionTest, JsonStoreDerivesFromStoreAndHasItsOwnFormatConstants) {
  ASSERT_TRUE(json_ && base_);
  EXPECT_EQ(json_->base(), base_);
  EXPECT_EQ(json_->constant("klStoreFile"), kDefaultPath);  // inherited
  EXPECT_THROW(base_->constant("storeFormat"), Qel::RangeException);
}

TEST_F(StoreReflectionTest, OperationsReachTheJsonDriverButTheAbstractRestoreOnlyTraces) {
  json_->operationDo(*KronlogStore::jsonStoreFactory(statusOf({kA})), "doStore");
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  clearTraces();
  base_->operationDo(*KronlogStore::storeFactory(status), "doRestore");
  EXPECT_EQ(traces(), std::vector<Seen>{storeTrace(
                          0, 46, "doRestore", "virtual void KronlogStore::Store::doRestore()")});
  base_->operationDo(*KronlogStore::jsonStoreFactory(status), "doRestore");
  EXPECT_EQ(statusRows(*status), std::vector<Row>{kA});
}

// ---- Crash safety: the store is replaced whole or not at all

const std::vector<Row> kPrevious = {{"old", "g", 1, "previous"}};
const std::vector<Row> kNext = {{"new", "g", 2, "next"}, {"new", "g", 3, "more"}};

class StoreReplaceTest : public PersistenceTest {
 protected:
  void SetUp() override {
    PersistenceTest::SetUp();
    store(kPrevious);
    previous_ = readStoreFile();
    clearTraces();
  }
  std::string previous_;
};

TEST_F(StoreReplaceTest, ASuccessfulSaveLeavesOnlyTheStore) {
  store(kNext);
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
  EXPECT_EQ(restore(), kNext);
}

TEST_F(StoreReplaceTest, ATakenTemporaryNameKeepsThePreviousStore) {
  const std::string temporary = storePath() + "." + std::to_string(::getpid()) + ".tmp";
  ASSERT_EQ(::mkdir(temporary.c_str(), 0755), 0);
  store(kNext);
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(traces(), couldNotOpenToStore(storePath()));
  EXPECT_TRUE(fs::is_empty(temporary));
}

TEST_F(StoreReplaceTest, AFailedWriteKeepsThePreviousStoreAndRemovesTheTemporaryFile) {
  rlimit saved = {};
  ::getrlimit(RLIMIT_FSIZE, &saved);
  rlimit lowered = saved;
  lowered.rlim_cur = 40;  // with SIGXFSZ ignored, a write past it fails with EFBIG
  const sighandler_t handler = ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &lowered);
  store(kNext);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
  std::vector<Seen> expected = savedTraces(storePath(), 2);
  expected.push_back(storeTrace(
      0, 70, "doStore",
      storing(" Could not write " + storePath() + ": File too large; the previous store is kept")));
  EXPECT_EQ(traces(), expected);
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
  EXPECT_EQ(traces().back(),
            storeTrace(0, 70, "doStore",
                       storing(" Could not write /dev/full: No space left on device; the "
                               "previous store is kept")));
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

// A save in a process that is killed at some moment of it leaves the
// previous store or the new one, each complete, never a part of either.
class StoreCrashTest : public PersistenceTest {
 protected:
  static KronlogReader::Status::Ptr generation(int g) {
    std::vector<Row> rows;
    for (int k = 0; k < 20000; ++k) {
      rows.push_back({"agent" + std::to_string(k % 7), "group" + std::to_string(k % 13),
                      1700000000.0 + k * 0.001 + g,
                      "generation " + std::to_string(g) + " entry " + std::to_string(k) +
                          " with some text to make the store large"});
    }
    return statusOf(rows);
  }
  static void save(const KronlogReader::Status::Ptr& status) {
    KronlogStore::jsonStoreFactory(status)->doStore();
  }
};

TEST_F(StoreCrashTest, AKilledSaveLeavesACompleteStore) {
  traceLevels(0);
  const KronlogReader::Status::Ptr first = generation(1), second = generation(2);
  save(second);
  const std::string secondBytes = readStoreFile();
  save(first);
  const std::string firstBytes = readStoreFile();
  int interrupted = 0;
  for (int delayMs : {200, 260, 330, 410, 490}) {
    SCOPED_TRACE(delayMs);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      try {
        for (;;) save(second), save(first);
      } catch (...) {
      }
      std::_Exit(1);
    }
    ::usleep(delayMs * 1000);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "saver ended early";
    // The killed save's temporary file shows that the kill did land in a save.
    if (fs::remove(storePath() + "." + std::to_string(child) + ".tmp")) ++interrupted;
    const std::string bytes = readStoreFile();
    ASSERT_TRUE(bytes == firstBytes || bytes == secondBytes)
        << "store of " << bytes.size() << " bytes is neither generation";
  }
  EXPECT_GT(interrupted, 0) << "no kill interrupted a save, so nothing was shown";
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
}

}  // namespace
}  // namespace KronlogTest
