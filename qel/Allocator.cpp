#include "qel/Allocator.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "qel/Ptr.h"

namespace Qel {

namespace {

std::vector<const TypeAllocator*>& allocatorList() {
  static auto* list = new std::vector<const TypeAllocator*>;  // lives until exit
  return *list;
}

// Objects may be released on another thread only when thread-safe pointers
// are on; only then does the free list need guarding. A spin lock suffices:
// the critical sections are a few instructions long.
class Guard {
 public:
  explicit Guard(std::atomic_flag& flag)
      : flag_(VFPtrInterface::enableThreadSafePointers ? &flag : nullptr) {
    // acquire: the list as the previous holder left it becomes visible.
    if (flag_) {
      while (flag_->test_and_set(std::memory_order_acquire)) {
      }
    }
  }
  // release: our changes to the list become visible to the next holder.
  ~Guard() {
    if (flag_) flag_->clear(std::memory_order_release);
  }

 private:
  std::atomic_flag* flag_;
};

}  // namespace

TypeAllocator::TypeAllocator(const char* typeName, std::size_t objectSize)
    : typeName_(typeName),
      objectSize_(objectSize < sizeof(FreeNode) ? sizeof(FreeNode) : objectSize) {
  allocatorList().push_back(this);
}

void* TypeAllocator::allocateSlow(std::size_t size) {
  Guard guard(busy_);
  ++allocations_;
  ++live_;
  if (kPooling && size <= objectSize_ && free_) {
    FreeNode* n = free_;
    free_ = n->next;
    return n;
  }
  ++systemAllocations_;
  void* p = std::malloc(size <= objectSize_ ? objectSize_ : size);
  if (!p) {
    --live_;
    throw std::bad_alloc();
  }
  return p;
}

void TypeAllocator::deallocateSlow(void* p, std::size_t size) noexcept {
  if (!p) return;
  Guard guard(busy_);
  --live_;
  if (kPooling && size <= objectSize_) {
    // Invariant: every block of this allocator is at least objectSize_ bytes,
    // which is at least one FreeNode.
    FreeNode* n = static_cast<FreeNode*>(p);
    n->next = free_;
    free_ = n;
    return;
  }
  std::free(p);
}

void TypeAllocator::objectPlaced() noexcept {
  Guard guard(busy_);
  ++allocations_;
  ++systemAllocations_;
  ++live_;
}

void TypeAllocator::objectGone() noexcept {
  Guard guard(busy_);
  --live_;
}

std::uint64_t liveObjects(const char* typeName) {
  std::uint64_t n = 0;
  for (const TypeAllocator* a : allocatorList()) {
    if (std::strcmp(a->typeName(), typeName) == 0) n += a->live();
  }
  return n;
}

std::vector<const TypeAllocator*> typeAllocators() {
  return allocatorList();
}

}  // namespace Qel
