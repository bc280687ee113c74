// The indexed link queue: placement and deletion by index, hints, index
// wrap-around, iterators that survive changes, and member lifetimes.
#include "qel/LinkQueue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "qel/Exception.h"

namespace {

// Counts live nodes, so that a member released twice or never shows up in
// the count (every test ends with none left).
struct Node : Qel::LinkQueueMember<Node, int> {
  explicit Node(int value) : LinkQueueMember(0, value) { ++live; }
  ~Node() override { --live; }
  static inline int live = 0;
};

using Queue = Qel::LinkQueue<Node, unsigned int, int>;
using NodePtr = Qel::Ptr<Node>;
using Indexes = std::vector<unsigned>;
using Values = std::vector<int>;
// headIndex, nextIndex, version, members
using Counters = std::tuple<unsigned, unsigned, std::uint32_t, std::uint32_t>;

constexpr unsigned kMax = 4294967295u;

// The value build() gives the member it places at `index`.
int builtValue(unsigned index) {
  return 100 + static_cast<int>(index % 1000u);
}

class LinkQueueTest : public ::testing::Test {
 protected:
  void TearDown() override {
    owner_.reset();
    EXPECT_EQ(Node::live, 0) << "members leaked or released too often";
  }

  // Appends at the next index, the way the library's writers do.
  Node* enq(int value) { return put(q.effectiveNextIndex(), value); }

  Node* put(unsigned index, int value, bool hint = false) {
    NodePtr n(new Node(value));  // freed here should doMemberIs throw
    q.doMemberIs(index, n.ptr(), hint);
    return n.ptr();
  }

  void del(unsigned index) { q.doMemberIs(index, nullptr, false); }

  // Indexes 0..n-1 holding 10, 11, ...
  void fill(int n) {
    for (int k = 0; k < n; ++k) enq(10 + k);
  }

  // Places members at `at`, in order, without hints.
  void build(const Indexes& at) {
    if (!at.empty()) q.indicesIs(at.front(), at.front());
    for (unsigned i : at) put(i, builtValue(i));
  }

  Indexes indexes() const {
    Indexes out;
    for (Node* m = q.head(); m; m = m->next()) out.push_back(m->index());
    return out;
  }

  Values values() const {
    Values out;
    for (Node* m = q.head(); m; m = m->next()) out.push_back(m->value());
    return out;
  }

  Counters counters() const { return {q.headIndex(), q.nextIndex(), q.version(), q.members()}; }

  Node* last() const {
    Node* m = q.head();
    while (m && m->next()) m = m->next();
    return m;
  }

