#include "qel/stream/Connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "qel/Exception.h"
#include "qel/stream/Record.h"
#include "qel/stream/StreamTrace.h"

namespace Qel {

Connection::Notifiee::~Notifiee() = default;

using NboAttrLog::FormatException;
using NboAttrLog::FrameHeader;
using NboAttrLog::In;
using NboAttrLog::RecordKind;

namespace {

constexpr char kFile[] = "Connection";
// One read's worth; a round reads at most kReadsPerRound of them so that a
// flooding peer cannot starve the rest of the loop.
constexpr std::size_t kReadChunk = 64 * 1024;
constexpr int kReadsPerRound = 8;
constexpr std::size_t kMaxOpenTransactions = 4096;

// Invariant: the receive buffer holds at most one partial frame plus one
// read, so its size is bounded whatever the peer sends.
constexpr std::size_t kMaxInBytes = NboAttrLog::kMaxFrameBytes + kReadChunk;
static_assert(kMaxInBytes > NboAttrLog::kMaxFrameBytes, "receive bound below the frame cap");

String kindText(RecordKind kind) {
  return String(NboAttrLog::recordKindName(kind));
}

}  // namespace

Connection::Connection(EventLoop* loop, int fd, Role role, String peerName, String localName)
    : loop_(loop), fd_(fd), role_(role), peerName_(std::move(peerName)), out_(new NboAttrLog::Out) {
  int flags = fcntl(fd_, F_GETFL);
  if (flags >= 0) fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
  fcntl(fd_, F_SETFD, FD_CLOEXEC);
  lastIn_ = EventLoop::monotonicNow();
  NboAttrLog::handshakeWrite(*out_, NboAttrLog::processIncarnation(), localName);
  interest_ = EventLoop::kReadable | EventLoop::kWritable;
  loop_->fdIs(fd_, interest_, [this](std::uint32_t events) { onReady(events); });
}

Connection::~Connection() {
  close(String("connection released"));
}

NotifieeListBase* Connection::notifieeList() const {
  return const_cast<NotifieeListBase*>(&notifiees_);
}

// ---- Closing

void Connection::fail(std::uint64_t offset, const String& reason) {
  QEL_STREAM_TRACE(0, kFile, 120, "close", << "close peer: " << peerName_ << " offset: " << offset
                                           << " reason: " << reason);
  if (fd_ >= 0) failed_ = true;  // a connection already closed keeps how it ended
  close(reason);
}

void Connection::close(const String& reason) {
  if (fd_ < 0) return;
  Ptr self(references() ? this : nullptr);  // not while being destroyed
  QEL_STREAM_TRACE(1, kFile, 130, "close", << "close peer: " << peerName_ << " reason: " << reason);
  reason_ = reason;
  loop_->fdDel(fd_);
  ::close(fd_);
  fd_ = -1;
  if (timer_) loop_->timerDel(timer_);
  timer_ = 0;
  out_->clear();
  flowOut_.clear();
  transactions_.clear();
  // Adapters may hold the last references to entities whose destructors
  // reach back into the connection; detach them all first.
  std::vector<StreamAdapter::Ptr> adapters = adapters_.takeAll();
  for (auto& a : adapters) adapterRelease(a.ptr());
  // A record being applied holds its adapter by a plain pointer, so while
  // a parse is under way the adapters live on until it ends.
  if (parsing_) {
    for (auto& a : adapters) retired_.push_back(std::move(a));
  }
  adapters.clear();
  if (self) notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onClose(); });
}

void Connection::adapterRelease(StreamAdapter* adapter) {
  adapter->connection_ = nullptr;
  adapter->queued_ = false;
}

// ---- Sending

void Connection::recordOnMountingSide() const {
  throw InternalException(
      String("stream record written on a mounting connection to " + peerName_.stdString()));
}

void Connection::recordEndSlow() {
  if (fd_ < 0) {
    out_->clear();
    return;
  }
  if (out_->size() >= kEagerFlushBytes) flush();
  // Asks for writability when bytes wait, but does not give it up when an
  // eager flush emptied the buffer: a busy sender refills it at once, and
  // dropping and re-adding the interest would be two system calls per
  // flush. If the buffer is still empty when the socket reports writable,
  // onReady drops the interest then.
  if (out_->size() > 0) interestUpdate();
}

