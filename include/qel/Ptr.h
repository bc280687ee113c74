// Intrusive reference counting for every framework object.
//
// An object derived from PtrInterface carries its own count; Ptr<T> adjusts
// it. Counting is plain (non-atomic read-modify-write) by default, because
// framework objects live on one event thread. A process that shares objects
// between threads turns VFPtrInterface::enableThreadSafePointers on before it
// does so, and every count update becomes an atomic read-modify-write.
#ifndef QEL_PTR_H
#define QEL_PTR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "qel/Export.h"

namespace Qel {

class NotifieeListBase;
class TypeNode;

class QEL_EXPORT VFPtrInterface {
 public:
  // Read on every count update; set it once, early, before any object is
  // shared with a second thread. Off by default.
  static bool enableThreadSafePointers;
};

class QEL_EXPORT PtrInterface : public VFPtrInterface {
 public:
  PtrInterface() noexcept : references_(0) {}
  // A copy is a new object: it starts with no references of its own.
  PtrInterface(const PtrInterface&) noexcept : references_(0) {}
  // Assignment keeps the object's own count, whatever is assigned.
  PtrInterface& operator=(const PtrInterface&) noexcept {  // NOLINT(cert-oop54-cpp)
    return *this;
  }

  // Virtual slots shared by every framework object, in slot order.
  // The object's notifiee list, or null when it has no notifications.
  virtual NotifieeListBase* notifieeList() const;
  // Marks that a notification of this object is being delivered.
  virtual void hasNotificationActiveIs(bool active);
  // Consistency checks; return the number of errors found (0 when sound).
  virtual unsigned qelAuditErrors() const;
  virtual unsigned auditErrors() const;
  // Called once when the last reference goes; the default deletes the object.
  virtual void zeroReferencesIs();
  // The registered type of the object, or null for unregistered types.
  virtual const TypeNode* fwkType() const;
  virtual ~PtrInterface();

  std::uint32_t references() const noexcept { return references_.load(std::memory_order_relaxed); }

  void newRef() const noexcept {
    if (enableThreadSafePointers) {
      // Relaxed: the caller already holds a reference, so the object cannot
      // go away concurrently and nothing else needs ordering here.
      references_.fetch_add(1, std::memory_order_relaxed);
    } else {
      references_.store(references_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

  void deleteRef() const noexcept {
    std::uint32_t left;
    if (enableThreadSafePointers) {
      // acq_rel: release publishes this thread's writes to the object before
      // the count drops; acquire makes the thread that reaches zero see every
      // other thread's writes before it destroys the object.
      left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = references_.load(std::memory_order_relaxed) - 1;
      references_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) const_cast<PtrInterface*>(this)->zeroReferencesIs();
  }

 private:
  mutable std::atomic<std::uint32_t> references_;
};

// Invariant: the count is one word wide, so an update is a single
// instruction whether or not it is atomic.
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "reference count must be a plain 32-bit word");

// Strong reference to a PtrInterface-derived object. Null is a valid value.
template <class T>
class Ptr {
 public:
  Ptr() noexcept : p_(nullptr) {}
  Ptr(std::nullptr_t) noexcept : p_(nullptr) {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(const Ptr& o) noexcept : p_(o.p_) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  // Converting constructors take part in overload resolution only for a real
  // pointer conversion (derived to base, adding const), so that overloads on
  // Ptr<A> and Ptr<B> of unrelated types stay unambiguous.
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) {
    if (p_) p_->newRef();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  // Copy and swap: the copy holds a count while the old pointer is let go.
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment,cert-oop54-cpp)
  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without touching the count; the caller adopts it.
  T* release() noexcept {
    T* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  T* p_;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return a.ptr() == b.ptr();
}
template <class T, class U>
bool operator!=(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return a.ptr() != b.ptr();
}
template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
  return !a;
}
template <class T>
bool operator!=(const Ptr<T>& a, std::nullptr_t) noexcept {
  return static_cast<bool>(a);
}

template <class T, class U>
Ptr<T> ptrDynamicCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Qel

#endif  // QEL_PTR_H
