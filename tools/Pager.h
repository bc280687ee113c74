// Output through a pager when a person reads it on a terminal: $PAGER, else
// "less -FRSX" (quits at once when the text fits one screen, passes colours
// on, does not wrap lines).
#ifndef KRONLOG_TOOLS_PAGER_H
#define KRONLOG_TOOLS_PAGER_H

#include <sys/types.h>

namespace KronlogTool {

// Owns the pager process and the pipe to it: not copied, waited for at the
// end of its scope.
class Pager {
 public:
  ~Pager() { wait(); }

  // Starts the pager, its standard input a pipe whose write end is returned;
  // -1 when no pager could be started (then write to standard output).
  int start();
  // Closes the pipe and waits for the pager to end, so the shell's prompt
  // comes back after it.
  void wait();

 private:
  pid_t pid_ = -1;
  int fd_ = -1;

 public:
  Pager() = default;
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;
};

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_PAGER_H
