// Tracing.
//
// Code traces through a TraceHandle for a named facility. A trace site asks
// TraceHelper::createIfEnabled for a helper at one level; when the facility
// is off at that level the answer is null and the site does nothing more
// (nothing is formatted). Otherwise the site writes its text into the
// helper's stream and calls trace(file, line, function), which hands one
// TraceRecord to the current sink.
//
// Levels are enabled per facility, from the environment variable QELTRACE
// when the first handle is built ("Kronlog/0-2,Other/1": a level, a range,
// or '*' for all; a bare facility name enables every level) and at run time
// with traceLevelsIs. The default sink writes one line per record to stderr,
// or appends it to the file named by QELTRACE_FILE:
//   2026-11-22T10:00:00.123456Z Kronlog/1 KronlogWriter:17 eventIs: <text>
#ifndef QEL_TRACE_H
#define QEL_TRACE_H

#include <atomic>
#include <cstdint>
#include <sstream>
#include <vector>

#include "qel/Export.h"
#include "qel/String.h"

namespace Qel {

class QEL_EXPORT TraceFacility {
 public:
  // 0 is the coarsest level; 31 the finest a facility can hold.
  using FacilityLevel = unsigned int;
  static constexpr FacilityLevel kMaxLevel = 31;
};

struct TraceRecord {
  Seconds time;
  String facility;
  TraceFacility::FacilityLevel level;
  const char* file;
  int line;
  const char* function;
  String text;
};

// Receives every emitted record. Installed with traceSinkIs; must outlive
// its installation.
class QEL_EXPORT TraceSink {
 public:
  virtual ~TraceSink();
  virtual void onRecord(const TraceRecord& record) = 0;
};

class QEL_EXPORT TraceHandle {
 public:
  // Registers (or joins) the facility's level table; the second argument is
  // kept for interface compatibility and has no effect.
  TraceHandle(String8 facility, bool);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const String& facility() const noexcept { return facility_; }
  bool enabled(TraceFacility::FacilityLevel level) const noexcept {
    // Relaxed: a level switched on by another thread need only show up
    // eventually; no other data is published through the mask.
    return level <= TraceFacility::kMaxLevel &&
           ((levels_->load(std::memory_order_relaxed) >> level) & 1u) != 0;
  }

 private:
  String facility_;
  const std::atomic<std::uint32_t>* levels_;  // the facility's entry, never freed
};

class QEL_EXPORT TraceHelper {
 public:
  // Null when `handle`'s facility is off at `level`; otherwise a helper
  // built in `storage` (at least sizeof(TraceHelper) bytes, suitably
  // aligned: see TraceHelperStorage), to be destroyed by the caller.
  // Inline so that a disabled site costs this call's test and nothing more.
  static TraceHelper* createIfEnabled(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                      void* storage) {
    return handle.enabled(level) ? create(handle, level, storage) : nullptr;
  }
  ~TraceHelper();
  TraceHelper(const TraceHelper&) = delete;
  TraceHelper& operator=(const TraceHelper&) = delete;

  // Emits the text written to `stream` so far as one record.
  void trace(const char* file, int line, const char* function);

  std::ostringstream stream;

 private:
  TraceHelper(TraceHandle& handle, TraceFacility::FacilityLevel level);
  static TraceHelper* create(TraceHandle& handle, TraceFacility::FacilityLevel level,
                             void* storage);
  TraceHandle& handle_;
  TraceFacility::FacilityLevel level_;
};

struct alignas(TraceHelper) TraceHelperStorage {
  unsigned char bytes[sizeof(TraceHelper)];
};

// Destroys a helper built by createIfEnabled when the scope ends, also when
// an exception leaves it.
class EnsureTraceHelperIsDestroyed {
 public:
  explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) noexcept : helper_(helper) {}
  ~EnsureTraceHelperIsDestroyed() {
    if (helper_) helper_->~TraceHelper();
  }
  EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
  EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;

 private:
  TraceHelper* helper_;
};

// One trace site: asks `handle` for a helper at `level` and, only when the
// level is enabled, writes `pieces` (a chain of `<< value`) into it and
// emits it with the location given. Nothing is formatted otherwise.
//   QEL_TRACE(handle(), 1, "Widget", 17, "frob", << "frob size: " << n);
#define QEL_TRACE(handle, level, file, line, function, pieces)                     \
  do {                                                                             \
    ::Qel::TraceHelperStorage qelTraceStorage_;                                    \
    ::Qel::TraceHelper* qelTraceHelper_ =                                          \
        ::Qel::TraceHelper::createIfEnabled((handle), (level), &qelTraceStorage_); \
    if (qelTraceHelper_) {                                                         \
      ::Qel::EnsureTraceHelperIsDestroyed qelTraceGuard_(qelTraceHelper_);         \
      qelTraceHelper_->stream pieces;                                              \
      qelTraceHelper_->trace((file), (line), (function));                          \
    }                                                                              \
  } while (0)

// Sets the enabled levels of a facility as a bit mask (bit n: level n).
QEL_EXPORT void traceLevelsIs(const String& facility, std::uint32_t levelMask);
QEL_EXPORT std::uint32_t traceLevels(const String& facility);
// Applies a QELTRACE-style text; returns false, changing nothing, when it
// does not parse.
QEL_EXPORT bool traceConfigIs(const String& config);
// Installs a sink (null: the default one) and returns the sink it replaces
// (null when that was the default), so that a caller can put it back.
QEL_EXPORT TraceSink* traceSinkIs(TraceSink* sink);
// Facility names given in QELTRACE that no trace handle of this process has
// registered so far. At exit, the process reports those left on stderr.
QEL_EXPORT std::vector<String> traceSettingsUnmatched();
// The line the default sink writes for `record`, without its LF.
QEL_EXPORT String traceLine(const TraceRecord& record);

}  // namespace Qel

#endif  // QEL_TRACE_H
