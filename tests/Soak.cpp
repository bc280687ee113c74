// Soak: an agent's steady state must not grow.
//
//   kronlog_soak [EVENTS [FROM]]     (defaults: 1500000 events, measured from 500000)
//
// One agent records EVENTS events into a directory of a few keepLastEntries
// writers, reads the directory back every 1,000 events and saves it to a
// store file every 100,000, while it serves the directory on a socket that
// a mount in this same process follows through the event loop the soak
// drives. Once every writer is full and the follower has caught up, nothing
// should accumulate: from event FROM to the end, the framework's live
// tracked objects may not grow and the resident set may not grow by more
// than 1 MiB. At the end the follower must have accounted for every event
// (entries received plus events reported lost), having received entries
// all along.
//
// Prints the figures; exits 1 when a check fails.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Allocator.h"
#include "qel/Dir.h"
#include "qel/Trace.h"
#include "qel/stream/EventLoop.h"

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer keeps freed blocks in a quarantine of up to 256 MiB
// before reusing them, which the resident set would show as growth: a
// soak wants freed memory reused at once, as the plain allocator does.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "quarantine_size_mb=0";
}
#endif

namespace {

constexpr std::uint64_t kReadEvery = 1000;
constexpr std::uint64_t kSaveEvery = 100000;
// How often the soak lets the loop run: the served connection's buffer
// takes a few hundred records before the server falls back to marking the
// writers dirty.
constexpr std::uint64_t kLoopEvery = 64;
constexpr long kSlackBytes = 1 << 20;

// The process's resident set, from /proc/self/statm.
long residentBytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  long size = 0, resident = 0;
  if (!f || std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
  if (f) std::fclose(f);
  return resident * ::sysconf(_SC_PAGESIZE);
}

// Every tracked type's live objects.
std::uint64_t liveTracked() {
  std::uint64_t n = 0;
  for (const Qel::TypeAllocator* a : Qel::typeAllocators()) n += a->live();
  return n;
}

// Counts what the mounted copy hands over.
class Follower : public KronlogWriter::WriterDirFollower {
 public:
  explicit Follower(const KronlogWriter::WriterDirMount::Ptr& mount)
      : WriterDirFollower(mount, KronlogWriter::WriterFollower::Start::beginning) {}
  void onEntry(const Qel::Name& writer, unsigned int, const KronlogWriter::LogEntry&) override {
    ++received[writer.stdString()];
  }
  void onLoss(const Qel::Name& writer, const KronlogWriter::WriterFollower::Loss& loss) override {
    lost[writer.stdString()] += loss.count;
  }
  void onRestart() override { ++restarts; }

  std::uint64_t accounted(const std::string& writer) { return received[writer] + lost[writer]; }
  std::uint64_t receivedAll() const {
    std::uint64_t n = 0;
    for (const auto& [name, count] : received) n += count;
    return n;
  }

  std::map<std::string, std::uint64_t> received, lost;
  unsigned restarts = 0;
};

struct Writers {
  const char* name;
  unsigned size;
};
constexpr Writers kWriters[] = {{"peer", 100}, {"adj", 40}, {"route", 300}, {"syslog", 10}};

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t events = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1500000;
  const std::uint64_t from = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : events / 3;
  if (events == 0 || from == 0 || from >= events) {
    std::cerr << "usage: kronlog_soak [EVENTS [FROM]], 0 < FROM < EVENTS\n";
    return 2;
  }
  // Level 0 traces every event: a soak measures the library, not its trace.
  for (const char* facility : {"Kronlog", "KronlogWriter", "Qel"}) Qel::traceLevelsIs(facility, 0);

  char work[] = "/tmp/kronlog-soak-XXXXXX";
  if (!::mkdtemp(work)) return std::perror("mkdtemp"), 2;
  const std::string store = std::string(work) + "/store";
  const std::string socket = std::string(work) + "/agent.sock";
  ::setenv("KRONLOG_STORE_FILE_PATH", store.c_str(), 1);

  int failures = 0;
  auto check = [&](bool ok, const std::string& what) {
    if (!ok) {
      ++failures;
      std::cout << "FAILED: " << what << "\n";
    }
  };

