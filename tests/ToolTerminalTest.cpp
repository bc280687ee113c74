// The tool on a real terminal, as a person uses it: tmux gives the tool a
// pseudo-terminal, and its screen is read back with the escape sequences
// the tool sent (colour), what the pager did, and how a pipeline ended.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testing/Command.h"
#include "testing/StoreFiles.h"
#include "testing/TempDir.h"

namespace {

std::string run(const std::string& command) {
  return KronlogTesting::commandOutput(command);
}

class ToolTerminalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (run("tmux -V 2>/dev/null").rfind("tmux", 0) != 0) {
      GTEST_SKIP() << "tmux is not installed (scripts/ensure-deps.sh test installs it)";
    }
    std::vector<std::string> events;
    for (int i = 0; i < 100; ++i) {
      events.push_back(KronlogTesting::storeEntry(1700000000.0 + i, "Bgp", "peer",
                                                  "event " + std::to_string(i)));
    }
    KronlogTesting::writeFile(dir_.pathIn("store"), KronlogTesting::storeOf(events));
    socket_ = "kronlog-test-" + std::to_string(::getpid());
  }
  void TearDown() override { run("tmux -L " + socket_ + " kill-server 2>/dev/null"); }

  // Starts `script` (bash) in a fresh 100x30 terminal.
  void start(const std::string& script) {
    KronlogTesting::writeFile(dir_.pathIn("run.sh"), "cd '" + dir_.path() + "'\n" + script);
    run("tmux -L " + socket_ + " new-session -d -x 100 -y 30 \"bash '" + dir_.pathIn("run.sh") +
        "'; sleep 60\"");
  }
  // The screen, escape sequences included.
  std::string screen() { return run("tmux -L " + socket_ + " capture-pane -p -e -t 0"); }
  // The screen once it shows `text` (or after ten seconds).
  std::string screenWith(const std::string& text) {
    std::string s;
    for (int i = 0; i < 200 && (s = screen()).find(text) == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return s;
  }
  void keys(const std::string& keys) { run("tmux -L " + socket_ + " send-keys -t 0 " + keys); }

  std::string tool() const { return std::string(KRONLOG_TOOL) + " show --store store"; }

  KronlogTesting::TempDir dir_{"kronlog-terminal"};
  std::string socket_;
};

TEST_F(ToolTerminalTest, ColourOnATerminalOnlyAndNotWithNoColor) {
  start(tool() + " -n 1 --no-pager; echo =; NO_COLOR=1 " + tool() + " -n 1 --no-pager; echo =; " +
        tool() + " -n 1 --no-pager --no-color; echo =; " + tool() + " -n 1 | cat; echo END");
  const std::string s = screenWith("END");
  const std::size_t first = s.find("=\n");
  ASSERT_NE(first, std::string::npos) << s;
  EXPECT_NE(s.substr(0, first).find("\x1b["), std::string::npos) << "no colour on a terminal";
  // tmux re-renders the colours it was sent; without them the lines are plain.
  EXPECT_EQ(s.substr(first).find("\x1b["), std::string::npos) << s;
  EXPECT_NE(s.find("2023-11-14T22:14:59.000000Z Bgp peer event 99"), std::string::npos) << s;
}

TEST_F(ToolTerminalTest, APagerHoldsALongOutputUntilQuit) {
  start(tool() + "; echo rc=$?");
  std::string s = screenWith("event 20");
  EXPECT_NE(s.find("event 0"), std::string::npos) << s;
  EXPECT_EQ(s.find("event 99"), std::string::npos) << "the pager shows one screen: " << s;
  EXPECT_EQ(s.find("rc="), std::string::npos) << "the tool waits for the pager";
  keys("q");
  s = screenWith("rc=");
  EXPECT_NE(s.find("rc=0"), std::string::npos) << s;
}

TEST_F(ToolTerminalTest, PagerAndNoPagerChoices) {
  start("PAGER='echo paged-by-test; cat >/dev/null' " + tool() + "; echo =; " + tool() +
        " --no-pager -n 2; echo END");
  const std::string s = screenWith("END");
  EXPECT_NE(s.find("paged-by-test"), std::string::npos) << s;
  EXPECT_NE(s.find("event 98"), std::string::npos) << s;  // --no-pager: straight to the terminal
}

}  // namespace
