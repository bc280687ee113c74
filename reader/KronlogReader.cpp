#include "kronlog/KronlogReader.h"

#include <algorithm>
#include <optional>
#include <regex>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Exception.h"
#include "qel/Prefetch.h"
#include "qel/Strep.h"
#include "qel/Type.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogReader {

namespace {
constexpr char kFile[] = "KronlogReader";
}  // namespace

// ---- LogEntry

QEL_TRACKED_ALLOCATION_DEFINE(LogEntry, "KronlogReader::LogEntry")

LogEntry::LogEntry(Qel::String8 agentName, Qel::String8 messageGroup, double const& timestamp,
                   Qel::String8 message) noexcept
    : agentName_(std::move(agentName)),
      messageGroup_(std::move(messageGroup)),
      timestamp_(timestamp),
      message_(std::move(message)) {}

LogEntry::Ptr LogEntry::LogEntryIs(Qel::String8 agentName, Qel::String8 messageGroup,
                                   double const& timestamp, Qel::String8 message) {
  return Ptr(
      new LogEntry(std::move(agentName), std::move(messageGroup), timestamp, std::move(message)));
}

LogEntry::Ptr logEntryFactory(Qel::String8 agentName, Qel::String8 messageGroup,
                              double const& timestamp, Qel::String8 message) {
  return LogEntry::LogEntryIs(std::move(agentName), std::move(messageGroup), timestamp,
                              std::move(message));
}

QEL_FWK_TYPE_DEFINE(LogEntry, "KronlogReader::LogEntry")

// ---- Config

QEL_TRACKED_ALLOCATION_DEFINE(Config, "KronlogReader::Config")
QEL_TRACKED_ALLOCATION_DEFINE(Config::QelDir, "KronlogReader::Config::QelDir")

Config::Config()
    : agentPattern_(".*"),
      messageGroupPattern_(".*"),
      minTimestamp_(0.0),
      maxTimestamp_(std::numeric_limits<double>::infinity()) {}

Config::~Config() = default;

Config::Ptr configFactory() {
  return Config::Ptr(new Config());
}

namespace {
void requireDir(const Qel::Ptr<Qel::Dir>& dir) {
  if (dir) return;
  // The trailing double quote belongs to the message as operators know it.
  Qel::throwRangeException(
      "null _dir parameter to mutator for KronlogReader::Config::dir not allowed\"");
}
}  // namespace

void Config::dirIs(Qel::Ptr<Qel::Dir> const& dir) {
  requireDir(dir);
  if (QelDir* member = dirs_.member(dir->name())) {
    if (member->dir() == dir) return;
    member->dirIs(dir);
    dirNotify(dir->name());
    return;
  }
  newDir(dir);
}

Qel::Ptr<Config::QelDir> Config::newDir(Qel::Ptr<Qel::Dir> const& dir) {
  requireDir(dir);
  Qel::Ptr<QelDir> member(new QelDir(dir));
  if (!dirs_.newMember(member.ptr())) {
    Qel::throwNameInUseException(Qel::String("KronlogReader::Config already holds a directory " +
                                             Qel::valueToStrep(dir->name()).stdString()));
  }
  dirNotify(dir->name());
  return member;
}

Qel::Ptr<Qel::Dir> Config::dirDel(Qel::Name name) {
  Qel::Ptr<QelDir> removed = dirs_.memberDel(name);
  if (!removed) return nullptr;
  dirNotify(name);
  return removed->dir();
}

Qel::Ptr<Qel::Dir> Config::dirDel(DirIterator& it) {
  if (!it) return nullptr;
  return dirDel(it.member()->qelHashKey());
}

void Config::dirDelAll() {
  for (DirIterator it = dirs_.begin(); it; ++it) dirDel(it);
}

void Config::dirNotify(Qel::Name) {}

QEL_FWK_TYPE_DEFINE(Config, "KronlogReader::Config")

// ---- Status

QEL_TRACKED_ALLOCATION_DEFINE(Status, "KronlogReader::Status")
QEL_TRACKED_ALLOCATION_DEFINE(StatusLogMember, "KronlogReader::Status::QelLog")

Status::~Status() = default;

Status::Ptr statusFactory() {
  return Status::Ptr(new Status());
}

void Status::logIs(unsigned int index, LogEntry::Ptr const& entry) {
  StatusLogMember* m = log_.find(index);
  if (!m) {
    if (!entry) return;
    newLog(index, entry);
  } else if (!entry) {
    log_._memberDel(index);
  } else if (m->value() == entry) {
    return;
  } else {
    m->valueRef() = entry;  // in place: index, position and version stay
  }
  logNotify(index);
}