  std::unique_ptr<Queue> owner_ = std::make_unique<Queue>();
  Queue& q = *owner_;
};

// Table rows are named in the test names.
template <class Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// Appending and dequeuing

TEST_F(LinkQueueTest, DeqHandsOverMembersInOrderAndTheDrainedQueueKeepsItsPlace) {
  fill(3);
  EXPECT_EQ(counters(), Counters(0, 3, 3, 3));
  for (unsigned i = 0; i < 3; ++i) {
    NodePtr m = q.deq();
    EXPECT_EQ(std::make_tuple(m->index(), m->value(), m->next(), m->references()),
              std::make_tuple(i, static_cast<int>(10 + i), nullptr, 1u));  // the queue's reference
  }
  EXPECT_FALSE(q.deq());
  EXPECT_EQ(counters(), Counters(3, 3, 6, 0));
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(enq(20)->index(), 3u);
  EXPECT_EQ(q.head(), q.tail());
}

TEST_F(LinkQueueTest, StaleNextIndexIsRaisedAboveTheTailBeforeUse) {
  fill(3);
  q.indicesIs(0, 2);  // equal to the tail's index
  put(2, 50);         // not the next index, so it replaces the tail
  EXPECT_EQ(values(), (Values{10, 11, 50}));
  EXPECT_EQ(q.nextIndex(), 3u);
  q.indicesIs(0, 1);  // below the tail
  put(3, 60);         // the effective next index: an append
  EXPECT_EQ(counters(), Counters(0, 4, 5, 4));
  q.indicesIs(0, 1);
  q.deq();  // a dequeue that leaves members behind also raises it
  EXPECT_EQ(q.nextIndex(), 4u);
}

// Deleting by index (doMemberIs with a null member, and _memberDel)

struct DeleteCase {
  const char* name;
  unsigned index;
  Indexes after;
  std::uint32_t versionDelta;
  unsigned nextEnqueue;
};

class LinkQueueDeleteTest : public LinkQueueTest,
                            public ::testing::WithParamInterface<DeleteCase> {};

TEST_P(LinkQueueDeleteTest, NullMemberDeletesByIndex) {
  const DeleteCase& c = GetParam();
  fill(4);
  del(c.index);
  EXPECT_EQ(indexes(), c.after);
  EXPECT_EQ(q.members(), c.after.size());
  EXPECT_EQ(Node::live, static_cast<int>(c.after.size()));
  EXPECT_EQ(q.version(), 4u + c.versionDelta);
  EXPECT_EQ(q.headIndex(), c.after.front());
  EXPECT_EQ(q.tail(), last());
  EXPECT_EQ(enq(0)->index(), c.nextEnqueue);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueDeleteTest,
    ::testing::Values(DeleteCase{"Head", 0, {1, 2, 3}, 1, 4},
                      DeleteCase{"Middle", 2, {0, 1, 3}, 1, 4},
                      // The tail's index is handed out again by the next append.
                      DeleteCase{"TailIndexIsReused", 3, {0, 1, 2}, 1, 3},
                      DeleteCase{"AbsentIndex", 9, {0, 1, 2, 3}, 0, 4},
                      DeleteCase{"NextIndexIsANoOp", 4, {0, 1, 2, 3}, 0, 4}),
    caseName<DeleteCase>);

TEST_F(LinkQueueTest, MemberDelReturnsTheUnlinkedMemberOrNull) {
  fill(3);
  NodePtr m = q._memberDel(1);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->value(), 11);
  EXPECT_EQ(m->next(), nullptr);
  EXPECT_EQ(m->references(), 1u);
  EXPECT_FALSE(q._memberDel(1));
  EXPECT_EQ(indexes(), (Indexes{0, 2}));
  EXPECT_EQ(q.members(), 2u);
}

TEST_F(LinkQueueTest, DeletingTheHeadUnderAStaleHeadIndexResyncsIt) {
  fill(2);
  q.indicesIs(7, 2);
  del(0);
  EXPECT_EQ(indexes(), Indexes{1});
  EXPECT_EQ(q.headIndex(), 1u);

  q.indicesIs(7, 2);
  del(1);
  EXPECT_EQ(q.head(), nullptr);
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(counters(), Counters(2, 2, 4, 0));
  EXPECT_EQ(enq(0)->index(), 2u);
}

// Placing a new member at an explicit index, with or without the hint. The
// three hint shortcuts leave the version and the member count alone.

struct PlaceCase {
  const char* name;
  Indexes start;
  unsigned index;
  bool hint;
  Indexes after;
  unsigned headIndex;
  unsigned nextIndex;
  std::uint32_t versionDelta;
  std::uint32_t membersDelta;
};

class LinkQueuePlaceTest : public LinkQueueTest, public ::testing::WithParamInterface<PlaceCase> {};

