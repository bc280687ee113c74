// Recording events: writer value types, the writer and its bounded log, and
// the writer directory an agent keeps its writers in.
//
//   KronlogWriter::WriterDir::Ptr dir = KronlogWriter::writerDirFactory("Bgp");
//   KronlogWriter::Writer::Ptr peer =
//       dir->writerIs("peer", KronlogWriter::Config(100, KronlogWriter::keepLastEntries));
//   peer->eventIs("link down");
//
// Everything here runs on the owning agent's thread; nothing is locked.
#ifndef KRONLOG_KRONLOGWRITER_H
#define KRONLOG_KRONLOGWRITER_H

#include <iosfwd>
#include <string>
#include <string_view>

#include "kronlog/Export.h"
#include "qel/Allocator.h"
#include "qel/Entity.h"
#include "qel/HashMap.h"
#include "qel/LinkQueue.h"
#include "qel/LogAttribute.h"
#include "qel/Notifiee.h"
#include "qel/String.h"

namespace Qel {
namespace NboAttrLog {
class In;
class Out;
}  // namespace NboAttrLog
}  // namespace Qel

namespace KronlogWriter {

// What a full log does with the next event.
enum OverflowActionType : unsigned int {
  keepFirstEntries = 0,  // drop the new event
  keepLastEntries = 1,   // evict the oldest entry to make room
};

// The value name ("keepFirstEntries"), or the number for an unknown value.
KRONLOG_EXPORT Qel::String valueToStrep(const OverflowActionType& value);
KRONLOG_EXPORT Qel::String stringValue(OverflowActionType value);
KRONLOG_EXPORT std::ostream& operator<<(std::ostream& os, const OverflowActionType& value);
// Map a number or a value name to the enum; throw Qel::RangeException for
// one the enum does not have.
KRONLOG_EXPORT OverflowActionType OverflowActionTypeInstance(unsigned int number);
KRONLOG_EXPORT OverflowActionType OverflowActionTypeInstance(const Qel::String8& name);
// Reads a value name from text and advances `it` past it; Qel::RangeException
// for anything else.
KRONLOG_EXPORT void sequenceToValue(Qel::String8::IteratorConst& it,
                                    const Qel::String8::IteratorConst& end,
                                    OverflowActionType* value);

// One recorded event: when, and what.
class KRONLOG_EXPORT LogEntry {
 public:
  LogEntry() noexcept : timestamp_(0.0) {}
  LogEntry(Qel::Seconds timestamp, Qel::String message) noexcept
      : timestamp_(timestamp), message_(std::move(message)) {}
  // Parses the text form; Qel::DeserializeException on any difference.
  LogEntry(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end);
  // Reads the streamed fields (see the streaming block at the end).
  explicit LogEntry(Qel::NboAttrLog::In* in);

  Qel::Seconds timestamp() const noexcept { return timestamp_; }
  const Qel::String& message() const noexcept { return message_; }
  void timestampIs(Qel::Seconds timestamp) noexcept { timestamp_ = timestamp; }
  void messageIs(const Qel::String& message) noexcept { message_ = message; }

  // Timestamps compare as doubles (a NaN equals nothing), messages by bytes.
  bool operator==(const LogEntry& o) const noexcept {
    return timestamp_ == o.timestamp_ && message_ == o.message_;
  }
  bool operator!=(const LogEntry& o) const noexcept { return !(*this == o); }

 private:
  Qel::Seconds timestamp_;
  Qel::String message_;
};

// "Value('KronlogWriter::LogEntry', ** {'timestamp': 1.5, 'message': 'x'})"
KRONLOG_EXPORT Qel::String valueToStrep(const LogEntry& value);
KRONLOG_EXPORT std::ostream& operator<<(std::ostream& os, const LogEntry& value);

// A writer's capacity and overflow policy; fixed for the writer's life.
class KRONLOG_EXPORT Config {
 public:
  // The defaults keep the last 10 events.
  Config() noexcept : size_(10), overflowAction_(keepLastEntries) {}
  Config(unsigned int size, OverflowActionType overflowAction) noexcept
      : size_(size), overflowAction_(overflowAction) {}
  // Parses the text form; Qel::DeserializeException on any difference.
  Config(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end);
  // Reads the streamed fields (see the streaming block at the end).
  explicit Config(Qel::NboAttrLog::In* in);

  unsigned int size() const noexcept { return size_; }
  OverflowActionType overflowAction() const noexcept { return overflowAction_; }
  void sizeIs(unsigned int size) noexcept { size_ = size; }
  void overflowActionIs(OverflowActionType action) noexcept { overflowAction_ = action; }

  bool operator==(const Config& o) const noexcept {
    return size_ == o.size_ && overflowAction_ == o.overflowAction_;
  }
  bool operator!=(const Config& o) const noexcept { return !(*this == o); }

