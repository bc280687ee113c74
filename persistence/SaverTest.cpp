// Tests of the saver: one read over a configuration written to the store
// file at construction, the early returns that leave the file alone, and
// that doSave again starts afresh.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/Type.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

constexpr char kDoSave[] = "void KronlogSaver::Saver::doSave()";

class SaverTest : public PersistenceTest {
 protected:
  static Seen saverTrace(int line, const std::string& text = "") {
    return Seen{0, "KronlogSaver", line, "doSave", kDoSave + text};
  }
  void SetUp() override {
    PersistenceTest::SetUp();
    agents_ = Qel::dirFactory("agents");
    config_ = KronlogReader::configFactory();
    config_->dirIs(agents_);
  }

  // Appends {timestamp, message} to writer `group` of agent `agent`,
  // creating both when missing.
  void event(const char* agent, const char* group, double timestamp, const char* message) {
    KronlogWriter::WriterDir* dir = dynamic_cast<KronlogWriter::WriterDir*>(agents_->entity(agent));
    if (!dir) {
      KronlogWriter::WriterDir::Ptr created = KronlogWriter::writerDirFactory(agent);
      agents_->entityIs(created);
      dir = created.ptr();
    }
    dir->writerIs(group, KronlogWriter::Config())
        ->logEnq(KronlogWriter::LogEntry(timestamp, message));
  }

  KronlogSaver::Saver::Ptr save() { return KronlogSaver::saverFactory(config_); }
  // Saves over a fresh configuration of the directory, changed by `configure`.
  KronlogSaver::Saver::Ptr saveWith(const std::function<void(KronlogReader::Config&)>& configure) {
    KronlogReader::Config::Ptr config = KronlogReader::configFactory();
    config->dirIs(agents_);
    configure(*config);
    clearTraces();
    return KronlogSaver::saverFactory(config);
  }

  Qel::Dir::Ptr agents_;
  KronlogReader::Config::Ptr config_;
};

TEST_F(SaverTest, SavesTheMergedReadOfEveryAgent) {
  event("A", "g", 1, "a1");
  event("A", "g", 3, "a3");
  event("B", "h", 2, "b2");
  EXPECT_TRUE(save()->initialized());
  EXPECT_EQ(
      readStoreFile(),
      "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":["
      "{\"timestamp\":1.0,\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":\"a1\"},"
      "{\"timestamp\":2.0,\"agentName\":\"B\",\"messageGroup\":\"h\",\"message\":\"b2\"},"
      "{\"timestamp\":3.0,\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":\"a3\"}]}\n");
  EXPECT_EQ(tracesOf("KronlogSaver"), std::vector<Seen>{saverTrace(19)});
}

TEST_F(SaverTest, NoDirectoriesMeansExactlyTwoTracesAndNoFile) {
  config_->dirDelAll();
  EXPECT_TRUE(save()->initialized());
  EXPECT_EQ(traces(), (std::vector<Seen>{saverTrace(19),
                                         saverTrace(22, " No dirs to save in the given config.")}));
  EXPECT_FALSE(fs::exists(storePath()));
}

// Each configuration reads nothing (the idle agent's writer is empty); the
// earlier store survives each byte for byte. (What patterns and windows
// select is the read's, in ReadTest.)
TEST_F(SaverTest, NothingReadKeepsTheEarlierStore) {
  event("Bgp", "peer", 10, "m");
  event("Ospf", "adjacency", 20, "n");
  KronlogWriter::WriterDir::Ptr idle = KronlogWriter::writerDirFactory("Idle");
  idle->writerIs("empty", KronlogWriter::Config());
  agents_->entityIs(idle);
  store({{"kept", "g", 1, "kept"}});
  const std::string earlier = readStoreFile();
  const std::vector<std::pair<const char*, std::function<void(KronlogReader::Config&)>>> cases = {
      {"agent pattern matches whole names only", [](auto& c) { c.agentPatternIs("Bg|sp"); }},
      {"window between", [](auto& c) { c.minTimestampIs(11), c.maxTimestampIs(19); }},
      {"directory without agents", [](auto& c) { c.dirDelAll(), c.dirIs(Qel::dirFactory("no")); }},
  };
  for (const auto& [name, configure] : cases) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(saveWith(configure)->initialized());
    EXPECT_EQ(tracesOf("KronlogSaver"),
              (std::vector<Seen>{saverTrace(19), saverTrace(31, " No events to save.")}));
    EXPECT_TRUE(tracesOf("KronlogStore").empty());
    EXPECT_EQ(readStoreFile(), earlier);
  }
}

// Nothing escapes to the agent.
TEST_F(SaverTest, ABadPatternIsTracedByNameAndKeepsTheEarlierStore) {
  event("A", "g", 1, "m");
  store({{"kept", "g", 1, "kept"}});
  const std::string earlier = readStoreFile();
  const std::pair<std::function<void(KronlogReader::Config&)>, std::string> cases[] = {
      {[](auto& c) { c.agentPatternIs("Bgp("); }, " Bad agentPattern 'Bgp(': "},
      {[](auto& c) { c.messageGroupPatternIs("[peer"); }, " Bad messageGroupPattern '[peer': "},
  };
  for (const auto& [configure, text] : cases) {
    SCOPED_TRACE(text);
    EXPECT_TRUE(saveWith(configure)->initialized());
    const std::vector<Seen> seen = tracesOf("KronlogSaver");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], saverTrace(19));
    EXPECT_EQ(seen[1].line, 26);
    EXPECT_EQ(seen[1].text.rfind(kDoSave + text, 0), 0u) << seen[1].text;
    EXPECT_EQ(seen[1].text.substr(seen[1].text.size() - 16), "; nothing saved.");
    EXPECT_EQ(readStoreFile(), earlier);
  }
}

// A status kept from the first save would store "first" twice.
TEST_F(SaverTest, DoSaveThroughReflectionSavesAfreshWithTheSameConfiguration) {
  event("A", "g", 1, "first");
  KronlogSaver::Saver::Ptr saver = save();
  event("A", "g", 2, "second");
  const Qel::TypeNode* type = Qel::typeNode("KronlogSaver::Saver");
  type->operationDo(*saver, "doSave");
  EXPECT_EQ(saver->config(), config_);
  EXPECT_EQ(type->attribute(*saver, "initialized"), "true");
  traceLevels(0);
  EXPECT_EQ(restore(), (std::vector<Row>{{"A", "g", 1, "first"}, {"A", "g", 2, "second"}}));
}

}  // namespace
}  // namespace KronlogTest
