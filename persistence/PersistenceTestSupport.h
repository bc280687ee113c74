// What the persistence tests share: a private directory per test with the
// store path pointed into it, a sink that keeps every trace record, and
// small readers of files and status logs.
//
// Every test gets a fresh directory and its own KRONLOG_STORE_FILE_PATH,
// and gets back the environment, the trace levels and the sink it found,
// so tests cannot see each other's files or traces.
#ifndef KRONLOG_PERSISTENCE_PERSISTENCETESTSUPPORT_H
#define KRONLOG_PERSISTENCE_PERSISTENCETESTSUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "qel/String.h"
#include "qel/Trace.h"
#include "support/TraceCapture.h"

namespace KronlogTest {

namespace fs = std::filesystem;

constexpr std::uint32_t kAllLevels = 0x7;  // the library traces at 0, 1 and 2
constexpr std::uint32_t kLevel0 = 0x1;

constexpr char kJsonDoStore[] = "virtual void KronlogStore::JsonStore::doStore()";
constexpr char kJsonDoRestore[] = "virtual void KronlogStore::JsonStore::doRestore()";
constexpr char kGetStoreFilePath[] = "const char* KronlogStore::getStoreFilePath(Qel::String)";

// Lowers the file size limit of the process for its lifetime, so that a
// write past `bytes` fails with EFBIG (and not with a signal).
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &saved_);
    savedHandler_ = ::signal(SIGXFSZ, SIG_IGN);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    ::signal(SIGXFSZ, savedHandler_);
  }

 private:
  rlimit saved_;
  sighandler_t savedHandler_;
};

using KronlogTesting::Seen;

inline Seen seen(unsigned level, const char* file, int line, const char* function,
                 const std::string& text) {
  return {level, file, line, function, text};
}

// A trace of the store's source file.
inline Seen storeTrace(unsigned level, int line, const char* function, const std::string& text) {
  return seen(level, "KronlogStore", line, function, text);
}

// The path resolution trace that opens every store operation.
inline Seen pathTrace(const std::string& path) {
  return storeTrace(1, 33, "getStoreFilePath",
                    std::string(kGetStoreFilePath) + " KRONLOG storeFilePath=" + path);
}

using KronlogTesting::CapturingSink;

