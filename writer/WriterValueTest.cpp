// Tests of the writer's value types: equality, the exact text forms, parsing
// them back (and refusing every near miss with the right context), the enum's
// name/number mapping, and what the type registry offers for them.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
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
  EXPECT_EQ(rangeErrorOf(4294967295u), "KronlogWriter::OverflowActionType has no value 4294967295");
  EXPECT_EQ(rangeErrorOf(Qel::String("keeplastentries")),
            "KronlogWriter::OverflowActionType has no value keeplastentries");
  EXPECT_EQ(rangeErrorOf(Qel::String("")), "KronlogWriter::OverflowActionType has no value ");
  EXPECT_EQ(KronlogWriter::stringValue(static_cast<OverflowActionType>(7)), "7");
}

TEST_F(OverflowActionTypeTest, SequenceToValueReadsTheNameAndStopsAfterItOrRefusesIt) {
  const Qel::String text("keepFirstEntries})"), unknown("keepNoEntries})");
  Qel::String::IteratorConst it = text.begin(), unknownIt = unknown.begin();
  OverflowActionType value = keepLastEntries;
  EXPECT_THROW(KronlogWriter::sequenceToValue(unknownIt, unknown.end(), &value),
               Qel::RangeException);
  EXPECT_EQ(value, keepLastEntries);
  KronlogWriter::sequenceToValue(it, text.end(), &value);
  EXPECT_EQ(value, keepFirstEntries);
  EXPECT_EQ(std::string(it, text.end()), "})");
}

// ---- LogEntry

struct EntryPair {
  const char* what;
  LogEntry a;
  LogEntry b;
  bool equal;
};

std::ostream& operator<<(std::ostream& os, const EntryPair& p) {
  return os << p.a << (p.equal ? " == " : " != ") << p.b;
}

class LogEntryEqualityTest : public ::testing::TestWithParam<EntryPair> {};

TEST_P(LogEntryEqualityTest, EqualityAndInequalityAgree) {
  const EntryPair& p = GetParam();
  EXPECT_EQ(p.a == p.b, p.equal);
  EXPECT_EQ(p.b == p.a, p.equal);
  EXPECT_EQ(p.a != p.b, !p.equal);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LogEntryEqualityTest,
    ::testing::Values(EntryPair{"same", LogEntry(1.5, "a"), LogEntry(1.5, "a"), true},
                      EntryPair{"zeroes", LogEntry(0.0, "a"), LogEntry(-0.0, "a"), true},
                      EntryPair{"time", LogEntry(1.5, "a"), LogEntry(1.25, "a"), false},
                      EntryPair{"message", LogEntry(1.5, "ab"), LogEntry(1.5, "a"), false},
                      EntryPair{"afterNul", LogEntry(1.5, bytes("a\0b")),
                                LogEntry(1.5, bytes("a\0c")), false},
                      EntryPair{"nan", LogEntry(kNaN, "a"), LogEntry(kNaN, "a"), false}),
    [](const ::testing::TestParamInfo<EntryPair>& p) { return std::string(p.param.what); });

class LogEntryTextTest : public ::testing::Test {};

TEST_F(LogEntryTextTest, PrintsExactTextFormEscapingTheMessage) {
  EXPECT_EQ(streamed(LogEntry(1.5, "x")), kEntryText);
  EXPECT_EQ(valueToStrep(LogEntry(1763805600.0, bytes("a'b\\c\0d\ne"))),
            "Value('KronlogWriter::LogEntry', ** {'timestamp': 1763805600.0, "
            "'message': 'a\\'b\\\\c\\x00d\\ne'})");
}

TEST_F(LogEntryTextTest, AwkwardMessageAndNaNRoundTrip) {
  const LogEntry e(1763805600.123456, bytes("say \"hi\" 'now'\\\0\n\r\t\x7f\xff end"));
  EXPECT_EQ(roundTrip(e), e);
  EXPECT_TRUE(std::isnan(roundTrip(LogEntry(kNaN, "m")).timestamp()));
}

// ---- Config and LogMetadata

class ConfigTextTest : public ::testing::Test {};

TEST_F(ConfigTextTest, DefaultIsLastTenPrintsExactTextAndParsesBackEqual) {
  EXPECT_EQ(Config(), Config(10, keepLastEntries));
  EXPECT_EQ(valueToStrep(Config()), kDefaultConfigText);
  EXPECT_EQ(streamed(Config()), kDefaultConfigText);
  EXPECT_EQ(parse<Config>(kDefaultConfigText), Config());
}

TEST_F(ConfigTextTest, EqualityComparesBothFields) {
  EXPECT_NE(Config(10, keepLastEntries), Config(10, keepFirstEntries));
  EXPECT_NE(Config(10, keepLastEntries), Config(5, keepLastEntries));
  EXPECT_FALSE(Config(5, keepFirstEntries) != Config(5, keepFirstEntries));
}

TEST_F(ConfigTextTest, ExtremesRoundTripAndTheParserStopsAfterTheTextForm) {
  for (const Config& c : {Config(0, keepFirstEntries), Config(4294967295u, keepLastEntries)}) {
    EXPECT_EQ(roundTrip(c), c) << c;
  }
  std::string rest;
  EXPECT_EQ(parse<Config>(kDefaultConfigText + "})", &rest), Config());
  EXPECT_EQ(rest, "})");
}

TEST_F(ConfigTextTest, LogMetadataComparesBothFieldsAndPrintsExactText) {
  EXPECT_EQ(LogMetadata(), LogMetadata(0, 0));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(3, 5));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(2, 6));
  EXPECT_EQ(streamed(LogMetadata(2, 4294967295u)),
            "Value('KronlogWriter::Writer::LogMetadata', ** {'firstIndex': 2, 'nextIndex': "
            "4294967295})");
}

