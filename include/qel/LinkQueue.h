// The indexed link queue behind every log attribute.
//
// A singly linked list of reference-counted members kept in ascending order
// of a 32-bit unsigned index that wraps around past 4294967295. Appending
// takes the "next index"; members can also be placed, replaced or removed by
// explicit index, and iterators survive changes to the queue (they re-find
// their place by index when the queue's version moved on).
//
// The queue holds its members through `head` and the members' `next` links;
// `tail` is a plain pointer into that chain.
#ifndef QEL_LINKQUEUE_H
#define QEL_LINKQUEUE_H

#include <cstdint>
#include <utility>

#include "qel/Export.h"
#include "qel/Ptr.h"

namespace Qel {

// Raises RangeException "linkqueue index space full".
[[noreturn]] QEL_EXPORT void throwLinkQueueIndexSpaceFull();

template <class Member, class Index, class Entry>
class LinkQueue;

// Base of a queue member type `Self` holding a `Value`. Layout: the counted
// base, the index (which fills the base's padding on 64-bit), the value,
// the next link.
template <class Self, class Value>
class LinkQueueMember : public PtrInterface {
 public:
  LinkQueueMember(unsigned int index, Value value) : index_(index), value_(std::move(value)) {}

  unsigned int index() const noexcept { return index_; }
  // Only stores the index; the queue does not re-sort. For a member not in
  // a queue: a linked member re-indexed this way may break the queue's order,
  // and its lookups may then miss it.
  void qel_indexIs(unsigned int index) noexcept { index_ = index; }
  const Value& value() const noexcept { return value_; }
  Value& valueRef() noexcept { return value_; }
  Self* next() const noexcept { return next_.ptr(); }

 private:
  template <class M, class I, class E>
  friend class LinkQueue;
  unsigned int index_;
  Value value_;
  Ptr<Self> next_;
};

template <class Member, class Index, class Entry>
class LinkQueue {
  static_assert(sizeof(Index) == 4, "link queue indexes are 32-bit and wrap modulo 2^32");

 public:
  LinkQueue() = default;
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;
  ~LinkQueue() { releaseAll(); }

  Index headIndex() const noexcept { return headIndex_; }
  // The stored next index (see effectiveNextIndex for the one appends use).
  Index nextIndex() const noexcept { return nextIndex_; }
  std::uint32_t version() const noexcept { return version_; }
  std::uint32_t members() const noexcept { return count_; }
  Member* head() const noexcept { return head_.ptr(); }
  Member* tail() const noexcept { return tail_; }

  // Overwrites both counters; members are not touched.
  void indicesIs(Index head, Index next) noexcept {
    headIndex_ = head;
    nextIndex_ = next;
  }

  // Invariant kept for appends: the next index is above the tail's index.
  Index effectiveNextIndex() noexcept {
    if (tail_ && tail_->index_ >= nextIndex_) nextIndex_ = tail_->index_ + 1;
    return nextIndex_;
  }

  // The index the next append takes (effectiveNextIndex without storing it).
  Index appendIndex() const noexcept {
    return tail_ && tail_->index_ >= nextIndex_ ? static_cast<Index>(tail_->index_ + 1)
                                                : nextIndex_;
  }

  // Moves every member of `other` behind the tail, in order, with the
  // effect of appending them one by one (count, version, next index).
  // `other` must have been filled by appends from indicesIs(n, n), n being
  // this queue's appendIndex(), so that its members already carry the
  // indexes the appends would give them. Returns false, moving nothing, when
  // they would not fit before the head index; the caller then appends one by
  // one and meets the full index space where an append would.
  bool spliceBack(LinkQueue& other) noexcept {
    if (!other.head_) return true;
    const Index next = effectiveNextIndex();
    if (head_) {
      // An append at next + k fails when next + k + 1 reaches the head.
      const Index room = static_cast<Index>(headIndex_ - next - 1);
      if (room < other.count_) return false;
      circular_ = circular_ && other.circular_ && after(other.head_->index_, tail_->index_) &&
                  after(other.tail_->index_, other.head_->index_);
      tail_->next_ = std::move(other.head_);
    } else {
      if (headIndex_ == static_cast<Index>(next + 1)) return false;
      circular_ = other.circular_;
      head_ = std::move(other.head_);
      headIndex_ = next;
    }
    tail_ = other.tail_;
    nextIndex_ = static_cast<Index>(tail_->index_ + 1);
    version_ += other.count_;
    count_ += other.count_;
    other.tail_ = nullptr;
    other.hint_ = nullptr;
    other.circular_ = true;
    other.count_ = 0;
    other.headIndex_ = other.nextIndex_;
    ++other.version_;
    return true;
  }

