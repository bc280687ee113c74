// Tests of the reader's surface: the configuration's directory collection,
// what the status's logIs does with pointers, the reader's one-shot life and
// the registrations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/Type.h"

namespace {

using KronlogReader::Config;
using KronlogReader::LogEntry;
using KronlogReader::Status;

// ---- Config

// Records the names its `dir` collection reports as changed.
class RecordingConfig : public Config {
 public:
  void dirNotify(Qel::Name name) override { notified.push_back(name.stdString()); }
  std::vector<std::string> notified;
};

class ConfigTest : public ::testing::Test {
 protected:
  std::vector<std::string> dirNames() const {
    std::vector<std::string> names;
    for (Config::DirIteratorConst it = config_->dirIterConst(); it; ++it) {
      names.push_back(it.value()->name().stdString());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Qel::Ptr<RecordingConfig> config_ = new RecordingConfig;
};

TEST_F(ConfigTest, DirCollectionAddsAndRemovesByNameNotifyingEachName) {
  for (const char* name : {"c", "b", "a"}) config_->dirIs(Qel::dirFactory(name));
  Qel::Dir::Ptr removed = config_->dir("b");
  EXPECT_EQ(config_->dirDel("b"), removed);
  EXPECT_EQ(config_->dirDel("b"), nullptr);
  EXPECT_EQ(dirNames(), (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"c", "b", "a", "b"}));
  config_->notified.clear();
  config_->dirDelAll();
  EXPECT_FALSE(config_->dirIter());
  std::sort(config_->notified.begin(), config_->notified.end());
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"a", "c"}));
}

// A null directory is refused and changes nothing.
TEST_F(ConfigTest, DirIsIgnoresTheSameDirRefusesNullAndReplacesAnotherOfTheSameName) {
  Qel::Dir::Ptr first = Qel::dirFactory("agents");
  Qel::Dir::Ptr second = Qel::dirFactory("agents");
  config_->dirIs(first);
  config_->dirIs(first);
  try {
    config_->dirIs(nullptr);
    ADD_FAILURE() << "dirIs(null) returned";
  } catch (const Qel::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _dir parameter to mutator for KronlogReader::Config::dir not allowed\"");
  }
  EXPECT_EQ(config_->dir("agents"), first);
  EXPECT_EQ(config_->notified, std::vector<std::string>{"agents"});
  config_->dirIs(second);
  EXPECT_EQ(config_->dirs(), 1u);
  EXPECT_EQ(config_->dir("agents"), second);
  EXPECT_EQ(config_->dirIter().value(), second.ptr());
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"agents", "agents"}));
}

// Const iterators and range-for over const maps hand out const values.
static_assert(std::is_same_v<decltype(*std::declval<Config::DirIteratorConst>()), const Qel::Dir&>);
static_assert(
    std::is_same_v<decltype(*std::declval<const Config::DirMap&>().begin()), const Qel::Dir&>);
static_assert(
    std::is_same_v<decltype(*std::declval<Qel::Dir::EntityIteratorConst>()), const Qel::Entity&>);
static_assert(std::is_same_v<decltype(*std::declval<const Qel::Dir&>().entityMap().begin()),
                             const Qel::Entity&>);

// ---- Status: logIs holds entries by pointer (the accessors every owner
// shares are tested in LogAttributeTest.cpp). On a status holding a, b, c
// at 0, 1, 2: `message` null hands logIs a null entry, "b" the entry at 1.

struct StatusLogIsCase {
  unsigned index;
  const char* message;
  std::vector<std::string> after;
  std::vector<unsigned> notified;
  std::uint32_t versionDelta;  // replacing in place leaves the version
};

