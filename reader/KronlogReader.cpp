#include "kronlog/KronlogReader.h"

#include <algorithm>
#include <optional>
#include <regex>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Exception.h"
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
    return std::regex_match(name.begin(), name.end(), compiled());
  }

 private:
  const std::regex& compiled() {
    if (!regex_) regex_.emplace(text_.begin(), text_.end(), std::regex::ECMAScript);
    return *regex_;
  }
  Qel::String text_;
  std::optional<std::regex> regex_;
};

// One selected entry: its timestamp (the sort key), the writer it came from
// and its node. Entries are built only once their order is known.
struct Selected {
  double timestamp;
  std::uint32_t source;
  const KronlogWriter::Writer::QelLog* node;
};

struct Source {
  Qel::String agentName;
  Qel::String messageGroup;
};

// Sorts `items` by timestamp, keeping equal timestamps in their current
// order. Writers' logs are normally already in time order, so the input is
// a handful of ascending runs: merging neighbouring runs pass by pass costs
// O(n log runs) and touches memory sequentially.
void stableSortRuns(std::vector<Selected>& items) {
  const std::size_t n = items.size();
  if (n < 2) return;
  std::vector<std::size_t> bounds{0};
  for (std::size_t i = 1; i < n; ++i) {
    if (items[i].timestamp < items[i - 1].timestamp) bounds.push_back(i);
  }
  bounds.push_back(n);
  if (bounds.size() == 2) return;  // already in order
  auto earlier = [](const Selected& a, const Selected& b) { return a.timestamp < b.timestamp; };
  std::vector<Selected> buffer(n);
  std::vector<Selected>* from = &items;
  std::vector<Selected>* to = &buffer;
  while (bounds.size() > 2) {
    std::vector<std::size_t> merged{0};
    for (std::size_t r = 0; r + 1 < bounds.size(); r += 2) {
      const std::size_t lo = bounds[r], mid = bounds[r + 1];
      const std::size_t hi = r + 2 < bounds.size() ? bounds[r + 2] : mid;
      // std::merge takes from the first range on ties: stability.
      std::merge(from->begin() + lo, from->begin() + mid, from->begin() + mid, from->begin() + hi,
                 to->begin() + lo, earlier);
      merged.push_back(hi);
    }
    bounds.swap(merged);
    std::swap(from, to);
  }
  if (from != &items) items.swap(buffer);
}

}  // namespace

void Reader::doRead() {
  KRONLOG_TRACE(0, kFile, 29, "doRead", << "void KronlogReader::Reader::doRead()");
  const Config& config = *config_;
  const double minTimestamp = config.minTimestamp();
  const double maxTimestamp = config.maxTimestamp();
  LazyPattern agentPattern(config.agentPattern());
  LazyPattern groupPattern(config.messageGroupPattern());
  std::vector<Source> sources;
  std::vector<Selected> selected;

  for (Config::DirIteratorConst d = config.dirIterConst(); d; ++d) {
    const Qel::Dir* dir = d.value();
    if (!dir) continue;
    for (Qel::Dir::EntityIteratorConst e = dir->entityIterConst(); e; ++e) {
      auto* agent = dynamic_cast<const KronlogWriter::WriterDir*>(e.value());
      if (!agent || !agentPattern.matches(agent->name())) continue;
      for (KronlogWriter::WriterDir::WriterIteratorConst w = agent->writerIterConst(); w; ++w) {
        const KronlogWriter::Writer& writer = *w.value();
        if (!groupPattern.matches(writer.name())) continue;
        KRONLOG_TRACE(2, kFile, 85, "handleWriter", << "handleWriter"
                                                    << " config->minTimestamp: " << minTimestamp
                                                    << " config->maxTimestamp: " << maxTimestamp);
        const auto source = static_cast<std::uint32_t>(sources.size());
        sources.push_back({agent->name(), writer.name()});
        for (const KronlogWriter::Writer::QelLog* m = writer.logQueue().head(); m; m = m->next()) {
          const double t = m->entry().timestamp();
          KRONLOG_TRACE(1, kFile, 90, "handleWriter",
                        << "handleWriter"
                        << " agentName: " << agent->name() << " messageGroup: " << writer.name()
                        << " timestamp: " << t << " message: " << m->entry().message());
          // Both ends inclusive; a NaN compares false and is left out.
          if (minTimestamp <= t && t <= maxTimestamp) selected.push_back({t, source, m});
        }
      }
    }
  }

  stableSortRuns(selected);
  // Build every entry before touching the status, so that a failure leaves
  // the status as it was.
  std::vector<LogEntry::Ptr> entries;
  entries.reserve(selected.size());
  for (const Selected& s : selected) {
    const Source& src = sources[s.source];
    entries.push_back(
        logEntryFactory(src.agentName, src.messageGroup, s.timestamp, s.node->entry().message()));
  }
  for (const LogEntry::Ptr& entry : entries) status_->logEnq(entry);
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
