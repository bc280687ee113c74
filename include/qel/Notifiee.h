// Change notifications.
//
// A notifier keeps a NotifieeList of the objects that asked to hear about its
// changes; each notifiee registers itself with notifierIs(). Delivery walks
// the list with visitAs, during which notifiees may register and unregister
// freely (themselves or others): one that leaves is not called again, one
// that joins is first called for the next notification.
#ifndef QEL_NOTIFIEE_H
#define QEL_NOTIFIEE_H

#include <cstddef>
#include <vector>

#include "qel/Export.h"
#include "qel/Ptr.h"

namespace Qel {

class QEL_EXPORT NotifieeBase {
 public:
  virtual ~NotifieeBase();
};

class QEL_EXPORT NotifieeListBase {
 public:
  NotifieeListBase() = default;
  NotifieeListBase(const NotifieeListBase&) = delete;
  NotifieeListBase& operator=(const NotifieeListBase&) = delete;
  ~NotifieeListBase();

  void notifieeIs(NotifieeBase* notifiee);
  void notifieeDel(NotifieeBase* notifiee);
  std::size_t notifiees() const noexcept { return size_; }

  // Delivers one notification of `owner`, the object this list belongs to,
  // calling f(notifiee) as an N* for each member present when the visit
  // started and still present when its turn comes. Visits may nest (a
  // notifiee may cause another notification); an exception from a
  // notifiee propagates and leaves the list consistent.
  //
  // The owner is held for the whole visit: a notifiee may drop what was
  // the last reference to it (unregistering itself, say), and the list it
  // is walking must not die under it. The owner may then go once the
  // visit returns, so a notifier delivers as the last thing it does with
  // itself, or its caller holds a reference (every mutator's contract). A
  // list that belongs to no counted object passes null.
  //
  // Inline, down to the call of each notifiee: a change notification is
  // on the path of every recorded event and every streamed record.
  template <class N, class F>
  void visitAs(const PtrInterface* owner, F&& f) {
    if (size_ == 0) return;  // the common case costs one test
    Ptr<const PtrInterface> keep(owner);
    Visit visit(this);
    // Members that join during the visit are appended behind `end`; the
    // vector may move meanwhile, so each member is read by index.
    const std::size_t end = slots_;
    if (NotifieeBase* n = first_) f(static_cast<N*>(n));
    for (std::size_t i = 1; i < end; ++i) {
      if (NotifieeBase* n = more_[i - 1]) f(static_cast<N*>(n));
    }
  }

 private:
  // The members in registration order: slot 0 is first_, held in the list
  // itself (most notifiers have one notifiee, and its delivery then reads
  // no other memory); slots 1 and up are more_.
  //
  // Invariant: outside a visit, no slot is null and size_ == slots_ ==
  // (first_ ? 1 + more_.size() : 0); during one, removed members leave
  // null slots that the outermost visit compacts when it ends.
  NotifieeBase* first_ = nullptr;
  std::vector<NotifieeBase*> more_;
  std::size_t slots_ = 0;
  std::size_t size_ = 0;
  NotifieeBase*& slot(std::size_t i) noexcept { return i == 0 ? first_ : more_[i - 1]; }

  // One level of visiting; the outermost level compacts the holes that
  // members leaving during the visit left behind, however it ends.
  struct Visit {
    NotifieeListBase* list;
    explicit Visit(NotifieeListBase* l) noexcept : list(l) { ++list->depth_; }
    ~Visit() {
      if (--list->depth_ == 0 && list->holes_) list->holesCompact();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
  };
  void holesCompact() noexcept;

  unsigned depth_ = 0;
  bool holes_ = false;
};

// The notifiee side for a notifier type T, which must offer
// `NotifieeListBase& notifieeListRef()`. Ownership runs one way: a notifiee
// holds its notifier alive while registered (so a notifier never dies
// before the notifiees listening to it) and unregisters itself when
// destroyed; the notifier holds no reference to its notifiees, which may
// come and go at any time, during a delivery included.
template <class T>
class Notifiee : public NotifieeBase {
 public:
  Notifiee() = default;
  Notifiee(const Notifiee&) = delete;
  Notifiee& operator=(const Notifiee&) = delete;
  ~Notifiee() override { notifierIs(nullptr); }

  const Ptr<T>& notifier() const noexcept { return notifier_; }
  void notifierIs(const Ptr<T>& notifier) {
    if (notifier_ == notifier) return;
    if (notifier_) notifier_->notifieeListRef().notifieeDel(this);
    notifier_ = notifier;
    if (notifier_) notifier_->notifieeListRef().notifieeIs(this);
  }

 private:
  Ptr<T> notifier_;
};

}  // namespace Qel

#endif  // QEL_NOTIFIEE_H
