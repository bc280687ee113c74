// Stream records: the frame header, the record kinds and the handshake.
// docs/stream-format.md is the byte-level description of all of this.
//
// A frame is a 12-byte header followed by its payload:
//   u32 length (bytes after this field), u8 kind, u8 flags (0),
//   u16 attribute identifier, u32 entity identifier.
#ifndef QEL_STREAM_RECORD_H
#define QEL_STREAM_RECORD_H

#include <cstddef>
#include <cstdint>

#include "qel/Export.h"
#include "qel/String.h"
#include "qel/stream/NboAttrLog.h"

namespace Qel {
namespace NboAttrLog {

enum class RecordKind : std::uint8_t {
  handshake = 1,         // opens a connection: magic, version, peer name
  create = 2,            // an orphan entity: type name, name, constructor values
  attrUpdate = 3,        // a new value of one attribute (or one collection member)
  memberDel = 4,         // a collection member removed, by key
  transactionOpen = 5,   // a whole-collection transfer starts
  transactionClose = 6,  // ... and ends
  entityDel = 7,         // the peer no longer streams this entity
  snapshotEnd = 8,       // everything the peer had at connection time was sent
  heartbeat = 9,         // nothing to say; the peer is alive
};
constexpr std::uint8_t kFirstRecordKind = 1;
constexpr std::uint8_t kLastRecordKind = 9;

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kLengthBytes = 4;
// "QELS" read as a big-endian word.
constexpr std::uint32_t kMagic = 0x51454C53;
// Raised when a change makes old peers misread new records; a receiver
// accepts exactly its own version (see docs/stream-format.md).
constexpr std::uint16_t kVersion = 2;
constexpr std::size_t kMaxPeerNameBytes = 256;

// Invariant: a header always fits in a frame, with room to spare.
static_assert(kHeaderBytes < kMaxFrameBytes, "frame cap below header size");
static_assert(kHeaderBytes == Out::kFrameHeaderBytes, "Out writes the header this reads");

QEL_EXPORT const char* recordKindName(RecordKind kind);

struct FrameHeader {
  std::uint32_t length = 0;  // bytes after the length field
  RecordKind kind = RecordKind::heartbeat;
  AttributeId attr = 0;
  EntityId entity = 0;
  std::size_t frameBytes() const noexcept { return kLengthBytes + length; }
  std::size_t payloadBytes() const noexcept { return frameBytes() - kHeaderBytes; }
};

namespace detail {
// A big-endian field of a header whose bytes the caller has checked are there.
inline std::uint32_t be32(const unsigned char* p) noexcept {
  return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
         static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

// Fills `header` from the checked header bytes of a whole frame of
// `length` (the length field's value); returns the frame's size.
inline std::size_t headerRead(const unsigned char* p, std::uint32_t length,
                              FrameHeader* header) noexcept {
  static_assert(kHeaderBytes == 12, "length, kind, flags, attribute (16 bits), entity (32 bits)");
  header->length = length;
  header->kind = static_cast<RecordKind>(p[4]);
  header->attr = static_cast<AttributeId>(p[6] << 8 | p[7]);
  header->entity = be32(p + 8);
  return kLengthBytes + length;
}
}  // namespace detail

// Looks for one frame at the start of [data, data + size). Returns 0 when
// the bytes end before the frame does, otherwise the frame's size, with
// `header` filled in; the payload follows the header. Throws
// FormatException (offsets counted from `base`) as soon as the bytes
// present show a bad frame: a length beyond kMaxFrameBytes or below the
// header, an unknown kind, nonzero flags. So a receiver never buffers more
// than one frame cap for any input.
//
// Every received record passes here, so the common case (a whole frame
// with a good header) is decided inline; frameAtSlow takes the rest and
// says which field is at fault.
QEL_EXPORT std::size_t frameAtSlow(const char* data, std::size_t size, std::uint64_t base,
                                   FrameHeader* header);

inline std::size_t frameAt(const char* data, std::size_t size, std::uint64_t base,
                           FrameHeader* header) {
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  if (size >= kHeaderBytes) {
    const std::uint32_t length = detail::be32(p);
    const std::uint8_t kind = p[4];
    if (length >= kHeaderBytes - kLengthBytes && length <= kMaxFrameBytes - kLengthBytes &&
        length <= size - kLengthBytes && kind >= kFirstRecordKind && kind <= kLastRecordKind &&
        p[5] == 0) {
      return detail::headerRead(p, length, header);
    }
  }
  return frameAtSlow(data, size, base, header);
}

struct Handshake {
  std::uint16_t version = 0;
  // Chosen afresh each time the sending process starts (never 0), so that
  // a peer can tell a reconnect to the same process from one to its
  // successor, whose indices start over.
  std::uint64_t incarnation = 0;
  String peerName;
};

// Writes a whole handshake frame.
QEL_EXPORT void handshakeWrite(Out& out, std::uint64_t incarnation, const String& peerName);
// Reads a handshake payload; FormatException for a wrong magic, another
// version, a zero incarnation, an overlong name or trailing bytes.
QEL_EXPORT Handshake handshakeRead(In& in);

// This process's incarnation: random, nonzero, the same for every
// connection it opens, and new in a forked child.
QEL_EXPORT std::uint64_t processIncarnation();

}  // namespace NboAttrLog
}  // namespace Qel

#endif  // QEL_STREAM_RECORD_H
