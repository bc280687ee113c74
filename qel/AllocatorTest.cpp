// The tracked allocator: live counts that go back down (the leak check other
// tests rely on), free-list reuse, and objects of other sizes.
#include "qel/Allocator.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "qel/Dir.h"
#include "qel/Ptr.h"

// Under AddressSanitizer the allocator hands every block back to the system,
// so that a use after free is reported; reuse cannot be observed there.
#if defined(__SANITIZE_ADDRESS__)
#define QEL_TEST_POOLING 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEL_TEST_POOLING 0
#endif
#endif
#ifndef QEL_TEST_POOLING
#define QEL_TEST_POOLING 1
#endif

namespace {

// A directory larger than Qel::Dir, which its allocator's blocks cannot hold.
class BigDir : public Qel::Dir {
 public:
  BigDir() : Dir("big") { std::memset(padding, 0x5a, sizeof padding); }
  char padding[512];
};

// A tracked allocator used directly; allocators live until exit.
Qel::TypeAllocator& blobAllocator() {
  static auto* a = new Qel::TypeAllocator("QelTest::Blob", 1);
  return *a;
}

const Qel::TypeAllocator* allocatorNamed(const char* name) {
  for (const Qel::TypeAllocator* a : Qel::typeAllocators()) {
    if (std::strcmp(a->typeName(), name) == 0) return a;
  }
  return nullptr;
}

class AllocatorTest : public ::testing::Test {
 protected:
  static std::uint64_t liveDirs() { return Qel::liveObjects("Qel::Dir"); }
  static const Qel::TypeAllocator& dirAllocator() { return Qel::Dir::qelAllocator(); }
  // Creates and releases one directory.
  static void churn() { Qel::dirFactory("churn"); }
};

TEST_F(AllocatorTest, AllocatorIsListedUnderTheTypeNameAndCountsEveryAllocation) {
  churn();
  const Qel::TypeAllocator* a = allocatorNamed("Qel::Dir");
  ASSERT_EQ(a, &dirAllocator());
  EXPECT_GE(a->objectSize(), sizeof(Qel::Dir));
  EXPECT_GE(blobAllocator().objectSize(), sizeof(void*));  // room for the free-list link
  std::uint64_t before = a->allocations();
  for (int i = 0; i < 10; ++i) churn();
  EXPECT_EQ(a->allocations(), before + 10);
}

TEST_F(AllocatorTest, LargerDerivedObjectIsServedByTheSystemAndCounted) {
  std::uint64_t before = liveDirs();
  std::uint64_t system = dirAllocator().systemAllocations();
  Qel::Ptr<BigDir> big(new BigDir);
  EXPECT_EQ(liveDirs(), before + 1);
  EXPECT_EQ(dirAllocator().systemAllocations(), system + 1);
  big = nullptr;
  EXPECT_EQ(liveDirs(), before);
}

// Reuse, with plain and with thread-safe pointers (which guard the list).
class AllocatorReuseTest : public AllocatorTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    saved_ = Qel::VFPtrInterface::enableThreadSafePointers;
    Qel::VFPtrInterface::enableThreadSafePointers = GetParam();
  }
  void TearDown() override { Qel::VFPtrInterface::enableThreadSafePointers = saved_; }
  bool saved_ = false;
};

TEST_P(AllocatorReuseTest, FreedBlocksAreHandedOutAgainSoSteadyStateTakesNothingFromTheSystem) {
  if (!QEL_TEST_POOLING) GTEST_SKIP() << "free lists are off under AddressSanitizer";
  churn();
  std::uint64_t system = dirAllocator().systemAllocations();
  for (int i = 0; i < 100; ++i) churn();
  EXPECT_EQ(dirAllocator().systemAllocations(), system);
  Qel::TypeAllocator& a = blobAllocator();
  void* first = a.allocate(1);
  a.deallocate(first, 1);
  void* second = a.allocate(1);
  EXPECT_EQ(second, first);
  a.deallocate(second, 1);
}

TEST_P(AllocatorReuseTest, LiveCountFollowsAllocateAndDeallocate) {
  Qel::TypeAllocator& a = blobAllocator();
  std::uint64_t before = Qel::liveObjects("QelTest::Blob");
  void* small = a.allocate(1);
  void* large = a.allocate(4096);
  std::memset(large, 0, 4096);
  EXPECT_EQ(Qel::liveObjects("QelTest::Blob"), before + 2);
  a.deallocate(large, 4096);
  a.deallocate(small, 1);
  a.deallocate(nullptr, 1);  // changes nothing
  EXPECT_EQ(Qel::liveObjects("QelTest::Blob"), before);
}

INSTANTIATE_TEST_SUITE_P(BothCountingModes, AllocatorReuseTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "ThreadSafe" : "Plain";
                         });

}  // namespace
