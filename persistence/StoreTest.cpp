// Tests of the JSON store driver: the exact bytes of the store file, where
// the file is, what a restore accepts and rejects, the exact round trip of
// timestamps, the fatal checks on malformed JSON, reflection, and that a
// save replaces the file atomically (also when the saving process is killed).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "persistence/PersistenceTestSupport.h"
#include "qel/Exception.h"
#include "qel/Type.h"

namespace KronlogTest {
namespace {

constexpr char kDefaultPath[] = "/mnt/flash/kronlog-persistent-store";
constexpr char kEmptyStore[] = "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[]}\n";

std::string storing(const char* text) {
  return std::string(kJsonDoStore) + text;
}
std::string restoring(const char* text) {
  return std::string(kJsonDoRestore) + text;
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
          storeTrace(0, line, function, std::string(label) + " Could not open " + path)};
}

// ---- The bytes written

class StoreFileBytesTest : public PersistenceTest {};

TEST_F(StoreFileBytesTest, EmptyLogWritesTheHeaderAndAnEmptyArray) {
  store({});
  EXPECT_EQ(readStoreFile(), kEmptyStore);
  EXPECT_EQ(traces(), savedTraces(storePath(), 0));
}

TEST_F(StoreFileBytesTest, OneEntryIsOneObjectWithItsFourMembersInOrder) {
  store({{"Bgp", "peer", 1700000000.25, "link down"}});
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n"
            "{\"Kronlog\":[{\"timestamp\":1700000000.25,\"agentName\":\"Bgp\","
            "\"messageGroup\":\"peer\",\"message\":\"link down\"}]}\n");
  EXPECT_EQ(traces(), savedTraces(storePath(), 1));
}

TEST_F(StoreFileBytesTest, EntriesAreWrittenOldestFirst) {
  store({{"B", "y", 2, "second"}, {"A", "x", 1, "first"}});
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n"
            "{\"Kronlog\":[{\"timestamp\":2.0,\"agentName\":\"B\",\"messageGroup\":\"y\","
            "\"message\":\"second\"},{\"timestamp\":1.0,\"agentName\":\"A\",\"messageGroup\":\"x\","
            "\"message\":\"first\"}]}\n");
}

TEST_F(StoreFileBytesTest, TimestampsAreShortestRoundTripDecimalsWithAFraction) {
  const struct {
    double value;
    const char* written;
  } cases[] = {
      {1700000000.0, "1700000000.0"},
      {0.0, "0.0"},
      {-0.0, "-0.0"},
      {1700000000.25, "1700000000.25"},
      {0.1 + 0.2, "0.30000000000000007"},
      {5e-324, "5e-324"},
      {DBL_MAX, "1.7976931348623157e308"},
      {-1.5, "-1.5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.written);
    store({{"a", "g", c.value, "m"}});
    EXPECT_EQ(readStoreFile(),
              std::string("FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":") + c.written +
                  ",\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\"}]}\n");
  }
}

TEST_F(StoreFileBytesTest, QuoteBackslashAndControlBytesAreEscapedInEveryString) {
  const std::string text =
      "q\"b\\n\nt\tc\x01"
      "d\x1f"
      "e\x7f";
  store({{text, text, 1, text}});
  const std::string escaped = "\"q\\\"b\\\\n\\nt\\tc\\u0001d\\u001Fe\x7f\"";
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.0,"
            "\"agentName\":" +
                escaped + ",\"messageGroup\":" + escaped + ",\"message\":" + escaped + "}]}\n");
}

TEST_F(StoreFileBytesTest, StringsAreCutAtTheirFirstNul) {
  const std::string text("ab\0cd", 5);
  store({{text, text, 1, text}});
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.0,\"agentName\":\"ab\","
            "\"messageGroup\":\"ab\",\"message\":\"ab\"}]}\n");
}

TEST_F(StoreFileBytesTest, Utf8PassesThroughUnchanged) {
  const std::string text =
      "Gr\xc3\xbc\xc3\x9f"
      "e \xe2\x9c\x93 \xf0\x9f\x98\x80";
  store({{"a", "g", 1, text}});
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.0,"
            "\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"" +
                text + "\"}]}\n");
}

