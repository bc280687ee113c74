#include "tools/Pager.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

extern char** environ;

namespace KronlogTool {

int Pager::start() {
  const char* configured = std::getenv("PAGER");
  const std::string command = configured && *configured ? configured : "less -FRSX";
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  std::string shell = "/bin/sh", dashC = "-c", text = command;
  char* argv[] = {shell.data(), dashC.data(), text.data(), nullptr};
  const int rc = ::posix_spawn(&pid_, "/bin/sh", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (rc != 0) {
    pid_ = -1;
    ::close(fds[1]);
    return -1;
  }
  fd_ = fds[1];
  return fd_;
}

void Pager::wait() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (pid_ > 0) {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  pid_ = -1;
}

}  // namespace KronlogTool
