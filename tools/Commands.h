// The kronlog tool's commands. Each returns the process exit status:
//   0  success
//   1  a data error: the store is missing, unreadable or cannot be restored
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

int showCommand(const Args& args);
int checkCommand(const Args& args);
int demoCommand(const Args& args);

// The store path when none is given: the library's rule (the environment
// variable KRONLOG_STORE_FILE_PATH when set, else the default path).
std::string defaultStorePath();

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_COMMANDS_H
