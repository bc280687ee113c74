// Tests of the tool's argument parsing: options in their long, short and
// grouped forms, time arguments in every form people type, output modes
// and field lists. Each kind is a table of cases.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "testing/TimeZone.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/TimeArg.h"

namespace KronlogTool {
namespace {

const std::vector<OptionSpec> kSpecs = {{"store", 0, true, true},
                                        {"grep", 'g', true, false},
                                        {"lines", 'n', true, false},
                                        {"reverse", 'r', false, false},
                                        {"case-insensitive", 'i', false, false}};

struct Parsed {
  std::vector<std::string> args;
  std::string error;  // empty: parses
  std::vector<std::pair<std::string, std::vector<std::string>>> values;
};

TEST(OptionsTest, FormsRepeatsAndErrors) {
  const Parsed cases[] = {
      {{"--lines", "5", "--grep=a=b"}, "", {{"lines", {"5"}}, {"grep", {"a=b"}}}},
      {{"-n", "5", "-gdown"}, "", {{"lines", {"5"}}, {"grep", {"down"}}}},
      {{"-ri", "-n7"}, "", {{"reverse", {"1"}}, {"case-insensitive", {"1"}}, {"lines", {"7"}}}},
      {{"-rn", "3"}, "", {{"reverse", {"1"}}, {"lines", {"3"}}}},
      {{"--store", "a", "--store", "-"}, "", {{"store", {"a", "-"}}}},
      {{"--lines", "-1"}, "", {{"lines", {"-1"}}}},  // a value may start with a dash
      {{"--lines", "1", "-n", "2"}, "option --lines given twice", {}},
      {{"--lines"}, "option --lines needs a value", {}},
      {{"-n"}, "option -n (--lines) needs a value", {}},
      {{"--reverse=1"}, "unknown option '--reverse=1'", {}},
      {{"--colour"},
       "unknown option '--colour': colour is on for a terminal; --no-color turns it off",
       {}},
      {{"-f"},
       "unknown option '-f': following new events is the 'follow' command, not an option of "
       "this one",
       {}},
      {{"-rx"}, "unknown option '-x'", {}},
      {{"store"}, "unexpected argument 'store'", {}},
      {{"-"}, "unexpected argument '-'", {}},
  };
  for (const Parsed& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    Options options(kSpecs);
    EXPECT_EQ(options.parse(c.args), c.error.empty());
    EXPECT_EQ(options.error(), c.error);
    for (const auto& [name, values] : c.values) EXPECT_EQ(options.values(name), values) << name;
  }
}

// Local times are read in the zone TZ names; this suite fixes one with a
// summer time, so that offsets are not all zero.
class TimeArgTest : public ::testing::Test {
 protected:
  KronlogTesting::ScopedTimeZone berlin_{"Europe/Berlin"};
};

// 2026-11-21T10:00:00Z
constexpr double kT = 1795255200;
// A "now" of 2026-11-21T14:30:15.5Z, 15:30:15.5 in Berlin (UTC+1 in November).
constexpr double kNow = kT + 4 * 3600 + 30 * 60 + 15.5;

TEST_F(TimeArgTest, EveryFormPeopleType) {
  const std::pair<const char*, double> cases[] = {
      {"1700000000.25", 1700000000.25},
      {"-5", -5},
      {"2026-11-21T10:00:00Z", kT},
      {"2026-11-21T10:00:00.25Z", kT + 0.25},
      {"2026-11-21T10:00:00+02:00", kT - 7200},
      {"2026-11-21T10:00:00-0530", kT + 5.5 * 3600},
      {"2026-11-21T10:00+02", kT - 7200},
      {"2026-11-21 11:00", kT},  // local: UTC+1
      {"2026-11-21T11:00:00", kT},
      {"2026-07-01 12:00:00", 1782900000},  // local in summer: UTC+2
      {"2026-11-21", kT - 11 * 3600},       // local midnight
      {"today", kT - 11 * 3600},
      {"yesterday", kT - 11 * 3600 - 86400},
      {"now", kNow},
      {"-15m", kNow - 900},
      {"-1h30m", kNow - 5400},
      {"-2d", kNow - 2 * 86400},
      {"-1w", kNow - 7 * 86400},
      {"-0.5h", kNow - 1800},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    double out = 0;
    std::string error;
    ASSERT_TRUE(parseTime(text, kNow, &out, &error)) << error;
    EXPECT_DOUBLE_EQ(out, expected);
  }
}

// A span before now whose weeks are too many for a double.
const std::string kInfiniteSpan = "-1" + std::string(308, '0') + "w";

TEST_F(TimeArgTest, WhatIsNoTimeIsRefusedWithTheFormsInTheMessage) {
  for (const char* text : {"", "soon", "2026-02-31", "2026-13-01", "2026-11-21T25:00Z",
                           "2026-11-21T10:00:00+2", "2026-11-21T10:00:00Zjunk", "-1x", "-1h30",
                           "1e999", "nan", "2026-11-21 10", "--1h", kInfiniteSpan.c_str()}) {
    SCOPED_TRACE(text);
    double out = 7;
    std::string error;
    EXPECT_FALSE(parseTime(text, kNow, &out, &error));
    EXPECT_EQ(out, 7);
    EXPECT_EQ(error.rfind(std::string("bad time '") + text + "': expected seconds", 0), 0u);
  }
}

// A time past any calendar, beyond time_t (1e300, -1e19) or beyond the
// calendar's years (1e17), is printed as its number.
TEST_F(TimeArgTest, OutputIsUtcWithZOrLocalWithItsOffset) {
  const std::tuple<double, bool, std::string> cases[] = {
      {kT + 0.25, false, "2026-11-21T10:00:00.250000Z"},
      {kT + 0.25, true, "2026-11-21T11:00:00.250000+01:00"},
      {1782900000, true, "2026-07-01T12:00:00.000000+02:00"},
      {0.9999999, false, "1970-01-01T00:00:01.000000Z"},  // rounds into the next second
      {-0.5, false, "1969-12-31T23:59:59.500000Z"},
      {1e300, false, std::to_string(1e300)},
      {-1e19, true, std::to_string(-1e19)},
      {1e17, false, std::to_string(1e17)},
      {1e17, true, std::to_string(1e17)},
  };
  for (const auto& [seconds, local, text] : cases) {
    EXPECT_EQ(formatTime(seconds, local), text) << seconds;
  }
}

TEST(OutputModeTest, ModesAndFields) {
  OutputMode mode = OutputMode::json;
  EXPECT_TRUE(parseOutputMode("cat", &mode));
  EXPECT_EQ(mode, OutputMode::cat);
  EXPECT_FALSE(parseOutputMode("xml", &mode));
  EXPECT_FALSE(parseOutputMode("", &mode));

  const std::tuple<const char*, std::vector<Field>, const char*> cases[] = {
      {"message", {Field::message}, ""},
      {"group,time", {Field::group, Field::time}, ""},
      {"time,agent,group,message", {Field::time, Field::agent, Field::group, Field::message}, ""},
      {"time,,agent", {}, "unknown field '': expected time, agent, group or message"},
      {"host", {}, "unknown field 'host': expected time, agent, group or message"},
      {"agent,agent", {}, "field 'agent' given twice"},
  };
  for (const auto& [text, fields, error] : cases) {
    SCOPED_TRACE(text);
    std::vector<Field> out = {Field::time};
    std::string why;
    EXPECT_EQ(parseFields(text, &out, &why), *error == '\0');
    EXPECT_EQ(why, error);
    if (*error == '\0') {
      EXPECT_EQ(out, fields);
    }
  }
}

}  // namespace
}  // namespace KronlogTool
