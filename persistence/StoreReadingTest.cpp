// Tests of reading a store without restoring it: each reason a restore would
// not bring it back whole, at its exact byte offset, with the entries a
// restore appends; and the JSON of one entry as programs receive it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "kronlog/StoreReading.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

using KronlogStore::StoreFault;
using KronlogTesting::storeEntry;
using KronlogTesting::storeOf;

struct Read {
  KronlogStore::StoreReading reading;
  std::vector<Row> rows;
};

Read readOf(const std::string& bytes) {
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogStore::StoreReading reading = KronlogStore::readStore(bytes, *status);
  return {std::move(reading), statusRows(*status)};
}

TEST(StoreReadingTest, AnotherVersionIsAWarningOnly) {
  const Read r = readOf("FORMAT: JSON\nVERSION: 2\n{\"Kronlog\":[]}\n");
  EXPECT_TRUE(r.reading.complete());
  ASSERT_EQ(r.reading.warnings.size(), 1u);
  EXPECT_EQ(r.reading.warnings[0].fault, StoreFault::versionDiffers);
  EXPECT_EQ(r.reading.warnings[0].offset, 13u);
  EXPECT_EQ(r.reading.warnings[0].text,
            "line 2 names version \"2\", not \"1\"; a restore reads it all the same");
  const Read longer =
      readOf("FORMAT: JSON\nVERSION: " + std::string(5000, '7') + "\n{\"Kronlog\":[]}\n");
  ASSERT_EQ(longer.reading.warnings.size(), 1u);
  EXPECT_EQ(longer.reading.warnings[0].text,
            "line 2 names version \"" + std::string(32, '7') +
                "\"... (5000 bytes), not \"1\"; a restore reads it all the same");
}

// 255 entries are the most the restorer's walk ends on.
TEST(StoreReadingTest, MoreEntriesThanTheRestorerCountsAreNamedWithTheirCount) {
  for (const std::size_t count : {255u, 256u, 300u}) {
    SCOPED_TRACE(count);
    std::vector<std::string> events(count, storeEntry("1", "a", "g", "m"));
    const Read r = readOf(storeOf(events));
    EXPECT_EQ(r.rows.size(), count);
    if (count == 255) {
      EXPECT_TRUE(r.reading.complete());
      continue;
    }
    ASSERT_EQ(r.reading.problems.size(), 1u);
    const KronlogStore::StoreProblem& p = r.reading.problems[0];
    EXPECT_EQ(p.fault, StoreFault::restorerNeverEnds);
    EXPECT_EQ(p.text.rfind(std::to_string(count) + " entries: the restorer walks at most 255", 0),
              0u)
        << p.text;
    // The element that holds entry 256.
    EXPECT_EQ(p.offset,
              std::string(KronlogTesting::kStoreHeader).size() + 12 + 255 * (events[0].size() + 1));
    EXPECT_EQ(r.reading.fatalCheck(), nullptr);
  }
}

// ---- Each bad case: the fault, where it is, and what the reading keeps.

struct Bad {
  const char* name;
  std::string bytes;
  StoreFault fault;
  std::uint64_t offset;
  const char* text;
  const char* check;     // the check a restore fails, or null
  std::size_t rowsKept;  // entries handed back before or besides the fault
  friend void PrintTo(const Bad& c, std::ostream* os) { *os << c.name; }
};

class StoreReadingFaultTest : public ::testing::TestWithParam<Bad> {};

TEST_P(StoreReadingFaultTest, IsFoundWithItsOffset) {
  const Bad& c = GetParam();
  const Read r = readOf(c.bytes);
  ASSERT_FALSE(r.reading.complete());
  const KronlogStore::StoreProblem& p = r.reading.problems.front();
  EXPECT_EQ(p.fault, c.fault);
  EXPECT_EQ(p.offset, c.offset);
  EXPECT_EQ(p.text, c.text);
  if (c.check) {
    ASSERT_NE(r.reading.fatalCheck(), nullptr);
    EXPECT_STREQ(r.reading.fatalCheck(), c.check);
  } else {
    EXPECT_EQ(r.reading.fatalCheck(), nullptr);
  }
  EXPECT_EQ(r.rows.size(), c.rowsKept);
}

const std::string kHead = KronlogTesting::kStoreHeader;  // 24 bytes
const std::string kGood = storeEntry("1", "a", "g", "m");

