// Writer state across processes: the stream adapters of Writer and
// WriterDir, serving an agent's writer directory on a socket, mounting it
// read-only elsewhere, and following one writer copy with exact loss.
//
//   // In the agent:
//   Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop, dir);
//   // In any process:
//   Qel::Dir::Ptr agents = Qel::Dir::DirIs("agents");
//   KronlogWriter::WriterDirMount::Ptr m = KronlogWriter::writerDirMount(loop, agents, "Bgp");
//   // ... run the loop; agents->entity("Bgp") is a read-only WriterDir copy.
//
// Records, by attribute identifier:
//   WriterDir 258 writer      attrUpdate: name, member entity id; memberDel: name
//   Writer    261 overflowCount  u32
//             262 logMetadata    u32 firstIndex, u32 nextIndex
//             263 log            attrUpdate: u32 index, LogEntry; memberDel: u32 index
// A whole-log transfer is bracketed by transaction records on 263.
#ifndef KRONLOG_KRONLOGWRITERSTREAMING_H
#define KRONLOG_KRONLOGWRITERSTREAMING_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "kronlog/Export.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/Mount.h"
#include "qel/stream/StreamAdapter.h"
#include "qel/stream/StreamServer.h"

namespace KronlogWriter {

constexpr Qel::AttributeId kWriterAttr = 258;
constexpr Qel::AttributeId kOverflowCountAttr = 261;
constexpr Qel::AttributeId kLogMetadataAttr = 262;
constexpr Qel::AttributeId kLogAttr = 263;

// Streams one writer on one connection. Serving: hears the writer's
// notifications and sends them, or marks them dirty when the connection has
// no room. Mounting: applies received records to the read-only copy through
// the writer's own setters, so the copy's notifiees hear every change.
class KRONLOG_EXPORT WriterNboAttrLogAdapter : public Qel::StreamAdapter, public Writer::Notifiee {
 public:
  using Ptr = Qel::Ptr<WriterNboAttrLogAdapter>;
  using Writer::Notifiee::onLog;
  static constexpr unsigned qelIsOverflowCountDirty = 2;
  static constexpr unsigned qelIsLogMetadataDirty = 4;
  static constexpr unsigned qelIsLogDirty = 8;

  // Holds `writer` while it lives; its first flow-out sends everything.
  WriterNboAttrLogAdapter(Qel::Connection* connection, Writer* writer);
  ~WriterNboAttrLogAdapter() override;

  const char* typeName() const override { return "KronlogWriter::Writer"; }
  void doSerializeOrphan(Out& out) override;
  bool handleAttrFlowOut() override;
  void handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr, In& in) override;
  void handleTransaction(Qel::AttributeId attr, bool open) override;

  void onOverflowCount() override;
  void onLogMetadata() override;
  void onLog(unsigned int index) override;

  unsigned dirty() const noexcept { return dirty_; }
  Writer* writer() const noexcept { return writer_; }

  // Builds a copy from a creation record (the registered factory).
  static Qel::StreamAdapter::Ptr factory(Qel::Connection* connection, const Qel::Name& name,
                                         In& in);

 private:
  void changed(Qel::AttributeId attr, unsigned bit);
  void countSend();
  void metadataSend();
  void entrySend(unsigned int index);
  // `m` is the entry at `index`, or null for a deletion record.
  void entrySend(unsigned int index, const WriterLogMember* m);

  Writer* writer_;
  unsigned dirty_ = 0;
  // Serving: a whole-log transfer under way continues at the bookmark.
  // Invariant: the bookmark stands on an entry only while inTransfer_.
  bool inTransfer_ = false;
  Writer::LogIterator bookmark_;
  // Mounting: indices received during an open whole-log transfer; at its
  // close, entries of the copy that the transfer did not name are gone at
  // the source.
  bool receiving_ = false;
  std::unordered_set<unsigned int> received_;
};

