// Tests of the writer's value types: equality, the exact text forms, parsing
// them back (and refusing every near miss with the right context), the enum's
// name/number mapping, and what the type registry offers for them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
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

// Parses `text` with T's text-form constructor and returns it; `rest` gets
// what the parser left unread.
template <class T>
T parse(const std::string& text, std::string* rest = nullptr) {
  const Qel::String s(text);
  Qel::String::IteratorConst it = s.begin();
  T value(it, s.end());
  if (rest) *rest = std::string(it, s.end());
  return value;
}

// ---- OverflowActionType

class OverflowActionTypeTest : public ::testing::Test {};

TEST_F(OverflowActionTypeTest, NumbersAreFixed) {
  EXPECT_EQ(static_cast<unsigned>(keepFirstEntries), 0u);
  EXPECT_EQ(static_cast<unsigned>(keepLastEntries), 1u);
}

TEST_F(OverflowActionTypeTest, TextFormsAreTheValueNames) {
  EXPECT_EQ(KronlogWriter::valueToStrep(keepFirstEntries), "keepFirstEntries");
  EXPECT_EQ(KronlogWriter::stringValue(keepLastEntries), "keepLastEntries");
  EXPECT_EQ(streamed(keepFirstEntries), "keepFirstEntries");
  EXPECT_EQ(streamed(keepLastEntries), "keepLastEntries");
}

TEST_F(OverflowActionTypeTest, ValueOutsideTheEnumPrintsAsItsNumber) {
  EXPECT_EQ(KronlogWriter::stringValue(static_cast<OverflowActionType>(7)), "7");
}

TEST_F(OverflowActionTypeTest, InstanceFromNumber) {
  EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(1u), keepLastEntries);
  EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(0u), keepFirstEntries);
}

TEST_F(OverflowActionTypeTest, InstanceFromName) {
  EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(Qel::String("keepFirstEntries")),
            keepFirstEntries);
  EXPECT_EQ(KronlogWriter::OverflowActionTypeInstance(Qel::String("keepLastEntries")),
            keepLastEntries);
}

TEST_F(OverflowActionTypeTest, SequenceToValueReadsTheNameAndStopsAfterIt) {
  const Qel::String text("keepFirstEntries})");
  Qel::String::IteratorConst it = text.begin();
  OverflowActionType value = keepLastEntries;
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
                      EntryPair{"defaults", LogEntry(), LogEntry(0.0, ""), true},
                      EntryPair{"zeroes", LogEntry(0.0, "a"), LogEntry(-0.0, "a"), true},
                      EntryPair{"time", LogEntry(1.5, "a"), LogEntry(1.25, "a"), false},
                      EntryPair{"message", LogEntry(1.5, "a"), LogEntry(1.5, "b"), false},
                      EntryPair{"prefix", LogEntry(1.5, "ab"), LogEntry(1.5, "a"), false},
                      EntryPair{"afterNul", LogEntry(1.5, bytes("a\0b")),
                                LogEntry(1.5, bytes("a\0c")), false},
                      EntryPair{"nan", LogEntry(kNaN, "a"), LogEntry(kNaN, "a"), false},
                      EntryPair{"nanAndNumber", LogEntry(kNaN, "a"), LogEntry(1.5, "a"), false}),
    [](const ::testing::TestParamInfo<EntryPair>& p) { return std::string(p.param.what); });

class LogEntryTest : public ::testing::Test {};

TEST_F(LogEntryTest, DefaultIsZeroTimeAndEmptyMessage) {
  const LogEntry e;
  EXPECT_EQ(e.timestamp(), 0.0);
  EXPECT_TRUE(e.message().empty());
}

TEST_F(LogEntryTest, NaNTimestampIsNotEqualEvenToItself) {
  const LogEntry e(kNaN, "x");
  EXPECT_FALSE(e == e);
  EXPECT_TRUE(e != e);
}

TEST_F(LogEntryTest, PrintsExactTextForm) {
  EXPECT_EQ(KronlogWriter::valueToStrep(LogEntry(1.5, "x")), kEntryText);
  EXPECT_EQ(streamed(LogEntry(1.5, "x")), kEntryText);
}

