// An intrusive hash map of reference-counted members keyed by name.
//
// A Member carries its own chain link and key:
//   Member* (or a base pointer) qelHashNext_;  bool qelInCollection_;
//   const Key& qelHashKey() const;             Value* qelHashValue();
//   void qelHashKeyFreeze();  (fixes the key as the member enters the map)
// The map holds one reference to each member. Within a bucket the chain is
// sorted by key, which gives iteration a total order to fall back on: an
// iterator whose map changed under it re-finds its place as "the first
// member after the current key", so deleting the member it stands on (or any
// other) never derails it. Iteration follows bucket order, not insertion
// order; inserting during an iteration may rehash, after which the rest of
// that iteration's order is unspecified.
#ifndef QEL_HASHMAP_H
#define QEL_HASHMAP_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "qel/Ptr.h"
#include "qel/String.h"

namespace Qel {

template <class Member, class Key, class Value>
class HashMap {
  // The link's own type: a member may keep it as a pointer to a base class.
  using Link = std::remove_reference_t<decltype(std::declval<Member&>().qelHashNext_)>;

 public:
  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  ~HashMap() {
    for (Link link : buckets_) {
      Member* m = static_cast<Member*>(link);
      while (m) {
        Member* n = next(m);
        unlinked(m);
        m = n;
      }
    }
  }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  std::uint32_t version() const noexcept { return version_; }

  Member* member(const Key& key) const noexcept {
    if (buckets_.empty()) return nullptr;
    for (Member* m = static_cast<Member*>(buckets_[bucketOf(key)]); m; m = next(m)) {
      if (m->qelHashKey() == key) return m;
      if (key < m->qelHashKey()) break;  // chains are sorted
    }
    return nullptr;
  }

  Value* operator[](const Key& key) const noexcept {
    Member* m = member(key);
    return m ? m->qelHashValue() : nullptr;
  }

  // Links `m` under its key and takes a reference to it. Returns false, and
  // changes nothing, when the key is taken or `m` is already in a map.
  bool newMember(Member* m) {
    if (!m || m->qelInCollection_) return false;
    m->qelHashKeyFreeze();
    if (member(m->qelHashKey())) return false;
    if (size_ + 1 > buckets_.size()) grow();
    Link* link = &buckets_[bucketOf(m->qelHashKey())];
    while (*link && static_cast<Member*>(*link)->qelHashKey() < m->qelHashKey()) {
      link = &(*link)->qelHashNext_;
    }
    m->qelHashNext_ = *link;
    *link = m;
    m->qelInCollection_ = true;
    m->newRef();
    ++size_;
    ++version_;
    return true;
  }

  // Unlinks the member under `key`; returns it (null when absent).
  Ptr<Member> memberDel(const Key& key) {
    if (buckets_.empty()) return nullptr;
    Link* link = &buckets_[bucketOf(key)];
    while (*link && !(static_cast<Member*>(*link)->qelHashKey() == key)) {
      link = &(*link)->qelHashNext_;
    }
    Member* m = static_cast<Member*>(*link);
    if (!m) return nullptr;
    *link = next(m);
    Ptr<Member> result(m);
    unlinked(m);
    --size_;
    ++version_;
    return result;
  }

  // Iterators hold the member they stand on, so a member deleted meanwhile
  // stays valid until they step on. IteratorConst hands out const values;
  // an Iterator converts to one. Range-for over a const map visits const
  // values: `for (const Writer& w : map)`.
  template <bool kConst>
  class BasicIterator {
   public:
    using ValueType = std::conditional_t<kConst, const Value, Value>;

    BasicIterator() = default;
    template <bool kOther, class = std::enable_if_t<kConst && !kOther>>
    BasicIterator(const BasicIterator<kOther>& o)  // NOLINT: Iterator to IteratorConst
        : map_(o.map_), current_(o.current_), bucket_(o.bucket_), version_(o.version_) {}

