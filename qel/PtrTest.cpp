// Reference counting: counts through every way a Ptr is copied, moved and
// assigned, destruction exactly when the last reference goes, and both
// settings of the thread-safety switch.
#include "qel/Ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <thread>
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

TEST_P(PtrTest, NewObjectStartsWithoutReferences) {
  Tracked object(&destroyed_);
  EXPECT_EQ(object.references(), 0u);
}

TEST_P(PtrTest, FirstPtrTakesOneReference) {
  Qel::Ptr<Tracked> p = make();
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, CopyAddsAReference) {
  Qel::Ptr<Tracked> p = make();
  Qel::Ptr<Tracked> q(p);
  EXPECT_EQ(p.ptr(), q.ptr());
  EXPECT_EQ(p->references(), 2u);
}

TEST_P(PtrTest, ObjectLivesUntilTheLastReferenceGoes) {
  Qel::Ptr<Tracked> p = make();
  Qel::Ptr<Tracked> q = p;
  p = nullptr;
  EXPECT_EQ(destroyed(), 0);
  EXPECT_EQ(q->references(), 1u);
  q = nullptr;
  EXPECT_EQ(destroyed(), 1);
}

TEST_P(PtrTest, MoveTransfersTheReference) {
  Qel::Ptr<Tracked> p = make();
  Qel::Ptr<Tracked> q(std::move(p));
  EXPECT_FALSE(p);
  EXPECT_EQ(q->references(), 1u);
  EXPECT_EQ(destroyed(), 0);
}

TEST_P(PtrTest, CopyAssignReleasesThePreviousObject) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  a = b;
  EXPECT_EQ(destroyed(), 1);
  EXPECT_EQ(b->references(), 2u);
}

TEST_P(PtrTest, MoveAssignReleasesThePreviousObject) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  Tracked* moved = b.ptr();
  a = std::move(b);
  EXPECT_EQ(destroyed(), 1);
  EXPECT_EQ(a.ptr(), moved);
  EXPECT_EQ(a->references(), 1u);
  EXPECT_FALSE(b);
}

TEST_P(PtrTest, SelfCopyAssignKeepsTheObject) {
  Qel::Ptr<Tracked> p = make();
  const Qel::Ptr<Tracked>& alias = p;
  p = alias;
  EXPECT_EQ(destroyed(), 0);
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, SelfMoveAssignKeepsTheObject) {
  Qel::Ptr<Tracked> p = make();
  Qel::Ptr<Tracked>& alias = p;
  p = std::move(alias);
  ASSERT_TRUE(p);
  EXPECT_EQ(destroyed(), 0);
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, AssigningTheHeldRawPointerKeepsTheObject) {
  Qel::Ptr<Tracked> p = make();
  p = p.ptr();
  EXPECT_EQ(destroyed(), 0);
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, DerivedConvertsToBaseSharingOneCount) {
  Qel::Ptr<TrackedChild> child = makeChild();
  Qel::Ptr<Tracked> base = child;
  EXPECT_EQ(base.ptr(), child.ptr());
  EXPECT_EQ(child->references(), 2u);
  child = nullptr;
  EXPECT_EQ(destroyed(), 0);
  base = nullptr;
  EXPECT_EQ(destroyed(), 1);
}

TEST_P(PtrTest, DerivedMovesToBaseWithoutCountChange) {
  Qel::Ptr<TrackedChild> child = makeChild();
  Qel::Ptr<Tracked> base(std::move(child));
  EXPECT_FALSE(child);
  EXPECT_EQ(base->references(), 1u);
  base = nullptr;
  EXPECT_EQ(destroyed(), 1);
}

TEST_P(PtrTest, DerivedAssignsToBaseReleasingThePrevious) {
  Qel::Ptr<Tracked> base = make();
  Qel::Ptr<TrackedChild> child = makeChild();
  base = child;
  EXPECT_EQ(destroyed(), 1);
  EXPECT_EQ(child->references(), 2u);
}

TEST_P(PtrTest, DynamicCastToTheWrongTypeIsNullAndTakesNoReference) {
  Qel::Ptr<Tracked> p = make();
  EXPECT_FALSE(Qel::ptrDynamicCast<Unrelated>(p));
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, DynamicCastToTheRealTypeSharesTheObject) {
  Qel::Ptr<Tracked> base = makeChild();
  Qel::Ptr<TrackedChild> child = Qel::ptrDynamicCast<TrackedChild>(base);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->payload, 42);
  EXPECT_EQ(base->references(), 2u);
}

TEST_P(PtrTest, ComparesByIdentity) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  Qel::Ptr<Tracked> a2 = a;
  EXPECT_TRUE(a == a2);
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(Qel::Ptr<Tracked>() == nullptr);
  EXPECT_TRUE(a != nullptr);
}

TEST_P(PtrTest, CopiedObjectStartsWithoutReferences) {
  Qel::Ptr<Tracked> p = make();
  Tracked copy(*p);
  EXPECT_EQ(copy.references(), 0u);
  EXPECT_EQ(p->references(), 1u);
}

TEST_P(PtrTest, AssigningAnObjectKeepsItsOwnCount) {
  Qel::Ptr<Tracked> a = make();
  Qel::Ptr<Tracked> b = make();
  Qel::Ptr<Tracked> b2 = b;
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

// Objects shared between threads, with the switch on.
class PtrThreadTest : public ::testing::Test {
 protected:
  static constexpr int kThreads = 4;

  // Runs body(threadIndex) on kThreads threads at once and waits for them
  // all. The threads start together so that their updates overlap.
  template <class F>
  void onThreads(F body) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ++ready;
        while (ready.load() < kThreads) {
        }
        body(t);
      });
    }
    for (std::thread& t : threads) t.join();
  }

  SwitchGuard switch_{true};
  std::atomic<int> destroyed_{0};
};

TEST_F(PtrThreadTest, ConcurrentCopiesLeaveTheCountExact) {
  Qel::Ptr<Tracked> shared(new Tracked(&destroyed_));
  onThreads([&](int) {
    for (int i = 0; i < 200000; ++i) {
      Qel::Ptr<Tracked> a = shared;
      Qel::Ptr<Tracked> b = a;
      a = nullptr;
    }
  });
  EXPECT_EQ(shared->references(), 1u);
  EXPECT_EQ(destroyed_.load(), 0);
}

TEST_F(PtrThreadTest, ConcurrentLastReleasesDestroyEachObjectOnce) {
  constexpr int kObjects = 20000;
  std::vector<std::vector<Qel::Ptr<Tracked>>> held(kThreads);
  {
    std::vector<Qel::Ptr<Tracked>> objects;
    for (int i = 0; i < kObjects; ++i) objects.emplace_back(new Tracked(&destroyed_));
    for (auto& refs : held) refs = objects;
  }
  ASSERT_EQ(destroyed_.load(), 0);
  // Every thread releases in the same order, so that they contend for the
  // same object and its last reference goes on any of them.
  onThreads([&](int t) {
    for (Qel::Ptr<Tracked>& p : held[static_cast<std::size_t>(t)]) p = nullptr;
  });
  EXPECT_EQ(destroyed_.load(), kObjects);
}

}  // namespace
