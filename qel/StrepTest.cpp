// Strings and text forms: printed values parse back equal, malformed text is
// refused with the right exception, and a pointer form never leads to
// dereferencing an address that is not a live entity.
#include "qel/Strep.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/String.h"

namespace {

using Qel::String;

String bytes(const char* data, std::size_t size) {
  return String(data, size);
}

class StringTest : public ::testing::Test {};

TEST_F(StringTest, CStrIsTerminatedRightAfterTheBytesInnerNulsAreKeptAndEmptiesAreEqual) {
  const char buffer[] = "xyz";
  const char* nothing = nullptr;
  EXPECT_STREQ(String(buffer, 2).c_str(), "xy");
  EXPECT_EQ(bytes("ab\0cd", 5).view(), std::string_view("ab\0cd", 5));
  EXPECT_EQ(bytes("ab\0cd", 5).c_str()[5], '\0');
  EXPECT_TRUE(String(nothing).empty());
  EXPECT_EQ(String(), String(nullptr, 0));
  EXPECT_EQ(String().c_str()[0], '\0');
}

TEST_F(StringTest, CopiesShareOneBlockOutliveTheOriginalAndMovesEmptyTheSource) {
  String copy, moved;
  {
    String original("outlived");
    copy = original;
    EXPECT_EQ(copy.data(), original.data());
    moved = std::move(original);
    EXPECT_TRUE(
        original.empty());  // NOLINT(bugprone-use-after-move): the moved-from state is defined
  }
  copy = static_cast<const String&>(copy);
  EXPECT_EQ(copy, "outlived");
  EXPECT_EQ(moved, "outlived");
}

TEST_F(StringTest, EqualityComparesEveryByteIncludingThoseAfterNul) {
  EXPECT_EQ(bytes("a\0b", 3), bytes("a\0b", 3));
  EXPECT_NE(bytes("a\0b", 3), bytes("a\0c", 3));
  EXPECT_NE(bytes("a\0", 2), String("a"));
  EXPECT_FALSE(bytes("a\0b", 3) == "a");
}

TEST_F(StringTest, OrderIsUnsignedBytewiseWithShorterPrefixFirst) {
  EXPECT_LT(String("a"), String("b"));
  EXPECT_LT(String("a"), String("ab"));
  EXPECT_LT(String("a"), bytes("a\0", 2));
  EXPECT_LT(String(), String("a"));
  EXPECT_FALSE(String("b") < String("a"));
  EXPECT_FALSE(String("a") < String("a"));
  // Bytes compare as unsigned.
  EXPECT_LT(String("\x7f"), String("\x80"));
  EXPECT_LT(String("z"), String("\xc3\xa9"));
}

TEST_F(StringTest, StreamWritesTheRawBytes) {
  std::ostringstream os;
  os << bytes("a\0'\\\n\xff", 6);
  EXPECT_EQ(os.str(), std::string("a\0'\\\n\xff", 6));
}

std::uint64_t bitsOf(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
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
  const char* text;  // the exact printed form, where it is pinned down
};

constexpr double kInf = std::numeric_limits<double>::infinity();

const DoubleCase kDoubleCases[] = {
    {"PointOne", 0.1, "0.1"},
    {"One", 1.0, "1.0"},
    {"Zero", 0.0, nullptr},
    {"NegativeZero", -0.0, "-0.0"},
    {"NegativeFraction", -2.5, nullptr},
    {"OneThird", 1.0 / 3.0, nullptr},
    {"Hundred", 100.0, "100.0"},
    {"BigInteger", 123456789012345680000.0, nullptr},
    {"TimeStamp", 1700000000.25, "1700000000.25"},
    {"Huge", 1e300, "1e+300"},
    {"Tiny", 1e-300, nullptr},
    {"SmallestDenormal", std::numeric_limits<double>::denorm_min(), nullptr},
    {"Denormal", 1e-310, nullptr},
    {"LargestDenormal", 2.2250738585072009e-308, nullptr},
    {"SmallestNormal", std::numeric_limits<double>::min(), nullptr},
    {"Max", std::numeric_limits<double>::max(), nullptr},
    {"Lowest", std::numeric_limits<double>::lowest(), nullptr},
    {"NaN", std::numeric_limits<double>::quiet_NaN(), "nan"},
    {"PlusInfinity", kInf, "inf"},
    {"MinusInfinity", -kInf, "-inf"},
};

class DoubleRoundTripTest : public ::testing::TestWithParam<DoubleCase> {};

// Parsed back equal bit for bit; any two NaNs count as equal.
TEST_P(DoubleRoundTripTest, PrintedFormIsMarkedAsADoubleAndParsesBackBitForBit) {
  const DoubleCase& c = GetParam();
  String text = Qel::valueToStrep(c.value);
  if (c.text) {
    EXPECT_EQ(text, c.text);
  }
  EXPECT_TRUE(looksLikeADouble(text)) << text;
  double back = Qel::strepToValue<double>(text);
  if (std::isnan(c.value)) {
    EXPECT_TRUE(std::isnan(back)) << text;
  } else {
    EXPECT_EQ(bitsOf(back), bitsOf(c.value)) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(Values, DoubleRoundTripTest, ::testing::ValuesIn(kDoubleCases),
                         [](const ::testing::TestParamInfo<DoubleCase>& param) {
                           return std::string(param.param.label);
                         });

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
  EXPECT_EQ(readFront("-inf)", &v), ")");
  EXPECT_EQ(v, -kInf);
}

struct UnsignedCase {
  unsigned int value;
  const char* text;
};

class UnsignedRoundTripTest : public ::testing::TestWithParam<UnsignedCase> {};

TEST_P(UnsignedRoundTripTest, PrintsPlainDecimalThatParsesBack) {
  EXPECT_EQ(Qel::valueToStrep(GetParam().value), GetParam().text);
  EXPECT_EQ(Qel::strepToValue<unsigned int>(GetParam().text), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Values, UnsignedRoundTripTest,
                         ::testing::Values(UnsignedCase{0u, "0"}, UnsignedCase{9u, "9"},
                                           UnsignedCase{10u, "10"}, UnsignedCase{65536u, "65536"},
                                           UnsignedCase{4294967294u, "4294967294"},
                                           UnsignedCase{4294967295u, "4294967295"}));

TEST(BoolStrepTest, RoundTripsBothValues) {
  EXPECT_TRUE(Qel::strepToValue<bool>(Qel::valueToStrep(true)));
  EXPECT_FALSE(Qel::strepToValue<bool>(Qel::valueToStrep(false)));
  EXPECT_EQ(Qel::valueToStrep(true), "true");
}

// Every byte from `first` up to, not including, `end`.
std::string byteRange(int first, int end) {
  std::string s;
  for (int c = first; c < end; ++c) s += static_cast<char>(c);
  return s;
}

struct StringCase {
  const char* label;
  std::string value;
  const char* text;  // the exact printed form, where it is pinned down
};

const StringCase kStringCases[] = {
    {"Empty", "", "''"},
    {"Plain", "hello world", nullptr},
    {"Quote", "it's", "'it\\'s'"},
    {"OnlyQuote", "'", nullptr},
    {"Backslash", "a\\b", "'a\\\\b'"},
    {"TrailingBackslash", "end\\", nullptr},
    {"BackslashBeforeQuote", "\\'", nullptr},
    {"DoubleQuote", "\"", "'\"'"},
    {"Newline", "a\nb", "'a\\nb'"},
    {"TabAndReturn", "\t\r", "'\\t\\r'"},
    {"ControlByte", "\x01", "'\\x01'"},
    {"LastControlByte", "\x1f", "'\\x1f'"},
    {"EveryControlByte", byteRange(0, 0x20), nullptr},
    {"NulBytes", std::string("a\0b\0", 4), nullptr},
    {"OnlyNul", std::string("\0", 1), "'\\x00'"},
    {"Delete", "\x7f", "'\\x7f'"},
    {"LooksLikeAnEscape", "\\x41\\n", nullptr},
    {"Utf8", "\xc3\xa9", "'\xc3\xa9'"},
    {"HighBytes", byteRange(0x80, 0x100), nullptr},
};

class StringRoundTripTest : public ::testing::TestWithParam<StringCase> {
 protected:
  String value() const { return String(GetParam().value); }
};

// The printed form is one quoted line of printable bytes (exactly as given,
// where given), read back to the same bytes up to the closing quote.
TEST_P(StringRoundTripTest, PrintedFormIsOneQuotedPrintableLineThatParsesBack) {
  String text = Qel::valueToStrep(value());
  if (GetParam().text) {
    EXPECT_EQ(text, GetParam().text);
  }
  ASSERT_GE(text.size(), 2u);
  EXPECT_EQ(text.view().front(), '\'');
  EXPECT_EQ(text.view().back(), '\'');
  for (char ch : text.view()) {
    unsigned char c = static_cast<unsigned char>(ch);
    EXPECT_TRUE(c >= 0x20 && c != 0x7f) << "raw byte " << static_cast<int>(c) << " in " << text;
  }
  String followed(text.stdString() + ",'next'");
  Qel::StrepIt it = followed.begin();
  String out;
  Qel::strepToValue(it, followed.end(), &out);
  EXPECT_EQ(out, value()) << text;
  EXPECT_EQ(std::string(it, followed.end()), ",'next'");
}

INSTANTIATE_TEST_SUITE_P(Values, StringRoundTripTest, ::testing::ValuesIn(kStringCases),
                         [](const ::testing::TestParamInfo<StringCase>& param) {
                           return std::string(param.param.label);
                         });

// The reader also takes \", \0 and uppercase hex escapes.
TEST(StringStrepTest, CStringPrintsLikeStringAndReaderTakesExtraEscapes) {
  EXPECT_EQ(Qel::valueToStrep("it's"), Qel::valueToStrep(String("it's")));
  EXPECT_EQ(Qel::strepToValue<String>("'\\\"\\0\\x4A\\x4a'"), bytes("\"\0JJ", 4));
}

TEST(StringStrepTest, NameReadsLikeString) {
  String text("'dir\\x00name'");
  Qel::StrepIt it = text.begin();
  Qel::Name name;
  Qel::strepToValue(it, text.end(), &name);
  EXPECT_EQ(name, bytes("dir\0name", 8));
}

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

TEST_F(NeedStringTest, AnyOneCharacterDifferenceOrEarlyEndIsRefused) {
  const std::string literal = kLiteral;
  for (std::size_t i = 0; i < literal.size(); ++i) {
    std::string changed = literal;
    changed[i] = changed[i] == 'x' ? 'y' : 'x';
    expectRefused(changed + "12");
    expectRefused(literal.substr(0, i));
  }
}

// The context of the DeserializeException deserializeAttr raises on `text`.
template <class T>
std::string failureContext(const char* text, const char* attribute) {
  String s(text);
  Qel::StrepIt it = s.begin();
  T v{};
  try {
    Qel::deserializeAttr(it, s.end(), &v, attribute);
  } catch (const Qel::DeserializeException& e) {
    EXPECT_NE(e.message().view().find(attribute), std::string_view::npos) << e.message();
    return e.context().stdString();
  }
  return "(accepted)";
}

TEST(DeserializeAttrTest, ReadsTheValueOrRaisesDeserializeExceptionNamingTheAttribute) {
  String text("17");
  Qel::StrepIt it = text.begin();
  unsigned int v = 0;
  Qel::deserializeAttr(it, text.end(), &v, "count");
  EXPECT_EQ(std::make_pair(v, it == text.end()), std::make_pair(17u, true));
  EXPECT_EQ(failureContext<unsigned int>("4294967296", "count"), "count");
  EXPECT_EQ(failureContext<String>("'unterminated", "label"), "label");
}

// Malformed text, read as a whole value: a reader refuses what it cannot
// read with RangeException; text left after a good value is a
// DeserializeException.
enum class Refusal { range, trailing };

struct MalformedCase {
  const char* type;
  Refusal refusal;
  std::vector<std::string> texts;
};

std::ostream& operator<<(std::ostream& os, const MalformedCase& c) {
  return os << c.type << (c.refusal == Refusal::range ? " range" : " trailing");
}

class MalformedTextTest : public ::testing::TestWithParam<MalformedCase> {
 protected:
  static void parse(const std::string& type, const String& text) {
    if (type == "double") Qel::strepToValue<double>(text);
    if (type == "unsigned") Qel::strepToValue<unsigned int>(text);
    if (type == "bool") Qel::strepToValue<bool>(text);
    if (type == "string") Qel::strepToValue<String>(text);
  }
};

TEST_P(MalformedTextTest, IsRefusedWithTheRightException) {
  for (const std::string& text : GetParam().texts) {
    if (GetParam().refusal == Refusal::range) {
      EXPECT_THROW(parse(GetParam().type, String(text)), Qel::RangeException) << text;
    } else {
      EXPECT_THROW(parse(GetParam().type, String(text)), Qel::DeserializeException) << text;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MalformedTextTest,
    ::testing::Values(
        MalformedCase{"double", Refusal::range, {"", "x", "-", "+1.0", " 1.0", "1e400", "-1e400"}},
        MalformedCase{"double", Refusal::trailing, {"2.5 3", "2.5,"}},
        MalformedCase{"unsigned",
                      Refusal::range,
                      {"", "-1", "+1", "x1", " 1", "4294967296", "99999999999999999999"}},
        MalformedCase{"unsigned", Refusal::trailing, {"12x", "1  x", "1\x01"}},
        MalformedCase{"bool", Refusal::range, {"True", "truex", "1", "", "fals"}},
        MalformedCase{
            "string",
            Refusal::range,
            {"", "abc", "\"abc\"", "'abc", "'abc\\'", "'a\\q'", "'\\x4'", "'\\xZZ'", "'\\"}}));

TEST(StrepToValueEndTest, WholeTextParseAllowsTrailingBlanks) {
  EXPECT_EQ(Qel::strepToValue<double>("2.5  \t\r\n"), 2.5);
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

TEST(IdentifierStrepTest, ReadsLettersDigitsAndUnderscoresButNoLeadingDigit) {
  String text("green_2,blue");
  Qel::StrepIt it = text.begin();
  EXPECT_EQ(Qel::strepToIdentifier(it, text.end()), "green_2");
  EXPECT_EQ(std::string(it, text.end()), ",blue");
  String bad("2green");
  Qel::StrepIt at = bad.begin();
  EXPECT_THROW(Qel::strepToIdentifier(at, bad.end()), Qel::RangeException);
}

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

TEST_F(RawPtrStrepTest, LiveDirReadsBackAsTheSamePointer) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  String text = Qel::valueToStrepOfRawPtr(dir.ptr());
  EXPECT_EQ(text, formAt("Qel::Dir", addressOf(dir.ptr())));
  EXPECT_EQ(read(text), dir.ptr());
}

TEST_F(RawPtrStrepTest, MadeUpOrDeadAddressIsRangeException) {
  Qel::Dir::Ptr dir = Qel::dirFactory("d");
  for (std::uintptr_t address :
       {std::uintptr_t{0x10}, std::uintptr_t{0xdeadbee0}, addressOf(dir.ptr()) + sizeof(void*)}) {
    EXPECT_THROW(read(formAt("Qel::Dir", address)), Qel::RangeException) << address;
  }
  // A live entity, but under another type's name.
  EXPECT_THROW(read(formAt("KronlogWriter", addressOf(dir.ptr()))), Qel::RangeException);
  const String text = Qel::valueToStrepOfRawPtr(dir.ptr());
  dir = nullptr;  // the address of a destroyed entity
  EXPECT_THROW(read(text), Qel::RangeException);
}

TEST_F(RawPtrStrepTest, NullIsNoneAWholeWordNotAPrefix) {
  EXPECT_EQ(Qel::valueToStrepOfRawPtr(nullptr), "None");
  EXPECT_EQ(read("None"), nullptr);
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
