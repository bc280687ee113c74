#include "qel/stream/Record.h"

#include <sys/random.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace Qel {
namespace NboAttrLog {

const char* recordKindName(RecordKind kind) {
  switch (kind) {
    case RecordKind::handshake:
      return "handshake";
    case RecordKind::create:
      return "create";
    case RecordKind::attrUpdate:
      return "attrUpdate";
    case RecordKind::memberDel:
      return "memberDel";
    case RecordKind::transactionOpen:
      return "transactionOpen";
    case RecordKind::transactionClose:
      return "transactionClose";
    case RecordKind::entityDel:
      return "entityDel";
    case RecordKind::snapshotEnd:
      return "snapshotEnd";
    case RecordKind::heartbeat:
      return "heartbeat";
  }
  return "unknown";
}

// Read straight from the bytes rather than through an In: every record
// passes here, and the header's fields are fixed. Each field is checked as
// soon as its bytes are in, so that a hostile length or kind is refused
// before the receiver waits (and buffers) for the rest.
std::size_t frameAtSlow(const char* data, std::size_t size, std::uint64_t base,
                        FrameHeader* header) {
  using detail::be32;
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  if (size < kLengthBytes) return 0;
  const std::uint32_t length = be32(p);
  if (length > kMaxFrameBytes - kLengthBytes) {
    throw FormatException(
        base, String("frame length " + std::to_string(length) + " exceeds the limit of " +
                     std::to_string(kMaxFrameBytes - kLengthBytes)));
  }
  if (length < kHeaderBytes - kLengthBytes) {
    throw FormatException(
        base, String("frame length " + std::to_string(length) + " is shorter than a header"));
  }
  if (size < kLengthBytes + 1) return 0;
  const std::uint8_t kind = p[4];
  if (kind < kFirstRecordKind || kind > kLastRecordKind) {
    throw FormatException(base + 4, String("unknown record kind " + std::to_string(kind)));
  }
  if (size < kLengthBytes + 2) return 0;
  const std::uint8_t flags = p[5];
  if (flags != 0) {
    throw FormatException(base + 5, String("unknown frame flags " + std::to_string(flags)));
  }
  if (size < kLengthBytes + length) return 0;
  // Invariant: length covers the whole header (checked above), so its
  // last bytes are in too.
  return detail::headerRead(p, length, header);
}

void handshakeWrite(Out& out, std::uint64_t incarnation, const String& peerName) {
  out.frameBegin(static_cast<std::uint8_t>(RecordKind::handshake), 0, kNoEntity);
  out.u32(kMagic);
  out.u16(kVersion);
  out.u64(incarnation);
  String name =
      peerName.size() > kMaxPeerNameBytes ? String(peerName.data(), kMaxPeerNameBytes) : peerName;
  out.string(name);
  out.frameEnd();
}

std::uint64_t processIncarnation() {
  // Kept with the pid it was drawn in: a forked child is a new process to
  // its peers and draws its own.
  static pid_t drawnIn = 0;
  static std::uint64_t incarnation = 0;
  const pid_t pid = ::getpid();
  if (pid == drawnIn) return incarnation;
  std::uint64_t n = 0;
  if (::getrandom(&n, sizeof n, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof n)) {
    // No entropy yet (early boot): the clock and the pid still differ
    // between two runs of the same program.
    n = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) *
            0x9E3779B97F4A7C15ull ^
        static_cast<std::uint64_t>(pid);
  }
  incarnation = n == 0 ? 1 : n;
  drawnIn = pid;
  return incarnation;
}

Handshake handshakeRead(In& in) {
  std::uint64_t magicAt = in.offset();
  std::uint32_t magic = in.u32();
  if (magic != kMagic) {
    throw FormatException(magicAt, String("bad magic " + std::to_string(magic)));
  }
  Handshake h;
  std::uint64_t versionAt = in.offset();
  h.version = in.u16();
  if (h.version != kVersion) {
    throw FormatException(versionAt,
                          String("unsupported protocol version " + std::to_string(h.version) +
                                 " (expected " + std::to_string(kVersion) + ")"));
  }
  std::uint64_t incarnationAt = in.offset();
  h.incarnation = in.u64();
  if (h.incarnation == 0) throw FormatException(incarnationAt, String("incarnation 0"));
  std::uint64_t nameAt = in.offset();
  h.peerName = in.string();
  if (h.peerName.size() > kMaxPeerNameBytes) {
    throw FormatException(nameAt, String("peer name of " + std::to_string(h.peerName.size()) +
                                         " bytes exceeds " + std::to_string(kMaxPeerNameBytes)));
  }
  in.endExpect();
  return h;
}

}  // namespace NboAttrLog
}  // namespace Qel