TEST_F(LogEntryTest, PrintsWholeSecondsWithFractionAndEscapesTheMessage) {
  EXPECT_EQ(KronlogWriter::valueToStrep(LogEntry(1763805600.0, bytes("a'b\\c\0d\ne"))),
            "Value('KronlogWriter::LogEntry', ** {'timestamp': 1763805600.0, "
            "'message': 'a\\'b\\\\c\\x00d\\ne'})");
}

TEST_F(LogEntryTest, AwkwardMessageRoundTrips) {
  const LogEntry e(1763805600.123456, bytes("say \"hi\" 'now'\\\0\n\r\t\x7f\xff end"));
  EXPECT_EQ(parse<LogEntry>(KronlogWriter::valueToStrep(e).stdString()), e);
}

TEST_F(LogEntryTest, TimestampRoundTripsExactly) {
  for (double t : {0.1, -0.0, 1e-300, 1e300, 1763805600.000001, 4102444800.5}) {
    const LogEntry parsed =
        parse<LogEntry>(KronlogWriter::valueToStrep(LogEntry(t, "m")).stdString());
    EXPECT_EQ(parsed.timestamp(), t) << KronlogWriter::valueToStrep(LogEntry(t, "m"));
    EXPECT_EQ(std::signbit(parsed.timestamp()), std::signbit(t));
  }
}

TEST_F(LogEntryTest, NaNTimestampRoundTripsAsNaN) {
  const LogEntry parsed =
      parse<LogEntry>(KronlogWriter::valueToStrep(LogEntry(kNaN, "m")).stdString());
  EXPECT_TRUE(std::isnan(parsed.timestamp()));
  EXPECT_EQ(parsed.message(), "m");
}

TEST_F(LogEntryTest, ParserConsumesExactlyTheTextForm) {
  std::string rest;
  EXPECT_EQ(parse<LogEntry>(kEntryText + ", next", &rest), LogEntry(1.5, "x"));
  EXPECT_EQ(rest, ", next");
}

// ---- Config

class ConfigTest : public ::testing::Test {};

TEST_F(ConfigTest, DefaultKeepsTheLastTenEvents) {
  EXPECT_EQ(Config().size(), 10u);
  EXPECT_EQ(Config().overflowAction(), keepLastEntries);
}

TEST_F(ConfigTest, EqualityComparesBothFields) {
  EXPECT_EQ(Config(), Config(10, keepLastEntries));
  EXPECT_NE(Config(10, keepLastEntries), Config(10, keepFirstEntries));
  EXPECT_NE(Config(10, keepLastEntries), Config(5, keepLastEntries));
  EXPECT_FALSE(Config(5, keepFirstEntries) != Config(5, keepFirstEntries));
}

TEST_F(ConfigTest, DefaultPrintsExactTextFormAndParsesBackEqual) {
  EXPECT_EQ(KronlogWriter::valueToStrep(Config()), kDefaultConfigText);
  EXPECT_EQ(streamed(Config()), kDefaultConfigText);
  EXPECT_EQ(parse<Config>(kDefaultConfigText), Config());
}

TEST_F(ConfigTest, ExtremesRoundTrip) {
  for (const Config& c : {Config(0, keepFirstEntries), Config(4294967295u, keepLastEntries)}) {
    EXPECT_EQ(parse<Config>(KronlogWriter::valueToStrep(c).stdString()), c) << c;
  }
  EXPECT_EQ(KronlogWriter::valueToStrep(Config(0, keepFirstEntries)),
            "Value('KronlogWriter::Config', ** {'size': 0, 'overflowAction': keepFirstEntries})");
}

TEST_F(ConfigTest, ParserConsumesExactlyTheTextForm) {
  std::string rest;
  EXPECT_EQ(parse<Config>(kDefaultConfigText + "})", &rest), Config());
  EXPECT_EQ(rest, "})");
}

// ---- Writer::LogMetadata

class LogMetadataTest : public ::testing::Test {};

TEST_F(LogMetadataTest, DefaultIsZeroZero) {
  EXPECT_EQ(LogMetadata(), LogMetadata(0, 0));
  EXPECT_EQ(LogMetadata().firstIndex(), 0u);
  EXPECT_EQ(LogMetadata().nextIndex(), 0u);
}

