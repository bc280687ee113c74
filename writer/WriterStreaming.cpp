// Attribute-log streaming: the writer's value types, the adapters of
// Writer and WriterDir, serving and mounting a writer directory, and the
// follower of a writer copy.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "qel/stream/NboAttrLog.h"
#include "support/Assert.h"

namespace KronlogWriter {

using Qel::NboAttrLog::In;
using Qel::NboAttrLog::Out;

LogEntry::LogEntry(In* in) : timestamp_(in->f64()), message_(in->string()) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const LogEntry& value) {
  out->f64(value.timestamp());
  out->string(value.message());
  return out;
}

namespace {
// The overflow action as the enum registry knows it; anything else is a
// malformed record, reported where its field starts.
OverflowActionType overflowActionRead(In* in) {
  std::uint64_t at = in->offset();
  std::uint32_t number = in->u32();
  Qel::String name;
  const Qel::TypeNode* type = Qel::typeNode("KronlogWriter::OverflowActionType");
  if (!type || !type->enumName(number, &name)) {
    throw Qel::NboAttrLog::FormatException(
        at,
        Qel::String("KronlogWriter::OverflowActionType has no value " + std::to_string(number)));
  }
  return static_cast<OverflowActionType>(number);
}
}  // namespace

// Members are initialised in declaration order, which is the field order.
Config::Config(In* in) : size_(in->u32()), overflowAction_(overflowActionRead(in)) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const Config& value) {
  out->u32(value.size());
  out->u32(static_cast<std::uint32_t>(value.overflowAction()));
  return out;
}

Writer::LogMetadata::LogMetadata(In* in) : firstIndex_(in->u32()), nextIndex_(in->u32()) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const Writer::LogMetadata& value) {
  out->u32(value.firstIndex());
  out->u32(value.nextIndex());
  return out;
}

}  // namespace KronlogWriter

// ---- Adapters of Writer and WriterDir

