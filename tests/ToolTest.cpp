// Drives the installed kronlog binary as an operator would: arguments in,
// exit status, stdout and stderr out.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/StoreFiles.h"
#include "testing/TempDir.h"

extern char** environ;

namespace {

using KronlogTesting::storeEntry;
using KronlogTesting::storeOf;

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// How a run is wired, beyond its arguments.
struct RunWith {
  std::vector<std::string> env;   // NAME=value added to (or replacing in) the environment
  std::string stdinPath;          // standard input from this file (else /dev/null)
  std::string stdoutPath;         // standard output to this file (else captured)
  bool stdoutClosedPipe = false;  // standard output into a pipe nobody reads

  static RunWith withEnv(std::vector<std::string> vars) {
    RunWith r;
    r.env = std::move(vars);
    return r;
  }
  static RunWith stdinFrom(const std::string& file) {
    RunWith r;
    r.stdinPath = file;
    return r;
  }
  static RunWith stdoutTo(const std::string& file) {
    RunWith r;
    r.stdoutPath = file;
    return r;
  }
};

std::string slurp(const std::string& path) {
  return KronlogTesting::readFile(path);
}

// Waits for `pid`, killing it after a minute: a tool that hangs (on a FIFO
// it opens twice, say) fails its test instead of stalling the suite.
bool waitWithin(pid_t pid, int* status) {
  for (int tenths = 0; tenths < 600; ++tenths) {
    const pid_t done = waitpid(pid, status, WNOHANG);
    if (done == pid) return true;
    if (done < 0) return false;
    ::usleep(100 * 1000);
  }
  ::kill(pid, SIGKILL);
  return waitpid(pid, status, 0) == pid;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv("KRONLOG_STORE_FILE_PATH"); }

  std::string path(const std::string& name) const { return dir_.pathIn(name); }