 private:
  unsigned int size_;
  OverflowActionType overflowAction_;
};

// "Value('KronlogWriter::Config', ** {'size': 10, 'overflowAction': keepLastEntries})"
KRONLOG_EXPORT Qel::String valueToStrep(const Config& value);
KRONLOG_EXPORT std::ostream& operator<<(std::ostream& os, const Config& value);

class WriterDir;
class Writer;

// One node of a writer's log (Writer::QelLog): its index, the entry
// (timestamp and message) held inline, the link to the next node.
class KRONLOG_EXPORT WriterLogMember : public Qel::LinkQueueMember<WriterLogMember, LogEntry> {
  QEL_TRACKED_ALLOCATION()

 public:
  WriterLogMember(unsigned int index, LogEntry entry) noexcept
      : LinkQueueMember(index, std::move(entry)) {}
  const LogEntry& entry() const noexcept { return value(); }
};

// A named, bounded log of events. Created through a WriterDir (writerIs) or
// writerFactory; shared through Writer::Ptr. The log's accessors (logEnq,
// logDeq, newLog, logDel, logDelAll, log(index), iteration) are those every
// log attribute has; each change of an entry notifies onLog(index).
class KRONLOG_EXPORT Writer : public Qel::Entity,
                              public Qel::LogAttribute<Writer, WriterLogMember, LogEntry> {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Writer>;
  using PtrConst = Qel::Ptr<const Writer>;

  // The log's index state: the oldest entry's index (equal to nextIndex when
  // the log is empty) and the index the next appended entry receives.
  class KRONLOG_EXPORT LogMetadata {
   public:
    LogMetadata() noexcept : firstIndex_(0), nextIndex_(0) {}
    LogMetadata(unsigned int firstIndex, unsigned int nextIndex) noexcept
        : firstIndex_(firstIndex), nextIndex_(nextIndex) {}
    // Reads the streamed fields (see the streaming block at the end).
    explicit LogMetadata(Qel::NboAttrLog::In* in);
    unsigned int firstIndex() const noexcept { return firstIndex_; }
    unsigned int nextIndex() const noexcept { return nextIndex_; }
    bool operator==(const LogMetadata& o) const noexcept {
      return firstIndex_ == o.firstIndex_ && nextIndex_ == o.nextIndex_;
    }
    bool operator!=(const LogMetadata& o) const noexcept { return !(*this == o); }

   private:
    unsigned int firstIndex_;
    unsigned int nextIndex_;
  };

  // Hears a writer's changes; register with notifierIs(writer). A notifiee
  // that overrides one onLog overload brings the other into scope
  // (`using Writer::Notifiee::onLog;`), so that neither hides the other.
  class Notifiee : public Qel::Notifiee<Writer> {
   public:
    // The entry at `index` was added, replaced or removed. By default
    // forwards to the plain onLog().
    virtual void onLog(unsigned int index) {
      (void)index;
      onLog();
    }
    virtual void onLog() {}
    virtual void onOverflowCount() {}
    virtual void onLogMetadata() {}
  };

  // A new writer: empty log, overflowCount 0, logMetadata {0, 0}.
  static Ptr WriterIs(const Qel::Name& name, const Config& config);

  const Config& config() const noexcept { return config_; }

  // Events lost to the overflow policy, modulo 2^32.
  unsigned int overflowCount() const noexcept { return overflowCount_; }
  // Notifies only when the value changes.
  void overflowCountIs(unsigned int value);
  // Adds `delta` modulo 2^32, notifies if the value changed, returns it.
  unsigned int overflowCountInc(unsigned int delta);

  LogMetadata logMetadata() const noexcept {
    return LogMetadata(log_.headIndex(), log_.nextIndex());
  }
  // Overwrites both index counters; always notifies, even when unchanged.
  void logMetadataIs(const LogMetadata& value);

  // Records one event stamped with Qel::utcNow(), after applying the
  // overflow policy (which may drop it or evict the oldest entry). The text
  // is copied once, and only when the policy admits the event, into the
  // block that holds the new entry: one allocation per event, none at all
  // when the evicted entry's block can take the text and nothing else
  // holds it. The stored message is a Qel::String like any other; copies
  // taken from it stay valid after the entry is evicted.
  void eventIs(const Qel::String& message) { eventIs(message.view()); }
  void eventIs(std::string_view message);
  void eventIs(const char* message) { eventIs(std::string_view(message)); }
  void eventIs(const std::string& message) { eventIs(std::string_view(message)); }

  // Writes the entry at `index`, inserting it if absent, and notifies.
  // An equal value is skipped, unnotified, only for an index below the
  // entry count. Throws like logEnq when an insertion finds no index left.
  void logIs(unsigned int index, const LogEntry& entry);

  Qel::NotifieeListBase& notifieeListRef() noexcept { return notifiees_; }
  Qel::NotifieeListBase* notifieeList() const override;
  const Qel::TypeNode* fwkType() const override;

  // Map linkage: a writer is keyed by its name in its directory.
  Writer* qelHashValue() noexcept { return this; }

 protected:
  Writer(const Qel::Name& name, const Config& config);
  ~Writer() override;

 private:
  friend class Qel::LogAttribute<Writer, WriterLogMember, LogEntry>;
  // The log's own mutators refuse a read-only copy too.
  void logWriteCheck() const { writeCheck(); }
  void logNotify(unsigned int index);
  void notifyOverflowCount();

  Config config_;
  unsigned int overflowCount_ = 0;
  Qel::NotifieeListBase notifiees_;
};

KRONLOG_EXPORT Qel::String valueToStrep(const Writer::LogMetadata& value);
KRONLOG_EXPORT std::ostream& operator<<(std::ostream& os, const Writer::LogMetadata& value);

// Never null: a failed allocation throws std::bad_alloc.
KRONLOG_EXPORT Writer::Ptr writerFactory(const Qel::Name& name, const Config& config);

// An agent's writers, keyed by writer name. The directory owns its writers
// and is their parent (under the attribute "writer").
class KRONLOG_EXPORT WriterDir : public Qel::Entity {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<WriterDir>;
  using PtrConst = Qel::Ptr<const WriterDir>;
  using WriterMap = Qel::HashMap<Writer, Qel::Name, Writer>;
  using WriterIterator = WriterMap::Iterator;
  using WriterIteratorConst = WriterMap::IteratorConst;

