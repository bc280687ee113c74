#include "qel/stream/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "qel/Exception.h"

namespace Qel {

namespace {

// The timer fd's epoll token; watch serials start at 1.
constexpr std::uint64_t kTimerToken = 0;

[[noreturn]] void throwErrno(const char* what) {
  throwRangeException(String(std::string(what) + ": " + std::strerror(errno)));
}

std::uint32_t toEpoll(std::uint32_t interest) {
  std::uint32_t e = 0;
  if (interest & EventLoop::kReadable) e |= EPOLLIN;
  if (interest & EventLoop::kWritable) e |= EPOLLOUT;
  return e;
}

std::uint32_t fromEpoll(std::uint32_t e) {
  std::uint32_t r = 0;
  if (e & EPOLLIN) r |= EventLoop::kReadable;
  if (e & EPOLLOUT) r |= EventLoop::kWritable;
  if (e & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) r |= EventLoop::kHangup;
  return r;
}

}  // namespace

EventLoop::EventLoop() {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) throwErrno("epoll_create1");
  timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timerFd_ < 0) {
    int saved = errno;
    ::close(epollFd_);
    errno = saved;
    throwErrno("timerfd_create");
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kTimerToken;
  if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, timerFd_, &ev) != 0) {
    int saved = errno;
    ::close(timerFd_);
    ::close(epollFd_);
    errno = saved;
    throwErrno("epoll_ctl");
  }
}

EventLoop::~EventLoop() {
  ::close(timerFd_);
  ::close(epollFd_);
}

Seconds EventLoop::monotonicNow() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

void EventLoop::fdIs(int fd, std::uint32_t interest, FdHandler handler) {
  Qel::Ptr<Watch> w(new Watch);
  w->handler = std::move(handler);
  w->interest = interest;
  w->serial = nextSerial_++;
  epoll_event ev{};
  ev.events = toEpoll(interest);
  ev.data.u64 = w->serial;
  auto old = watches_.find(fd);
  bool known = old != watches_.end();
  if (epoll_ctl(epollFd_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &ev) != 0) {
    throwErrno("epoll_ctl");
  }
  if (known) bySerial_.erase(old->second->serial);
  watches_[fd] = w;
  bySerial_[w->serial] = w;
}

void EventLoop::fdInterestIs(int fd, std::uint32_t interest) {
  auto it = watches_.find(fd);
  if (it == watches_.end() || it->second->interest == interest) return;
  epoll_event ev{};
  ev.events = toEpoll(interest);
  ev.data.u64 = it->second->serial;
  if (epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &ev) != 0) throwErrno("epoll_ctl");
  it->second->interest = interest;
}

void EventLoop::fdDel(int fd) {
  auto it = watches_.find(fd);
  if (it == watches_.end()) return;
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  bySerial_.erase(it->second->serial);
  watches_.erase(it);
}

EventLoop::TimerId EventLoop::timerIs(Seconds delay, TimerHandler handler) {
  if (!(delay >= 0)) delay = 0;  // also catches NaN
  TimerId id = nextTimer_++;
  Seconds deadline = monotonicNow() + delay;
  timers_.emplace(std::make_pair(deadline, id), std::move(handler));
  timerDeadlines_[id] = deadline;
  timerArm();
  return id;
}

void EventLoop::timerDel(TimerId id) {
  auto it = timerDeadlines_.find(id);
  if (it == timerDeadlines_.end()) return;
  timers_.erase(std::make_pair(it->second, id));
  timerDeadlines_.erase(it);
  timerArm();
}

void EventLoop::timerArm() {
  // One system call only when the earliest deadline changes, not per round.
  Seconds deadline = timers_.empty() ? -1 : timers_.begin()->first.first;
  if (deadline == armed_) return;
  armed_ = deadline;
  itimerspec spec{};
  if (!timers_.empty()) {
    // An all-zero value would disarm the timer; a deadline in the past
    // must fire at once, so it is clamped to the smallest positive time.
    if (deadline < 1e-9) deadline = 1e-9;
    double whole = std::floor(deadline);
    spec.it_value.tv_sec = static_cast<time_t>(whole);
    spec.it_value.tv_nsec = static_cast<long>((deadline - whole) * 1e9);
    if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) spec.it_value.tv_nsec = 1;
  }
  timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr);
}

unsigned EventLoop::timersRun() {
  unsigned ran = 0;
  Seconds now = monotonicNow();
  // Only timers due at the start of this round: one that re-arms itself
  // with no delay runs in the next round, so fds are not starved.
  std::vector<TimerId> due;
  for (auto& [key, handler] : timers_) {
    if (key.first > now) break;
    due.push_back(key.second);
  }
  for (TimerId id : due) {
    auto d = timerDeadlines_.find(id);
    if (d == timerDeadlines_.end()) continue;  // deleted by an earlier handler
    auto it = timers_.find(std::make_pair(d->second, id));
    TimerHandler handler = std::move(it->second);
    timers_.erase(it);
    timerDeadlines_.erase(d);
    handler();
    ++ran;
  }
  timerArm();
  return ran;
}

unsigned EventLoop::runOnce(Seconds timeout) {
  int ms = -1;
  if (timeout >= 0) {
    double m = std::ceil(timeout * 1000.0);
    ms = m > 2147483647.0 ? 2147483647 : static_cast<int>(m);
  }
  constexpr int kBatch = 64;
  epoll_event events[kBatch];
  int n = epoll_wait(epollFd_, events, kBatch, ms);
  if (n < 0) {
    if (errno == EINTR) return 0;
    throwErrno("epoll_wait");
  }
  unsigned ran = 0;
  bool timerReady = false;
  // Look watches up by serial at dispatch time: a handler earlier in this
  // batch may have removed or replaced a later one.
  for (int i = 0; i < n; ++i) {
    std::uint64_t token = events[i].data.u64;
    if (token == kTimerToken) {
      timerReady = true;
      continue;
    }
    auto found = bySerial_.find(token);
    if (found == bySerial_.end()) continue;
    // Held so that the handler stays alive if it removes its own watch.
    Qel::Ptr<Watch> w = found->second;
    w->handler(fromEpoll(events[i].events));
    ++ran;
  }
  if (timerReady) {
    std::uint64_t expirations;
    while (::read(timerFd_, &expirations, sizeof expirations) > 0) {
    }
    // The kernel disarmed it on expiry. Rearm whatever the deadlines are:
    // a timer the clock's rounding leaves for the next round must not wait
    // for a deadline change that never comes.
    armed_ = -2;
  }
  ran += timersRun();
  return ran;
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) runOnce(-1);
}

}  // namespace Qel
