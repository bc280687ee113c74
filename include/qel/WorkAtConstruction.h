// Entities that do their one piece of work inside their constructor (a
// reader reads, a saver saves, a restorer restores).
//
// Such an entity derives from WorkAtConstruction<Self> and names its work in
// `static constexpr void (Self::*kWork)() = &Self::doRead;`. Its constructor
// stores its arguments and then calls handleInitialized(), which runs the
// work and sets `initialized` to true whatever the work found. A factory of
// such a type therefore performs the work too.
#ifndef QEL_WORKATCONSTRUCTION_H
#define QEL_WORKATCONSTRUCTION_H

#include "qel/Ptr.h"
#include "qel/Strep.h"
#include "qel/Type.h"

namespace Qel {

template <class Self>
class WorkAtConstruction {
 public:
  bool initialized() const noexcept { return initialized_; }
  // Only stores the value.
  void initializedIs(bool value) noexcept { initialized_ = value; }
  // The work, then initializedIs(true). An exception from the work leaves
  // `initialized` false and propagates.
  void handleInitialized() {
    (static_cast<Self*>(this)->*Self::kWork)();
    initializedIs(true);
  }

  // Declares `initialized`, the work (under `workName`) and
  // handleInitialized to the reflection of the type, in that order.
  static TypeNode& reflectionIs(TypeNode& type, const char* workName) {
    return type
        .attributeIs("initialized",
                     [](const PtrInterface& o) {
                       return valueToStrep(dynamic_cast<const Self&>(o).initialized());
                     })
        .operationIs(workName, [](PtrInterface& o) { (dynamic_cast<Self&>(o).*Self::kWork)(); })
        .operationIs("handleInitialized",
                     [](PtrInterface& o) { dynamic_cast<Self&>(o).handleInitialized(); });
  }

 protected:
  WorkAtConstruction() = default;
  ~WorkAtConstruction() = default;

 private:
  bool initialized_ = false;
};

}  // namespace Qel

#endif  // QEL_WORKATCONSTRUCTION_H
