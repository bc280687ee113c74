#include "kronlog/KronlogWriter.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <ostream>
#include <string>

#include "qel/Exception.h"
#include "qel/Strep.h"
#include "qel/Type.h"
#include "support/Assert.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogWriter {

namespace {

constexpr char kFile[] = "KronlogWriter";

const Qel::TypeNode* overflowActionType() {
  static const Qel::TypeNode* type = Qel::typeNode("KronlogWriter::OverflowActionType");
  return type;
}

}  // namespace

// ---- OverflowActionType

Qel::String stringValue(OverflowActionType value) {
  return Qel::enumToStrep(*overflowActionType(), value);
}

Qel::String valueToStrep(const OverflowActionType& value) {
  return stringValue(value);
}

std::ostream& operator<<(std::ostream& os, const OverflowActionType& value) {
  return os << stringValue(value);
}

OverflowActionType OverflowActionTypeInstance(unsigned int number) {
  Qel::String name;
  if (!overflowActionType()->enumName(number, &name)) {
    Qel::throwRangeException(
        Qel::String("KronlogWriter::OverflowActionType has no value " + std::to_string(number)));
  }
  return static_cast<OverflowActionType>(number);
}

OverflowActionType OverflowActionTypeInstance(const Qel::String8& name) {
  unsigned int number = 0;
  if (!overflowActionType()->enumNumber(name, &number)) {
    Qel::throwRangeException(
        Qel::String("KronlogWriter::OverflowActionType has no value " + name.stdString()));
  }
  return static_cast<OverflowActionType>(number);
}

void sequenceToValue(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end,
                     OverflowActionType* value) {
  Qel::String8::IteratorConst p = it;
  Qel::String name = Qel::strepToIdentifier(p, end);
  *value = OverflowActionTypeInstance(name);
  it = p;
}

// ---- LogEntry

LogEntry::LogEntry(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end)
    : timestamp_(0.0) {
  Qel::needString(it, end, "Value('KronlogWriter::LogEntry', ** {");
  Qel::needString(it, end, "'timestamp': ");
  Qel::deserializeAttr(it, end, &timestamp_, "timestamp");
  Qel::needString(it, end, ", 'message': ");
  Qel::deserializeAttr(it, end, &message_, "message");
  Qel::needString(it, end, "})");
}

Qel::String valueToStrep(const LogEntry& value) {
  return Qel::valueTypeStrep("KronlogWriter::LogEntry",
                             {{"timestamp", Qel::valueToStrep(value.timestamp())},
                              {"message", Qel::valueToStrep(value.message())}});
}

std::ostream& operator<<(std::ostream& os, const LogEntry& value) {
  return os << valueToStrep(value);
}

// ---- Config

Config::Config(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end) : Config() {
  Qel::needString(it, end, "Value('KronlogWriter::Config', ** {");
  Qel::needString(it, end, "'size': ");
  Qel::deserializeAttr(it, end, &size_, "size");
  Qel::needString(it, end, ", 'overflowAction': ");
  try {
    sequenceToValue(it, end, &overflowAction_);
  } catch (const Qel::RangeException& e) {
    Qel::rethrowFromDeserializeAttr(e, "overflowAction");
  }
  Qel::needString(it, end, "})");
}

Qel::String valueToStrep(const Config& value) {
  return Qel::valueTypeStrep("KronlogWriter::Config",
                             {{"size", Qel::valueToStrep(value.size())},
                              {"overflowAction", valueToStrep(value.overflowAction())}});
}

std::ostream& operator<<(std::ostream& os, const Config& value) {
  return os << valueToStrep(value);
}

// ---- Writer::LogMetadata

Qel::String valueToStrep(const Writer::LogMetadata& value) {
  return Qel::valueTypeStrep("KronlogWriter::Writer::LogMetadata",
                             {{"firstIndex", Qel::valueToStrep(value.firstIndex())},
                              {"nextIndex", Qel::valueToStrep(value.nextIndex())}});
}

std::ostream& operator<<(std::ostream& os, const Writer::LogMetadata& value) {
  return os << valueToStrep(value);
}

// ---- Writer

QEL_TRACKED_ALLOCATION_DEFINE(Writer, "KronlogWriter::Writer")
QEL_TRACKED_ALLOCATION_DEFINE(WriterLogMember, "KronlogWriter::Writer::QelLog")

Writer::Writer(const Qel::Name& name, const Config& config) : Entity(name), config_(config) {}

Writer::~Writer() = default;

