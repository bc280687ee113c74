#include "tools/TimeArg.h"

#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace KronlogTool {

namespace {

bool parseNumber(const std::string& text, double* out) {
  if (text.empty() || std::strchr("+-.0123456789", text[0]) == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v)) return false;
  *out = v;
  return true;
}

// Reads exactly `width` digits at `at`.
bool digits(const std::string& s, std::size_t& at, std::size_t width, int* out) {
  if (at + width > s.size()) return false;
  int v = 0;
  for (std::size_t k = 0; k < width; ++k) {
    const char c = s[at + k];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  at += width;
  *out = v;
  return true;
}

// Seconds of a calendar time, in UTC or in local time; false if the date
// does not exist.
bool secondsOf(struct tm fields, bool utc, double* out) {
  const int day = fields.tm_mday, month = fields.tm_mon;
  fields.tm_isdst = -1;
  const time_t t = utc ? timegm(&fields) : mktime(&fields);
  if (fields.tm_mday != day || fields.tm_mon != month) return false;  // 2026-02-31
  *out = static_cast<double>(t);
  return true;
}

// YYYY-MM-DD[( |T)HH:MM[:SS[.frac]]][Z|±HH[[:]MM]]; no zone: local time.
bool parseCalendar(const std::string& s, double* out) {
  std::size_t at = 0;
  struct tm f = {};
  int year, month, day;
  if (!digits(s, at, 4, &year) || at >= s.size() || s[at++] != '-' || !digits(s, at, 2, &month) ||
      at >= s.size() || s[at++] != '-' || !digits(s, at, 2, &day)) {
    return false;
  }
  f.tm_year = year - 1900, f.tm_mon = month - 1, f.tm_mday = day;
  if (month < 1 || month > 12 || day < 1 || day > 31) return false;
  double fraction = 0;
  if (at < s.size()) {
    if (s[at] != 'T' && s[at] != ' ') return false;
    ++at;
    if (!digits(s, at, 2, &f.tm_hour) || at >= s.size() || s[at++] != ':' ||
        !digits(s, at, 2, &f.tm_min)) {
      return false;
    }
    if (at < s.size() && s[at] == ':') {
      ++at;
      if (!digits(s, at, 2, &f.tm_sec)) return false;
      if (at < s.size() && s[at] == '.') {
        const std::size_t start = at++;
        while (at < s.size() && s[at] >= '0' && s[at] <= '9') ++at;
        if (at == start + 1) return false;
        fraction = std::strtod(("0" + s.substr(start, at - start)).c_str(), nullptr);
      }
    }
    if (f.tm_hour > 23 || f.tm_min > 59 || f.tm_sec > 60) return false;
  }
  if (at == s.size()) {
    if (!secondsOf(f, false, out)) return false;
    *out += fraction;
    return true;
  }
  int offset = 0;
  if (s[at] == 'Z' && at + 1 == s.size()) {
    offset = 0;
  } else if (s[at] == '+' || s[at] == '-') {
    const int sign = s[at++] == '-' ? -1 : 1;
    int hours = 0, minutes = 0;
    if (!digits(s, at, 2, &hours)) return false;
    if (at < s.size() && s[at] == ':') ++at;
    if (at < s.size() && !digits(s, at, 2, &minutes)) return false;
    if (at != s.size() || hours > 23 || minutes > 59) return false;
    offset = sign * (hours * 3600 + minutes * 60);
  } else {
    return false;
  }
  if (!secondsOf(f, true, out)) return false;
  *out += fraction - offset;
  return true;
}

// -1h30m, -15m, -2d: that long before now.
bool parseRelative(const std::string& s, double now, double* out) {
  if (s.size() < 3 || s[0] != '-') return false;
  double total = 0;
  std::size_t at = 1;
  while (at < s.size()) {
    const std::size_t start = at;
    while (at < s.size() && ((s[at] >= '0' && s[at] <= '9') || s[at] == '.')) ++at;
    if (at == start || at == s.size()) return false;
    double amount = 0;
    if (!parseNumber(s.substr(start, at - start), &amount)) return false;
    static const char kUnits[] = "smhdw";
    static const double kSeconds[] = {1, 60, 3600, 86400, 604800};
    const char* unit = std::strchr(kUnits, s[at++]);
    if (!unit || *unit == '\0') return false;
    total += amount * kSeconds[unit - kUnits];
  }
  // Enough digits make the span infinite, which is no time at all.
  if (!std::isfinite(total)) return false;
  *out = now - total;
  return true;
}

// Local midnight `daysBack` days before the day of `now`.
bool localMidnight(double now, int daysBack, double* out) {
  const time_t t = static_cast<time_t>(std::floor(now));
  struct tm f;
  if (!localtime_r(&t, &f)) return false;
  f.tm_hour = f.tm_min = f.tm_sec = 0;
  f.tm_mday -= daysBack;
  f.tm_isdst = -1;
  *out = static_cast<double>(mktime(&f));
  return true;
}

}  // namespace

bool parseTime(const std::string& text, double now, double* out, std::string* error) {
  if (text == "now") return *out = now, true;
  if (text == "today" && localMidnight(now, 0, out)) return true;
  if (text == "yesterday" && localMidnight(now, 1, out)) return true;
  if (parseRelative(text, now, out) || parseNumber(text, out) || parseCalendar(text, out)) {
    return true;
  }
  *error = "bad time '" + text +
           "': expected seconds since the epoch (1700000000.5), a date and time "
           "(2026-11-21 10:00 local, 2026-11-21T10:00:00Z, 2026-11-21T10:00:00+02:00), a date "
           "(2026-11-21), today, yesterday, now, or a time before now (-15m, -1h30m, -2d)";
  return false;
}

std::string formatTime(double seconds, bool local) {
  if (!std::isfinite(seconds)) return seconds > 0 ? "+inf" : (seconds < 0 ? "-inf" : "nan");
  const double whole = std::floor(seconds);
  // Beyond time_t the conversion below is undefined; no calendar names such
  // a time anyway.
  if (whole < static_cast<double>(std::numeric_limits<time_t>::min()) ||
      whole >= -static_cast<double>(std::numeric_limits<time_t>::min())) {
    return std::to_string(seconds);
  }
  long long micros = std::llround((seconds - whole) * 1e6);
  time_t secs = static_cast<time_t>(whole);
  if (micros >= 1000000) {
    ++secs;
    micros -= 1000000;
  }
  struct tm tm;
  if (!(local ? localtime_r(&secs, &tm) : gmtime_r(&secs, &tm))) return std::to_string(seconds);
  std::string zone = "Z";
  if (local) {
    const long offset = tm.tm_gmtoff;
    const long magnitude = offset < 0 ? -offset : offset;
    const auto twoDigits = [](long v) {
      return std::string(v < 10 ? "0" : "") + std::to_string(v);
    };
    zone = (offset < 0 ? "-" : "+") + twoDigits(magnitude / 3600) + ":" +
           twoDigits(magnitude % 3600 / 60);
  }
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%06lld", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros);
  return buf + zone;
}

}  // namespace KronlogTool
