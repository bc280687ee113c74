#include "qel/Ptr.h"

namespace Qel {

bool VFPtrInterface::enableThreadSafePointers = false;

NotifieeListBase* PtrInterface::notifieeList() const {
  return nullptr;
}
void PtrInterface::hasNotificationActiveIs(bool) {}
unsigned PtrInterface::qelAuditErrors() const {
  return 0;
}
unsigned PtrInterface::auditErrors() const {
  return qelAuditErrors();
}
void PtrInterface::zeroReferencesIs() {
  delete this;
}
const TypeNode* PtrInterface::fwkType() const {
  return nullptr;
}
PtrInterface::~PtrInterface() = default;

}  // namespace Qel