TEST_P(LinkQueuePlaceTest, NewMemberLandsInIndexOrder) {
  const PlaceCase& c = GetParam();
  build(c.start);
  const Counters before = counters();
  Node* m = put(c.index, 7, c.hint);
  Values expected;
  for (unsigned i : c.after) expected.push_back(i == c.index ? 7 : builtValue(i));
  EXPECT_EQ(values(), expected);
  EXPECT_EQ(indexes(), c.after);
  EXPECT_EQ(q.find(c.index), m);
  EXPECT_EQ(Node::live, static_cast<int>(c.after.size()));  // a replaced member is gone
  EXPECT_EQ(counters(), Counters(c.headIndex, c.nextIndex, std::get<2>(before) + c.versionDelta,
                                 std::get<3>(before) + c.membersDelta));
  EXPECT_EQ(q.tail(), last());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueuePlaceTest,
    ::testing::Values(
        PlaceCase{"AboveTail", {0, 1, 2}, 10, false, {0, 1, 2, 10}, 0, 11, 1, 1},
        PlaceCase{"IntoGap", {0, 2, 3}, 1, false, {0, 1, 2, 3}, 0, 4, 1, 1},
        PlaceCase{"BelowHead", {2, 3}, 0, false, {0, 2, 3}, 0, 4, 1, 1},
        PlaceCase{"EmptyQueueAwayFromNextIndex", {}, 5, false, {5}, 5, 6, 1, 1},
        PlaceCase{"ReplacesHead", {0, 1, 2}, 0, false, {0, 1, 2}, 0, 3, 1, 0},
        PlaceCase{"ReplacesMiddle", {0, 1, 2}, 1, false, {0, 1, 2}, 0, 3, 1, 0},
        PlaceCase{"ReplacesTail", {0, 1, 2}, 2, false, {0, 1, 2}, 0, 3, 1, 0},
        PlaceCase{"HintEmptyQueue", {}, 5, true, {5}, 5, 6, 0, 0},
        PlaceCase{"HintBelowHead", {3, 4}, 1, true, {1, 3, 4}, 1, 5, 0, 0},
        PlaceCase{"HintAboveNextIndex", {0, 1}, 7, true, {0, 1, 7}, 0, 8, 0, 0},
        // Anything else takes the ordinary paths.
        PlaceCase{"HintAtNextIndexAppends", {0, 1}, 2, true, {0, 1, 2}, 0, 3, 1, 1},
        PlaceCase{"HintIntoGapIsWalked", {0, 2}, 1, true, {0, 1, 2}, 0, 3, 1, 1},
        PlaceCase{"HintOnExistingIndexReplaces", {0, 1, 2}, 1, true, {0, 1, 2}, 0, 3, 1, 0}),
    caseName<PlaceCase>);

// Moving a member that is already linked

struct MoveCase {
  const char* name;
  unsigned from;
  unsigned to;
  Indexes after;
  Values values;
  std::uint32_t versionDelta;
  unsigned nextIndex;
};

class LinkQueueMoveTest : public LinkQueueTest, public ::testing::WithParamInterface<MoveCase> {};

TEST_P(LinkQueueMoveTest, LinkedMemberMovesToItsNewIndex) {
  const MoveCase& c = GetParam();
  fill(4);
  Node* m = q.find(c.from);
  q.doMemberIs(c.to, m, false);
  EXPECT_EQ(indexes(), c.after);
  EXPECT_EQ(values(), c.values);
  EXPECT_EQ(q.find(c.to), m);
  EXPECT_EQ(m->references(), 1u);
  EXPECT_EQ(q.members(), c.after.size());
  EXPECT_EQ(Node::live, static_cast<int>(c.after.size()));
  EXPECT_EQ(q.version(), 4u + c.versionDelta);
  EXPECT_EQ(q.headIndex(), c.after.front());
  EXPECT_EQ(q.nextIndex(), c.nextIndex);
  EXPECT_EQ(q.tail(), last());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueMoveTest,
    ::testing::Values(MoveCase{"MiddleAboveTail", 1, 10, {0, 2, 3, 10}, {10, 12, 13, 11}, 2, 11},
                      MoveCase{"HeadAboveTail", 0, 7, {1, 2, 3, 7}, {11, 12, 13, 10}, 2, 8},
                      MoveCase{"TailFurtherUp", 3, 5, {0, 1, 2, 5}, {10, 11, 12, 13}, 2, 6},
                      // The member already at the target index is replaced and released.
                      MoveCase{"TailOntoOccupiedIndex", 3, 1, {0, 1, 2}, {10, 13, 12}, 2, 3},
                      MoveCase{"SameIndexIsANoOp", 2, 2, {0, 1, 2, 3}, {10, 11, 12, 13}, 0, 4},
                      // The next index itself: the member must not be linked twice.
                      MoveCase{"MiddleToNextIndex", 1, 4, {0, 2, 3, 4}, {10, 12, 13, 11}, 2, 5}),
    caseName<MoveCase>);

