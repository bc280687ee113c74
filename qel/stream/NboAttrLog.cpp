#include "qel/stream/NboAttrLog.h"

#include <cstring>
#include <string>

#include "qel/stream/Record.h"

namespace Qel {
namespace NboAttrLog {

namespace {

// Big-endian by shifts: no alignment or host byte order assumed.
template <class T>
void putBig(std::string& bytes, T v) {
  char b[sizeof(T)];
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    b[i] = static_cast<char>(static_cast<unsigned char>(v >> (8 * (sizeof(T) - 1 - i))));
  }
  bytes.append(b, sizeof(T));
}

template <class T>
T getBig(const char* p) {
  T v = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    v = static_cast<T>((v << 8) | static_cast<unsigned char>(p[i]));
  }
  return v;
}

}  // namespace

FormatException::FormatException(std::uint64_t offset, String reason)
    : Exception(String("offset " + std::to_string(offset) + ": " + reason.stdString()),
                kIdentifierMask, true),
      offset_(offset),
      reason_(std::move(reason)) {}
FormatException::~FormatException() = default;

// ---- Out

Out::~Out() = default;

void Out::u16(std::uint16_t v) {
  putBig(bytes_, v);
}
void Out::u32(std::uint32_t v) {
  putBig(bytes_, v);
}
void Out::u64(std::uint64_t v) {
  putBig(bytes_, v);
}

void Out::f64(double v) {
  static_assert(sizeof(double) == sizeof(std::uint64_t), "IEEE-754 binary64 expected");
  std::uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  u64(bits);
}

void Out::bytes(const char* data, std::size_t size) {
  // Checked here, not only at frameEnd, so that a 32-bit length field can
  // never be truncated silently.
  if (size > kMaxFrameBytes) {
    throwRangeException(
        String("string of " + std::to_string(size) + " bytes is larger than a stream frame"));
  }
  u32(static_cast<std::uint32_t>(size));
  bytes_.append(data, size);
}

void Out::frameBegin(std::uint8_t kind, AttributeId attr, EntityId entity) {
  if (frameOpen()) throw InternalException("stream frame begun inside another frame");
  frameStart_ = bytes_.size();
  u32(0);
  u8(kind);
  u8(0);  // flags: none defined; a receiver refuses any
  u16(attr);
  u32(entity);
}

void Out::frameEnd() {
  if (!frameOpen()) throw InternalException("stream frame ended without being begun");
  std::size_t start = frameStart_;
  std::size_t total = bytes_.size() - start;
  frameStart_ = kNoFrame;
  if (total > kMaxFrameBytes) {
    bytes_.resize(start);
    throwRangeException(String("stream frame of " + std::to_string(total) +
                               " bytes exceeds the limit of " + std::to_string(kMaxFrameBytes)));
  }
  std::uint32_t length = static_cast<std::uint32_t>(total - sizeof(std::uint32_t));
  char b[4];
  for (int i = 0; i < 4; ++i) b[i] = static_cast<char>((length >> (8 * (3 - i))) & 0xff);
  std::memcpy(&bytes_[start], b, sizeof b);
}

void Out::consume(std::size_t n) {
  head_ += n;
  if (head_ == bytes_.size()) {
    clear();
  } else if (head_ >= 65536 && head_ * 2 >= bytes_.size() && !frameOpen()) {
    // Compact once the consumed part dominates: amortised O(1) per byte.
    bytes_.erase(0, head_);
    head_ = 0;
  }
}

void Out::clear() {
  std::string().swap(bytes_);
  head_ = 0;
  frameStart_ = kNoFrame;
}

// ---- In

const char* In::need(std::size_t n, const char* what) {
  if (remaining() < n) {
    fail(String(std::string("truncated ") + what + ": " + std::to_string(n) + " bytes needed, " +
                std::to_string(remaining()) + " left"));
  }
  const char* p = data_ + pos_;
  pos_ += n;
  return p;
}

std::uint8_t In::u8() {
  return static_cast<std::uint8_t>(*need(1, "u8"));
}
std::uint16_t In::u16() {
  return getBig<std::uint16_t>(need(2, "u16"));
}
std::uint32_t In::u32() {
  return getBig<std::uint32_t>(need(4, "u32"));
}
std::uint64_t In::u64() {
  return getBig<std::uint64_t>(need(8, "u64"));
}

double In::f64() {
  std::uint64_t bits = getBig<std::uint64_t>(need(8, "double"));
  double v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

bool In::boolean() {
  std::uint64_t at = offset();
  std::uint8_t b = static_cast<std::uint8_t>(*need(1, "boolean"));
  if (b > 1) throw FormatException(at, String("boolean byte " + std::to_string(b)));
  return b == 1;
}

String In::string() {
  std::uint64_t at = offset();
  std::size_t before = pos_;
  std::uint32_t length = getBig<std::uint32_t>(need(4, "string length"));
  if (length > remaining()) {
    std::size_t left = remaining();
    pos_ = before;
    throw FormatException(at, String("string length " + std::to_string(length) + " exceeds the " +
                                     std::to_string(left) + " bytes left in the frame"));
  }
  String s(data_ + pos_, length);
  pos_ += length;
  return s;
}

std::uint32_t In::count(std::size_t minItemBytes) {
  std::uint64_t at = offset();
  std::size_t before = pos_;
  std::uint32_t n = getBig<std::uint32_t>(need(4, "count"));
  // Divide rather than multiply: n * minItemBytes overflows a 32-bit size_t.
  if (minItemBytes > 0 && n > remaining() / minItemBytes) {
    std::size_t left = remaining();
    pos_ = before;
    throw FormatException(at, String("count " + std::to_string(n) + " exceeds what the " +
                                     std::to_string(left) + " bytes left can hold"));
  }
  return n;
}

void In::endExpect() const {
  if (remaining() != 0) {
    fail(String(std::to_string(remaining()) + " trailing bytes after the last field"));
  }
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