void Connection::flush() {
  // Once the socket has refused bytes, only its writability (onReady)
  // makes trying again worthwhile: a send per record would be a wasted
  // system call each.
  if (writeBlocked_) return;
  while (fd_ >= 0 && out_->size() > 0 && !out_->frameOpen()) {
    ssize_t n = ::send(fd_, out_->data(), out_->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      out_->consume(static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      writeBlocked_ = true;
      return;
    }
    fail(bytesIn(), String(std::string("send failed: ") + std::strerror(errno)));
    return;
  }
}

void Connection::flowOutNeeded(StreamAdapter* adapter) {
  if (adapter->queued_ || fd_ < 0) return;
  adapter->queued_ = true;
  flowOut_.push_back(StreamAdapter::Ptr(adapter));
  interestUpdate();
}

void Connection::pump() {
  // Round-robin: an adapter that stops for lack of room goes to the back,
  // so one busy entity cannot keep the others from ever being sent.
  while (fd_ >= 0 && handshook_ && !flowOut_.empty() && out_->size() < capacity_) {
    StreamAdapter::Ptr a = std::move(flowOut_.front());
    flowOut_.pop_front();
    a->queued_ = false;
    if (a->connection_ != this) continue;  // left meanwhile
    if (a->active_) throw InternalException("entity reactor is already active");
    a->active_ = true;
    bool done;
    try {
      done = a->handleAttrFlowOut();
    } catch (...) {
      a->active_ = false;
      throw;
    }
    a->active_ = false;
    if (!done) flowOutNeeded(a.ptr());
    if (out_->size() >= kEagerFlushBytes) flush();
  }
  if (fd_ >= 0 && snapshotPending_ && flowOut_.empty()) {
    snapshotPending_ = false;
    out_->frameBegin(static_cast<std::uint8_t>(RecordKind::snapshotEnd), 0, NboAttrLog::kNoEntity);
    out_->frameEnd();
    QEL_STREAM_TRACE(1, kFile, 200, "pump", << "snapshot sent peer: " << peerName_);
  }
}

void Connection::interestUpdate() {
  if (fd_ < 0) return;
  std::uint32_t want = EventLoop::kReadable;
  if (out_->size() > 0 || (!flowOut_.empty() && handshook_)) want |= EventLoop::kWritable;
  if (want != interest_) {
    loop_->fdInterestIs(fd_, want);
    interest_ = want;
  }
}

Connection::EntityId Connection::adapterIs(const StreamAdapter::Ptr& adapter) {
  if (role_ != Role::serving) {
    throw InternalException("entities are streamed only by a serving connection");
  }
  if (!adapter || adapter->connection_ != this || adapter->id_ != 0) {
    throw InternalException("adapter handed to the wrong connection or registered twice");
  }
  if (nextId_ == 0) throw RangeException("stream entity identifiers exhausted");
  EntityId id = nextId_++;
  adapter->id_ = id;
  adapters_.insert(id, adapter);
  Entity* e = adapter->entity();
  NboAttrLog::Out& out = recordBegin(RecordKind::create, 0, id);
  out.string(String(adapter->typeName()));
  out.string(e ? e->name() : Name());
  adapter->doSerializeOrphan(out);
  recordEnd();
  flowOutNeeded(adapter.ptr());
  return id;
}

void Connection::adapterDel(EntityId id) {
  StreamAdapter::Ptr a = adapters_.erase(id);
  if (!a) return;
  adapterRelease(a.ptr());
  if (parsing_) retired_.push_back(a);  // see close()
  if (fd_ >= 0) {
    out_->frameBegin(static_cast<std::uint8_t>(RecordKind::entityDel), 0, id);
    out_->frameEnd();
    interestUpdate();
  }
}

StreamAdapter* Connection::adapter(EntityId id) const {
  return adapters_.find(id);
}

// ---- Liveness

void Connection::heartbeatIntervalIs(Seconds seconds) {
  heartbeat_ = seconds > 0 ? seconds : 0;
  tick();
}

void Connection::peerTimeoutIs(Seconds seconds) {
  peerTimeout_ = seconds > 0 ? seconds : 0;
  lastIn_ = EventLoop::monotonicNow();
  tick();
}

void Connection::tick() {
  if (timer_) loop_->timerDel(timer_);
  timer_ = 0;
  if (fd_ < 0) return;
  Seconds period = heartbeat_;
  if (peerTimeout_ > 0 && (period == 0 || peerTimeout_ / 2 < period)) period = peerTimeout_ / 2;
  if (period <= 0) return;
  timer_ = loop_->timerIs(period, [this] {
    timer_ = 0;
    Ptr self(this);
    if (peerTimeout_ > 0 && EventLoop::monotonicNow() - lastIn_ > peerTimeout_) {
      fail(bytesIn(), String("peer silent for more than " + std::to_string(peerTimeout_) + " s"));
      return;
    }
    if (heartbeat_ > 0 && role_ == Role::serving && handshook_ && !sentSinceTick_) {
      out_->frameBegin(static_cast<std::uint8_t>(RecordKind::heartbeat), 0, NboAttrLog::kNoEntity);
      out_->frameEnd();
      interestUpdate();
    }
    sentSinceTick_ = false;
    tick();
  });
}

// ---- Receiving

void Connection::onReady(std::uint32_t events) {
  Ptr self(this);
  if (events & (EventLoop::kReadable | EventLoop::kHangup)) readAvailable();
  if (fd_ >= 0 && (events & EventLoop::kWritable)) {
    writeBlocked_ = false;
    flush();
    try {
      pump();
    } catch (const Exception& e) {
      fail(bytesIn(), e.message());
      return;
    }
    flush();
  }
  interestUpdate();
}

std::size_t Connection::inRoom() {
  // A nested round (a handler that runs the loop while a record is being
  // applied) must not move the bytes the outer round is reading, so it
  // only uses room that is already there.
  if (!parsing_ && inCap_ - inSize_ < kReadChunk) {
    // Outside a parse the buffer holds at most one partial frame, so this
    // stays within kMaxInBytes.
    std::size_t cap = std::min(std::max(inCap_ * 2, inSize_ + kReadChunk), kMaxInBytes);
    // Not zero-filled: reads overwrite it.
    std::unique_ptr<char[]> grown(new char[cap]);
    if (inSize_ > 0) std::memcpy(grown.get(), in_.get(), inSize_);
    in_ = std::move(grown);
    inCap_ = cap;
  }
  std::size_t room = inCap_ - inSize_;
  return room < kReadChunk ? room : kReadChunk;
}

void Connection::readAvailable() {
  for (int i = 0; i < kReadsPerRound && fd_ >= 0; ++i) {
    std::size_t room = inRoom();
    if (room == 0) return;
    ssize_t n = ::read(fd_, in_.get() + inSize_, room);
    if (n == 0) {
      close(String("peer closed the connection"));
      return;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      fail(bytesIn(), String(std::string("read failed: ") + std::strerror(errno)));
      return;
    }
    inSize_ += static_cast<std::size_t>(n);
    lastIn_ = EventLoop::monotonicNow();
    parse();
    if (static_cast<std::size_t>(n) < room) return;  // drained: no need to ask again
  }
}

void Connection::bytesReceived(const char* data, std::size_t size) {
  Ptr self(this);
  while (size > 0 && fd_ >= 0) {
    std::size_t room = inRoom();
    if (room == 0) return;
    std::size_t n = size < room ? size : room;
    std::memcpy(in_.get() + inSize_, data, n);
    inSize_ += n;
    data += n;
    size -= n;
    lastIn_ = EventLoop::monotonicNow();
    parse();
  }
  interestUpdate();
}

// Inline in parse: it is the path of nearly every received record.
__attribute__((always_inline)) inline void Connection::entityRecordApply(const FrameHeader& h,
                                                                         In& in,
                                                                         std::uint64_t frameAt) {
  // A plain pointer: a nested round cannot delete the adapter (a record for
  // an active entity is refused below), and close() keeps it until the
  // parse ends.
  StreamAdapter* a = adapters_.find(h.entity);
  if (!a) entityUnknown(h, in);
  if (a->active_) throw InternalException("entity reactor is already active");
  Entity* e = a->entity();
  // A copy converted to writable belongs to its user now: the peer's
  // changes no longer reach it.
  if (e && !e->readOnly()) return;
  struct Active {
    StreamAdapter* a;
    Active(StreamAdapter* adapter, AttributeId attr) : a(adapter) {
      a->active_ = true;
      a->flowInAttr_ = attr;
    }
    ~Active() {
      a->active_ = false;
      a->flowInAttr_ = 0;
    }
  } active(a, h.attr);
  Entity::FlowInScope scope(e);
  switch (h.kind) {
    case RecordKind::attrUpdate:
    case RecordKind::memberDel:
      a->handleAttrDeserialization(h.kind, h.attr, in);
      in.endExpect();
      return;
    default:
      entityRecordRare(a, h, in, frameAt);
  }
}

void Connection::parse() {
  bool outer = !parsing_;
  parsing_ = true;
  while (fd_ >= 0) {
    FrameHeader h;
    std::uint64_t at = inBase_ + inHead_;
    std::size_t n;
    try {
      n = NboAttrLog::frameAt(in_.get() + inHead_, inSize_ - inHead_, at, &h);
    } catch (const FormatException& e) {
      fail(e.offset(), e.reason());
      break;
    }
    if (n == 0) break;
    // Consumed before dispatch: a nested round continues after this frame.
    const char* payload = in_.get() + inHead_ + NboAttrLog::kHeaderBytes;
    inHead_ += n;
    ++recordsIn_;
    In in(payload, h.payloadBytes(), at + NboAttrLog::kHeaderBytes);
    try {
      // Nearly every record updates an entity the copy already has; the
      // rest (connection-level records, creations, and any record out of
      // place) go through dispatch, which checks everything.
      if (h.kind == RecordKind::attrUpdate && role_ == Role::mounting && handshook_) {
        entityRecordApply(h, in, at);
      } else {
        dispatch(h, in, at);
      }
    } catch (const FormatException& e) {
      fail(e.offset(), e.reason());
      break;
    } catch (const Exception& e) {
      fail(at, e.message());
      break;
    }
  }
  if (!outer) return;
  parsing_ = false;
  retired_.clear();
  inBase_ += inHead_;
  if (inHead_ < inSize_) std::memmove(in_.get(), in_.get() + inHead_, inSize_ - inHead_);
  inSize_ -= inHead_;
  inHead_ = 0;
  // A buffer grown for one large frame is given back once it is empty.
  if (inSize_ == 0 && inCap_ > 4 * kReadChunk) {
    in_.reset();
    inCap_ = 0;
  }
}

void Connection::entityUnknown(const FrameHeader& h, const In& in) const {
  throw FormatException(in.offset() - NboAttrLog::kHeaderBytes + 8,
                        String("unknown entity identifier " + std::to_string(h.entity)));
}

void Connection::dispatch(const FrameHeader& h, In& in, std::uint64_t frameAt) {
  const std::uint64_t entityAt = frameAt + 8;
  if (!handshook_) {
    if (h.kind != RecordKind::handshake) {
      throw FormatException(frameAt + 4,
                            String("expected a handshake, got " + kindText(h.kind).stdString()));
    }
    NboAttrLog::Handshake hs = NboAttrLog::handshakeRead(in);
    advertisedName_ = hs.peerName;
    peerIncarnation_ = hs.incarnation;
    handshook_ = true;
    QEL_STREAM_TRACE(1, kFile, 330, "dispatch",
                     << "handshake peer: " << peerName_ << " name: " << advertisedName_);
    if (role_ == Role::serving) snapshotPending_ = true;
    notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onHandshake(); });
    interestUpdate();
    return;
  }
  bool connectionLevel = h.kind == RecordKind::handshake || h.kind == RecordKind::snapshotEnd ||
                         h.kind == RecordKind::heartbeat;
  if (connectionLevel && h.entity != NboAttrLog::kNoEntity) {
    throw FormatException(entityAt, String(kindText(h.kind).stdString() + " record for entity " +
                                           std::to_string(h.entity)));
  }
  if (role_ == Role::serving && h.kind != RecordKind::heartbeat) {
    throw FormatException(frameAt + 4, String("unexpected " + kindText(h.kind).stdString() +
                                              " record from a mounting peer"));
  }
  switch (h.kind) {
    case RecordKind::handshake:
      throw FormatException(frameAt + 4, String("second handshake"));
    case RecordKind::heartbeat:
      in.endExpect();
      return;
    case RecordKind::snapshotEnd:
      in.endExpect();
      if (snapshotEnded_) throw FormatException(frameAt + 4, String("second end of snapshot"));
      snapshotEnded_ = true;
      notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onSnapshotEnd(); });
      return;
    case RecordKind::create:
      applyCreate(h, in);
      return;
    default:
      break;
  }
  entityRecordApply(h, in, frameAt);
}