  class Notifiee : public Qel::Notifiee<WriterDir> {
   public:
    // A writer was added or removed under `name`; forwards to onWriter().
    virtual void onWriter(const Qel::Name& name) {
      (void)name;
      onWriter();
    }
    virtual void onWriter() {}
  };

  static Ptr WriterDirIs(const Qel::Name& name);

  // The writer named `name`, or null.
  Writer::Ptr writer(const Qel::Name& name) const { return writers_[name]; }
  unsigned int writers() const noexcept { return static_cast<unsigned int>(writers_.size()); }
  // Iteration follows the map's bucket order, not insertion order, and
  // survives the removal of the writer it stands on. Range-for over the
  // map visits const writers: `for (const Writer& w : dir->writerMap())`.
  WriterIterator writerIter() { return writers_.begin(); }
  WriterIteratorConst writerIterConst() const { return writers_.begin(); }
  const WriterMap& writerMap() const noexcept { return writers_; }

  // Get-or-create. An existing writer with an equal configuration is
  // returned unchanged; one with a different configuration raises
  // Qel::NameInUseException and nothing changes. A new writer notifies
  // onWriter(name).
  Writer::Ptr writerIs(const Qel::Name& name, const Config& config);
  // The raw creation step, without notification. Qel::NameInUseException
  // when the name is taken.
  Writer::Ptr newWriter(const Qel::Name& name, const Config& config);
  // Removes and returns the writer (null, and no notification, when absent).
  Writer::Ptr writerDel(const Qel::Name& name);
  Writer::Ptr writerDel(WriterIterator& it);
  void writerDelAll();

  Qel::NotifieeListBase& notifieeListRef() noexcept { return notifiees_; }
  Qel::NotifieeListBase* notifieeList() const override;
  const Qel::TypeNode* fwkType() const override;

 protected:
  explicit WriterDir(const Qel::Name& name);
  ~WriterDir() override;

 private:
  // The stream adapter adds a received writer to a copy's map.
  friend class WriterDirNboAttrLogAdapter;
  WriterMap writers_;
  Qel::NotifieeListBase notifiees_;
};

// Never null: a failed allocation throws std::bad_alloc.
KRONLOG_EXPORT WriterDir::Ptr writerDirFactory(const Qel::Name& name);

// ---- Attribute-log streaming of the value types (writer/WriterStreaming.cpp)
//
// Each value is written as its fields in declared order, in the framework's
// field encoding: LogEntry as the timestamp (double) then the message
// (string); Config as the size (u32) then the overflow action (its number,
// u32); LogMetadata as firstIndex then nextIndex (u32 each). The matching
// constructors (X(Qel::NboAttrLog::In*), declared in the classes) read them
// back in the same order and throw Qel::NboAttrLog::FormatException for
// truncated input or, for Config, an overflow action the enum does not have.
KRONLOG_EXPORT const Qel::Ptr<Qel::NboAttrLog::Out>& operator<<(
    const Qel::Ptr<Qel::NboAttrLog::Out>& out, const LogEntry& value);
KRONLOG_EXPORT const Qel::Ptr<Qel::NboAttrLog::Out>& operator<<(
    const Qel::Ptr<Qel::NboAttrLog::Out>& out, const Config& value);
KRONLOG_EXPORT const Qel::Ptr<Qel::NboAttrLog::Out>& operator<<(
    const Qel::Ptr<Qel::NboAttrLog::Out>& out, const Writer::LogMetadata& value);
// ---- end of the streaming block

}  // namespace KronlogWriter

#endif  // KRONLOG_KRONLOGWRITER_H
