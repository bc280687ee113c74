#include "qel/stream/StreamTrace.h"

namespace Qel {

TraceHandle& streamTraceHandle() {
  static TraceHandle handle("QelStream", false);
  return handle;
}

}  // namespace Qel
