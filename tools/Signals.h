// SIGINT and SIGTERM as a readable descriptor, so that the long-running
// commands (follow, collect) end through their event loop: what they hold
// is printed or saved before they exit.
#ifndef KRONLOG_TOOLS_SIGNALS_H
#define KRONLOG_TOOLS_SIGNALS_H

#include <functional>

#include "qel/stream/EventLoop.h"

namespace KronlogTool {

class StopSignals {
 public:
  // Blocks SIGINT and SIGTERM and calls `onStop` from `loop` when one
  // arrives. If the kernel refuses, the signals keep their default action.
  StopSignals(Qel::EventLoop* loop, std::function<void()> onStop);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  Qel::EventLoop* loop_;
  int fd_ = -1;
};

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_SIGNALS_H
