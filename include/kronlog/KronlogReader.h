// Reading history: what to read (Config), where the result goes (Status),
// one merged event (LogEntry) and the one-shot Reader that does the work.
//
//   KronlogReader::Config::Ptr config = KronlogReader::configFactory();
//   config->dirIs(agents);                  // a Qel::Dir of writer directories
//   config->agentPatternIs("Bgp|Ospf");     // whole-name, case-sensitive
//   config->minTimestampIs(Qel::utcNow() - 3600);
//   KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
//   KronlogReader::readerFactory(config, status);  // reads now
//   for (auto it = status->logIterConst(); it; ++it) use(*it->value());
//
// Everything runs on the caller's thread; nothing is locked.
#ifndef KRONLOG_KRONLOGREADER_H
#define KRONLOG_KRONLOGREADER_H

#include <limits>
#include <optional>
#include <regex>
#include <string>
#include <string_view>

#include "kronlog/Export.h"
#include "qel/Allocator.h"
#include "qel/Dir.h"
#include "qel/HashMap.h"
#include "qel/LinkQueue.h"
#include "qel/LogAttribute.h"
#include "qel/String.h"
#include "qel/WorkAtConstruction.h"

namespace KronlogReader {

// One event of a read result; immutable.
class KRONLOG_EXPORT LogEntry : public Qel::PtrInterface {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<LogEntry>;
  using PtrConst = Qel::Ptr<const LogEntry>;

  LogEntry(Qel::String8 agentName, Qel::String8 messageGroup, double const& timestamp,
           Qel::String8 message) noexcept;
  static Ptr LogEntryIs(Qel::String8 agentName, Qel::String8 messageGroup, double const& timestamp,
                        Qel::String8 message);

  const Qel::String& agentName() const noexcept { return agentName_; }
  const Qel::String& messageGroup() const noexcept { return messageGroup_; }
  Qel::Seconds timestamp() const noexcept { return timestamp_; }
  const Qel::String& message() const noexcept { return message_; }

  const Qel::TypeNode* fwkType() const override;

 private:
  Qel::String agentName_;
  Qel::String messageGroup_;
  Qel::Seconds timestamp_;
  Qel::String message_;
};

// Never null: a failed allocation throws std::bad_alloc.
KRONLOG_EXPORT LogEntry::Ptr logEntryFactory(Qel::String8 agentName, Qel::String8 messageGroup,
                                             double const& timestamp, Qel::String8 message);

// The read request: directories to search, two patterns, a time window.
class KRONLOG_EXPORT Config : public Qel::PtrInterface {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Config>;
  using PtrConst = Qel::Ptr<const Config>;

  // A member of the `dir` collection: one directory, keyed by its name as
  // it was when it was added.
  class KRONLOG_EXPORT QelDir : public Qel::PtrInterface {
    QEL_TRACKED_ALLOCATION()

   public:
    explicit QelDir(const Qel::Ptr<Qel::Dir>& dir) : key_(dir->name()), dir_(dir) {}
    const Qel::Ptr<Qel::Dir>& dir() const noexcept { return dir_; }
    void dirIs(const Qel::Ptr<Qel::Dir>& dir) { dir_ = dir; }

    // Map linkage.
    QelDir* qelHashNext_ = nullptr;
    bool qelInCollection_ = false;
    const Qel::Name& qelHashKey() const noexcept { return key_; }
    void qelHashKeyFreeze() noexcept {}  // fixed at construction
    Qel::Dir* qelHashValue() noexcept { return dir_.ptr(); }

   private:
    Qel::Name key_;
    Qel::Ptr<Qel::Dir> dir_;
  };
  using DirMap = Qel::HashMap<QelDir, Qel::Name, Qel::Dir>;
  using DirIterator = DirMap::Iterator;
  using DirIteratorConst = DirMap::IteratorConst;

  // Defaults: no directories, both patterns ".*", window [0, +infinity].
  Config();

  // The directory held under `name`, or null.
  Qel::Ptr<Qel::Dir> dir(const Qel::Name& name) const { return dirs_[name]; }
  unsigned int dirs() const noexcept { return static_cast<unsigned int>(dirs_.size()); }
  DirIterator dirIter() { return dirs_.begin(); }
  DirIteratorConst dirIterConst() const { return dirs_.begin(); }
  // Range-for over the directories: `for (const Qel::Dir& d : config->dirMap())`.
  const DirMap& dirMap() const noexcept { return dirs_; }
  // Adds `dir` under its name, or replaces the directory held under that
  // name. Null throws Qel::RangeException.
  void dirIs(Qel::Ptr<Qel::Dir> const& dir);
  // Adds a member for `dir` (no replacement); returns it.
  Qel::Ptr<QelDir> newDir(Qel::Ptr<Qel::Dir> const& dir);
  // Removes the member and returns its directory (null when absent).
  Qel::Ptr<Qel::Dir> dirDel(Qel::Name name);
  Qel::Ptr<Qel::Dir> dirDel(DirIterator& it);
  void dirDelAll();
  // Called after every change of `dir`; does nothing here.
  virtual void dirNotify(Qel::Name name);

  // Patterns are stored as given: they are compiled, and may fail, only when
  // a read has something to compare them with.
  const Qel::String& agentPattern() const noexcept { return agentPattern_; }
  void agentPatternIs(Qel::String8 pattern) { agentPattern_ = std::move(pattern); }
  const Qel::String& messageGroupPattern() const noexcept { return messageGroupPattern_; }
  void messageGroupPatternIs(Qel::String8 pattern) { messageGroupPattern_ = std::move(pattern); }
  Qel::Seconds minTimestamp() const noexcept { return minTimestamp_; }
  void minTimestampIs(double const& value) noexcept { minTimestamp_ = value; }
  Qel::Seconds maxTimestamp() const noexcept { return maxTimestamp_; }
  void maxTimestampIs(double const& value) noexcept { maxTimestamp_ = value; }

