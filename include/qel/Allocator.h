// The per-type tracked allocator.
//
// Each framework type that declares QEL_TRACKED_ALLOCATION gets class-level
// operator new/delete served by one TypeAllocator: freed objects go to a
// free list of that type and are handed out again before any new memory is
// taken, so a steady state of frees and allocations never reaches malloc.
// Each allocator counts its live objects, which tests read to find leaks.
//
// Under AddressSanitizer the free lists are bypassed, so that a use after
// free is still reported.
#ifndef QEL_ALLOCATOR_H
#define QEL_ALLOCATOR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qel/Export.h"
#include "qel/Prefetch.h"
#include "qel/Ptr.h"

namespace Qel {

class QEL_EXPORT TypeAllocator {
 public:
  TypeAllocator(const char* typeName, std::size_t objectSize);
  TypeAllocator(const TypeAllocator&) = delete;
  TypeAllocator& operator=(const TypeAllocator&) = delete;

  // The fast paths are inline: on a steady state every allocation is a pop
  // from the free list and every release a push. Objects of another size,
  // an empty list and thread-safe mode take the out-of-line paths.
  void* allocate(std::size_t size) {
    if (kPooling && free_ && size <= objectSize_ && !VFPtrInterface::enableThreadSafePointers) {
      FreeNode* n = free_;
      free_ = n->next;
      // The next allocation reads the new head's link: start loading it
      // now, since freed blocks are seldom in cache.
      prefetch(free_);
      ++allocations_;
      ++live_;
      return n;
    }
    return allocateSlow(size);
  }
  void deallocate(void* p, std::size_t size) noexcept {
    if (kPooling && p && size <= objectSize_ && !VFPtrInterface::enableThreadSafePointers) {
      // Invariant: every block of this allocator is at least objectSize_
      // bytes, which is at least one FreeNode.
      FreeNode* n = static_cast<FreeNode*>(p);
      n->next = free_;
      free_ = n;
      --live_;
      return;
    }
    deallocateSlow(p, size);
  }

  // For objects of this type that live in a block the allocator does not
  // manage (one they share with other data): counted as allocated from the
  // system and live from objectPlaced until objectGone.
  void objectPlaced() noexcept;
  void objectGone() noexcept;

  const char* typeName() const noexcept { return typeName_; }
  std::size_t objectSize() const noexcept { return objectSize_; }
  std::uint64_t live() const noexcept { return live_; }
  std::uint64_t allocations() const noexcept { return allocations_; }
  // Objects obtained from the system rather than the free list.
  std::uint64_t systemAllocations() const noexcept { return systemAllocations_; }

 private:
  struct FreeNode {
    FreeNode* next;
  };
#if defined(__SANITIZE_ADDRESS__)
  // Freed blocks go back to the system, so that a use after free is caught.
  static constexpr bool kPooling = false;
#else
  static constexpr bool kPooling = true;
#endif
  void* allocateSlow(std::size_t size);
  void deallocateSlow(void* p, std::size_t size) noexcept;
  const char* typeName_;
  std::size_t objectSize_;
  FreeNode* free_ = nullptr;
  std::uint64_t live_ = 0;
  std::uint64_t allocations_ = 0;
  std::uint64_t systemAllocations_ = 0;
  std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
};

// Live objects of the tracked type registered under `typeName` (0 when none).
QEL_EXPORT std::uint64_t liveObjects(const char* typeName);
// Every tracked type's allocator, in the order they were first used.
QEL_EXPORT std::vector<const TypeAllocator*> typeAllocators();

}  // namespace Qel

// Inside a class body: routes the class's own new/delete through its tracked
// allocator. The allocator itself is defined once, in the class's source
// file, with QEL_TRACKED_ALLOCATION_DEFINE, so that every library sees the
// same one. A derived class of another size is served by the system (and
// still counted) unless it declares its own.
#define QEL_TRACKED_ALLOCATION()                                    \
 public:                                                            \
  static ::Qel::TypeAllocator& qelAllocator();                      \
  static void* operator new(std::size_t size) {                     \
    return qelAllocator().allocate(size);                           \
  }                                                                 \
  static void operator delete(void* p, std::size_t size) noexcept { \
    qelAllocator().deallocate(p, size);                             \
  }                                                                 \
                                                                    \
 private:

#define QEL_TRACKED_ALLOCATION_DEFINE(Class, typeName)                                  \
  ::Qel::TypeAllocator& Class::qelAllocator() {                                         \
    static ::Qel::TypeAllocator* a = new ::Qel::TypeAllocator(typeName, sizeof(Class)); \
    return *a;                                                                          \
  }

#endif  // QEL_ALLOCATOR_H