// startAt and find, with and without the indexes wrapping inside the queue

const Indexes kWrapped{kMax - 1, kMax, 0, 1};

struct StartAtCase {
  const char* name;
  Indexes start;
  std::optional<unsigned> deleted;
  unsigned query;
  std::optional<unsigned> found;
};

class LinkQueueStartAtTest : public LinkQueueTest,
                             public ::testing::WithParamInterface<StartAtCase> {};

TEST_P(LinkQueueStartAtTest, FindsFirstMemberAtOrAfterIndex) {
  const StartAtCase& c = GetParam();
  build(c.start);
  if (c.deleted) del(*c.deleted);
  Node* m = q.startAt(c.query);
  if (!c.found) {
    EXPECT_EQ(m, nullptr) << "index " << m->index();
  } else {
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->index(), *c.found);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueStartAtTest,
    ::testing::Values(
        StartAtCase{"EmptyQueue", {}, std::nullopt, 0, std::nullopt},
        StartAtCase{"BelowHead", {2, 4, 6}, std::nullopt, 0, 2},
        StartAtCase{"Head", {2, 4, 6}, std::nullopt, 2, 2},
        StartAtCase{"InGap", {2, 4, 6}, std::nullopt, 3, 4},
        StartAtCase{"Tail", {2, 4, 6}, std::nullopt, 6, 6},
        StartAtCase{"AboveTail", {2, 4, 6}, std::nullopt, 7, std::nullopt},
        StartAtCase{"WrappedHead", kWrapped, std::nullopt, kMax - 1, kMax - 1},
        StartAtCase{"WrappedMax", kWrapped, std::nullopt, kMax, kMax},
        StartAtCase{"WrappedZero", kWrapped, std::nullopt, 0, 0},
        StartAtCase{"WrappedTail", kWrapped, std::nullopt, 1, 1},
        StartAtCase{"WrappedGapAboveTail", kWrapped, std::nullopt, 2, std::nullopt},
        StartAtCase{"WrappedGapMiddle", kWrapped, std::nullopt, 1000000, std::nullopt},
        StartAtCase{"WrappedGapBelowHead", kWrapped, std::nullopt, kMax - 2, std::nullopt},
        // A missing member is answered with the one after it, on either
        // side of the wrap.
        StartAtCase{"WrappedMissingLowMember", kWrapped, 0u, 0, 1},
        StartAtCase{"WrappedMissingHighMember", kWrapped, kMax, kMax, 0}),
    caseName<StartAtCase>);

class LinkQueueWrapTest : public LinkQueueTest {
 protected:
  void SetUp() override {
    q.indicesIs(kMax - 1, kMax - 1);
    for (int v = 1; v <= 4; ++v) enq(v);
  }
};

TEST_F(LinkQueueWrapTest, AppendsWrapPastTheLargestIndexAreFoundAndDequeuedInOrder) {
  EXPECT_EQ(indexes(), kWrapped);
  EXPECT_EQ(values(), (Values{1, 2, 3, 4}));
  EXPECT_EQ(q.headIndex(), kMax - 1);
  EXPECT_EQ(q.nextIndex(), 2u);
  for (Node* m = q.head(); m; m = m->next()) EXPECT_EQ(q.find(m->index()), m);
  EXPECT_EQ(q.find(2), nullptr);
  EXPECT_EQ(q.find(kMax - 2), nullptr);
  Indexes order;
  while (NodePtr m = q.deq()) order.push_back(m->index());
  EXPECT_EQ(order, kWrapped);
  EXPECT_EQ(counters(), Counters(2, 2, 8, 0));
}