TEST_F(StoreFileBytesTest, NonFiniteTimestampsAreLeftOutAndTraced) {
  const double inf = std::numeric_limits<double>::infinity();
  store({{"a", "g", 1, "kept"},
         {"a", "nan", std::nan(""), "x"},
         {"b", "inf", inf, "x"},
         {"c", "-inf", -inf, "x"}});
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.0,"
            "\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"kept\"}]}\n");
  std::vector<Seen> expected = savedTraces(storePath(), 4);
  for (const char* who : {" agentName: a messageGroup: nan", " agentName: b messageGroup: inf",
                          " agentName: c messageGroup: -inf"}) {
    expected.push_back(storeTrace(
        0, 65, "doStore", storing(" Skipping an entry with a non-finite timestamp,") + who));
  }
  EXPECT_EQ(traces(), expected);
}

TEST_F(StoreFileBytesTest, ASaveReplacesALongerEarlierFileWhole) {
  writeStoreFile(std::string(10000, 'x'));
  store({});
  EXPECT_EQ(readStoreFile(), kEmptyStore);
}

// ---- Where the file is

class StoreFilePathTest : public PersistenceTest {};

TEST_F(StoreFilePathTest, UnsetVariableMeansTheDefaultPath) {
  ::unsetenv(kPathVariable);
  traceLevels(1u << 1);  // only the path: the default file itself is not this test's to touch
  KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
  EXPECT_EQ(traces(), std::vector<Seen>{storeTrace(
                          1, 33, "getStoreFilePath",
                          "const char* KronlogStore::getStoreFilePath(Qel::String) KRONLOG "
                          "storeFilePath=/mnt/flash/kronlog-persistent-store")});
}

TEST_F(StoreFilePathTest, SetVariableIsThePath) {
  const std::string path = pathIn("elsewhere");
  storePathIs(path);
  store({});
  EXPECT_EQ(readFile(path), kEmptyStore);
  EXPECT_EQ(traces(), savedTraces(path, 0));
}

TEST_F(StoreFilePathTest, VariableIsReadAtEveryCall) {
  storePathIs(pathIn("one"));
  store({});
  storePathIs(pathIn("two"));
  store({});
  EXPECT_EQ(directoryEntries(dir()), (std::vector<std::string>{"one", "two"}));
}

TEST_F(StoreFilePathTest, EmptyVariableIsAnEmptyPathThatCannotBeOpened) {
  storePathIs("");
  store({{"a", "g", 1, "m"}});
  EXPECT_EQ(traces(), couldNotOpen(51, 57, "doStore", kJsonDoStore, ""));
  EXPECT_TRUE(directoryEntries(dir()).empty());
  clearTraces();
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(traces(), couldNotOpen(96, 102, "doRestore", kJsonDoRestore, ""));
}

// ---- Store, then restore

class StoreRoundTripTest : public PersistenceTest {};

TEST_F(StoreRoundTripTest, EntriesComeBackInOrderWithBitIdenticalTimestamps) {
  std::vector<Row> rows;
  for (double t : {0.1 + 0.2, 1700000000.123456789, 5e-324, DBL_MAX, -0.0, 0.0, 1e-7,
                   std::nextafter(1700000000.0, 2e9), 2251799813685248.25, -123456.789e-30, DBL_MIN,
                   9007199254740993.0}) {
    rows.push_back({"agent", "group", t, "at " + std::to_string(rows.size())});
  }
  store(rows);
  traceLevels(0);
  EXPECT_EQ(restore(), rows);
}

TEST_F(StoreRoundTripTest, TextsComeBackUnchanged) {
  const std::vector<Row> rows = {{"q\"b\\", "n\nt\t\x01\x1f", 1,
                                  "Gr\xc3\xbc\xc3\x9f"
                                  "e \xf0\x9f\x98\x80"},
                                 {"", "", 2, ""},
                                 {"a b", "{\"Kronlog\":[]}", 3, std::string(5000, 'z')}};
  store(rows);
  traceLevels(0);
  EXPECT_EQ(restore(), rows);
}

