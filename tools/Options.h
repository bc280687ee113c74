// Command-line options: "--name value", "--name=value", or a short form
// "-n value" / "-nVALUE"; flags take no value ("-r", "--reverse"), and
// several short flags may share one dash ("-ri"). Options declared
// repeatable keep every value, in order; the others may be given once.
#ifndef KRONLOG_TOOLS_OPTIONS_H
#define KRONLOG_TOOLS_OPTIONS_H

#include <map>
#include <string>
#include <vector>

namespace KronlogTool {

struct OptionSpec {
  const char* name;  // the long name, without "--"
  char shortName;    // 0: none
  bool takesValue;
  bool repeatable;
};

class Options {
 public:
  explicit Options(std::vector<OptionSpec> specs) : specs_(std::move(specs)) {}

  // False, with error() set, for an unknown option, a missing value, an
  // option given twice that may not be, or an argument that is no option.
  bool parse(const std::vector<std::string>& args);

  bool has(const std::string& name) const { return values_.count(name) != 0; }
  // The last value given, or `fallback`.
  std::string value(const std::string& name, const std::string& fallback = "") const;
  // Every value given, in order.
  const std::vector<std::string>& values(const std::string& name) const;
  const std::string& error() const noexcept { return error_; }

 private:
  const OptionSpec* find(const std::string& name) const;
  const OptionSpec* findShort(char c) const;
  bool take(const OptionSpec& spec, const std::string& value);

  std::vector<OptionSpec> specs_;
  std::map<std::string, std::vector<std::string>> values_;
  std::string error_;
};

// What a user who typed `option` most likely wanted, for options that
// other log viewers have and this tool spells otherwise; empty if nothing.
std::string optionHint(const std::string& option);

// A count given on the command line: decimal digits only, at most 18 of
// them (so no sign, no space, no overflow). False for anything else.
bool parseCount(const std::string& text, long long* out);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_OPTIONS_H