  // Exact lookup: the two ends first, then a walk from the head. In a
  // queue in circular order an index outside [head, tail] is absent without
  // a walk, so streaming's lookups of just-evicted and not-yet-appended
  // indices cost O(1); the walk stops at the first member past the index,
  // and starts from the last member found when that lies before it, so a
  // run of lookups in index order (a copy receiving a whole log) costs O(1)
  // each. Like the rest of the queue, not for concurrent use: a lookup
  // updates that hint.
  Member* find(const Index& index) const noexcept {
    if (!head_) return nullptr;
    if (head_->index_ == index) return head_.ptr();
    if (tail_->index_ == index) return tail_;
    if (circular_) {
      const Index at = offset(index);
      if (at > offset(tail_->index_)) return nullptr;
      Member* m = head_->next_.ptr();
      if (hint_) {
        const Index h = offset(hint_->index_);
        if (h == at) return hint_;
        if (h < at) m = hint_->next_.ptr();
      }
      for (; m; m = m->next_.ptr()) {
        const Index o = offset(m->index_);
        if (o >= at) {
          if (o != at) return nullptr;
          hint_ = m;
          return m;
        }
      }
      return nullptr;
    }
    for (Member* m = head_->next_.ptr(); m; m = m->next_.ptr()) {
      if (m->index_ == index) return m;
    }
    return nullptr;
  }

  // `m`, a member this queue once held, is still linked: an unlinked
  // member has no next and is no tail.
  bool linked(const Member* m) const noexcept { return m->next_ || tail_ == m; }

  // True while the chain is in circular order: each member's distance from
  // the head (modulo 2^32) is larger than its predecessor's. Appends and
  // removals keep it; a placement that breaks it clears it until the queue
  // is empty again.
  bool circular() const noexcept { return circular_; }

  // Places, replaces or (with a null member) deletes by index.
  void doMemberIs(const Index& index, Member* m, bool hint) {
    if (m && linked(m)) {
      // A member already in the queue moves: unlink it first, then place it
      // as a new one. (Appending it while still linked would link it twice.)
      if (m->index_ == index) return;
      Ptr<Member> keep(m);  // the queue may hold the only reference
      _memberDel(m->index_);
      doMemberIs(index, m, false);
      return;
    }
    const Index next = effectiveNextIndex();
    if (index == next) {
      if (m) appendAt(next, m);
      return;
    }
    if (!m) {
      _memberDel(index);
      return;
    }
    if (hint && placeByHint(index, m, next)) return;

    Member* pred = nullptr;
    Member* at = head_.ptr();
    if (index > headIndex_) {
      while (at && at->index_ < index) {
        pred = at;
        at = at->next_.ptr();
      }
    }
    if (!(at && at->index_ == index)) circularPlace(index, pred, at);
    if (at && at->index_ == index) {
      Ptr<Member> replaced(at);
      if (hint_ == at) hint_ = nullptr;
      m->next_ = std::move(at->next_);
      at->next_ = nullptr;
      if (tail_ == at) tail_ = nullptr;  // set again below, m having no next
    } else {
      m->next_ = at;
      ++count_;
    }
    m->index_ = index;
    if (!pred) {
      head_ = m;
      headIndex_ = index;
    } else {
      pred->next_ = m;
    }
    if (!m->next_) {
      tail_ = m;
      if (index >= nextIndex_) nextIndex_ = index + 1;
    }
    ++version_;
  }

  // Appends `m`, which must not be linked, at the effective next index: what
  // doMemberIs does for that index, without deciding which case it is in.
  // Throws like doMemberIs when the index space is full.
  void append(Member* m) { appendAt(effectiveNextIndex(), m); }

  // Unlinks the member with `index`; returns it, or null when absent.
  Ptr<Member> _memberDel(const Index& index) {
    if (index == headIndex_) return unlinkHead();
    if (circular_ && head_ && offset(index) > offset(tail_->index_)) return nullptr;
    Member* pred = nullptr;
    Member* at = head_.ptr();
    while (at && at->index_ != index) {
      pred = at;
      at = at->next_.ptr();
    }
    if (!at) return nullptr;
    Ptr<Member> removed(at);
    if (at == tail_ && pred) {
      pred->next_ = nullptr;
      tail_ = pred;
      // Lowering the next index lets the following append reuse the index.
      nextIndex_ = pred->index_ + 1;
    } else if (pred) {
      pred->next_ = std::move(at->next_);
    } else {
      head_ = std::move(at->next_);
      if (head_) {
        headIndex_ = head_->index_;
      } else {
        tail_ = nullptr;
        circular_ = true;
        headIndex_ = effectiveNextIndex();
      }
    }
    return unlinked(std::move(removed));
  }