TEST_F(LinkQueueWrapTest, IterationCrossesTheWrapAndOnlyIndexZeroHasNoBookmark) {
  Indexes visited;
  std::vector<bool> bookmarks;
  for (auto it = q.iterator(); it && visited.size() < 10; ++it) {
    visited.push_back(it.index());
    bookmarks.push_back(it.hasBookmark());
  }
  EXPECT_EQ(visited, kWrapped);
  EXPECT_EQ(bookmarks, (std::vector<bool>{true, true, false, true}));
}

// Index space full

struct FullCase {
  const char* name;
  unsigned headIndex;
  unsigned nextIndex;
  bool full;
};

class LinkQueueFullTest : public LinkQueueTest, public ::testing::WithParamInterface<FullCase> {};

TEST_P(LinkQueueFullTest, AppendToEmptyQueue) {
  const FullCase& c = GetParam();
  q.indicesIs(c.headIndex, c.nextIndex);
  if (c.full) {
    try {
      enq(1);
      FAIL() << "no exception";
    } catch (const Qel::RangeException& e) {
      EXPECT_STREQ(e.what(), "linkqueue index space full");
      EXPECT_EQ(e.identifierMask(), 0x1000u);
      EXPECT_TRUE(e.flag());
    }
    EXPECT_EQ(counters(), Counters(c.headIndex, c.nextIndex, 0, 0));
    EXPECT_EQ(q.head(), nullptr);
    EXPECT_EQ(q.tail(), nullptr);
  } else {
    EXPECT_EQ(enq(1)->index(), c.nextIndex);
    EXPECT_EQ(counters(), Counters(c.nextIndex, c.nextIndex + 1, 1, 1));
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, LinkQueueFullTest,
                         ::testing::Values(FullCase{"HeadJustAboveNext", 5, 4, true},
                                           FullCase{"HeadZeroNextMax", 0, kMax, true},
                                           FullCase{"DrainedQueue", 4, 4, false},
                                           FullCase{"HeadTwoAboveNext", 5, 3, false},
                                           FullCase{"HeadBelowNext", 3, 4, false}),
                         caseName<FullCase>);

TEST_F(LinkQueueTest, AppendThatWouldReachTheHeadThrowsAndLeavesQueueAlone) {
  q.indicesIs(2, 2);
  enq(1);        // index 2
  put(kMax, 2);  // far above it; the next append wraps to 0
  enq(3);        // index 0; next is 1, just below the head
  const Counters before = counters();
  EXPECT_THROW(enq(4), Qel::RangeException);
  EXPECT_EQ(counters(), before);
  EXPECT_EQ(indexes(), (Indexes{2, kMax, 0}));
  EXPECT_EQ(q.tail(), last());
  EXPECT_EQ(Node::live, 3);
}

// Iterators while the queue changes

class LinkQueueIterationTest : public LinkQueueTest {
 protected:
  void SetUp() override { build({0, 2, 4, 6, 8}); }
};

TEST_F(LinkQueueIterationTest, BookmarkOnlyOnAMemberWithNonZeroIndex) {
  Queue::Iterator none;
  EXPECT_FALSE(none.hasBookmark());
  ++none;  // a no-op at the end
  EXPECT_FALSE(none);

  auto it = q.iterator();
  EXPECT_FALSE(it.hasBookmark());  // index 0
  ++it;
  EXPECT_TRUE(it.hasBookmark());
  while (it) ++it;
  EXPECT_FALSE(it.hasBookmark());
}

struct ChangeCase {
  const char* name;
  unsigned standOn;
  Indexes deleted;
  Indexes inserted;
  Indexes visited;
};

class LinkQueueChangeTest : public LinkQueueIterationTest,
                            public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(LinkQueueChangeTest, IteratorResumesAfterItsIndex) {
  const ChangeCase& c = GetParam();
  Indexes visited;
  for (auto it = q.iterator(); it && visited.size() < 20; ++it) {
    visited.push_back(it.index());
    if (it.index() != c.standOn) continue;
    for (unsigned i : c.deleted) del(i);
    for (unsigned i : c.inserted) put(i, 7);
  }
  EXPECT_EQ(visited, c.visited);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueChangeTest,
    ::testing::Values(ChangeCase{"DeleteCurrentHead", 0, {0}, {}, {0, 2, 4, 6, 8}},
                      ChangeCase{"DeleteCurrentMiddle", 4, {4}, {}, {0, 2, 4, 6, 8}},
                      ChangeCase{"DeleteCurrentTail", 8, {8}, {}, {0, 2, 4, 6, 8}},
                      ChangeCase{"DeleteCurrentAndFollower", 2, {2, 4}, {}, {0, 2, 6, 8}},
                      ChangeCase{"DeleteFollower", 2, {4}, {}, {0, 2, 6, 8}},
                      ChangeCase{"DeleteEarlierMembers", 4, {0, 2}, {}, {0, 2, 4, 6, 8}},
                      ChangeCase{"InsertAhead", 2, {}, {3, 5}, {0, 2, 3, 4, 5, 6, 8}},
                      ChangeCase{"InsertBehind", 4, {}, {1, 3}, {0, 2, 4, 6, 8}},
                      ChangeCase{"AppendWhileOnTail", 8, {}, {9}, {0, 2, 4, 6, 8, 9}},
                      ChangeCase{"ReplaceCurrent", 4, {}, {4}, {0, 2, 4, 6, 8}},
                      ChangeCase{"DeleteCurrentThenInsertAhead", 4, {4}, {5}, {0, 2, 4, 5, 6, 8}}),
    caseName<ChangeCase>);

TEST_F(LinkQueueWrapTest, DeletingEachMemberAsItIsVisitedEmptiesAWrappedQueue) {
  Indexes visited;
  for (auto it = q.iterator(); it && visited.size() < 10; ++it) {
    visited.push_back(it.index());
    del(it.index());
  }
  EXPECT_EQ(visited, kWrapped);
  EXPECT_EQ(q.head(), nullptr);
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(q.members(), 0u);
  EXPECT_EQ(q.headIndex(), q.nextIndex());
}

TEST_F(LinkQueueWrapTest, RemovingTheTailBelowTheWrapEndsTheIteration) {
  del(1);
  Indexes visited;
  for (auto it = q.iterator(); it && visited.size() < 10; ++it) {
    visited.push_back(it.index());
    if (it.index() == 0) del(0);  // the tail, just past 4294967295
  }
  EXPECT_EQ(visited, (Indexes{kMax - 1, kMax, 0}));
}

TEST_F(LinkQueueIterationTest, IteratorKeepsItsRemovedMemberAliveUntilItMovesOn) {
  auto it = q.iterator();
  ++it;
  ++it;
  del(4);
  EXPECT_EQ(Node::live, 5);
  EXPECT_EQ(it->value(), 104);
  ++it;
  EXPECT_EQ(Node::live, 4);
  EXPECT_EQ(it.index(), 6u);
}

// Member references

TEST_F(LinkQueueTest, QueueHoldsExactlyOneReferencePerMemberAndUnlinksWhatItReplaces) {
  fill(3);
  put(7, 1);
  NodePtr old(q.find(1));
  put(1, 2);  // replaces
  EXPECT_EQ(old->next(), nullptr);
  EXPECT_EQ(old->references(), 1u);  // only ours is left
  old = nullptr;
  q.doMemberIs(9, q.find(0), false);  // moves
  EXPECT_EQ(indexes(), (Indexes{1, 2, 7, 9}));
  for (Node* m = q.head(); m; m = m->next()) EXPECT_EQ(m->references(), 1u) << m->index();
  EXPECT_EQ(Node::live, 4);
}

TEST_F(LinkQueueTest, DestroyingAMillionMembersDoesNotRecurse) {
  {
    Queue big;
    for (int k = 0; k < 1000000; ++k) big.doMemberIs(big.effectiveNextIndex(), new Node(k), false);
    ASSERT_EQ(big.members(), 1000000u);
    EXPECT_EQ(Node::live, 1000000);
  }
  EXPECT_EQ(Node::live, 0);
}

}  // namespace
