// The trace convention of the library's source files.
//
// Each source file defines its own handle with KRONLOG_TRACE_HANDLE(), built
// on first use; each site names its file, line and function as constants,
// because those appear in the record exactly as given. Nothing after the
// level test runs unless the level is enabled.
#ifndef KRONLOG_SUPPORT_TRACESITE_H
#define KRONLOG_SUPPORT_TRACESITE_H

#include "qel/Trace.h"

#define KRONLOG_TRACE_HANDLE()                                                                     \
  namespace {                                                                                      \
  [[maybe_unused]] inline __attribute__((always_inline)) Qel::TraceHandle& _defaultTraceHandle() { \
    static Qel::TraceHandle handle("Kronlog", false);                                              \
    return handle;                                                                                 \
  }                                                                                                \
  }

// KRONLOG_TRACE(1, "KronlogWriter", 17, "eventIs", << "eventIs size: " << n);
#define KRONLOG_TRACE(level, file, line, function, pieces) \
  QEL_TRACE(_defaultTraceHandle(), level, file, line, function, pieces)

#endif  // KRONLOG_SUPPORT_TRACESITE_H
