#include "tools/ShowArgs.h"

#include <initializer_list>
#include <utility>

#include "tools/TimeArg.h"

namespace KronlogTool {

const std::vector<OptionSpec>& showOptionSpecs() {
  static const std::vector<OptionSpec> specs = {
      {"store", 0, true, true},
      {"agent", 0, true, true},
      {"group", 0, true, true},
      {"grep", 'g', true, false},
      {"case-insensitive", 'i', false, false},
      {"since", 0, true, false},
      {"until", 0, true, false},
      {"lines", 'n', true, false},
      {"reverse", 'r', false, false},
      {"output", 'o', true, false},
      {"fields", 0, true, false},
      {"localtime", 0, false, false},
      {"no-color", 0, false, false},
      {"no-pager", 0, false, false},
  };
  return specs;
}

bool showArgsFrom(const Options& options, double now, ShowArgs* out, std::string* error) {
  Filter& filter = out->filter;
  filter.agents = options.values("agent");
  filter.groups = options.values("group");
  filter.grep = options.value("grep");
  filter.caseInsensitive = options.has("case-insensitive");
  using TimeOption = std::pair<const char*, double*>;
  for (const auto& [name, time] :
       std::initializer_list<TimeOption>{{"since", &filter.since}, {"until", &filter.until}}) {
    if (options.has(name) && !parseTime(options.value(name), now, time, error)) {
      *error = std::string("--") + name + ": " + *error;
      return false;
    }
  }
  if (options.has("lines") && !parseCount(options.value("lines"), &out->lines)) {
    *error = "bad --lines '" + options.value("lines") + "': expected a number of events, 0 or more";
    return false;
  }
  if (!parseOutputMode(options.value("output", "short"), &out->output.mode)) {
    *error = "bad --output '" + options.value("output") + "': expected short, cat, json or jsonl";
    return false;
  }
  if (options.has("fields")) {
    if (out->output.mode != OutputMode::shortText) {
      *error = "--fields chooses the columns of --output short";
      return false;
    }
    if (!parseFields(options.value("fields"), &out->output.fields, error)) {
      *error = "--fields: " + *error;
      return false;
    }
  }
  out->output.localTime = options.has("localtime");
  return true;
}

}  // namespace KronlogTool
