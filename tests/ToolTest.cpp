// Drives the installed kronlog binary as an operator would: arguments in,
// exit status, stdout and stderr out.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/StoreFiles.h"
#include "testing/TempDir.h"

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
  std::vector<std::string> env;  // NAME=value set in the tool's environment
  std::string stdinPath = {};    // standard input from this file (else /dev/null)
  std::string stdoutPath = {};   // standard output to this file (else captured)
  bool closedPipe = false;       // standard output into a pipe nobody reads
};

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
    int pipeFds[2] = {-1, -1};
    if (run.closedPipe && ::pipe(pipeFds) != 0) return {};
    const std::string in = run.stdinPath.empty() ? "/dev/null" : run.stdinPath;
    const std::string out = run.stdoutPath.empty() ? path("out") : run.stdoutPath;
    const std::string err = path("err");
    const pid_t pid = ::fork();
    if (pid == 0) {
      for (const std::string& e : run.env) ::putenv(const_cast<char*>(e.c_str()));
      const int flags = O_WRONLY | O_CREAT | O_TRUNC;
      ::dup2(::open(in.c_str(), O_RDONLY), 0);
      ::dup2(run.closedPipe ? pipeFds[1] : ::open(out.c_str(), flags, 0644), 1);
      ::dup2(::open(err.c_str(), flags, 0644), 2);
      if (run.closedPipe) ::close(pipeFds[0]);
      ::execv(KRONLOG_TOOL, argv.data());
      ::_exit(127);
    }
    if (run.closedPipe) ::close(pipeFds[0]), ::close(pipeFds[1]);  // the reader goes at once
    int status = 0;
    Result result;
    if (pid < 0 || !waitWithin(pid, &status)) return result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (run.stdoutPath.empty() && !run.closedPipe) result.out = KronlogTesting::readFile(out);
    result.err = KronlogTesting::readFile(err);
    return result;
  }

  void writeFile(const std::string& name, const std::string& bytes) {
    KronlogTesting::writeFile(path(name), bytes);
  }
  // A store with one event per element of `events`, given as JSON objects.
  void writeStore(const std::string& name, const std::vector<std::string>& events) {
    writeFile(name, storeOf(events));
  }
  static std::size_t lines(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }
  static std::size_t occurrences(const std::string& s, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
  }

  KronlogTesting::TempDir dir_{"kronlog-tool"};
};

// ---- show and check

// Far more entries than the restorer walks, stored newest first.
TEST_F(ToolTest, ShowReadsALargeStoreTheRestorerCannotInOrder) {
  std::vector<std::string> events;
  std::string expected;
  for (int i = 10000; i-- > 0;) events.push_back(storeEntry(i, "A", "g", "m" + std::to_string(i)));
  for (int i = 0; i < 10000; ++i) expected += "m" + std::to_string(i) + "\n";
  writeStore("s", events);
  Result r = kronlog({"show", "--store", path("s"), "-o", "cat"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");  // no word of the restorer's limit
  EXPECT_EQ(r.out, expected);
}

// Names and messages of any length are matched without exhausting the
// stack; a pattern with back-references, which only the backtracking
// matcher takes, is refused for them with a reason.
TEST_F(ToolTest, PatternsMatchLongNamesAndMessages) {
  const std::string agent(300000, 'a');
  std::string message;
  for (int i = 0; i < 100000; ++i) message += "ab";
  writeStore("s", {storeEntry(1, agent, "g", message + "!")});
  Result r = kronlog({"show", "--store", path("s"), "--agent", "a*", "-g", "(a|b)*!", "-o", "cat"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, message + "!\n");
  r = kronlog({"show", "--store", path("s"), "--agent", "(a)\\1*"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "kronlog show: a pattern with back-references cannot be matched against a name or "
            "message of more than 1024 bytes\n");
}

// Short names are padded to columns of 24; longer ones are shown whole.
TEST_F(ToolTest, CheckAcceptsAGoodStoreAndListsEveryGroupWithItsWholeNamesAndCount) {
  const std::string agent(200, 'a'), group(150, 'g');
  writeStore("s", {storeEntry(1, agent, group, "x"), storeEntry(2, agent, group, "y"),
                   storeEntry(3, "B", "h", "z")});
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("3 events, 3 entries on restore"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("ok: restorable"), std::string::npos);
  EXPECT_NE(r.out.find("\n  " + agent + " " + group + " 2\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\n  B" + std::string(23, ' ') + " h" + std::string(23, ' ') + " 1\n"),
            std::string::npos)
      << r.out;
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
        BrokenStore{"Truncated", kHead + "{\"Kronlog\":[{\"timestamp\":1",
                    "byte 50: JSON syntax error", ""},
        BrokenStore{"DeeplyNested", kHead + std::string(150000, '['),
                    "byte 1024: JSON nested deeper than 1000 levels", ""},
        // The rest of the store is still shown.
        BrokenStore{"MissingMember",
                    storeOf({"{\"timestamp\":1,\"agentName\":\"a\",\"message\":\"m\"}", kGood}),
                    "byte 36: event 0 lacks \"messageGroup\"",
                    "1970-01-01T00:00:02.000000Z a g m\n"},
        BrokenStore{"ExtraMember",
                    storeOf("{\"timestamp\":2,\"agentName\":\"a\",\"messageGroup\":\"g\","
                            "\"message\":\"m\",\"extra\":0}"),
                    "event 0 has 5 members, not 4, so a restore adds it 2 times",
                    "1970-01-01T00:00:02.000000Z a g m\n1970-01-01T00:00:02.000000Z a g m\n"}),
    [](const ::testing::TestParamInfo<BrokenStore>& p) { return p.param.name; });

// A warning names its byte and leaves the store restorable.
TEST_F(ToolTest, CheckListsWarningsWithTheirByteAndStillAccepts) {
  writeFile("s", "FORMAT: JSON\nVERSION: 2\n{\"Kronlog\":[]}\n");
  Result r = kronlog({"check", "--store", path("s")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(
      r.out.find("warning: byte 13: line 2 names version \"2\", not \"1\"; a restore reads it "
                 "all the same\nok: restorable\n"),
      std::string::npos)
      << r.out;
}

// ---- the defects found in use

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
  events.resize(255);
  writeStore("s", events);
  EXPECT_EQ(kronlog({"check", "--store", path("s")}).status, 0);
}

TEST_F(ToolTest, ShowReadsAFifoOnce) {
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  const std::string bytes = storeOf({storeEntry(1, "A", "g", "through a fifo")});
  const pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    const int fd = ::open(path("fifo").c_str(), O_WRONLY);
    ::_exit(fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()) ? 0 : 1);
  }
  Result r = kronlog({"show", "--store", path("fifo"), "--output", "cat"});
  // A tool that never opened the FIFO leaves the writer waiting for a reader.
  const int unblock = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  ::waitpid(writer, nullptr, 0);
  ::close(unblock);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "through a fifo\n");
}

// Help and the version are output like any other: a full device fails them.
TEST_F(ToolTest, OutputThatCannotBeWrittenExits1WithTheReason) {
  writeStore("s", {kGood});
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"show", "--store", path("s")}, "kronlog show: "},
      {{"--help"}, "kronlog help: "},
      {{"help", "show"}, "kronlog help: "},
      {{"show", "--help"}, "kronlog show: "},
      {{"--version"}, "kronlog --version: "},
  };
  for (const auto& [args, prefix] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    Result r = kronlog(args, {{}, "", "/dev/full"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, prefix + "cannot write the output: No space left on device\n");
  }
}