namespace KronlogWriter {

namespace {

// Writes one value through its streaming operator. The connection's buffer
// is reference counted and held by the connection, so a second holder for
// the length of one call is harmless.
template <class T>
void fieldWrite(Out& out, const T& value) {
  Qel::Ptr<Out> held(&out);
  held << value;
}

// `index` lies in [first, next), modulo 2^32.
bool indexInRange(unsigned int index, unsigned int first, unsigned int next) {
  return static_cast<unsigned int>(index - first) < static_cast<unsigned int>(next - first);
}

}  // namespace

WriterNboAttrLogAdapter::WriterNboAttrLogAdapter(Qel::Connection* connection, Writer* writer)
    : StreamAdapter(connection, writer), writer_(writer) {
  if (sending()) notifierIs(writer);
  dirty_ = qelIsOverflowCountDirty | qelIsLogMetadataDirty | qelIsLogDirty;
}

WriterNboAttrLogAdapter::~WriterNboAttrLogAdapter() = default;

void WriterNboAttrLogAdapter::doSerializeOrphan(Out& out) {
  fieldWrite(out, writer_->config());
}

void WriterNboAttrLogAdapter::onOverflowCount() {
  changed(kOverflowCountAttr, qelIsOverflowCountDirty);
}

void WriterNboAttrLogAdapter::onLogMetadata() {
  changed(kLogMetadataAttr, qelIsLogMetadataDirty);
}

void WriterNboAttrLogAdapter::changed(Qel::AttributeId attr, unsigned bit) {
  // Applying the peer's change (or one it causes): a copy never echoes.
  if (flowInAttr() == attr || writer_->flowIn()) return;
  if (mayTransmit()) {
    if (attr == kOverflowCountAttr) {
      countSend();
    } else {
      metadataSend();
    }
  } else {
    dirty_ |= bit;
    flowOutNeededIs();
  }
}

void WriterNboAttrLogAdapter::onLog(unsigned int index) {
  if (flowInAttr() == kLogAttr || writer_->flowIn()) return;
  // A pending whole-log transfer will carry this change; one under way
  // carries it only if it lies ahead of the bookmark, so changes are sent
  // singly then (an entry sent twice is applied twice, harmlessly).
  if (!(dirty_ & qelIsLogDirty) && mayTransmit()) {
    entrySend(index);
  } else {
    dirty_ |= qelIsLogDirty;
    flowOutNeededIs();
  }
}

void WriterNboAttrLogAdapter::countSend() {
  Out& out = recordBegin(RecordKind::attrUpdate, kOverflowCountAttr);
  out.u32(writer_->overflowCount());
  recordEnd();
  dirty_ &= ~qelIsOverflowCountDirty;
}

void WriterNboAttrLogAdapter::metadataSend() {
  Out& out = recordBegin(RecordKind::attrUpdate, kLogMetadataAttr);
  fieldWrite(out, writer_->logMetadata());
  recordEnd();
  dirty_ &= ~qelIsLogMetadataDirty;
}

void WriterNboAttrLogAdapter::entrySend(unsigned int index) {
  const WriterLogMember* m = writer_->logQueue().find(index);
  if (m && m->index() != index) m = nullptr;  // find() may land on a later entry
  entrySend(index, m);
}

void WriterNboAttrLogAdapter::entrySend(unsigned int index, const WriterLogMember* m) {
  Out& out = recordBegin(m ? RecordKind::attrUpdate : RecordKind::memberDel, kLogAttr);
  out.u32(index);
  if (m) fieldWrite(out, m->entry());
  recordEnd();
}

bool WriterNboAttrLogAdapter::handleAttrFlowOut() {
  if (resumeAttr() <= kOverflowCountAttr) {
    resumeAttrIs(kOverflowCountAttr);
    if (dirty_ & qelIsOverflowCountDirty) countSend();
    if (!mayTransmit()) return false;
  }
  if (resumeAttr() <= kLogMetadataAttr) {
    resumeAttrIs(kLogMetadataAttr);
    if (dirty_ & qelIsLogMetadataDirty) metadataSend();
    if (!mayTransmit()) return false;
  }
  resumeAttrIs(kLogAttr);
  if (!inTransfer_ && (dirty_ & qelIsLogDirty)) {
    KRONLOG_ASSERT(!bookmark_, "!rsc->bookmark()");
    // Cleared at the start, not the end: a change behind the bookmark that
    // finds no room sets it again and earns another transfer.
    dirty_ &= ~qelIsLogDirty;
    transactionOpen(kLogAttr);
    bookmark_ = writer_->logIter();
    inTransfer_ = true;
  }
  if (inTransfer_) {
    for (; bookmark_; ++bookmark_) {
      if (!mayTransmit()) return false;
      // The bookmark stands on the member itself, so no lookup is needed
      // unless it left the log while the transfer waited for room.
      const WriterLogMember* m = bookmark_.member();
      if (writer_->logQueue().linked(m)) {
        entrySend(bookmark_.index(), m);
      } else {
        entrySend(bookmark_.index());
      }
    }
    transactionClose(kLogAttr);
    bookmark_ = Writer::LogIterator();
    inTransfer_ = false;
  }
  resumeAttrIs(0);
  return dirty_ == 0;
}

void WriterNboAttrLogAdapter::handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr,
                                                        In& in) {
  if (attr != kLogAttr && attr != kOverflowCountAttr && attr != kLogMetadataAttr) {
    attrUnknown(attr, in);
  }
  if (kind == RecordKind::memberDel && attr != kLogAttr) in.fail("member deletion on a value");
  if (attr == kOverflowCountAttr) {
    unsigned int count = in.u32();
    in.endExpect();
    writer_->overflowCountIs(count);
  } else if (attr == kLogMetadataAttr) {
    Writer::LogMetadata meta(&in);
    in.endExpect();
    // Entries outside the source's index range are gone there; dropping
    // them first keeps the copy's queue consistent with its new counters.
    std::vector<unsigned int> gone;
    for (const WriterLogMember& m : writer_->logQueue()) {
      if (!indexInRange(m.index(), meta.firstIndex(), meta.nextIndex())) gone.push_back(m.index());
    }
    for (unsigned int index : gone) writer_->logDel(index);
    writer_->logMetadataIs(meta);
  } else {
    unsigned int index = in.u32();
    if (kind == RecordKind::memberDel) {
      in.endExpect();
      // Not an error when absent: an entry added and removed during one
      // transfer reaches the copy only as its removal.
      received_.erase(index);
      writer_->logDel(index);
      return;
    }
    LogEntry entry(&in);
    in.endExpect();
    writer_->logIs(index, entry);
    if (receiving_) received_.insert(index);
  }
}

void WriterNboAttrLogAdapter::handleTransaction(Qel::AttributeId attr, bool open) {
  if (attr != kLogAttr) return;
  if (open) {
    receiving_ = true;
    received_.clear();
    return;
  }
  std::vector<unsigned int> gone;
  for (const WriterLogMember& m : writer_->logQueue()) {
    if (!received_.count(m.index())) gone.push_back(m.index());
  }
  for (unsigned int index : gone) writer_->logDel(index);
  receiving_ = false;
  received_.clear();
}

