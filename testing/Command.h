// Test support: the standard output of a shell command.
#ifndef KRONLOG_TESTING_COMMAND_H
#define KRONLOG_TESTING_COMMAND_H

#include <stdio.h>

#include <string>

namespace KronlogTesting {

// Runs `command` with /bin/sh and returns what it wrote to standard output.
inline std::string commandOutput(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, p)) > 0;) out.append(chunk, n);
    ::pclose(p);
  }
  return out;
}

}  // namespace KronlogTesting

#endif  // KRONLOG_TESTING_COMMAND_H
