// Command-line options: "--name value" or "--name=value", each allowed once.
#ifndef KRONLOG_TOOLS_OPTIONS_H
#define KRONLOG_TOOLS_OPTIONS_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace KronlogTool {

class Options {
 public:
  // `valued` take a value; `flags` do not. False, with error() set, for an
  // unknown option, a missing value, a repeated option or a stray argument.
  bool parse(const std::vector<std::string>& args, const std::set<std::string>& valued,
             const std::set<std::string>& flags);

  bool has(const std::string& name) const { return values_.count(name) != 0; }
  std::string value(const std::string& name, const std::string& fallback = "") const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
  }
  const std::string& error() const noexcept { return error_; }

 private:
  std::map<std::string, std::string> values_;
  std::string error_;
};

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_OPTIONS_H
