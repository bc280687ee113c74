// The single-threaded event loop: file-descriptor readiness and timers, on
// epoll. The agent owns and drives it, either with run() / runOnce(), or,
// when it has a loop of its own, by watching fd() for readability and
// calling process() when it is readable.
//
// Handlers run on the thread that drives the loop, one at a time. A handler
// may add or remove watches and timers, its own included; a watch removed
// during a round is not called again in that round.
#ifndef QEL_STREAM_EVENTLOOP_H
#define QEL_STREAM_EVENTLOOP_H

#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

#include "qel/Export.h"
#include "qel/Ptr.h"
#include "qel/String.h"

namespace Qel {

class QEL_EXPORT EventLoop : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<EventLoop>;
  // Readiness bits, as given to and reported by watches.
  static constexpr std::uint32_t kReadable = 1;
  static constexpr std::uint32_t kWritable = 2;
  // Reported only: the peer hung up or the descriptor is in error.
  static constexpr std::uint32_t kHangup = 4;
  using FdHandler = std::function<void(std::uint32_t events)>;
  using TimerHandler = std::function<void()>;
  using TimerId = std::uint64_t;

  // Throws RangeException when the kernel refuses an epoll or timer fd.
  EventLoop();
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Watches `fd` for `interest` (kReadable | kWritable), replacing an
  // earlier watch of it. The loop does not own the descriptor: remove the
  // watch before closing it. Throws RangeException if epoll refuses.
  void fdIs(int fd, std::uint32_t interest, FdHandler handler);
  void fdInterestIs(int fd, std::uint32_t interest);
  void fdDel(int fd);
  bool watched(int fd) const { return watches_.count(fd) != 0; }

  // Runs `handler` once, `delay` seconds from now (monotonic clock). The id
  // is never reused, so deleting a timer that already ran is harmless.
  TimerId timerIs(Seconds delay, TimerHandler handler);
  void timerDel(TimerId id);
  std::size_t timers() const noexcept { return timers_.size(); }

  // Dispatches until stop() is called.
  void run();
  // Waits at most `timeout` seconds (negative: no limit) for a ready watch
  // or a due timer, runs what is ready, and returns how many handlers ran.
  unsigned runOnce(Seconds timeout);
  // Makes run() return after the current round; callable from a handler.
  void stop() noexcept { stopped_ = true; }

  // For agents with their own loop: readable whenever process() has work.
  int fd() const noexcept { return epollFd_; }
  unsigned process() { return runOnce(0); }

  static Seconds monotonicNow();

 private:
  struct Watch : PtrInterface {
    FdHandler handler;
    std::uint32_t interest = 0;
    std::uint64_t serial = 0;
  };
  void timerArm();
  unsigned timersRun();

  int epollFd_ = -1;
  int timerFd_ = -1;
  bool stopped_ = false;
  std::uint64_t nextSerial_ = 1;
  std::unordered_map<int, Qel::Ptr<Watch>> watches_;
  // The same watches by serial: epoll reports serials, so a watch replaced
  // or removed meanwhile is never mistaken for its successor.
  std::unordered_map<std::uint64_t, Qel::Ptr<Watch>> bySerial_;
  TimerId nextTimer_ = 1;
  // Ordered by deadline, then by creation, so equal deadlines run in order.
  std::map<std::pair<Seconds, TimerId>, TimerHandler> timers_;
  std::unordered_map<TimerId, Seconds> timerDeadlines_;
  Seconds armed_ = -1;  // the deadline the timer fd is set to; -1: disarmed
};

}  // namespace Qel

#endif  // QEL_STREAM_EVENTLOOP_H
