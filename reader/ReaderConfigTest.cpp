// Tests of the reader's surface: the configuration's directory collection,
// the status log, the reader's one-shot life and the reflection registrations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <regex>
#include <string>
#include <tuple>
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
    for (Config::DirIterator it = config_->dirIter(); it; ++it) {
      names.push_back(it.value()->name().stdString());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Qel::Ptr<RecordingConfig> config_ = new RecordingConfig;
};

TEST_F(ConfigTest, FreshConfigHasNoDirsMatchAllPatternsAndWindowFromZeroToInfinity) {
  Config::Ptr fresh = KronlogReader::configFactory();
  EXPECT_EQ(fresh->dirs(), 0u);
  EXPECT_FALSE(fresh->dirIter());
  EXPECT_EQ(fresh->agentPattern(), ".*");
  EXPECT_EQ(fresh->messageGroupPattern(), ".*");
  EXPECT_EQ(fresh->minTimestamp(), 0.0);
  EXPECT_FALSE(std::signbit(fresh->minTimestamp()));
  EXPECT_EQ(fresh->maxTimestamp(), std::numeric_limits<double>::infinity());
}

TEST_F(ConfigTest, DirIsAddsDirectoriesUnderTheirNames) {
  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  for (const char* name : {"c", "b"}) config_->dirIs(Qel::dirFactory(name));
  config_->dirIs(agents);
  EXPECT_EQ(config_->dir("agents"), agents);
  EXPECT_EQ(dirNames(), (std::vector<std::string>{"agents", "b", "c"}));
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"c", "b", "agents"}));
}

TEST_F(ConfigTest, DirIsIgnoresTheSameDirButReplacesWithAnotherOfTheSameName) {
  Qel::Dir::Ptr first = Qel::dirFactory("agents");
  Qel::Dir::Ptr second = Qel::dirFactory("agents");
  config_->dirIs(first);
  config_->dirIs(first);
  EXPECT_EQ(config_->notified, std::vector<std::string>{"agents"});
  config_->dirIs(second);
  EXPECT_EQ(config_->dirs(), 1u);
  EXPECT_EQ(config_->dir("agents"), second);
  EXPECT_EQ(config_->dirIter().value(), second.ptr());
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"agents", "agents"}));
}

TEST_F(ConfigTest, DirIsNullThrowsRangeExceptionAndLeavesCollection) {
  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  config_->dirIs(agents);
  try {
    config_->dirIs(nullptr);
    FAIL() << "dirIs(null) returned";
  } catch (const Qel::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _dir parameter to mutator for KronlogReader::Config::dir not allowed\"");
  }
  EXPECT_EQ(config_->dirs(), 1u);
  EXPECT_EQ(config_->dir("agents"), agents);
  EXPECT_EQ(config_->notified, std::vector<std::string>{"agents"});
}

TEST_F(ConfigTest, DirDelByNameReturnsDirAndRemovesItOrNullWhenAbsent) {
  Qel::Dir::Ptr kept = Qel::dirFactory("kept");
  Qel::Dir::Ptr removed = Qel::dirFactory("removed");
  config_->dirIs(kept);
  config_->dirIs(removed);
  EXPECT_EQ(config_->dirDel("removed"), removed);
  EXPECT_EQ(config_->dirDel("removed"), nullptr);
  EXPECT_EQ(config_->dir("removed"), nullptr);
  EXPECT_EQ(dirNames(), std::vector<std::string>{"kept"});
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"kept", "removed", "removed"}));
}

TEST_F(ConfigTest, DirDelAllRemovesEveryMember) {
  for (const char* name : {"a", "b", "c", "d"}) config_->dirIs(Qel::dirFactory(name));
  config_->notified.clear();
  config_->dirDelAll();
  EXPECT_EQ(config_->dirs(), 0u);
  EXPECT_FALSE(config_->dirIter());
  std::sort(config_->notified.begin(), config_->notified.end());
  EXPECT_EQ(config_->notified, (std::vector<std::string>{"a", "b", "c", "d"}));
}

