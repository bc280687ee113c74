// Attribute-log fields in network byte order.
//
// Out appends typed fields to a byte buffer; In reads them back from a
// bounded view and refuses to read past it. Every integer is big-endian, a
// double is its IEEE-754 bit pattern as a big-endian 64-bit word, a boolean
// is one byte (0 or 1), and a byte string is a 32-bit length followed by the
// bytes. Out also frames records (see Record.h): frameBegin writes a header
// whose length frameEnd fills in.
//
//   Qel::Ptr<Qel::NboAttrLog::Out> out = new Qel::NboAttrLog::Out;
//   out << std::uint32_t{7} << Qel::String("text");
//   Qel::NboAttrLog::In in(out->data(), out->size());
//   std::uint32_t n = in.u32();   // 7
//   Qel::String s = in.string();  // "text"
#ifndef QEL_STREAM_NBOATTRLOG_H
#define QEL_STREAM_NBOATTRLOG_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "qel/Exception.h"
#include "qel/Export.h"
#include "qel/Ptr.h"
#include "qel/String.h"

namespace Qel {

// Identifies an attribute of a streamed entity type. Identifiers below
// kFirstTypeAttributeId belong to the framework.
using AttributeId = std::uint16_t;
constexpr AttributeId kFirstTypeAttributeId = 256;

namespace NboAttrLog {

// Identifies an entity on one connection; assigned by the sending side.
// 0 is "no entity" (connection-level records); the first entity a peer
// creates (1) is the root of what it serves.
using EntityId = std::uint32_t;
constexpr EntityId kNoEntity = 0;
constexpr EntityId kRootEntity = 1;

// Largest frame, its 4-byte length field included. A length field that
// claims more closes the connection before anything is buffered for it.
constexpr std::size_t kMaxFrameBytes = std::size_t{1} << 20;

// A received byte sequence that does not decode. offset() is where in the
// input the fault was found (absolute, when the reader was given a base).
class QEL_EXPORT FormatException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x20000;
  FormatException(std::uint64_t offset, String reason);
  ~FormatException() override;
  std::uint64_t offset() const noexcept { return offset_; }
  const String& reason() const noexcept { return reason_; }

 private:
  std::uint64_t offset_;
  String reason_;
};

class QEL_EXPORT Out : public PtrInterface {
 public:
  // A frame header: length, kind, flags, attribute, entity (see Record.h).
  static constexpr std::size_t kFrameHeaderBytes = 12;

  Out() = default;
  ~Out() override;
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;

  // The fixed-size writers are inline: a record is a handful of them, and
  // records are written once per change.
  void u8(std::uint8_t v) { put(v); }
  void u16(std::uint16_t v) { put(v); }
  void u32(std::uint32_t v) { put(v); }
  void u64(std::uint64_t v) { put(v); }
  void f64(double v) {
    static_assert(sizeof(double) == sizeof(std::uint64_t), "IEEE-754 binary64 expected");
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    u64(bits);
  }
  void boolean(bool v) { u8(v ? 1 : 0); }
  // Length, then the bytes. Throws RangeException for a string longer than
  // a frame can carry (nothing is written then).
  void string(const String& v) { bytes(v.data(), v.size()); }
  void bytes(const char* data, std::size_t size) {
    // Checked here, not only at frameEnd, so that a 32-bit length field
    // can never be truncated silently.
    if (size > kMaxFrameBytes) bytesTooLarge(size);
    char* p = grow(sizeof(std::uint32_t) + size);
    putAt(p, static_cast<std::uint32_t>(size));
    detail::bytesCopy(p + sizeof(std::uint32_t), data, size);
  }

  // Starts a frame: writes a header with a zero length. Frames do not nest.
  //
  // This and frameEnd are inline, with their failures out of line: a small
  // record is little more than its header, and the calls cost more than
  // the stores.
  void frameBegin(std::uint8_t kind, AttributeId attr, EntityId entity) {
    if (frameOpen()) frameNested();
    // Where the frame starts in the block. Bytes move only while no frame
    // is open (reserve and consume compact only then), so the position
    // holds even when bytes before the frame are sent meanwhile.
    frameStart_ = size_;
    // Length 0 (filled in by frameEnd), kind, flags 0 (none defined; a
    // receiver refuses any), attribute, entity; written straight into the
    // buffer. (Built on the stack and copied, it was read back as one word
    // over twelve byte stores, a store-forwarding stall that cost more
    // than the rest of a small record.)
    char* p = grow(kFrameHeaderBytes);
    p[0] = p[1] = p[2] = p[3] = 0;
    p[4] = static_cast<char>(kind);
    p[5] = 0;
    p[6] = static_cast<char>(attr >> 8);
    p[7] = static_cast<char>(attr & 0xff);
    p[8] = static_cast<char>(entity >> 24);
    p[9] = static_cast<char>((entity >> 16) & 0xff);
    p[10] = static_cast<char>((entity >> 8) & 0xff);
    p[11] = static_cast<char>(entity & 0xff);
  }
  // Fills in the open frame's length. A frame larger than kMaxFrameBytes is
  // taken back out whole and RangeException is thrown: a peer never sees it.
  void frameEnd() {
    if (!frameOpen()) frameUnopened();
    const std::size_t start = frameStart_;
    const std::size_t total = size_ - start;
    frameStart_ = kNoFrame;
    if (total > kMaxFrameBytes) frameTooLarge(start, total);
    const std::uint32_t length = static_cast<std::uint32_t>(total - sizeof(std::uint32_t));
    char* p = buf_ + start;
    p[0] = static_cast<char>(length >> 24);
    p[1] = static_cast<char>((length >> 16) & 0xff);
    p[2] = static_cast<char>((length >> 8) & 0xff);
    p[3] = static_cast<char>(length & 0xff);
  }
  bool frameOpen() const noexcept { return frameStart_ != kNoFrame; }

