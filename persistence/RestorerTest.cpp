// Tests of the restorer: one agent's saved events back into its writer
// directory, the 8-bit position counter that limits a restore to 255
// entries, and the Config value's identity, text form and parsing.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/Strep.h"
#include "qel/Type.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

using Entries = std::vector<KronlogWriter::LogEntry>;

constexpr char kDoRestore[] = "void KronlogRestorer::Restorer::doRestore()";

// A store file holding `rows`.
std::string storeText(const std::vector<Row>& rows) {
  std::vector<std::string> elements;
  for (const Row& r : rows) {
    elements.push_back(
        KronlogTesting::storeEntry(r.timestamp, r.agentName, r.messageGroup, r.message));
  }
  return KronlogTesting::storeOf(elements);
}

// `count` entries of agent A in group g: m0, m1, ... at times 0, 1, ...
std::vector<Row> numbered(int count) {
  std::vector<Row> rows;
  for (int k = 0; k < count; ++k) rows.push_back({"A", "g", double(k), "m" + std::to_string(k)});
  return rows;
}
Entries numberedEntries(int count) {
  Entries entries;
  for (const Row& r : numbered(count)) entries.emplace_back(r.timestamp, r.message);
  return entries;
}

class RestorerTest : public PersistenceTest {
 protected:
  static Seen trace(int line, const std::string& text) {
    return {0, "KronlogRestorer", line, "doRestore", text};
  }
  void writeRows(const std::vector<Row>& rows) { writeStoreFile(storeText(rows)); }
  KronlogRestorer::Restorer::Ptr restoreHere() {
    return KronlogRestorer::restorerFactory(KronlogRestorer::Config(dir_));
  }
  // The entries of writer `group` of the directory, oldest first.
  Entries entries(const char* group) const {
    Entries out;
    KronlogWriter::Writer::Ptr writer = dir_->writer(group);
    if (!writer) return out;
    for (auto it = writer->logIterConst(); it; ++it) out.push_back(it->entry());
    return out;
  }

  KronlogWriter::WriterDir::Ptr dir_ = KronlogWriter::writerDirFactory("A");
};

TEST_F(RestorerTest, WithoutADirectoryItTracesAndNeverOpensTheStore) {
  writeRows(numbered(1));
  EXPECT_TRUE(KronlogRestorer::restorerFactory(KronlogRestorer::Config())->initialized());
  EXPECT_EQ(
      traces(),
      (std::vector<Seen>{trace(20, kDoRestore),
                         trace(24, std::string(kDoRestore) +
                                       " WriterDir to restore the events is not set.Exiting...")}));
}

// With the saved timestamps, to the last bit, and not the time of the restore.
TEST_F(RestorerTest, OnlyTheDirectorysOwnAgentIsRestored) {
  writeRows({{"A", "g1", 1700000000.123456789, "a1"},
             {"B", "g2", 2, "b2"},
             {"A", "g1", 5e-324, "a3"},
             {"B", "g1", 4, "b4"},
             {"AA", "g3", 5, "aa"},
             {"a", "g4", 6, "lower"}});
  Qel::utcNowFunctionIs([] { return 42.0; });
  EXPECT_TRUE(restoreHere()->initialized());
  Qel::utcNowFunctionIs(nullptr);
  EXPECT_EQ(dir_->writers(), 1u);
  EXPECT_EQ(entries("g1"), (Entries{{1700000000.123456789, "a1"}, {5e-324, "a3"}}));
}

// The default holds ten entries, but a restore does not enforce it.
TEST_F(RestorerTest, MissingWritersAreCreatedWithTheDefaultConfigurationAndTakeAllEntries) {
  std::vector<Row> rows = numbered(15);
  rows.insert(rows.begin() + 3, {"A", "y", 20, "n"});
  writeRows(rows);
  restoreHere();
  ASSERT_EQ(dir_->writers(), 2u);
  for (const char* group : {"g", "y"}) {
    ASSERT_TRUE(dir_->writer(group)) << group;
    EXPECT_EQ(dir_->writer(group)->config(),
              KronlogWriter::Config(10, KronlogWriter::keepLastEntries));
  }
  EXPECT_EQ(entries("g"), numberedEntries(15));
  EXPECT_EQ(entries("y"), (Entries{{20, "n"}}));
}

