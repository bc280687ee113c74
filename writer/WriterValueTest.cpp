// Tests of the writer's value types: equality, exact text forms, parsing
// back (refusing every near miss with its context), the enum's mapping and
// the type registry.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kronlog/KronlogWriter.h"
#include "qel/Exception.h"
#include "qel/Strep.h"
#include "qel/Type.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::LogEntry;
using KronlogWriter::OverflowActionType;
using KronlogWriter::valueToStrep;
using LogMetadata = KronlogWriter::Writer::LogMetadata;

const std::string kDefaultConfigText =
    "Value('KronlogWriter::Config', ** {'size': 10, 'overflowAction': keepLastEntries})";
const std::string kEntryText =
    "Value('KronlogWriter::LogEntry', ** {'timestamp': 1.5, 'message': 'x'})";

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// A string of every byte of a literal, embedded NULs included.
template <std::size_t N>
Qel::String bytes(const char (&literal)[N]) {
  return Qel::String(literal, N - 1);
}

template <class T>
std::string streamed(const T& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

// Parses `text` with T's text-form constructor; `rest` gets what was left unread.
template <class T>
T parse(const std::string& text, std::string* rest = nullptr) {
  const Qel::String s(text);
  Qel::String::IteratorConst it = s.begin();
  T value(it, s.end());
  if (rest) *rest = std::string(it, s.end());
  return value;
}

template <class T>
T roundTrip(const T& value) {
  return parse<T>(valueToStrep(value).stdString());
}

// ---- OverflowActionType

class OverflowActionTypeTest : public ::testing::Test {
 protected:
  template <class Arg>
  static std::string rangeErrorOf(const Arg& arg) {
    try {
      KronlogWriter::OverflowActionTypeInstance(arg);
    } catch (const Qel::RangeException& e) {
      return e.what();
    }
    return "<no RangeException>";
  }
};

TEST_F(OverflowActionTypeTest, NumbersNamesAndInstancesAgree) {
  for (auto [value, number, name] : {std::make_tuple(keepFirstEntries, 0u, "keepFirstEntries"),
                                     std::make_tuple(keepLastEntries, 1u, "keepLastEntries")}) {
    EXPECT_EQ(static_cast<unsigned>(value), number);
    EXPECT_EQ(valueToStrep(value), name);
    EXPECT_EQ(streamed(value), name);
    EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(number), value);
    EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(Qel::String(name)), value);
  }
}

TEST_F(OverflowActionTypeTest, UnknownNumberOrNameIsARangeErrorNamingIt) {
  EXPECT_EQ(rangeErrorOf(2u), "KronlogWriter::OverflowActionType has no value 2");
  EXPECT_EQ(rangeErrorOf(Qel::String("keeplastentries")),
            "KronlogWriter::OverflowActionType has no value keeplastentries");
  EXPECT_EQ(rangeErrorOf(Qel::String("")), "KronlogWriter::OverflowActionType has no value ");
  EXPECT_EQ(KronlogWriter::stringValue(static_cast<OverflowActionType>(7)), "7");
}

// ---- LogEntry

TEST(LogEntryTest, EqualityComparesTimeAndEveryMessageByteAndNaNIsNeverEqual) {
  const std::tuple<LogEntry, LogEntry, bool> pairs[] = {
      {LogEntry(1.5, "a"), LogEntry(1.5, "a"), true},
      {LogEntry(0.0, "a"), LogEntry(-0.0, "a"), true},
      {LogEntry(1.5, "a"), LogEntry(1.25, "a"), false},
      {LogEntry(1.5, "ab"), LogEntry(1.5, "a"), false},
      {LogEntry(1.5, bytes("a\0b")), LogEntry(1.5, bytes("a\0c")), false},
      {LogEntry(kNaN, "a"), LogEntry(kNaN, "a"), false}};
  for (const auto& [a, b, equal] : pairs) {
    SCOPED_TRACE(::testing::Message() << a << " vs " << b);
    EXPECT_EQ(a == b, equal);
    EXPECT_EQ(b == a, equal);
    EXPECT_EQ(a != b, !equal);
  }
}

