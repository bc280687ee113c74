// The arguments of `kronlog show`, read and checked before any store is
// opened: its option table, the time window, the count and the output form.
// The command and the fuzz target of the tool's argument parsing share it.
#ifndef KRONLOG_TOOLS_SHOWARGS_H
#define KRONLOG_TOOLS_SHOWARGS_H

#include <string>
#include <vector>

#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/StoreView.h"

namespace KronlogTool {

struct ShowArgs {
  Filter filter;         // the patterns as given (compiled later) and the window
  long long lines = -1;  // keep the last N; -1: all
  OutputOptions output;  // mode, fields, local time; colour is decided at output
};

// The options `kronlog show` takes.
const std::vector<OptionSpec>& showOptionSpecs();

// What `options`, parsed with showOptionSpecs(), ask for; relative times
// count back from `now`. False, with `error` the usage message, for a bad
// time, count, output mode or field list.
bool showArgsFrom(const Options& options, double now, ShowArgs* out, std::string* error);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_SHOWARGS_H
