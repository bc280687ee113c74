// Entities and directories: membership, the parent link, one collection per
// entity, replacement under a taken name, and removal of every member.
#include "qel/Entity.h"

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

TEST_F(DirTest, MemberIsFoundUnderItsName) {
  Dir::Ptr a = addDir("a");
  EXPECT_EQ(dir_->entity("a"), a.ptr());
  EXPECT_EQ(dir_->entity("b"), nullptr);
  EXPECT_EQ(dir_->entities(), 1u);
}

TEST_F(DirTest, MemberGetsItsParentAndCollection) {
  Dir::Ptr a = addDir("a");
  EXPECT_EQ(a->parent(), dir_.ptr());
  EXPECT_EQ(a->parentAttr(), "entity");
}

TEST_F(DirTest, FullNameListsTheNamesFromTheRoot) {
  Dir::Ptr mid = addDir("mid");
  Dir::Ptr leaf = Qel::dirFactory("leaf");
  mid->entityIs(leaf);
  EXPECT_EQ(leaf->fullName(), "/root/mid/leaf");
  EXPECT_EQ(dir_->fullName(), "/root");
}

TEST_F(DirTest, AddingReportsTheName) {
  addDir("a");
  EXPECT_EQ(changes_.names, (std::vector<std::string>{"a"}));
}

TEST_F(DirTest, NullEntityIsRangeException) {
  EXPECT_THROW(dir_->entityIs(nullptr), Qel::RangeException);
  EXPECT_TRUE(changes_.names.empty());
}

TEST_F(DirTest, AddingTheSameEntityAgainChangesNothing) {
  Dir::Ptr a = addDir("a");
  dir_->entityIs(a);
  EXPECT_EQ(dir_->entities(), 1u);
  EXPECT_EQ(a->references(), 2u);
  EXPECT_EQ(changes_.names.size(), 1u);
}

TEST_F(DirTest, DirHoldsItsMembersAlive) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  dir_->entityIs(Qel::dirFactory("a"));
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before + 1);
  EXPECT_EQ(dir_->entity("a")->references(), 1u);
}

TEST_F(DirTest, RemovedMemberIsReturnedWithoutParent) {
  Dir::Ptr a = addDir("a");
  Qel::Ptr<Qel::Entity> removed = dir_->entityDel("a");
  EXPECT_EQ(removed.ptr(), a.ptr());
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(dir_->entity("a"), nullptr);
  EXPECT_EQ(changes_.names, (std::vector<std::string>{"a", "a"}));
}

TEST_F(DirTest, RemovingAnAbsentNameReturnsNullAndReportsNothing) {
  EXPECT_FALSE(dir_->entityDel("a"));
  EXPECT_TRUE(changes_.names.empty());
}

TEST_F(DirTest, EntityInAnotherDirIsRejected) {
  Dir::Ptr a = addDir("a");
  Dir::Ptr other = Qel::dirFactory("other");
  EXPECT_THROW(other->entityIs(a), Qel::RangeException);
  EXPECT_EQ(a->parent(), dir_.ptr());
  EXPECT_EQ(other->entities(), 0u);
}

TEST_F(DirTest, EntityInAnotherDirDoesNotReplaceAMemberOfItsName) {
  Dir::Ptr mine = addDir("a");
  Dir::Ptr other = Qel::dirFactory("other");
  Dir::Ptr theirs = Qel::dirFactory("a");
  other->entityIs(theirs);
  EXPECT_THROW(dir_->entityIs(theirs), Qel::RangeException);
  EXPECT_EQ(dir_->entity("a"), mine.ptr());
  EXPECT_EQ(mine->parent(), dir_.ptr());
  EXPECT_EQ(theirs->parent(), other.ptr());
}

TEST_F(DirTest, RemovedEntityCanJoinAnotherDir) {
  Dir::Ptr a = addDir("a");
  Dir::Ptr other = Qel::dirFactory("other");
  dir_->entityDel("a");
  other->entityIs(a);
  EXPECT_EQ(a->parent(), other.ptr());
}

