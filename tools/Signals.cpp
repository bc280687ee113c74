#include "tools/Signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <utility>

namespace KronlogTool {

StopSignals::StopSignals(Qel::EventLoop* loop, std::function<void()> onStop) : loop_(loop) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return;
  fd_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd_ < 0) {
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    return;
  }
  loop_->fdIs(fd_, Qel::EventLoop::kReadable, [this, stop = std::move(onStop)](std::uint32_t) {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) stop();
  });
}

StopSignals::~StopSignals() {
  if (fd_ < 0) return;
  loop_->fdDel(fd_);
  ::close(fd_);
}

}  // namespace KronlogTool
