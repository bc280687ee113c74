// The library's trace sites: what an enabled site hands the sink, and that a
// disabled one formats nothing.
#include "support/TraceSite.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "qel/String.h"
#include "qel/Trace.h"
#include "testing/TraceCapture.h"

KRONLOG_TRACE_HANDLE()

namespace {

using KronlogTesting::CapturingSink;
using KronlogTesting::Seen;

Seen seen(unsigned level, const char* file, int line, const char* function, const char* text) {
  return {level, file, line, function, text};
}

// Streams as "counted" and counts how often it was formatted.
struct Counted {
  int* calls;
};
std::ostream& operator<<(std::ostream& os, const Counted& c) {
  ++*c.calls;
  return os << "counted";
}

struct Throwing {};
std::ostream& operator<<(std::ostream&, const Throwing&) {
  throw std::runtime_error("cannot format");
}

class TraceSiteTest : public ::testing::Test {
 protected:
  void enable(std::uint32_t mask) { Qel::traceLevelsIs("Kronlog", mask); }

  CapturingSink sink_;
};

TEST_F(TraceSiteTest, EachSiteStartsWithEmptyText) {
  enable(1u << 0);
  for (int k = 0; k < 2; ++k) {
    KRONLOG_TRACE(0, "KronlogStore", 40, "doStore", << "pass " << k);
  }
  KRONLOG_TRACE(0, "KronlogStore", 46, "doRestore", << Qel::String("restore"));
  EXPECT_EQ(sink_.records,
            (std::vector<Seen>{seen(0, "KronlogStore", 40, "doStore", "pass 0"),
                               seen(0, "KronlogStore", 40, "doStore", "pass 1"),
                               seen(0, "KronlogStore", 46, "doRestore", "restore")}));
}

TEST_F(TraceSiteTest, OtherFacilitiesLevelsDoNotEnableTheLibrarysSites) {
  const std::uint32_t saved = Qel::traceLevels("KronlogTestOther");
  Qel::traceLevelsIs("KronlogTestOther", ~0u);
  int calls = 0;
  KRONLOG_TRACE(0, "KronlogWriter", 30, "eventIs", << Counted{&calls});
  Qel::traceLevelsIs("KronlogTestOther", saved);
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(sink_.records.empty());
}

TEST_F(TraceSiteTest, SiteIsOneStatementUnderIfElse) {
  enable(1u << 0);
  for (int k = 0; k < 2; ++k) {
    if (k == 0)
      KRONLOG_TRACE(0, "KronlogReader", 50, "branch", << "then " << k);
    else
      KRONLOG_TRACE(0, "KronlogReader", 51, "branch", << "else " << k);
  }
  EXPECT_EQ(sink_.records, (std::vector<Seen>{seen(0, "KronlogReader", 50, "branch", "then 0"),
                                              seen(0, "KronlogReader", 51, "branch", "else 1")}));
}

TEST_F(TraceSiteTest, ExceptionWhileFormattingEmitsNothingAndLeavesSitesWorking) {
  enable(1u << 0);
  auto failing = [] {
    KRONLOG_TRACE(0, "KronlogSaver", 60, "doSave", << "partial " << Throwing{});
  };
  EXPECT_THROW(failing(), std::runtime_error);
  EXPECT_TRUE(sink_.records.empty());

  KRONLOG_TRACE(0, "KronlogSaver", 61, "doSave", << "after");
  EXPECT_EQ(sink_.records, std::vector<Seen>{seen(0, "KronlogSaver", 61, "doSave", "after")});
}

struct LevelCase {
  const char* name;
  std::uint32_t mask;
  unsigned level;
  bool emitted;
};

class TraceSiteLevelTest : public TraceSiteTest, public ::testing::WithParamInterface<LevelCase> {};

// A disabled site formats nothing; an enabled one formats once.
TEST_P(TraceSiteLevelTest, SiteRunsOnlyAtAnEnabledLevel) {
  const LevelCase& c = GetParam();
  enable(c.mask);
  int calls = 0;
  KRONLOG_TRACE(c.level, "KronlogWriter", 70, "levels", << Counted{&calls} << ' ' << 42u);
  if (c.emitted) {
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(sink_.records,
              std::vector<Seen>{seen(c.level, "KronlogWriter", 70, "levels", "counted 42")});
  } else {
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(sink_.records.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, TraceSiteLevelTest,
                         ::testing::Values(LevelCase{"EnabledLevel", 1u << 1, 1, true},
                                           LevelCase{"LevelBelowTheEnabledOne", 1u << 1, 0, false},
                                           LevelCase{"LevelAboveTheEnabledOne", 1u << 1, 2, false},
                                           LevelCase{"FinestLevel", ~0u, 31, true},
                                           LevelCase{"BeyondTheFinestLevel", ~0u, 32, false},
                                           LevelCase{"NothingEnabled", 0, 0, false}),
                         [](const ::testing::TestParamInfo<LevelCase>& param) {
                           return std::string(param.param.name);
                         });

}  // namespace