TEST_F(DirTest, NewEntityReplacesTheMemberOfItsName) {
  Dir::Ptr old = addDir("a");
  Dir::Ptr replacement = addDir("a");
  EXPECT_EQ(dir_->entity("a"), replacement.ptr());
  EXPECT_EQ(dir_->entities(), 1u);
  EXPECT_EQ(replacement->parent(), dir_.ptr());
  EXPECT_EQ(old->parent(), nullptr);
  EXPECT_EQ(old->references(), 1u);
}

TEST_F(DirTest, ReplacedMemberIsReleased) {
  addDir("a");
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  dir_->entityIs(Qel::dirFactory("a"));
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before);
}

TEST_F(DirTest, ReplacedMemberCanJoinAnotherDir) {
  Dir::Ptr old = addDir("a");
  addDir("a");
  Dir::Ptr other = Qel::dirFactory("other");
  other->entityIs(old);
  EXPECT_EQ(old->parent(), other.ptr());
}

TEST_F(DirTest, ManyMembersAreEachFoundAndVisitedOnce) {
  addMany(1000);
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back(nameOf(i));
    ASSERT_NE(dir_->entity(Qel::Name(nameOf(i))), nullptr) << nameOf(i);
  }
  EXPECT_EQ(sorted(memberNames()), sorted(expected));
}

TEST_F(DirTest, RemovingEveryMemberReportsEachOnceAndReleasesThem) {
  addMany(100);
  std::uint64_t full = Qel::liveObjects("Qel::Dir");
  changes_.names.clear();
  dir_->entityDelAll();
  EXPECT_EQ(dir_->entities(), 0u);
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), full - 100);
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) expected.push_back(nameOf(i));
  EXPECT_EQ(sorted(changes_.names), sorted(expected));
}

TEST_F(DirTest, RemovingEveryMemberClearsTheirParents) {
  Dir::Ptr a = addDir("a");
  Dir::Ptr b = addDir("b");
  dir_->entityDelAll();
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(b->parent(), nullptr);
}

TEST_F(DirTest, DestroyedDirClearsItsMembersParents) {
  Dir::Ptr a = addDir("a");
  changes_.notifierIs(nullptr);
  dir_ = nullptr;
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_FALSE(a->qelInCollection_);
  EXPECT_EQ(a->references(), 1u);
}

TEST_F(DirTest, DestroyedDirReleasesItsMembers) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  addMany(10);
  changes_.notifierIs(nullptr);
  dir_ = nullptr;
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before - 1);
}

// -------------------------------------------------------------- entities

class EntityTest : public ::testing::Test {};

TEST_F(EntityTest, LiveEntityIsFoundAtItsAddress) {
  Dir::Ptr d = Qel::dirFactory("d");
  EXPECT_EQ(Qel::Entity::liveEntity(d.ptr()), d.ptr());
}

TEST_F(EntityTest, DestroyedEntityIsNoLongerFound) {
  Dir::Ptr d = Qel::dirFactory("d");
  const void* address = d.ptr();
  d = nullptr;
  EXPECT_EQ(Qel::Entity::liveEntity(address), nullptr);
}

TEST_F(EntityTest, AddressInsideAnEntityIsNotAnEntity) {
  Dir::Ptr d = Qel::dirFactory("d");
  const char* inside = reinterpret_cast<const char*>(d.ptr()) + sizeof(void*);
  EXPECT_EQ(Qel::Entity::liveEntity(inside), nullptr);
  EXPECT_EQ(Qel::Entity::liveEntity(nullptr), nullptr);
}

TEST_F(EntityTest, NameFromBackupReplacesTheName) {
  Dir::Ptr d = Qel::dirFactory("before");
  d->nameIsFromBackup("after");
  EXPECT_EQ(d->name(), "after");
  EXPECT_EQ(d->fullName(), "/after");
}

TEST_F(EntityTest, NewDirHasNoParentAndNoMembers) {
  Dir::Ptr d = Qel::dirFactory("d");
  EXPECT_EQ(d->parent(), nullptr);
  EXPECT_EQ(d->entities(), 0u);
  EXPECT_FALSE(d->entityIter());
  EXPECT_EQ(d->notifieeList(), &d->notifieeListRef());
}

}  // namespace
