// Immutable, reference-counted byte strings, names and time points.
#ifndef QEL_STRING_H
#define QEL_STRING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <new>
#include <string>
#include <string_view>

#include "qel/Allocator.h"
#include "qel/Export.h"
#include "qel/Ptr.h"

namespace Qel {

namespace detail {
// The free lists of short strings' blocks, one per 16-byte step of block
// size (see String). Null until the first string is made, which builds
// them; read inline by String's constructor, so that making a short string
// is a pop from a list and a copy, without a call.
//
// Published with a release store once every list is built, and read with
// acquire loads, so that a thread that sees the array sees it built (an
// acquire load is a plain load on x86).
constexpr std::size_t kStringPoolStep = 16;
constexpr std::size_t kStringPools = 8;
QEL_EXPORT extern std::atomic<TypeAllocator*> stringPools;

// Copies n bytes; up to 16 of them as two overlapping words, inline (a
// received record's strings are mostly that short, and the call to memcpy
// costs more than the copy).
inline void bytesCopy(char* to, const char* from, std::size_t n) noexcept {
  if (n >= 8 && n <= 16) {
    std::uint64_t head, tail;
    std::memcpy(&head, from, 8);
    std::memcpy(&tail, from + n - 8, 8);
    std::memcpy(to, &head, 8);
    std::memcpy(to + n - 8, &tail, 8);
  } else if (n != 0) {  // `from` may be null then
    std::memcpy(to, from, n);
  }
}
}  // namespace detail

// An immutable sequence of bytes; NUL bytes may appear anywhere inside.
// Copies share one heap block and cost a reference-count update; the empty
// string owns no block at all. The bytes are always followed by a NUL that
// is not part of the string, so c_str() is free (and stops at the first NUL
// inside, which is what C interfaces expect). Blocks of up to 128 bytes
// (strings of up to 119) are reused through per-size free lists, counted as
// the tracked types "Qel::String[16]" to "Qel::String[128]"; longer ones
// come from malloc.
class QEL_EXPORT String {
 public:
  using IteratorConst = const char*;

  String() noexcept : rep_(nullptr) {}
  String(const char* cstr);  // NOLINT: implicit from literals on purpose
  // Throws RangeException for a size beyond 2^31 - 10 bytes, and
  // std::bad_alloc.
  String(const char* data, std::size_t size) : rep_(nullptr) {
    if (size == 0) return;  // the empty string owns no block
    const std::size_t blockBytes = offsetof(Rep, chars) + size + 1;
    TypeAllocator* pools = detail::stringPools.load(std::memory_order_acquire);
    if (blockBytes > detail::kStringPoolStep * detail::kStringPools || !pools) {
      repMake(data, size);
      return;
    }
    rep_ =
        repAt(pools[(blockBytes - 1) / detail::kStringPoolStep].allocate(blockBytes), data, size);
  }
  String(const std::string& s) : String(s.data(), s.size()) {}  // NOLINT
  explicit String(std::string_view s) : String(s.data(), s.size()) {}
  String(const String& o) noexcept : rep_(o.rep_) { newRef(); }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() { deleteRef(); }
  // Inline: a setter's assignment is on the path of every change. Self-
  // assignment finds the same block and changes nothing.
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment,cert-oop54-cpp)
  String& operator=(const String& o) noexcept {
    if (rep_ != o.rep_) {
      o.newRef();
      deleteRef();
      rep_ = o.rep_;
    }
    return *this;
  }
  String& operator=(String&& o) noexcept {
    if (this != &o) {
      deleteRef();
      rep_ = o.rep_;
      o.rep_ = nullptr;
    }
    return *this;
  }

  std::size_t size() const noexcept { return rep_ ? rep_->size & kSizeMask : 0; }
  bool empty() const noexcept { return size() == 0; }
  const char* data() const noexcept { return rep_ ? rep_->chars : ""; }
  const char* c_str() const noexcept { return data(); }
  IteratorConst begin() const noexcept { return data(); }
  IteratorConst end() const noexcept { return data() + size(); }
  std::string_view view() const noexcept { return std::string_view(data(), size()); }
  std::string stdString() const { return std::string(data(), size()); }

