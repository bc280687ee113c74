// Tests of the writer directory: get-or-create with its refusal of a
// conflicting configuration, removal with its notifications and parent
// links, renaming from a backup, and what a dropped directory releases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Exception.h"
#include "qel/Type.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::Writer;
using KronlogWriter::WriterDir;
using Strings = std::vector<std::string>;

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

  Strings sorted(Strings s) const {
    std::sort(s.begin(), s.end());
    return s;
  }

  WriterDir::Ptr dir_;
  DirRecorder heard_;
};

// ---- writerIs

class WriterIsTest : public WriterDirTest {};

TEST_F(WriterIsTest, SameNameAndConfigReturnsTheSameWriterUntouchedAndNotifiesOnce) {
  Writer::Ptr first = busy("w", Config(10, keepLastEntries));
  Writer::Ptr second = add("w", Config(10, keepLastEntries));
  EXPECT_EQ(first, second);
  EXPECT_EQ(second->logs(), 2u);
  EXPECT_EQ(second->overflowCount(), 3u);
  EXPECT_EQ(dir_->writers(), 1u);
  EXPECT_EQ(heard(), (Strings{"w"}));
}

TEST_F(WriterIsTest, NewWriterHasTheConfigTheDirectoryAsParentAndIsFoundByExactName) {
  Writer::Ptr w = add("w", Config(4, keepFirstEntries));
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_FALSE(dir_->writer("W"));
  EXPECT_EQ(w->config(), Config(4, keepFirstEntries));
  EXPECT_EQ(w->parent(), dir_.ptr());
  EXPECT_EQ(w->parentAttr(), "writer");
}

TEST_F(WriterIsTest, ConflictLeavesWriterAndDirectoryAsTheyWere) {
  Writer::Ptr w = busy("w", Config(10, keepLastEntries));
  EXPECT_THROW(add("w", Config(5, keepLastEntries)), Qel::NameInUseException);
  EXPECT_THROW(add("w", Config(10, keepFirstEntries)), Qel::NameInUseException);
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_EQ(w->config(), Config(10, keepLastEntries));
  EXPECT_EQ(w->logs(), 2u);
  EXPECT_EQ(w->overflowCount(), 3u);
  EXPECT_EQ(heard(), (Strings{"w"}));
}

// ---- newWriter

class NewWriterTest : public WriterDirTest {};

TEST_F(NewWriterTest, CreatesAndLinksWithoutNotifying) {
  Writer::Ptr w = dir_->newWriter("w", Config(3, keepLastEntries));
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_EQ(w->parent(), dir_.ptr());
  EXPECT_EQ(w->parentAttr(), "writer");
  EXPECT_TRUE(heard().empty());
}

TEST_F(NewWriterTest, TakenNameIsRefusedAndTheFirstWriterStays) {
  Writer::Ptr w = busy("w", Config(10, keepLastEntries));
  EXPECT_THROW(dir_->newWriter("w", Config(10, keepLastEntries)), Qel::NameInUseException);
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_EQ(w->logs(), 2u);
  EXPECT_EQ(dir_->writers(), 1u);
}

// ---- writerDel and writerDelAll

class WriterDelTest : public WriterDirTest {};

TEST_F(WriterDelTest, AbsentNameReturnsNullAndIsSilent) {
  EXPECT_FALSE(dir_->writerDel("a"));
  dir_->writerDelAll();
  add("a");
  EXPECT_FALSE(dir_->writerDel("b"));
  EXPECT_EQ(dir_->writers(), 1u);
  EXPECT_EQ(heard(), (Strings{"a"}));
}

TEST_F(WriterDelTest, RemovesReturnsUnparentsAndNotifiesKeepingTheWritersState) {
  Writer::Ptr w = busy("w", Config(10, keepLastEntries));
  EXPECT_EQ(dir_->writerDel("w"), w);
  EXPECT_FALSE(dir_->writer("w"));
  EXPECT_EQ(w->parent(), nullptr);
  EXPECT_EQ(w->logs(), 2u);
  EXPECT_EQ(heard(), (Strings{"w", "w"}));
}

TEST_F(WriterDelTest, DelAllOnThreeWritersNotifiesEachNameOnceAndEmpties) {
  Writer::Ptr a = add("a"), b = add("b"), c = add("c");
  dir_->writerDelAll();
  const Strings h = heard();
  ASSERT_EQ(h.size(), 6u);
  EXPECT_EQ(sorted(Strings(h.begin() + 3, h.end())), (Strings{"a", "b", "c"}));
  EXPECT_EQ(dir_->writers(), 0u);
  EXPECT_FALSE(dir_->writerIter());
  EXPECT_TRUE(!a->parent() && !b->parent() && !c->parent());
}

TEST_F(WriterDelTest, DelByIteratorRemovesTheWriterUnderIt) {
  add("a");
  add("b");
  WriterDir::WriterIterator it = dir_->writerIter();
  const std::string under = it->name().stdString();
  EXPECT_EQ(dir_->writerDel(it)->name(), under);
  EXPECT_FALSE(dir_->writer(under));
  EXPECT_EQ(dir_->writers(), 1u);
  EXPECT_EQ(heard().back(), under);
  WriterDir::WriterIterator end = dir_->writerIter();
  while (end) ++end;
  EXPECT_FALSE(dir_->writerDel(end));
  EXPECT_EQ(dir_->writers(), 1u);
}

