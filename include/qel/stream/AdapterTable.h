// A connection's adapters by entity identifier. A server numbers entities
// from 1 upwards, so small identifiers index a vector (one load per
// received record); larger ones, which only a long-lived connection or a
// hostile peer produces, go to a hash map. Either way the memory is bounded
// by the entities created: a peer cannot size the vector with one record
// past kDense slots.
#ifndef QEL_STREAM_ADAPTERTABLE_H
#define QEL_STREAM_ADAPTERTABLE_H

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "qel/stream/StreamAdapter.h"

namespace Qel {

class AdapterTable {
 public:
  using EntityId = NboAttrLog::EntityId;
  static constexpr EntityId kDense = 4096;

  StreamAdapter* find(EntityId id) const {
    if (id < kDense) return id < dense_.size() ? dense_[id].ptr() : nullptr;
    auto it = sparse_.find(id);
    return it == sparse_.end() ? nullptr : it->second.ptr();
  }
  // `id` must be free.
  void insert(EntityId id, const StreamAdapter::Ptr& adapter) {
    if (id < kDense) {
      if (id >= dense_.size()) dense_.resize(id + 1);
      dense_[id] = adapter;
    } else {
      sparse_[id] = adapter;
    }
    ++size_;
  }
  // Removes and returns the adapter (null when there is none).
  StreamAdapter::Ptr erase(EntityId id) {
    StreamAdapter::Ptr gone;
    if (id < kDense) {
      if (id < dense_.size()) gone.swap(dense_[id]);
    } else {
      auto it = sparse_.find(id);
      if (it != sparse_.end()) {
        gone = it->second;
        sparse_.erase(it);
      }
    }
    if (gone) --size_;
    return gone;
  }
  std::size_t size() const noexcept { return size_; }
  // Empties the table, handing back every adapter.
  std::vector<StreamAdapter::Ptr> takeAll() {
    std::vector<StreamAdapter::Ptr> all;
    for (auto& a : dense_) {
      if (a) all.push_back(std::move(a));
    }
    for (auto& [id, a] : sparse_) all.push_back(std::move(a));
    dense_.clear();
    sparse_.clear();
    size_ = 0;
    return all;
  }

 private:
  std::vector<StreamAdapter::Ptr> dense_;
  std::unordered_map<EntityId, StreamAdapter::Ptr> sparse_;
  std::size_t size_ = 0;
};

}  // namespace Qel

#endif  // QEL_STREAM_ADAPTERTABLE_H
