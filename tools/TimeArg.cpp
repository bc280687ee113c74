#include "tools/TimeArg.h"

#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace KronlogTool {

namespace {

bool parseNumber(const std::string& text, double* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v)) return false;
  *out = v;
  return true;
}

bool parseIso(const std::string& text, double* out) {
  int year, month, day, hour, minute, second, consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute,
                  &second, &consumed) != 6 ||
      consumed != 19) {
    return false;
  }
  std::string rest = text.substr(19);
  double fraction = 0;
  if (!rest.empty() && rest[0] == '.') {
    std::size_t digits = 1;
    while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') ++digits;
    if (digits == 1) return false;
    fraction = std::strtod(("0" + rest.substr(0, digits)).c_str(), nullptr);
    rest = rest.substr(digits);
  }
  if (rest != "Z") return false;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return false;
  }
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  time_t t = timegm(&tm);
  // timegm normalises 2026-02-31 to March: reject dates that do not exist.
  struct tm back;
  gmtime_r(&t, &back);
  if (back.tm_mday != day || back.tm_mon != month - 1) return false;
  *out = static_cast<double>(t) + fraction;
  return true;
}

}  // namespace

bool parseTime(const std::string& text, double now, double* out, std::string* error) {
  if (text == "now") {
    *out = now;
    return true;
  }
  if (text.size() >= 3 && text[0] == '-') {
    double unit = 0;
    switch (text.back()) {
      case 's':
        unit = 1;
        break;
      case 'm':
        unit = 60;
        break;
      case 'h':
        unit = 3600;
        break;
      case 'd':
        unit = 86400;
        break;
      default:
        break;
    }
    double amount = 0;
    if (unit > 0 && parseNumber(text.substr(1, text.size() - 2), &amount) && amount >= 0) {
      *out = now - amount * unit;
      return true;
    }
  }
  if (parseNumber(text, out) || parseIso(text, out)) return true;
  *error = "bad time '" + text +
           "': expected seconds since the epoch (1700000000.5), ISO-8601 UTC "
           "(2026-11-21T10:00:00Z) or a relative time (-15m, -2h, -1d)";
  return false;
}

std::string formatTime(double seconds) {
  if (!std::isfinite(seconds)) return seconds > 0 ? "+inf" : (seconds < 0 ? "-inf" : "nan");
  double whole = std::floor(seconds);
  long long micros = std::llround((seconds - whole) * 1e6);
  time_t secs = static_cast<time_t>(whole);
  if (micros >= 1000000) {
    ++secs;
    micros -= 1000000;
  }
  struct tm tm;
  if (!gmtime_r(&secs, &tm)) return std::to_string(seconds);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros);
  return buf;
}

}  // namespace KronlogTool
