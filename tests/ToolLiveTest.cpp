// kronlog emit and kronlog follow as an operator runs them: separate
// processes on a real socket, driven by small shell scripts, the follower
// stopped, the agent restarted, the whole output checked for exactness.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/Command.h"
#include "testing/TempDir.h"

namespace {

struct Seen {
  std::vector<std::pair<long long, long long>> events;  // index, message as a number
  long long slow = 0;
  long long overflow = 0;
  long long lossLines = 0;
};

// Reads follow's jsonl output.
Seen parseJsonl(const std::string& text) {
  static const std::regex kEvent(
      R"re(^\{"timestamp":[^,]+,"agentName":"a","messageGroup":"g","message":"(\d+)","index":(\d+)\}$)re");
  static const std::regex kLoss(
      R"re(^\{"agentName":"a","messageGroup":"g","lost":(\d+),"reason":"(slow|overflow)"(,"fromIndex":\d+,"toIndex":\d+)?\}$)re");
  Seen seen;
  std::istringstream in(text);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, m, kEvent)) {
      seen.events.emplace_back(std::stoll(m[2]), std::stoll(m[1]));
    } else if (std::regex_match(line, m, kLoss)) {
      (m[2] == "slow" ? seen.slow : seen.overflow) += std::stoll(m[1]);
      ++seen.lossLines;
      EXPECT_EQ(m[2] == "slow", m[3].matched) << line;  // only slow losses name indices
    } else {
      ADD_FAILURE() << "not an event or a loss: " << line;
    }
  }
  return seen;
}

// `waitFor N TEXT`: waits (at most 20 s) until $D/f holds TEXT N times, so
// a script moves on when the follower has printed, not after a guess.
constexpr char kWaitFor[] =
    "waitFor() { for i in $(seq 200); do\n"
    "  [ \"$(grep -o \"$2\" $D/f 2>/dev/null | wc -l)\" -ge \"$1\" ] && return; sleep 0.1; done; "
    "}\n";

class ToolLiveTest : public ::testing::Test {
 protected:
  // Runs `script` with K (the tool) and D (a scratch directory) set; what
  // it prints to standard output.
  std::string sh(const std::string& script) {
    KronlogTesting::writeFile(dir_.pathIn("run.sh"), "K='" KRONLOG_TOOL "'\nD='" + dir_.path() +
                                                         "'\n" + kWaitFor + script);
    return KronlogTesting::commandOutput("sh '" + dir_.pathIn("run.sh") + "'");
  }
  std::string file(const std::string& name) { return KronlogTesting::readFile(dir_.pathIn(name)); }

  KronlogTesting::TempDir dir_{"kronlog-live"};
};

// A follower stopped while the agent records 20,000 long events into a
// writer of 100: what it missed is reported as slow losses, and events plus
// losses add up exactly, each event carrying the line recorded at its index.
TEST_F(ToolLiveTest, EventsPlusSlowLossesAddUpAcrossAStoppedFollower) {
  std::string rc =
      sh("$K follow --socket $D/s --exit-on-close --output jsonl > $D/f 2> $D/e & F=$!\n"
         "(sleep 1; seq -f '%060g' 1 10000; sleep 0.3; kill -STOP $F;\n"
         " seq -f '%060g' 10001 20000; sleep 0.5; kill -CONT $F) |\n"
         "  $K emit --agent a --group g --socket $D/s --size 100\n"
         "echo emit=$?; wait $F; echo follow=$?\n");
  EXPECT_EQ(rc, "emit=0\nfollow=0\n") << file("e");
  Seen seen = parseJsonl(file("f"));
  EXPECT_GT(seen.slow, 0);
  EXPECT_EQ(seen.overflow, 0);
  EXPECT_EQ(static_cast<long long>(seen.events.size()) + seen.slow, 20000);
  long long last = -1;
  for (const auto& [index, message] : seen.events) {
    EXPECT_EQ(message, index + 1);
    EXPECT_GT(index, last);  // in order, never twice
    last = index;
  }
}

// The agent ends and a new process serves the same path: its indices start
// over at 0, and the follower starts over with them instead of waiting for
// them to pass the old ones, saying on stderr that the agent restarted.
TEST_F(ToolLiveTest, FollowerStartsOverWhenTheAgentIsRestarted) {
  std::string rc =
      sh("$K follow --socket $D/s --output jsonl > $D/f 2> $D/e & F=$!\n"
         "(sleep 1; seq 1 5) | $K emit --agent a --group g --socket $D/s\n"
         "(sleep 1; seq 101 103) | $K emit --agent a --group g --socket $D/s\n"
         "waitFor 8 '\"index\"'; kill -TERM $F; wait $F; echo follow=$?\n");
  EXPECT_EQ(rc, "follow=0\n");
  Seen seen = parseJsonl(file("f"));
  EXPECT_EQ(seen.events,
            (std::vector<std::pair<long long, long long>>{
                {0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}, {0, 101}, {1, 102}, {2, 103}}));
  EXPECT_EQ(seen.lossLines, 0);
  EXPECT_NE(file("e").find("agent a was restarted"), std::string::npos) << file("e");
}

