// The man page and the bash completion installed with the tool describe the
// options --help describes, command by command: neither may drift.
#include <gtest/gtest.h>
#include <stdio.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "testing/Command.h"
#include "testing/TempDir.h"

namespace {

std::string output(const std::string& command) {
  return KronlogTesting::commandOutput(command);
}

std::set<std::string> optionsIn(const std::string& text, const std::regex& line) {
  std::set<std::string> found;
  static const std::regex option("(^|[ ,])(--?[a-z][a-z-]*)");
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    if (!std::regex_search(l, line)) continue;
    for (std::sregex_iterator it(l.begin(), l.end(), option), end; it != end; ++it) {
      found.insert((*it)[2]);
    }
  }
  return found;
}

// The option lines of --help: indented, beginning with a dash.
std::set<std::string> helpOptions(const std::string& command) {
  std::set<std::string> found =
      optionsIn(output(std::string(KRONLOG_TOOL) + " " + command + " --help"), std::regex("^  -"));
  found.insert("--help");
  return found;
}

// The options of the man page's section "<COMMAND> OPTIONS": the lines that
// name an option (.B, .BI, .BR right after .TP), with roff's \- as a dash.
std::set<std::string> manOptions(const std::string& command) {
  std::string section, upper;
  for (char c : command) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::istringstream in(
      std::regex_replace(KronlogTesting::readFile(KRONLOG_MAN_PAGE), std::regex(R"(\\-)"), "-"));
  bool inside = false, afterTp = false;
  for (std::string l; std::getline(in, l);) {
    if (l.rfind(".SH", 0) == 0) inside = l == ".SH " + upper + " OPTIONS";
    if (inside && afterTp) section += l.substr(l.find(' ') + 1) + "\n";
    afterTp = l == ".TP";
  }
  std::set<std::string> found = optionsIn(section, std::regex("^-"));
  found.insert("--help");  // every command takes it; the page says so once
  return found;
}

// What bash offers for the command line `words`, completing word `current`.
std::set<std::string> completions(const std::string& words, int current) {
  KronlogTesting::TempDir dir("kronlog-completion");
  KronlogTesting::writeFile(dir.pathIn("run.sh"),
                            "source '" + std::string(KRONLOG_COMPLETION) + "'\nCOMP_WORDS=(" +
                                words + ")\nCOMP_CWORD=" + std::to_string(current) +
                                "\n_kronlog\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n");
  std::set<std::string> found;
  std::istringstream in(output("bash '" + dir.pathIn("run.sh") + "'"));
  for (std::string l; std::getline(in, l);) {
    if (!l.empty()) found.insert(l);
  }
  return found;
}

TEST(ToolManualTest, TheManPageDescribesEveryOptionOfHelpAndNoOther) {
  for (const char* command : {"show", "check", "demo", "emit", "follow", "collect"}) {
    SCOPED_TRACE(command);
    EXPECT_GT(helpOptions(command).size(), 1u);
    EXPECT_EQ(manOptions(command), helpOptions(command));
  }
}

TEST(ToolManualTest, BashCompletesEveryOptionOfHelpAndNoOther) {
  for (const char* command : {"show", "check", "demo", "emit", "follow", "collect"}) {
    SCOPED_TRACE(command);
    EXPECT_EQ(completions(std::string("kronlog ") + command + " ''", 2), helpOptions(command));
  }
  EXPECT_EQ(completions("kronlog sh", 1), std::set<std::string>{"show"});
  EXPECT_EQ(completions("kronlog show -o j", 3), (std::set<std::string>{"json", "jsonl"}));
  EXPECT_EQ(completions("kronlog follow -o ''", 3),
            (std::set<std::string>{"short", "json", "jsonl"}));
}

}  // namespace
