// Tracing: what a record carries, level configuration, that a disabled site
// formats nothing, the default line format, and the helper's lifetime.
#include "qel/Trace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "testing/TraceCapture.h"

namespace {

using Captured = KronlogTesting::Seen;
using KronlogTesting::CapturingSink;
using KronlogTesting::Counted;

Qel::Seconds fixedClock() {
  return 1700000000.25;
}

// Tests trace under their own facilities, whose levels are restored after
// each test, and into a capturing sink that is removed afterwards.
class TraceTest : public ::testing::Test {
 protected:
  static constexpr const char* kFacility = "QelTest.Trace";
  static constexpr const char* kOther = "QelTest.Other";

  TraceTest() : savedLevels_(Qel::traceLevels(kFacility)), savedOther_(Qel::traceLevels(kOther)) {
    Qel::traceLevelsIs(kFacility, 0);
    Qel::traceLevelsIs(kOther, 0);
  }
  ~TraceTest() override {
    Qel::utcNowFunctionIs(nullptr);
    Qel::traceLevelsIs(kFacility, savedLevels_);
    Qel::traceLevelsIs(kOther, savedOther_);
  }

  // A trace site as library code writes one; returns whether it emitted.
  template <class T>
  bool site(unsigned int level, const T& value) {
    Qel::TraceHelperStorage storage;
    Qel::TraceHelper* helper = Qel::TraceHelper::createIfEnabled(handle_, level, &storage);
    if (!helper) return false;
    Qel::EnsureTraceHelperIsDestroyed guard(helper);
    helper->stream << "value " << value;
    helper->trace("Widget.cpp", 17, "frob");
    return true;
  }

  Qel::TraceHandle handle_{kFacility, false};
  CapturingSink sink_{nullptr};  // every facility

