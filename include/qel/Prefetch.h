// A hint to start loading memory that is about to be read, so that the
// load overlaps other work instead of stalling it.
#ifndef QEL_PREFETCH_H
#define QEL_PREFETCH_H

#include "qel/Export.h"

namespace Qel {

#if defined(__i386__) && !defined(__SSE__)
// 32-bit code built for the i686 baseline, as distributions build it: the
// compiler drops __builtin_prefetch there, because the instruction came
// with SSE. Nearly every processor such code runs on has SSE, so the
// instruction is written out by hand, behind this flag, which is set at
// load time from what the processor reports (false before that).
QEL_EXPORT extern bool prefetchAvailable;

inline void prefetch(const void* p) noexcept {
  if (prefetchAvailable) __asm__ volatile("prefetcht0 (%0)" : : "r"(p));
}
#else
inline void prefetch(const void* p) noexcept {
  __builtin_prefetch(p);
}
#endif

}  // namespace Qel

#endif  // QEL_PREFETCH_H