Qel::StreamAdapter::Ptr WriterNboAttrLogAdapter::factory(Qel::Connection* connection,
                                                         const Qel::Name& name, In& in) {
  Config config(&in);
  in.endExpect();
  Writer::Ptr w = Writer::WriterIs(name, config);
  w->readOnlyIs(connection->peerName());
  return new WriterNboAttrLogAdapter(connection, w.ptr());
}

// ---- WriterDir

WriterDirNboAttrLogAdapter::WriterDirNboAttrLogAdapter(Qel::Connection* connection, WriterDir* dir)
    : StreamAdapter(connection, dir), dir_(dir) {
  if (sending()) notifierIs(dir);
}

WriterDirNboAttrLogAdapter::~WriterDirNboAttrLogAdapter() = default;

void WriterDirNboAttrLogAdapter::onWriter(const Qel::Name& name) {
  if (flowInAttr() == kWriterAttr || dir_->flowIn()) return;
  if (mayTransmit() && qelWriterHasSynced_ && !inTransfer_) {
    memberSend(name);
  } else {
    writerDirty_[name.stdString()] = true;
    flowOutNeededIs();
  }
}

bool WriterDirNboAttrLogAdapter::handleAttrFlowOut() {
  if (!qelWriterHasSynced_) {
    if (!inTransfer_) {
      transactionOpen(kWriterAttr);
      bookmark_ = dir_->writerIter();
      inTransfer_ = true;
    }
    for (; bookmark_; ++bookmark_) {
      if (!mayTransmit()) return false;
      memberSend(bookmark_->name());
    }
    transactionClose(kWriterAttr);
    bookmark_ = WriterDir::WriterIterator();
    inTransfer_ = false;
    qelWriterHasSynced_ = true;
  }
  while (!writerDirty_.empty()) {
    if (!mayTransmit()) return false;
    auto it = writerDirty_.begin();
    Qel::Name name(it->first);
    writerDirty_.erase(it);
    memberSend(name);
  }
  return true;
}

WriterDirNboAttrLogAdapter::EntityId WriterDirNboAttrLogAdapter::writerNboAttrLogAdapterIs(
    Writer* writer) {
  EntityId id = childAdapterIs(new WriterNboAttrLogAdapter(connection(), writer));
  children_[writer->name().stdString()] = id;
  return id;
}

void WriterDirNboAttrLogAdapter::writerNboAttrLogAdapterDel(const Qel::Name& name) {
  auto it = children_.find(name.stdString());
  if (it == children_.end()) return;
  EntityId id = it->second;
  children_.erase(it);
  childAdapterDel(id);
}

void WriterDirNboAttrLogAdapter::memberSend(const Qel::Name& name) {
  auto it = children_.find(name.stdString());
  Writer::Ptr w = dir_->writer(name);
  if (!w) {
    if (it == children_.end()) return;  // came and went while dirty
    Out& out = recordBegin(RecordKind::memberDel, kWriterAttr);
    out.string(name);
    recordEnd();
    writerNboAttrLogAdapterDel(name);
    return;
  }
  if (it != children_.end()) {
    Qel::StreamAdapter* child = connection()->adapter(it->second);
    if (child && child->entity() == w.ptr()) return;  // already streamed
    writerNboAttrLogAdapterDel(name);
  }
  EntityId id = writerNboAttrLogAdapterIs(w.ptr());
  Out& out = recordBegin(RecordKind::attrUpdate, kWriterAttr);
  out.string(name);
  out.u32(id);
  recordEnd();
}

void WriterDirNboAttrLogAdapter::handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr,
                                                           In& in) {
  if (attr != kWriterAttr) attrUnknown(attr, in);
  Qel::Name name;
  auto* w = static_cast<Writer*>(namedMemberRecord(
      kind, in, "writer",
      [](const Qel::Entity* e) { return dynamic_cast<const Writer*>(e) != nullptr; },
      [this](const Qel::Name& n) { return dir_->writer(n) != nullptr; }, &name));
  if (!w) {
    dir_->writerDel(name);
    return;
  }
  // A member of the same name is replaced: the source deleted and
  // recreated it while this copy was not listening.
  if (Writer::Ptr old = dir_->writers_.memberDel(name)) old->parentIs(nullptr);
  w->parentAttrIs("writer");
  dir_->writers_.newMember(w);
  w->parentIs(dir_);
  dir_->notifiees_.visitAs<WriterDir::Notifiee>(
      dir_, [&name](WriterDir::Notifiee* n) { n->onWriter(name); });
}

Qel::StreamAdapter::Ptr WriterDirNboAttrLogAdapter::factory(Qel::Connection* connection,
                                                            const Qel::Name& name, In& in) {
  in.endExpect();
  WriterDir::Ptr d = WriterDir::WriterDirIs(name);
  d->readOnlyIs(connection->peerName());
  return new WriterDirNboAttrLogAdapter(connection, d.ptr());
}