TEST_F(StoreRoundTripTest, RestoreAppendsBehindWhatTheStatusHolds) {
  store({{"a", "g", 3, "restored"}});
  KronlogReader::Status::Ptr status = statusOf({{"x", "y", 1, "old"}, {"x", "y", 2, "older"}});
  KronlogStore::jsonStoreFactory(status)->doRestore();
  EXPECT_EQ(
      statusRows(*status),
      (std::vector<Row>{{"x", "y", 1, "old"}, {"x", "y", 2, "older"}, {"a", "g", 3, "restored"}}));
  EXPECT_EQ(status->log(2)->message(), "restored");
}

TEST_F(StoreRoundTripTest, RestoringTwiceDoublesTheEntries) {
  const std::vector<Row> rows = {{"a", "g", 1, "m"}, {"b", "h", 2, "n"}};
  store(rows);
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogStore::jsonStoreFactory(status)->doRestore();
  KronlogStore::jsonStoreFactory(status)->doRestore();
  EXPECT_EQ(statusRows(*status), (std::vector<Row>{rows[0], rows[1], rows[0], rows[1]}));
}

// ---- What a restore accepts

class StoreRestoreTest : public PersistenceTest {
 protected:
  static constexpr char kOneEntry[] =
      "{\"Kronlog\":[{\"timestamp\":1.5,\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":"
      "\"m\"}]}";
  const std::vector<Row> oneEntry_ = {{"A", "g", 1.5, "m"}};
};

TEST_F(StoreRestoreTest, OneElementIsTracedFieldByFieldAndAdded) {
  writeStore(kOneEntry);
  EXPECT_EQ(restore(), oneEntry_);
  EXPECT_EQ(traces(),
            (std::vector<Seen>{
                storeTrace(0, 96, "doRestore", kJsonDoRestore), pathTrace(storePath()),
                storeTrace(2, 141, "doRestore", restoring(" Reading Kronlog from store file.")),
                storeTrace(2, 166, "doRestore", restoring(" Reading timestamp")),
                storeTrace(2, 168, "doRestore", restoring(" timestamp: 1.5")),
                storeTrace(2, 156, "doRestore", restoring(" Reading agentName")),
                storeTrace(2, 158, "doRestore", restoring(" agentName: A")),
                storeTrace(2, 161, "doRestore", restoring(" Reading messageGroup")),
                storeTrace(2, 163, "doRestore", restoring(" messageGroup: g")),
                storeTrace(2, 171, "doRestore", restoring(" Reading message")),
                storeTrace(2, 174, "doRestore", restoring(" message: m")),
                storeTrace(2, 187, "doRestore",
                           restoring(" Added entry agentName: A messageGroup: g timestamp: 1.5 "
                                     "message: m"))}));
}