void Status::logNotify(unsigned int) {}

QEL_FWK_TYPE_DEFINE(Status, "KronlogReader::Status")

// ---- Reader

QEL_TRACKED_ALLOCATION_DEFINE(Reader, "KronlogReader::Reader")

Reader::Reader(Qel::Ptr<Config const> const& config, Qel::Ptr<Status> const& status)
    : config_(config), status_(status) {
  handleInitialized();
}

Reader::~Reader() = default;

Reader::Ptr readerFactory(Qel::Ptr<Config const> const& config, Qel::Ptr<Status> const& status) {
  return Reader::Ptr(new Reader(config, status));
}

QEL_FWK_TYPE_DEFINE(Reader, "KronlogReader::Reader")

Pattern::Pattern(std::string_view text, std::regex::flag_type flags)
    : text_(text), flags_(flags), backtracking_(text_, flags) {}

const std::regex& Pattern::forSubject(std::size_t bytes) const {
  if (bytes <= kBacktrackingBytes) return backtracking_;
#if defined(__GLIBCXX__)
  // Same grammar, same answers: the flag only selects libstdc++'s
  // automaton matcher, and refuses back-references (error_complexity).
  if (!automaton_) automaton_.emplace(text_, flags_ | std::regex_constants::__polynomial);
  return *automaton_;
#else
  return backtracking_;
#endif
}

bool Pattern::matchesWhole(std::string_view subject) const {
  return std::regex_match(subject.begin(), subject.end(), forSubject(subject.size()));
}

bool Pattern::foundIn(std::string_view subject) const {
  return std::regex_search(subject.begin(), subject.end(), forSubject(subject.size()));
}

namespace {

// A pattern compiled on first use and then reused for the whole read, so
// that a read compiles each pattern at most once, and a malformed pattern
// still fails only when there is a name to compare with it.
class LazyPattern {
 public:
  explicit LazyPattern(const Qel::String& text) : text_(text) {}

  // Whole-string, case-sensitive ECMAScript match.
  bool matches(const Qel::String& name) {
    if (text_ == ".*") {
      // ".*" matches any name, except that '.' matches no line terminator.
      // Still compiled once, so that it behaves as every other pattern.
      compiled();
      return name.view().find_first_of("\n\r") == std::string_view::npos;
    }
    return compiled().matchesWhole(name.view());
  }

 private:
  const Pattern& compiled() {
    if (!pattern_) pattern_.emplace(text_.view());
    return *pattern_;
  }
  Qel::String text_;
  std::optional<Pattern> pattern_;
};

using WriterLogMember = KronlogWriter::WriterLogMember;

// A run: consecutive entries of one writer, inside the time window, in time
// order. A writer's log is normally one run; a clock step or restored
// history splits it. Runs are numbered in discovery order (directory,
// agent, writer, then position in the log), which is the order that equal
// timestamps keep.
struct Run {
  double timestamp;             // of `node`, the sort key
  std::uint32_t order;          // discovery order, the tie-break
  const WriterLogMember* node;  // the next entry to merge
  const WriterLogMember* end;   // the first entry after the run, or null
  const KronlogWriter::WriterDir* agent;
  const KronlogWriter::Writer* writer;

  bool after(const Run& o) const noexcept {
    return timestamp > o.timestamp || (timestamp == o.timestamp && order > o.order);
  }
};

bool inWindow(double t, double min, double max) noexcept {
  return min <= t && t <= max;  // both ends inclusive; a NaN is outside
}

// The first entry from `m` on inside the window, or null.
const WriterLogMember* nextInWindow(const WriterLogMember* m, double min, double max) noexcept {
  while (m && !inWindow(m->entry().timestamp(), min, max)) m = m->next();
  return m;
}

// A min-heap of runs by (timestamp, order), kept by hand so that the merge
// replaces the top in place instead of popping and pushing.
void siftDown(std::vector<Run>& heap, std::size_t i) noexcept {
  const std::size_t n = heap.size();
  Run moving = heap[i];
  for (std::size_t child = 2 * i + 1; child < n; child = 2 * i + 1) {
    if (child + 1 < n && heap[child].after(heap[child + 1])) ++child;
    if (!moving.after(heap[child])) break;
    heap[i] = heap[child];
    i = child;
  }
  heap[i] = moving;
}

// The run list's memory, handed from one read to the next, so that reads
// after the first few allocate no scratch memory. A read borrows it and
// gives it back when it ends; a read started meanwhile (from a trace sink,
// say) finds none to borrow and makes its own.
class ScratchRuns {
 public:
  ScratchRuns() : runs_(std::move(spare())) { runs_.clear(); }
  ~ScratchRuns() {
    if (runs_.capacity() > spare().capacity()) spare() = std::move(runs_);
  }
  ScratchRuns(const ScratchRuns&) = delete;
  ScratchRuns& operator=(const ScratchRuns&) = delete;
  std::vector<Run>& runs() noexcept { return runs_; }

