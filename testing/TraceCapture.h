// Test support: captures trace records, so that tests can assert every field
// of every trace exactly.
#ifndef KRONLOG_TESTING_TRACECAPTURE_H
#define KRONLOG_TESTING_TRACECAPTURE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "qel/String.h"
#include "qel/Trace.h"

namespace KronlogTesting {

// One trace record with its strings copied. Equality compares what a trace
// site decides (level, file, line, function, text); the time and facility
// are kept for the tests that look at them.
struct Seen {
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string text;
  std::string facility = "Kronlog";
  Qel::Seconds time = 0.0;

  auto fields() const { return std::tie(level, file, line, function, text); }
  bool operator==(const Seen& o) const { return fields() == o.fields(); }
  bool operator!=(const Seen& o) const { return !(*this == o); }
};

inline std::ostream& operator<<(std::ostream& os, const Seen& s) {
  return os << s.facility << '/' << s.level << ' ' << s.file << ':' << s.line << ' ' << s.function
            << ": \"" << s.text << '"';
}

// Streams as "counted" and counts how often it was formatted, so that a
// test sees whether a trace site formatted its text at all.
struct Counted {
  int* formatted;
};
inline std::ostream& operator<<(std::ostream& os, const Counted& c) {
  ++*c.formatted;
  return os << "counted";
}

// Keeps the records of one facility ("Kronlog" unless told otherwise; null
// keeps every facility's) for as long as it lives. It installs itself as the
// trace sink with that facility's levels off, and puts back the sink and
// the levels it found when it goes. Tests switch on the levels they assert.
class CapturingSink : public Qel::TraceSink {
 public:
  explicit CapturingSink(const char* facility = "Kronlog")
      : facility_(facility ? facility : ""),
        savedLevels_(facility ? Qel::traceLevels(facility) : 0) {
    if (!facility_.empty()) Qel::traceLevelsIs(facility_, 0);
    previous_ = Qel::traceSinkIs(this);
  }
  ~CapturingSink() override {
    Qel::traceSinkIs(previous_);
    if (!facility_.empty()) Qel::traceLevelsIs(facility_, savedLevels_);
  }
  CapturingSink(const CapturingSink&) = delete;
  CapturingSink& operator=(const CapturingSink&) = delete;

  void onRecord(const Qel::TraceRecord& r) override {
    if (!facility_.empty() && r.facility != facility_) return;
    records.push_back({r.level, r.file ? r.file : "(null)", r.line,
                       r.function ? r.function : "(null)", r.text.stdString(),
                       r.facility.stdString(), r.time});
  }
  std::vector<Seen> records;

 private:
  Qel::String facility_;
  std::uint32_t savedLevels_;
  Qel::TraceSink* previous_ = nullptr;
};

}  // namespace KronlogTesting

#endif  // KRONLOG_TESTING_TRACECAPTURE_H
