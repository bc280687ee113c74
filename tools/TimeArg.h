// Time arguments and time output of the kronlog tool.
#ifndef KRONLOG_TOOLS_TIMEARG_H
#define KRONLOG_TOOLS_TIMEARG_H

#include <string>

namespace KronlogTool {

// Parses a point in time given as seconds since the epoch ("1700000000.25"),
// as ISO-8601 UTC ("2026-11-21T10:00:00Z", "2026-11-21T10:00:00.5Z"), or
// relative to `now` ("-15m", "-2h", "-1d", "-30s", "now"). False, with
// `error` naming the problem, for anything else.
bool parseTime(const std::string& text, double now, double* out, std::string* error);

// ISO-8601 UTC to the microsecond: "2026-11-21T10:00:00.000000Z".
std::string formatTime(double seconds);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_TIMEARG_H
