#include "tools/Options.h"

namespace KronlogTool {

bool Options::parse(const std::vector<std::string>& args, const std::set<std::string>& valued,
                    const std::set<std::string>& flags) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      error_ = "unexpected argument '" + arg + "'";
      return false;
    }
    std::size_t eq = arg.find('=');
    std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    std::string value;
    if (valued.count(name)) {
      if (eq != std::string::npos) {
        value = arg.substr(eq + 1);
      } else if (i + 1 < args.size()) {
        value = args[++i];
      } else {
        error_ = "option --" + name + " needs a value";
        return false;
      }
    } else if (flags.count(name) && eq == std::string::npos) {
      value = "1";
    } else {
      error_ = "unknown option '" + arg + "'";
      return false;
    }
    if (!values_.emplace(name, value).second) {
      error_ = "option --" + name + " given twice";
      return false;
    }
  }
  return true;
}

}  // namespace KronlogTool
