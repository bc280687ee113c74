#include "qel/LinkQueue.h"

#include "qel/Exception.h"

namespace Qel {

// Out of line so that every instantiation shares one cold path.
void throwLinkQueueIndexSpaceFull() {
  throw RangeException("linkqueue index space full");
}

}  // namespace Qel
