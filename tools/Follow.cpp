// kronlog follow: mounts agents' writer directories and prints their events
// live, merged by timestamp, with a line for every loss.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kronlog/KronlogStore.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "tools/Commands.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/Signals.h"
#include "tools/Sink.h"
#include "tools/StoreView.h"
#include "tools/TimeArg.h"
#include "tools/Usage.h"

namespace KronlogTool {

namespace {

using KronlogWriter::WriterFollower;

const std::vector<OptionSpec> kFollowOptions = {
    {"socket", 0, true, true},   {"agent", 0, true, true},     {"group", 0, true, true},
    {"lines", 'n', true, false}, {"output", 'o', true, false}, {"exit-on-close", 0, false, false},
};

// Sources that have not synced by then do not hold up the first lines.
constexpr double kFirstSyncSeconds = 1;

// One line of output, ordered by timestamp, then by arrival.
struct Line {
  double timestamp;
  std::uint64_t seq;
  bool event;
  std::string text;
};

std::string lossText(const std::string& agent, const std::string& group,
                     const WriterFollower::Loss& loss, double timestamp, OutputMode mode) {
  const bool slow = loss.reason == WriterFollower::LossReason::slow;
  if (mode == OutputMode::shortText) {
    std::string line = formatTime(timestamp) + ' ' + escapeForTerminal(agent) + ' ' +
                       escapeForTerminal(group) + " -- lost " + std::to_string(loss.count) +
                       " events: ";
    return line +
           (slow ? "evicted before they were received (indices " + std::to_string(loss.fromIndex) +
                       " to " + std::to_string(loss.toIndex) + ")\n"
                 : "refused by the full writer (overflow)\n");
  }
  std::string json = "{\"agentName\":" + KronlogStore::textJson(Qel::String(agent)) +
                     ",\"messageGroup\":" + KronlogStore::textJson(Qel::String(group)) +
                     ",\"lost\":" + std::to_string(loss.count) + ",\"reason\":\"" +
                     (slow ? "slow" : "overflow") + '"';
  if (slow) {
    json += ",\"fromIndex\":" + std::to_string(loss.fromIndex) +
            ",\"toIndex\":" + std::to_string(loss.toIndex);
  }
  return json + (mode == OutputMode::jsonl ? "}\n" : "}");
}

class Session;

// Says why a connection to a socket failed, once per distinct reason, so
// that a follower pointed at another program's socket (or at a broken
// agent) does not wait in silence. The mount keeps trying.
class FailureReport : public Qel::Mount::Notifiee {
 public:
  FailureReport(const Qel::Mount::Ptr& mount, std::string path) : path_(std::move(path)) {
    notifierIs(mount);
  }
  void onFailure(const Qel::String& reason) override {
    if (reason.view() == last_) return;
    last_ = reason.stdString();
    std::fprintf(stderr, "kronlog follow: %s: connection dropped: %s; trying again\n",
                 escapeForTerminal(path_).c_str(), escapeForTerminal(last_).c_str());
  }

 private:
  std::string path_;
  std::string last_;
};

// One --socket: a mount and the follower of the directory served there.
class Source : public KronlogWriter::WriterDirFollower {
 public:
  Source(Session* session, const KronlogWriter::WriterDirMount::Ptr& mount, std::string path)
      : WriterDirFollower(mount, WriterFollower::Start::beginning),
        session_(session),
        path_(std::move(path)),
        failures_(mount->mount(), path_) {}
  void onEntry(const Qel::Name& writer, unsigned int index,
               const KronlogWriter::LogEntry& entry) override;
  void onLoss(const Qel::Name& writer, const WriterFollower::Loss& loss) override;
  void onRestart() override;
  void onSynced() override;
  void onStale() override;
  bool synced() const noexcept { return synced_; }
  bool closed() const noexcept { return closed_; }