TEST_F(LogMetadataTest, EqualityComparesBothFields) {
  EXPECT_EQ(LogMetadata(2, 5), LogMetadata(2, 5));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(3, 5));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(2, 6));
  EXPECT_NE(LogMetadata(2, 5), LogMetadata(5, 2));
}

TEST_F(LogMetadataTest, PrintsExactTextForm) {
  const std::string text =
      "Value('KronlogWriter::Writer::LogMetadata', ** {'firstIndex': 2, 'nextIndex': 4294967295})";
  EXPECT_EQ(KronlogWriter::valueToStrep(LogMetadata(2, 4294967295u)), text);
  EXPECT_EQ(streamed(LogMetadata(2, 4294967295u)), text);
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
    ConfigText, ValueParseErrorTest,
    ::testing::Values(
        configCase("openFirstChar",
                   "value('KronlogWriter::Config', ** {'size': 10, "
                   "'overflowAction': keepLastEntries})",
                   kConfigOpen),
        configCase("openTypeName",
                   "Value('KronlogWriter::Konfig', ** {'size': 10, "
                   "'overflowAction': keepLastEntries})",
                   kConfigOpen),
        configCase("openOtherType", kEntryText, kConfigOpen),
        configCase("openBlankBeforeBrace",
                   "Value('KronlogWriter::Config', **{'size': 10, "
                   "'overflowAction': keepLastEntries})",
                   kConfigOpen),
        configCase("blankAfterBrace",
                   "Value('KronlogWriter::Config', ** { 'size': 10, "
                   "'overflowAction': keepLastEntries})",
                   "'size': "),
        configCase("sizeName", kConfigOpen + "'Size': 10, 'overflowAction': keepLastEntries})",
                   "'size': "),
        configCase("sizeBlank", kConfigOpen + "'size':10, 'overflowAction': keepLastEntries})",
                   "'size': "),
        configCase("sizeNotNumber", kConfigOpen + "'size': x, 'overflowAction': keepLastEntries})",
                   "size"),
        configCase("sizeNegative", kConfigOpen + "'size': -1, 'overflowAction': keepLastEntries})",
                   "size"),
        configCase("sizeOver32Bits",
                   kConfigOpen + "'size': 4294967296, 'overflowAction': keepLastEntries})", "size"),
        configCase("sizeDouble", kConfigOpen + "'size': 1.0, 'overflowAction': keepLastEntries})",
                   ", 'overflowAction': "),
        configCase("actionComma", kConfigOpen + "'size': 10; 'overflowAction': keepLastEntries})",
                   ", 'overflowAction': "),
        configCase("actionName", kConfigOpen + "'size': 10, 'overflowActiom': keepLastEntries})",
                   ", 'overflowAction': "),
        configCase("actionBlank", kConfigOpen + "'size': 10, 'overflowAction':keepLastEntries})",
                   ", 'overflowAction': "),
        configCase("unknownAction", kConfigOpen + "'size': 10, 'overflowAction': keepAllEntries})",
                   "overflowAction"),
        configCase("actionWrongCase",
                   kConfigOpen + "'size': 10, 'overflowAction': KeepLastEntries})",
                   "overflowAction"),
        configCase("actionAsNumber", kConfigOpen + "'size': 10, 'overflowAction': 1})",
                   "overflowAction"),
        configCase("actionQuoted",
                   kConfigOpen + "'size': 10, 'overflowAction': 'keepLastEntries'})",
                   "overflowAction"),
        configCase("actionLongerName",
                   kConfigOpen + "'size': 10, 'overflowAction': keepLastEntries2})",
                   "overflowAction"),
        configCase("closeBrace", kConfigOpen + "'size': 10, 'overflowAction': keepLastEntries))",
                   "})"),
        configCase("closeParen", kConfigOpen + "'size': 10, 'overflowAction': keepLastEntries}]",
                   "})"),
        configCase("closeBlank", kConfigOpen + "'size': 10, 'overflowAction': keepLastEntries })",
                   "})"),
        configCase("closeMissing", kConfigOpen + "'size': 10, 'overflowAction': keepLastEntries}",
                   "})"),
        configCase("empty", "", kConfigOpen)),
    [](const ::testing::TestParamInfo<ParseErrorCase>& p) { return std::string(p.param.what); });