TEST_F(StoreRestoreTest, TimestampsAreTracedInSixSignificantDigits) {
  writeStore(
      "{\"Kronlog\":[{\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":\"m\","
      "\"timestamp\":1700000000.25}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1700000000.25, "m"}}));
  EXPECT_EQ(traces().back(),
            storeTrace(2, 187, "doRestore",
                       restoring(" Added entry agentName: A messageGroup: g timestamp: 1.7e+09 "
                                 "message: m")));
}

TEST_F(StoreRestoreTest, MembersAreRecognisedInAnyOrder) {
  writeStore(
      "{\"Kronlog\":[{\"message\":\"m\",\"messageGroup\":\"g\",\"timestamp\":1.5,"
      "\"agentName\":\"A\"}]}");
  EXPECT_EQ(restore(), oneEntry_);
}

TEST_F(StoreRestoreTest, OtherVersionIsAWarningAndEverythingIsRestored) {
  writeStoreFile(std::string("FORMAT: JSON\nVERSION: 2\n") + kOneEntry + "\n");
  EXPECT_EQ(restore(), oneEntry_);
  EXPECT_EQ(tracesAt(0),
            (std::vector<Seen>{storeTrace(0, 96, "doRestore", kJsonDoRestore),
                               storeTrace(0, 120, "doRestore",
                                          restoring(" store version is different, reader: 1 "
                                                    "store file: 2"))}));
}

TEST_F(StoreRestoreTest, PrefixesAreRemovedByLengthWithoutBeingCompared) {
  writeStoreFile(std::string("12345678JSON\nabcdefghi1\n") + kOneEntry + "\n");
  EXPECT_EQ(restore(), oneEntry_);
  EXPECT_EQ(tracesAt(0), std::vector<Seen>{storeTrace(0, 96, "doRestore", kJsonDoRestore)});
}

TEST_F(StoreRestoreTest, JsonMaySpanSeveralLinesWhenNoTokenIsSplit) {
  writeStoreFile(
      "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":\n[\n{\"timestamp\":\n1.5,\n\"agentName\":\"A\",\n"
      "\"messageGroup\":\"g\",\"message\":\"m\"}\n]\n}\n");
  EXPECT_EQ(restore(), oneEntry_);
}

TEST_F(StoreRestoreTest, ALineBreakInsideAStringIsLost) {
  writeStoreFile(
      "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.5,\"agentName\":\"A\","
      "\"messageGroup\":\"g\",\"message\":\"li\nnk\"}]}\n");
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1.5, "link"}}));
}

TEST_F(StoreRestoreTest, ALastLineWithoutLfIsRead) {
  writeStoreFile(std::string("FORMAT: JSON\nVERSION: 1\n") + kOneEntry);
  EXPECT_EQ(restore(), oneEntry_);
}

TEST_F(StoreRestoreTest, AStoreIsReadFromAFifo) {
  // Larger than a pipe holds at once, so that it arrives in several reads.
  const std::string message(200000, 'x');
  ASSERT_EQ(::mkfifo(storePath().c_str(), 0600), 0);
  const pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    const std::string text =
        "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.5,\"agentName\":\"A\","
        "\"messageGroup\":\"g\",\n\"message\":\"" +
        message + "\"}]}\n";
    const int fd = ::open(storePath().c_str(), O_WRONLY);
    const bool written = fd >= 0 && ::write(fd, text.data(), text.size()) == ssize_t(text.size());
    std::_Exit(written ? 0 : 1);
  }
  traceLevels(0);
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1.5, message}}));
  int status = 0;
  ASSERT_EQ(::waitpid(writer, &status, 0), writer);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(StoreRestoreTest, OtherRootMembersAreIgnored) {
  writeStore(
      "{\"before\":{\"Kronlog\":7},\"Kronlog\":[{\"timestamp\":1.5,\"agentName\":\"A\","
      "\"messageGroup\":\"g\",\"message\":\"m\"}],\"after\":[1,2]}");
  EXPECT_EQ(restore(), oneEntry_);
}