    Member* member() const noexcept { return current_.ptr(); }
    ValueType* value() const noexcept { return current_ ? current_->qelHashValue() : nullptr; }
    ValueType* operator->() const noexcept { return value(); }
    ValueType& operator*() const noexcept { return *value(); }
    explicit operator bool() const noexcept { return static_cast<bool>(current_); }
    bool operator==(const BasicIterator& o) const noexcept { return current_ == o.current_; }
    bool operator!=(const BasicIterator& o) const noexcept { return current_ != o.current_; }

    BasicIterator& operator++() {
      if (!current_) return *this;
      if (version_ == map_->version_ && current_->qelInCollection_) {
        Member* n = next(current_.ptr());
        current_ = n ? n : map_->firstFrom(bucket_ + 1, &bucket_);
      } else {
        current_ = map_->after(current_->qelHashKey(), &bucket_);
      }
      version_ = map_->version_;
      return *this;
    }

   private:
    friend class HashMap;
    template <bool>
    friend class BasicIterator;
    BasicIterator(const HashMap* map, Member* m, std::size_t bucket)
        : map_(map), current_(m), bucket_(bucket), version_(map->version_) {}
    const HashMap* map_ = nullptr;
    Ptr<Member> current_;  // keeps a member that is deleted meanwhile alive
    std::size_t bucket_ = 0;
    std::uint32_t version_ = 0;
  };
  using Iterator = BasicIterator<false>;
  using IteratorConst = BasicIterator<true>;

  Iterator begin() { return first<false>(); }
  Iterator end() { return Iterator(); }
  IteratorConst begin() const { return first<true>(); }
  IteratorConst end() const { return IteratorConst(); }
  IteratorConst iteratorConst() const { return first<true>(); }

 private:
  template <bool kConst>
  BasicIterator<kConst> first() const {
    std::size_t b = 0;
    Member* m = firstFrom(0, &b);
    return BasicIterator<kConst>(this, m, b);
  }

  static Member* next(Member* m) noexcept { return static_cast<Member*>(m->qelHashNext_); }
  static void unlinked(Member* m) noexcept {
    m->qelHashNext_ = nullptr;
    m->qelInCollection_ = false;
    m->deleteRef();
  }

  std::size_t bucketOf(const Key& key) const noexcept {
    return hashOf(key) & (buckets_.size() - 1);
  }

  Member* firstFrom(std::size_t b, std::size_t* found) const noexcept {
    for (; b < buckets_.size(); ++b) {
      if (buckets_[b]) {
        *found = b;
        return static_cast<Member*>(buckets_[b]);
      }
    }
    return nullptr;
  }

  // The first member after `key` in iteration order.
  Member* after(const Key& key, std::size_t* found) const noexcept {
    if (buckets_.empty()) return nullptr;
    std::size_t b = bucketOf(key);
    for (Member* m = static_cast<Member*>(buckets_[b]); m; m = next(m)) {
      if (key < m->qelHashKey()) {
        *found = b;
        return m;
      }
    }
    return firstFrom(b + 1, found);
  }

  void grow() {
    // Invariant: the bucket count is a power of two, so a mask picks a bucket.
    std::vector<Link> old;
    old.swap(buckets_);
    buckets_.assign(old.empty() ? 8 : old.size() * 2, nullptr);
    for (Link first : old) {
      Member* m = static_cast<Member*>(first);
      while (m) {
        Member* n = next(m);
        Link* link = &buckets_[bucketOf(m->qelHashKey())];
        while (*link && static_cast<Member*>(*link)->qelHashKey() < m->qelHashKey()) {
          link = &(*link)->qelHashNext_;
        }
        m->qelHashNext_ = *link;
        *link = m;
        m = n;
      }
    }
    ++version_;
  }

  std::vector<Link> buckets_;
  std::size_t size_ = 0;
  std::uint32_t version_ = 0;
};

}  // namespace Qel

#endif  // QEL_HASHMAP_H