  // Unlinks the head (whatever the stored head index says); null when empty.
  Ptr<Member> deq() { return unlinkHead(); }

  // The first member at or after `index` in circular order, or null.
  Member* startAt(const Index& index) const noexcept {
    if (!head_) return nullptr;
    if (head_->index_ == index) return head_.ptr();
    if (tail_->index_ == index) return tail_;
    if (headIndex_ <= tail_->index_) {
      if (tail_->index_ < index) return nullptr;
      for (Member* m = head_.ptr(); m; m = m->next_.ptr()) {
        if (m->index_ >= index) return m;
      }
      return nullptr;
    }
    // The indexes wrapped inside the queue: a high run, then a low run.
    if (index < headIndex_) {
      if (tail_->index_ < index) return nullptr;  // in the gap between tail and head
      Member* prev = nullptr;
      Member* m = head_.ptr();
      while (m && !(prev && m->index_ < prev->index_)) {
        prev = m;
        m = m->next_.ptr();
      }
      for (; m; m = m->next_.ptr()) {
        if (m->index_ >= index) return m;
      }
      return nullptr;
    }
    Member* prev = nullptr;
    for (Member* m = head_.ptr(); m; prev = m, m = m->next_.ptr()) {
      if (prev && m->index_ < prev->index_) return m;  // first member after the wrap
      if (m->index_ >= index) return m;
    }
    return nullptr;
  }

  // Where an iteration that stood on `index` resumes once the queue has
  // changed: the first member at or after it in circular order from the
  // head. Unlike startAt, an index just below a wrapped head (a removed head)
  // resumes at the head, and one just past the tail (a removed tail) ends the
  // iteration, whichever side of 4294967295 they fall on.
  Member* resumeAt(Index index) const noexcept {
    if (!head_) return nullptr;
    const Index head = head_->index_;
    const Index offset = static_cast<Index>(index - head);
    if (offset > static_cast<Index>(tail_->index_ - head)) {
      // Outside the queue's range: before the head or after the tail,
      // whichever is nearer.
      const Index beforeHead = static_cast<Index>(head - index);
      const Index afterTail = static_cast<Index>(index - tail_->index_);
      return beforeHead <= afterTail ? head_.ptr() : nullptr;
    }
    for (Member* m = head_.ptr(); m; m = m->next_.ptr()) {
      if (static_cast<Index>(m->index_ - head) >= offset) return m;
    }
    return nullptr;
  }

  class IteratorConstBase {
   public:
    IteratorConstBase() = default;
    explicit IteratorConstBase(const LinkQueue& q)
        : q_(&q), current_(q.head_), version_(q.version_) {}
    IteratorConstBase(const LinkQueue& q, Member* m) : q_(&q), current_(m), version_(q.version_) {}

    explicit operator bool() const noexcept { return static_cast<bool>(current_); }
    bool operator==(const IteratorConstBase& o) const noexcept { return current_ == o.current_; }
    bool operator!=(const IteratorConstBase& o) const noexcept { return current_ != o.current_; }
    Index index() const noexcept { return current_->index_; }
    bool hasBookmark() const noexcept { return current_ && current_->index_ != 0; }

    void advance() {
      if (!current_) return;
      if (q_->version_ == version_) {
        current_ = current_->next_;
      } else {
        // The queue changed: find our place again by index. A member with a
        // higher index than ours means ours was removed; it is the next one.
        Member* at = q_->resumeAt(current_->index_);
        if (!at) {
          current_ = nullptr;
        } else if (at->index_ == current_->index_) {
          current_ = at->next_;
        } else {
          current_ = at;
        }
      }
      version_ = q_->version_;
    }

   protected:
    const LinkQueue* q_ = nullptr;
    Ptr<Member> current_;  // keeps a removed member alive until we step on
    std::uint32_t version_ = 0;
  };

  class IteratorConst : public IteratorConstBase {
   public:
    using IteratorConstBase::IteratorConstBase;
    const Member* member() const noexcept { return this->current_.ptr(); }
    const Member* operator->() const noexcept { return this->current_.ptr(); }
    const Member& operator*() const noexcept { return *this->current_; }
    IteratorConst& operator++() {
      this->advance();
      return *this;
    }
  };

  class Iterator : public IteratorConstBase {
   public:
    using IteratorConstBase::IteratorConstBase;
    Member* member() const noexcept { return this->current_.ptr(); }
    Member* operator->() const noexcept { return this->current_.ptr(); }
    Member& operator*() const noexcept { return *this->current_; }
    Iterator& operator++() {
      this->advance();
      return *this;
    }
  };

