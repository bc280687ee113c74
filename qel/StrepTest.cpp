// Strings and text forms: every printed value must parse back to an equal
// one, malformed text must be refused with the right exception, and pointer
// forms must never lead to dereferencing an address that is not a live
// entity.
#include "qel/Strep.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "qel/Entity.h"
#include "qel/Exception.h"
#include "qel/String.h"

namespace {

using Qel::String;

String bytes(const char* data, std::size_t size) {
  return String(data, size);
}

// ---------------------------------------------------------------- String

class StringTest : public ::testing::Test {};

TEST_F(StringTest, NulBytesInsideAreKept) {
  String s = bytes("a\0b", 3);
  EXPECT_EQ(s.size(), 3u);
  EXPECT_EQ(s.view(), std::string_view("a\0b", 3));
}

TEST_F(StringTest, EmptyStringsAreEqualAndTerminated) {
  String none;
  String fromLiteral("");
  String fromNothing(nullptr, 0);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none, fromLiteral);
  EXPECT_EQ(none, fromNothing);
  EXPECT_EQ(none.c_str()[0], '\0');
}

TEST_F(StringTest, NullCStringIsEmpty) {
  const char* nothing = nullptr;
  EXPECT_TRUE(String(nothing).empty());
}

TEST_F(StringTest, CStrIsTerminatedRightAfterTheBytes) {
  const char buffer[] = "xyz";
  String s(buffer, 2);
  EXPECT_EQ(s.c_str()[2], '\0');
  EXPECT_STREQ(s.c_str(), "xy");
}

TEST_F(StringTest, CStrStopsAtAnInnerNul) {
  String s = bytes("ab\0cd", 5);
  EXPECT_STREQ(s.c_str(), "ab");
  EXPECT_EQ(s.c_str()[5], '\0');
}

TEST_F(StringTest, CopiesShareOneBlock) {
  String a("shared text");
  String b = a;
  String c;
  c = b;
  EXPECT_EQ(a.data(), b.data());
  EXPECT_EQ(a.data(), c.data());
}

TEST_F(StringTest, CopyOutlivesTheOriginal) {
  String copy;
  {
    String original("outlived");
    copy = original;
  }
  EXPECT_EQ(copy, "outlived");
}

TEST_F(StringTest, AssignmentReplacesAndSelfAssignmentKeeps) {
  String a("first");
  String b("second");
  a = b;
  const String& alias = a;
  a = alias;
  EXPECT_EQ(a, "second");
  EXPECT_EQ(b, "second");
}

TEST_F(StringTest, MovedFromStringIsEmpty) {
  String a("moving");
  String b(std::move(a));
  String c;
  c = std::move(b);
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): the moved-from state is defined
  EXPECT_TRUE(b.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(c, "moving");
}

TEST_F(StringTest, EqualityComparesEveryByteIncludingThoseAfterNul) {
  EXPECT_EQ(bytes("a\0b", 3), bytes("a\0b", 3));
  EXPECT_NE(bytes("a\0b", 3), bytes("a\0c", 3));
  EXPECT_NE(bytes("a\0", 2), String("a"));
  EXPECT_FALSE(bytes("a\0b", 3) == "a");
}

TEST_F(StringTest, OrderIsBytewiseWithShorterPrefixFirst) {
  EXPECT_LT(String("a"), String("b"));
  EXPECT_LT(String("a"), String("ab"));
  EXPECT_LT(String("a"), bytes("a\0", 2));
  EXPECT_LT(String(), String("a"));
  EXPECT_FALSE(String("b") < String("a"));
  EXPECT_FALSE(String("a") < String("a"));
}

TEST_F(StringTest, BytesCompareAsUnsigned) {
  EXPECT_LT(String("\x7f"), String("\x80"));
  EXPECT_LT(String("z"), String("\xc3\xa9"));
}

TEST_F(StringTest, StreamWritesTheRawBytes) {
  std::ostringstream os;
  os << bytes("a\0'\\\n\xff", 6);
  EXPECT_EQ(os.str(), std::string("a\0'\\\n\xff", 6));
}

// ------------------------------------------------------------ doubles

