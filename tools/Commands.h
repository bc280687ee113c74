// The kronlog tool's commands. Each returns the process exit status:
//   0  success
//   1  a data error: a store missing, unreadable or not wholly readable, or
//      output that cannot be written
//   2  a usage error: unknown option, bad pattern, bad time, bad value
#ifndef KRONLOG_TOOLS_COMMANDS_H
#define KRONLOG_TOOLS_COMMANDS_H

#include <string>
#include <vector>

namespace KronlogTool {

constexpr int kExitOk = 0;
constexpr int kExitData = 1;
constexpr int kExitUsage = 2;

using Args = std::vector<std::string>;
class Options;

// Prints `usage` when the arguments ask for help, else parses them into
// `options`. The exit status to end with (0 after help, 2 after a usage
// error, which it reports), or -1 to go on.
int startCommand(const char* command, const char* usage, const Args& args, Options& options);
// Reports a usage error of `command` on stderr; returns 2.
int usageError(const char* command, const std::string& message);
// For each --socket of `command`: a usage error for a path that exists
// but is not a socket (a mistyped path would otherwise be waited on
// forever, as for an agent that has not started yet); -1 when all may be
// mounted.
int socketPathsCheck(const char* command, const std::vector<std::string>& paths);
// Writes `text` (help, the version) to standard output and checks it:
// kExitOk, also when the reader went away, else kExitData with the reason.
int printText(const char* command, const std::string& text);

int showCommand(const Args& args);
int checkCommand(const Args& args);
int demoCommand(const Args& args);
int emitCommand(const Args& args);
int followCommand(const Args& args);
int collectCommand(const Args& args);
// The demo's two processes, started by demoCommand with the store path in
// their environment, as an agent's launcher would set it.
int demoAgentsCommand(const Args& args);
int demoRestoreCommand(const Args& args);
// The demo's live stage: runs demoLiveAgentCommand as a child serving on
// `socketPath` and follows it; false when it fails or the copy differs.
bool demoLive(const std::string& socketPath);
int demoLiveAgentCommand(const Args& args);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_COMMANDS_H