  // Bytes held in the heap block beyond the characters: what a string costs
  // on top of its text (0 for the empty string).
  static constexpr std::size_t kOverheadBytes = 2 * sizeof(std::uint32_t) + 1;

  // ---- Strings that share a block with their owner
  //
  // An object (the owner) that stores one string can hold the string's
  // bytes in its own heap block, so that both cost one allocation:
  //
  //   block: [owner, ownerBytes | distance to the rep | rep: count, size, bytes, NUL]
  //
  // The block comes from std::malloc with ownedBlockBytes(ownerBytes,
  // size) bytes. The rep's count includes one reference held by the owner
  // itself; the block is freed when that reference and the last string
  // sharing the bytes are both gone, whichever goes last (the owner's
  // through ownerGone, a string's through its destructor). So a string
  // taken from the owner stays valid after the owner is destroyed.
  //
  // Invariant: ownerBytes is a multiple of 4 and the block is aligned for
  // the owner, so the rep that follows is aligned for its count.

  // The bytes to request for a block holding an owner of `ownerBytes` and
  // a string of `size` bytes (not 0). Rounded up to the allocator's chunk
  // steps, so that a rewrite can use the slack (see ownedRewrite).
  static std::size_t ownedBlockBytes(std::size_t ownerBytes, std::size_t size) noexcept;
  // Builds the string inside `block` (ownedBlockBytes long) after the
  // owner's bytes and returns it; the owner holds its own reference too.
  // `size` must not be 0 (the empty string owns no block).
  static String ownedIn(void* block, std::size_t ownerBytes, const char* data, std::size_t size);
  // The owner lets go of its reference; frees the block when no string
  // shares the bytes any more. The owner must already be destroyed.
  static void ownerGone(void* block, std::size_t ownerBytes) noexcept;
  // Overwrites the bytes of `s` in place with `size` bytes of `data`, when
  // `s` is the string built in `block` and nothing but `s` and the owner
  // holds it, and the new bytes fit; false, changing nothing, otherwise.
  // The caller guarantees that no other thread can reach `s` or the owner.
  static bool ownedRewrite(const String& s, void* block, std::size_t ownerBytes, const char* data,
                           std::size_t size) noexcept;