std::uint64_t bitsOf(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

// Equal bit for bit; any two NaNs count as equal (only the payload differs).
::testing::AssertionResult sameDouble(double expected, double actual) {
  if (std::isnan(expected) && std::isnan(actual)) return ::testing::AssertionSuccess();
  if (bitsOf(expected) == bitsOf(actual)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected " << expected << " (bits " << std::hex << bitsOf(expected) << "), got "
         << actual << " (bits " << bitsOf(actual) << ")";
}

// A finite double is printed with a fraction or an exponent, so that it can
// never be mistaken for an unsigned.
bool looksLikeADouble(const String& text) {
  std::string_view v = text.view();
  return v.find('.') != v.npos || v.find('e') != v.npos || v == "nan" || v == "inf" || v == "-inf";
}

struct DoubleCase {
  const char* label;
  double value;
};

const DoubleCase kDoubleCases[] = {
    {"PointOne", 0.1},
    {"One", 1.0},
    {"Zero", 0.0},
    {"NegativeZero", -0.0},
    {"NegativeFraction", -2.5},
    {"OneThird", 1.0 / 3.0},
    {"Hundred", 100.0},
    {"BigInteger", 123456789012345680000.0},
    {"TimeStamp", 1700000000.25},
    {"Huge", 1e300},
    {"Tiny", 1e-300},
    {"SmallestDenormal", std::numeric_limits<double>::denorm_min()},
    {"Denormal", 1e-310},
    {"LargestDenormal", 2.2250738585072009e-308},
    {"SmallestNormal", std::numeric_limits<double>::min()},
    {"Max", std::numeric_limits<double>::max()},
    {"Lowest", std::numeric_limits<double>::lowest()},
    {"NaN", std::numeric_limits<double>::quiet_NaN()},
    {"PlusInfinity", std::numeric_limits<double>::infinity()},
    {"MinusInfinity", -std::numeric_limits<double>::infinity()},
};

class DoubleRoundTripTest : public ::testing::TestWithParam<DoubleCase> {};

TEST_P(DoubleRoundTripTest, PrintedFormParsesBackBitForBit) {
  String text = Qel::valueToStrep(GetParam().value);
  EXPECT_TRUE(sameDouble(GetParam().value, Qel::strepToValue<double>(text))) << text;
}

TEST_P(DoubleRoundTripTest, PrintedFormIsMarkedAsADouble) {
  String text = Qel::valueToStrep(GetParam().value);
  EXPECT_TRUE(looksLikeADouble(text)) << text;
}

INSTANTIATE_TEST_SUITE_P(Values, DoubleRoundTripTest, ::testing::ValuesIn(kDoubleCases),
                         [](const ::testing::TestParamInfo<DoubleCase>& param) {
                           return std::string(param.param.label);
                         });

struct DoubleFormCase {
  double value;
  const char* text;
};

const DoubleFormCase kDoubleForms[] = {
    {1.0, "1.0"},
    {0.1, "0.1"},
    {-0.0, "-0.0"},
    {100.0, "100.0"},
    {1700000000.25, "1700000000.25"},
    {1e300, "1e+300"},
    {std::numeric_limits<double>::quiet_NaN(), "nan"},
    {std::numeric_limits<double>::infinity(), "inf"},
    {-std::numeric_limits<double>::infinity(), "-inf"},
};

class DoubleFormTest : public ::testing::TestWithParam<DoubleFormCase> {};

TEST_P(DoubleFormTest, PrintsTheExpectedText) {
  EXPECT_EQ(Qel::valueToStrep(GetParam().value), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Values, DoubleFormTest, ::testing::ValuesIn(kDoubleForms));

class DoubleParseTest : public ::testing::Test {
 protected:
  // Reads one double from the front of `text`; returns what is left.
  std::string readFront(const char* text, double* out) {
    String s(text);
    Qel::StrepIt it = s.begin();
    Qel::strepToValue(it, s.end(), out);
    return std::string(it, s.end());
  }
};

TEST_F(DoubleParseTest, ReaderStopsAfterTheNumber) {
  double v = 0;
  EXPECT_EQ(readFront("1.5,2", &v), ",2");
  EXPECT_EQ(v, 1.5);
}

TEST_F(DoubleParseTest, ReaderStopsAfterInfinity) {
  double v = 0;
  EXPECT_EQ(readFront("-inf)", &v), ")");
  EXPECT_EQ(v, -std::numeric_limits<double>::infinity());
}

TEST_F(DoubleParseTest, MalformedOrOutOfRangeTextIsRangeException) {
  for (const char* text : {"", "x", "-", "+1.0", " 1.0", "1e400", "-1e400"}) {
    double v = 0;
    EXPECT_THROW(readFront(text, &v), Qel::RangeException) << '"' << text << '"';
  }
}

// ----------------------------------------------------------- unsigned

class UnsignedRoundTripTest : public ::testing::TestWithParam<unsigned int> {};

TEST_P(UnsignedRoundTripTest, PrintedFormParsesBack) {
  EXPECT_EQ(Qel::strepToValue<unsigned int>(Qel::valueToStrep(GetParam())), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Values, UnsignedRoundTripTest,
                         ::testing::Values(0u, 1u, 9u, 10u, 65536u, 4294967294u, 4294967295u));

TEST(UnsignedStrepTest, PrintsPlainDecimal) {
  EXPECT_EQ(Qel::valueToStrep(0u), "0");
  EXPECT_EQ(Qel::valueToStrep(4294967295u), "4294967295");
}

TEST(UnsignedStrepTest, ValuesAbove32BitsAreRangeException) {
  EXPECT_THROW(Qel::strepToValue<unsigned int>("4294967296"), Qel::RangeException);
  EXPECT_THROW(Qel::strepToValue<unsigned int>("99999999999999999999"), Qel::RangeException);
}

TEST(UnsignedStrepTest, NonDigitsAreRangeException) {
  for (const char* text : {"", "-1", "+1", "x1", " 1"}) {
    EXPECT_THROW(Qel::strepToValue<unsigned int>(text), Qel::RangeException) << '"' << text << '"';
  }
}

TEST(UnsignedStrepTest, TrailingTextIsDeserializeException) {
  EXPECT_THROW(Qel::strepToValue<unsigned int>("12x"), Qel::DeserializeException);
}

// --------------------------------------------------------------- bool

TEST(BoolStrepTest, RoundTripsBothValues) {
  EXPECT_TRUE(Qel::strepToValue<bool>(Qel::valueToStrep(true)));
  EXPECT_FALSE(Qel::strepToValue<bool>(Qel::valueToStrep(false)));
  EXPECT_EQ(Qel::valueToStrep(true), "true");
}

TEST(BoolStrepTest, OtherWordsAreRangeException) {
  for (const char* text : {"True", "truex", "1", "", "fals"}) {
    EXPECT_THROW(Qel::strepToValue<bool>(text), Qel::RangeException) << '"' << text << '"';
  }
}

// ------------------------------------------------------------ strings

std::string allBytesBelow0x20() {
  std::string s;
  for (int c = 0; c < 0x20; ++c) s += static_cast<char>(c);
  return s;
}

std::string allBytesFrom0x80() {
  std::string s;
  for (int c = 0x80; c < 0x100; ++c) s += static_cast<char>(c);
  return s;
}

struct StringCase {
  const char* label;
  std::string value;
};

const StringCase kStringCases[] = {
    {"Empty", ""},
    {"Plain", "hello world"},
    {"Quote", "it's"},
    {"OnlyQuote", "'"},
    {"Backslash", "back\\slash"},
    {"TrailingBackslash", "end\\"},
    {"BackslashBeforeQuote", "\\'"},
    {"DoubleQuote", "say \"hi\""},
    {"EveryControlByte", allBytesBelow0x20()},
    {"NulBytes", std::string("a\0b\0", 4)},
    {"OnlyNul", std::string("\0", 1)},
    {"Delete", "\x7f"},
    {"LooksLikeAnEscape", "\\x41\\n"},
    {"Utf8",
     "gr\xc3\xbc\xc3\x9f"
     "e \xe2\x9c\x93"},
    {"HighBytes", allBytesFrom0x80()},
};

class StringRoundTripTest : public ::testing::TestWithParam<StringCase> {
 protected:
  String value() const { return String(GetParam().value); }
};

TEST_P(StringRoundTripTest, PrintedFormParsesBackToTheSameBytes) {
  String text = Qel::valueToStrep(value());
  EXPECT_EQ(Qel::strepToValue<String>(text), value()) << text;
}

TEST_P(StringRoundTripTest, PrintedFormIsOneQuotedPrintableLine) {
  String text = Qel::valueToStrep(value());
  ASSERT_GE(text.size(), 2u);
  EXPECT_EQ(text.view().front(), '\'');
  EXPECT_EQ(text.view().back(), '\'');
  for (char ch : text.view()) {
    unsigned char c = static_cast<unsigned char>(ch);
    EXPECT_TRUE(c >= 0x20 && c != 0x7f) << "raw byte " << static_cast<int>(c) << " in " << text;
  }
}

TEST_P(StringRoundTripTest, ReaderStopsAtTheClosingQuote) {
  String text(Qel::valueToStrep(value()).stdString() + ",'next'");
  Qel::StrepIt it = text.begin();
  String out;
  Qel::strepToValue(it, text.end(), &out);
  EXPECT_EQ(std::string(it, text.end()), ",'next'");
}

INSTANTIATE_TEST_SUITE_P(Values, StringRoundTripTest, ::testing::ValuesIn(kStringCases),
                         [](const ::testing::TestParamInfo<StringCase>& param) {
                           return std::string(param.param.label);
                         });

// Each byte that must be escaped, on its own and between other bytes.
class EscapedByteTest : public ::testing::TestWithParam<int> {
 protected:
  String value() const {
    char c = static_cast<char>(GetParam());
    return String(std::string("<") + c + ">");
  }
};

TEST_P(EscapedByteTest, RoundTrips) {
  EXPECT_EQ(Qel::strepToValue<String>(Qel::valueToStrep(value())), value());
}

TEST_P(EscapedByteTest, IsNotPrintedRaw) {
  String text = Qel::valueToStrep(value());
  EXPECT_EQ(text.view().find(static_cast<char>(GetParam())), std::string_view::npos) << text;
}

INSTANTIATE_TEST_SUITE_P(ControlBytesAndDelete, EscapedByteTest,
                         ::testing::Values(0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                           0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x11,
                                           0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a,
                                           0x1b, 0x1c, 0x1d, 0x1e, 0x1f, 0x7f));

struct StringFormCase {
  std::string value;
  const char* text;
};

const StringFormCase kStringForms[] = {
    {"", "''"},
    {"it's", "'it\\'s'"},
    {"a\\b", "'a\\\\b'"},
    {"a\nb", "'a\\nb'"},
    {"\t\r", "'\\t\\r'"},
    {"\x01", "'\\x01'"},
    {std::string("\0", 1), "'\\x00'"},
    {"\x7f", "'\\x7f'"},
    {"\x1f", "'\\x1f'"},
    {"\"", "'\"'"},
    {"\xc3\xa9", "'\xc3\xa9'"},
};

class StringFormTest : public ::testing::TestWithParam<StringFormCase> {};

TEST_P(StringFormTest, PrintsTheExpectedText) {
  EXPECT_EQ(Qel::valueToStrep(String(GetParam().value)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Values, StringFormTest, ::testing::ValuesIn(kStringForms));

TEST(StringStrepTest, CStringPrintsLikeString) {
  EXPECT_EQ(Qel::valueToStrep("it's"), Qel::valueToStrep(String("it's")));
}

TEST(StringStrepTest, ReaderAlsoAcceptsDoubleQuoteNulAndUppercaseHexEscapes) {
  EXPECT_EQ(Qel::strepToValue<String>("'\\\"\\0\\x4A\\x4a'"), bytes("\"\0JJ", 4));
}

TEST(StringStrepTest, MalformedTextIsRangeException) {
  for (const char* text :
       {"", "abc", "\"abc\"", "'abc", "'abc\\'", "'a\\q'", "'\\x4'", "'\\xZZ'", "'\\"}) {
    EXPECT_THROW(Qel::strepToValue<String>(text), Qel::RangeException) << text;
  }
}

TEST(StringStrepTest, NameReadsLikeString) {
  String text("'dir\\x00name'");
  Qel::StrepIt it = text.begin();
  Qel::Name name;
  Qel::strepToValue(it, text.end(), &name);
  EXPECT_EQ(name, bytes("dir\0name", 8));
}

// ------------------------------------------------- needString and friends

class NeedStringTest : public ::testing::Test {
 protected:
  static constexpr const char* kLiteral = " at 0x";

  // The DeserializeException needString raises on `text`, or a failure.
  void expectRefused(const std::string& text) {
    String s(text);
    Qel::StrepIt it = s.begin();
    try {
      Qel::needString(it, s.end(), kLiteral);
      ADD_FAILURE() << "accepted \"" << text << '"';
    } catch (const Qel::DeserializeException& e) {
      EXPECT_EQ(e.context(), kLiteral) << text;
    }
  }
};

TEST_F(NeedStringTest, ConsumesExactlyTheLiteral) {
  String s(" at 0x12");
  Qel::StrepIt it = s.begin();
  Qel::needString(it, s.end(), kLiteral);
  EXPECT_EQ(std::string(it, s.end()), "12");
}

TEST_F(NeedStringTest, AnyOneCharacterDifferenceIsRefused) {
  const std::string literal = kLiteral;
  for (std::size_t i = 0; i < literal.size(); ++i) {
    std::string changed = literal;
    changed[i] = changed[i] == 'x' ? 'y' : 'x';
    expectRefused(changed + "12");
  }
}

TEST_F(NeedStringTest, TextEndingEarlyIsRefused) {
  const std::string literal = kLiteral;
  for (std::size_t n = 0; n < literal.size(); ++n) expectRefused(literal.substr(0, n));
}

TEST(DeserializeAttrTest, ReadsTheValue) {
  String text("17");
  Qel::StrepIt it = text.begin();
  unsigned int v = 0;
  Qel::deserializeAttr(it, text.end(), &v, "count");
  EXPECT_EQ(v, 17u);
  EXPECT_EQ(it, text.end());
}

TEST(DeserializeAttrTest, RangeExceptionBecomesDeserializeExceptionNamingTheAttribute) {
  String text("4294967296");
  Qel::StrepIt it = text.begin();
  unsigned int v = 0;
  try {
    Qel::deserializeAttr(it, text.end(), &v, "count");
    ADD_FAILURE() << "accepted " << text;
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "count");
    EXPECT_NE(e.message().view().find("count"), std::string_view::npos) << e.message();
  }
}

TEST(DeserializeAttrTest, StringAttributeFailureNamesTheAttribute) {
  String text("'unterminated");
  Qel::StrepIt it = text.begin();
  String v;
  try {
    Qel::deserializeAttr(it, text.end(), &v, "label");
    ADD_FAILURE() << "accepted " << text;
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "label");
  }
}

TEST(StrepToValueEndTest, AcceptsTrailingBlanks) {
  String text("  \t\r\n");
  Qel::StrepIt it = text.begin();
  Qel::strepToValueEnd(it, text.end());
  EXPECT_EQ(it, text.end());
}

TEST(StrepToValueEndTest, OtherTrailingTextIsDeserializeException) {
  for (const char* rest : {"x", "  x", "\x01", ","}) {
    String text(rest);
    Qel::StrepIt it = text.begin();
    EXPECT_THROW(Qel::strepToValueEnd(it, text.end()), Qel::DeserializeException) << rest;
  }
}

TEST(StrepToValueEndTest, WholeTextParseAllowsTrailingBlanksOnly) {
  EXPECT_EQ(Qel::strepToValue<double>("2.5 \n"), 2.5);
  EXPECT_THROW(Qel::strepToValue<double>("2.5 3"), Qel::DeserializeException);
}

TEST(CannotConvertTest, RaisesDeserializeExceptionNamingTheType) {
  try {
    Qel::cannotConvert("<Qel::Dir at 0x10>", "KronlogWriter");
    ADD_FAILURE() << "returned";
  } catch (const Qel::DeserializeException& e) {
    EXPECT_EQ(e.context(), "KronlogWriter");
    EXPECT_NE(e.message().view().find("<Qel::Dir at 0x10>"), std::string_view::npos);
  }
}

TEST(IdentifierStrepTest, ReadsLettersDigitsAndUnderscores) {
  String text("green_2,blue");
  Qel::StrepIt it = text.begin();
  EXPECT_EQ(Qel::strepToIdentifier(it, text.end()), "green_2");
  EXPECT_EQ(std::string(it, text.end()), ",blue");
}

TEST(IdentifierStrepTest, LeadingDigitIsRangeException) {
  String text("2green");
  Qel::StrepIt it = text.begin();
  EXPECT_THROW(Qel::strepToIdentifier(it, text.end()), Qel::RangeException);
}

// ------------------------------------------------------------ pointers

class RawPtrStrepTest : public ::testing::Test {
 protected:
  // Reads `text` as a whole pointer form.
  Qel::PtrInterface* read(const String& text) {
    Qel::StrepIt it = text.begin();
    Qel::PtrInterface* out = &untouched_;  // so that a reader that writes nothing shows
    Qel::strepToRawPtr(it, text.end(), &out);
    Qel::strepToValueEnd(it, text.end());
    return out;
  }
  // The pointer form of address `address` under type name `type`.
  static String formAt(const char* type, std::uintptr_t address) {
    std::ostringstream os;
    os << '<' << type << " at 0x" << std::hex << address << '>';
    return String(os.str());
  }
  static std::uintptr_t addressOf(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

  Qel::PtrInterface untouched_;
};

TEST_F(RawPtrStrepTest, NullIsNoneAndReadsBackNull) {
  EXPECT_EQ(Qel::valueToStrepOfRawPtr(nullptr), "None");
  EXPECT_EQ(read(Qel::valueToStrepOfRawPtr(nullptr)), nullptr);
}

TEST_F(RawPtrStrepTest, LiveDirReadsBackAsTheSamePointer) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  String text = Qel::valueToStrepOfRawPtr(dir.ptr());
  EXPECT_EQ(text, formAt("Qel::Dir", addressOf(dir.ptr())));
  EXPECT_EQ(read(text), dir.ptr());
}

TEST_F(RawPtrStrepTest, MadeUpAddressIsRangeException) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  for (std::uintptr_t address :
       {std::uintptr_t{0x10}, std::uintptr_t{0xdeadbee0}, addressOf(dir.ptr()) + sizeof(void*)}) {
    EXPECT_THROW(read(formAt("Qel::Dir", address)), Qel::RangeException) << address;
  }
}

TEST_F(RawPtrStrepTest, DestroyedEntityIsRangeException) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  String text = Qel::valueToStrepOfRawPtr(dir.ptr());
  dir = nullptr;
  EXPECT_THROW(read(text), Qel::RangeException);
}

TEST_F(RawPtrStrepTest, LiveEntityUnderAnotherTypeNameIsRangeException) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  EXPECT_THROW(read(formAt("KronlogWriter", addressOf(dir.ptr()))), Qel::RangeException);
}

TEST_F(RawPtrStrepTest, NoneIsAWholeWordNotAPrefix) {
  EXPECT_THROW(read("Nonesuch"), Qel::RangeException);
  EXPECT_EQ(read("None "), nullptr);
}

TEST_F(RawPtrStrepTest, MalformedFormIsRangeException) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  std::string good = Qel::valueToStrepOfRawPtr(dir.ptr()).stdString();
  std::string noClose = good.substr(0, good.size() - 1);
  std::string noAt = "<Qel::Dir 0x" + good.substr(good.find("0x") + 2);
  for (const std::string& text :
       {std::string(""), std::string("none"), std::string("Qel::Dir"), std::string("<Qel::Dir>"),
        std::string("<Qel::Dir at 0x>"), std::string("<Qel::Dir at 0xzz>"), noClose, noAt}) {
    EXPECT_THROW(read(String(text)), Qel::RangeException) << text;
  }
}

}  // namespace
