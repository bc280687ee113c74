#include "tools/Sink.h"

#include <unistd.h>

#include <cerrno>

namespace KronlogTool {

namespace {
constexpr std::size_t kBufferSize = 1 << 16;
}  // namespace

void Sink::write(std::string_view text) {
  if (error_ != 0) return;
  buffer_.append(text);
  if (buffer_.size() >= kBufferSize) flush();
}

bool Sink::flush() {
  std::size_t done = 0;
  while (error_ == 0 && done < buffer_.size()) {
    const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
    if (n >= 0) {
      done += static_cast<std::size_t>(n);
    } else if (errno == EPIPE) {
      error_ = kReaderGone;
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  buffer_.clear();
  return error_ == 0;
}

}  // namespace KronlogTool