INSTANTIATE_TEST_SUITE_P(
    LogEntryText, ValueParseErrorTest,
    ::testing::Values(
        entryCase("openFirstChar",
                  "Valve('KronlogWriter::LogEntry', ** {'timestamp': 1.5, "
                  "'message': 'x'})",
                  kEntryOpen),
        entryCase("openOtherType", kDefaultConfigText, kEntryOpen),
        entryCase("openBlankBeforeBrace",
                  "Value('KronlogWriter::LogEntry', **{'timestamp': 1.5, "
                  "'message': 'x'})",
                  kEntryOpen),
        entryCase("blankAfterBrace",
                  "Value('KronlogWriter::LogEntry', ** { 'timestamp': 1.5, "
                  "'message': 'x'})",
                  "'timestamp': "),
        entryCase("timestampName", kEntryOpen + "'timeStamp': 1.5, 'message': 'x'})",
                  "'timestamp': "),
        entryCase("timestampBlank", kEntryOpen + "'timestamp':1.5, 'message': 'x'})",
                  "'timestamp': "),
        entryCase("timestampNotNumber", kEntryOpen + "'timestamp': x, 'message': 'x'})",
                  "timestamp"),
        entryCase("timestampPlus", kEntryOpen + "'timestamp': +1.5, 'message': 'x'})", "timestamp"),
        entryCase("messageComma", kEntryOpen + "'timestamp': 1.5; 'message': 'x'})",
                  ", 'message': "),
        entryCase("messageName", kEntryOpen + "'timestamp': 1.5, 'massage': 'x'})",
                  ", 'message': "),
        entryCase("messageUnquoted", kEntryOpen + "'timestamp': 1.5, 'message': x})", "message"),
        entryCase("messageDoubleQuoted", kEntryOpen + "'timestamp': 1.5, 'message': \"x\"})",
                  "message"),
        entryCase("messageUnterminated", kEntryOpen + "'timestamp': 1.5, 'message': 'x})",
                  "message"),
        entryCase("messageBadEscape", kEntryOpen + "'timestamp': 1.5, 'message': 'x\\q'})",
                  "message"),
        entryCase("messageBadHex", kEntryOpen + "'timestamp': 1.5, 'message': 'x\\xg0'})",
                  "message"),
        entryCase("closeBrace", kEntryOpen + "'timestamp': 1.5, 'message': 'x'))", "})"),
        entryCase("closeParen", kEntryOpen + "'timestamp': 1.5, 'message': 'x'}}", "})"),
        entryCase("closeMissing", kEntryOpen + "'timestamp': 1.5, 'message': 'x'", "})")),
    [](const ::testing::TestParamInfo<ParseErrorCase>& p) { return std::string(p.param.what); });

// ---- Error paths with their messages.

class WriterValueErrorTest : public ::testing::Test {
 protected:
  static std::string rangeErrorOf(unsigned int number) {
    try {
      KronlogWriter::OverflowActionTypeInstance(number);
    } catch (const Qel::RangeException& e) {
      return e.what();
    }
    return "<no RangeException>";
  }
  static std::string rangeErrorOf(const char* name) {
    try {
      KronlogWriter::OverflowActionTypeInstance(Qel::String(name));
    } catch (const Qel::RangeException& e) {
      return e.what();
    }
    return "<no RangeException>";
  }
};

TEST_F(WriterValueErrorTest, UnknownNumberIsARangeErrorNamingTheNumber) {
  EXPECT_EQ(rangeErrorOf(2u), "KronlogWriter::OverflowActionType has no value 2");
  EXPECT_EQ(rangeErrorOf(4294967295u), "KronlogWriter::OverflowActionType has no value 4294967295");
}

TEST_F(WriterValueErrorTest, UnknownNameIsARangeErrorNamingTheName) {
  EXPECT_EQ(rangeErrorOf("keepAllEntries"),
            "KronlogWriter::OverflowActionType has no value keepAllEntries");
  EXPECT_EQ(rangeErrorOf("keeplastentries"),
            "KronlogWriter::OverflowActionType has no value keeplastentries");
  EXPECT_EQ(rangeErrorOf(""), "KronlogWriter::OverflowActionType has no value ");
}