// ---- Status

// Records the indices its log reports as changed.
class RecordingStatus : public Status {
 public:
  void logNotify(unsigned int index) override { notified.push_back(index); }
  std::vector<unsigned int> notified;
};

class StatusLogTest : public ::testing::Test {
 protected:
  static LogEntry::Ptr entry(const char* message) {
    return KronlogReader::logEntryFactory("agent", "group", 1.0, message);
  }
  // (index, message) of every entry, oldest first.
  std::vector<std::tuple<unsigned int, std::string>> statusRows() const {
    std::vector<std::tuple<unsigned int, std::string>> rows;
    for (Status::LogIteratorConst it = status_->logIterConst(); it; ++it) {
      rows.emplace_back(it.index(), it->value()->message().stdString());
    }
    return rows;
  }
  void fill(std::initializer_list<const char*> messages) {
    for (const char* m : messages) status_->logEnq(entry(m));
    status_->notified.clear();
  }

  Qel::Ptr<RecordingStatus> status_ = new RecordingStatus;
};

using Rows = std::vector<std::tuple<unsigned int, std::string>>;

TEST_F(StatusLogTest, LogEnqTakesIndicesZeroOneTwoAndAbsentIndicesAreNull) {
  LogEntry::Ptr a = entry("a"), b = entry("b"), c = entry("c");
  for (const LogEntry::Ptr& e : {a, b, c}) status_->logEnq(e);
  EXPECT_EQ(statusRows(), (Rows{{0, "a"}, {1, "b"}, {2, "c"}}));
  EXPECT_EQ(status_->log(1), b);
  EXPECT_EQ((*status_)[2], c);
  EXPECT_EQ(status_->log(3), nullptr);
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(0, 3));
  EXPECT_EQ(status_->notified, (std::vector<unsigned int>{0, 1, 2}));
}

TEST_F(StatusLogTest, LogDeqReturnsOldestAndIndicesAreNotReused) {
  fill({"a", "b"});
  EXPECT_EQ(status_->logDeq()->message(), "a");
  status_->logEnq(entry("c"));
  EXPECT_EQ(statusRows(), (Rows{{1, "b"}, {2, "c"}}));
  status_->logDeq();
  status_->logDeq();
  status_->logEnq(entry("d"));
  EXPECT_EQ(statusRows(), (Rows{{3, "d"}}));
  EXPECT_EQ(status_->notified, (std::vector<unsigned int>{0, 2, 1, 2, 3}));
}

TEST_F(StatusLogTest, LogDeqOnEmptyReturnsNullAndNotifiesNothing) {
  EXPECT_EQ(status_->logDeq(), nullptr);
  EXPECT_TRUE(status_->notified.empty());
}

TEST_F(StatusLogTest, LogIsAtAbsentIndexInserts) {
  fill({"a"});
  status_->logIs(5, entry("five"));
  status_->logEnq(entry("next"));
  EXPECT_EQ(statusRows(), (Rows{{0, "a"}, {5, "five"}, {6, "next"}}));
  EXPECT_EQ(status_->notified, (std::vector<unsigned int>{5, 6}));
}

TEST_F(StatusLogTest, LogIsAtPresentIndexReplacesInPlace) {
  fill({"a", "b", "c"});
  LogEntry::Ptr replacement = entry("B");
  status_->logIs(1, replacement);
  EXPECT_EQ(statusRows(), (Rows{{0, "a"}, {1, "B"}, {2, "c"}}));
  EXPECT_EQ(status_->log(1), replacement);
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(0, 3));
  EXPECT_EQ(status_->notified, std::vector<unsigned int>{1});
}

TEST_F(StatusLogTest, LogIsNullRemovesEntryAndIgnoresAbsentIndex) {
  fill({"a", "b", "c"});
  status_->logIs(1, nullptr);
  status_->logIs(7, nullptr);
  EXPECT_EQ(statusRows(), (Rows{{0, "a"}, {2, "c"}}));
  EXPECT_EQ(status_->notified, std::vector<unsigned int>{1});
}