TEST_F(RestorerTest, AnExistingWriterKeepsItsConfigurationAndGetsEntriesAppended) {
  const KronlogWriter::Config own(3, KronlogWriter::keepFirstEntries);
  dir_->writerIs("g", own)->logEnq(KronlogWriter::LogEntry(100, "already there"));
  writeRows(numbered(4));
  restoreHere();
  EXPECT_EQ(dir_->writer("g")->config(), own);
  EXPECT_EQ(entries("g"),
            (Entries{{100, "already there"}, {0, "m0"}, {1, "m1"}, {2, "m2"}, {3, "m3"}}));
}

TEST_F(RestorerTest, TwoHundredFiftyFiveEntriesAreWalkedOnce) {
  writeRows(numbered(255));
  traceLevels(0x1);
  restoreHere();
  EXPECT_EQ(entries("g"), numberedEntries(255));
  EXPECT_EQ(tracesOf("KronlogRestorer").size(), 1u + 255u);
}

TEST_F(RestorerTest, EachEntryIsTracedBeforeItIsAppended) {
  struct CountOnLog : KronlogWriter::Writer::Notifiee {
    std::function<void()> onEntry;
    using KronlogWriter::Writer::Notifiee::onLog;
    void onLog(unsigned int) override { onEntry(); }
  } notifiee;
  std::vector<Seen> whenAppended;
  notifiee.onEntry = [&] { whenAppended = tracesOf("KronlogRestorer"); };
  notifiee.notifierIs(dir_->writerIs("g", KronlogWriter::Config()));
  writeRows({{"A", "g", 1700000000.25, "link down"}});
  restoreHere();
  const std::vector<Seen> expected = {
      trace(20, kDoRestore),
      trace(54, "doRestore timestamp: 1.7e+09 agentName: A messageGroup: g message: link down")};
  EXPECT_EQ(whenAppended, expected);
  EXPECT_EQ(tracesOf("KronlogRestorer"), expected);
}

TEST_F(RestorerTest, EachRestoreAppendsEverythingAgain) {
  writeRows({{"A", "g", 1, "m"}, {"A", "h", 2, "n"}});
  KronlogRestorer::Restorer::Ptr restorer = restoreHere();
  restoreHere();
  const Qel::TypeNode* type = Qel::typeNode("KronlogRestorer::Restorer");
  type->operationDo(*restorer, "doRestore");
  EXPECT_EQ(entries("g"), (Entries{{1, "m"}, {1, "m"}, {1, "m"}}));
  EXPECT_EQ(entries("h"), (Entries{{2, "n"}, {2, "n"}, {2, "n"}}));
  EXPECT_EQ(type->attribute(*restorer, "config"), Qel::valueToStrepOfRawPtr(dir_.ptr()));
  EXPECT_EQ(type->attribute(*restorer, "initialized"), "true");
}

// A store of 256 entries is walked forever; one of 255 finishes under the
// same alarm. The directory matches no agent, so memory holds steady.
class RestorerDeathTest : public DeathTestBase {};

TEST_F(RestorerDeathTest, TheWalkNeverEndsFrom256Entries) {
  const auto restoreUnderAlarm = [](int count) {
    storeInMemoryIs(storeText(numbered(count)));
    ::alarm(1);
    KronlogRestorer::restorerFactory(
        KronlogRestorer::Config(KronlogWriter::writerDirFactory("nobody")));
  };
  EXPECT_EXIT(restoreUnderAlarm(256), ::testing::KilledBySignal(SIGALRM), "");
  EXPECT_EXIT((restoreUnderAlarm(255), std::exit(0)), ::testing::ExitedWithCode(0), "");
}

// ---- Config

KronlogRestorer::Config parse(const std::string& text) {
  const Qel::String s(text);
  Qel::String8::IteratorConst it = s.begin();
  KronlogRestorer::Config config(it, s.end());
  EXPECT_EQ(it, s.end()) << "the whole text is read";
  return config;
}

