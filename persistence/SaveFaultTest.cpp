// Faults injected under the store file: a save that fails part-way (a
// file-size limit, a directory that turns read-only, a process killed at a
// random moment) keeps the previous store whole and readable and says why
// in a trace; a restore whose file is removed or replaced while it runs
// reads one whole file or nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogStore.h"
#include "kronlog/KronlogWriter.h"
#include "persistence/AtomicFile.h"
#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

constexpr char kJsonDoStore[] = "virtual void KronlogStore::JsonStore::doStore()";
constexpr char kJsonDoRestore[] = "virtual void KronlogStore::JsonStore::doRestore()";
constexpr uid_t kNobody = 65534;

// `count` events of generation `generation`, each about 100 bytes stored.
std::vector<Row> generation(int generation, int count) {
  std::vector<Row> rows;
  for (int k = 0; k < count; ++k) {
    rows.push_back({"agent" + std::to_string(k % 7), "group" + std::to_string(k % 13),
                    1700000000.0 + k * 0.001 + generation,
                    "generation " + std::to_string(generation) + " event " + std::to_string(k) +
                        " with enough text to make the store large"});
  }
  return rows;
}

// Runs `body` in a forked child and returns the texts of the level-0 traces
// it left, one per line; the child's limits and identity end with it.
std::vector<std::string> runForked(const std::function<void()>& body,
                                   const std::function<std::vector<Seen>()>& traces) {
  int fds[2];
  if (::pipe(fds) != 0) return {"pipe: " + std::string(std::strerror(errno))};
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    body();
    std::string out;
    for (const Seen& s : traces()) {
      if (s.level == 0) out += s.text + "\n";
    }
    const bool written = ::write(fds[1], out.data(), out.size()) == ssize_t(out.size());
    std::_Exit(written ? 0 : 1);
  }
  ::close(fds[1]);
  std::string got;
  char chunk[4096];
  for (ssize_t n; (n = ::read(fds[0], chunk, sizeof chunk)) > 0;) got.append(chunk, size_t(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  std::vector<std::string> lines;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) lines.push_back("child failed");
  for (std::size_t at = 0, lf; (lf = got.find('\n', at)) != std::string::npos; at = lf + 1) {
    lines.push_back(got.substr(at, lf - at));
  }
  return lines;
}

// In a child: gives up the privileges that let root write into a read-only
// directory, keeping write access to `dir` through its ownership.
void dropPrivilegesKeeping(const std::string& dir) {
  if (::geteuid() != 0) return;
  if (::chown(dir.c_str(), kNobody, kNobody) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
      ::setresuid(kNobody, kNobody, kNobody) != 0) {
    std::_Exit(3);
  }
}

// A previous store of 300 events is in place before each test.
class SaveFaultTest : public PersistenceTest {
 protected:
  void SetUp() override {
    PersistenceTest::SetUp();
    traceLevels(0x1);
    store(previousRows_);
    previous_ = readStoreFile();
    clearTraces();
  }
  std::vector<std::string> inChild(const std::function<void()>& body) {
    return runForked(body, [this] { return traces(); });
  }
  // The previous store is in place byte for byte, restores whole, and is
  // alone in its directory.
  // (A torn store is not restored: that would end the test program.)
  void expectPreviousStoreKept() {
    ASSERT_EQ(readStoreFile(), previous_);
    EXPECT_EQ(restore(), previousRows_);
    EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
  }
  // The trace of a save that could not write the store at `path`.
  static std::string notWritten(const std::string& reason, const std::string& path) {
    return std::string(kJsonDoStore) + " Could not write " + path + ": " + reason +
           "; the previous store is kept";
  }
  // In a child: opens the store's temporary file, makes the directory
  // read-only, commits, and drops the file while the directory still is.
  // True when the commit failed with EACCES.
  bool commitAfterTheDirectoryTurnedReadOnly() {
    dropPrivilegesKeeping(dir());
    bool refused = false;
    {
      Kronlog::AtomicFile file;
      const bool opened = file.open(storePath()) && ::chmod(dir().c_str(), 0555) == 0;
      refused = opened && !file.commit("new content") && file.error() == std::strerror(EACCES);
    }
    ::chmod(dir().c_str(), 0755);
    return refused;
  }

  const std::vector<Row> previousRows_ = generation(0, 300);
  const std::vector<Row> nextRows_ = generation(1, 3000);
  std::string previous_;
};