inline std::uint64_t bitsOf(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

// One status log entry, compared with its timestamp bit for bit (so 0.0
// and -0.0 differ, and a last-bit change of a restored time shows).
struct Row {
  std::string agentName;
  std::string messageGroup;
  double timestamp;
  std::string message;

  std::uint64_t bits() const { return bitsOf(timestamp); }
  bool operator==(const Row& o) const {
    return agentName == o.agentName && messageGroup == o.messageGroup && bits() == o.bits() &&
           message == o.message;
  }
  bool operator!=(const Row& o) const { return !(*this == o); }
};

inline std::ostream& operator<<(std::ostream& os, const Row& r) {
  char t[64];
  std::snprintf(t, sizeof t, "%.17g (%a)", r.timestamp, r.timestamp);
  return os << "{" << r.agentName << ", " << r.messageGroup << ", " << t << ", \"" << r.message
            << "\"}";
}

inline KronlogReader::Status::Ptr statusOf(const std::vector<Row>& rows) {
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  for (const Row& r : rows) {
    status->logEnq(
        KronlogReader::logEntryFactory(r.agentName, r.messageGroup, r.timestamp, r.message));
  }
  return status;
}

// The entries of a status log by index, head to tail.
inline std::vector<Row> statusRows(const KronlogReader::Status& status) {
  std::vector<Row> rows;
  for (KronlogReader::Status::LogIteratorConst it = status.logIterConst(); it; ++it) {
    const KronlogReader::LogEntry::Ptr& e = it->value();
    rows.push_back({e->agentName().stdString(), e->messageGroup().stdString(), e->timestamp(),
                    e->message().stdString()});
  }
  return rows;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  ASSERT_TRUE(out.good()) << path;
}

// Names of the entries of `dir`, sorted.
inline std::vector<std::string> directoryEntries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// A fresh directory with KRONLOG_STORE_FILE_PATH pointing at "store" in
// it, and trace capture at the given levels.
class PersistenceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kronlog-persist-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
    dir_ = pattern;
    storePath_ = dir_ + "/store";
    if (const char* old = std::getenv(kPathVariable)) savedPath_ = std::string(old);
    ::setenv(kPathVariable, storePath_.c_str(), 1);
    savedLevels_ = Qel::traceLevels("Kronlog");
    Qel::traceLevelsIs("Kronlog", kAllLevels);
    Qel::traceSinkIs(&sink_);
  }

  void TearDown() override {
    Qel::traceSinkIs(nullptr);
    Qel::traceLevelsIs("Kronlog", savedLevels_);
    if (savedPath_) {
      ::setenv(kPathVariable, savedPath_->c_str(), 1);
    } else {
      ::unsetenv(kPathVariable);
    }
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  static constexpr char kPathVariable[] = "KRONLOG_STORE_FILE_PATH";

  void traceLevels(std::uint32_t mask) { Qel::traceLevelsIs("Kronlog", mask); }
  void storePathIs(const std::string& path) { ::setenv(kPathVariable, path.c_str(), 1); }

  const std::string& dir() const { return dir_; }
  const std::string& storePath() const { return storePath_; }
  std::string pathIn(const std::string& name) const { return dir_ + "/" + name; }

  void writeStoreFile(const std::string& bytes) { writeFile(storePath_, bytes); }
  std::string readStoreFile() const { return readFile(storePath_); }
  bool storeFileExists() const { return fs::exists(fs::symlink_status(storePath_)); }

  // A store file of the three lines with `json` as the third.
  void writeStore(const std::string& json) {
    writeStoreFile("FORMAT: JSON\nVERSION: 1\n" + json + "\n");
  }

  void store(const std::vector<Row>& rows) {
    KronlogStore::jsonStoreFactory(statusOf(rows))->doStore();
  }
  // Restores into a fresh status and returns its rows.
  std::vector<Row> restore() {
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    KronlogStore::jsonStoreFactory(status)->doRestore();
    return statusRows(*status);
  }

  const std::vector<Seen>& traces() const { return sink_.records; }
  std::vector<Seen> tracesOf(const char* file) const {
    std::vector<Seen> out;
    for (const Seen& s : sink_.records) {
      if (s.file == file) out.push_back(s);
    }
    return out;
  }
  std::vector<Seen> tracesAt(unsigned level) const {
    std::vector<Seen> out;
    for (const Seen& s : sink_.records) {
      if (s.level == level) out.push_back(s);
    }
    return out;
  }
  void clearTraces() { sink_.records.clear(); }

 private:
  std::string dir_;
  std::string storePath_;
  std::optional<std::string> savedPath_;
  std::uint32_t savedLevels_ = 0;
  CapturingSink sink_;
};

// For tests whose process is meant to die: the store path is saved and
// restored, and files go to anonymous memory (storeInMemoryIs) so a process
// that ends in an assertion leaves nothing on disk. Death tests run in a
// freshly started copy of the test program.
class DeathTestBase : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (const char* old = std::getenv(kPathVariable)) savedPath_ = std::string(old);
  }
  void TearDown() override {
    if (savedPath_) {
      ::setenv(kPathVariable, savedPath_->c_str(), 1);
    } else {
      ::unsetenv(kPathVariable);
    }
  }

  static constexpr char kPathVariable[] = "KRONLOG_STORE_FILE_PATH";

  // Points the store path at an in-memory file holding `bytes`.
  static void storeInMemoryIs(const std::string& bytes) {
    const int fd = ::memfd_create("kronlog-store", 0);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      std::perror("memfd");
      std::_Exit(99);
    }
    ::setenv(kPathVariable, ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
  }

 private:
  std::optional<std::string> savedPath_;
};

}  // namespace KronlogTest

#endif  // KRONLOG_PERSISTENCE_PERSISTENCETESTSUPPORT_H
