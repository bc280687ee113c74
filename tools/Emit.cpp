// kronlog emit: a stand-in agent. Each line of standard input becomes one
// event of one writer, served live on a socket while the input lasts.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "kronlog/KronlogWriterStreaming.h"
#include "tools/Commands.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/Usage.h"

namespace KronlogTool {

namespace {

const std::vector<OptionSpec> kEmitOptions = {
    {"agent", 0, true, false}, {"group", 0, true, false}, {"socket", 0, true, false},
    {"size", 0, true, false},  {"keep", 0, true, false},
};

// Events are short texts; a longer line is cut here, so that every event
// fits one stream record with room to spare.
constexpr std::size_t kMaxEventBytes = std::size_t{64} * 1024;
// How long the end of input waits for followers to receive everything.
constexpr double kDrainSeconds = 10;

class LineReader {
 public:
  explicit LineReader(KronlogWriter::Writer* writer) : writer_(writer) {}

  // Reads what standard input has (one read); false at its end or on an
  // error, after recording a last line without its line feed.
  bool readSome() {
    char buf[64 * 1024];
    const ssize_t n = ::read(0, buf, sizeof buf);
    if (n < 0 && errno == EINTR) return true;
    if (n < 0) error_ = errno;
    if (n <= 0) {
      if (!line_.empty()) record();
      return false;
    }
    for (ssize_t i = 0; i < n; ++i) {
      if (buf[i] == '\n') {
        record();
      } else if (line_.size() < kMaxEventBytes) {
        line_.push_back(buf[i]);
      } else {
        cut_ = true;
      }
    }
    return true;
  }
  int error() const noexcept { return error_; }
  unsigned long long linesCut() const noexcept { return linesCut_; }

 private:
  void record() {
    writer_->eventIs(line_);
    line_.clear();
    linesCut_ += cut_ ? 1 : 0;
    cut_ = false;
  }

  KronlogWriter::Writer* writer_;
  std::string line_;
  bool cut_ = false;
  unsigned long long linesCut_ = 0;
  int error_ = 0;
};

bool drained(const Qel::StreamServer& server) {
  for (const Qel::Connection::Ptr& c : server.connections()) {
    if (!c->drained()) return false;
  }
  return true;
}

}  // namespace

int emitCommand(const Args& args) {
  Options options(kEmitOptions);
  if (const int status = startCommand("emit", kEmitUsage, args, options); status >= 0) {
    return status;
  }
  for (const char* required : {"agent", "group"}) {
    if (!options.has(required) || options.value(required).empty()) {
      return usageError("emit", std::string("--") + required + " NAME is required");
    }
  }
  long long size = 10;
  if (options.has("size") && (!parseCount(options.value("size"), &size) || size > 0xFFFFFFFFLL)) {
    return usageError("emit", "bad --size '" + options.value("size") +
                                  "': expected a number of events, 0 to 4294967295");
  }
  const std::string keep = options.value("keep", "last");
  if (keep != "first" && keep != "last") {
    return usageError("emit", "bad --keep '" + keep + "': expected first or last");
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  KronlogWriter::WriterDir::Ptr dir = KronlogWriter::writerDirFactory(options.value("agent"));
  KronlogWriter::Writer::Ptr writer =
      dir->writerIs(options.value("group"),
                    KronlogWriter::Config(static_cast<unsigned int>(size),
                                          keep == "first" ? KronlogWriter::keepFirstEntries
                                                          : KronlogWriter::keepLastEntries));
  Qel::StreamServer::Ptr server;
  try {
    server = KronlogWriter::writerDirServe(loop.ptr(), dir, options.value("socket"));
  } catch (const Qel::Exception& e) {
    std::fprintf(stderr, "kronlog emit: %s\n", escapeForTerminal(e.what()).c_str());
    return kExitData;
  }

  LineReader reader(writer.ptr());
  bool reading = true;
  std::function<void()> readChunk = [&] {
    if (reader.readSome()) {
      loop->timerIs(0, readChunk);
    } else {
      reading = false;
    }
  };
  try {
    loop->fdIs(0, Qel::EventLoop::kReadable, [&](std::uint32_t) {
      if (!reader.readSome()) {
        reading = false;
        loop->fdDel(0);
      }
    });
  } catch (const Qel::Exception&) {
    // epoll refuses regular files (and /dev/null), which never block: read
    // them a chunk per round, serving followers in between.
    loop->timerIs(0, readChunk);
  }
  while (reading) loop->runOnce(-1);

  const double deadline = Qel::EventLoop::monotonicNow() + kDrainSeconds;
  // One round first: a follower whose connection is still in the listen
  // backlog is accepted, and then counts as connected.
  loop->runOnce(0);
  while (!drained(*server) && Qel::EventLoop::monotonicNow() < deadline) loop->runOnce(0.05);

  if (reader.linesCut() > 0) {
    std::fprintf(stderr, "kronlog emit: %llu lines longer than %zu bytes were cut to that length\n",
                 reader.linesCut(), kMaxEventBytes);
  }
  if (reader.error() != 0) {
    std::fprintf(stderr, "kronlog emit: cannot read standard input: %s\n",
                 std::strerror(reader.error()));
    return kExitData;
  }
  return kExitOk;
}

}  // namespace KronlogTool
