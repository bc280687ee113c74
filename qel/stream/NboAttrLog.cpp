#include "qel/stream/NboAttrLog.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace Qel {
namespace NboAttrLog {

FormatException::FormatException(std::uint64_t offset, String reason)
    : Exception(String("offset " + std::to_string(offset) + ": " + reason.stdString()),
                kIdentifierMask, true),
      offset_(offset),
      reason_(std::move(reason)) {}
FormatException::~FormatException() = default;

// ---- Out

Out::~Out() {
  std::free(buf_);
}

void Out::reserve(std::size_t n) {
  // Consumed bytes are reclaimed before growing, so a connection's buffer
  // settles at the size its traffic needs.
  if (head_ > 0 && !frameOpen()) {
    std::memmove(buf_, buf_ + head_, size_ - head_);
    size_ -= head_;
    head_ = 0;
    if (cap_ - size_ >= n) return;
  }
  std::size_t cap = cap_ < 256 ? 256 : cap_;
  while (cap - size_ < n) cap *= 2;
  char* grown = static_cast<char*>(std::realloc(buf_, cap));
  if (!grown) throw std::bad_alloc();
  buf_ = grown;
  cap_ = cap;
}

void Out::bytesTooLarge(std::size_t size) {
  throwRangeException(
      String("string of " + std::to_string(size) + " bytes is larger than a stream frame"));
}

void Out::frameNested() {
  throw InternalException("stream frame begun inside another frame");
}

void Out::frameUnopened() {
  throw InternalException("stream frame ended without being begun");
}

void Out::frameTooLarge(std::size_t start, std::size_t total) {
  size_ = start;
  throwRangeException(String("stream frame of " + std::to_string(total) +
                             " bytes exceeds the limit of " + std::to_string(kMaxFrameBytes)));
}

void Out::consume(std::size_t n) {
  head_ += n;
  if (frameOpen()) return;
  if (head_ == size_) {
    // Keep the block: the buffer fills again at once on a busy connection.
    size_ = 0;
    head_ = 0;
  } else if (size_ - head_ <= head_ / 4) {
    // Few bytes left behind many sent: move them to the front, so that new
    // records are written into memory the cache still holds instead of
    // walking the whole block (a busy connection's buffer rarely empties).
    std::memmove(buf_, buf_ + head_, size_ - head_);
    size_ -= head_;
    head_ = 0;
  }
}

void Out::clear() {
  std::free(buf_);
  buf_ = nullptr;
  size_ = cap_ = head_ = 0;
  frameStart_ = kNoFrame;
}

// ---- In

void In::truncated(std::size_t n, const char* what) const {
  fail(String(std::string("truncated ") + what + ": " + std::to_string(n) + " bytes needed, " +
              std::to_string(remaining()) + " left"));
}

void In::trailing() const {
  fail(String(std::to_string(remaining()) + " trailing bytes after the last field"));
}

double In::f64() {
  if (remaining() < 8) truncated(8, "double");
  std::uint64_t bits = u64();
  double v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

bool In::boolean() {
  std::uint64_t at = offset();
  if (remaining() < 1) truncated(1, "boolean");
  std::uint8_t b = u8();
  if (b > 1) throw FormatException(at, String("boolean byte " + std::to_string(b)));
  return b == 1;
}

void In::stringTooLong(std::uint32_t length) const {
  throw FormatException(offset(),
                        String("string length " + std::to_string(length) + " exceeds the " +
                               std::to_string(remaining() - 4) + " bytes left in the frame"));
}

std::uint32_t In::count(std::size_t minItemBytes) {
  std::uint64_t at = offset();
  std::uint32_t n = u32();
  // Divide rather than multiply: n * minItemBytes overflows a 32-bit size_t.
  if (minItemBytes > 0 && n > remaining() / minItemBytes) {
    std::size_t left = remaining();
    pos_ -= 4;
    throw FormatException(at, String("count " + std::to_string(n) + " exceeds what the " +
                                     std::to_string(left) + " bytes left can hold"));
  }
  return n;
}

void In::fail(const String& reason) const {
  throw FormatException(offset(), reason);
}

}  // namespace NboAttrLog

const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, std::uint32_t v) {
  out->u32(v);
  return out;
}
const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, std::uint64_t v) {
  out->u64(v);
  return out;
}
const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, double v) {
  out->f64(v);
  return out;
}
const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, bool v) {
  out->boolean(v);
  return out;
}
const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, const String& v) {
  out->string(v);
  return out;
}

}  // namespace Qel
