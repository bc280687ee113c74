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
using KronlogTesting::Counted;
using KronlogTesting::Seen;

Seen seen(unsigned level, const char* file, int line, const char* function, const char* text) {
  return {level, file, line, function, text};
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

// Each site is one statement, even under an unbraced if/else, and starts
// with empty text.
TEST_F(TraceSiteTest, EachSiteIsOneStatementStartingWithEmptyText) {
  enable(1u << 0);
  for (int k = 0; k < 3; ++k) {
    if (k < 2)
      KRONLOG_TRACE(0, "KronlogStore", 40, "doStore", << "pass " << k);
    else
      KRONLOG_TRACE(0, "KronlogStore", 46, "doRestore", << Qel::String("else"));
  }
  EXPECT_EQ(sink_.records, (std::vector<Seen>{seen(0, "KronlogStore", 40, "doStore", "pass 0"),
                                              seen(0, "KronlogStore", 40, "doStore", "pass 1"),
                                              seen(0, "KronlogStore", 46, "doRestore", "else")}));
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

}  // namespace