 private:
  struct Rep {
    std::atomic<std::uint32_t> refs;
    std::uint32_t size;  // the length, with kOwnedFlag set in an owner's block
    char chars[1];
  };
  static constexpr std::uint32_t kOwnedFlag = 0x80000000u;
  static constexpr std::uint32_t kSizeMask = ~kOwnedFlag;
  static Rep* ownedRep(void* block, std::size_t ownerBytes) noexcept {
    return reinterpret_cast<Rep*>(static_cast<char*>(block) + ownerBytes + sizeof(std::uint32_t));
  }
  // Inline: strings are copied and dropped on every recorded event. The
  // counting rules are PtrInterface's (see Ptr.h).
  void newRef() const noexcept {
    if (!rep_) return;
    if (threadSafe()) {
      rep_->refs.fetch_add(1, std::memory_order_relaxed);
    } else {
      rep_->refs.store(rep_->refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  // Always inline: left to itself the compiler makes this a call, which
  // every dropped string then pays.
  __attribute__((always_inline)) void deleteRef() noexcept {
    if (!rep_) return;
    std::uint32_t left;
    if (threadSafe()) {
      left = rep_->refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = rep_->refs.load(std::memory_order_relaxed) - 1;
      rep_->refs.store(left, std::memory_order_relaxed);
    }
    if (left == 0) release(rep_);
    rep_ = nullptr;
  }
  static bool threadSafe() noexcept { return VFPtrInterface::enableThreadSafePointers; }
  // The constructor's general case: any size, from a pool or malloc.
  void repMake(const char* data, std::size_t size);
  // Builds a rep holding `data` (one reference) in `block`, which has room
  // for the header, the bytes and a NUL.
  static Rep* repAt(void* block, const char* data, std::size_t size) noexcept {
    Rep* rep = static_cast<Rep*>(block);
    new (&rep->refs) std::atomic<std::uint32_t>(1);
    rep->size = static_cast<std::uint32_t>(size);
    detail::bytesCopy(rep->chars, data, size);
    rep->chars[size] = '\0';
    return rep;
  }
  // Gives the block back: a pooled one inline (its list is known from the
  // size), anything else through releaseLarge. An owner's block has
  // kOwnedFlag in its size, which puts it past every pool.
  static void release(Rep* rep) noexcept {
    const std::size_t blockBytes = offsetof(Rep, chars) + std::size_t{rep->size} + 1;
    if (blockBytes <= detail::kStringPoolStep * detail::kStringPools) {
      // The pools exist: the block came from one.
      TypeAllocator* pools = detail::stringPools.load(std::memory_order_acquire);
      pools[(blockBytes - 1) / detail::kStringPoolStep].deallocate(rep, blockBytes);
    } else {
      releaseLarge(rep);
    }
  }
  static void releaseLarge(Rep* rep) noexcept;
  Rep* rep_;
};

using String8 = String;

namespace detail {
template <class Word>
inline Word wordAt(const char* p) noexcept {
  Word w;
  std::memcpy(&w, p, sizeof w);  // any alignment, no aliasing
  return w;
}

// Setters compare each new value with the old one, and most strings are
// short: for them a call to memcmp costs more than the comparison. Up to
// 16 bytes are compared inline as two overlapping words; longer ones are
// refused on a first differing word before memcmp is called.
inline bool bytesEqual(const char* p, const char* q, std::size_t n) noexcept {
  if (p == q) return true;  // one shared block
  if (n >= 8) {
    if (wordAt<std::uint64_t>(p) != wordAt<std::uint64_t>(q)) return false;
    if (n <= 16) return wordAt<std::uint64_t>(p + n - 8) == wordAt<std::uint64_t>(q + n - 8);
    return std::memcmp(p + 8, q + 8, n - 8) == 0;
  }
  if (n >= 4) {
    return wordAt<std::uint32_t>(p) == wordAt<std::uint32_t>(q) &&
           wordAt<std::uint32_t>(p + n - 4) == wordAt<std::uint32_t>(q + n - 4);
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (p[i] != q[i]) return false;
  }
  return true;
}
}  // namespace detail

inline bool operator==(const String& a, const String& b) noexcept {
  return a.size() == b.size() && detail::bytesEqual(a.data(), b.data(), a.size());
}
inline bool operator!=(const String& a, const String& b) noexcept {
  return !(a == b);
}
inline bool operator<(const String& a, const String& b) noexcept {
  return a.view() < b.view();
}
inline bool operator==(const String& a, const char* b) noexcept {
  return a.view() == b;
}
inline bool operator!=(const String& a, const char* b) noexcept {
  return a.view() != b;
}

// Writes the raw bytes, NULs included, without quoting.
QEL_EXPORT std::ostream& operator<<(std::ostream& os, const String& s);

// A string used as the key of an entity or of a collection member.
class QEL_EXPORT Name : public String {
 public:
  using String::String;
  Name() noexcept = default;
  Name(const String& s) noexcept : String(s) {}  // NOLINT
};

// FNV-1a over the bytes: cheap, and good enough for short entity names.
inline std::uint32_t hashOf(const String& s) noexcept {
  std::uint32_t h = 2166136261u;
  for (char c : s.view()) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
  return h;
}

// A point in time: seconds since the epoch, UTC.
using Seconds = double;

// The current wall-clock time. Reads the clock installed with
// utcNowFunctionIs, or the system's real-time clock when none is.
QEL_EXPORT Seconds utcNow();
// Replaces the clock (tests and simulations); null restores the real clock.
QEL_EXPORT void utcNowFunctionIs(Seconds (*clock)());

}  // namespace Qel

#endif  // QEL_STRING_H
