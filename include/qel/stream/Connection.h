// One end of a stream between two processes, over a connected,
// non-blocking stream socket (a Unix-domain socket; a socketpair in tests).
//
// Both ends open with a handshake. The serving end then streams entities
// through their adapters: a snapshot of everything, an end-of-snapshot
// record, then changes. The mounting end applies what it receives to
// read-only copies. Sending is flow-controlled: records go into a bounded
// send buffer; adapters that find no room mark themselves dirty, and when
// the socket drains the connection calls their handleAttrFlowOut() in
// round-robin order until the buffer is full again.
//
// Received input is validated frame by frame. The first bad byte closes the
// connection with one trace naming the peer, the byte offset and the
// reason; what was applied before stays, and nothing is buffered beyond one
// frame cap (kMaxFrameBytes) whatever the peer sends.
#ifndef QEL_STREAM_CONNECTION_H
#define QEL_STREAM_CONNECTION_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qel/Export.h"
#include "qel/Notifiee.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/stream/AdapterTable.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/NboAttrLog.h"
#include "qel/stream/StreamAdapter.h"

namespace Qel {

class QEL_EXPORT Connection : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<Connection>;
  using EntityId = NboAttrLog::EntityId;
  enum class Role { serving, mounting };

  static constexpr std::size_t kDefaultSendBufferBytes = 256 * 1024;

  class QEL_EXPORT Notifiee : public Qel::Notifiee<Connection> {
   public:
    // Out of line: the type information lives in libqel alone.
    ~Notifiee() override;
    // Serving end: the peer's handshake arrived; stream the root now.
    virtual void onHandshake() {}
    // Mounting end: the end-of-snapshot record arrived: the copy is in sync.
    virtual void onSnapshotEnd() {}
    // The connection closed (reason() says why); called once.
    virtual void onClose() {}
  };

  // Takes ownership of `fd` (made non-blocking and close-on-exec) and sends
  // the handshake. `peerName` names the other process in traces and errors
  // ("<command>[<pid>]"); `localName` is what the handshake advertises.
  Connection(EventLoop* loop, int fd, Role role, String peerName, String localName);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  Role role() const noexcept { return role_; }
  const String& peerName() const noexcept { return peerName_; }
  // The name the peer gave in its handshake (informational only: traces use
  // peerName(), which comes from the kernel's credentials).
  const String& advertisedName() const noexcept { return advertisedName_; }
  // The peer process's incarnation from its handshake (0 before it): a
  // different value on a reconnect means the peer process was restarted.
  std::uint64_t peerIncarnation() const noexcept { return peerIncarnation_; }
  bool open() const noexcept { return fd_ >= 0; }
  bool handshook() const noexcept { return handshook_; }
  bool snapshotEnded() const noexcept { return snapshotEnded_; }
  // Why the connection closed ("" while open).
  const String& reason() const noexcept { return reason_; }
  // Closed by a failure (malformed input, a socket error, a silent peer)
  // rather than by either side's orderly close.
  bool failed() const noexcept { return failed_; }

  // ---- Flow control
  std::size_t sendBufferCapacity() const noexcept { return capacity_; }
  void sendBufferCapacityIs(std::size_t bytes) noexcept { capacity_ = bytes; }
  std::size_t sendBufferBytes() const noexcept { return out_->size(); }
  // Serving, open, handshake done, and the send buffer below capacity.
  bool mayTransmit() const noexcept {
    return role_ == Role::serving && fd_ >= 0 && handshook_ && out_->size() < capacity_;
  }
  std::size_t flowOutQueued() const noexcept { return flowOut_.size(); }
  // Serving: everything the peer is owed (the snapshot and every change
  // since) has been handed to the socket; nothing is buffered or dirty.
  bool drained() const noexcept {
    return role_ == Role::serving && handshook_ && !snapshotPending_ && flowOut_.empty() &&
           out_->size() == 0;
  }

  // ---- Entities
  // Serving end: registers `adapter` under a new identifier, sends its
  // creation record and queues its first flow-out.
  EntityId adapterIs(const StreamAdapter::Ptr& adapter);
  // Serving end: sends the deletion record and releases the adapter.
  void adapterDel(EntityId id);
  StreamAdapter* adapter(EntityId id) const;
  std::size_t adapters() const noexcept { return adapters_.size(); }
  // Mounting end: a peer that creates more entities than this is closed
  // on, so that a hostile server cannot grow the copy without bound.
  static constexpr std::size_t kDefaultMaxEntities = std::size_t{1} << 20;
  void maxEntitiesIs(std::size_t n) noexcept { maxEntities_ = n; }
  std::size_t maxEntities() const noexcept { return maxEntities_; }

  // ---- Liveness
  // Serving end: a heartbeat goes out after `seconds` without any record.
  void heartbeatIntervalIs(Seconds seconds);
  // Mounting end: closes the connection after `seconds` without input
  // (0: never). Catches a peer that is stopped rather than gone.
  void peerTimeoutIs(Seconds seconds);

  // Closes the socket, releases every adapter, notifies onClose. Idempotent.
  void close(const String& reason);

  // Applies received bytes as if read from the socket (tests, fuzzing).
  void bytesReceived(const char* data, std::size_t size);