INSTANTIATE_TEST_SUITE_P(
    Stores, StoreReadingFaultTest,
    ::testing::Values(
        Bad{"Empty", "", StoreFault::formatName, 0, "the file is empty", nullptr, 0},
        Bad{"CrLf", "FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n", StoreFault::formatName, 0,
            "line 1 names the format \"JSON\r\", not \"JSON\": the file has CR LF line ends",
            nullptr, 0},
        Bad{"ByteOrderMark", "\xEF\xBB\xBF" + kHead + "{\"Kronlog\":[]}\n", StoreFault::formatName,
            0,
            "line 1 names the format \"T: JSON\", not \"JSON\": the file begins with a byte-order "
            "mark",
            nullptr, 0},
        Bad{"Garbage", "hello world\n", StoreFault::formatName, 0,
            "line 1 names the format \"rld\", not \"JSON\": it is not a store file", nullptr, 0},
        Bad{"LongFirstLine", std::string(100000, 'x'), StoreFault::formatName, 0,
            "line 1 names the format \"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx\"... (99992 bytes), not "
            "\"JSON\": it is not a store file",
            nullptr, 0},
        Bad{"HeaderOnly", kHead, StoreFault::noJsonContent, 24,
            "no JSON after the two header lines: nothing to restore", nullptr, 0},
        Bad{"Truncated", kHead + "{\"Kronlog\":[" + kGood.substr(0, 20), StoreFault::badJson, 56,
            "JSON syntax error: Missing a closing quotation mark in string.", "IsObject()", 0},
        // The offset counts the line feeds the JSON part lost.
        Bad{"SyntaxErrorOnALaterLine", kHead + "{\"Kronlog\":\n[\n" + kGood + ",]}\n",
            StoreFault::badJson, 24 + 14 + kGood.size() + 1, "JSON syntax error: Invalid value.",
            "IsObject()", 0},
        Bad{"TrailingText", kHead + "{\"Kronlog\":[]} x\n", StoreFault::badJson, 39,
            "JSON syntax error: The document root must not be followed by other values.",
            "IsObject()", 0},
        Bad{"DeeplyNested", kHead + std::string(150000, '['), StoreFault::badJson, 24 + 1000,
            "JSON nested deeper than 1000 levels", "IsObject()", 0},
        Bad{"RootArray", kHead + " [1]\n", StoreFault::rootNotObject, 25,
            "the JSON root is not an object", "IsObject()", 0},
        Bad{"NoKronlog", kHead + "{\"kronlog\":[]}\n", StoreFault::noEvents, 37,
            "the JSON root has no \"Kronlog\" member, so there are no events to restore", nullptr,
            0},
        Bad{"KronlogObject", kHead + "{\"Kronlog\":{}}\n", StoreFault::eventsNotArray, 35,
            "\"Kronlog\" is not an array", "IsArray()", 0},
        Bad{"ElementNumber", kHead + "{\"Kronlog\":[" + kGood + ",7]}\n",
            StoreFault::elementNotObject, 36 + kGood.size() + 1, "event 1 is not an object",
            "IsObject()", 1},
        Bad{"MessageNumber", storeOf(KronlogTesting::storeMembers("1", "\"a\"", "\"g\"", "5")),
            StoreFault::memberNotString, 36 + 60, "event 0: \"message\" is not a string",
            "IsString()", 0},
        Bad{"TimestampString", storeOf(storeEntry("\"1\"", "a", "g", "m")),
            StoreFault::memberNotNumber, 36 + 13, "event 0: \"timestamp\" is not a number",
            "IsNumber()", 0},
        Bad{"MissingGroup",
            storeOf("{\"timestamp\":1,\"agentName\":\"a\",\"message\":\"m\"}," + kGood),
            StoreFault::memberMissing, 36, "event 0 lacks \"messageGroup\", so a restore drops it",
            nullptr, 1},
        Bad{"ExtraMember",
            storeOf("{\"timestamp\":1,\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\","
                    "\"x\":[1,{}],\"y\":0}"),
            StoreFault::memberExtra, 36,
            "event 0 has 6 members, not 4, so a restore adds it 3 times", nullptr, 3},
        Bad{"NulInMessage", storeOf(storeEntry("1", "a", "g", "ab\\u0000cd")),
            StoreFault::nulInText, 36 + 60,
            "event 0: \"message\" holds a NUL byte; a restore keeps only what comes before it",
            nullptr, 1}),
    [](const ::testing::TestParamInfo<Bad>& p) { return std::string(p.param.name); });

TEST(StoreReadingTest, EveryLossyProblemIsListedOnceInFileOrder) {
  const std::string missing = "{\"timestamp\":1}";
  const Read r = readOf(storeOf({missing, kGood, missing}));
  ASSERT_EQ(r.reading.problems.size(), 2u);
  EXPECT_EQ(r.reading.problems[0].offset, 36u);
  EXPECT_EQ(r.reading.problems[1].offset, 36u + missing.size() + 1 + kGood.size() + 1);
  EXPECT_EQ(r.reading.problems[1].text,
            "event 2 lacks \"agentName\", \"messageGroup\", \"message\", so a restore drops it");
}

// ---- The JSON of one entry for programs: valid JSON, nothing lost

