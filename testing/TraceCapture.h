// Test support: captures the records of the "Kronlog" trace facility, so
// that tests can assert every field of every trace exactly.
#ifndef KRONLOG_TESTING_TRACECAPTURE_H
#define KRONLOG_TESTING_TRACECAPTURE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "qel/Trace.h"

namespace KronlogTesting {

// One trace record without its time.
struct Seen {
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string text;

  auto fields() const { return std::tie(level, file, line, function, text); }
  bool operator==(const Seen& o) const { return fields() == o.fields(); }
  bool operator!=(const Seen& o) const { return !(*this == o); }
};

inline std::ostream& operator<<(std::ostream& os, const Seen& s) {
  return os << "Kronlog/" << s.level << ' ' << s.file << ':' << s.line << ' ' << s.function
            << ": \"" << s.text << '"';
}

// Keeps the records of the "Kronlog" facility for as long as it lives: it
// installs itself as the trace sink with every Kronlog level off, and puts
// back the default sink and the levels it found when it goes. Tests switch
// on the levels they assert.
class CapturingSink : public Qel::TraceSink {
 public:
  CapturingSink() : savedLevels_(Qel::traceLevels("Kronlog")) {
    Qel::traceLevelsIs("Kronlog", 0);
    Qel::traceSinkIs(this);
  }
  ~CapturingSink() override {
    Qel::traceSinkIs(nullptr);
    Qel::traceLevelsIs("Kronlog", savedLevels_);
  }
  CapturingSink(const CapturingSink&) = delete;
  CapturingSink& operator=(const CapturingSink&) = delete;

  void onRecord(const Qel::TraceRecord& r) override {
    if (r.facility != "Kronlog") return;
    records.push_back({r.level, r.file, r.line, r.function, r.text.stdString()});
  }
  std::vector<Seen> records;

 private:
  std::uint32_t savedLevels_;
};

}  // namespace KronlogTesting

#endif  // KRONLOG_TESTING_TRACECAPTURE_H