  std::uint64_t bytesIn() const noexcept { return inBase_ + inSize_; }
  std::uint64_t recordsIn() const noexcept { return recordsIn_; }

  NotifieeListBase& notifieeListRef() noexcept { return notifiees_; }
  NotifieeListBase* notifieeList() const override;

 private:
  friend class StreamAdapter;
  // Records are batched in the send buffer and go out when the socket is
  // writable; past this many bytes they go out at once.
  static constexpr std::size_t kEagerFlushBytes = 64 * 1024;

  // Every sent record passes through these two, so they are inline and
  // their rarer outcomes are out of line.
  NboAttrLog::Out& recordBegin(NboAttrLog::RecordKind kind, AttributeId attr, EntityId entity) {
    if (role_ != Role::serving) recordOnMountingSide();
    out_->frameBegin(static_cast<std::uint8_t>(kind), attr, entity);
    return *out_;
  }
  void recordEnd() {
    out_->frameEnd();
    sentSinceTick_ = true;
    // The common case: open, below the eager flush, and already waiting
    // for writability (which a non-empty buffer asks for).
    if (fd_ >= 0 && out_->size() < kEagerFlushBytes &&
        interest_ == (EventLoop::kReadable | EventLoop::kWritable)) {
      return;
    }
    recordEndSlow();
  }
  [[noreturn]] void recordOnMountingSide() const;
  void recordEndSlow();
  void flowOutNeeded(StreamAdapter* adapter);

  void onReady(std::uint32_t events);
  std::size_t inRoom();
  void readAvailable();
  void parse();
  void dispatch(const NboAttrLog::FrameHeader& h, NboAttrLog::In& in, std::uint64_t frameAt);
  void applyCreate(const NboAttrLog::FrameHeader& h, NboAttrLog::In& in);
  // A record for an existing entity: attrUpdate and memberDel here, the
  // rarer kinds in entityRecordRare.
  void entityRecordApply(const NboAttrLog::FrameHeader& h, NboAttrLog::In& in,
                         std::uint64_t frameAt);
  void entityRecordRare(StreamAdapter* a, const NboAttrLog::FrameHeader& h, NboAttrLog::In& in,
                        std::uint64_t frameAt);
  [[noreturn]] void entityUnknown(const NboAttrLog::FrameHeader& h, const NboAttrLog::In& in) const;
  void flush();
  void pump();
  void interestUpdate();
  void tick();
  void fail(std::uint64_t offset, const String& reason);
  void adapterRelease(StreamAdapter* adapter);

  EventLoop::Ptr loop_;
  int fd_;
  Role role_;
  String peerName_;
  String advertisedName_;
  std::uint64_t peerIncarnation_ = 0;
  String reason_;
  bool failed_ = false;
  bool handshook_ = false;
  bool snapshotEnded_ = false;
  bool snapshotPending_ = false;  // serving: end-of-snapshot not sent yet
  bool parsing_ = false;          // a received frame is being applied
  bool writeBlocked_ = false;     // the socket refused bytes; wait for writability
  std::size_t capacity_ = kDefaultSendBufferBytes;
  std::size_t maxEntities_ = kDefaultMaxEntities;
  Qel::Ptr<NboAttrLog::Out> out_;
  std::uint32_t interest_ = 0;

  // Received bytes: in_[0, inSize_) of a buffer of inCap_ bytes; those not
  // yet parsed start at in_[inHead_]; inBase_ is the stream offset of in_[0].
  std::unique_ptr<char[]> in_;
  std::size_t inSize_ = 0;
  std::size_t inCap_ = 0;
  std::size_t inHead_ = 0;
  std::uint64_t inBase_ = 0;
  std::uint64_t recordsIn_ = 0;

  EntityId nextId_ = NboAttrLog::kRootEntity;
  AdapterTable adapters_;
  // Adapters released while a parse was under way, freed when it ends.
  std::vector<StreamAdapter::Ptr> retired_;
  // Invariant: each adapter is queued at most once (its queued_ flag), so
  // the queue never holds more entries than there are adapters.
  std::deque<StreamAdapter::Ptr> flowOut_;
  std::set<std::pair<EntityId, AttributeId>> transactions_;

  Seconds heartbeat_ = 0;
  Seconds peerTimeout_ = 0;
  Seconds lastIn_ = 0;
  bool sentSinceTick_ = false;
  EventLoop::TimerId timer_ = 0;
  NotifieeListBase notifiees_;
};

// ---- StreamAdapter's per-record members, which need the Connection.

inline bool StreamAdapter::sending() const noexcept {
  return connection_ && connection_->role() == Connection::Role::serving;
}

inline bool StreamAdapter::mayTransmit() const noexcept {
  return connection_ && id_ != 0 && connection_->mayTransmit();
}

inline NboAttrLog::Out& StreamAdapter::recordBegin(RecordKind kind, AttributeId attr) {
  if (!connection_ || id_ == 0 || (entity_ && entity_->readOnly())) recordRefused();
  return connection_->recordBegin(kind, attr, id_);
}

inline void StreamAdapter::recordEnd() {
  connection_->recordEnd();
}

}  // namespace Qel

#endif  // QEL_STREAM_CONNECTION_H