// ---- Parse errors: every literal is required to the character, and each
// failure names what was being read.

struct ParseErrorCase {
  const char* what;
  bool isConfig;  // else a LogEntry
  std::string text;
  std::string context;
};

std::ostream& operator<<(std::ostream& os, const ParseErrorCase& c) {
  return os << c.text;
}

const std::string kConfigOpen = "Value('KronlogWriter::Config', ** {";
const std::string kEntryOpen = "Value('KronlogWriter::LogEntry', ** {";
const std::string kSize = "'size': 10";
const std::string kAction = ", 'overflowAction': ";
const std::string kTime = "'timestamp': 1.5";
const std::string kMessage = ", 'message': ";

ParseErrorCase configCase(const char* what, std::string text, std::string context) {
  return {what, true, std::move(text), std::move(context)};
}
ParseErrorCase entryCase(const char* what, std::string text, std::string context) {
  return {what, false, std::move(text), std::move(context)};
}

class ValueParseErrorTest : public ::testing::TestWithParam<ParseErrorCase> {
 protected:
  // The context of the DeserializeException the parse raised, or a note
  // saying it raised none.
  static std::string contextOfFailure(const ParseErrorCase& c) {
    try {
      if (c.isConfig) {
        parse<Config>(c.text);
      } else {
        parse<LogEntry>(c.text);
      }
    } catch (const Qel::DeserializeException& e) {
      return e.context().stdString();
    }
    return "<parsed without error>";
  }
};

TEST_P(ValueParseErrorTest, RaisesDeserializeExceptionWithContext) {
  EXPECT_EQ(contextOfFailure(GetParam()), GetParam().context);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ValueParseErrorTest,
    ::testing::Values(
        configCase("configOpenFirstChar", "v" + kDefaultConfigText.substr(1), kConfigOpen),
        configCase("configBlankAfterBrace",
                   kConfigOpen + " " + kSize + kAction + "keepLastEntries})", "'size': "),
        configCase("sizeNegative", kConfigOpen + "'size': -1" + kAction + "keepLastEntries})",
                   "size"),
        configCase("actionComma", kConfigOpen + kSize + "; 'overflowAction': keepLastEntries})",
                   kAction),
        configCase("unknownAction", kConfigOpen + kSize + kAction + "keepAllEntries})",
                   "overflowAction"),
        configCase("actionLongerName", kConfigOpen + kSize + kAction + "keepLastEntries2})",
                   "overflowAction"),
        configCase("configCloseBlank", kConfigOpen + kSize + kAction + "keepLastEntries })", "})"),
        entryCase("entryBlankBeforeBrace",
                  "Value('KronlogWriter::LogEntry', **{" + kTime + kMessage + "'x'})", kEntryOpen),
        entryCase("entryBlankAfterBrace", kEntryOpen + " " + kTime + kMessage + "'x'})",
                  "'timestamp': "),
        entryCase("timestampNotNumber", kEntryOpen + "'timestamp': x" + kMessage + "'x'})",
                  "timestamp"),
        entryCase("messageName", kEntryOpen + kTime + ", 'massage': 'x'})", kMessage),
        entryCase("messageUnquoted", kEntryOpen + kTime + kMessage + "x})", "message"),
        entryCase("entryCloseParen", kEntryOpen + kTime + kMessage + "'x'}}", "})")),
    [](const ::testing::TestParamInfo<ParseErrorCase>& p) { return std::string(p.param.what); });

TEST(ValueParseErrorMessageTest, UnknownActionNamesTheAttributeAndTheCause) {
  try {
    parse<Config>(kConfigOpen + kSize + kAction + "keepAllEntries})");
    FAIL() << "parsed without error";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot read attribute overflowAction: "
              "KronlogWriter::OverflowActionType has no value keepAllEntries");
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

TEST_F(WriterTypeRegistryTest, DefaultsAreTheLastTenConfigAndTheEmptyEntry) {
  const auto box = type("KronlogWriter::Config").defaultValue();
  EXPECT_EQ(unboxed<Config>(box), Config(10, keepLastEntries));
  EXPECT_EQ(box->strep(), kDefaultConfigText);
  EXPECT_EQ(unboxed<LogEntry>(type("KronlogWriter::LogEntry").defaultValue()), LogEntry());
}

TEST_F(WriterTypeRegistryTest, ValuesAreBuiltFromTextFormsWithTrailingBlanksButNoTrailingText) {
  EXPECT_EQ(configFrom("Value('KronlogWriter::Config', ** {'size': 3, 'overflowAction': "
                       "keepFirstEntries})"),
            Config(3, keepFirstEntries));
  EXPECT_EQ(
      unboxed<LogEntry>(type("KronlogWriter::LogEntry").valueFromStrep(Qel::String(kEntryText))),
      LogEntry(1.5, "x"));
  EXPECT_EQ(configFrom(kDefaultConfigText + " \n"), Config());
  try {
    configFrom(kDefaultConfigText + " x");
    FAIL() << "parsed without error";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "end");
  }
}

TEST_F(WriterTypeRegistryTest, TypesAreRegisteredInDeclarationOrderWithTheirKinds) {
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
}

TEST_F(WriterTypeRegistryTest, EnumeratorsAreTheTwoPolicies) {
  const std::vector<std::pair<Qel::String, unsigned int>> expected{{"keepFirstEntries", 0u},
                                                                   {"keepLastEntries", 1u}};
  EXPECT_EQ(type("KronlogWriter::OverflowActionType").enumerators(), expected);
}

}  // namespace