  // Runs the installed tool with `args`; stdout and stderr go to files.
  Result kronlog(std::vector<std::string> args, const RunWith& run = {}) {
    args.insert(args.begin(), KRONLOG_TOOL);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env = run.env;
    for (char** e = environ; *e; ++e) {
      const std::string entry = *e;
      const std::string name = entry.substr(0, entry.find('='));
      bool replaced = false;
      for (const std::string& mine : run.env) replaced |= mine.rfind(name + "=", 0) == 0;
      if (!replaced) env.push_back(entry);
    }
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(
        &actions, 0, run.stdinPath.empty() ? "/dev/null" : run.stdinPath.c_str(), O_RDONLY, 0);
    int pipeFds[2] = {-1, -1};
    if (run.stdoutClosedPipe) {
      EXPECT_EQ(::pipe(pipeFds), 0);
      posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
      posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    } else {
      posix_spawn_file_actions_addopen(
          &actions, 1, (run.stdoutPath.empty() ? path("out") : run.stdoutPath).c_str(),
          O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    posix_spawn_file_actions_addopen(&actions, 2, path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid;
    Result result;
    const int rc = posix_spawn(&pid, KRONLOG_TOOL, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (run.stdoutClosedPipe) {
      ::close(pipeFds[0]);  // the reader goes away at once
      ::close(pipeFds[1]);
    }
    int status = 0;
    if (rc != 0 || !waitWithin(pid, &status)) return result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = run.stdoutPath.empty() && !run.stdoutClosedPipe ? slurp(path("out")) : "";
    result.err = slurp(path("err"));
    return result;
  }

  void writeFile(const std::string& name, const std::string& bytes) {
    KronlogTesting::writeFile(path(name), bytes);
  }
  // A store with one event per element of `events`, given as JSON objects.
  void writeStore(const std::string& name, const std::vector<std::string>& events) {
    writeFile(name, storeOf(events));
  }
  static std::string event(double t, const std::string& agent, const std::string& group,
                           const std::string& message) {
    return storeEntry(t, agent, group, message);
  }

  static std::size_t lines(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }
  static std::size_t occurrences(const std::string& s, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
  }

  KronlogTesting::TempDir dir_{"kronlog-tool"};
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

const std::string kHead = KronlogTesting::kStoreHeader;
const std::string kGood = storeEntry("2", "a", "g", "m");

// A store that show and check cannot use whole: each says why and where in
// one line on stderr and exits 1; never a crash, never a silent success.
struct BrokenStore {
  const char* name;
  std::string content;
  const char* reason;  // the one line on stderr holds it
  const char* shown;   // what show still prints of it
  friend void PrintTo(const BrokenStore& c, std::ostream* os) { *os << c.name; }
};

class BrokenStoreTest : public ToolTest, public ::testing::WithParamInterface<BrokenStore> {};

TEST_P(BrokenStoreTest, ShowSaysWhyAndWhereAndExits1) {
  writeFile("s", GetParam().content);
  Result r = kronlog({"show", "--store", path("s")});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(r.out, GetParam().shown);
  EXPECT_EQ(lines(r.err), 1u) << r.err;
  EXPECT_NE(r.err.find(GetParam().reason), std::string::npos) << r.err;
}

// check names each problem once, then what a restore would do.
TEST_P(BrokenStoreTest, CheckNamesTheProblemOnceAndExits1) {
  writeFile("s", GetParam().content);
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(lines(r.err), 2u) << r.err;
  EXPECT_EQ(occurrences(r.out + r.err, GetParam().reason), 1u) << r.out << r.err;
  EXPECT_EQ(r.out.find("ok: restorable"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Stores, BrokenStoreTest,
    ::testing::Values(
        BrokenStore{"Empty", "", "byte 0: the file is empty", ""},
        BrokenStore{"CrLf", "FORMAT: JSON\r\nVERSION: 1\r\n{\"Kronlog\":[]}\r\n",
                    "byte 0: line 1 names the format \"JSON\\r\", not \"JSON\": the file has CR LF",
                    ""},
        BrokenStore{"ByteOrderMark", "\xEF\xBB\xBF" + kHead + "{\"Kronlog\":[]}\n",
                    "the file begins with a byte-order mark", ""},
        BrokenStore{"Garbage",
                    "\x7f"
                    "ELF\x02\x01\x01",
                    "it is not a store file", ""},
        BrokenStore{"HeaderOnly", kHead, "byte 24: no JSON after the two header lines", ""},
        BrokenStore{"Truncated", kHead + "{\"Kronlog\":[{\"timestamp\":1",
                    "byte 50: JSON syntax error", ""},
        BrokenStore{"DeeplyNested", kHead + std::string(150000, '['),
                    "byte 1024: JSON nested deeper than 1000 levels", ""},
        BrokenStore{"RootNotObject", kHead + "[1]\n", "byte 24: the JSON root is not an object",
                    ""},
        BrokenStore{"NoKronlogMember", kHead + "{\"kronlog\":[]}\n", "has no \"Kronlog\" member",
                    ""},
        BrokenStore{"EventsNotArray", kHead + "{\"Kronlog\":{}}\n", "\"Kronlog\" is not an array",
                    ""},
        BrokenStore{"ElementNotObject", kHead + "{\"Kronlog\":[7]}\n",
                    "byte 36: event 0 is not an object", ""},
        BrokenStore{"TimestampString", storeOf(storeEntry("\"1\"", "a", "g", "m")),
                    "event 0: \"timestamp\" is not a number", ""},
        // The rest of the store is still shown.
        BrokenStore{"MissingMember",
                    storeOf({"{\"timestamp\":1,\"agentName\":\"a\",\"message\":\"m\"}", kGood}),
                    "byte 36: event 0 lacks \"messageGroup\"",
                    "1970-01-01T00:00:02.000000Z a g m\n"},
        BrokenStore{"ExtraMember",
                    storeOf("{\"timestamp\":2,\"agentName\":\"a\",\"messageGroup\":\"g\","
                            "\"message\":\"m\",\"extra\":0}"),
                    "event 0 has 5 members, not 4, so a restore adds it 2 times",
                    "1970-01-01T00:00:02.000000Z a g m\n1970-01-01T00:00:02.000000Z a g m\n"},
        BrokenStore{"NulInMessage", storeOf(storeEntry("2", "a", "g", "m\\u0000hidden")),
                    "\"message\" holds a NUL byte", "1970-01-01T00:00:02.000000Z a g m\n"}),
    [](const ::testing::TestParamInfo<BrokenStore>& p) { return p.param.name; });

// ---- the defects found in use

// 256 entries never finish restoring: check says so, with the count.
TEST_F(ToolTest, CheckRefusesAStoreTheRestorerWouldNeverFinish) {
  std::vector<std::string> events(300, kGood);
  writeStore("s", events);
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("300 entries: the restorer walks at most 255 and on this store would never "
                       "finish"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("a restore would never finish"), std::string::npos) << r.err;
  EXPECT_EQ(r.out.find("ok: restorable"), std::string::npos);
  events.resize(255);
  writeStore("s", events);
  EXPECT_EQ(kronlog({"check", "--store", path("s")}).status, 0);
}

TEST_F(ToolTest, ShowReadsALargeStoreTheRestorerCannot) {
  writeStore("s", std::vector<std::string>(300, kGood));
  Result r = kronlog({"show", "--store", path("s"), "--output", "cat"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines(r.out), 300u);
  EXPECT_EQ(r.err, "");
}

TEST_F(ToolTest, ShowReadsStandardInputOnce) {
  writeStore("s", {event(1, "A", "g", "from stdin")});
  Result r = kronlog({"show", "--store", "-", "--output", "cat"}, RunWith::stdinFrom(path("s")));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "from stdin\n");
}

TEST_F(ToolTest, ShowReadsAFifoOnce) {
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  const std::string bytes = storeOf({event(1, "A", "g", "through a fifo")});
  const pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    const int fd = ::open(path("fifo").c_str(), O_WRONLY);
    const bool ok = fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
    ::_exit(ok ? 0 : 1);
  }
  Result r = kronlog({"show", "--store", path("fifo"), "--output", "cat"});
  // A tool that never opened the FIFO leaves the writer waiting for a reader.
  const int unblock = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  int status = 0;
  ::waitpid(writer, &status, 0);
  ::close(unblock);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "through a fifo\n");
}

TEST_F(ToolTest, AWriteErrorIsReportedAndExits1) {
  writeStore("s", {kGood});
  Result r = kronlog({"show", "--store", path("s")}, RunWith::stdoutTo("/dev/full"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kronlog show: cannot write the output: No space left on device\n");
}

TEST_F(ToolTest, AClosedPipeEndsQuietly) {
  writeStore("s", std::vector<std::string>(20000, kGood));  // more than a pipe holds
  RunWith run;
  run.stdoutClosedPipe = true;
  Result r = kronlog({"show", "--store", path("s")}, run);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
}

TEST_F(ToolTest, ErrorMessagesEscapeTheBytesTheyQuote) {
  writeFile("s", "FORMAT: \x1b]0;owned\x07\x1b[2J\rX\n");
  Result r = kronlog({"show", "--store", path("s")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.find('\x1b'), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find('\r'), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("\\x1b]0;owned\\x07\\x1b[2J\\rX"), std::string::npos) << r.err;
}

// Not valid UTF-8: an array of the bytes, in every command that writes JSON.
TEST_F(ToolTest, JsonOutputStaysValidForTextThatIsNotUtf8) {
  writeStore("s", {event(1, "A\xff", "g", "caf\xe9 \xc3\xbc")});
  const std::string object =
      "{\"timestamp\":1.0,\"agentName\":[65,255],\"messageGroup\":\"g\",\"message\":[99,97,102,"
      "233,32,195,188]}";
  EXPECT_EQ(kronlog({"show", "--store", path("s"), "-o", "jsonl"}).out, object + "\n");
  EXPECT_EQ(kronlog({"show", "--store", path("s"), "-o", "json"}).out, "[" + object + "]\n");
}

TEST_F(ToolTest, UnfilteredShowKeepsNamesWithLineFeeds) {
  writeStore("s", {event(1, "two\\nlines", "g\\r", "kept")});
  Result r = kronlog({"show", "--store", path("s")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "1970-01-01T00:00:01.000000Z two\\nlines g\\r kept\n");
  // A given pattern keeps the reader's rules: '.' does not match a line feed.
  EXPECT_EQ(kronlog({"show", "--store", path("s"), "--agent", ".*"}).out, "");
}

TEST_F(ToolTest, EqualTimestampsKeepTheStoresOrder) {
  writeStore("s", {event(5, "Zeta", "g", "first"), event(5, "Alpha", "g", "second"),
                   event(5, "Mid", "g", "third")});
  EXPECT_EQ(kronlog({"show", "--store", path("s"), "-o", "cat"}).out, "first\nsecond\nthird\n");
}

TEST_F(ToolTest, ADirectoryOrAMissingDefaultSaysWhatToDo) {
  Result dir = kronlog({"show", "--store", dir_.path()});
  EXPECT_EQ(dir.status, 1);
  EXPECT_EQ(dir.err, "kronlog show: " + dir_.path() +
                         " is a directory: give the store file in it, e.g. --store " + dir_.path() +
                         "/kronlog-persistent-store\n");
  Result missing =
      kronlog({"check"}, RunWith::withEnv({"KRONLOG_STORE_FILE_PATH=" + path("none")}));
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "kronlog check: no store at " + path("none") +
                             " (the default): give one with --store PATH, or set "
                             "KRONLOG_STORE_FILE_PATH\n");
}

TEST_F(ToolTest, DemoSaysTheSaveFailedWhenItDid) {
  Result r = kronlog({"demo", "--store", path("no/such/dir/store")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.find("saved"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("the save to " + path("no/such/dir/store") + " failed"), std::string::npos)
      << r.err;
}

TEST_F(ToolTest, HelpNamesACommand) {
  Result r = kronlog({"help", "show"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kronlog({"show", "--help"}).out);
  EXPECT_EQ(kronlog({"help", "frob"}).status, 2);
}

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
        BadUsage{"BadSince", {"show", "--since", "the day before"}, "bad time 'the day before'"},
        BadUsage{"BadLines", {"show", "-n", "ten"}, "bad --lines 'ten'"},
        BadUsage{"BadGrep", {"show", "-g", "a{"}, "bad --grep pattern 'a{'"},
        BadUsage{"BadFields", {"show", "--fields", "host"}, "unknown field 'host'"},
        BadUsage{"FieldsNotShort", {"show", "-o", "json", "--fields", "time"}, "--fields chooses"},
        BadUsage{"Follow", {"show", "-f"}, "'-f': following new events is the 'follow' command"},
        BadUsage{"BadUntil", {"show", "--until", "2026-02-31T00:00:00Z"}, "bad time"},
        BadUsage{
            "BadOutput", {"show", "--output", "xml"}, "bad --output 'xml': expected short, cat"},
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

// ---- what operators reach for, combined where faults hide

class ShowOptionsTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    writeStore("a", {event(10, "Bgp", "peer", "peer down"), event(20, "Ospf", "adj", "adj up"),
                     event(30, "Bgp", "route", "route add"), event(40, "bgp", "Peer", "PEER UP"),
                     event(50, "Lldp", "nbr", "neighbor seen")});
    writeStore("b", {event(15, "Stp", "port", "port blocked"), event(30, "Stp", "port", "port up"),
                     event(60, "Stp", "port", "port forwarding")});
  }
  std::string cat(std::vector<std::string> args) {
    args.insert(args.begin(), {"show", "--store", path("a"), "-o", "cat"});
    Result r = kronlog(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  }
};

TEST_F(ShowOptionsTest, LinesReverseAndFiltersCombine) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-n", "2"}, "PEER UP\nneighbor seen\n"},
      {{"-r"}, "neighbor seen\nPEER UP\nroute add\nadj up\npeer down\n"},
      {{"-n", "2", "-r"}, "neighbor seen\nPEER UP\n"},
      {{"-rn2", "--agent", "Bgp"}, "route add\npeer down\n"},
      {{"--lines", "1", "--until", "35"}, "route add\n"},
      {{"-n", "0"}, ""},
      {{"--agent", "Bgp", "--agent", "Lldp"}, "peer down\nroute add\nneighbor seen\n"},
      {{"--agent", "bgp", "-i"}, "peer down\nroute add\nPEER UP\n"},
      {{"--group", "peer", "-i", "-n", "1"}, "PEER UP\n"},
      {{"-g", "up"}, "adj up\n"},
      {{"-ig", "up$", "-r"}, "PEER UP\nadj up\n"},
      {{"-g", "o", "--agent", "Bgp|Ospf", "--group", "adj|route"}, "route add\n"},
  };
  for (const auto& [args, out] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    EXPECT_EQ(cat(args), out);
  }
}

TEST_F(ShowOptionsTest, SeveralStoresMergeByTimeWithinAWindow) {
  Result r = kronlog({"show", "--store", path("a"), "--store", path("b"), "--since", "15",
                      "--until", "50", "-o", "cat"});
  EXPECT_EQ(r.status, 0) << r.err;
  // At 30 the first store's event comes first, as the stores were given.
  EXPECT_EQ(r.out, "port blocked\nadj up\nroute add\nport up\nPEER UP\nneighbor seen\n");
  Result fromStdin = kronlog({"show", "--store", path("b"), "--store", "-", "-n", "2", "-o", "cat"},
                             RunWith::stdinFrom(path("a")));
  EXPECT_EQ(fromStdin.out, "neighbor seen\nport forwarding\n");
}

TEST_F(ShowOptionsTest, OneBrokenStoreAmongSeveralIsReportedAndTheOthersShown) {
  writeFile("broken", "FORMAT: XML\n");
  Result r = kronlog({"show", "--store", path("b"), "--store", path("broken"), "-o", "cat"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "port blocked\nport up\nport forwarding\n");
  EXPECT_EQ(lines(r.err), 1u) << r.err;
}

TEST_F(ShowOptionsTest, FieldsAndLocalTime) {
  const RunWith berlin = RunWith::withEnv({"TZ=Europe/Berlin"});
  Result r = kronlog({"show", "--store", path("a"), "-n", "1", "--localtime"}, berlin);
  EXPECT_EQ(r.out, "1970-01-01T01:00:50.000000+01:00 Lldp nbr neighbor seen\n");
  r = kronlog({"show", "--store", path("a"), "-n", "1", "--fields", "group,time"}, berlin);
  EXPECT_EQ(r.out, "nbr 1970-01-01T00:00:50.000000Z\n");
}

TEST_F(ShowOptionsTest, TimesAsPeopleTypeThem) {
  writeStore("t", {event(1795255200 - 86400, "A", "g", "the day before"),
                   event(1795255200, "A", "g", "at ten UTC"),
                   event(1795255200 + 3600, "A", "g", "an hour later")});
  const RunWith berlin = RunWith::withEnv({"TZ=Europe/Berlin"});
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--since", "2026-11-21 11:00"}, "at ten UTC\nan hour later\n"},
      {{"--since", "2026-11-21T11:00:00+02:00"}, "at ten UTC\nan hour later\n"},
      {{"--until", "2026-11-21T10:59:59Z"}, "the day before\nat ten UTC\n"},
      {{"--since", "2026-11-21", "--until", "2026-11-21 11:00"}, "at ten UTC\n"},
      {{"--since", "yesterday"}, ""},
  };
  for (const auto& [args, out] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    std::vector<std::string> all = {"show", "--store", path("t"), "-o", "cat"};
    all.insert(all.end(), args.begin(), args.end());
    Result r = kronlog(all, berlin);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out);
  }
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