  const Qel::TypeNode* fwkType() const override;

 protected:
  ~Config() override;

 private:
  DirMap dirs_;
  Qel::String agentPattern_;
  Qel::String messageGroupPattern_;
  Qel::Seconds minTimestamp_;
  Qel::Seconds maxTimestamp_;
};

KRONLOG_EXPORT Config::Ptr configFactory();

class Status;

// One member of a status's log (Status::QelLog): its index, the entry, the
// link to the next member.
class KRONLOG_EXPORT StatusLogMember : public Qel::LinkQueueMember<StatusLogMember, LogEntry::Ptr> {
  QEL_TRACKED_ALLOCATION()

 public:
  StatusLogMember(unsigned int index, LogEntry::Ptr entry) noexcept
      : LinkQueueMember(index, std::move(entry)) {}
};

// The result of reads: a log of entries in merged order. The log's
// accessors (logEnq, logDeq, newLog, logDel, logDelAll, log(index) and
// operator[], iteration) are those every log attribute has; an absent entry
// reads as null.
class KRONLOG_EXPORT Status : public Qel::PtrInterface,
                              public Qel::LogAttribute<Status, StatusLogMember, LogEntry::Ptr> {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Status>;
  using PtrConst = Qel::Ptr<const Status>;

  // The queue's head index and next index.
  class KRONLOG_EXPORT LogMetadata {
   public:
    LogMetadata() noexcept : headIndex_(0), nextIndex_(0) {}
    LogMetadata(unsigned int headIndex, unsigned int nextIndex) noexcept
        : headIndex_(headIndex), nextIndex_(nextIndex) {}
    unsigned int headIndex() const noexcept { return headIndex_; }
    unsigned int nextIndex() const noexcept { return nextIndex_; }
    bool operator==(const LogMetadata& o) const noexcept {
      return headIndex_ == o.headIndex_ && nextIndex_ == o.nextIndex_;
    }
    bool operator!=(const LogMetadata& o) const noexcept { return !(*this == o); }

   private:
    unsigned int headIndex_;
    unsigned int nextIndex_;
  };

  Status() = default;

  // Absent index: inserts a non-null entry. Present: null removes it, the
  // same entry changes nothing, another replaces it in place.
  void logIs(unsigned int index, LogEntry::Ptr const& entry);
  // Called after every change of the entry at `index`; does nothing here.
  virtual void logNotify(unsigned int index);

  LogMetadata logMetadata() const noexcept {
    return LogMetadata(log_.headIndex(), log_.nextIndex());
  }
  void logMetadataIs(LogMetadata const& value) noexcept {
    log_.indicesIs(value.headIndex(), value.nextIndex());
  }

  const Qel::TypeNode* fwkType() const override;

 protected:
  ~Status() override;

 private:
  friend class Qel::LogAttribute<Status, StatusLogMember, LogEntry::Ptr>;
  // A status is never a read-only copy: every change is allowed.
  void logWriteCheck() const noexcept {}
};

KRONLOG_EXPORT Status::Ptr statusFactory();

// A one-shot read: the constructor reads `config` into `status` and marks
// the reader initialized. Entries are appended behind what the status
// holds. A malformed pattern throws std::regex_error out of the constructor
// and leaves the status as it was.
class KRONLOG_EXPORT Reader : public Qel::PtrInterface, public Qel::WorkAtConstruction<Reader> {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Reader>;

  // Both pointers must be non-null.
  Reader(Qel::Ptr<Config const> const& config, Qel::Ptr<Status> const& status);

  const Qel::Ptr<Config const>& config() const noexcept { return config_; }
  const Qel::Ptr<Status>& status() const noexcept { return status_; }

  // Collects, filters and merges; appends the result to the status.
  // handleInitialized() runs it, then sets initialized.
  void doRead();
  static constexpr void (Reader::*kWork)() = &Reader::doRead;

  const Qel::TypeNode* fwkType() const override;

 protected:
  ~Reader() override;

 private:
  Qel::Ptr<Config const> config_;
  Qel::Ptr<Status> status_;
};

KRONLOG_EXPORT Reader::Ptr readerFactory(Qel::Ptr<Config const> const& config,
                                         Qel::Ptr<Status> const& status);

// A name or message pattern as the reader matches it: std::regex with the
// ECMAScript grammar (plus `flags`, such as icase). Exposed for callers
// that filter the same way, the kronlog tool among them.
//
// libstdc++'s backtracking matcher recurses once or more per character of
// the subject, so a long subject (a name or message of some ten thousand
// bytes) overflows the stack. Subjects up to kBacktrackingBytes use that
// matcher, the fastest; longer ones an automaton whose stack use does not
// grow with the subject. A pattern with back-references has no automaton:
// against a longer subject it throws std::regex_error (error_complexity)
// rather than risk the stack.
class KRONLOG_EXPORT Pattern {
 public:
  static constexpr std::size_t kBacktrackingBytes = 1024;

  // Throws std::regex_error for a malformed pattern.
  explicit Pattern(std::string_view text, std::regex::flag_type flags = std::regex::ECMAScript);

  // The whole subject matches (std::regex_match).
  bool matchesWhole(std::string_view subject) const;
  // Some part of the subject matches (std::regex_search).
  bool foundIn(std::string_view subject) const;

 private:
  const std::regex& forSubject(std::size_t bytes) const;
  std::string text_;
  std::regex::flag_type flags_;
  std::regex backtracking_;
  mutable std::optional<std::regex> automaton_;  // built for the first long subject
};

}  // namespace KronlogReader

#endif  // KRONLOG_KRONLOGREADER_H