Writer::Ptr Writer::WriterIs(const Qel::Name& name, const Config& config) {
  return Ptr(new Writer(name, config));
}

Writer::Ptr writerFactory(const Qel::Name& name, const Config& config) {
  return Writer::WriterIs(name, config);
}

Qel::NotifieeListBase* Writer::notifieeList() const {
  return const_cast<Qel::NotifieeListBase*>(&notifiees_);
}

QEL_FWK_TYPE_DEFINE(Writer, "KronlogWriter::Writer")

void Writer::logNotify(unsigned int index) {
  notifiees_.visitAs<Notifiee>(this, [index](Notifiee* n) { n->onLog(index); });
}

void Writer::notifyOverflowCount() {
  notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onOverflowCount(); });
}

void Writer::overflowCountIs(unsigned int value) {
  writeCheck();
  if (value == overflowCount_) return;
  overflowCount_ = value;
  notifyOverflowCount();
}

unsigned int Writer::overflowCountInc(unsigned int delta) {
  unsigned int value = overflowCount_ + delta;  // wraps modulo 2^32 by design
  overflowCountIs(value);
  return overflowCount_;
}

void Writer::logMetadataIs(const LogMetadata& value) {
  writeCheck();
  log_.indicesIs(value.firstIndex(), value.nextIndex());
  // Unconditional on purpose: a copy receiving the index state must hear
  // about it even when it already matches.
  notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onLogMetadata(); });
}

void Writer::logIs(unsigned int index, const LogEntry& entry) {
  writeCheck();
  if (WriterLogMember* m = log_.find(index)) {
    // The equality shortcut applies only below the entry count; at or above
    // it the value is written and notified even when equal.
    if (index < log_.members() && m->entry() == entry) return;
    m->valueRef() = entry;
  } else {
    newLog(index, entry);
  }
  logNotify(index);
}

// ---- eventIs and its two steps

namespace {

// Trims a log that holds more entries than its size, which only happens when
// entries were added without the policy (restores, streamed copies).
void handleExcessiveLogEntries(Writer& writer) {
  KRONLOG_TRACE(0, kFile, 34, "handleExcessiveLogEntries",
                << "void KronlogWriter::handleExcessiveLogEntries(KronlogWriter::Writer::Ptr)");
  const unsigned int size = writer.config().size();
  unsigned int len = writer.logs();
  while (len > size) {
    if (writer.config().overflowAction() == keepFirstEntries) {
      // By index, not by position: the log is expected to be numbered from 0.
      writer.logDel(len - 1);
    } else {
      writer.logEvict();
    }
    writer.overflowCountInc(1);
    len = writer.logs();
    KRONLOG_TRACE(1, kFile, 49, "handleExcessiveLogEntries",
                  << "handleExcessiveLogEntries size: " << size << " len: " << len);
  }
}

// What the policy does with the event about to be recorded.
enum class Admission { drop, admit, evictOldest };

// Applies the policy to the event about to be recorded. For evictOldest
// the caller evicts the oldest entry and then counts the loss, in that
// order, so that notifiees hear onLog before onOverflowCount.
Admission isLogEntryAllowed(Writer& writer) {
  KRONLOG_TRACE(0, kFile, 55, "isLogEntryAllowed",
                << "bool KronlogWriter::isLogEntryAllowed(KronlogWriter::Writer::Ptr)");
  const unsigned int size = writer.config().size();
  if (size == 0) {
    writer.overflowCountInc(1);
    return Admission::drop;
  }
  if (writer.logs() != size) return Admission::admit;
  if (writer.config().overflowAction() == keepFirstEntries) {
    KRONLOG_TRACE(1, kFile, 71, "isLogEntryAllowed",
                  << "isLogEntryAllowed Queue full. WriterConfig has "
                     "overflowAction==keepFirstEntries. Dropping message.");
    writer.overflowCountInc(1);
    return Admission::drop;
  }
  return Admission::evictOldest;
}

// A log node whose entry's message lives in the node's own heap block
// (see Qel::String's owned blocks): what eventIs records, one allocation
// per event, and a block that a full log reuses in place for the next
// event when nothing but the log held it.
//
// Invariant: the node sits at the start of its block and is followed by
// the message's rep; it has no members of its own, so that the rep's place
// is the same for every node of this type.
class WriterEventMember final : public WriterLogMember {
 public:
  // A new node holding `message` (not empty) stamped `timestamp`. Throws
  // std::bad_alloc.
  static Qel::Ptr<WriterLogMember> make(Qel::Seconds timestamp, std::string_view message) {
    void* block = std::malloc(Qel::String::ownedBlockBytes(kOwnerBytes, message.size()));
    if (!block) throw std::bad_alloc();
    Qel::String text;
    try {
      text = Qel::String::ownedIn(block, kOwnerBytes, message.data(), message.size());
    } catch (...) {
      std::free(block);
      throw;
    }
    WriterEventMember* m = ::new (block) WriterEventMember(LogEntry(timestamp, std::move(text)));
    qelAllocator().objectPlaced();
    return Qel::Ptr<WriterLogMember>(m);
  }

