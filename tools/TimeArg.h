// Time arguments and time output of the kronlog tool.
#ifndef KRONLOG_TOOLS_TIMEARG_H
#define KRONLOG_TOOLS_TIMEARG_H

#include <string>

namespace KronlogTool {

// Parses a point in time as people type one:
//   1700000000.25                 seconds since the epoch
//   2026-11-21T10:00:00Z          UTC, also with a fraction (…:00.5Z)
//   2026-11-21T10:00:00+02:00     with an offset (+02, +0200, -05:30)
//   2026-11-21 10:00[:00]         local time (also with a T)
//   2026-11-21                    local midnight
//   today, yesterday              local midnight of that day
//   now, -15m, -2h, -1d, -1h30m   now, or that long before now (s m h d w)
// False, with `error` naming the problem, for anything else, including a
// date that does not exist (2026-02-31).
bool parseTime(const std::string& text, double now, double* out, std::string* error);

// To the microsecond: "2026-11-21T10:00:00.000000Z" in UTC, or in local time
// with its offset, "2026-11-21T12:00:00.000000+02:00".
std::string formatTime(double seconds, bool local = false);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_TIMEARG_H
