// The event loop: timers in deadline order, stop, removal from inside a
// handler, and driving it from another loop through fd(). (Readiness is what
// every connection test runs on.)
#include "qel/stream/EventLoop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Qel::EventLoop;

class EventLoopTest : public ::testing::Test {
 protected:
  EventLoopTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_), 0); }
  ~EventLoopTest() override {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  EventLoop::Ptr loop_ = new EventLoop;
  int fds_[2];
  std::vector<std::string> seen_;
};

TEST_F(EventLoopTest, HandlerMayRemoveItselfAndAnotherReadyWatch) {
  // Both are ready in the same round; whichever runs first removes both.
  int runs = 0;
  for (int fd : fds_) {
    loop_->fdIs(fd, EventLoop::kWritable, [&](std::uint32_t) {
      ++runs;
      loop_->fdDel(fds_[0]);
      loop_->fdDel(fds_[1]);
    });
  }
  EXPECT_EQ(loop_->runOnce(0), 1u);
  EXPECT_EQ(loop_->runOnce(0), 0u);
  EXPECT_EQ(runs, 1);
}

TEST_F(EventLoopTest, TimersRunInDeadlineOrderAndNeverEarly) {
  Qel::Seconds start = EventLoop::monotonicNow();
  Qel::Seconds lateAt = 0;
  loop_->timerIs(0.03, [&] { lateAt = EventLoop::monotonicNow(); });
  loop_->timerIs(0.0, [this] { seen_.push_back("now"); });
  loop_->timerIs(0.01, [this] { seen_.push_back("soon"); });
  while (loop_->timers() > 0) loop_->runOnce(1);
  EXPECT_EQ(seen_, (std::vector<std::string>{"now", "soon"}));
  EXPECT_GE(lateAt - start, 0.03);
}

TEST_F(EventLoopTest, TimerDeletedByAnEarlierOneInTheSameRoundNeverRuns) {
  EventLoop::TimerId second = 0;
  loop_->timerIs(0, [&] {
    seen_.push_back("first");
    loop_->timerDel(second);
  });
  second = loop_->timerIs(0, [&] { seen_.push_back("second"); });
  loop_->runOnce(0.01);
  EXPECT_EQ(seen_, std::vector<std::string>{"first"});
  loop_->timerDel(second);  // again: harmless
}

TEST_F(EventLoopTest, StopEndsRunFromAHandler) {
  int ticks = 0;
  std::function<void()> tick = [&] {
    if (++ticks == 3) {
      loop_->stop();
    } else {
      loop_->timerIs(0, tick);
    }
  };
  loop_->timerIs(0, tick);
  loop_->run();
  EXPECT_EQ(ticks, 3);
}

TEST_F(EventLoopTest, ForeignLoopDrivesItThroughFdAndProcess) {
  bool ran = false;
  loop_->timerIs(0.01, [&] { ran = true; });
  pollfd p{loop_->fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 1000), 1);  // the timer made the loop's fd readable
  EXPECT_EQ(loop_->process(), 1u);
  EXPECT_TRUE(ran);
  EXPECT_EQ(::poll(&p, 1, 0), 0);  // and nothing is left
}

}  // namespace
