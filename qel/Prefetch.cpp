#include "qel/Prefetch.h"

namespace Qel {

#if defined(__i386__) && !defined(__SSE__)
// Read once while the library loads; a prefetch issued earlier (by another
// static initialiser) is skipped, which costs nothing but the hint.
bool prefetchAvailable = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse") != 0;
}();
#endif

}  // namespace Qel