// ---- A file-size limit: write fails with EFBIG wherever the limit falls

class FileSizeLimitTest : public SaveFaultTest {
 protected:
  void SetUp() override {
    SaveFaultTest::SetUp();
    const std::string probe = pathIn("probe");
    storePathIs(probe);
    store(nextRows_);
    nextSize_ = fs::file_size(probe);
    fs::remove(probe);
    storePathIs(storePath());
    clearTraces();
  }
  // The last level-0 trace of a save of the next store under `bytes`.
  std::string saveUnderLimit(rlim_t bytes) {
    const std::vector<std::string> seen = inChild([&] {
      ::signal(SIGXFSZ, SIG_IGN);
      const rlimit limit = {bytes, RLIM_INFINITY};
      if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) std::_Exit(2);
      store(nextRows_);
    });
    return seen.empty() ? "no trace" : seen.back();
  }
  rlim_t nextSize_ = 0;
};

// At the first byte, inside the first line, at the end of the first page,
// in the middle, and one byte short of the end of the new store; a limit of
// exactly its size lets the save through.
TEST_F(FileSizeLimitTest, AnywhereInTheNewStoreItKeepsThePreviousStoreAndTracesWhy) {
  for (rlim_t limit : {rlim_t(0), rlim_t(5), rlim_t(4096), nextSize_ / 2, nextSize_ - 1}) {
    SCOPED_TRACE(limit);
    EXPECT_EQ(saveUnderLimit(limit), notWritten("File too large", storePath()));
    expectPreviousStoreKept();
  }
  EXPECT_EQ(saveUnderLimit(nextSize_), std::string(kJsonDoStore));
  EXPECT_EQ(restore(), nextRows_);
}

// ---- A directory that turns read-only before the rename

// The rename fails, and so does the removal of the temporary file: it stays
// behind under the saver's process id, and the next save is not hindered.
TEST_F(SaveFaultTest, ADirectoryTurnedReadOnlyBeforeTheRenameKeepsThePreviousStore) {
  const auto body = [this] { std::_Exit(commitAfterTheDirectoryTurnedReadOnly() ? 0 : 4); };
  EXPECT_EQ(inChild(body), std::vector<std::string>{}) << "the commit did not fail with EACCES";
  EXPECT_EQ(readStoreFile(), previous_);
  EXPECT_EQ(directoryEntries(dir()).size(), 2u) << "the store and the temporary file";
  store(nextRows_);
  EXPECT_EQ(restore(), nextRows_);
}

// ---- A process killed between the open and the rename

// A pid can come back: the temporary file a killed process left is then
// opened again, and must be replaced, not written into.
TEST_F(SaveFaultTest, ALeftoverTemporaryFileOfTheSameProcessIdIsReplacedWhole) {
  const std::string leftover = storePath() + "." + std::to_string(::getpid()) + ".tmp";
  writeFile(leftover, std::string(1 << 20, 'x'));
  store(nextRows_);
  EXPECT_EQ(restore(), nextRows_);
  EXPECT_EQ(directoryEntries(dir()), std::vector<std::string>{"store"});
}

// Children save two large generations in turn and are killed after a
// random short delay (the seed is printed on failure). After each kill the
// store is one generation byte for byte; the temporary files the kills
// leave do not hinder the next save.
class KilledSaveTest : public SaveFaultTest {
 protected:
  void SetUp() override {
    SaveFaultTest::SetUp();
    traceLevels(0);
    for (int g = 0; g < 2; ++g) {
      statuses_[g] = statusOf(generation(g, 20000));
      KronlogStore::jsonStoreFactory(statuses_[g])->doStore();
      bytes_[g] = readStoreFile();
    }
  }
  // Kills a child that saves in a loop after `delayUs`; its pid.
  pid_t killSaverAfter(unsigned delayUs) {
    const pid_t child = ::fork();
    if (child == 0) {
      for (int g = 0;; g ^= 1) KronlogStore::jsonStoreFactory(statuses_[g])->doStore();
    }
    ::usleep(delayUs);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? child : -1;
  }
  bool isAGeneration(const std::string& bytes) const {
    return bytes == bytes_[0] || bytes == bytes_[1];
  }
  bool leftTemporaryFile(pid_t child) const {
    return fs::exists(storePath() + "." + std::to_string(child) + ".tmp");
  }
  // Kills `kills` savers after random delays of up to 80 ms (the seed is
  // printed on failure), checking the store after each; how many kills
  // landed inside a save (their temporary file stayed), or -1 on a failure.
  int killSaversAtRandom(int kills) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    int interrupted = 0;
    for (int kill = 0; kill < kills; ++kill) {
      const pid_t child = killSaverAfter(std::uniform_int_distribution<unsigned>(0, 80000)(random));
      EXPECT_GT(child, 0) << "the saver ended before it was killed";
      EXPECT_TRUE(isAGeneration(readStoreFile())) << readStoreFile().size() << " bytes, torn";
      if (HasFailure()) return -1;
      interrupted += leftTemporaryFile(child);
    }
    return interrupted;
  }

  KronlogReader::Status::Ptr statuses_[2];
  std::string bytes_[2];
};