TEST_F(ToolTest, AClosedPipeEndsQuietly) {
  writeStore("s", std::vector<std::string>(20000, kGood));  // more than a pipe holds
  Result r = kronlog({"show", "--store", path("s")}, {{}, "", "", true});
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

TEST_F(ToolTest, AMissingStoreOrADirectorySaysWhatToDo) {
  Result dir = kronlog({"show", "--store", dir_.path()});
  EXPECT_EQ(dir.status, 1);
  EXPECT_EQ(dir.err, "kronlog show: " + dir_.path() +
                         " is a directory: give the store file in it, e.g. --store " + dir_.path() +
                         "/kronlog-persistent-store\n");
  Result missing = kronlog({"check"}, {{"KRONLOG_STORE_FILE_PATH=" + path("none")}});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "kronlog check: no store at " + path("none") +
                             " (the default): give one with --store PATH, or set "
                             "KRONLOG_STORE_FILE_PATH\n");
  Result given = kronlog({"show", "--store", path("absent")});
  EXPECT_EQ(given.status, 1);
  EXPECT_NE(given.err.find("cannot open " + path("absent")), std::string::npos) << given.err;
}

TEST_F(ToolTest, HelpVersionAndHelpOfACommand) {
  for (const char* command : {"show", "check", "demo"}) {
    Result r = kronlog({command, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind(std::string("usage: kronlog ") + command, 0), 0u) << r.out;
    EXPECT_EQ(kronlog({"help", command}).out, r.out);
  }
  EXPECT_EQ(kronlog({"help", "frob"}).status, 2);
  Result v = kronlog({"--version"});
  EXPECT_EQ(v.status, 0);
  EXPECT_EQ(v.out.rfind("kronlog ", 0), 0u);
}

// ---- usage errors, one for each way a command refuses: one line on stderr, exit 2

TEST_F(ToolTest, ABadUsageIsOneLineOnStderrAndExit2) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"show", "--colour"}, "unknown option '--colour'"},
      {{"show", "--since", "the day before"}, "bad time 'the day before'"},
      {{"show", "-n", "ten"}, "bad --lines 'ten'"},
      {{"show", "-g", "a{"}, "bad --grep pattern 'a{'"},
      {{"show", "--fields", "host"}, "unknown field 'host'"},
      {{"show", "-o", "json", "--fields", "time"}, "--fields chooses"},
      {{"show", "--output", "xml"}, "bad --output 'xml': expected short, cat"},
      {{"check", "store"}, "unexpected argument"},
  };
  for (const auto& [args, message] : cases) {
    SCOPED_TRACE(message);
    Result r = kronlog(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lines(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
  }
}

// ---- what operators reach for, combined where faults hide

class ShowOptionsTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    writeStore(
        "a", {storeEntry(10, "Bgp", "peer", "peer down"), storeEntry(20, "Ospf", "adj", "adj up"),
              storeEntry(30, "Bgp", "route", "route add"), storeEntry(40, "bgp", "Peer", "PEER UP"),
              storeEntry(50, "Lldp", "nbr", "neighbor seen")});
    writeStore("b", {storeEntry(15, "Stp", "port", "port blocked"),
                     storeEntry(30, "Stp", "port", "port up"),
                     storeEntry(60, "Stp", "port", "port forwarding")});
  }
};

