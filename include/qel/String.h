// Immutable, reference-counted byte strings, names and time points.
#ifndef QEL_STRING_H
#define QEL_STRING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "qel/Export.h"
#include "qel/Ptr.h"

namespace Qel {

// An immutable sequence of bytes; NUL bytes may appear anywhere inside.
// Copies share one heap block and cost a reference-count update; the empty
// string owns no block at all. The bytes are always followed by a NUL that
// is not part of the string, so c_str() is free (and stops at the first NUL
// inside, which is what C interfaces expect).
class QEL_EXPORT String {
 public:
  using IteratorConst = const char*;

  String() noexcept : rep_(nullptr) {}
  String(const char* cstr);  // NOLINT: implicit from literals on purpose
  String(const char* data, std::size_t size);
  String(const std::string& s) : String(s.data(), s.size()) {}  // NOLINT
  explicit String(std::string_view s) : String(s.data(), s.size()) {}
  String(const String& o) noexcept : rep_(o.rep_) { newRef(); }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() { deleteRef(); }
  String& operator=(const String& o) noexcept;
  String& operator=(String&& o) noexcept;

  std::size_t size() const noexcept { return rep_ ? rep_->size : 0; }
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

 private:
  struct Rep {
    std::atomic<std::uint32_t> refs;
    std::uint32_t size;
    char chars[1];
  };
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
  void deleteRef() noexcept {
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
  static void release(Rep* rep) noexcept;
  Rep* rep_;
};

using String8 = String;

inline bool operator==(const String& a, const String& b) noexcept {
  return a.view() == b.view();
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
