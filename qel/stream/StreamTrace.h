// Tracing inside the stream layer: facility "QelStream". Level 0 records a
// connection that closes on bad input or a failed peer, level 1 the normal
// life of connections, servers and mounts.
#ifndef QEL_STREAM_STREAMTRACE_H
#define QEL_STREAM_STREAMTRACE_H

#include "qel/Trace.h"

namespace Qel {
QEL_EXPORT TraceHandle& streamTraceHandle();
}  // namespace Qel

#define QEL_STREAM_TRACE(level, file, line, function, pieces) \
  QEL_TRACE(::Qel::streamTraceHandle(), level, file, line, function, pieces)

#endif  // QEL_STREAM_STREAMTRACE_H