TEST_F(StoreRestoreTest, EachMemberAfterTheFourthAddsTheSameEntryAgain) {
  writeStore(
      "{\"Kronlog\":[{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\","
      "\"extra\":0}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"a", "g", 1, "m"}, {"a", "g", 1, "m"}}));
}

TEST_F(StoreRestoreTest, ARepeatedMemberAddsAnEntryWithTheValuesAsTheyStand) {
  writeStore(
      "{\"Kronlog\":[{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\","
      "\"message\":\"n\"}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"a", "g", 1, "m"}, {"a", "g", 1, "n"}}));
}

TEST_F(StoreRestoreTest, AnElementLackingAMemberAddsNothing) {
  for (const char* element : {
           "{\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\",\"x\":0}",
           "{\"timestamp\":1,\"messageGroup\":\"g\",\"message\":\"m\",\"x\":0}",
           "{\"timestamp\":1,\"agentName\":\"a\",\"message\":\"m\",\"x\":0}",
           "{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\",\"x\":0}",
       }) {
    SCOPED_TRACE(element);
    writeStore(std::string("{\"Kronlog\":[") + element + "]}");
    EXPECT_TRUE(restore().empty());
  }
}

TEST_F(StoreRestoreTest, ElementsAreIndependent) {
  writeStore(
      "{\"Kronlog\":[{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\"},"
      "{\"message\":\"m\"},{\"timestamp\":2,\"agentName\":\"b\",\"messageGroup\":\"h\","
      "\"message\":\"n\"}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"b", "h", 2, "n"}}));
}

TEST_F(StoreRestoreTest, AnEscapedNulCutsTheValue) {
  writeStore(
      "{\"Kronlog\":[{\"timestamp\":1,\"agentName\":\"a\\u0000b\",\"messageGroup\":\"g\","
      "\"message\":\"\\u0000abc\"}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"a", "g", 1, ""}}));
}

TEST_F(StoreRestoreTest, IntegerTimestampsOfAnyWidthAreAccepted) {
  writeStore(
      "{\"Kronlog\":[{\"timestamp\":1700000000,\"agentName\":\"a\",\"messageGroup\":\"g\","
      "\"message\":\"m\"},{\"timestamp\":-5,\"agentName\":\"a\",\"messageGroup\":\"g\","
      "\"message\":\"m\"},{\"timestamp\":18446744073709551615,\"agentName\":\"a\","
      "\"messageGroup\":\"g\",\"message\":\"m\"},{\"timestamp\":-9223372036854775808,"
      "\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\"}]}");
  EXPECT_EQ(restore(), (std::vector<Row>{{"a", "g", 1700000000.0, "m"},
                                         {"a", "g", -5.0, "m"},
                                         {"a", "g", 18446744073709551615.0, "m"},
                                         {"a", "g", -9223372036854775808.0, "m"}}));
}

TEST_F(StoreRestoreTest, AnEmptyArrayAddsNothing) {
  writeStore("{\"Kronlog\":[]}");
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(traces().back(),
            storeTrace(2, 141, "doRestore", restoring(" Reading Kronlog from store file.")));
}

// ---- Refusals: each traced exactly, and the status left as it was

class StoreRestoreRefusalTest : public PersistenceTest {
 protected:
  // Restores into a status holding one entry and checks that it still does.
  std::vector<Seen> refusal() {
    KronlogReader::Status::Ptr status = statusOf({{"x", "y", 1, "held"}});
    KronlogStore::jsonStoreFactory(status)->doRestore();
    EXPECT_EQ(statusRows(*status), (std::vector<Row>{{"x", "y", 1, "held"}}));
    return traces();
  }
  std::vector<Seen> refused(int line, unsigned level, const std::string& text) {
    return {storeTrace(0, 96, "doRestore", kJsonDoRestore), pathTrace(storePath()),
            storeTrace(level, line, "doRestore", restoring("") + text)};
  }
};

TEST_F(StoreRestoreRefusalTest, MissingFile) {
  EXPECT_EQ(refusal(), refused(102, 0, " Could not open " + storePath()));
}

TEST_F(StoreRestoreRefusalTest, EmptyFileIsAFormatErrorWithAnEmptyName) {
  writeStoreFile("");
  EXPECT_EQ(refusal(), refused(115, 0, " store format error, expected: JSON actual: "));
}

TEST_F(StoreRestoreRefusalTest, CrLfLinesKeepTheCrInTheFormatName) {
  writeStoreFile("FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n");
  EXPECT_EQ(refusal(), refused(115, 0, " store format error, expected: JSON actual: JSON\r"));
}

TEST_F(StoreRestoreRefusalTest, AShortFirstLineLeavesNoFormatName) {
  writeStoreFile("JSON\nVERSION: 1\n{\"Kronlog\":[]}\n");
  EXPECT_EQ(refusal(), refused(115, 0, " store format error, expected: JSON actual: "));
}

TEST_F(StoreRestoreRefusalTest, OtherFormatName) {
  writeStoreFile("FORMAT: XML\nVERSION: 1\n<Kronlog/>\n");
  EXPECT_EQ(refusal(), refused(115, 0, " store format error, expected: JSON actual: XML"));
}

TEST_F(StoreRestoreRefusalTest, HeaderOnly) {
  writeStoreFile("FORMAT: JSON\nVERSION: 1\n");
  EXPECT_EQ(refusal(), refused(132, 0, " No json content found in the store file."));
}

TEST_F(StoreRestoreRefusalTest, OnlyEmptyLinesAfterTheHeader) {
  writeStoreFile("FORMAT: JSON\nVERSION: 1\n\n\n");
  EXPECT_EQ(refusal(), refused(132, 0, " No json content found in the store file."));
}

TEST_F(StoreRestoreRefusalTest, RootWithoutKronlog) {
  writeStore("{\"kronlog\":[],\"Kronlogs\":[]}");
  EXPECT_EQ(refusal(), refused(193, 2, " Could not find Kronlog in store."));
}

// ---- Fatal: JSON of the wrong shape ends the process

class StoreDeathTest : public DeathTestBase {
 protected:
  static void restoreJson(const std::string& json) {
    storeInMemoryIs("FORMAT: JSON\nVERSION: 1\n" + json + "\n");
    KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->doRestore();
  }
  static std::string element(const std::string& timestamp, const std::string& agentName,
                             const std::string& messageGroup, const std::string& message) {
    return "{\"Kronlog\":[{\"timestamp\":" + timestamp + ",\"agentName\":" + agentName +
           ",\"messageGroup\":" + messageGroup + ",\"message\":" + message + "}]}";
  }
};

TEST_F(StoreDeathTest, RootThatIsNoObject) {
  EXPECT_DEATH(restoreJson("[1]"), "Assertion `IsObject\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, JsonThatDoesNotParse) {
  EXPECT_DEATH(restoreJson("{"), "Assertion `IsObject\\(\\)' failed\\.");
  EXPECT_DEATH(restoreJson("garbage"), "Assertion `IsObject\\(\\)' failed\\.");
  EXPECT_DEATH(restoreJson("{\"Kronlog\":[]} trailing"), "Assertion `IsObject\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, TruncatedStore) {
  EXPECT_DEATH(restoreJson(element("1", "\"a\"", "\"g\"", "\"m\"").substr(0, 40)),
               "Assertion `IsObject\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, KronlogThatIsNoArray) {
  EXPECT_DEATH(restoreJson("{\"Kronlog\":{}}"), "Assertion `IsArray\\(\\)' failed\\.");
  EXPECT_DEATH(restoreJson("{\"Kronlog\":null}"), "Assertion `IsArray\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, ElementThatIsNoObject) {
  EXPECT_DEATH(restoreJson("{\"Kronlog\":[1]}"), "Assertion `IsObject\\(\\)' failed\\.");
  EXPECT_DEATH(restoreJson("{\"Kronlog\":[[]]}"), "Assertion `IsObject\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, TextMemberThatIsNoString) {
  EXPECT_DEATH(restoreJson(element("1", "1", "\"g\"", "\"m\"")), "Assertion `IsString\\(\\)'");
  EXPECT_DEATH(restoreJson(element("1", "\"a\"", "null", "\"m\"")), "Assertion `IsString\\(\\)'");
  EXPECT_DEATH(restoreJson(element("1", "\"a\"", "\"g\"", "[]")), "Assertion `IsString\\(\\)'");
}

TEST_F(StoreDeathTest, TimestampThatIsNoNumber) {
  EXPECT_DEATH(restoreJson(element("\"1\"", "\"a\"", "\"g\"", "\"m\"")),
               "Assertion `IsNumber\\(\\)' failed\\.");
  EXPECT_DEATH(restoreJson(element("true", "\"a\"", "\"g\"", "\"m\"")),
               "Assertion `IsNumber\\(\\)' failed\\.");
}

TEST_F(StoreDeathTest, StoringThroughTheAbstractDriver) {
  EXPECT_DEATH(KronlogStore::storeFactory(KronlogReader::statusFactory())->doStore(),
               "Assertion `false && \"not implemented!\"' failed\\.");
}

// ---- Reflection and the abstract driver

class StoreReflectionTest : public PersistenceTest {
 protected:
  const Qel::TypeNode* json_ = Qel::typeNode("KronlogStore::JsonStore");
  const Qel::TypeNode* base_ = Qel::typeNode("KronlogStore::Store");
};

TEST_F(StoreReflectionTest, ConstantsAreReadByName) {
  ASSERT_NE(json_, nullptr);
  ASSERT_NE(base_, nullptr);
  EXPECT_EQ(json_->constant("klStoreFile"), kDefaultPath);  // inherited from Store
  EXPECT_EQ(base_->constant("klStoreFile"), kDefaultPath);
  EXPECT_EQ(json_->constant("storeFormat"), "JSON");
  EXPECT_EQ(json_->constant("storeVersion"), "1");
  EXPECT_THROW(base_->constant("storeFormat"), Qel::RangeException);
  EXPECT_EQ(KronlogStore::Store::klStoreFile(), kDefaultPath);
}

TEST_F(StoreReflectionTest, JsonStoreDerivesFromStoreAndKnowsItsType) {
  ASSERT_NE(json_, nullptr);
  EXPECT_EQ(json_->base(), base_);
  EXPECT_EQ(KronlogStore::jsonStoreFactory(KronlogReader::statusFactory())->fwkType(), json_);
  EXPECT_EQ(KronlogStore::storeFactory(KronlogReader::statusFactory())->fwkType(), base_);
}

TEST_F(StoreReflectionTest, JsonStoreIsRegisteredJustBeforeStore) {
  const std::vector<const Qel::TypeNode*> nodes = Qel::typeNodes();
  const auto json = std::find(nodes.begin(), nodes.end(), json_);
  ASSERT_NE(json, nodes.end());
  ASSERT_NE(json + 1, nodes.end());
  EXPECT_EQ(*(json + 1), base_);
}

TEST_F(StoreReflectionTest, OperationsReachTheJsonDriver) {
  KronlogStore::Store::Ptr store = KronlogStore::jsonStoreFactory(statusOf({{"a", "g", 1, "m"}}));
  json_->operationDo(*store, "doStore");
  EXPECT_EQ(readStoreFile(),
            "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[{\"timestamp\":1.0,"
            "\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\"}]}\n");
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  base_->operationDo(*KronlogStore::jsonStoreFactory(status), "doRestore");
  EXPECT_EQ(statusRows(*status), (std::vector<Row>{{"a", "g", 1, "m"}}));
}

TEST_F(StoreReflectionTest, AbstractRestoreOnlyTraces) {
  store({{"a", "g", 1, "m"}});
  clearTraces();
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogStore::storeFactory(status)->doRestore();
  EXPECT_EQ(status->logs(), 0u);
  EXPECT_EQ(traces(), std::vector<Seen>{storeTrace(
                          0, 46, "doRestore", "virtual void KronlogStore::Store::doRestore()")});
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
  std::string temporaryPath() const {
    return storePath() + "." + std::to_string(::getpid()) + ".tmp";
  }
  std::string previous_;
};

TEST_F(StoreReplaceTest, ASuccessfulSaveLeavesOnlyTheStore) {
  store(kNext);
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
  EXPECT_EQ(restore(), kNext);
}

TEST_F(StoreReplaceTest, ATakenTemporaryNameKeepsThePreviousStore) {
  ASSERT_EQ(::mkdir(temporaryPath().c_str(), 0755), 0);
  store(kNext);
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(traces(), couldNotOpen(51, 57, "doStore", kJsonDoStore, storePath()));
  EXPECT_TRUE(fs::is_empty(temporaryPath()));
}

TEST_F(StoreReplaceTest, AReadOnlyDirectoryKeepsThePreviousStore) {
  if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
  ASSERT_EQ(::chmod(dir().c_str(), 0555), 0);
  store(kNext);
  ::chmod(dir().c_str(), 0755);
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(traces(), couldNotOpen(51, 57, "doStore", kJsonDoStore, storePath()));
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
}

TEST_F(StoreReplaceTest, AMissingDirectoryIsTracedAndNothingIsCreated) {
  const std::string path = pathIn("missing/store");
  storePathIs(path);
  store(kNext);
  EXPECT_EQ(traces(), couldNotOpen(51, 57, "doStore", kJsonDoStore, path));
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
}

TEST_F(StoreReplaceTest, AFailedWriteKeepsThePreviousStoreAndRemovesTheTemporaryFile) {
  {
    FileSizeLimit limit(40);
    store(kNext);
  }
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
  std::vector<Seen> expected = savedTraces(storePath(), 2);
  expected.push_back(storeTrace(
      0, 70, "doStore",
      storing(" Could not write ") + storePath() + ": File too large; the previous store is kept"));
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

TEST_F(StoreReplaceTest, ADanglingSymbolicLinkCreatesItsTarget) {
  const std::string target = pathIn("target");
  storePathIs(pathIn("link"));
  ASSERT_EQ(::symlink(target.c_str(), pathIn("link").c_str()), 0);
  store(kNext);
  EXPECT_TRUE(fs::is_symlink(pathIn("link")));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target)));
  traceLevels(0);
  EXPECT_EQ(restore(), kNext);
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
    struct stat st = {};
    EXPECT_EQ(::stat(storePath().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, mode);
  }
  ::umask(savedMask);
}

// A save in a process that is killed at some moment of it leaves the
// previous store or the new one, each complete, never a part of either.
class StoreCrashTest : public PersistenceTest {
 protected:
  static std::vector<Row> generation(int g, int entries) {
    std::vector<Row> rows;
    rows.reserve(entries);
    for (int k = 0; k < entries; ++k) {
      rows.push_back({"agent" + std::to_string(k % 7), "group" + std::to_string(k % 13),
                      1700000000.0 + k * 0.001 + g,
                      "generation " + std::to_string(g) + " entry " + std::to_string(k) +
                          " with some text to make the store large"});
    }
    return rows;
  }

  // Forks a process that saves `a` and `b` in turn until it is killed.
  static pid_t saveForever(const KronlogReader::Status::Ptr& a,
                           const KronlogReader::Status::Ptr& b) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    try {
      for (;;) {
        KronlogStore::jsonStoreFactory(a)->doStore();
        KronlogStore::jsonStoreFactory(b)->doStore();
      }
    } catch (...) {
    }
    std::_Exit(1);
  }
};

TEST_F(StoreCrashTest, AKilledSaveLeavesACompleteStore) {
  constexpr int kEntries = 20000;
  traceLevels(0);
  const std::vector<Row> first = generation(1, kEntries), second = generation(2, kEntries);
  const KronlogReader::Status::Ptr firstLog = statusOf(first), secondLog = statusOf(second);
  KronlogStore::jsonStoreFactory(secondLog)->doStore();
  const std::string secondBytes = readStoreFile();
  KronlogStore::jsonStoreFactory(firstLog)->doStore();
  const std::string firstBytes = readStoreFile();

  int interrupted = 0;
  for (int delayMs : {200, 260, 330, 410, 490}) {
    SCOPED_TRACE(delayMs);
    const pid_t child = saveForever(secondLog, firstLog);
    ASSERT_GT(child, 0);
    ::usleep(delayMs * 1000);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "saver ended early";
    // The killed save's temporary file shows that the kill did land in a save.
    const std::string temporary = storePath() + "." + std::to_string(child) + ".tmp";
    if (fs::remove(temporary)) ++interrupted;

    const std::string bytes = readStoreFile();
    ASSERT_TRUE(bytes == firstBytes || bytes == secondBytes)
        << "store of " << bytes.size() << " bytes is neither generation";
    const std::vector<Row> restored = restore();
    ASSERT_EQ(restored.size(), static_cast<std::size_t>(kEntries));
    EXPECT_TRUE(restored == first || restored == second);
  }
  EXPECT_GT(interrupted, 0) << "no kill interrupted a save, so nothing was shown";
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
}

}  // namespace
}  // namespace KronlogTest
