#include "qel/String.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "qel/Allocator.h"
#include "qel/Exception.h"
#include "qel/Ptr.h"

namespace Qel {

std::atomic<TypeAllocator*> detail::stringPools{nullptr};

namespace {

// Short strings' blocks come from free lists, one per 16-byte step of
// block size: a stream peer's records and a reader's results make and drop
// strings at a high rate, and reusing a block costs a fraction of a trip
// through malloc and free. Longer strings, rarer and costlier to keep
// around, go to malloc.
constexpr std::size_t kPoolStep = detail::kStringPoolStep;
constexpr std::size_t kPools = detail::kStringPools;
constexpr std::size_t kPooledBlockMax = kPoolStep * kPools;

TypeAllocator* poolsBuilt() noexcept {
  // Built on first use in static storage and never destroyed: strings that
  // other static objects hold are released while the process exits.
  alignas(TypeAllocator) static unsigned char storage[kPools * sizeof(TypeAllocator)];
  static TypeAllocator* const pools = [] {
    static const char* const names[kPools] = {
        "Qel::String[16]", "Qel::String[32]", "Qel::String[48]",  "Qel::String[64]",
        "Qel::String[80]", "Qel::String[96]", "Qel::String[112]", "Qel::String[128]"};
    auto* made = reinterpret_cast<TypeAllocator*>(storage);
    for (std::size_t i = 0; i < kPools; ++i)
      new (made + i) TypeAllocator(names[i], (i + 1) * kPoolStep);
    detail::stringPools.store(made, std::memory_order_release);
    return made;
  }();
  return pools;
}

}  // namespace

String::String(const char* cstr) : String(cstr, cstr ? std::strlen(cstr) : 0) {}

void String::repMake(const char* data, std::size_t size) {
  if (size == 0) return;
  if (size > kSizeMask - kOverheadBytes) throwRangeException("string too long");
  // One block holds the header, the bytes and a terminating NUL.
  const std::size_t blockBytes = offsetof(Rep, chars) + size + 1;
  void* block = blockBytes <= kPooledBlockMax
                    ? poolsBuilt()[(blockBytes - 1) / kPoolStep].allocate(blockBytes)
                    : std::malloc(blockBytes);
  if (!block) throw std::bad_alloc();
  rep_ = repAt(block, data, size);
}

void String::releaseLarge(Rep* rep) noexcept {
  if (rep->size & kOwnedFlag) {
    // The owner is gone too (it held a reference): free the whole block,
    // which starts the recorded distance before the rep.
    std::uint32_t distance;
    std::memcpy(&distance, reinterpret_cast<char*>(rep) - sizeof distance, sizeof distance);
    std::free(reinterpret_cast<char*>(rep) - distance);
    return;
  }
  std::free(rep);
}

namespace {
// glibc's chunks: the request plus one size word, in steps of two words.
// Rounding the request up to what the chunk holds anyway costs nothing
// and gives a rewrite room for longer text.
constexpr std::size_t kChunkStep = 2 * sizeof(std::size_t);
}  // namespace

std::size_t String::ownedBlockBytes(std::size_t ownerBytes, std::size_t size) noexcept {
  const std::size_t needed =
      ownerBytes + sizeof(std::uint32_t) + offsetof(Rep, chars) + size + 1 + sizeof(std::size_t);
  return (needed + kChunkStep - 1) / kChunkStep * kChunkStep - sizeof(std::size_t);
}

String String::ownedIn(void* block, std::size_t ownerBytes, const char* data, std::size_t size) {
  if (size > kSizeMask - kOverheadBytes) throwRangeException("string too long");
  const std::uint32_t distance = static_cast<std::uint32_t>(ownerBytes + sizeof(std::uint32_t));
  std::memcpy(static_cast<char*>(block) + ownerBytes, &distance, sizeof distance);
  Rep* rep = ownedRep(block, ownerBytes);
  new (&rep->refs) std::atomic<std::uint32_t>(2);  // the owner's and the returned string's
  rep->size = static_cast<std::uint32_t>(size) | kOwnedFlag;
  std::memcpy(rep->chars, data, size);
  rep->chars[size] = '\0';
  String s;
  s.rep_ = rep;
  return s;
}

void String::ownerGone(void* block, std::size_t ownerBytes) noexcept {
  String owners;
  owners.rep_ = ownedRep(block, ownerBytes);  // adopts the owner's reference
}

bool String::ownedRewrite(const String& s, void* block, std::size_t ownerBytes, const char* data,
                          std::size_t size) noexcept {
  // Compare addresses before reading anything: only when `s` holds the rep
  // at that place is the memory there known to be a rep. A rep at that
  // address with the flag set was built in `block` itself, since two live
  // blocks cannot start at the same address.
  // (As integers: for an owner without such a block the place lies
  // outside its memory.)
  Rep* rep = s.rep_;
  const std::uintptr_t place =
      reinterpret_cast<std::uintptr_t>(block) + ownerBytes + sizeof(std::uint32_t);
  if (size == 0 || reinterpret_cast<std::uintptr_t>(rep) != place || !(rep->size & kOwnedFlag)) {
    return false;
  }
  // acquire: a thread that dropped its copy did so with a release
  // decrement; its reads of the bytes happen before the overwrite below.
  if (rep->refs.load(std::memory_order_acquire) != 2) return false;
  const std::size_t capacity = ownedBlockBytes(ownerBytes, rep->size & kSizeMask) - ownerBytes -
                               sizeof(std::uint32_t) - offsetof(Rep, chars) - 1;
  if (size > capacity) return false;
  std::memcpy(rep->chars, data, size);
  rep->chars[size] = '\0';
  rep->size = static_cast<std::uint32_t>(size) | kOwnedFlag;
  return true;
}

std::ostream& operator<<(std::ostream& os, const String& s) {
  return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

}  // namespace Qel