// Streams a writer directory: its membership, and a child adapter per
// member writer.
class KRONLOG_EXPORT WriterDirNboAttrLogAdapter : public Qel::StreamAdapter,
                                                  public WriterDir::Notifiee {
 public:
  using Ptr = Qel::Ptr<WriterDirNboAttrLogAdapter>;
  using WriterDir::Notifiee::onWriter;

  WriterDirNboAttrLogAdapter(Qel::Connection* connection, WriterDir* dir);
  ~WriterDirNboAttrLogAdapter() override;

  const char* typeName() const override { return "KronlogWriter::WriterDir"; }
  void doSerializeOrphan(Out&) override {}
  bool handleAttrFlowOut() override;
  void handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr, In& in) override;

  void onWriter(const Qel::Name& name) override;

  // Starts streaming `writer` on this connection; returns its entity id.
  EntityId writerNboAttrLogAdapterIs(Writer* writer);
  // Stops streaming the member named `name` (entity deletion record).
  void writerNboAttrLogAdapterDel(const Qel::Name& name);

  // True once the whole collection has gone out at least once.
  bool qelWriterHasSynced() const noexcept { return qelWriterHasSynced_; }
  std::size_t dirtyWriters() const noexcept { return writerDirty_.size(); }

  static Qel::StreamAdapter::Ptr factory(Qel::Connection* connection, const Qel::Name& name,
                                         In& in);

 private:
  void memberSend(const Qel::Name& name);

  WriterDir* dir_;
  bool qelWriterHasSynced_ = false;
  bool inTransfer_ = false;
  WriterDir::WriterIterator bookmark_;
  // The per-name writer-dirty map: names whose membership changed while the
  // connection had no room. Invariant: a name is held once, so the map is
  // bounded by the number of distinct names, not by how often they change.
  std::map<std::string, bool> writerDirty_;
  std::map<std::string, EntityId> children_;
};

// Registers both types with the streamable-type registry. Done at load
// time; idempotent, for callers that want to be explicit.
KRONLOG_EXPORT void writerStreamTypesRegister();

// Where agent `agent` serves its writer directory by default:
// "$XDG_RUNTIME_DIR/kronlog/<agent>.sock", else "/run/kronlog/<agent>.sock".
KRONLOG_EXPORT Qel::String writerDirSocketPath(const Qel::Name& agent);

// Serves `dir` on `path` (writerDirSocketPath(dir->name()) when empty)
// through `loop`; every process that mounts it gets a read-only copy. The
// socket's directory is created with mode 0700 when missing. Serving stops
// when the returned server is released. Throws Qel::RangeException when the
// directory cannot be created or the path cannot be served (see
// Qel::StreamServer).
KRONLOG_EXPORT Qel::StreamServer::Ptr writerDirServe(Qel::EventLoop* loop,
                                                     const WriterDir::Ptr& dir,
                                                     const Qel::String& path = Qel::String());

// A read-only mount of an agent's writer directory into a local Qel::Dir:
// at each snapshot's end the fresh copy replaces the old one in `into`
// (under the streamed directory's name). The copy stays in `into` when the
// agent goes away.
class KRONLOG_EXPORT WriterDirMount : public Qel::PtrInterface, public Qel::Mount::Notifiee {
 public:
  using Ptr = Qel::Ptr<WriterDirMount>;
  WriterDirMount(Qel::EventLoop* loop, const Qel::Ptr<Qel::Dir>& into, const Qel::String& path);
  ~WriterDirMount() override;
  const Qel::Mount::Ptr& mount() const noexcept { return mount_; }
  // The current copy, or null before the first snapshot.
  WriterDir::Ptr copy() const;
  void onSynced() override;

 private:
  Qel::Ptr<Qel::Dir> into_;
  Qel::Mount::Ptr mount_;
};

// Mounts agent `agent`'s directory from `path` (writerDirSocketPath(agent)
// when empty) into `into`.
KRONLOG_EXPORT WriterDirMount::Ptr writerDirMount(Qel::EventLoop* loop,
                                                  const Qel::Ptr<Qel::Dir>& into,
                                                  const Qel::Name& agent,
                                                  const Qel::String& path = Qel::String());