TEST(LogEntryTest, PrintsExactTextFormEscapingTheMessageAndAwkwardMessagesAndNaNRoundTrip) {
  EXPECT_EQ(streamed(LogEntry(1.5, "x")), kEntryText);
  EXPECT_EQ(valueToStrep(LogEntry(1763805600.0, bytes("a'b\\c\0d\ne"))),
            "Value('KronlogWriter::LogEntry', ** {'timestamp': 1763805600.0, "
            "'message': 'a\\'b\\\\c\\x00d\\ne'})");
  const LogEntry e(1763805600.123456, bytes("say \"hi\" 'now'\\\0\n\r\t\x7f\xff end"));
  EXPECT_EQ(roundTrip(e), e);
  EXPECT_TRUE(std::isnan(roundTrip(LogEntry(kNaN, "m")).timestamp()));
}

// ---- Config and LogMetadata

// Each field counts in equality; the text form is exact, parses back equal
// (also at the extremes) and stops after itself.
TEST(ConfigTextTest, DefaultIsLastTenValuesCompareEveryFieldPrintExactlyAndParseBack) {
  EXPECT_EQ(Config(), Config(10, keepLastEntries));
  EXPECT_EQ(valueToStrep(Config()), kDefaultConfigText);
  EXPECT_EQ(streamed(Config()), kDefaultConfigText);
  std::string rest;
  EXPECT_EQ(parse<Config>(kDefaultConfigText + "})", &rest), Config());
  EXPECT_EQ(rest, "})");
  EXPECT_NE(Config(10, keepLastEntries), Config(10, keepFirstEntries));
  EXPECT_NE(Config(10, keepLastEntries), Config(5, keepLastEntries));
  EXPECT_FALSE(Config(5, keepFirstEntries) != Config(5, keepFirstEntries));
  for (const Config& c : {Config(0, keepFirstEntries), Config(4294967295u, keepLastEntries)}) {
    EXPECT_EQ(roundTrip(c), c) << c;
  }
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(3, 5));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(2, 6));
  EXPECT_EQ(streamed(LogMetadata(2, 4294967295u)),
            "Value('KronlogWriter::Writer::LogMetadata', ** {'firstIndex': 2, 'nextIndex': "
            "4294967295})");
}

// ---- Parse errors: every literal is required to the character, and each
// failure names what was being read.

const std::string kConfigOpen = "Value('KronlogWriter::Config', ** {";
const std::string kEntryOpen = "Value('KronlogWriter::LogEntry', ** {";
const std::string kSize = "'size': 10";
const std::string kAction = ", 'overflowAction': ";
const std::string kTime = "'timestamp': 1.5";
const std::string kMessage = ", 'message': ";

// The context of the DeserializeException parsing `text` raises.
template <class T>
std::string contextOfFailure(const std::string& text) {
  try {
    parse<T>(text);
  } catch (const Qel::DeserializeException& e) {
    return e.context().stdString();
  }
  return "<parsed without error>";
}

TEST(ValueParseErrorTest, EveryNearMissOfAConfigNamesWhatWasBeingRead) {
  const std::pair<std::string, std::string> cases[] = {
      {"v" + kDefaultConfigText.substr(1), kConfigOpen},
      {kConfigOpen + " " + kSize + kAction + "keepLastEntries})", "'size': "},
      {kConfigOpen + "'size': -1" + kAction + "keepLastEntries})", "size"},
      {kConfigOpen + kSize + "; 'overflowAction': keepLastEntries})", kAction},
      {kConfigOpen + kSize + kAction + "keepAllEntries})", "overflowAction"},
      {kConfigOpen + kSize + kAction + "keepLastEntries2})", "overflowAction"},
      {kConfigOpen + kSize + kAction + "keepLastEntries })", "})"}};
  for (const auto& [text, context] : cases)
    EXPECT_EQ(contextOfFailure<Config>(text), context) << text;
  try {
    parse<Config>(kConfigOpen + kSize + kAction + "keepAllEntries})");
  } catch (const Qel::DeserializeException& e) {
    EXPECT_STREQ(e.what(),
                 "cannot read attribute overflowAction: "
                 "KronlogWriter::OverflowActionType has no value keepAllEntries");
  }
}

