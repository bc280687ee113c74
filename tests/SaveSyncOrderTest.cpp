// The order in which a save makes its store durable, watched from outside
// with strace: the new content is synced in its temporary file, then renamed
// over the store, then the directory is synced. In any other order a power
// cut could leave the store renamed but empty, or the rename itself lost.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "testing/Command.h"
#include "testing/TempDir.h"

namespace {

namespace fs = std::filesystem;
using KronlogTesting::commandOutput;

// The calls that order durability, one text each: "fsync <path of the fd>"
// or "rename <from> <to>" (rename, renameat and renameat2 alike). Failed
// calls are kept, marked with their result.
std::vector<std::string> syncCalls(const std::string& straceLog) {
  static const std::regex call(
      R"(^(?:\[pid +\d+\] |\d+ +)?(f(?:data)?sync|rename(?:at2?)?)\((.*)\) += (-?\d+))");
  static const std::regex fdPath(R"(^\d+<(.*)>$)");
  static const std::regex quoted(R"re("((?:[^"\\]|\\.)*)")re");
  std::vector<std::string> calls;
  std::istringstream in(straceLog);
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, call)) continue;
    const std::string name = m[1], args = m[2], result = m[3] == "0" ? "" : " = " + m[3].str();
    std::smatch p;
    if (name.find("sync") != std::string::npos) {
      const std::string fd = args;
      calls.push_back("fsync " + (std::regex_match(fd, p, fdPath) ? p[1].str() : fd) + result);
      continue;
    }
    std::string text = "rename";
    for (auto it = std::sregex_iterator(args.begin(), args.end(), quoted);
         it != std::sregex_iterator(); ++it) {
      text += " " + (*it)[1].str();
    }
    calls.push_back(text + result);
  }
  return calls;
}

class SaveSyncOrderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(commandOutput("command -v strace").empty())
        << "strace is needed: scripts/ensure-deps.sh test installs it";
  }
  // Saves once under strace; the calls seen, and the saving process's id.
  std::vector<std::string> saveUnderStrace(std::string* pid) {
    const std::string log = dir_.pathIn("strace.log");
    // LeakSanitizer cannot run under ptrace; in a sanitizer build it would
    // end the traced program at exit.
    *pid = commandOutput(
        "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 "
        "KRONLOG_STORE_FILE_PATH='" +
        store() + "' strace -f -qq -y -o '" + log +
        "' -e trace=fsync,fdatasync,rename,renameat,renameat2 " + KRONLOG_SAVE_ONCE);
    if (!pid->empty() && pid->back() == '\n') pid->pop_back();
    return syncCalls(KronlogTesting::readFile(log));
  }
  // The calls a durable save makes, in order, for the saver `pid`.
  std::vector<std::string> durableSave(const std::string& pid) const {
    const std::string temporary = store() + "." + pid + ".tmp";
    return {"fsync " + temporary, "rename " + temporary + " " + store(), "fsync " + directory()};
  }
  std::string directory() const { return fs::canonical(dir_.path()).string(); }
  std::string store() const { return directory() + "/store"; }

  KronlogTesting::TempDir dir_{"kronlog-sync"};
};

// A new store, then one replacing the first.
TEST_F(SaveSyncOrderTest, TheStoreIsSyncedThenRenamedThenItsDirectorySynced) {
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "new store" : "replaced store");
    std::string pid;
    const std::vector<std::string> calls = saveUnderStrace(&pid);
    ASSERT_FALSE(pid.empty()) << "the saving program did not run";
    EXPECT_EQ(calls, durableSave(pid));
    EXPECT_NE(KronlogTesting::readFile(store()).find("event 4"), std::string::npos);
  }
}

}  // namespace