// Follows one writer copy: hands each entry over once, in index order, and
// counts every event it did not receive. Indices are compared modulo 2^32,
// so following continues across the wrap of the index.
//
// Losses are of two kinds. `slow`: indices that were recorded but gone
// before this copy received them (evicted while the connection was slow),
// reported as [fromIndex, toIndex] when the next received entry shows the
// gap. `overflow`: events the writer refused (a keepFirstEntries writer
// that is full, or one of size 0), which never got an index; counted from
// the copy's overflowCount. A keepLastEntries writer's overflows are
// evictions of indexed entries, so they show as `slow` gaps or not at all.
class KRONLOG_EXPORT WriterFollower : public Writer::Notifiee {
 public:
  enum class LossReason { slow, overflow };
  struct Loss {
    LossReason reason;
    unsigned int count;
    unsigned int fromIndex;  // slow only: first index not received
    unsigned int toIndex;    // slow only: last index not received
  };

  // Where following starts. `now`: with the entries the copy holds at the
  // first writerIs(); what the writer lost before is not counted.
  // `beginning`: with the writer's first event, as if followed since it was
  // created: indices below the copy's first entry are a `slow` loss and
  // refusals so far an `overflow` loss, so that entries plus losses count
  // every event the writer was given.
  enum class Start { now, beginning };

  explicit WriterFollower(Start start = Start::now) : fromBeginning_(start == Start::beginning) {}
  // Follows `copy` (null stops). The first call starts: entries the copy
  // holds now are handed over at once. A later call continues where the follower stands, as after a
  // mount's resync swapped in a fresh copy of the same writer: entries
  // below nextIndex() are not handed over again, a gap up to the copy's
  // entries is a `slow` loss, and refusals since are counted.
  void writerIs(const Writer::Ptr& copy);
  // The index of the next entry this follower expects.
  unsigned int nextIndex() const noexcept { return next_; }

  virtual void onEntry(unsigned int index, const LogEntry& entry) = 0;
  virtual void onLoss(const Loss& loss) = 0;

  using Writer::Notifiee::onLog;
  void onLog(unsigned int index) override;
  void onOverflowCount() override;

 private:
  bool refusing() const;
  bool fromBeginning_;
  bool started_ = false;
  unsigned int next_ = 0;
  unsigned int overflowSeen_ = 0;
};

// Follows every writer of a mounted writer directory, through reconnects:
// each writer's entries are handed over once, in index order, with its
// losses (see WriterFollower). Writers added to the directory are followed
// from their first entry; removed ones are let go. When the mount resyncs
// to the same agent process (the same incarnation), every writer continues
// where it stood, so nothing is handed over twice and a gap while the
// connection was down is a `slow` loss. When the agent was restarted (a new
// incarnation), its indices started over: following starts over on the new
// copy, and onRestart() says that what the old process recorded after the
// connection dropped is unknown.
class KRONLOG_EXPORT WriterDirFollower : public Qel::Mount::Notifiee, public WriterDir::Notifiee {
 public:
  // Follows `mount`'s copy from its next sync on (at once if it has one).
  // The mount must outlive this follower or be released first.
  // Each writer is followed from `start` (see WriterFollower), also after
  // the agent was restarted.
  explicit WriterDirFollower(const WriterDirMount::Ptr& mount,
                             WriterFollower::Start start = WriterFollower::Start::now);
  ~WriterDirFollower() override;
  WriterDirFollower(const WriterDirFollower&) = delete;
  WriterDirFollower& operator=(const WriterDirFollower&) = delete;

  // The directory's name (the agent), once synced; empty before.
  const Qel::Name& agent() const noexcept { return agent_; }
  std::size_t writersFollowed() const noexcept { return followers_.size(); }

  virtual void onEntry(const Qel::Name& writer, unsigned int index, const LogEntry& entry) = 0;
  virtual void onLoss(const Qel::Name& writer, const WriterFollower::Loss& loss) = 0;
  // The agent process was restarted since the last sync.
  virtual void onRestart() {}

  void onSynced() override;
  using WriterDir::Notifiee::onWriter;
  void onWriter(const Qel::Name& name) override;

 private:
  class One;
  void follow(const Qel::Name& name, const Writer::Ptr& writer);

  WriterDirMount::Ptr mount_;
  WriterFollower::Start start_;
  Qel::Name agent_;
  std::uint64_t incarnation_ = 0;
  std::map<std::string, std::unique_ptr<One>> followers_;
};

}  // namespace KronlogWriter

#endif  // KRONLOG_KRONLOGWRITERSTREAMING_H