 private:
  Session* session_;
  std::string path_;
  FailureReport failures_;
  bool synced_ = false;
  bool closed_ = false;
  // A slow loss is printed with the timestamp of the entry that showed it.
  std::vector<std::pair<Qel::Name, WriterFollower::Loss>> slow_;
};

class Session {
 public:
  Session(const OutputOptions& output, const EntryFilter& filter, long long lines, bool exitOnClose)
      : output_(output), filter_(filter), lines_(lines), exitOnClose_(exitOnClose), sink_(1) {}

  bool keeps(const std::string& agent, const std::string& group) const {
    return filter_.keeps(KronlogReader::LogEntry(agent, group, 0, Qel::String8()));
  }
  void eventAdd(const std::string& agent, const std::string& group, unsigned int index,
                const KronlogWriter::LogEntry& e) {
    const KronlogReader::LogEntry entry(agent, group, e.timestamp(), e.message());
    std::string text = formatEntry(entry, output_);
    if (output_.mode != OutputMode::shortText) {
      // The object show writes, plus the index.
      const std::size_t close = text.rfind('}');
      text.insert(close, ",\"index\":" + std::to_string(index));
    }
    pending_.push_back(Line{e.timestamp(), seq_++, true, std::move(text)});
  }
  void lossAdd(const std::string& agent, const std::string& group, const WriterFollower::Loss& loss,
               double timestamp) {
    pending_.push_back(
        Line{timestamp, seq_++, false, lossText(agent, group, loss, timestamp, output_.mode)});
  }
  void sourceClosed() {
    if (!exitOnClose_) return;
    for (const std::unique_ptr<Source>& s : sources_) {
      if (!s->closed()) return;
    }
    done_ = true;
  }

  // Runs until every source closed (with --exit-on-close), a signal, or
  // output that cannot be written. The exit status.
  int run(Qel::EventLoop* loop) {
    const double firstBy = Qel::EventLoop::monotonicNow() + kFirstSyncSeconds;
    bool backlog = true;
    while (!done_) {
      loop->runOnce(backlog ? 0.05 : -1);
      if (backlog) {
        const bool all = std::all_of(sources_.begin(), sources_.end(),
                                     [](const std::unique_ptr<Source>& s) { return s->synced(); });
        if (!all && Qel::EventLoop::monotonicNow() < firstBy && !done_) continue;
        backlog = false;
        sortPending();
        keepLast();
      }
      print();
      if (sink_.failed()) break;
    }
    print();
    if (output_.mode == OutputMode::json) sink_.write(printed_ == 0 ? "[]\n" : "]\n");
    sink_.flush();
    if (sink_.error() != 0) {
      std::fprintf(stderr, "kronlog follow: cannot write the output: %s\n",
                   std::strerror(sink_.error()));
      return kExitData;
    }
    return kExitOk;
  }
  void stop() noexcept { done_ = true; }
  std::vector<std::unique_ptr<Source>>& sources() { return sources_; }

 private:
  void sortPending() {
    std::sort(pending_.begin(), pending_.end(), [](const Line& a, const Line& b) {
      return a.timestamp < b.timestamp || (a.timestamp == b.timestamp && a.seq < b.seq);
    });
  }
  // --lines: the last N events found at the start, with the losses among them.
  void keepLast() {
    if (lines_ < 0) return;
    std::size_t from = pending_.size();
    for (long long events = 0; from > 0; --from) {
      if (!pending_[from - 1].event) continue;
      if (events == lines_) break;
      ++events;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(from));
  }
  void print() {
    sortPending();
    for (const Line& l : pending_) {
      if (output_.mode == OutputMode::json) sink_.write(printed_ == 0 ? "[" : ",");
      sink_.write(l.text);
      ++printed_;
    }
    pending_.clear();
    if (!sink_.flush() && sink_.readerGone()) done_ = true;
  }

