// The intrusive hash map: lookup, the reference held on each member, growth,
// and iteration that survives deletions made while it runs.
#include "qel/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "qel/Ptr.h"
#include "qel/String.h"

namespace {

class Item : public Qel::PtrInterface {
 public:
  Item(Qel::Name key, int* destroyed) : key_(std::move(key)), destroyed_(destroyed) {}
  ~Item() override { ++*destroyed_; }

  Item* qelHashNext_ = nullptr;
  bool qelInCollection_ = false;
  const Qel::Name& qelHashKey() const noexcept { return key_; }
  void qelHashKeyFreeze() noexcept {}
  Item* qelHashValue() noexcept { return this; }

 private:
  Qel::Name key_;
  int* destroyed_;
};

using ItemMap = Qel::HashMap<Item, Qel::Name, Item>;
using Keys = std::vector<std::string>;

std::string keyOf(int i) {
  return "k" + std::to_string(i);
}

Keys keysUpTo(int n) {
  Keys keys;
  for (int i = 0; i < n; ++i) keys.push_back(keyOf(i));
  return keys;
}

Keys sorted(Keys keys) {
  std::sort(keys.begin(), keys.end());
  return keys;
}

class HashMapTest : public ::testing::Test {
 protected:
  // A new member under `key`; the map holds its only reference.
  Item* add(const Qel::Name& key) {
    Qel::Ptr<Item> item = newItem(key);
    EXPECT_TRUE(map_.newMember(item.ptr())) << key;
    return item.ptr();
  }
  void addMany(int n) {
    for (const std::string& key : keysUpTo(n)) add(Qel::Name(key));
  }
  Qel::Ptr<Item> newItem(const Qel::Name& key) { return new Item(key, &destroyed_); }

  // Iterates over the whole map, calling step(key) on each member; returns
  // the keys in the order visited.
  template <class F>
  Keys visitWith(F step) {
    Keys visited;
    for (ItemMap::Iterator it = map_.begin(); it; ++it) {
      std::string key = it.member()->qelHashKey().stdString();
      visited.push_back(key);
      step(key);
    }
    return visited;
  }
  Keys visit() {
    return visitWith([](const std::string&) {});
  }

  int destroyed_ = 0;
  ItemMap map_;  // after destroyed_: members report into it as the map goes
};

TEST_F(HashMapTest, EmptyMapFindsRemovesAndVisitsNothingAndRefusesNull) {
  EXPECT_EQ(map_.member("a"), nullptr);
  EXPECT_FALSE(map_.memberDel("a"));
  EXPECT_TRUE(visit().empty());
  EXPECT_FALSE(map_.newMember(nullptr));
  EXPECT_TRUE(map_.empty());
}

TEST_F(HashMapTest, MemberIsFoundByItsWholeKeyOnlyIncludingBytesAfterANul) {
  addMany(20);
  Item* ab = add(Qel::Name("a\0b", 3));
  Item* ac = add(Qel::Name("a\0c", 3));
  Item* a = add("a");
  EXPECT_EQ(std::make_tuple(map_[Qel::Name("a\0b", 3)], map_[Qel::Name("a\0c", 3)], map_["a"]),
            std::make_tuple(ab, ac, a));
  EXPECT_EQ(map_.member("k20"), nullptr);
  EXPECT_EQ(map_[""], nullptr);
  EXPECT_EQ(map_.size(), 23u);
}

TEST_F(HashMapTest, TakenKeyOrMemberOfAnotherMapIsRefusedAndTheHolderKept) {
  Item* first = add("a");
  Qel::Ptr<Item> twin = newItem("a");
  EXPECT_FALSE(map_.newMember(twin.ptr()));
  EXPECT_EQ(map_["a"], first);
  EXPECT_EQ(twin->references(), 1u);
  EXPECT_FALSE(twin->qelInCollection_);
  ItemMap other;
  ASSERT_TRUE(other.newMember(twin.ptr()));
  EXPECT_FALSE(map_.newMember(twin.ptr()));
  EXPECT_EQ(twin->references(), 2u);
}

TEST_F(HashMapTest, IteratorKeepsItsMemberAliveUntilItMovesAndEndsAtEnd) {
  Item* a = add("a");
  ItemMap::Iterator it = map_.begin();
  EXPECT_EQ(std::make_pair(it.member(), it.value()), std::make_pair(a, a));
  EXPECT_NE(it, map_.end());
  map_.memberDel("a");
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(it->qelHashKey(), "a");
  ++it;
  EXPECT_EQ(destroyed_, 1);
  EXPECT_EQ(it, map_.end());
  ++it;
  EXPECT_FALSE(it);
}

// Sizes around the growth points as well as a large map.
class HashMapIterationTest : public HashMapTest, public ::testing::WithParamInterface<int> {};

TEST_P(HashMapIterationTest, DeletingTheCurrentOrTheLastVisitedMemberVisitsEveryMemberOnce) {
  for (bool current : {true, false}) {
    SCOPED_TRACE(current ? "current" : "last visited");
    addMany(GetParam());
    std::string previous;
    Keys visited = visitWith([&](const std::string& key) {
      if (current || !previous.empty()) map_.memberDel(Qel::Name(current ? key : previous));
      previous = key;
    });
    EXPECT_EQ(sorted(visited), sorted(keysUpTo(GetParam())));
    EXPECT_EQ(map_.size(), !current && GetParam() ? 1u : 0u);
    map_.memberDel(Qel::Name(previous));
  }
  EXPECT_EQ(destroyed_, 2 * GetParam());
}

TEST_P(HashMapIterationTest, DeletingOtherMembersSkipsExactlyThoseNotYetVisited) {
  addMany(GetParam());
  // Victims in key-number order, which is unrelated to the visit order, so
  // both visited and unvisited members get deleted.
  Keys victims = keysUpTo(GetParam());
  std::set<std::string> deleted;
  std::size_t next = 0;
  Keys visited = visitWith([&](const std::string& key) {
    EXPECT_EQ(deleted.count(key), 0u) << key << " visited after its deletion";
    while (next < victims.size() && victims[next] == key) ++next;
    if (next < victims.size()) {
      deleted.insert(victims[next]);
      map_.memberDel(Qel::Name(victims[next++]));
    }
  });
  std::set<std::string> unique(visited.begin(), visited.end());
  EXPECT_EQ(unique.size(), visited.size()) << "a member was visited twice";
  for (const std::string& key : keysUpTo(GetParam())) {
    if (!deleted.count(key)) {
      EXPECT_EQ(unique.count(key), 1u) << key << " never visited";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, HashMapIterationTest,
                         ::testing::Values(0, 1, 2, 7, 8, 9, 16, 17, 100, 1000));

}  // namespace
