// kronlog: answers "what happened, in order" from a store file.
//
//   kronlog show  [--store PATH] [--agent RE] [--group RE] [--since T] [--until T]
//                 [--output short|json|jsonl]
//   kronlog check [--store PATH]
//   kronlog demo  [--store PATH]
//
// Exit status: 0 ok, 1 data error (store missing, unreadable or not
// restorable), 2 usage error. Messages go to stderr, one line each.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "tools/Commands.h"

namespace {

const char kUsage[] =
    "usage: kronlog <command> [options]\n"
    "\n"
    "commands:\n"
    "  show    print the merged history of a store file, filtered\n"
    "  check   validate a store file without restoring it\n"
    "  demo    run the whole system once, end to end\n"
    "\n"
    "'kronlog <command> --help' describes a command; 'kronlog --version' the version.\n"
    "Exit status: 0 ok, 1 data error, 2 usage error.\n";

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::fputs(kUsage, stderr);
    return KronlogTool::kExitUsage;
  }
  const std::string command = args.front();
  args.erase(args.begin());
  try {
    if (command == "--help" || command == "-h" || command == "help") {
      std::fputs(kUsage, stdout);
      return KronlogTool::kExitOk;
    }
    if (command == "--version") {
      std::printf("kronlog %s (libkronlog.so.0)\n", KRONLOG_VERSION);
      return KronlogTool::kExitOk;
    }
    if (command == "show") return KronlogTool::showCommand(args);
    if (command == "check") return KronlogTool::checkCommand(args);
    if (command == "demo") return KronlogTool::demoCommand(args);
  } catch (const std::exception& e) {
    // Not expected: every input is validated first. Still one line, no trace.
    std::fprintf(stderr, "kronlog %s: internal error: %s\n", command.c_str(), e.what());
    return KronlogTool::kExitData;
  }
  std::fprintf(stderr, "kronlog: unknown command '%s' (try 'kronlog --help')\n", command.c_str());
  return KronlogTool::kExitUsage;
}
