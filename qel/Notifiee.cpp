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

void NotifieeListBase::holesCompact() noexcept {
  members_.erase(std::remove(members_.begin(), members_.end(), nullptr), members_.end());
  holes_ = false;
}

}  // namespace Qel
