// Test support for the persistence suites: a private directory per test with
// the store path pointed into it, every trace record kept, and status logs
// compared row by row. Each test gets back the environment, trace levels and
// sink it found, so tests cannot see each other's files or traces.
#ifndef KRONLOG_TESTING_PERSISTENCETEST_H
#define KRONLOG_TESTING_PERSISTENCETEST_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "qel/Trace.h"
#include "testing/StoreFiles.h"
#include "testing/TempDir.h"
#include "testing/TraceCapture.h"

namespace KronlogTest {

namespace fs = std::filesystem;
using KronlogTesting::directoryEntries;
using KronlogTesting::readFile;
using KronlogTesting::Seen;
using KronlogTesting::writeFile;

constexpr char kPathVariable[] = "KRONLOG_STORE_FILE_PATH";

// Puts the store path variable back as it was found.
class SavedPathVariable {
 public:
  SavedPathVariable() {
    if (const char* old = std::getenv(kPathVariable)) saved_ = std::string(old);
  }
  ~SavedPathVariable() {
    saved_ ? setenv(kPathVariable, saved_->c_str(), 1) : unsetenv(kPathVariable);
  }

 private:
  std::optional<std::string> saved_;
};

// One status log entry. Timestamps compare bit for bit, so that 0.0 and
// -0.0 differ and a last-bit change of a restored time shows.
struct Row {
  std::string agentName, messageGroup;
  double timestamp;
  std::string message;

  bool operator==(const Row& o) const {
    return agentName == o.agentName && messageGroup == o.messageGroup &&
           std::memcmp(&timestamp, &o.timestamp, sizeof timestamp) == 0 && message == o.message;
  }
  friend std::ostream& operator<<(std::ostream& os, const Row& r) {
    return os << "{" << r.agentName << ", " << r.messageGroup << ", " << std::hexfloat
              << r.timestamp << std::defaultfloat << ", \"" << r.message << "\"}";
  }
};

inline KronlogReader::Status::Ptr statusOf(const std::vector<Row>& rows) {
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  for (const Row& r : rows) {
    status->logEnq(
        KronlogReader::logEntryFactory(r.agentName, r.messageGroup, r.timestamp, r.message));
  }
  return status;
}

// The entries of a status log, head to tail.
inline std::vector<Row> statusRows(const KronlogReader::Status& status) {
  std::vector<Row> rows;
  for (auto it = status.logIterConst(); it; ++it) {
    const KronlogReader::LogEntry::Ptr& e = it->value();
    rows.push_back({e->agentName().stdString(), e->messageGroup().stdString(), e->timestamp(),
                    e->message().stdString()});
  }
  return rows;
}

// A fresh directory with the store path pointing at "store" in it, and trace
// capture at every level the library uses (0, 1 and 2).
class PersistenceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    storePath_ = dir_.pathIn("store");
    storePathIs(storePath_);
    traceLevels(0x7);
  }

  void traceLevels(std::uint32_t mask) { Qel::traceLevelsIs("Kronlog", mask); }
  void storePathIs(const std::string& path) { ::setenv(kPathVariable, path.c_str(), 1); }
  const std::string& dir() const { return dir_.path(); }
  const std::string& storePath() const { return storePath_; }
  std::string pathIn(const std::string& name) const { return dir_.pathIn(name); }
  void writeStoreFile(const std::string& bytes) { writeFile(storePath_, bytes); }
  std::string readStoreFile() const { return readFile(storePath_); }

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
  std::vector<Seen> tracesOf(const std::string& file) const {
    std::vector<Seen> out;
    for (const Seen& s : traces()) {
      if (s.file == file) out.push_back(s);
    }
    return out;
  }
  void clearTraces() { sink_.records.clear(); }

 private:
  SavedPathVariable savedPath_;
  KronlogTesting::TempDir dir_{"kronlog-persist"};
  std::string storePath_;
  KronlogTesting::CapturingSink sink_;
};

// For tests whose process is meant to die, each in a fresh copy of the test
// program: the store lives in anonymous memory, so nothing is left on disk.
class DeathTestBase : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

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
  SavedPathVariable savedPath_;
};

}  // namespace KronlogTest

#endif  // KRONLOG_TESTING_PERSISTENCETEST_H