TEST_F(ShowOptionsTest, LinesReverseAndFiltersCombine) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-rn2", "--agent", "Bgp"}, "route add\npeer down\n"},
      {{"--lines", "1", "--until", "35"}, "route add\n"},
      {{"--agent", "Bgp", "--agent", "Lldp"}, "peer down\nroute add\nneighbor seen\n"},
      {{"--agent", "bgp", "-i"}, "peer down\nroute add\nPEER UP\n"},
      {{"-ig", "up$", "-r"}, "PEER UP\nadj up\n"},
      {{"-g", "o", "--agent", "Bgp|Ospf", "--group", "adj|route"}, "route add\n"},
  };
  for (auto [args, out] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    args.insert(args.begin(), {"show", "--store", path("a"), "-o", "cat"});
    Result r = kronlog(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out);
  }
}

// Standard input is read once, as one store among others.
TEST_F(ShowOptionsTest, SeveralStoresMergeByTimeWithinAWindow) {
  Result r = kronlog({"show", "--store", path("a"), "--store", path("b"), "--since", "15",
                      "--until", "50", "-o", "cat"});
  EXPECT_EQ(r.status, 0) << r.err;
  // At 30 the first store's event comes first, as the stores were given.
  EXPECT_EQ(r.out, "port blocked\nadj up\nroute add\nport up\nPEER UP\nneighbor seen\n");
  Result fromStdin = kronlog({"show", "--store", path("b"), "--store", "-", "-n", "2", "-o", "cat"},
                             {{}, path("a")});
  EXPECT_EQ(fromStdin.out, "neighbor seen\nport forwarding\n");
}

TEST_F(ShowOptionsTest, OneBrokenStoreAmongSeveralIsReportedAndTheOthersShown) {
  writeFile("broken", "FORMAT: XML\n");
  Result r = kronlog({"show", "--store", path("b"), "--store", path("broken"), "-o", "cat"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "port blocked\nport up\nport forwarding\n");
  EXPECT_EQ(lines(r.err), 1u) << r.err;
}

// Without --store, the store is the one the environment names.
TEST_F(ShowOptionsTest, FieldsAndLocalTime) {
  Result r =
      kronlog({"show", "--store", path("a"), "-n", "1", "--localtime"}, {{"TZ=Europe/Berlin"}});
  EXPECT_EQ(r.out, "1970-01-01T01:00:50.000000+01:00 Lldp nbr neighbor seen\n");
  r = kronlog({"show", "-n", "1", "--fields", "group,time"},
              {{"TZ=Europe/Berlin", "KRONLOG_STORE_FILE_PATH=" + path("a")}});
  EXPECT_EQ(r.out, "nbr 1970-01-01T00:00:50.000000Z\n");
}

// "yesterday" counts back from the real now: nothing here is that recent.
TEST_F(ShowOptionsTest, TimesAsPeopleTypeThem) {
  writeStore("t", {storeEntry(1795255200 - 86400, "A", "g", "the day before"),
                   storeEntry(1795255200, "A", "g", "at ten UTC"),
                   storeEntry(1795255200 + 3600, "A", "g", "an hour later")});
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--since", "2026-11-21 11:00"}, "at ten UTC\nan hour later\n"},
      {{"--since", "2026-11-21", "--until", "2026-11-21 11:00"}, "at ten UTC\n"},
      {{"--since", "yesterday"}, ""},
  };
  for (auto [args, out] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    args.insert(args.begin(), {"show", "--store", path("t"), "-o", "cat"});
    Result r = kronlog(args, {{"TZ=Europe/Berlin"}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out);
  }
}

// A save that failed is said so, never reported as saved.
TEST_F(ToolTest, DemoRunsEndToEndAndLeavesARestorableStoreOrSaysTheSaveFailed) {
  Result r = kronlog({"demo", "--store", path("demo")});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* step : {"1. agents record", "2. a reader merges", "3. a saver writes",
                           "4. after the restart", "5. the whole store"}) {
    EXPECT_NE(r.out.find(step), std::string::npos) << step;
  }
  EXPECT_EQ(kronlog({"check", "--store", path("demo")}).status, 0);
  r = kronlog({"demo", "--store", path("no/such/dir/store")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.find("saved"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("the save to " + path("no/such/dir/store") + " failed"), std::string::npos)
      << r.err;
}

}  // namespace