void Connection::entityRecordRare(StreamAdapter* a, const FrameHeader& h, In& in,
                                  std::uint64_t frameAt) {
  switch (h.kind) {
    case RecordKind::transactionOpen:
    case RecordKind::transactionClose: {
      in.endExpect();
      bool opening = h.kind == RecordKind::transactionOpen;
      auto key = std::make_pair(h.entity, h.attr);
      bool isOpen = transactions_.count(key) != 0;
      if (opening == isOpen) {
        throw FormatException(frameAt + 4, String(opening ? "transaction opened twice"
                                                          : "transaction closed without open"));
      }
      if (opening) {
        // One open transfer per streamed collection is all a sane peer
        // needs; the bound keeps a hostile one from growing the set.
        if (transactions_.size() >= kMaxOpenTransactions) {
          throw FormatException(
              frameAt + 4,
              String("more than " + std::to_string(kMaxOpenTransactions) + " transactions open"));
        }
        transactions_.insert(key);
      } else {
        transactions_.erase(key);
      }
      a->handleTransaction(h.attr, opening);
      return;
    }
    case RecordKind::entityDel: {
      in.endExpect();
      transactions_.erase(transactions_.lower_bound(std::make_pair(h.entity, AttributeId{0})),
                          transactions_.upper_bound(std::make_pair(h.entity, AttributeId{0xffff})));
      // Kept until the parse ends: the caller still marks it inactive.
      retired_.push_back(adapters_.erase(h.entity));
      adapterRelease(a);
      a->handleEntityDel();
      return;
    }
    default:
      throw FormatException(frameAt + 4, String("unexpected " + kindText(h.kind).stdString()));
  }
}

void Connection::applyCreate(const FrameHeader& h, In& in) {
  if (h.entity == NboAttrLog::kNoEntity || adapters_.find(h.entity)) {
    throw FormatException(in.offset() - 4,
                          String("entity identifier " + std::to_string(h.entity) + " is not free"));
  }
  if (adapters_.size() >= maxEntities_) {
    throw FormatException(in.offset() - 4,
                          String("entity limit of " + std::to_string(maxEntities_) + " reached"));
  }
  std::uint64_t typeAt = in.offset();
  String typeName = in.string();
  Name name(in.string());
  const StreamFactory* factory = streamType(typeName);
  if (!factory) {
    throw FormatException(typeAt, String("unknown type " + typeName.stdString()));
  }
  StreamAdapter::Ptr a = (*factory)(this, name, in);
  in.endExpect();
  if (!a || a->connection_ != this) {
    throw InternalException(String("factory of " + typeName.stdString() + " made no adapter"));
  }
  // Whatever the factory did, a copy made from a stream is read-only.
  if (a->entity() && !a->entity()->readOnly()) a->entity()->readOnlyIs(peerName_);
  a->id_ = h.entity;
  adapters_.insert(h.entity, a);
}

}  // namespace Qel