  IteratorConst iteratorConst() const { return IteratorConst(*this); }
  Iterator iterator() { return Iterator(*this); }
  // Range-for, oldest member first: `for (const Member& m : queue)`. The
  // iteration survives changes to the queue as the iterators do.
  IteratorConst begin() const { return IteratorConst(*this); }
  IteratorConst end() const { return IteratorConst(); }

 private:
  // Invariant on entry: `next` is the effective next index and `m` is not
  // linked. Appending must leave at least one index free between the new
  // tail and the head, or the queue could no longer tell full from empty.
  void appendAt(Index next, Member* m) {
    if (head_) {
      if (static_cast<Index>(next + 1) == headIndex_) throwLinkQueueIndexSpaceFull();
      if (!after(next, tail_->index_)) circular_ = false;
      tail_->next_ = m;
    } else {
      if (headIndex_ == static_cast<Index>(next + 1)) throwLinkQueueIndexSpaceFull();
      head_ = m;
      headIndex_ = next;
    }
    m->next_ = nullptr;
    m->index_ = next;
    tail_ = m;
    nextIndex_ = next + 1;
    ++version_;
    ++count_;
  }

  // The three shortcuts for callers that know where `m` goes. They change
  // neither the version nor the member count; false means "walk instead".
  bool placeByHint(const Index& index, Member* m, Index next) {
    if (!head_) {
      m->next_ = nullptr;
      head_ = m;
      tail_ = m;
      headIndex_ = index;
      nextIndex_ = index + 1;
    } else if (index < headIndex_) {
      // The old chain stays in order from the new head only if the old head
      // lies between the new head and the tail.
      if (static_cast<Index>(head_->index_ - index) > static_cast<Index>(tail_->index_ - index))
        circular_ = false;
      m->next_ = std::move(head_);
      head_ = m;
      headIndex_ = index;
    } else if (index > next) {
      if (!after(index, tail_->index_)) circular_ = false;
      m->next_ = nullptr;
      tail_->next_ = m;
      tail_ = m;
      nextIndex_ = index + 1;
    } else {
      return false;
    }
    m->index_ = index;
    return true;
  }

  Ptr<Member> unlinkHead() {
    if (!head_) return nullptr;
    Ptr<Member> removed = std::move(head_);
    head_ = std::move(removed->next_);
    if (removed.ptr() == tail_) {
      tail_ = nullptr;
      circular_ = true;
      headIndex_ = nextIndex_;  // empty: the next index stays where it was
    } else {
      headIndex_ = head_->index_;
      effectiveNextIndex();
    }
    return unlinked(std::move(removed));
  }

  Ptr<Member> unlinked(Ptr<Member> m) noexcept {
    if (hint_ == m.ptr()) hint_ = nullptr;
    m->next_ = nullptr;
    ++version_;
    --count_;
    return m;
  }

  // Releases the chain one member at a time: letting the head's destructor
  // release its successor recursively would overflow the stack on long logs.
  void releaseAll() noexcept {
    while (head_) {
      Ptr<Member> next = std::move(head_->next_);
      head_ = std::move(next);
    }
    tail_ = nullptr;
    hint_ = nullptr;
    circular_ = true;
  }

  // Distance of `index` from the head member's index, modulo 2^32.
  Index offset(Index index) const noexcept { return static_cast<Index>(index - head_->index_); }
  // `index` lies beyond `than` in circular order from the head.
  bool after(Index index, Index than) const noexcept { return offset(index) > offset(than); }

  // Before a walk places a new member `index` between `pred` and `at` (null
  // at either end): clears circular_ unless the new member keeps the order.
  void circularPlace(Index index, Member* pred, Member* at) noexcept {
    if (!circular_ || !head_) return;
    if (!pred) {
      if (static_cast<Index>(head_->index_ - index) > static_cast<Index>(tail_->index_ - index))
        circular_ = false;
    } else if (!after(index, pred->index_) || (at && !after(at->index_, index))) {
      circular_ = false;
    }
  }

  Index headIndex_ = 0;
  Index nextIndex_ = 0;
  std::uint32_t version_ = 0;
  std::uint32_t count_ = 0;
  Ptr<Member> head_;
  Member* tail_ = nullptr;
  // Invariant: when true, offsets from the head strictly increase along the
  // chain (see circular()). Always true for an empty queue.
  bool circular_ = true;
  // Where the last lookup found a member. Invariant: null or a member in
  // the chain (every unlink clears it), so it never dangles.
  mutable Member* hint_ = nullptr;
};

}  // namespace Qel

#endif  // QEL_LINKQUEUE_H