  // Stamps `m`, an evicted node, with the new event in place when it is
  // such a node, nothing else holds it or its message, and the text fits
  // its block; false, changing nothing, otherwise.
  static bool reuse(WriterLogMember& m, Qel::Seconds timestamp, std::string_view message) {
    if (m.references() != 1) return false;  // an iterator still stands on it
    // acquire: pairs with the release half of the decrement of any thread
    // that dropped its reference, so that its last reads of the node
    // happen before the writes below.
    std::atomic_thread_fence(std::memory_order_acquire);
    if (!Qel::String::ownedRewrite(m.entry().message(), &m, kOwnerBytes, message.data(),
                                   message.size())) {
      return false;
    }
    m.valueRef().timestampIs(timestamp);
    return true;
  }

  // The last reference went: destroy the node, then let go of the block,
  // which stays until the last string sharing the message goes too.
  void zeroReferencesIs() override {
    void* block = this;
    this->~WriterEventMember();
    qelAllocator().objectGone();
    Qel::String::ownerGone(block, kOwnerBytes);
  }

 private:
  static constexpr std::size_t kOwnerBytes = sizeof(WriterLogMember);
  explicit WriterEventMember(LogEntry entry) noexcept : WriterLogMember(0, std::move(entry)) {}
};

static_assert(sizeof(WriterEventMember) == sizeof(WriterLogMember),
              "the message's rep follows the node at a fixed place");
static_assert(sizeof(WriterLogMember) % alignof(std::uint32_t) == 0,
              "the rep after the node must be aligned for its count");

}  // namespace

void Writer::eventIs(std::string_view message) {
  writeCheck();
  KRONLOG_TRACE(0, kFile, 14, "eventIs", << "void KronlogWriter::Writer::eventIs(Qel::String)");
  KRONLOG_TRACE(1, kFile, 17, "eventIs",
                << "eventIs size: " << config_.size() << " len: " << log_.members());
  handleExcessiveLogEntries(*this);
  const Admission admission = isLogEntryAllowed(*this);
  if (admission == Admission::drop) return;
  Qel::Ptr<WriterLogMember> m;
  if (admission == Admission::evictOldest) {
    m = logEvict();  // its block may take the new event
    overflowCountInc(1);
  }
  KRONLOG_ASSERT(log_.members() < config_.size(), "len < size()");
  const Qel::Seconds now = Qel::utcNow();
  if (!m || !WriterEventMember::reuse(*m, now, message)) {
    m = message.empty() ? Qel::Ptr<WriterLogMember>(new WriterLogMember(0, LogEntry(now, {})))
                        : WriterEventMember::make(now, message);
  }
  KRONLOG_TRACE(0, kFile, 27, "eventIs", << "eventIs timestamp: " << m->entry().timestamp()
                                         << " message: " << m->entry().message());
  logAppend(std::move(m));
}

// ---- WriterDir

QEL_TRACKED_ALLOCATION_DEFINE(WriterDir, "KronlogWriter::WriterDir")

WriterDir::WriterDir(const Qel::Name& name) : Entity(name) {}

WriterDir::~WriterDir() {
  for (WriterIterator it = writers_.begin(); it; ++it) it->parentIs(nullptr);
}

WriterDir::Ptr WriterDir::WriterDirIs(const Qel::Name& name) {
  return Ptr(new WriterDir(name));
}

WriterDir::Ptr writerDirFactory(const Qel::Name& name) {
  return WriterDir::WriterDirIs(name);
}

Qel::NotifieeListBase* WriterDir::notifieeList() const {
  return const_cast<Qel::NotifieeListBase*>(&notifiees_);
}

QEL_FWK_TYPE_DEFINE(WriterDir, "KronlogWriter::WriterDir")

Writer::Ptr WriterDir::newWriter(const Qel::Name& name, const Config& config) {
  writeCheck();
  if (writers_.member(name)) {
    Qel::throwNameInUseException(Qel::String("writer directory " + this->name().stdString() +
                                             " already holds a writer named " +
                                             Qel::valueToStrep(name).stdString()));
  }
  Writer::Ptr w = writerFactory(name, config);
  w->parentAttrIs("writer");
  writers_.newMember(w.ptr());
  w->parentIs(this);
  return w;
}

