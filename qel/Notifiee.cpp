#include "qel/Notifiee.h"

#include <cstddef>

namespace Qel {

NotifieeBase::~NotifieeBase() = default;
NotifieeListBase::~NotifieeListBase() = default;

void NotifieeListBase::notifieeIs(NotifieeBase* notifiee) {
  if (!notifiee) return;
  for (std::size_t i = 0; i < slots_; ++i) {
    if (slot(i) == notifiee) return;
  }
  if (slots_ == 0) {
    first_ = notifiee;
  } else {
    more_.push_back(notifiee);
  }
  ++slots_;
  ++size_;
}

void NotifieeListBase::notifieeDel(NotifieeBase* notifiee) {
  if (!notifiee) return;
  std::size_t i = 0;
  while (i < slots_ && slot(i) != notifiee) ++i;
  if (i == slots_) return;
  --size_;
  if (depth_ > 0) {
    // A visit may be standing at or before this slot: leave a hole so that
    // its indices stay valid.
    slot(i) = nullptr;
    holes_ = true;
    return;
  }
  if (i == 0) {
    first_ = more_.empty() ? nullptr : more_.front();
    if (!more_.empty()) more_.erase(more_.begin());
  } else {
    more_.erase(more_.begin() + static_cast<std::ptrdiff_t>(i - 1));
  }
  --slots_;
}

void NotifieeListBase::holesCompact() noexcept {
  // Slide the members left over the holes, keeping their order.
  std::size_t kept = 0;
  for (std::size_t i = 0; i < slots_; ++i) {
    if (NotifieeBase* n = slot(i)) slot(kept++) = n;
  }
  if (kept == 0) first_ = nullptr;
  more_.erase(more_.begin() + static_cast<std::ptrdiff_t>(kept > 0 ? kept - 1 : 0), more_.end());
  slots_ = kept;
  holes_ = false;
}

}  // namespace Qel
