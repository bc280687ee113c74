// Reference counting through every way a Ptr is copied, moved and assigned,
// with both settings of the thread-safety switch.
#include "qel/Ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// Counts its own destructions, so a test sees exactly when the object goes.
class Tracked : public Qel::PtrInterface {
 public:
  explicit Tracked(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
  Tracked(const Tracked&) = default;
  Tracked& operator=(const Tracked&) = default;
  ~Tracked() override { ++*destroyed_; }

 private:
  std::atomic<int>* destroyed_;
};

class TrackedChild : public Tracked {
 public:
  using Tracked::Tracked;
  int payload = 42;
};

class Unrelated : public Qel::PtrInterface {};

// Conversions follow the pointers': derived to base and adding const only.
static_assert(std::is_convertible_v<Qel::Ptr<TrackedChild>, Qel::Ptr<Tracked>>);
static_assert(std::is_convertible_v<Qel::Ptr<Tracked>, Qel::Ptr<const Tracked>>);
static_assert(!std::is_convertible_v<Qel::Ptr<Tracked>, Qel::Ptr<TrackedChild>>);
static_assert(!std::is_convertible_v<Qel::Ptr<Tracked>, Qel::Ptr<Unrelated>>);
static_assert(!std::is_convertible_v<Qel::Ptr<const Tracked>, Qel::Ptr<Tracked>>);

// Overloads on unrelated pointer types pick the matching one.
[[maybe_unused]] char overloadOf(const Qel::Ptr<Tracked>&) {
  return 0;
}
[[maybe_unused]] long overloadOf(const Qel::Ptr<Unrelated>&) {
  return 0;
}
static_assert(std::is_same_v<decltype(overloadOf(std::declval<Qel::Ptr<TrackedChild>>())), char>);
static_assert(std::is_same_v<decltype(overloadOf(std::declval<Qel::Ptr<Unrelated>>())), long>);

// Recycles itself instead of being deleted when the last reference goes.
class Recycled : public Qel::PtrInterface {
 public:
  void zeroReferencesIs() override { ++recycled; }
  int recycled = 0;
};

// Saves the thread-safety switch and restores it after the test.
class SwitchGuard {
 public:
  explicit SwitchGuard(bool value) : saved_(Qel::VFPtrInterface::enableThreadSafePointers) {
    Qel::VFPtrInterface::enableThreadSafePointers = value;
  }
  ~SwitchGuard() { Qel::VFPtrInterface::enableThreadSafePointers = saved_; }
  SwitchGuard(const SwitchGuard&) = delete;
  SwitchGuard& operator=(const SwitchGuard&) = delete;

 private:
  bool saved_;
};

// Every counting test runs once with plain counts and once with atomic ones.
class PtrTest : public ::testing::TestWithParam<bool> {
 protected:
  Qel::Ptr<Tracked> make() { return new Tracked(&destroyed_); }
  Qel::Ptr<TrackedChild> makeChild() { return new TrackedChild(&destroyed_); }
  int destroyed() const { return destroyed_.load(); }

  SwitchGuard switch_{GetParam()};
  std::atomic<int> destroyed_{0};
};

TEST_P(PtrTest, ObjectLivesUntilTheLastReferenceGoesAndMovesTransferIt) {
  Qel::Ptr<Tracked> p = make();
  Qel::Ptr<Tracked> q = p;
  EXPECT_EQ(p->references(), 2u);
  Qel::Ptr<Tracked> r(std::move(p));
  EXPECT_FALSE(p);
  EXPECT_EQ(q->references(), 2u);
  r = nullptr;
  EXPECT_EQ(destroyed(), 0);
  q = nullptr;
  EXPECT_EQ(destroyed(), 1);
}

TEST_P(PtrTest, AssignmentReleasesThePreviousObjectAndSelfAssignmentKeepsIt) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  a = b;  // copy
  EXPECT_EQ(destroyed(), 1);
  Qel::Ptr<Tracked> c = make();
  c = std::move(a);
  EXPECT_EQ(destroyed(), 2);
  EXPECT_TRUE(c == b && !a);
  b = nullptr;  // c holds the only reference through every self-assignment
  const Qel::Ptr<Tracked>& alias = c;
  c = alias;
  Qel::Ptr<Tracked>& movable = c;
  c = std::move(movable);
  c = c.ptr();
  EXPECT_EQ(destroyed(), 2);
  EXPECT_EQ(c->references(), 1u);
}

TEST_P(PtrTest, DerivedCopiesMovesAndAssignsToBaseSharingOneCount) {
  Qel::Ptr<TrackedChild> child = makeChild();
  Qel::Ptr<Tracked> base = child;
  EXPECT_EQ(base.ptr(), child.ptr());
  EXPECT_EQ(child->references(), 2u);
  Qel::Ptr<Tracked> moved(std::move(child));
  EXPECT_FALSE(child);
  EXPECT_EQ(base->references(), 2u);
  child = makeChild();
  base = child;
  moved = nullptr;  // releases the first child
  EXPECT_EQ(destroyed(), 1);
  EXPECT_EQ(child->references(), 2u);
}

TEST_P(PtrTest, DynamicCastSharesTheObjectOrIsNullWithoutAReference) {
  Qel::Ptr<Tracked> base = makeChild();
  EXPECT_FALSE(Qel::ptrDynamicCast<Unrelated>(base));
  EXPECT_EQ(base->references(), 1u);
  Qel::Ptr<TrackedChild> child = Qel::ptrDynamicCast<TrackedChild>(base);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->payload, 42);
  EXPECT_EQ(base->references(), 2u);
}

// A count belongs to the object's place, never to its value.
TEST_P(PtrTest, CopyingOrAssigningAnObjectLeavesTheCountsAlone) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  Qel::Ptr<Tracked> b2 = b;
  Tracked copy(*b);
  EXPECT_EQ(copy.references(), 0u);
  *a = *b;
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(b->references(), 2u);
}

TEST_P(PtrTest, LastReleaseCallsZeroReferencesIsOnce) {
  Recycled object;
  {
    Qel::Ptr<Recycled> p(&object);
    Qel::Ptr<Recycled> q = p;
    p = nullptr;
    EXPECT_EQ(object.recycled, 0);
  }
  EXPECT_EQ(object.recycled, 1);
}

INSTANTIATE_TEST_SUITE_P(BothCountingModes, PtrTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "ThreadSafe" : "Plain";
                         });

// Threads, with the switch on, copy one shared object and release their own
// references to many others in the same order, so that they contend for each
// object and its last reference goes on any of them.
TEST(PtrThreadTest, ConcurrentCopiesAndReleasesLeaveEveryCountExact) {
  constexpr int kThreads = 4;
  constexpr int kObjects = 20000;
  SwitchGuard threadSafe(true);
  std::atomic<int> destroyed{0};
  Qel::Ptr<Tracked> shared(new Tracked(&destroyed));
  std::vector<std::vector<Qel::Ptr<Tracked>>> held(kThreads);
  for (int i = 0; i < kObjects; ++i) {
    Qel::Ptr<Tracked> object(new Tracked(&destroyed));
    for (auto& refs : held) refs.push_back(object);
  }
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (auto& refs : held) {
    threads.emplace_back([&] {
      for (++ready; ready.load() < kThreads;) {
      }
      for (Qel::Ptr<Tracked>& p : refs) {
        Qel::Ptr<Tracked> a = shared;
        Qel::Ptr<Tracked> b = a;
        p = nullptr;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(shared->references(), 1u);
  EXPECT_EQ(destroyed.load(), kObjects);
}

}  // namespace
