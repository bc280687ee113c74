#include "qel/Trace.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <vector>

namespace Qel {

namespace {

struct Facility {
  String name;
  std::atomic<std::uint32_t> levels{0};
};

// Reads a level: decimal digits only, at most kMaxLevel. Advances `pos`.
bool parseLevel(const std::string& text, std::size_t* pos, unsigned* level) {
  std::size_t start = *pos;
  unsigned value = 0;
  while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9') {
    value = value * 10 + static_cast<unsigned>(text[*pos] - '0');
    if (value > TraceFacility::kMaxLevel) return false;
    ++*pos;
  }
  *level = value;
  return *pos > start;
}

bool parseLevels(const std::string& text, std::uint32_t* mask) {
  if (text.empty() || text == "*") {
    *mask = ~0u;
    return true;
  }
  // "N" or "N-M" and nothing else: no blanks, signs or trailing text.
  unsigned lo = 0, hi = 0;
  std::size_t pos = 0;
  if (!parseLevel(text, &pos, &lo)) return false;
  hi = lo;
  if (pos < text.size() && text[pos] == '-') {
    ++pos;
    if (!parseLevel(text, &pos, &hi)) return false;
  }
  if (pos != text.size()) return false;
  if (lo > hi) return false;
  std::uint32_t m = 0;
  for (unsigned l = lo; l <= hi; ++l) m |= 1u << l;
  *mask = m;
  return true;
}

// Parses "Name/levels,Name/levels" into (name, mask) pairs.
bool parseConfig(const std::string& config,
                 std::vector<std::pair<std::string, std::uint32_t>>* out) {
  std::size_t pos = 0;
  while (pos <= config.size()) {
    std::size_t comma = config.find(',', pos);
    std::string item =
        config.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    pos = comma == std::string::npos ? config.size() + 1 : comma + 1;
    while (!item.empty() && item.front() == ' ') item.erase(0, 1);
    while (!item.empty() && item.back() == ' ') item.pop_back();
    if (item.empty()) continue;
    std::size_t slash = item.find('/');
    std::string name = item.substr(0, slash);
    std::uint32_t mask = 0;
    if (name.empty()) return false;
    if (!parseLevels(slash == std::string::npos ? "" : item.substr(slash + 1), &mask)) return false;
    out->emplace_back(name, mask);
  }
  return true;
}

class DefaultSink : public TraceSink {
 public:
  void onRecord(const TraceRecord& record) override {
    std::string line = traceLine(record).stdString();
    line += '\n';
    const char* path = std::getenv("QELTRACE_FILE");
    if (path && *path) {
      if (FILE* f = std::fopen(path, "a")) {
        // A record the file does not take is lost: tracing never fails the
        // operation it traces.
        std::fwrite(line.data(), 1, line.size(), f);
        static_cast<void>(std::fclose(f));
        return;
      }
    }
    // One write per record keeps lines whole when processes share stderr.
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

struct Tracing {
  std::deque<Facility> facilities;  // a deque never moves its elements
  DefaultSink defaultSink;
  TraceSink* sink = &defaultSink;
  std::vector<std::pair<std::string, std::uint32_t>> fromEnvironment;

  Tracing() {
    const char* env = std::getenv("QELTRACE");
    if (env && !parseConfig(env, &fromEnvironment)) {
      std::fprintf(stderr, "QELTRACE: cannot parse \"%s\"; tracing stays off\n", env);
      fromEnvironment.clear();
    }
    // A misspelt facility ("kronlog/0") would otherwise trace nothing
    // without a word. Which facilities exist is known only once the code
    // that traces has run, so the check waits for the end of the process.
    if (!fromEnvironment.empty()) std::atexit([] { reportUnmatchedSettings(); });
  }

  static void reportUnmatchedSettings();

  Facility& facility(const String& name) {
    for (Facility& f : facilities) {
      if (f.name == name) return f;
    }
    facilities.emplace_back();
    Facility& f = facilities.back();
    f.name = name;
    std::uint32_t mask = 0;
    for (const auto& e : fromEnvironment) {
      if (e.first == "*" || name == e.first.c_str()) mask |= e.second;
    }
    f.levels.store(mask, std::memory_order_relaxed);
    return f;
  }
};

Tracing& tracing() {
  static Tracing* t = new Tracing;  // lives until exit: handles die in static destruction
  return *t;
}

void Tracing::reportUnmatchedSettings() {
  std::vector<String> unmatched = traceSettingsUnmatched();
  if (unmatched.empty()) return;
  std::string known;
  for (const Facility& f : tracing().facilities) {
    known += known.empty() ? "" : ", ";
    known += f.name.stdString();
  }
  for (const String& name : unmatched) {
    std::fprintf(stderr, "QELTRACE: no facility \"%s\" traced in this process (facilities: %s)\n",
                 name.stdString().c_str(), known.empty() ? "none" : known.c_str());
  }
}

}  // namespace

std::vector<String> traceSettingsUnmatched() {
  std::vector<String> unmatched;
  const Tracing& t = tracing();
  for (const auto& e : t.fromEnvironment) {
    if (e.first == "*") continue;
    bool found = false;
    for (const Facility& f : t.facilities) found = found || f.name == e.first.c_str();
    if (!found) unmatched.emplace_back(e.first);
  }
  return unmatched;
}

TraceSink::~TraceSink() = default;

TraceHandle::TraceHandle(String8 facility, bool)
    : facility_(std::move(facility)), levels_(&tracing().facility(facility_).levels) {}

TraceHandle::~TraceHandle() = default;

TraceHelper::TraceHelper(TraceHandle& handle, TraceFacility::FacilityLevel level)
    : handle_(handle), level_(level) {}

TraceHelper::~TraceHelper() = default;

TraceHelper* TraceHelper::create(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                 void* storage) {
  return new (storage) TraceHelper(handle, level);
}

void TraceHelper::trace(const char* file, int line, const char* function) {
  TraceRecord record{utcNow(), handle_.facility(),  level_, file, line,
                     function, String(stream.str())};
  tracing().sink->onRecord(record);
}

void traceLevelsIs(const String& facility, std::uint32_t levelMask) {
  tracing().facility(facility).levels.store(levelMask, std::memory_order_relaxed);
}

std::uint32_t traceLevels(const String& facility) {
  return tracing().facility(facility).levels.load(std::memory_order_relaxed);
}

bool traceConfigIs(const String& config) {
  std::vector<std::pair<std::string, std::uint32_t>> items;
  if (!parseConfig(config.stdString(), &items)) return false;
  Tracing& t = tracing();
  for (const auto& e : items) {
    if (e.first == "*") {
      // As in QELTRACE: every facility, those registered later included.
      for (Facility& f : t.facilities) f.levels.store(e.second, std::memory_order_relaxed);
      auto& defaults = t.fromEnvironment;
      defaults.erase(std::remove_if(defaults.begin(), defaults.end(),
                                    [](const auto& d) { return d.first == "*"; }),
                     defaults.end());
      defaults.push_back(e);
    } else {
      traceLevelsIs(String(e.first), e.second);
    }
  }
  return true;
}

TraceSink* traceSinkIs(TraceSink* sink) {
  Tracing& t = tracing();
  TraceSink* previous = t.sink == &t.defaultSink ? nullptr : t.sink;
  t.sink = sink ? sink : &t.defaultSink;
  return previous;
}

String traceLine(const TraceRecord& record) {
  double whole = std::floor(record.time);
  time_t secs = static_cast<time_t>(whole);
  long micros = std::lround((record.time - whole) * 1e6);
  if (micros >= 1000000) {
    ++secs;
    micros -= 1000000;
  }
  struct tm tm;
  gmtime_r(&secs, &tm);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros);
  std::string line = stamp;
  line += ' ';
  line += record.facility.stdString();
  line += '/' + std::to_string(record.level) + ' ';
  line += record.file ? record.file : "?";
  line += ':' + std::to_string(record.line) + ' ';
  line += record.function ? record.function : "?";
  line += ": ";
  line += record.text.stdString();
  return String(line);
}

}  // namespace Qel
