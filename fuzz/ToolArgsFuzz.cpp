// libFuzzer target: the kronlog tool's argument parsing, the option parser
// with show's option table and the time arguments of --since and --until.
//
// Input: the arguments of one `kronlog show`, separated by NUL bytes. They
// are parsed as the command parses them, and each is also read as a time
// and as a count on its own. Parsing never crashes; a time that is taken is
// a finite number of seconds that prints in local time, and one that has a
// four-digit year reads back from its UTC form to the microsecond; a count that is taken is the
// decimal number its digits spell.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/Options.h"
#include "tools/ShowArgs.h"
#include "tools/TimeArg.h"

namespace {

// A fixed "now", so that a finding replays the same way.
constexpr double kNow = 1764000000.25;
// Times whose UTC form has a four-digit year: 1970 to 9999.
constexpr double kLastPrintable = 253402300799.0;

void checkTime(const std::string& text) {
  double t = 0;
  std::string error;
  if (!KronlogTool::parseTime(text, kNow, &t, &error)) {
    if (error.empty()) std::abort();
    return;
  }
  if (!std::isfinite(t)) std::abort();
  if (KronlogTool::formatTime(t, true).empty()) std::abort();
  if (t < 0 || t > kLastPrintable) return;
  const std::string printed = KronlogTool::formatTime(t);
  double again = 0;
  if (!KronlogTool::parseTime(printed, kNow, &again, &error)) std::abort();
  if (std::fabs(again - t) > 1e-6 + std::fabs(t) * 1e-15) std::abort();
}

void checkCount(const std::string& text) {
  long long n = -1;
  if (!KronlogTool::parseCount(text, &n)) return;
  if (n < 0 ||
      std::to_string(n) != text.substr(std::min(text.find_first_not_of('0'), text.size() - 1))) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Local times (2026-11-21 10:00, today) read the same on every machine.
  ::setenv("TZ", "UTC0", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> args;
  for (std::size_t at = 0; at <= input.size();) {
    const std::size_t end = std::min(input.find('\0', at), input.size());
    args.push_back(input.substr(at, end - at));
    at = end + 1;
  }
  for (const std::string& a : args) {
    checkTime(a);
    checkCount(a);
  }
  KronlogTool::Options options(KronlogTool::showOptionSpecs());
  if (!options.parse(args)) {
    if (options.error().empty()) std::abort();
    return 0;
  }
  for (const KronlogTool::OptionSpec& spec : KronlogTool::showOptionSpecs()) {
    if (!spec.repeatable && options.values(spec.name).size() > 1) std::abort();
  }
  KronlogTool::ShowArgs show;
  std::string error;
  if (!KronlogTool::showArgsFrom(options, kNow, &show, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  if (std::isnan(show.filter.since) || std::isnan(show.filter.until)) std::abort();
  if (show.output.fields.empty() || show.output.fields.size() > 4) std::abort();
  return 0;
}