  {
    Qel::EventLoop::Ptr loop = new Qel::EventLoop;
    KronlogWriter::WriterDir::Ptr dir = KronlogWriter::writerDirFactory("Soak");
    std::vector<KronlogWriter::Writer::Ptr> writers;
    std::uint64_t capacity = 0;
    for (const Writers& w : kWriters) {
      writers.push_back(
          dir->writerIs(w.name, KronlogWriter::Config(w.size, KronlogWriter::keepLastEntries)));
      capacity += w.size;
    }
    Qel::Dir::Ptr agents = Qel::dirFactory("agents");
    agents->entityIs(dir);
    KronlogReader::Config::Ptr config = KronlogReader::configFactory();
    config->dirIs(agents);

    Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), dir, socket);
    Qel::Dir::Ptr mounted = Qel::dirFactory("mounted");
    KronlogWriter::WriterDirMount::Ptr mount =
        KronlogWriter::writerDirMount(loop.ptr(), mounted, "Soak", socket);
    Follower follower(mount);

    std::vector<std::uint64_t> recorded(writers.size(), 0);
    std::uint64_t reads = 0, saves = 0, shortReads = 0, receivedAtFrom = 0;
    long rssFrom = 0, rssMax = 0;
    std::uint64_t liveFrom = 0, liveMax = 0;
    const std::string pad(64, 'x');
    std::string message;
    for (std::uint64_t n = 1; n <= events; ++n) {
      const std::size_t w = (n * 7) % writers.size();
      message.assign("event ").append(std::to_string(n)).append(" ");
      message.append(pad, 0, n % pad.size());
      writers[w]->eventIs(message);
      ++recorded[w];
      if (n % kLoopEvery == 0) loop->runOnce(0);
      if (n % kReadEvery == 0) {
        KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
        KronlogReader::readerFactory(config, status);
        ++reads;
        // Once every writer is full, a read sees each of them whole.
        if (n >= capacity * writers.size() && status->logs() != capacity) ++shortReads;
      }
      if (n % kSaveEvery == 0) {
        KronlogSaver::saverFactory(config);
        ++saves;
      }
      if (n == from) {
        rssFrom = residentBytes();
        liveFrom = liveTracked();
        receivedAtFrom = follower.receivedAll();
      } else if (n > from && n % kSaveEvery == 0) {
        // Sampled right after a save, when its buffers are at their largest.
        rssMax = std::max(rssMax, residentBytes());
        liveMax = std::max(liveMax, liveTracked());
      }
    }
    const long rssEnd = residentBytes();
    const std::uint64_t liveEnd = liveTracked();
    rssMax = std::max(rssMax, rssEnd);
    liveMax = std::max(liveMax, liveEnd);

    // The follower catches up once the agent stops recording.
    auto caughtUp = [&] {
      for (std::size_t w = 0; w < writers.size(); ++w) {
        if (follower.accounted(kWriters[w].name) != recorded[w]) return false;
      }
      return true;
    };
    for (int round = 0; round < 100000 && !caughtUp(); ++round) loop->runOnce(0.01);

    struct stat st {};
    const bool saved = ::stat(store.c_str(), &st) == 0;
    std::cout << "events: " << events << " into " << writers.size() << " writers of " << capacity
              << " entries in all; reads: " << reads << ", saves: " << saves << " (store "
              << (saved ? st.st_size : -1) << " bytes)\n"
              << "resident set: " << rssFrom << " bytes at event " << from << ", " << rssEnd
              << " at the end, at most " << rssMax << " after " << from << "\n"
              << "live tracked objects: " << liveFrom << " at event " << from << ", " << liveEnd
              << " at the end, at most " << liveMax << " after " << from << "\n"
              << "follower: " << follower.receivedAll() << " entries received (" << receivedAtFrom
              << " by event " << from << "), ";
    std::uint64_t lostAll = 0;
    for (const auto& [name, count] : follower.lost) lostAll += count;
    std::cout << lostAll << " events reported lost, " << follower.restarts << " restarts\n";

    check(shortReads == 0, std::to_string(shortReads) + " reads missed entries of full writers");
    check(saved && st.st_size > 0, "no store file was saved");
    check(rssMax - rssFrom <= kSlackBytes,
          "the resident set grew by " + std::to_string(rssMax - rssFrom) + " bytes");
    check(liveMax <= liveFrom,
          "live tracked objects grew by " + std::to_string(liveMax - liveFrom));
    check(caughtUp(), "the follower did not account for every event");
    check(receivedAtFrom > 0 && follower.receivedAll() > receivedAtFrom,
          "the follower did not receive entries all along");
    check(follower.restarts == 0, "the follower saw the agent restart");
  }
  ::unlink(store.c_str());
  ::unlink(socket.c_str());
  ::rmdir(work);
  std::cout << (failures == 0 ? "soak passed\n" : "soak FAILED\n");
  return failures == 0 ? 0 : 1;
}