Writer::Ptr WriterDir::writerIs(const Qel::Name& name, const Config& config) {
  writeCheck();
  if (Writer* existing = writers_[name]) {
    if (existing->config() == config) return existing;
    // Requested value first, current value second.
    Qel::throwNameInUseException(Qel::String(
        "Reinstantiating the entity with name " + Qel::valueToStrep(existing->name()).stdString() +
        " where constructor parameter attribute _config has a different value of " +
        valueToStrep(config).stdString() + " than the current value of " +
        valueToStrep(existing->config()).stdString() + " not allowed"));
  }
  Writer::Ptr w = newWriter(name, config);
  notifiees_.visitAs<Notifiee>(this, [&name](Notifiee* n) { n->onWriter(name); });
  return w;
}

Writer::Ptr WriterDir::writerDel(const Qel::Name& name) {
  writeCheck();
  Writer::Ptr removed = writers_.memberDel(name);
  if (!removed) return nullptr;
  removed->parentIs(nullptr);
  notifiees_.visitAs<Notifiee>(this, [&name](Notifiee* n) { n->onWriter(name); });
  return removed;
}

Writer::Ptr WriterDir::writerDel(WriterIterator& it) {
  if (!it) return nullptr;
  // By the key it is held under, which a rename does not change.
  Qel::Name key = it.member()->qelHashKey();
  return writerDel(key);
}

void WriterDir::writerDelAll() {
  writeCheck();
  for (WriterIterator it = writers_.begin(); it; ++it) writerDel(it);
}

// ---- Registration, in load order: WriterDir, OverflowActionType, LogEntry,
// Writer, Config.

namespace {

template <class T>
Qel::Ptr<Qel::ValueBoxBase> boxed(T value) {
  return Qel::Ptr<Qel::ValueBoxBase>(new Qel::ValueBox<T>(std::move(value)));
}

template <class T>
Qel::Ptr<Qel::ValueBoxBase> parsed(const Qel::String& text) {
  Qel::String8::IteratorConst it = text.begin();
  T value(it, text.end());
  Qel::strepToValueEnd(it, text.end());
  return boxed(std::move(value));
}

const Writer& asWriter(const Qel::PtrInterface& o) {
  return static_cast<const Writer&>(o);
}

const bool registered = [] {
  using Qel::TypeNode;
  Qel::Ptr<TypeNode> dir(new TypeNode("KronlogWriter::WriterDir", TypeNode::Kind::entity));
  dir->attributeIs("name", [](const Qel::PtrInterface& o) {
    return Qel::valueToStrep(static_cast<const WriterDir&>(o).name());
  });
  Qel::typeNodeIs(dir);

  Qel::Ptr<TypeNode> action(
      new TypeNode("KronlogWriter::OverflowActionType", TypeNode::Kind::enumeration));
  action->enumeratorIs("keepFirstEntries", keepFirstEntries);
  action->enumeratorIs("keepLastEntries", keepLastEntries);
  Qel::typeNodeIs(action);

  Qel::Ptr<TypeNode> entry(new TypeNode("KronlogWriter::LogEntry", TypeNode::Kind::value));
  entry->parserIs(&parsed<LogEntry>).defaultIs([] { return boxed(LogEntry()); });
  Qel::typeNodeIs(entry);

  Qel::Ptr<TypeNode> writer(new TypeNode("KronlogWriter::Writer", TypeNode::Kind::entity));
  writer
      ->attributeIs(
          "name", [](const Qel::PtrInterface& o) { return Qel::valueToStrep(asWriter(o).name()); })
      .attributeIs("config",
                   [](const Qel::PtrInterface& o) { return valueToStrep(asWriter(o).config()); })
      .attributeIs(
          "overflowCount",
          [](const Qel::PtrInterface& o) { return Qel::valueToStrep(asWriter(o).overflowCount()); })
      .attributeIs("logMetadata", [](const Qel::PtrInterface& o) {
        return valueToStrep(asWriter(o).logMetadata());
      });
  Qel::typeNodeIs(writer);

  Qel::Ptr<TypeNode> config(new TypeNode("KronlogWriter::Config", TypeNode::Kind::value));
  config->parserIs(&parsed<Config>).defaultIs([] { return boxed(Config()); });
  Qel::typeNodeIs(config);
  return true;
}();

}  // namespace

}  // namespace KronlogWriter