 private:
  std::uint32_t savedLevels_;
  std::uint32_t savedOther_;
};

// A disabled site gets no helper and formats nothing; an enabled one formats
// once, into one record that keeps NUL bytes.
TEST_F(TraceTest, SiteFormatsOnlyWhenEnabledAndThenOnceIntoOneRecord) {
  int formatted = 0;
  Qel::traceLevelsIs(kFacility, 1u << 3);
  Qel::TraceHelperStorage storage;
  EXPECT_EQ(Qel::TraceHelper::createIfEnabled(handle_, 2, &storage), nullptr);
  EXPECT_FALSE(site(4, Counted{&formatted}));
  EXPECT_EQ(formatted, 0);
  site(3, Counted{&formatted});
  site(3, std::string("a\0b", 3));
  EXPECT_EQ(formatted, 1);
  ASSERT_EQ(sink_.records.size(), 2u);
  EXPECT_EQ(sink_.records[0].text, "value counted");
  EXPECT_EQ(sink_.records[1].text, std::string("value a\0b", 9));
}

TEST_F(TraceTest, HandlesSeeLaterChangesToTheirOwnFacilityOnlyUpToTheFinestLevel) {
  Qel::TraceHandle later(kOther, false);
  Qel::TraceHandle second(kFacility, false);
  EXPECT_FALSE(later.enabled(4));
  Qel::traceLevelsIs(kOther, 1u << 4);
  Qel::traceLevelsIs(kFacility, 1u << 5);
  EXPECT_TRUE(later.enabled(4) && second.enabled(5) && handle_.enabled(5));
  EXPECT_FALSE(handle_.enabled(4));
  Qel::traceLevelsIs(kFacility, ~0u);
  EXPECT_TRUE(handle_.enabled(Qel::TraceFacility::kMaxLevel));
  EXPECT_FALSE(handle_.enabled(Qel::TraceFacility::kMaxLevel + 1));
  EXPECT_FALSE(handle_.enabled(1000));
}

TEST_F(TraceTest, DefaultSinkIsRestoredByNull) {
  Qel::utcNowFunctionIs(&fixedClock);
  Qel::traceLevelsIs(kFacility, 1u);
  Qel::traceSinkIs(nullptr);
  const std::string path = ::testing::TempDir() + "qel_trace_test.log";
  const char* previous = std::getenv("QELTRACE_FILE");
  const std::string saved = previous ? previous : "";
  std::remove(path.c_str());
  ::setenv("QELTRACE_FILE", path.c_str(), 1);
  site(0, 7);
  previous ? ::setenv("QELTRACE_FILE", saved.c_str(), 1) : ::unsetenv("QELTRACE_FILE");
  std::stringstream written;
  written << std::ifstream(path).rdbuf();
  std::remove(path.c_str());
  EXPECT_TRUE(sink_.records.empty());
  EXPECT_EQ(written.str(),
            "2023-11-14T22:13:20.250000Z QelTest.Trace/0 Widget.cpp:17 frob: value 7\n");
}

TEST_F(TraceTest, InstallingASinkReturnsTheOneItReplacesOrNullOverTheDefault) {
  Qel::traceLevelsIs(kFacility, 1u);
  {
    CapturingSink inner(nullptr);
    site(0, "inner");
    EXPECT_EQ(inner.records.size(), 1u);
  }
  site(0, "outer");  // the fixture's sink is back
  ASSERT_EQ(sink_.records.size(), 1u);
  EXPECT_EQ(sink_.records[0].text, "value outer");
  Qel::TraceSink* fixtures = Qel::traceSinkIs(nullptr);
  EXPECT_EQ(fixtures, &sink_);
  EXPECT_EQ(Qel::traceSinkIs(fixtures), nullptr);
}

// QELTRACE is read once per process, so each setting runs in a freshly
// started child (the threadsafe style re-executes the test binary).
TEST(TraceEnvironmentTest, EachMisspeltFacilityIsReportedOnceAtExitAndMatchesSayNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::tuple<const char*, std::size_t, const char*> cases[] = {
      {"kronlog/0,QelTest.Env/1", 1,
       "^QELTRACE: no facility \"kronlog\" traced in this process \\(facilities: "
       "QelTest\\.Env\\)\n$"},
      {"QelTest.Env/1,*/0", 0, "^$"}};
  for (const auto& [setting, unmatched, report] : cases) {
    EXPECT_EXIT(
        {
          setenv("QELTRACE", setting, 1);
          Qel::TraceHandle known("QelTest.Env", false);
          std::exit(Qel::traceSettingsUnmatched().size() == unmatched ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), report);
  }
}

TEST_F(TraceTest, ConfigFormsSetTheLevels) {
  const std::pair<const char*, std::uint32_t> accepted[] = {
      {"/0-2", 0x7u},    {"/1", 0x2u},   {"", ~0u},      {"/*", ~0u},         {"/0", 0x1u},
      {"/31", 1u << 31}, {"/0-31", ~0u}, {"/3-3", 0x8u}, {"/30-31", 3u << 30}};
  for (auto [levels, mask] : accepted) {
    EXPECT_TRUE(Qel::traceConfigIs(std::string(kFacility) + levels)) << levels;
    EXPECT_EQ(Qel::traceLevels(kFacility), mask) << levels;
  }
  EXPECT_TRUE(Qel::traceConfigIs(std::string(kFacility) + "/1, " + kOther + "/0-1"));
  EXPECT_EQ(std::make_pair(Qel::traceLevels(kFacility), Qel::traceLevels(kOther)),
            std::make_pair(0x2u, 0x3u));
}

// A text with one bad item changes nothing, not even its good items.
TEST_F(TraceTest, BadConfigFormIsRefusedAndChangesNothing) {
  Qel::traceLevelsIs(kFacility, 1u << 6);
  for (const char* levels : {"/x", "/1x", "/1 2", "/1-2x", "/2-1", "/32", "/0-32", "/1-", "/-1",
                             "/1-2-3", "/4294967297", "/+1", "/1,/2"}) {
    EXPECT_FALSE(Qel::traceConfigIs(std::string(kFacility) + levels)) << levels;
    EXPECT_EQ(Qel::traceLevels(kFacility), 1u << 6) << levels;
  }
  EXPECT_FALSE(Qel::traceConfigIs(std::string(kOther) + "/1," + kFacility + "/x"));
  EXPECT_EQ(Qel::traceLevels(kOther), 0u);
}

TEST(TraceLineTest, HasTimeFacilityLevelFileLineFunctionAndText) {
  auto record = [](Qel::Seconds time) {
    return Qel::TraceRecord{time, "Kronlog", 1, "KronlogWriter", 17, "eventIs", "eventIs size: 3"};
  };
  EXPECT_EQ(Qel::traceLine(record(1700000000.25)),
            "2023-11-14T22:13:20.250000Z Kronlog/1 KronlogWriter:17 eventIs: eventIs size: 3");
  // The epoch is midnight, microseconds round up, missing names are question marks.
  EXPECT_EQ(Qel::traceLine(record(0.0)).view().substr(0, 27), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(Qel::traceLine(record(1700000000.9999996)).view().substr(0, 27),
            "2023-11-14T22:13:21.000000Z");
  Qel::TraceRecord r = record(0.0);
  r.file = nullptr;
  r.function = nullptr;
  EXPECT_EQ(Qel::traceLine(r).view().substr(28), "Kronlog/1 ?:17 ?: eventIs size: 3");
}

// Counts the destruction of a stream, through the erase event every stream
// reports to its callbacks when it goes.
void countStreamDestruction(std::ios_base& stream, int* count) {
  static const int slot = std::ios_base::xalloc();
  stream.pword(slot) = count;
  stream.register_callback(
      [](std::ios_base::event event, std::ios_base& s, int index) {
        if (event == std::ios_base::erase_event) ++*static_cast<int*>(s.pword(index));
      },
      slot);
}

class TraceHelperLifetimeTest : public TraceTest {
 protected:
  TraceHelperLifetimeTest() { Qel::traceLevelsIs(kFacility, 1u); }
  // Builds a helper in `storage` whose destruction increments destroyed_.
  Qel::TraceHelper* watchedHelper(Qel::TraceHelperStorage* storage) {
    Qel::TraceHelper* helper = Qel::TraceHelper::createIfEnabled(handle_, 0, storage);
    if (helper) countStreamDestruction(helper->stream, &destroyed_);
    return helper;
  }
  int destroyed_ = 0;
};

TEST_F(TraceHelperLifetimeTest, GuardDestroysTheHelperAtScopeEndOrWhenAnExceptionLeaves) {
  {
    Qel::TraceHelperStorage storage;
    Qel::EnsureTraceHelperIsDestroyed guard(watchedHelper(&storage));
    EXPECT_EQ(destroyed_, 0);
  }
  EXPECT_EQ(destroyed_, 1);
  try {
    Qel::TraceHelperStorage storage;
    Qel::EnsureTraceHelperIsDestroyed guard(watchedHelper(&storage));
    throw std::runtime_error("formatting failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(destroyed_, 2);
}

}  // namespace