// A full keep-first writer refuses; the follower says how many, in words.
TEST_F(ToolLiveTest, RefusedEventsAreOverflowLines) {
  sh("$K follow --socket $D/s --exit-on-close > $D/f & F=$!\n"
     "(sleep 1; seq 1 10) | $K emit --agent a --group g --socket $D/s --size 4 --keep first\n"
     "wait $F\n");
  const std::string out = file("f");
  std::smatch m;
  long long refused = 0;
  for (std::string::const_iterator at = out.begin(); std::regex_search(
           at, out.end(), m,
           std::regex(R"( a g -- lost (\d+) events: refused by the full writer \(overflow\)\n)"));
       at = m[0].second) {
    refused += std::stoll(m[1]);
  }
  EXPECT_EQ(refused, 6) << out;
  EXPECT_NE(out.find("Z a g 4\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("Z a g 5\n"), std::string::npos) << out;
}

// --lines keeps the last events held at the start; SIGTERM then ends the
// follow with its json array closed.
TEST_F(ToolLiveTest, LinesKeepsTheLastEventsAndSigtermClosesTheOutput) {
  std::string rc =
      sh("(seq 1 10; sleep 3) | $K emit --agent a --group g --socket $D/s & E=$!\n"
         "sleep 0.3; $K follow --socket $D/s -n 3 --output json > $D/f & F=$!\n"
         "waitFor 3 '\"index\"'; kill -TERM $F; wait $F; echo follow=$?; kill $E\n");
  EXPECT_EQ(rc, "follow=0\n");
  static const std::regex kArray(
      R"(^\[\{[^}]*"message":"8","index":7\},\{[^}]*"message":"9","index":8\},)"
      R"(\{[^}]*"message":"10","index":9\}\]\n$)");
  EXPECT_TRUE(std::regex_match(file("f"), kArray)) << file("f");
}

// Two agents, one of which ends early: the collector saves both, on its
// timer and when it is told to stop, with the library's saver (the store
// it writes reads back whole).
TEST_F(ToolLiveTest, CollectorSavesEveryAgentAlsoOneThatWentAway) {
  std::string rc =
      sh("$K collect --socket $D/a --socket $D/b --store $D/store --every 0.2 2> $D/e & C=$!\n"
         "(sleep 1; seq 1 3) | $K emit --agent A --group g --socket $D/a\n"
         "(sleep 1; seq 4 5; sleep 5) | $K emit --agent B --group h --socket $D/b & B=$!\n"
         "sleep 3; kill -TERM $C; wait $C; echo collect=$?; kill $B\n"
         "$K check --store $D/store > /dev/null; echo check=$?\n"
         "$K show --store $D/store --fields agent,group,message\n");
  EXPECT_EQ(rc, "collect=0\ncheck=0\nA g 1\nA g 2\nA g 3\nB h 4\nB h 5\n") << file("e");
}

TEST_F(ToolLiveTest, UsageAndServingErrorsAreOneLineWithTheirExitStatus) {
  const struct {
    const char* args;
    int status;
    const char* message;
  } kCases[] = {
      {"emit --group g", 2, "kronlog emit: --agent NAME is required"},
      {"emit --agent a --group g --size -1", 2, "kronlog emit: bad --size '-1'"},
      {"emit --agent a --group g --size 4294967296", 2, "kronlog emit: bad --size"},
      {"emit --agent a --group g --keep middle", 2, "kronlog emit: bad --keep 'middle'"},
      {"emit --agent a --group g --socket /nonexistent/dir/s", 1,
       "kronlog emit: cannot create socket directory /nonexistent/dir: No such file or directory"},
      {"follow", 2, "kronlog follow: --socket PATH is required"},
      {"follow --socket x -o cat", 2, "kronlog follow: bad --output 'cat'"},
      {"follow --socket x --agent '('", 2, "kronlog follow: "},
      {"follow --socket x -n many", 2, "kronlog follow: bad --lines 'many'"},
      {"follow --socket x --socket /etc/passwd", 2,
       "kronlog follow: --socket /etc/passwd is not a socket"},
      {"collect --store s", 2, "kronlog collect: --socket PATH is required"},
      {"collect --socket x", 2, "kronlog collect: --store FILE is required"},
      {"collect --socket x --store s --every 0", 2, "kronlog collect: bad --every '0'"},
      {"collect --socket /etc/passwd --store s", 2,
       "kronlog collect: --socket /etc/passwd is not a socket"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.args);
    const std::string out = sh(std::string("$K ") + c.args + " < /dev/null 2> $D/e; echo $?\n");
    EXPECT_EQ(out, std::to_string(c.status) + "\n");
    const std::string err = file("e");
    EXPECT_EQ(err.rfind(c.message, 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }
}

}  // namespace