void writerStreamTypesRegister() {
  Qel::streamTypeIs("KronlogWriter::Writer", &WriterNboAttrLogAdapter::factory);
  Qel::streamTypeIs("KronlogWriter::WriterDir", &WriterDirNboAttrLogAdapter::factory);
}

namespace {
const bool streamTypesRegistered = [] {
  writerStreamTypesRegister();
  return true;
}();
}  // namespace

// ---- Serving and mounting

Qel::String writerDirSocketPath(const Qel::Name& agent) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::string base = runtime && *runtime ? std::string(runtime) : std::string("/run");
  return Qel::String(base + "/kronlog/" + agent.stdString() + ".sock");
}

namespace {
// Creates the socket's directory (the last component only) with mode 0700.
void socketDirectoryIs(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  std::string dir = path.substr(0, slash);
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    Qel::throwRangeException(
        Qel::String("cannot create socket directory " + dir + ": " + std::strerror(errno)));
  }
}
}  // namespace

Qel::StreamServer::Ptr writerDirServe(Qel::EventLoop* loop, const WriterDir::Ptr& dir,
                                      const Qel::String& path) {
  Qel::String where = path.empty() ? writerDirSocketPath(dir->name()) : path;
  socketDirectoryIs(where.stdString());
  return new Qel::StreamServer(loop, where,
                               [held = dir](Qel::Connection* c) -> Qel::StreamAdapter::Ptr {
                                 return new WriterDirNboAttrLogAdapter(c, held.ptr());
                               });
}

WriterDirMount::WriterDirMount(Qel::EventLoop* loop, const Qel::Ptr<Qel::Dir>& into,
                               const Qel::String& path)
    : into_(into), mount_(new Qel::Mount(loop, path)) {
  notifierIs(mount_);
}

WriterDirMount::~WriterDirMount() {
  notifierIs(nullptr);
}

WriterDir::Ptr WriterDirMount::copy() const {
  return dynamic_cast<WriterDir*>(mount_->root().ptr());
}

void WriterDirMount::onSynced() {
  WriterDir::Ptr root = copy();
  if (!root) return;
  Qel::Entity* held = into_->entity(root->name());
  if (held == root.ptr()) return;
  if (held) into_->entityDel(root->name());
  into_->entityIs(root);
}

WriterDirMount::Ptr writerDirMount(Qel::EventLoop* loop, const Qel::Ptr<Qel::Dir>& into,
                                   const Qel::Name& agent, const Qel::String& path) {
  return new WriterDirMount(loop, into, path.empty() ? writerDirSocketPath(agent) : path);
}

// ---- Following

void WriterFollower::writerIs(const Writer::Ptr& copy) {
  notifierIs(copy);
  if (!copy) return;
  if (!started_) {
    started_ = true;
    overflowSeen_ = fromBeginning_ ? 0 : copy->overflowCount();
    next_ = copy->logQueue().head() ? copy->logQueue().head()->index()
                                    : copy->logMetadata().nextIndex();
    // From the beginning: what the writer held before its first entry here
    // is gone (indices from 0), and what it refused is counted below.
    if (fromBeginning_ && next_ != 0) onLoss(Loss{LossReason::slow, next_, 0, next_ - 1});
  }
  onOverflowCount();
  for (const WriterLogMember& m : copy->logQueue()) onLog(m.index());
}

void WriterFollower::onLog(unsigned int index) {
  const Writer::Ptr& w = notifier();
  const WriterLogMember* m = w->logQueue().find(index);
  if (!m || m->index() != index) return;  // a removal: nothing to hand over
  // Signed distance modulo 2^32: behind next_ means delivered already.
  const unsigned int ahead = index - next_;
  if (static_cast<int>(ahead) < 0) return;
  if (ahead != 0) onLoss(Loss{LossReason::slow, ahead, next_, index - 1});
  next_ = index + 1;
  LogEntry entry = m->entry();
  onEntry(index, entry);
}

bool WriterFollower::refusing() const {
  const Config& c = notifier()->config();
  return c.size() == 0 || c.overflowAction() == keepFirstEntries;
}

void WriterFollower::onOverflowCount() {
  const unsigned int now = notifier()->overflowCount();
  const unsigned int delta = now - overflowSeen_;  // modulo 2^32, as the count wraps
  overflowSeen_ = now;
  if (delta != 0 && refusing()) onLoss(Loss{LossReason::overflow, delta, 0, 0});
}

}  // namespace KronlogWriter
