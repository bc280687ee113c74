#include "qel/Notifiee.h"

#include <algorithm>

namespace Qel {

NotifieeBase::~NotifieeBase() = default;
NotifieeListBase::~NotifieeListBase() = default;

void NotifieeListBase::notifieeIs(NotifieeBase* notifiee) {
  if (!notifiee) return;
  if (std::find(members_.begin(), members_.end(), notifiee) != members_.end()) return;
  members_.push_back(notifiee);
  ++size_;
}

void NotifieeListBase::notifieeDel(NotifieeBase* notifiee) {
  auto it = std::find(members_.begin(), members_.end(), notifiee);
  if (it == members_.end() || !notifiee) return;
  --size_;
  if (depth_ > 0) {
    // A visit may be standing at or before this slot: leave a hole so that
    // its indices stay valid.
    *it = nullptr;
    holes_ = true;
  } else {
    members_.erase(it);
  }
}

void NotifieeListBase::doVisit(void (*visit)(NotifieeBase*, void*), void* context) {
  struct Depth {
    NotifieeListBase* list;
    explicit Depth(NotifieeListBase* l) : list(l) { ++list->depth_; }
    ~Depth() {
      if (--list->depth_ == 0 && list->holes_) {
        auto& m = list->members_;
        m.erase(std::remove(m.begin(), m.end(), nullptr), m.end());
        list->holes_ = false;
      }
    }
  } depth(this);
  // Members that join during the visit are appended behind `end`.
  const std::size_t end = members_.size();
  for (std::size_t i = 0; i < end; ++i) {
    NotifieeBase* n = members_[i];
    if (n) visit(n, context);
  }
}

}  // namespace Qel