TEST(ValueParseErrorTest, EveryNearMissOfALogEntryNamesWhatWasBeingRead) {
  const std::pair<std::string, std::string> cases[] = {
      {"Value('KronlogWriter::LogEntry', **{" + kTime + kMessage + "'x'})", kEntryOpen},
      {kEntryOpen + " " + kTime + kMessage + "'x'})", "'timestamp': "},
      {kEntryOpen + "'timestamp': x" + kMessage + "'x'})", "timestamp"},
      {kEntryOpen + kTime + ", 'massage': 'x'})", kMessage},
      {kEntryOpen + kTime + kMessage + "x})", "message"},
      {kEntryOpen + kTime + kMessage + "'x'}}", "})"}};
  for (const auto& [text, context] : cases) {
    EXPECT_EQ(contextOfFailure<LogEntry>(text), context) << text;
  }
}

// ---- Type registry

class WriterTypeRegistryTest : public ::testing::Test {
 protected:
  static const Qel::TypeNode& type(const char* name) {
    const Qel::TypeNode* t = Qel::typeNode(name);
    if (!t) throw std::runtime_error(std::string("not registered: ") + name);
    return *t;
  }
  template <class T>
  static T unboxed(const Qel::Ptr<Qel::ValueBoxBase>& box) {
    auto* typed = dynamic_cast<Qel::ValueBox<T>*>(box.ptr());
    if (!typed) throw std::runtime_error("box holds another type");
    return typed->value;
  }
  static Config configFrom(const std::string& text) {
    return unboxed<Config>(type("KronlogWriter::Config").valueFromStrep(Qel::String(text)));
  }
};

TEST_F(WriterTypeRegistryTest, DefaultsAndValuesFromTextFormsWithTrailingBlanksButNoTrailingText) {
  EXPECT_EQ(configFrom("Value('KronlogWriter::Config', ** {'size': 3, 'overflowAction': "
                       "keepFirstEntries})"),
            Config(3, keepFirstEntries));
  EXPECT_EQ(
      unboxed<LogEntry>(type("KronlogWriter::LogEntry").valueFromStrep(Qel::String(kEntryText))),
      LogEntry(1.5, "x"));
  EXPECT_EQ(configFrom(kDefaultConfigText + " \n"), Config());
  EXPECT_EQ(type("KronlogWriter::Config").defaultValue()->strep(), kDefaultConfigText);
  EXPECT_EQ(unboxed<LogEntry>(type("KronlogWriter::LogEntry").defaultValue()), LogEntry());
  try {
    configFrom(kDefaultConfigText + " x");
    FAIL() << "parsed without error";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "end");
  }
}

TEST_F(WriterTypeRegistryTest, TypesAreRegisteredInDeclarationOrderWithTheirKindsAndEnumerators) {
  using Kind = Qel::TypeNode::Kind;
  const std::vector<std::pair<std::string, Kind>> expected{
      {"KronlogWriter::WriterDir", Kind::entity},
      {"KronlogWriter::OverflowActionType", Kind::enumeration},
      {"KronlogWriter::LogEntry", Kind::value},
      {"KronlogWriter::Writer", Kind::entity},
      {"KronlogWriter::Config", Kind::value}};
  std::vector<std::pair<std::string, Kind>> seen;
  for (const Qel::TypeNode* t : Qel::typeNodes()) {
    if (t->name().view().substr(0, 15) == "KronlogWriter::")
      seen.emplace_back(t->name().stdString(), t->kind());
  }
  EXPECT_EQ(seen, expected);
  const std::vector<std::pair<Qel::String, unsigned int>> enumerators{{"keepFirstEntries", 0u},
                                                                      {"keepLastEntries", 1u}};
  EXPECT_EQ(type("KronlogWriter::OverflowActionType").enumerators(), enumerators);
}

}  // namespace
