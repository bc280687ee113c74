// Drives the installed kronlog binary as an operator would: arguments in,
// exit status, stdout and stderr out.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace {

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kronlog-tool-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    unsetenv("KRONLOG_STORE_FILE_PATH");
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs the tool with `args`, its stdout and stderr going to files.
  Result kronlog(std::vector<std::string> args) {
    args.insert(args.begin(), KRONLOG_TOOL);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd : {1, 2}) {
      posix_spawn_file_actions_addopen(&actions, fd, path(fd == 1 ? "out" : "err").c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    pid_t pid;
    Result run;
    const int rc = posix_spawn(&pid, KRONLOG_TOOL, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (rc != 0 || waitpid(pid, &status, 0) != pid) return run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {run.status, slurp(path("out")), slurp(path("err"))};
  }

  void writeFile(const std::string& name, const std::string& text) {
    std::ofstream(path(name), std::ios::binary) << text;
  }

  // A store with one event per element of `events`, given as JSON objects.
  void writeStore(const std::string& name, const std::vector<std::string>& events) {
    std::string json = "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[";
    for (std::size_t i = 0; i < events.size(); ++i) json += (i ? "," : "") + events[i];
    writeFile(name, json + "]}\n");
  }

  static std::string event(double t, const std::string& agent, const std::string& group,
                           const std::string& message) {
    char ts[64];
    std::snprintf(ts, sizeof ts, "%.17g", t);
    return std::string("{\"timestamp\":") + ts + ",\"agentName\":\"" + agent +
           "\",\"messageGroup\":\"" + group + "\",\"message\":\"" + message + "\"}";
  }

  static std::size_t lines(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }

  std::string dir_;
};

// ---- show

// Without --store, the store is the one the environment names.
TEST_F(ToolTest, ShowMergesInTimeOrder) {
  writeStore("s", {event(1700000002, "B", "g", "second"), event(1700000001, "A", "g", "first")});
  setenv("KRONLOG_STORE_FILE_PATH", path("s").c_str(), 1);
  Result r = kronlog({"show"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "2023-11-14T22:13:21.000000Z A g first\n"
            "2023-11-14T22:13:22.000000Z B g second\n");
}

TEST_F(ToolTest, ShowFiltersByAgentGroupAndWindow) {
  writeStore("s", {event(10, "Bgp", "peer", "a"), event(20, "Bgp1", "peer", "b"),
                   event(30, "Bgp", "route", "c"), event(40, "Bgp", "peer", "d")});
  Result r = kronlog({"show", "--store", path("s"), "--agent", "Bgp", "--group", "peer", "--since",
                      "10", "--until", "1970-01-01T00:00:39.5Z", "--output", "jsonl"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(
      r.out,
      "{\"timestamp\":10.0,\"agentName\":\"Bgp\",\"messageGroup\":\"peer\",\"message\":\"a\"}\n");
}

TEST_F(ToolTest, ShowJsonIsOneArray) {
  writeStore("s", {event(1.5, "A", "g", "x\\\"y")});
  Result r = kronlog({"show", "--store", path("s"), "--output", "json"});
  EXPECT_EQ(
      r.out,
      "[{\"timestamp\":1.5,\"agentName\":\"A\",\"messageGroup\":\"g\",\"message\":\"x\\\"y\"}]\n");
}

TEST_F(ToolTest, ShowEscapesControlCharactersSoNoLineCanBeForged) {
  writeStore("s", {event(1, "A", "g", "ok\\n1970-01-01T00:00:00.000000Z root g forged\\u001b[2J")});
  Result r = kronlog({"show", "--store", path("s")});
  EXPECT_EQ(lines(r.out), 1u);
  EXPECT_EQ(r.out,
            "1970-01-01T00:00:01.000000Z A g ok\\n1970-01-01T00:00:00.000000Z root g "
            "forged\\x1b[2J\n");
}

TEST_F(ToolTest, ShowTenThousandEntriesInOrder) {
  std::vector<std::string> events;
  for (int i = 0; i < 10000; ++i) {
    // Interleaved agents, stored out of order.
    events.push_back(event(1700000000 + ((i * 7919) % 10000), "agent" + std::to_string(i % 13),
                           "g" + std::to_string(i % 3), "m" + std::to_string(i)));
  }
  writeStore("s", events);
  Result r = kronlog({"show", "--store", path("s"), "--output", "jsonl"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(lines(r.out), 10000u);
  std::vector<double> times;
  for (std::size_t at = 0; (at = r.out.find("{\"timestamp\":", at)) != std::string::npos; ++at) {
    times.push_back(std::strtod(r.out.c_str() + at + 13, nullptr));
  }
  EXPECT_EQ(times.size(), 10000u);
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

// ---- check

TEST_F(ToolTest, CheckAcceptsAGoodStoreAndCountsPerGroup) {
  writeStore("s", {event(1, "A", "g", "x"), event(2, "A", "g", "y"), event(3, "B", "h", "z")});
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("3 events, 3 entries on restore"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("ok: restorable"), std::string::npos);
}

const std::string kHead = "FORMAT: JSON\nVERSION: 1\n";

struct BrokenStore {
  const char* name;
  std::string content;
  const char* reason;  // expected in the one-line message on stderr
  bool fatal;          // a restore would end the process (else: it would drop entries)
  const char* shown;   // what show prints of it
  friend void PrintTo(const BrokenStore& c, std::ostream* os) { *os << c.name; }
};

class BrokenStoreTest : public ToolTest, public ::testing::WithParamInterface<BrokenStore> {};

TEST_P(BrokenStoreTest, CheckReportsWithoutCrashing) {
  writeFile("s", GetParam().content);
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(lines(r.err), 1u) << r.err;
  EXPECT_NE(r.err.find(GetParam().reason), std::string::npos) << r.err;
}

// show refuses a store that would end the process; one that would only drop
// entries is shown with a warning.
TEST_P(BrokenStoreTest, ShowRefusesOrWarnsWithoutCrashing) {
  writeFile("s", GetParam().content);
  Result r = kronlog({"show", "--store", path("s")});
  EXPECT_EQ(r.status, GetParam().fatal ? 1 : 0) << r.err;
  EXPECT_EQ(r.out, GetParam().shown);
  EXPECT_EQ(lines(r.err), 1u) << r.err;
  EXPECT_NE(r.err.find(GetParam().reason), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Stores, BrokenStoreTest,
    ::testing::Values(
        BrokenStore{"Truncated", kHead + "{\"Kronlog\":[{\"timestamp\":1",
                    "JSON syntax error at offset", true, ""},
        BrokenStore{"RootNotObject", kHead + "[1]\n", "root is not an object", true, ""},
        BrokenStore{"EventsNotArray", kHead + "{\"Kronlog\":{}}\n", "\"Kronlog\" is not an array",
                    true, ""},
        BrokenStore{"ElementNotObject", kHead + "{\"Kronlog\":[7]}\n", "event 0 is not an object",
                    true, ""},
        BrokenStore{"TimestampString", kHead + "{\"Kronlog\":[{\"timestamp\":\"1\"}]}\n",
                    "\"timestamp\" that is not a number", true, ""},
        BrokenStore{"MessageNumber", kHead + "{\"Kronlog\":[{\"message\":1}]}\n",
                    "\"message\" that is not a string", true, ""},
        BrokenStore{"CrLf", "FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n", "not \"JSON\"",
                    false, ""},
        // The rest of the store is still shown.
        BrokenStore{"MissingMember",
                    kHead + "{\"Kronlog\":[{\"timestamp\":1,\"agentName\":\"a\",\"message\":\"m\"},"
                            "{\"timestamp\":2,\"agentName\":\"a\",\"messageGroup\":\"g\","
                            "\"message\":\"m\"}]}\n",
                    "would be dropped", false, "1970-01-01T00:00:02.000000Z a g m\n"}),
    [](const ::testing::TestParamInfo<BrokenStore>& p) { return p.param.name; });

// ---- usage errors: one line on stderr, exit 2

struct BadUsage {
  const char* name;
  std::vector<std::string> args;
  const char* message;
  friend void PrintTo(const BadUsage& c, std::ostream* os) { *os << c.name; }
};

class BadUsageTest : public ToolTest, public ::testing::WithParamInterface<BadUsage> {};

TEST_P(BadUsageTest, OneLineOnStderrAndExit2) {
  Result r = kronlog(GetParam().args);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(lines(r.err), 1u) << r.err;
  EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Args, BadUsageTest,
    ::testing::Values(
        BadUsage{"UnknownCommand", {"frobnicate"}, "unknown command 'frobnicate'"},
        BadUsage{"UnknownOption", {"show", "--colour"}, "unknown option '--colour'"},
        BadUsage{"MissingValue", {"show", "--agent"}, "--agent needs a value"},
        BadUsage{"BadAgentPattern", {"show", "--agent", "("}, "bad --agent pattern"},
        BadUsage{"BadGroupPattern", {"show", "--group", "[a"}, "bad --group pattern"},
        BadUsage{"BadSince", {"show", "--since", "yesterday"}, "bad time 'yesterday'"},
        BadUsage{"BadUntil", {"show", "--until", "2026-02-31T00:00:00Z"}, "bad time"},
        BadUsage{"BadOutput", {"show", "--output", "xml"}, "bad --output 'xml'"},
        BadUsage{"RepeatedOption", {"check", "--store", "a", "--store", "b"}, "given twice"},
        BadUsage{"StrayArgument", {"check", "store"}, "unexpected argument"}),
    [](const ::testing::TestParamInfo<BadUsage>& p) { return p.param.name; });

TEST_F(ToolTest, MissingStoreIsADataError) {
  Result r = kronlog({"show", "--store", path("absent")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot open " + path("absent")), std::string::npos) << r.err;
}

TEST_F(ToolTest, HelpAndVersion) {
  for (const char* command : {"show", "check", "demo"}) {
    Result r = kronlog({command, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind(std::string("usage: kronlog ") + command, 0), 0u) << r.out;
  }
  Result v = kronlog({"--version"});
  EXPECT_EQ(v.status, 0);
  EXPECT_EQ(v.out.rfind("kronlog ", 0), 0u);
}

TEST_F(ToolTest, RelativeTimesCountBackFromNow) {
  writeStore("s", {event(1000, "A", "g", "long ago"), event(2e9, "A", "g", "future")});
  Result r = kronlog({"show", "--store", path("s"), "--since", "-1d"});
  EXPECT_EQ(r.out, "2033-05-18T03:33:20.000000Z A g future\n");
}

// ---- the demo

TEST_F(ToolTest, DemoRunsEndToEndAndLeavesARestorableStore) {
  Result r = kronlog({"demo", "--store", path("demo")});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* step : {"1. agents record", "2. a reader merges", "3. a saver writes",
                           "4. after the restart", "5. the whole store"}) {
    EXPECT_NE(r.out.find(step), std::string::npos) << step;
  }
  Result check = kronlog({"check", "--store", path("demo")});
  EXPECT_EQ(check.status, 0) << check.out;
}

}  // namespace
