// Tests of what the tool prints and how it chooses it: terminal escaping,
// each output mode, json framing, and the filters, merge order and
// --lines/--reverse of show.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "testing/StoreFiles.h"
#include "testing/TempDir.h"
#include "tools/Output.h"
#include "tools/Sink.h"
#include "tools/StoreView.h"

namespace KronlogTool {
namespace {

KronlogReader::LogEntry::Ptr entry(double t, const std::string& agent, const std::string& group,
                                   const std::string& message) {
  return KronlogReader::logEntryFactory(agent, group, t, message);
}

TEST(EscapeTest, NothingCanStartALineOrDriveTheTerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain text", "plain text"},
      {"a\nb\rc\td", "a\\nb\\rc\\td"},
      {"back\\slash", "back\\\\slash"},
      {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
      {std::string("nul\0x", 5), "nul\\x00x"},
      {"c1 \xc2\x9b", "c1 \\u009b"},
      {"utf8 \xc3\xbc \xc2\xa0", "utf8 \xc3\xbc \xc2\xa0"},
      {"bad \xff", "bad \xff"},  // not a control code: passed as is
  };
  for (const auto& [text, escaped] : cases) EXPECT_EQ(escapeForTerminal(text), escaped);
}

TEST(FormatEntryTest, EachModeAndFieldChoice) {
  const auto e = entry(1.5, "B\ngp", "pe\rer", "up\n");  // no name can start a line
  const std::pair<std::function<void(OutputOptions&)>, std::string> cases[] = {
      {[](OutputOptions&) {}, "1970-01-01T00:00:01.500000Z B\\ngp pe\\rer up\\n\n"},
      {[](OutputOptions& x) { x.mode = OutputMode::cat; }, "up\\n\n"},
      {[](OutputOptions& x) { x.mode = OutputMode::jsonl; },
       "{\"timestamp\":1.5,\"agentName\":\"B\\ngp\",\"messageGroup\":\"pe\\rer\",\"message\":"
       "\"up\\n\"}\n"},
      {[](OutputOptions& x) { x.mode = OutputMode::json; },
       "{\"timestamp\":1.5,\"agentName\":\"B\\ngp\",\"messageGroup\":\"pe\\rer\",\"message\":"
       "\"up\\n\"}"},
      {[](OutputOptions& x) {
         x.fields = {Field::message, Field::agent};
       },
       "up\\n B\\ngp\n"},
      {[](OutputOptions& x) { x.colour = true; },
       "\x1b[2m1970-01-01T00:00:01.500000Z\x1b[0m \x1b[36mB\\ngp\x1b[0m \x1b[33mpe\\rer\x1b[0m "
       "up\\n\n"},
  };
  for (const auto& [configure, text] : cases) {
    OutputOptions options;
    configure(options);
    EXPECT_EQ(formatEntry(*e, options), text);
  }
}

class SinkTest : public ::testing::Test {
 protected:
  KronlogTesting::TempDir dir_{"kronlog-sink"};
};

TEST_F(SinkTest, JsonIsOneArrayAlsoWhenEmpty) {
  for (const std::size_t count : {0u, 2u}) {
    const std::string path = dir_.pathIn("out" + std::to_string(count));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    {
      Sink sink(fd);
      OutputOptions options;
      options.mode = OutputMode::json;
      EntryPrinter printer(sink, options);
      for (std::size_t i = 0; i < count; ++i) printer.print(*entry(1, "a", "g", "m"));
      printer.finish();
      EXPECT_TRUE(sink.flush());
    }
    ::close(fd);
    const std::string one =
        "{\"timestamp\":1.0,\"agentName\":\"a\",\"messageGroup\":\"g\",\"message\":\"m\"}";
    EXPECT_EQ(KronlogTesting::readFile(path), count == 0 ? "[]\n" : "[" + one + "," + one + "]\n");
  }
}

// ---- Choosing and ordering entries

std::vector<std::string> messagesOf(const std::vector<KronlogReader::LogEntry::Ptr>& entries) {
  std::vector<std::string> out;
  for (const auto& e : entries) out.push_back(e->message().stdString());
  return out;
}

LoadedStore storeOf(const std::vector<KronlogReader::LogEntry::Ptr>& entries) {
  LoadedStore s;
  for (const auto& e : entries) s.entries->logEnq(e);
  return s;
}

const std::vector<KronlogReader::LogEntry::Ptr> kEntries = {
    entry(10, "Bgp", "peer", "peer down"),    entry(20, "bgp", "Route", "route added"),
    entry(30, "Ospf", "adj", "Adjacency up"), entry(40, "line\nfeed", "g\r", "odd names"),
    entry(50, "Bgp", "peer", "peer up"),
};

struct Filtered {
  const char* name;
  Filter filter;
  std::vector<std::string> kept;
};

TEST(FilterTest, PatternsWindowAndCase) {
  const Filtered cases[] = {
      {"NoPatternKeepsEveryNameEvenWithLineFeeds",
       {},
       {"peer down", "route added", "Adjacency up", "odd names", "peer up"}},
      {"WholeNameMatch", {{"Bg"}, {}, "", false}, {}},
      {"DotMatchesNoLineFeed",
       {{".*"}, {}, "", false},
       {"peer down", "route added", "Adjacency up", "peer up"}},
      {"AnyOfRepeatedAgents",
       {{"Bgp", "Ospf"}, {}, "", false},
       {"peer down", "Adjacency up", "peer up"}},
      {"CaseInsensitiveNames", {{"BGP"}, {"route"}, "", true}, {"route added"}},
      {"GrepAnywhere", {{}, {}, "er u", false}, {"peer up"}},
      {"GrepIsCaseSensitive", {{}, {}, "ADJ", false}, {}},
      {"GrepCaseInsensitive", {{}, {}, "^adj|UP$", true}, {"Adjacency up", "peer up"}},
      {"WindowIncludesBothEnds",
       {{}, {}, "", false, 20, 40},
       {"route added", "Adjacency up", "odd names"}},
  };
  for (const Filtered& c : cases) {
    SCOPED_TRACE(c.name);
    EntryFilter filter;
    std::string error;
    ASSERT_TRUE(filter.compile(c.filter, &error)) << error;
    std::vector<LoadedStore> stores;
    stores.push_back(storeOf(kEntries));
    EXPECT_EQ(messagesOf(mergeStores(stores, filter)), c.kept);
  }
}

TEST(FilterTest, ABadPatternNamesItsOption) {
  const std::pair<Filter, const char*> cases[] = {
      {{{"("}, {}, "", false}, "bad --agent pattern '('"},
      {{{}, {"[a"}, "", false}, "bad --group pattern '[a'"},
      {{{}, {}, "a{", false}, "bad --grep pattern 'a{'"}};
  for (const auto& [f, message] : cases) {
    EntryFilter filter;
    std::string error;
    EXPECT_FALSE(filter.compile(f, &error));
    EXPECT_EQ(error.rfind(message, 0), 0u) << error;
  }
}

TEST(MergeTest, StoresMergeByTimeAndEqualTimesKeepStoreThenFileOrder) {
  std::vector<LoadedStore> stores;
  stores.push_back(
      storeOf({entry(2, "Z", "g", "first store, 2"), entry(1, "Z", "g", "first store, 1"),
               entry(2, "A", "g", "first store, 2 again")}));
  stores.push_back(
      storeOf({entry(2, "A", "g", "second store, 2"), entry(0, "Y", "g", "second store, 0")}));
  EXPECT_EQ(messagesOf(mergeStores(stores, EntryFilter())),
            (std::vector<std::string>{"second store, 0", "first store, 1", "first store, 2",
                                      "first store, 2 again", "second store, 2"}));
}

TEST(MergeTest, LinesThenReverse) {
  const std::tuple<long long, bool, std::vector<std::string>> cases[] = {
      {-1, false, {"a", "b", "c"}}, {2, false, {"b", "c"}}, {2, true, {"c", "b"}}, {0, true, {}},
      {9, true, {"c", "b", "a"}},
  };
  for (const auto& [lines, reverse, expected] : cases) {
    std::vector<KronlogReader::LogEntry::Ptr> entries = {
        entry(1, "x", "g", "a"), entry(2, "x", "g", "b"), entry(3, "x", "g", "c")};
    limitAndOrder(&entries, lines, reverse);
    EXPECT_EQ(messagesOf(entries), expected) << lines << reverse;
  }
}

}  // namespace
}  // namespace KronlogTool
