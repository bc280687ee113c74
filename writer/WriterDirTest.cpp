// Tests of the writer directory: get-or-create and its refusal of another
// configuration, removal, renaming from a backup, const iteration, lifetimes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Exception.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::Writer;
using KronlogWriter::WriterDir;
using Strings = std::vector<std::string>;

// Const iterators and range-for over a const map hand out const writers.
static_assert(
    std::is_same_v<decltype(*std::declval<WriterDir::WriterIteratorConst>()), const Writer&>);
static_assert(
    std::is_same_v<decltype(*std::declval<const WriterDir::WriterMap&>().begin()), const Writer&>);
static_assert(std::is_same_v<decltype(*std::declval<WriterDir::WriterIterator>()), Writer&>);

// Hears a directory's onWriter notifications, in order.
class DirRecorder : public WriterDir::Notifiee {
 public:
  explicit DirRecorder(const WriterDir::Ptr& d) { notifierIs(d); }
  using WriterDir::Notifiee::onWriter;
  void onWriter(const Qel::Name& name) override { heard.push_back(name.stdString()); }
  Strings heard;
};

class WriterDirTest : public ::testing::Test {
 protected:
  WriterDirTest() : dir_(KronlogWriter::writerDirFactory("Bgp")), heard_(dir_) {}

  Writer::Ptr add(const std::string& name, const Config& config = Config()) {
    return dir_->writerIs(Qel::Name(name), config);
  }

  // A writer holding two entries and an overflow count of 3.
  Writer::Ptr busy(const char* name, const Config& config) {
    Writer::Ptr w = add(name, config);
    w->eventIs("one");
    w->eventIs("two");
    w->overflowCountIs(3);
    return w;
  }

  Strings heard() const { return heard_.heard; }

  WriterDir::Ptr dir_;
  DirRecorder heard_;
};

// ---- writerIs and newWriter

// writerIs notifies the new name; newWriter, the raw step, does not.
TEST_F(WriterDirTest, NewWriterHasTheConfigTheDirectoryAsParentAndIsFoundByExactName) {
  Writer::Ptr a = dir_->writerIs("a", Config(4, keepFirstEntries));
  Writer::Ptr b = dir_->newWriter("b", Config(4, keepFirstEntries));
  for (const Writer::Ptr& w : {a, b}) {
    EXPECT_EQ(dir_->writer(w->name()), w);
    EXPECT_EQ(w->config(), Config(4, keepFirstEntries));
    EXPECT_EQ(w->parent(), dir_.ptr());
    EXPECT_EQ(w->parentAttr(), "writer");
  }
  EXPECT_FALSE(dir_->writer("A"));
  EXPECT_EQ(heard(), Strings{"a"});
}

// The same name and configuration is the same writer; another configuration
// is refused. Either way writer and directory stay as they were.
TEST_F(WriterDirTest, SameNameReturnsTheWriterUntouchedOrRefusesAnotherConfig) {
  Writer::Ptr w = busy("w", Config(10, keepLastEntries));
  EXPECT_EQ(add("w", Config(10, keepLastEntries)), w);
  EXPECT_THROW(add("w", Config(5, keepLastEntries)), Qel::NameInUseException);
  EXPECT_THROW(add("w", Config(10, keepFirstEntries)), Qel::NameInUseException);
  EXPECT_THROW(dir_->newWriter("w", Config(10, keepLastEntries)), Qel::NameInUseException);
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_EQ(dir_->writers(), 1u);
  EXPECT_EQ(w->config(), Config(10, keepLastEntries));
  EXPECT_EQ(w->logs(), 2u);
  EXPECT_EQ(w->overflowCount(), 3u);
  EXPECT_EQ(heard(), (Strings{"w"}));
}

// ---- writerDel and writerDelAll

TEST_F(WriterDirTest, DelRemovesReturnsUnparentsAndNotifiesButAnAbsentNameIsSilent) {
  EXPECT_FALSE(dir_->writerDel("w"));
  Writer::Ptr w = busy("w", Config(10, keepLastEntries));
  EXPECT_FALSE(dir_->writerDel("v"));
  EXPECT_EQ(dir_->writerDel("w"), w);
  EXPECT_FALSE(dir_->writer("w"));
  EXPECT_EQ(w->parent(), nullptr);
  EXPECT_EQ(w->logs(), 2u);
  EXPECT_EQ(heard(), (Strings{"w", "w"}));
}

