// Tracing inside the stream layer: facility "QelStream". Level 0 records a
// connection that closes on bad input or a failed peer, level 1 the normal
// life of connections, servers and mounts.
#ifndef QEL_STREAM_STREAMTRACE_H
#define QEL_STREAM_STREAMTRACE_H

#include "qel/Trace.h"

namespace Qel {
QEL_EXPORT TraceHandle& streamTraceHandle();
}  // namespace Qel

#define QEL_STREAM_TRACE(level, file, line, function, pieces)                  \
  do {                                                                         \
    ::Qel::TraceHelperStorage qelTraceStorage_;                                \
    ::Qel::TraceHelper* qelTraceHelper_ = ::Qel::TraceHelper::createIfEnabled( \
        ::Qel::streamTraceHandle(), (level), &qelTraceStorage_);               \
    if (qelTraceHelper_) {                                                     \
      ::Qel::EnsureTraceHelperIsDestroyed qelTraceGuard_(qelTraceHelper_);     \
      qelTraceHelper_->stream pieces;                                          \
      qelTraceHelper_->trace((file), (line), (function));                      \
    }                                                                          \
  } while (0)

#endif  // QEL_STREAM_STREAMTRACE_H