// Timestamps read as written, correctly rounded, including texts a save
// never writes; a number no double holds is malformed where it starts.
TEST(StoreReadingTest, TimestampTextsReadCorrectlyRoundedAndTooBigIsMalformed) {
  const struct {
    const char* text;
    double value;
  } kRead[] = {{"0e-90", 0.0},
               {"-0", -0.0},
               {"1e-400", 0.0},
               {"4.9e-324", 5e-324},
               {"1.8e308", -1},
               {"1E2", 100.0},
               {"123456789012345678901234567890", 1.2345678901234568e29},
               {"0.30000000000000004", 0.1 + 0.2}};
  for (const auto& c : kRead) {
    SCOPED_TRACE(c.text);
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    const std::string store =
        KronlogTesting::storeOf(KronlogTesting::storeMembers(c.text, "\"a\"", "\"g\"", "\"m\""));
    const KronlogStore::StoreReading r = KronlogStore::readStore(store, *status);
    if (c.value == -1) {  // too big
      ASSERT_EQ(r.problems.size(), 1u);
      EXPECT_EQ(r.problems[0].text, "JSON syntax error: Number too big to be stored in double.");
      EXPECT_EQ(r.problems[0].offset, store.find(c.text));
      continue;
    }
    ASSERT_TRUE(r.complete());
    const double got = status->logIterConst()->value()->timestamp();
    EXPECT_EQ(std::memcmp(&got, &c.value, sizeof got), 0) << got;
  }
}

// JSONTestSuite's parsing cases as the JSON part of a store file: every
// y_ document is well-formed (its shape is then judged), every n_ document
// is malformed at an offset inside it, and no case of any kind crashes.
TEST(StoreReadingTest, JsonTestSuiteCasesAreJudgedAsTheSuiteSays) {
  const std::string header = "FORMAT: JSON\nVERSION: 1\n";
  std::size_t yes = 0, no = 0;
  for (const std::string& name : KronlogTesting::directoryEntries(KRONLOG_JSON_SUITE)) {
    SCOPED_TRACE(name);
    const std::string json = KronlogTesting::readFile(std::string(KRONLOG_JSON_SUITE) + "/" + name);
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    const KronlogStore::StoreReading r = KronlogStore::readStore(header + json, *status);
    // Malformed: a syntax problem, no JSON at all, or (warnings, as a
    // restore reads on) a NUL byte the parser stops at or a line feed in a
    // string, which the restore's joining of lines drops.
    const KronlogStore::StoreProblem* bad = nullptr;
    for (const auto* list : {&r.problems, &r.warnings}) {
      for (const KronlogStore::StoreProblem& p : *list) {
        if (p.fault == KronlogStore::StoreFault::badJson ||
            p.fault == KronlogStore::StoreFault::noJsonContent ||
            p.fault == KronlogStore::StoreFault::nulEndsJson ||
            p.fault == KronlogStore::StoreFault::lineFeedInString) {
          bad = &p;
        }
      }
    }
    if (name.rfind("y_", 0) == 0) {
      ++yes;
      EXPECT_EQ(bad, nullptr) << bad->text;
    } else if (name.rfind("n_", 0) == 0) {
      ++no;
      EXPECT_NE(bad, nullptr);
      if (!bad) continue;
      EXPECT_GE(bad->offset, header.size());
      EXPECT_LE(bad->offset, header.size() + json.size());
    }
  }
  EXPECT_EQ(yes, 95u);
  EXPECT_EQ(no, 188u);
}

TEST(EntryJsonTest, ValidUtf8IsAStringAndAnythingElseAnArrayOfBytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "\"plain\""},
      {"Gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80", "\"Gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80\""},
      {std::string("a\0b\n\"", 5), "\"a\\u0000b\\n\\\"\""},
      {"a\xFF", "[97,255]"},
      {"\xC0\xAF", "[192,175]"},                  // an overlong '/'
      {"\xED\xA0\x80", "[237,160,128]"},          // a surrogate
      {"\xF4\x90\x80\x80", "[244,144,128,128]"},  // above U+10FFFF
      {"\xE2\x82", "[226,130]"},                  // cut short
  };
  for (const auto& [text, json] : cases) {
    SCOPED_TRACE(json);
    const auto entry = KronlogReader::logEntryFactory("A", "g", 1.5, text);
    EXPECT_EQ(
        KronlogStore::entryJson(*entry),
        "{\"timestamp\":1.5,\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":" + json + "}");
  }
  // Names follow the same rule.
  EXPECT_EQ(KronlogStore::entryJson(*KronlogReader::logEntryFactory("\xFE", "g\xFF", 0.0, "m")),
            "{\"timestamp\":0.0,\"agentName\":[254],\"messageGroup\":[103,255],\"message\":\"m\"}");
}

// ---- The path rule

class StorePathRuleTest : public PersistenceTest {};

TEST_F(StorePathRuleTest, TheVariableWhenSetEvenEmptyElseTheDefault) {
  ::unsetenv(kPathVariable);
  EXPECT_EQ(KronlogStore::storeFilePath(), "/mnt/flash/kronlog-persistent-store");
  ::setenv(kPathVariable, "/tmp/x", 1);
  EXPECT_EQ(KronlogStore::storeFilePath(), "/tmp/x");
  ::setenv(kPathVariable, "", 1);
  EXPECT_EQ(KronlogStore::storeFilePath(), "");
}

}  // namespace
}  // namespace KronlogTest