TEST_F(WriterValueErrorTest, SequenceToValueRefusesAnUnknownName) {
  const Qel::String text("keepNoEntries})");
  Qel::String::IteratorConst it = text.begin();
  OverflowActionType value = keepLastEntries;
  EXPECT_THROW(KronlogWriter::sequenceToValue(it, text.end(), &value), Qel::RangeException);
  EXPECT_EQ(value, keepLastEntries);
}

TEST_F(WriterValueErrorTest, UnknownActionInConfigNamesTheAttributeAndTheCause) {
  try {
    parse<Config>(kConfigOpen + "'size': 10, 'overflowAction': keepAllEntries})");
    FAIL() << "parsed without error";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "overflowAction");
    EXPECT_EQ(std::string(e.what()),
              "cannot read attribute overflowAction: "
              "KronlogWriter::OverflowActionType has no value keepAllEntries");
  }
}

TEST_F(WriterValueErrorTest, TrailingTextAfterAValueIsRefusedByTheRegistry) {
  const Qel::TypeNode* type = Qel::typeNode("KronlogWriter::Config");
  ASSERT_NE(type, nullptr);
  try {
    type->valueFromStrep(Qel::String(kDefaultConfigText + " x"));
    FAIL() << "parsed without error";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "end");
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
};

TEST_F(WriterTypeRegistryTest, ConfigDefaultKeepsTheLastTen) {
  const auto box = type("KronlogWriter::Config").defaultValue();
  EXPECT_EQ(unboxed<Config>(box), Config(10, keepLastEntries));
  EXPECT_EQ(box->strep(), kDefaultConfigText);
}

TEST_F(WriterTypeRegistryTest, LogEntryDefaultIsZeroAndEmpty) {
  EXPECT_EQ(unboxed<LogEntry>(type("KronlogWriter::LogEntry").defaultValue()), LogEntry());
}

TEST_F(WriterTypeRegistryTest, ValuesAreBuiltFromTheirTextForms) {
  const std::string text =
      "Value('KronlogWriter::Config', ** {'size': 3, 'overflowAction': keepFirstEntries})";
  EXPECT_EQ(unboxed<Config>(type("KronlogWriter::Config").valueFromStrep(Qel::String(text))),
            Config(3, keepFirstEntries));
  EXPECT_EQ(
      unboxed<LogEntry>(type("KronlogWriter::LogEntry").valueFromStrep(Qel::String(kEntryText))),
      LogEntry(1.5, "x"));
}

TEST_F(WriterTypeRegistryTest, TrailingBlanksAfterAValueAreAccepted) {
  EXPECT_EQ(
      unboxed<Config>(
          type("KronlogWriter::Config").valueFromStrep(Qel::String(kDefaultConfigText + " \n"))),
      Config());
}

TEST_F(WriterTypeRegistryTest, OverflowActionTypeIsANamedEnum) {
  const Qel::TypeNode& t = type("KronlogWriter::OverflowActionType");
  EXPECT_EQ(t.kind(), Qel::TypeNode::Kind::enumeration);
  const std::vector<std::pair<Qel::String, unsigned int>> expected{{"keepFirstEntries", 0u},
                                                                   {"keepLastEntries", 1u}};
  EXPECT_EQ(t.enumerators(), expected);
}

TEST_F(WriterTypeRegistryTest, KindsOfTheWriterTypes) {
  EXPECT_EQ(type("KronlogWriter::WriterDir").kind(), Qel::TypeNode::Kind::entity);
  EXPECT_EQ(type("KronlogWriter::Writer").kind(), Qel::TypeNode::Kind::entity);
  EXPECT_EQ(type("KronlogWriter::LogEntry").kind(), Qel::TypeNode::Kind::value);
  EXPECT_EQ(type("KronlogWriter::Config").kind(), Qel::TypeNode::Kind::value);
}

TEST_F(WriterTypeRegistryTest, TypesAreRegisteredInDeclarationOrder) {
  const std::vector<std::string> order{
      "KronlogWriter::WriterDir", "KronlogWriter::OverflowActionType", "KronlogWriter::LogEntry",
      "KronlogWriter::Writer", "KronlogWriter::Config"};
  std::vector<std::string> seen;
  for (const Qel::TypeNode* t : Qel::typeNodes()) {
    const std::string name = t->name().stdString();
    if (std::find(order.begin(), order.end(), name) != order.end()) seen.push_back(name);
  }
  EXPECT_EQ(seen, order);
}

}  // namespace
