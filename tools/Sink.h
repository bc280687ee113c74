// Where the tool's output goes: a file descriptor written through a buffer,
// every write checked. A reader that goes away (a closed pipe) is told apart
// from a failure (a full disk), because the first ends the tool quietly and
// the second is an error.
#ifndef KRONLOG_TOOLS_SINK_H
#define KRONLOG_TOOLS_SINK_H

#include <string>
#include <string_view>

namespace KronlogTool {

class Sink {
 public:
  explicit Sink(int fd) : fd_(fd) {}
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  // Buffers `text`; writes out when the buffer is full. After a failure,
  // further text is dropped.
  void write(std::string_view text);
  // Writes out everything buffered. False after any failure.
  bool flush();
  // The reader closed its end (EPIPE): nothing more can be shown, and that
  // is not an error.
  bool readerGone() const noexcept { return error_ == kReaderGone; }
  // The errno of the failed write other than a closed pipe; 0 if none.
  int error() const noexcept { return error_ == kReaderGone ? 0 : error_; }
  bool failed() const noexcept { return error_ != 0; }

 private:
  static constexpr int kReaderGone = -1;
  int fd_;
  int error_ = 0;
  std::string buffer_;
};

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_SINK_H