TEST_F(StatusLogTest, LogIsWithSamePointerIsNoOpButEqualDistinctEntryReplaces) {
  fill({"a", "b"});
  status_->logIs(1, status_->log(1));
  EXPECT_TRUE(status_->notified.empty());
  LogEntry::Ptr twin = entry("a");
  status_->logIs(0, twin);
  EXPECT_EQ(status_->log(0), twin);
  EXPECT_EQ(status_->notified, std::vector<unsigned int>{0});
}

TEST_F(StatusLogTest, LogDelByIndexReturnsEntryOrNullWhenAbsent) {
  fill({"a", "b", "c"});
  EXPECT_EQ(status_->logDel(1)->message(), "b");
  EXPECT_EQ(status_->logDel(4), nullptr);
  EXPECT_EQ(statusRows(), (Rows{{0, "a"}, {2, "c"}}));
  EXPECT_EQ(status_->notified, std::vector<unsigned int>{1});
}

TEST_F(StatusLogTest, LogDelAllRemovesEveryEntryNotifyingEach) {
  fill({"a", "b", "c"});
  status_->logDelAll();
  EXPECT_EQ(status_->logs(), 0u);
  EXPECT_EQ(status_->notified, (std::vector<unsigned int>{0, 1, 2}));
}

TEST_F(StatusLogTest, LogMetadataIsSetsHeadAndNextIndex) {
  status_->logMetadataIs(Status::LogMetadata(7, 7));
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(7, 7));
  status_->logEnq(entry("a"));
  EXPECT_EQ(statusRows(), (Rows{{7, "a"}}));
  EXPECT_EQ(status_->logMetadata(), Status::LogMetadata(7, 8));
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

TEST_F(ReaderLifecycleTest, FactoryReturnsInitializedReaderAfterFillingStatus) {
  KronlogReader::Reader::Ptr reader = KronlogReader::readerFactory(config_, status_);
  EXPECT_TRUE(reader->initialized());
  EXPECT_EQ(status_->logs(), 1u);
  EXPECT_EQ(reader->config(), config_);
  EXPECT_EQ(reader->status(), status_);
}

TEST_F(ReaderLifecycleTest, HandleInitializedAndDoReadEachAppendAnotherRun) {
  KronlogReader::Reader::Ptr reader = KronlogReader::readerFactory(config_, status_);
  reader->initializedIs(false);
  reader->handleInitialized();
  EXPECT_TRUE(reader->initialized());
  Qel::typeNode("KronlogReader::Reader")->operationDo(*reader, "doRead");
  EXPECT_EQ(status_->logs(), 3u);
}

TEST_F(ReaderLifecycleTest, FailedReadCreatesNoReader) {
  config_->agentPatternIs("(");
  KronlogReader::Reader::Ptr reader;
  EXPECT_THROW(reader = KronlogReader::readerFactory(config_, status_), std::regex_error);
  EXPECT_EQ(reader, nullptr);
  EXPECT_EQ(Qel::liveObjects("KronlogReader::Reader"), 0u);
}

// ---- Reflection

TEST(ReflectionTest, ReaderTypesAreRegisteredStatusReaderLogEntryConfig) {
  std::vector<std::string> registered;
  for (const Qel::TypeNode* t : Qel::typeNodes()) {
    if (t->name().view().substr(0, 15) == "KronlogReader::")
      registered.push_back(t->name().stdString());
  }
  EXPECT_EQ(registered,
            (std::vector<std::string>{"KronlogReader::Status", "KronlogReader::Reader",
                                      "KronlogReader::LogEntry", "KronlogReader::Config"}));
}

TEST_F(ReaderLifecycleTest, RegisteredTypesReadTheAttributes) {
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
}

}  // namespace
