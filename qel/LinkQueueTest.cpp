// The indexed link queue: placement and deletion by index, hints, index
// wrap-around, iterators that survive changes, and member lifetimes.
#include "qel/LinkQueue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
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

  // The tail is the last linked member and no released member is still
  // alive. (The member count is asserted apart: the hint shortcuts leave it.)
  void expectSoundChain() const {
    Node* last = nullptr;
    int n = 0;
    for (Node* m = q.head(); m; m = m->next()) last = m, ++n;
    EXPECT_EQ(q.tail(), last);
    EXPECT_EQ(Node::live, n);
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

// Deleting by index: _memberDel hands the unlinked member over (doMemberIs
// with a null member, which the iterator and lookup tests use, calls it).

struct DeleteCase {
  const char* name;
  unsigned index;
  Indexes after;
  int deletedValue;  // 0: nothing was deleted
  unsigned nextEnqueue;
};

class LinkQueueDeleteTest : public LinkQueueTest,
                            public ::testing::WithParamInterface<DeleteCase> {};

TEST_P(LinkQueueDeleteTest, MemberDelUnlinksByIndexAndReturnsTheMemberOrNull) {
  const DeleteCase& c = GetParam();
  fill(4);
  NodePtr m = q._memberDel(c.index);
  EXPECT_EQ(m ? std::make_tuple(m->value(), m->next(), m->references())
              : std::make_tuple(0, static_cast<Node*>(nullptr), 1u),
            std::make_tuple(c.deletedValue, static_cast<Node*>(nullptr), 1u));
  m = nullptr;
  EXPECT_EQ(indexes(), c.after);
  EXPECT_EQ(std::make_tuple(q.version(), q.headIndex(), q.members()),
            std::make_tuple(4u + (c.deletedValue ? 1 : 0), c.after[0], c.after.size()));
  expectSoundChain();
  EXPECT_EQ(enq(0)->index(), c.nextEnqueue);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueDeleteTest,
    ::testing::Values(DeleteCase{"Head", 0, {1, 2, 3}, 10, 4},
                      DeleteCase{"Middle", 2, {0, 1, 3}, 12, 4},
                      // The tail's index is handed out again by the next append.
                      DeleteCase{"TailIndexIsReused", 3, {0, 1, 2}, 13, 3},
                      DeleteCase{"AbsentIndex", 9, {0, 1, 2, 3}, 0, 4},
                      DeleteCase{"NextIndex", 4, {0, 1, 2, 3}, 0, 4}),
    caseName<DeleteCase>);

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
  NodePtr replaced(q.find(c.index));
  Node* m = put(c.index, 7, c.hint);
  if (replaced) {  // unlinked, and only our reference is left
    EXPECT_EQ(std::make_pair(replaced->next(), replaced->references()),
              std::make_pair(static_cast<Node*>(nullptr), 1u));
    replaced = nullptr;
  }
  Values expected;
  for (unsigned i : c.after) expected.push_back(i == c.index ? 7 : builtValue(i));
  EXPECT_EQ(values(), expected);
  EXPECT_EQ(indexes(), c.after);
  EXPECT_EQ(q.find(c.index), m);
  EXPECT_EQ(counters(), Counters(c.headIndex, c.nextIndex, std::get<2>(before) + c.versionDelta,
                                 std::get<3>(before) + c.membersDelta));
  expectSoundChain();  // a replaced member is gone
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
  EXPECT_EQ(counters(), Counters(c.after[0], c.nextIndex, 4u + c.versionDelta, c.after.size()));
  expectSoundChain();
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

constexpr unsigned kNone = 77777;  // startAt found nothing

// In plain order, then in circular order across the wrap; a missing member
// is answered with the one after it, on either side of the wrap.
TEST_F(LinkQueueTest, StartAtFindsFirstMemberAtOrAfterIndex) {
  const auto startAt = [this](unsigned index) {
    Node* m = q.startAt(index);
    return m ? m->index() : kNone;
  };
  EXPECT_EQ(startAt(0), kNone);
  build({2, 4, 6});
  for (auto [query, found] : {std::pair{0u, 2u}, {2u, 2u}, {3u, 4u}, {6u, 6u}, {7u, kNone}})
    EXPECT_EQ(startAt(query), found) << query;
  while (q.deq()) {
  }
  build(kWrapped);
  for (auto [query, found] : {std::pair{kMax - 1, kMax - 1},
                              {kMax, kMax},
                              {0u, 0u},
                              {1u, 1u},
                              {2u, kNone},
                              {1000000u, kNone},
                              {kMax - 2, kNone}})
    EXPECT_EQ(startAt(query), found) << query;
  del(kMax);
  EXPECT_EQ(startAt(kMax), 0u);
  del(0);
  EXPECT_EQ(startAt(0), 1u);
}

class LinkQueueWrapTest : public LinkQueueTest {
 protected:
  void SetUp() override {
    q.indicesIs(kMax - 1, kMax - 1);
    for (int v = 1; v <= 4; ++v) enq(v);
  }
};

TEST_F(LinkQueueWrapTest, AppendsWrapPastTheLargestIndexAndAreDequeuedInOrder) {
  EXPECT_EQ(indexes(), kWrapped);
  EXPECT_EQ(values(), (Values{1, 2, 3, 4}));
  EXPECT_EQ(q.headIndex(), kMax - 1);
  EXPECT_EQ(q.nextIndex(), 2u);
  Indexes order;
  while (NodePtr m = q.deq()) order.push_back(m->index());
  EXPECT_EQ(order, kWrapped);
  EXPECT_EQ(counters(), Counters(2, 2, 8, 0));
}

TEST_F(LinkQueueWrapTest, IterationCrossesTheWrapAndOnlyIndexZeroHasNoBookmark) {
  Indexes visited;
  std::vector<bool> bookmarks;
  auto it = q.iterator();
  for (; it && visited.size() < 10; ++it) {
    visited.push_back(it.index());
    bookmarks.push_back(it.hasBookmark());
  }
  EXPECT_EQ(visited, kWrapped);
  EXPECT_EQ(bookmarks, (std::vector<bool>{true, true, false, true}));
  ++it;  // a no-op at the end
  EXPECT_FALSE(it || it.hasBookmark() || Queue::Iterator().hasBookmark());
}

// Index space full: an append must never make the next index equal the head's.
TEST_F(LinkQueueTest, AppendToEmptyQueueFailsOnlyWhenTheIndexSpaceIsFull) {
  for (auto [head, next, full] :
       {std::tuple{5u, 4u, true}, std::tuple{0u, kMax, true}, std::tuple{4u, 4u, false},
        std::tuple{5u, 3u, false}, std::tuple{3u, 4u, false}}) {
    SCOPED_TRACE(std::to_string(head) + " " + std::to_string(next));
    Queue queue;
    queue.indicesIs(head, next);
    NodePtr node(new Node(1));
    std::string error;
    try {
      queue.doMemberIs(next, node.ptr(), false);
    } catch (const Qel::RangeException& e) {
      error = e.what();
      EXPECT_EQ(std::make_pair(e.identifierMask(), e.flag()), std::make_pair(0x1000u, true));
    }
    EXPECT_EQ(error, full ? "linkqueue index space full" : "");
    EXPECT_EQ(std::make_tuple(queue.headIndex(), queue.nextIndex(), queue.version(),
                              queue.members(), queue.head() != nullptr),
              full ? std::make_tuple(head, next, 0u, 0u, false)
                   : std::make_tuple(next, next + 1, 1u, 1u, true));
  }
}

TEST_F(LinkQueueTest, AppendThatWouldReachTheHeadThrowsAndLeavesQueueAlone) {
  q.indicesIs(2, 2);
  enq(1);        // index 2
  put(kMax, 2);  // far above it; the next append wraps to 0
  enq(3);        // index 0; next is 1, just below the head
  const Counters before = counters();
  EXPECT_THROW(enq(4), Qel::RangeException);
  EXPECT_EQ(counters(), before);
  EXPECT_EQ(indexes(), (Indexes{2, kMax, 0}));
  expectSoundChain();
}

// Iterators while the queue changes: an iterator resumes after the index it
// stood on, in circular order.

struct ChangeCase {
  const char* name;
  Indexes start;
  unsigned standOn;
  Indexes deleted;
  Indexes inserted;
  Indexes visited;
};

class LinkQueueChangeTest : public LinkQueueTest,
                            public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(LinkQueueChangeTest, IteratorResumesAfterItsIndex) {
  const ChangeCase& c = GetParam();
  build(c.start);
  Indexes visited;
  for (auto it = q.iterator(); it && visited.size() < 20; ++it) {
    visited.push_back(it.index());
    if (it.index() != c.standOn) continue;
    for (unsigned i : c.deleted) del(i);
    for (unsigned i : c.inserted) put(i, 7);
  }
  EXPECT_EQ(visited, c.visited);
}

const Indexes kEven{0, 2, 4, 6, 8};

INSTANTIATE_TEST_SUITE_P(
    Cases, LinkQueueChangeTest,
    ::testing::Values(
        ChangeCase{"DeleteCurrentHead", kEven, 0, {0}, {}, kEven},
        ChangeCase{"DeleteCurrentMiddle", kEven, 4, {4}, {}, kEven},
        ChangeCase{"DeleteCurrentTail", kEven, 8, {8}, {}, kEven},
        ChangeCase{"DeleteCurrentAndFollower", kEven, 2, {2, 4}, {}, {0, 2, 6, 8}},
        ChangeCase{"DeleteFollower", kEven, 2, {4}, {}, {0, 2, 6, 8}},
        ChangeCase{"DeleteEarlierMembers", kEven, 4, {0, 2}, {}, kEven},
        ChangeCase{"InsertAhead", kEven, 2, {}, {3, 5}, {0, 2, 3, 4, 5, 6, 8}},
        ChangeCase{"InsertBehind", kEven, 4, {}, {1, 3}, kEven},
        ChangeCase{"AppendWhileOnTail", kEven, 8, {}, {9}, {0, 2, 4, 6, 8, 9}},
        ChangeCase{"ReplaceCurrent", kEven, 4, {}, {4}, kEven},
        ChangeCase{"DeleteCurrentThenInsertAhead", kEven, 4, {4}, {5}, {0, 2, 4, 5, 6, 8}},
        ChangeCase{"DeleteCurrentBeforeTheWrap", kWrapped, kMax, {kMax}, {}, kWrapped},
        ChangeCase{
            "DeleteTailJustPastTheWrap", {kMax - 1, kMax, 0}, 0, {0}, {}, {kMax - 1, kMax, 0}}),
    caseName<ChangeCase>);

TEST_F(LinkQueueTest, IteratorKeepsItsRemovedMemberAliveUntilItMovesOn) {
  build(kEven);
  auto it = q.iterator();
  ++it;
  ++it;
  del(4);
  EXPECT_EQ(std::make_pair(Node::live, it->value()), std::make_pair(5, 104));
  ++it;
  EXPECT_EQ(std::make_pair(Node::live, it.index()), std::make_pair(4, 6u));
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

// Lookups: a queue in circular order answers an index outside its range
// without a walk, so that order is only trusted while it really holds.
class LinkQueueFindTest : public LinkQueueTest {
 protected:
  // find() against a plain walk over the chain, for every index near `around`.
  void expectFindMatchesWalk(unsigned around) {
    for (unsigned d = 0; d < 24; ++d) {
      unsigned index = around + d - 12;
      // The ends first, as exact lookup is defined (they decide between
      // members that share an index), then the first along the chain.
      Node* walked = nullptr;
      if (q.head() && q.head()->index() == index) walked = q.head();
      if (!walked && q.tail() && q.tail()->index() == index) walked = q.tail();
      for (Node* m = q.head(); m && !walked; m = m->next())
        if (m->index() == index) walked = m;
      ASSERT_EQ(q.find(index), walked)
          << "index " << index << " in " << ::testing::PrintToString(indexes());
    }
  }
  // circular() is true only when offsets from the head increase along the chain.
  void expectCircularIsTrue() {
    if (!q.circular() || !q.head()) return;
    unsigned previous = 0;
    for (Node* m = q.head()->next(); m; m = m->next()) {
      unsigned offset = m->index() - q.head()->index();
      ASSERT_GT(offset, previous) << ::testing::PrintToString(indexes());
      previous = offset;
    }
  }
};

TEST_F(LinkQueueFindTest, PlacementBehindAWrappedHeadBreaksTheOrderAndLookupsStillFindEveryMember) {
  q.indicesIs(kMax - 1, kMax - 1);
  enq(1);
  enq(2);
  put(3, 3);  // placed before the head by plain order: 3, kMax - 1, kMax
  enq(4);     // index 0: still in circular order from 3
  EXPECT_TRUE(q.circular());
  put(5, 5, /*hint=*/true);  // past the tail by plain order, before 3 in circular order
  EXPECT_EQ(indexes(), (Indexes{3, kMax - 1, kMax, 0, 5}));
  EXPECT_FALSE(q.circular());
  expectFindMatchesWalk(0);
  expectFindMatchesWalk(kMax - 1);
  while (q.deq()) {
  }
  EXPECT_TRUE(q.circular()) << "an empty queue is in order again";
}

// Random appends, dequeues, placements (with and without hints) and
// removals around the wrap: after each, find() agrees with a walk and the
// order flag never claims an order that is not there.
TEST_F(LinkQueueFindTest, RandomChangesAroundTheWrapKeepLookupsExact) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    q.indicesIs(kMax - 3, kMax - 3);
    unsigned state = seed;
    auto next = [&state] { return state = state * 1103515245u + 12345u, state >> 16; };
    for (int step = 0; step < 300; ++step) {
      unsigned index = kMax - 6 + next() % 14;  // kMax - 6 .. 7
      try {
        switch (next() % 5) {
          case 0:
          case 1:
            enq(step);
            break;
          case 2:
            q.deq();
            break;
          case 3:
            put(index, step, next() % 2 == 0);
            break;
          default:
            del(index);
            break;
        }
      } catch (const Qel::RangeException&) {
        // The index space is full for this small range: nothing changed.
      }
      expectFindMatchesWalk(0);
      expectFindMatchesWalk(kMax - 6);
      expectCircularIsTrue();
      if (HasFatalFailure()) return;
    }
    while (q.deq()) {
    }
  }
}