  const OutputOptions& output_;
  const EntryFilter& filter_;
  long long lines_;
  bool exitOnClose_;
  bool done_ = false;
  Sink sink_;
  std::vector<Line> pending_;
  std::uint64_t seq_ = 0;
  std::size_t printed_ = 0;
  std::vector<std::unique_ptr<Source>> sources_;
};

void Source::onEntry(const Qel::Name& writer, unsigned int index,
                     const KronlogWriter::LogEntry& entry) {
  if (!session_->keeps(agent().stdString(), writer.stdString())) return;
  for (auto it = slow_.begin(); it != slow_.end();) {
    if (it->first == writer) {
      session_->lossAdd(agent().stdString(), writer.stdString(), it->second, entry.timestamp());
      it = slow_.erase(it);
    } else {
      ++it;
    }
  }
  session_->eventAdd(agent().stdString(), writer.stdString(), index, entry);
}

void Source::onLoss(const Qel::Name& writer, const WriterFollower::Loss& loss) {
  if (!session_->keeps(agent().stdString(), writer.stdString())) return;
  if (loss.reason == WriterFollower::LossReason::slow) {
    slow_.emplace_back(writer, loss);  // the entry that showed it follows at once
  } else {
    session_->lossAdd(agent().stdString(), writer.stdString(), loss, Qel::utcNow());
  }
}

void Source::onRestart() {
  std::fprintf(stderr,
               "kronlog follow: %s: agent %s was restarted; what it recorded after the "
               "connection dropped is unknown\n",
               escapeForTerminal(path_).c_str(), escapeForTerminal(agent().stdString()).c_str());
}

void Source::onSynced() {
  WriterDirFollower::onSynced();
  synced_ = true;
  // A writer that holds no entry now shows no later entry to date its loss.
  for (const auto& [writer, loss] : slow_) {
    session_->lossAdd(agent().stdString(), writer.stdString(), loss, Qel::utcNow());
  }
  slow_.clear();
}

void Source::onStale() {
  if (closed_) return;
  closed_ = true;
  session_->sourceClosed();
}

}  // namespace

int followCommand(const Args& args) {
  Options options(kFollowOptions);
  if (const int status = startCommand("follow", kFollowUsage, args, options); status >= 0) {
    return status;
  }
  if (!options.has("socket")) {
    return usageError("follow", "--socket PATH is required (an agent's socket, e.g. " +
                                    KronlogWriter::writerDirSocketPath("Bgp").stdString() + ")");
  }
  if (const int status = socketPathsCheck("follow", options.values("socket")); status >= 0) {
    return status;
  }
  Filter filter;
  filter.agents = options.values("agent");
  filter.groups = options.values("group");
  EntryFilter entryFilter;
  std::string error;
  if (!entryFilter.compile(filter, &error)) return usageError("follow", error);
  long long lines = -1;
  if (options.has("lines") && !parseCount(options.value("lines"), &lines)) {
    return usageError("follow", "bad --lines '" + options.value("lines") +
                                    "': expected a number of events, 0 or more");
  }
  OutputOptions output;
  if (!parseOutputMode(options.value("output", "short"), &output.mode) ||
      output.mode == OutputMode::cat) {
    return usageError(
        "follow", "bad --output '" + options.value("output") + "': expected short, json or jsonl");
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Session session(output, entryFilter, lines, options.has("exit-on-close"));
  StopSignals signals(loop.ptr(), [&session] { session.stop(); });
  Qel::Ptr<Qel::Dir> agents = Qel::Dir::DirIs("agents");
  for (const std::string& path : options.values("socket")) {
    KronlogWriter::WriterDirMount::Ptr mount =
        new KronlogWriter::WriterDirMount(loop.ptr(), agents, Qel::String(path));
    mount->mount()->retryDelaysIs(0.05, 1);
    session.sources().emplace_back(new Source(&session, mount, path));
  }
  const int status = session.run(loop.ptr());
  session.sources().clear();
  return status;
}

}  // namespace KronlogTool