 private:
  static std::vector<Run>& spare() {
    thread_local std::vector<Run> spare;
    return spare;
  }
  std::vector<Run> runs_;
};

}  // namespace

namespace {

// Finds the runs of every selected writer, in discovery order. With
// `splitRuns` it walks every log and starts a run at each step back in
// time (and traces each entry examined, at level 1); without, it assumes
// each log is in time order and makes one run per writer from its first
// entry inside the window, which the merge then checks.
void collectRuns(const Config& config, LazyPattern& agentPattern, LazyPattern& groupPattern,
                 bool splitRuns, bool traceWriters, std::vector<Run>& runs) {
  const double min = config.minTimestamp();
  const double max = config.maxTimestamp();
  runs.clear();
  for (Config::DirIteratorConst d = config.dirIterConst(); d; ++d) {
    const Qel::Dir* dir = d.value();
    if (!dir) continue;
    for (Qel::Dir::EntityIteratorConst e = dir->entityIterConst(); e; ++e) {
      auto* agent = dynamic_cast<const KronlogWriter::WriterDir*>(e.value());
      if (!agent || !agentPattern.matches(agent->name())) continue;
      for (KronlogWriter::WriterDir::WriterIteratorConst w = agent->writerIterConst(); w; ++w) {
        const KronlogWriter::Writer& writer = *w.value();
        if (!groupPattern.matches(writer.name())) continue;
        if (traceWriters) {
          KRONLOG_TRACE(2, kFile, 85, "handleWriter", << "handleWriter"
                                                      << " config->minTimestamp: " << min
                                                      << " config->maxTimestamp: " << max);
        }
        const WriterLogMember* head = writer.logQueue().head();
        if (!splitRuns) {
          if (const WriterLogMember* m = nextInWindow(head, min, max)) {
            runs.push_back({m->entry().timestamp(), static_cast<std::uint32_t>(runs.size()), m,
                            nullptr, agent, &writer});
          }
          continue;
        }
        double previous = 0.0;
        bool inRun = false;
        for (const WriterLogMember* m = head; m; m = m->next()) {
          const double t = m->entry().timestamp();
          KRONLOG_TRACE(1, kFile, 90, "handleWriter",
                        << "handleWriter"
                        << " agentName: " << agent->name() << " messageGroup: " << writer.name()
                        << " timestamp: " << t << " message: " << m->entry().message());
          if (!inWindow(t, min, max)) continue;
          if (!inRun || t < previous) {
            if (inRun) runs.back().end = m;
            runs.push_back(
                {t, static_cast<std::uint32_t>(runs.size()), m, nullptr, agent, &writer});
            inRun = true;
          }
          previous = t;
        }
      }
    }
  }
}

// Merges `runs` into `pending`, whose members are numbered from its next
// index on. Returns false, part-way, when a run steps back in time (runs
// collected without splitting, over a log that is not in time order).
bool mergeRuns(std::vector<Run>& runs, double min, double max, Status::LogQueue& pending) {
  for (std::size_t i = runs.size() / 2; i-- > 0;) siftDown(runs, i);
  while (!runs.empty()) {
    Run& top = runs.front();
    LogEntry::Ptr entry(new LogEntry(top.agent->name(), top.writer->name(), top.timestamp,
                                     top.node->entry().message()));
    Qel::Ptr<StatusLogMember> member(new StatusLogMember(pending.appendIndex(), std::move(entry)));
    pending.append(member.ptr());
    const WriterLogMember* next = nextInWindow(top.node->next(), min, max);
    if (next && next != top.end) {
      const double t = next->entry().timestamp();
      if (t < top.timestamp) return false;
      top.node = next;
      top.timestamp = t;
      // This run's next turn needs its following node and this entry's
      // message (whose count it takes): start loading both now, while the
      // other runs take their turns.
      Qel::prefetch(next->next());
      Qel::prefetch(next->entry().message().data());
    } else {
      top = runs.back();
      runs.pop_back();
    }
    if (!runs.empty()) siftDown(runs, 0);
  }
  return true;
}

}  // namespace