TEST_F(WriterDelTest, IterationSurvivesDeletingEachWriterUnderIt) {
  const Strings names{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"};
  for (const std::string& n : names) add(n.c_str());
  Strings visited;
  for (WriterDir::WriterIterator it = dir_->writerIter(); it; ++it) {
    visited.push_back(it->name().stdString());
    dir_->writerDel(it);
  }
  EXPECT_EQ(sorted(visited), names);
  EXPECT_EQ(dir_->writers(), 0u);
}

// ---- nameIsFromBackup

class NameFromBackupTest : public WriterDirTest {};

TEST_F(NameFromBackupTest, RenamedWriterIsStillFoundAndRemovedUnderItsKey) {
  Writer::Ptr w = add("w");
  w->nameIsFromBackup("v");
  EXPECT_EQ(w->name(), "v");
  EXPECT_EQ(heard(), (Strings{"w"}));
  EXPECT_EQ(dir_->writer("w"), w);
  EXPECT_EQ(dir_->writer("v"), nullptr);
  EXPECT_EQ(dir_->writerDel("w"), w);
  EXPECT_EQ(w->parent(), nullptr);
}

TEST_F(NameFromBackupTest, RenamingOneWriterDoesNotHideTheOthers) {
  std::vector<Writer::Ptr> all;
  for (int k = 0; k < 64; ++k) all.push_back(add("w" + std::to_string(k)));
  for (int k = 0; k < 64; k += 2) all[k]->nameIsFromBackup("zz" + std::to_string(k));
  for (int k = 0; k < 64; ++k) EXPECT_EQ(dir_->writer("w" + std::to_string(k)), all[k]) << k;
}

TEST_F(NameFromBackupTest, DeleteAllRemovesRenamedWriters) {
  Writer::Ptr w = add("w");
  add("x");
  w->nameIsFromBackup("v");
  dir_->writerDelAll();
  EXPECT_EQ(dir_->writers(), 0u);
  EXPECT_EQ(w->parent(), nullptr);
}

// ---- Lifetimes

class WriterDirLifetimeTest : public ::testing::Test {};

TEST_F(WriterDirLifetimeTest, RemovedWritersAndDroppedDirectoriesAreReleased) {
  const std::uint64_t writers = Qel::liveObjects("KronlogWriter::Writer");
  const std::uint64_t nodes = Qel::liveObjects("KronlogWriter::Writer::QelLog");
  const std::uint64_t dirs = Qel::liveObjects("KronlogWriter::WriterDir");
  {
    WriterDir::Ptr d = KronlogWriter::writerDirFactory("d");
    for (const char* n : {"a", "b", "c"}) d->writerIs(n, Config(2, keepLastEntries))->eventIs("e");
    d->writerDel("a");
    EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer"), writers + 2);
  }
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer"), writers);
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::Writer::QelLog"), nodes);
  EXPECT_EQ(Qel::liveObjects("KronlogWriter::WriterDir"), dirs);
}

TEST_F(WriterDirLifetimeTest, WriterHeldElsewhereOutlivesItsDirectoryUnparented) {
  Writer::Ptr kept;
  {
    WriterDir::Ptr d = KronlogWriter::writerDirFactory("d");
    kept = d->writerIs("a", Config());
    kept->eventIs("e");
  }
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->logs(), 1u);
}

// ---- Error paths with their messages

class WriterDirErrorTest : public WriterDirTest {
 protected:
  std::string conflictOf(const char* name, const Config& config) {
    try {
      add(name, config);
    } catch (const Qel::NameInUseException& e) {
      return e.what();
    }
    return "<no NameInUseException>";
  }
};

TEST_F(WriterDirErrorTest, ConflictingSizeNamesRequestedThenCurrentConfig) {
  add("w", Config(10, keepLastEntries));
  EXPECT_EQ(conflictOf("w", Config(5, keepLastEntries)),
            "Reinstantiating the entity with name 'w' where constructor parameter attribute "
            "_config has a different value of Value('KronlogWriter::Config', ** {'size': 5, "
            "'overflowAction': keepLastEntries}) than the current value of "
            "Value('KronlogWriter::Config', ** {'size': 10, 'overflowAction': keepLastEntries}) "
            "not allowed");
}

TEST_F(WriterDirErrorTest, ConflictQuotesTheNameInItsTextForm) {
  add("it's", Config(1, keepFirstEntries));
  EXPECT_EQ(conflictOf("it's", Config(2, keepFirstEntries)),
            "Reinstantiating the entity with name 'it\\'s' where constructor parameter attribute "
            "_config has a different value of Value('KronlogWriter::Config', ** {'size': 2, "
            "'overflowAction': keepFirstEntries}) than the current value of "
            "Value('KronlogWriter::Config', ** {'size': 1, 'overflowAction': keepFirstEntries}) "
            "not allowed");
}

}  // namespace
