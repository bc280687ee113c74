// Test support: a local time zone for the life of a scope, so that tests of
// local times do not depend on the machine's zone.
#ifndef KRONLOG_TESTING_TIMEZONE_H
#define KRONLOG_TESTING_TIMEZONE_H

#include <stdlib.h>
#include <time.h>

#include <string>

namespace KronlogTesting {

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* old = ::getenv("TZ");
    hadZone_ = old != nullptr;
    saved_ = old ? old : "";
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    hadZone_ ? ::setenv("TZ", saved_.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  bool hadZone_;
  std::string saved_;
};

}  // namespace KronlogTesting

#endif  // KRONLOG_TESTING_TIMEZONE_H