void Reader::doRead() {
  KRONLOG_TRACE(0, kFile, 29, "doRead", << "void KronlogReader::Reader::doRead()");
  const Config& config = *config_;
  LazyPattern agentPattern(config.agentPattern());
  LazyPattern groupPattern(config.messageGroupPattern());
  ScratchRuns scratch;

  // Logs are nearly always in time order, so the first attempt takes one
  // run per writer and visits each entry once; a log that steps back in
  // time sends the read round again with its runs split. Per-entry traces
  // need the entries in log order, so they take the second way at once.
  // Nothing touches the status until the merged entries are linked in at
  // the end: a malformed pattern or a failed allocation leaves it as it was.
  const bool traceEntries = _defaultTraceHandle().enabled(1);
  const double min = config.minTimestamp();
  const double max = config.maxTimestamp();
  const unsigned int first = status_->logQueue().appendIndex();
  {
    Status::LogQueue pending;
    pending.indicesIs(first, first);
    collectRuns(config, agentPattern, groupPattern, traceEntries, true, scratch.runs());
    if (mergeRuns(scratch.runs(), min, max, pending)) {
      status_->logSplice(pending);
      return;
    }
  }  // the first attempt's entries go here
  Status::LogQueue pending;
  pending.indicesIs(first, first);
  collectRuns(config, agentPattern, groupPattern, true, false, scratch.runs());
  mergeRuns(scratch.runs(), min, max, pending);
  status_->logSplice(pending);
}

// ---- Registration, in load order: Status, Reader, LogEntry, Config.

namespace {

const bool registered = [] {
  using Qel::PtrInterface;
  using Qel::TypeNode;
  Qel::typeNodeIs(
      Qel::Ptr<TypeNode>(new TypeNode("KronlogReader::Status", TypeNode::Kind::entity)));

  Qel::Ptr<TypeNode> reader(new TypeNode("KronlogReader::Reader", TypeNode::Kind::entity));
  Reader::reflectionIs(*reader, "doRead")
      .attributeIs("config",
                   [](const PtrInterface& o) {
                     return Qel::valueToStrepOfRawPtr(static_cast<const Reader&>(o).config().ptr());
                   })
      .attributeIs("status", [](const PtrInterface& o) {
        return Qel::valueToStrepOfRawPtr(static_cast<const Reader&>(o).status().ptr());
      });
  Qel::typeNodeIs(reader);

  Qel::Ptr<TypeNode> entry(new TypeNode("KronlogReader::LogEntry", TypeNode::Kind::entity));
  auto asEntry = [](const PtrInterface& o) -> const LogEntry& {
    return static_cast<const LogEntry&>(o);
  };
  entry
      ->attributeIs(
          "agentName",
          [asEntry](const PtrInterface& o) { return Qel::valueToStrep(asEntry(o).agentName()); })
      .attributeIs(
          "messageGroup",
          [asEntry](const PtrInterface& o) { return Qel::valueToStrep(asEntry(o).messageGroup()); })
      .attributeIs(
          "timestamp",
          [asEntry](const PtrInterface& o) { return Qel::valueToStrep(asEntry(o).timestamp()); })
      .attributeIs("message", [asEntry](const PtrInterface& o) {
        return Qel::valueToStrep(asEntry(o).message());
      });
  Qel::typeNodeIs(entry);

  Qel::Ptr<TypeNode> config(new TypeNode("KronlogReader::Config", TypeNode::Kind::entity));
  auto asConfig = [](const PtrInterface& o) -> const Config& {
    return static_cast<const Config&>(o);
  };
  config
      ->attributeIs("agentPattern",
                    [asConfig](const PtrInterface& o) {
                      return Qel::valueToStrep(asConfig(o).agentPattern());
                    })
      .attributeIs("messageGroupPattern",
                   [asConfig](const PtrInterface& o) {
                     return Qel::valueToStrep(asConfig(o).messageGroupPattern());
                   })
      .attributeIs("minTimestamp",
                   [asConfig](const PtrInterface& o) {
                     return Qel::valueToStrep(asConfig(o).minTimestamp());
                   })
      .attributeIs("maxTimestamp", [asConfig](const PtrInterface& o) {
        return Qel::valueToStrep(asConfig(o).maxTimestamp());
      });
  Qel::typeNodeIs(config);
  return true;
}();

}  // namespace

}  // namespace KronlogReader
