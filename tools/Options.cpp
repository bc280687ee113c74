#include "tools/Options.h"

namespace KronlogTool {

const OptionSpec* Options::find(const std::string& name) const {
  for (const OptionSpec& s : specs_) {
    if (name == s.name) return &s;
  }
  return nullptr;
}

const OptionSpec* Options::findShort(char c) const {
  for (const OptionSpec& s : specs_) {
    if (s.shortName == c) return &s;
  }
  return nullptr;
}

bool Options::take(const OptionSpec& spec, const std::string& value) {
  std::vector<std::string>& list = values_[spec.name];
  if (!list.empty() && !spec.repeatable) {
    error_ = "option --" + std::string(spec.name) + " given twice";
    return false;
  }
  list.push_back(value);
  return true;
}

std::string Options::value(const std::string& name, const std::string& fallback) const {
  auto it = values_.find(name);
  return it == values_.end() ? fallback : it->second.back();
}

const std::vector<std::string>& Options::values(const std::string& name) const {
  static const std::vector<std::string> none;
  auto it = values_.find(name);
  return it == values_.end() ? none : it->second;
}

std::string optionHint(const std::string& option) {
  if (option == "-f" || option == "--follow") {
    return "following new events is the 'follow' command, not an option of this one";
  }
  if (option == "--tail" || option == "--last") return "did you mean --lines N (-n N)?";
  if (option == "--color" || option == "--colour")
    return "colour is on for a terminal; --no-color turns it off";
  return "";
}

bool Options::parse(const std::vector<std::string>& args) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const auto unknown = [&](const std::string& which) {
      const std::string hint = optionHint(which);
      error_ = "unknown option '" + which + "'" + (hint.empty() ? "" : ": " + hint);
      return false;
    };
    if (arg.size() >= 3 && arg.compare(0, 2, "--") == 0) {
      const std::size_t eq = arg.find('=');
      const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      const OptionSpec* spec = find(name);
      if (!spec || (!spec->takesValue && eq != std::string::npos)) return unknown(arg);
      std::string value = "1";
      if (spec->takesValue) {
        if (eq != std::string::npos) {
          value = arg.substr(eq + 1);
        } else if (i + 1 < args.size()) {
          value = args[++i];
        } else {
          error_ = "option --" + name + " needs a value";
          return false;
        }
      }
      if (!take(*spec, value)) return false;
    } else if (arg.size() >= 2 && arg[0] == '-' && arg[1] != '-') {
      // One or more short flags; a short option with a value ends the group.
      for (std::size_t k = 1; k < arg.size(); ++k) {
        const OptionSpec* spec = findShort(arg[k]);
        if (!spec) return unknown(std::string("-") + arg[k]);
        if (!spec->takesValue) {
          if (!take(*spec, "1")) return false;
          continue;
        }
        std::string value;
        if (k + 1 < arg.size()) {
          value = arg.substr(k + 1);
        } else if (i + 1 < args.size()) {
          value = args[++i];
        } else {
          error_ = "option -" + std::string(1, arg[k]) + " (--" + spec->name + ") needs a value";
          return false;
        }
        if (!take(*spec, value)) return false;
        break;
      }
    } else {
      error_ = "unexpected argument '" + arg + "'";
      return false;
    }
  }
  return true;
}

bool parseCount(const std::string& text, long long* out) {
  if (text.empty() || text.size() > 18) return false;
  long long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *out = v;
  return true;
}

}  // namespace KronlogTool