TEST_F(KilledSaveTest, EveryKillLeavesOneWholeGenerationAndTheNextSaveWorks) {
  const int interrupted = killSaversAtRandom(16);
  EXPECT_GT(interrupted, 0) << "no kill landed inside a save, so nothing was shown";
  store(nextRows_);
  EXPECT_EQ(restore(), nextRows_);
  EXPECT_EQ(directoryEntries(dir()).size(), 1u + interrupted);
}

// ---- A restore whose file goes away or is replaced meanwhile
//
// A restore opens the store once and reads that file to its end. Done
// cleanly means: a file removed or renamed over after the open is still
// read whole; one gone before the open is traced "Could not open", one that
// cannot be read "Could not read", and neither adds anything. A restore never
// adds part of a store or a mix of two.

class RestoreFaultTest : public PersistenceTest {
 protected:
  void SetUp() override {
    PersistenceTest::SetUp();
    traceLevels(0x1);
  }
  std::string restoreTrace(const std::string& text) const { return kJsonDoRestore + text; }
  // Restores `count` times, each finding `rows[0]`, `rows[1]` or nothing;
  // how many found a store.
  int restoresOfWholeStores(const std::vector<Row> (&rows)[2], int count) {
    int whole = 0;
    for (int k = 0; k < count && !HasFailure(); ++k) {
      const std::vector<Row> got = restore();
      EXPECT_TRUE(got.empty() || got == rows[0] || got == rows[1]) << got.size() << " rows";
      whole += !got.empty();
    }
    return whole;
  }
  // A child that saves `rows[0]` and `rows[1]` in turn, 32 saves, then
  // removes the store, until it is killed.
  pid_t racingSaver(const std::vector<Row> (&rows)[2]) {
    const KronlogReader::Status::Ptr statuses[2] = {statusOf(rows[0]), statusOf(rows[1])};
    const pid_t child = ::fork();
    if (child == 0) {
      for (;;) {
        for (int k = 0; k < 32; ++k) KronlogStore::jsonStoreFactory(statuses[k % 2])->doStore();
        ::unlink(storePath().c_str());
      }
    }
    return child;
  }
};

// A store that turned into a directory (read fails) is traced and adds
// nothing, and a restorer over it goes on with nothing and creates no
// writer. (One gone before the open: StoreTest.ARefusedStore...)
TEST_F(RestoreFaultTest, AnUnreadableStoreIsTracedAndAddsNothing) {
  fs::create_directory(storePath());
  EXPECT_EQ(restore(), std::vector<Row>{});
  EXPECT_EQ(traces().back().text,
            restoreTrace(" Could not read " + storePath() + ": " + std::strerror(EISDIR)));
  KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory("agent0");
  EXPECT_TRUE(KronlogRestorer::restorerFactory(KronlogRestorer::Config(agent))->initialized());
  EXPECT_EQ(agent->writers(), 0u);
}

// A child saves two generations in turn, removing the store after
// every 32 saves, while this process restores again and again: every restore
// finds one whole generation, or no file at all.
TEST_F(RestoreFaultTest, RestoresRacingSavesAndRemovalsEachSeeOneWholeFileOrNone) {
  const std::vector<Row> rows[2] = {generation(0, 2000), generation(1, 2500)};
  store(rows[0]);
  const pid_t child = racingSaver(rows);
  const int whole = restoresOfWholeStores(rows, 300);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_GT(whole, 0) << "no restore found a store, so nothing was shown";
}

}  // namespace
}  // namespace KronlogTest
