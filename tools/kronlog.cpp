// kronlog: answers "what happened, in order" from store files and, live,
// from agents' sockets.
//
//   kronlog show  [--store PATH]... [filters] [--output short|cat|json|jsonl] ...
//   kronlog check [--store PATH]
//   kronlog demo  [--store PATH]
//   kronlog emit  --agent NAME --group GROUP [--socket PATH] [--size N] [--keep first|last]
//   kronlog follow --socket PATH... [--agent RE] [--group RE] [-n N] [-o short|json|jsonl]
//                  [--exit-on-close]
//   kronlog collect --socket PATH... --store FILE [--every SECONDS]
//   kronlog help [COMMAND]
//
// Exit status: 0 ok, 1 data error (a store missing, unreadable or not
// wholly readable; output that cannot be written), 2 usage error. Messages
// go to stderr, one line each.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <regex>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "tools/Commands.h"
#include "tools/Output.h"
#include "tools/Usage.h"

namespace {

int help(const std::vector<std::string>& args) {
  if (args.empty()) return KronlogTool::printText("help", KronlogTool::kUsage);
  const std::string& topic = args.front();
  const char* text = topic == "show"      ? KronlogTool::kShowUsage
                     : topic == "check"   ? KronlogTool::kCheckUsage
                     : topic == "demo"    ? KronlogTool::kDemoUsage
                     : topic == "emit"    ? KronlogTool::kEmitUsage
                     : topic == "follow"  ? KronlogTool::kFollowUsage
                     : topic == "collect" ? KronlogTool::kCollectUsage
                                          : nullptr;
  if (!text || args.size() > 1) {
    std::fprintf(stderr, "kronlog help: no command '%s' (try 'kronlog --help')\n",
                 KronlogTool::escapeForTerminal(topic).c_str());
    return KronlogTool::kExitUsage;
  }
  return KronlogTool::printText("help", text);
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away (kronlog show | head) shows up as a failed
  // write, which ends the output quietly, not as a signal.
  // (Ignoring a signal cannot fail for SIGPIPE.)
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::fputs(KronlogTool::kUsage, stderr);
    return KronlogTool::kExitUsage;
  }
  const std::string command = args.front();
  args.erase(args.begin());
  try {
    if (command == "--help" || command == "-h") return help({});
    if (command == "help") return help(args);
    if (command == "--version") {
      return KronlogTool::printText(
          "--version", std::string("kronlog ") + KRONLOG_VERSION + " (libkronlog.so.0)\n");
    }
    if (command == "show") return KronlogTool::showCommand(args);
    if (command == "check") return KronlogTool::checkCommand(args);
    if (command == "demo") return KronlogTool::demoCommand(args);
    if (command == "emit") return KronlogTool::emitCommand(args);
    if (command == "follow") return KronlogTool::followCommand(args);
    if (command == "collect") return KronlogTool::collectCommand(args);
    if (command == "demo-agents") return KronlogTool::demoAgentsCommand(args);
    if (command == "demo-restore") return KronlogTool::demoRestoreCommand(args);
    if (command == "demo-live-agent") return KronlogTool::demoLiveAgentCommand(args);
  } catch (const std::exception& e) {
    // Malformed patterns are refused with their own message before any
    // matching; a regex error of complexity is a pattern with
    // back-references meeting a name or message too long for the
    // backtracking matcher (see KronlogReader::Pattern).
    const auto* regex = dynamic_cast<const std::regex_error*>(&e);
    if (regex && regex->code() == std::regex_constants::error_complexity) {
      std::fprintf(stderr,
                   "kronlog %s: a pattern with back-references cannot be matched against a name "
                   "or message of more than %zu bytes\n",
                   command.c_str(), KronlogReader::Pattern::kBacktrackingBytes);
      return KronlogTool::kExitData;
    }
    // Not expected: every input is validated first. Still one line, no trace.
    std::fprintf(stderr, "kronlog %s: internal error: %s\n", command.c_str(), e.what());
    return KronlogTool::kExitData;
  }
  std::fprintf(stderr, "kronlog: unknown command '%s' (try 'kronlog --help')\n",
               KronlogTool::escapeForTerminal(command).c_str());
  return KronlogTool::kExitUsage;
}
