// Directories: membership, the parent link, one collection per entity,
// replacement under a taken name, and removal of every member.
#include "qel/Dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "qel/Allocator.h"
#include "qel/Exception.h"

namespace {

using Qel::Dir;

// Logs the name of every change a directory reports.
class ChangeLog : public Dir::Notifiee {
 public:
  using Dir::Notifiee::onEntity;
  void onEntity(const Qel::Name& name) override { names.push_back(name.stdString()); }
  std::vector<std::string> names;
};

class DirTest : public ::testing::Test {
 protected:
  DirTest() { changes_.notifierIs(dir_); }

  // A new directory added to dir_ under `name`.
  Dir::Ptr addDir(const char* name) {
    Dir::Ptr d = Qel::dirFactory(name);
    dir_->entityIs(d);
    return d;
  }
  void addMany(int n) {
    for (int i = 0; i < n; ++i) dir_->entityIs(Qel::dirFactory(Qel::Name(nameOf(i))));
  }
  static std::string nameOf(int i) { return "e" + std::to_string(i); }
  // The names of the members, in iteration order.
  std::vector<std::string> memberNames() const {
    std::vector<std::string> names;
    for (Dir::EntityIterator it = dir_->entityIter(); it; ++it) {
      names.push_back(it->name().stdString());
    }
    return names;
  }
  static std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
  }

  Dir::Ptr dir_ = Qel::dirFactory("root");
  ChangeLog changes_;
};

TEST_F(DirTest, AddedMemberIsFoundParentedAndReported) {
  Dir::Ptr a = addDir("a");
  EXPECT_EQ(dir_->entity("a"), a.ptr());
  EXPECT_EQ(dir_->entity("b"), nullptr);
  EXPECT_EQ(dir_->entities(), 1u);
  EXPECT_EQ(a->parent(), dir_.ptr());
  EXPECT_EQ(a->parentAttr(), "entity");
  EXPECT_EQ(changes_.names, (std::vector<std::string>{"a"}));
}

TEST_F(DirTest, FullNameListsTheNamesFromTheRootAndFollowsARestoredName) {
  Dir::Ptr mid = addDir("mid");
  Dir::Ptr leaf = Qel::dirFactory("leaf");
  mid->entityIs(leaf);
  EXPECT_EQ(leaf->fullName(), "/root/mid/leaf");
  dir_->nameIsFromBackup("after");
  EXPECT_EQ(dir_->name(), "after");
  EXPECT_EQ(leaf->fullName(), "/after/mid/leaf");
}

TEST_F(DirTest, NullEntityIsRangeExceptionAndTheSameEntityAgainChangesNothing) {
  EXPECT_THROW(dir_->entityIs(nullptr), Qel::RangeException);
  Dir::Ptr a = addDir("a");
  dir_->entityIs(a);
  EXPECT_EQ(dir_->entities(), 1u);
  EXPECT_EQ(a->references(), 2u);
  EXPECT_EQ(changes_.names, (std::vector<std::string>{"a"}));
}

TEST_F(DirTest, RemovedMemberIsReturnedWithoutParentAndReportedOnce) {
  Dir::Ptr a = addDir("a");
  Qel::Ptr<Qel::Entity> removed = dir_->entityDel("a");
  EXPECT_EQ(removed.ptr(), a.ptr());
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(dir_->entity("a"), nullptr);
  EXPECT_FALSE(dir_->entityDel("a"));
  EXPECT_EQ(changes_.names, (std::vector<std::string>{"a", "a"}));
}

// Neither an add nor a replacement may take a member from another directory.
TEST_F(DirTest, EntityInAnotherDirIsRejected) {
  Dir::Ptr mine = addDir("a");
  Dir::Ptr other = Qel::dirFactory("other");
  Dir::Ptr theirs = Qel::dirFactory("a");
  other->entityIs(theirs);
  EXPECT_THROW(other->entityIs(mine), Qel::RangeException);
  EXPECT_THROW(dir_->entityIs(theirs), Qel::RangeException);
  EXPECT_EQ(dir_->entity("a"), mine.ptr());
  EXPECT_EQ(other->entities(), 1u);
  EXPECT_EQ(mine->parent(), dir_.ptr());
  EXPECT_EQ(theirs->parent(), other.ptr());
}

TEST_F(DirTest, NewEntityReplacesTheMemberOfItsNameWhichCanThenJoinAnotherDir) {
  Dir::Ptr old = addDir("a");
  Dir::Ptr replacement = addDir("a");
  EXPECT_EQ(dir_->entity("a"), replacement.ptr());
  EXPECT_EQ(dir_->entities(), 1u);
  EXPECT_EQ(replacement->parent(), dir_.ptr());
  EXPECT_EQ(old->parent(), nullptr);
  EXPECT_EQ(old->references(), 1u);
  Dir::Ptr other = Qel::dirFactory("other");
  other->entityIs(old);
  EXPECT_EQ(old->parent(), other.ptr());
  Qel::Ptr<Qel::Entity> removed = dir_->entityDel("a");
  other->entityIs(removed);  // and a removed one, which replaces it there
  EXPECT_EQ(removed->parent(), other.ptr());
}

TEST_F(DirTest, ManyMembersAreEachFoundAndVisitedOnceAndRemovingAllReportsAndReleasesEach) {
  addMany(1000);
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back(nameOf(i));
    ASSERT_NE(dir_->entity(Qel::Name(nameOf(i))), nullptr) << nameOf(i);
  }
  EXPECT_EQ(sorted(memberNames()), sorted(expected));
  Qel::Ptr<Qel::Entity> kept = dir_->entity(Qel::Name(nameOf(7)));
  std::uint64_t full = Qel::liveObjects("Qel::Dir");
  changes_.names.clear();
  dir_->entityDelAll();
  EXPECT_EQ(dir_->entities(), 0u);
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), full - 999);
  EXPECT_EQ(sorted(changes_.names), sorted(expected));
}

TEST_F(DirTest, DestroyedDirReleasesItsMembersAndClearsTheirParents) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  Dir::Ptr a = addDir("a");
  addMany(10);
  changes_.notifierIs(nullptr);
  dir_ = nullptr;
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before);  // the root and ten members gone; a kept
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_FALSE(a->qelInCollection_);
  EXPECT_EQ(a->references(), 1u);
}

}  // namespace