TEST_F(WriterDirTest, DelByIteratorRemovesTheWriterUnderItAndNothingAtTheEnd) {
  add("a");
  add("b");
  WriterDir::WriterIterator it = dir_->writerIter();
  const std::string under = it->name().stdString();
  EXPECT_EQ(dir_->writerDel(it)->name(), under);
  EXPECT_EQ(heard().back(), under);
  while (it) ++it;
  EXPECT_FALSE(dir_->writerDel(it));
  EXPECT_EQ(dir_->writers(), 1u);
}

// ---- nameIsFromBackup: the writer stays under its old key.

TEST_F(WriterDirTest, RenamedWritersAreStillFoundAndRemovedUnderTheirKeys) {
  std::vector<Writer::Ptr> all;
  for (int k = 0; k < 64; ++k) all.push_back(add("w" + std::to_string(k)));
  for (int k = 0; k < 64; k += 2) all[k]->nameIsFromBackup("zz" + std::to_string(k));
  EXPECT_EQ(all[0]->name(), "zz0");
  EXPECT_EQ(dir_->writer("zz0"), nullptr);
  for (int k = 0; k < 64; ++k) EXPECT_EQ(dir_->writer("w" + std::to_string(k)), all[k]) << k;
  dir_->writerDelAll();
  EXPECT_EQ(heard().size(), 128u);
  EXPECT_TRUE(dir_->writers() == 0 && !all[0]->parent() && !all[1]->parent());
}

TEST(WriterDirLifetimeTest, RemovedWritersAndDroppedDirectoriesAreReleasedButHeldOnesOutlive) {
  const std::uint64_t writers = Qel::liveObjects("KronlogWriter::Writer");
  const std::uint64_t nodes = Qel::liveObjects("KronlogWriter::Writer::QelLog");
  const std::uint64_t dirs = Qel::liveObjects("KronlogWriter::WriterDir");
  Writer::Ptr kept;
  {
    WriterDir::Ptr d = KronlogWriter::writerDirFactory("d");
    for (const char* n : {"a", "b", "c"}) d->writerIs(n, Config(2, keepLastEntries))->eventIs("e");
    d->writerDel("a");
    EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer"), writers + 2);
    kept = d->writer("b");
  }
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->logs(), 1u);
  kept = nullptr;
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer"), writers);
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer::QelLog"), nodes);
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::WriterDir"), dirs);
}

// ---- The name-in-use message: requested configuration first, current
// second, the name in its quoted text form.

TEST_F(WriterDirTest, ConflictMessageNamesRequestedThenCurrentConfig) {
  const std::tuple<const char*, Config, Config, const char*> cases[] = {
      {"w", Config(10, keepLastEntries), Config(5, keepLastEntries),
       "Reinstantiating the entity with name 'w' where constructor parameter attribute "
       "_config has a different value of Value('KronlogWriter::Config', ** {'size': 5, "
       "'overflowAction': keepLastEntries}) than the current value of "
       "Value('KronlogWriter::Config', ** {'size': 10, 'overflowAction': keepLastEntries}) "
       "not allowed"},
      {"it's", Config(1, keepFirstEntries), Config(2, keepFirstEntries),
       "Reinstantiating the entity with name 'it\\'s' where constructor parameter attribute "
       "_config has a different value of Value('KronlogWriter::Config', ** {'size': 2, "
       "'overflowAction': keepFirstEntries}) than the current value of "
       "Value('KronlogWriter::Config', ** {'size': 1, 'overflowAction': keepFirstEntries}) "
       "not allowed"}};
  for (const auto& [name, current, requested, message] : cases) {
    add(name, current);
    try {
      add(name, requested);
      ADD_FAILURE() << "no NameInUseException for " << name;
    } catch (const Qel::NameInUseException& e) {
      EXPECT_STREQ(e.what(), message);
    }
  }
}

}  // namespace