TEST(StatusTest, LogIsInsertsReplacesInPlaceOrRemoves) {
  struct Heard : Status {
    void logNotify(unsigned int index) override { notified.push_back(index); }
    std::vector<unsigned> notified;
  };
  auto entry = [](const char* m) { return KronlogReader::logEntryFactory("a", "g", 1.0, m); };
  const StatusLogIsCase cases[] = {
      {5, "f", {"0a", "1b", "2c", "5f"}, {5}, 1}, {1, "B", {"0a", "1B", "2c"}, {1}, 0},
      {0, "a", {"0a", "1b", "2c"}, {0}, 0},  // equal but distinct
      {1, "b", {"0a", "1b", "2c"}, {}, 0},        {1, nullptr, {"0a", "2c"}, {1}, 1},
      {7, nullptr, {"0a", "1b", "2c"}, {}, 0}};
  for (const StatusLogIsCase& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.index << " " << (c.message ? c.message : "null"));
    Qel::Ptr<Heard> status = new Heard;
    for (const char* m : {"a", "b", "c"}) status->logEnq(entry(m));
    status->notified.clear();
    const std::uint32_t version = status->logQueue().version();
    LogEntry::Ptr e = !c.message                      ? nullptr
                      : std::string(c.message) == "b" ? status->log(1)
                                                      : entry(c.message);
    status->logIs(c.index, e);
    std::vector<std::string> rows;
    for (const auto& m : status->logQueue()) {
      rows.push_back(std::to_string(m.index()) + m.value()->message().stdString());
    }
    EXPECT_EQ(rows, c.after);
    EXPECT_EQ(status->notified, c.notified);
    EXPECT_EQ(status->logQueue().version() - version, c.versionDelta);
    EXPECT_EQ(status->log(c.index), e);
  }
}

// ---- Reader

class ReaderLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Qel::Dir::Ptr agents = Qel::dirFactory("agents");
    KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory("agent");
    agents->entityIs(agent);
    agent->writerIs("group", KronlogWriter::Config())->logEnq(KronlogWriter::LogEntry(1.0, "m"));
    config_->dirIs(agents);
  }

  Config::Ptr config_ = KronlogReader::configFactory();
  Status::Ptr status_ = KronlogReader::statusFactory();
};

TEST_F(ReaderLifecycleTest, FactoryReturnsInitializedReaderAfterFillingStatusAndRereadsOnRequest) {
  KronlogReader::Reader::Ptr reader = KronlogReader::readerFactory(config_, status_);
  EXPECT_TRUE(reader->initialized());
  EXPECT_EQ(status_->logs(), 1u);
  EXPECT_EQ(reader->config(), config_);
  EXPECT_EQ(reader->status(), status_);
  reader->initializedIs(false);
  reader->handleInitialized();
  EXPECT_TRUE(reader->initialized());
  Qel::typeNode("KronlogReader::Reader")->operationDo(*reader, "doRead");
  EXPECT_EQ(status_->logs(), 3u);
}

// ---- Reflection

TEST_F(ReaderLifecycleTest, TypesAreRegisteredInOrderAndReadTheAttributes) {
  config_->agentPatternIs("bgp|ospf");
  config_->minTimestampIs(2.5);
  KronlogReader::Reader::Ptr reader = KronlogReader::readerFactory(config_, status_);
  LogEntry::Ptr entry = KronlogReader::logEntryFactory("bgp", "peer", 1.5, "down");
  const Qel::TypeNode* entryType = Qel::typeNode("KronlogReader::LogEntry");
  const Qel::TypeNode* configType = Qel::typeNode("KronlogReader::Config");
  ASSERT_TRUE(entryType && configType && reader->fwkType());
  EXPECT_EQ(entryType->attribute(*entry, "agentName"), "'bgp'");
  EXPECT_EQ(entryType->attribute(*entry, "timestamp"), "1.5");
  EXPECT_EQ(entryType->attribute(*entry, "message"), "'down'");
  EXPECT_EQ(configType->attribute(*config_, "agentPattern"), "'bgp|ospf'");
  EXPECT_EQ(configType->attribute(*config_, "minTimestamp"), "2.5");
  EXPECT_EQ(configType->attribute(*config_, "maxTimestamp"), "inf");
  EXPECT_EQ(reader->fwkType()->attribute(*reader, "initialized"), "true");
  std::vector<std::string> registered;
  for (const Qel::TypeNode* t : Qel::typeNodes()) {
    if (t->name().view().substr(0, 15) == "KronlogReader::")
      registered.push_back(t->name().stdString());
  }
  EXPECT_EQ(registered,
            (std::vector<std::string>{"KronlogReader::Status", "KronlogReader::Reader",
                                      "KronlogReader::LogEntry", "KronlogReader::Config"}));
}

}  // namespace