// The exception parsing `text` raises; a failure when there is none.
Qel::DeserializeException parseError(const std::string& text) {
  try {
    parse(text);
  } catch (const Qel::DeserializeException& e) {
    return e;
  }
  ADD_FAILURE() << "parsed: " << text;
  return Qel::DeserializeException("", "");
}

class RestorerConfigTest : public ::testing::Test {
 protected:
  KronlogWriter::WriterDir::Ptr a_ = KronlogWriter::writerDirFactory("A");
  const Qel::TypeNode* type_ = Qel::typeNode("KronlogRestorer::Config");
};

TEST_F(RestorerConfigTest, EqualityIsIdentityOfTheDirectory) {
  const KronlogRestorer::Config sameName(KronlogWriter::writerDirFactory("A"));
  EXPECT_TRUE(KronlogRestorer::Config(a_) == KronlogRestorer::Config(a_));
  EXPECT_FALSE(KronlogRestorer::Config(a_) != KronlogRestorer::Config(a_));
  EXPECT_FALSE(KronlogRestorer::Config(a_) == sameName);
  EXPECT_TRUE(KronlogRestorer::Config(a_) != sameName);
  EXPECT_TRUE(KronlogRestorer::Config() == KronlogRestorer::Config());
  EXPECT_TRUE(KronlogRestorer::Config(a_) != KronlogRestorer::Config());
}

TEST_F(RestorerConfigTest, ALiveDirectoryOfAnotherTypeCannotBeConverted) {
  Qel::Dir::Ptr plain = Qel::dirFactory("A");
  const std::string text = Qel::valueToStrepOfRawPtr(plain.ptr()).stdString();
  const Qel::DeserializeException e = parseError(text);
  EXPECT_EQ(e.context(), "KronlogWriter::WriterDir");
  EXPECT_EQ(e.message(), "cannot convert " + text + " to KronlogWriter::WriterDir");
}

TEST_F(RestorerConfigTest, UnreadableTextIsADeserializeErrorOfKlDir) {
  std::string stale;
  {
    KronlogWriter::WriterDir::Ptr gone = KronlogWriter::writerDirFactory("gone");
    stale = Qel::valueToStrepOfRawPtr(gone.ptr()).stdString();
  }
  // Every way a pointer form is refused is the framework's; here, that each
  // is reported against the attribute.
  for (const std::string& text : {std::string("garbage"), stale}) {
    SCOPED_TRACE(text);
    const Qel::DeserializeException e = parseError(text);
    EXPECT_EQ(e.context(), "klDir");
    EXPECT_EQ(e.message().view().substr(0, 29), "cannot read attribute klDir: ");
  }
}

// The text form is the framework's pointer form, "None" without a directory;
// both parse back, directly and through reflection, which takes one value.
TEST_F(RestorerConfigTest, TextFormIsThePointerFormAndParsesBackAlsoThroughReflection) {
  const std::string text = KronlogRestorer::valueToStrep(KronlogRestorer::Config(a_)).stdString();
  EXPECT_EQ(text, Qel::valueToStrepOfRawPtr(a_.ptr()));
  std::ostringstream os;
  os << KronlogRestorer::Config(a_);
  EXPECT_EQ(os.str(), text);
  EXPECT_EQ(parse(text), KronlogRestorer::Config(a_));
  EXPECT_EQ(parse("None"), KronlogRestorer::Config());
  const auto boxed = type_->valueFromStrep(text + " ");
  ASSERT_TRUE(boxed);
  EXPECT_EQ(static_cast<Qel::ValueBox<KronlogRestorer::Config>&>(*boxed).value,
            KronlogRestorer::Config(a_));
  EXPECT_EQ(boxed->strep(), text);
  EXPECT_EQ(type_->defaultValue()->strep(), "None");
  try {
    type_->valueFromStrep(text + " x");
    ADD_FAILURE() << "text after the value was accepted";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "end");
  }
}

}  // namespace
}  // namespace KronlogTest