  // The bytes not yet consumed.
  const char* data() const noexcept { return buf_ + head_; }
  std::size_t size() const noexcept { return size_ - head_; }
  // Drops the first `n` unconsumed bytes (n <= size()); an open frame is
  // never consumed. The memory block is kept for the bytes that follow.
  void consume(std::size_t n);
  // Drops everything, an open frame included, and gives the memory back.
  void clear();

 private:
  static constexpr std::size_t kNoFrame = static_cast<std::size_t>(-1);
  [[noreturn]] static void bytesTooLarge(std::size_t size);
  [[noreturn]] static void frameNested();
  [[noreturn]] static void frameUnopened();
  // Takes the frame starting at `start` back out, then throws.
  [[noreturn]] void frameTooLarge(std::size_t start, std::size_t total);
  // Room for `n` more bytes; returns where they go.
  char* grow(std::size_t n) {
    if (cap_ - size_ < n) reserve(n);
    char* p = buf_ + size_;
    size_ += n;
    return p;
  }
  void reserve(std::size_t n);
  // Big-endian by shifts: no alignment or host byte order assumed.
  template <class T>
  void put(T v) {
    putAt(grow(sizeof(T)), v);
  }
  template <class T>
  static void putAt(char* p, T v) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      p[i] = static_cast<char>(static_cast<unsigned char>(v >> (8 * (sizeof(T) - 1 - i))));
    }
  }
  // Invariant: head_ <= size_ <= cap_; buf_ is null exactly when cap_ is 0.
  char* buf_ = nullptr;
  std::size_t size_ = 0;
  std::size_t cap_ = 0;
  std::size_t head_ = 0;
  std::size_t frameStart_ = kNoFrame;
};

class QEL_EXPORT In {
 public:
  // Reads [data, data + size). `base` is the absolute offset of data[0] in
  // the stream, used only in error reports. The bytes must outlive the In.
  In(const char* data, std::size_t size, std::uint64_t base = 0) noexcept
      : data_(data), size_(size), pos_(0), base_(base) {}

  // Each reader throws FormatException ("truncated ...") when fewer bytes
  // remain than the field needs, and consumes nothing then.
  std::uint8_t u8() { return get<std::uint8_t>("u8"); }
  std::uint16_t u16() { return get<std::uint16_t>("u16"); }
  std::uint32_t u32() { return get<std::uint32_t>("u32"); }
  std::uint64_t u64() { return get<std::uint64_t>("u64"); }
  double f64();
  // A byte other than 0 or 1 is a FormatException.
  bool boolean();
  // A length larger than what remains is a FormatException: the allocation
  // is bounded by the input, never by what a length field claims. Inline:
  // most received records carry a string.
  String string() {
    const std::uint32_t length = get<std::uint32_t>("string length");
    if (length > remaining()) {
      pos_ -= 4;  // consumes nothing, as promised
      stringTooLong(length);
    }
    const char* p = data_ + pos_;
    pos_ += length;
    return String(p, length);
  }
  // A count of items of at least `minItemBytes` each; more than the
  // remaining bytes could hold is a FormatException.
  std::uint32_t count(std::size_t minItemBytes);

  std::size_t remaining() const noexcept { return size_ - pos_; }
  // Absolute offset of the next byte.
  std::uint64_t offset() const noexcept { return base_ + pos_; }
  // Trailing bytes after a record's last field are a FormatException.
  void endExpect() const {
    if (remaining() != 0) trailing();
  }
  [[noreturn]] void fail(const String& reason) const;

 private:
  template <class T>
  T get(const char* what) {
    if (remaining() < sizeof(T)) truncated(sizeof(T), what);
    const char* p = data_ + pos_;
    pos_ += sizeof(T);
    T v = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      v = static_cast<T>((v << 8) | static_cast<unsigned char>(p[i]));
    }
    return v;
  }
  [[noreturn]] void truncated(std::size_t n, const char* what) const;
  // Reports the string length field just before the read position.
  [[noreturn]] void stringTooLong(std::uint32_t length) const;
  [[noreturn]] void trailing() const;
  const char* data_;
  std::size_t size_;
  std::size_t pos_;
  std::uint64_t base_;
};

}  // namespace NboAttrLog

// Streaming operators for the plain field types, for value types that write
// their fields in order: `out << a.x() << a.y();`.
QEL_EXPORT const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, std::uint32_t v);
QEL_EXPORT const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, std::uint64_t v);
QEL_EXPORT const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, double v);
QEL_EXPORT const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, bool v);
QEL_EXPORT const Ptr<NboAttrLog::Out>& operator<<(const Ptr<NboAttrLog::Out>& out, const String& v);

}  // namespace Qel

#endif  // QEL_STREAM_NBOATTRLOG_H
