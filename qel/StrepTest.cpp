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

// Reads one T from the front of `text` into `out`; returns what is left.
template <class T>
std::string readFront(const String& text, T* out) {
  Qel::StrepIt it = text.begin();
  Qel::strepToValue(it, text.end(), out);
  return std::string(it, text.end());
}

TEST(StringTest, CStrIsTerminatedRightAfterTheBytesInnerNulsAreKeptAndEmptiesAreEqual) {
  const char* nothing = nullptr;
  EXPECT_STREQ(String("xyz", 2).c_str(), "xy");
  EXPECT_EQ(bytes("ab\0cd", 5).view(), std::string_view("ab\0cd", 5));
  EXPECT_EQ(bytes("ab\0cd", 5).c_str()[5], '\0');
  EXPECT_TRUE(String(nothing).empty());
  EXPECT_EQ(String(), String(nullptr, 0));
  EXPECT_EQ(String().c_str()[0], '\0');
}

TEST(StringTest, CopiesShareOneBlockOutliveTheOriginalAndMovesEmptyTheSource) {
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

TEST(StringTest, ComparisonTakesEveryByteUnsignedWithShorterPrefixFirst) {
  EXPECT_NE(bytes("a\0b", 3), bytes("a\0c", 3));
  EXPECT_NE(bytes("a\0", 2), String("a"));
  EXPECT_FALSE(bytes("a\0b", 3) == "a");
  EXPECT_LT(String("a"), bytes("a\0", 2));
  EXPECT_LT(String(), String("a"));
  EXPECT_FALSE(String("a") < String("a"));
  EXPECT_FALSE(String("b") < String("a"));
  EXPECT_LT(String("z"), String("\xc3\xa9"));
}

std::uint64_t bitsOf(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A finite double is printed with a fraction or an exponent, so that it can
// never be mistaken for an unsigned, and in its shortest form (exactly as
// given, where given); any two NaNs count as equal.
TEST(DoubleStrepTest, PrintedFormIsShortestMarkedAsADoubleAndParsesBackBitForBit) {
  const std::pair<double, const char*> rows[] = {{0.1, "0.1"},
                                                 {1.0, "1.0"},
                                                 {0.0, "0.0"},
                                                 {-0.0, "-0.0"},
                                                 {-2.5, nullptr},
                                                 {1.0 / 3.0, nullptr},
                                                 {100.0, "100.0"},
                                                 {1.2345678901234568e20, nullptr},
                                                 {1700000000.25, "1700000000.25"},
                                                 {1e300, "1e+300"},
                                                 {1e-300, nullptr},
                                                 {4.9406564584124654e-324, nullptr},
                                                 {1e-310, nullptr},
                                                 {2.2250738585072009e-308, nullptr},
                                                 {2.2250738585072014e-308, nullptr},
                                                 {1.7976931348623157e308, nullptr},
                                                 {-1.7976931348623157e308, nullptr},
                                                 {kInf, "inf"},
                                                 {-kInf, "-inf"},
                                                 {kNaN, "nan"}};
  for (auto [v, exact] : rows) {
    String text = Qel::valueToStrep(v);
    SCOPED_TRACE(text.stdString());
    if (exact) {
      EXPECT_EQ(text, exact);
    }
    EXPECT_NE(text.view().find_first_of(".en"), std::string_view::npos);
    double back = Qel::strepToValue<double>(text);
    EXPECT_TRUE(std::isnan(v) ? std::isnan(back) : bitsOf(back) == bitsOf(v));
  }
}

TEST(DoubleStrepTest, ReaderStopsAfterTheNumberAndWholeTextAllowsTrailingBlanks) {
  double v = 0;
  EXPECT_EQ(readFront(String("1.5,2"), &v), ",2");
  EXPECT_EQ(v, 1.5);
  EXPECT_EQ(readFront(String("-inf)"), &v), ")");
  EXPECT_EQ(v, -kInf);
  EXPECT_EQ(Qel::strepToValue<double>("2.5  \t\r\n"), 2.5);
}

TEST(UnsignedStrepTest, UnsignedAndBoolPrintPlainAndParseBack) {
  for (unsigned int v : {0u, 9u, 10u, 65536u, 4294967294u, 4294967295u}) {
    EXPECT_EQ(Qel::valueToStrep(v), std::to_string(v));
    EXPECT_EQ(Qel::strepToValue<unsigned int>(String(std::to_string(v))), v);
  }
  EXPECT_EQ(Qel::valueToStrep(true), "true");
  EXPECT_TRUE(Qel::strepToValue<bool>("true"));
  EXPECT_FALSE(Qel::strepToValue<bool>(Qel::valueToStrep(false)));
}

// Every byte from `first` up to, not including, `end`.
std::string byteRange(int first, int end) {
  std::string s;
  for (int c = first; c < end; ++c) s += static_cast<char>(c);
  return s;
}

// The printed form is one quoted line of printable bytes (exactly as given,
// where given), read back to the same bytes up to the closing quote.
void expectQuotedRoundTrip(const std::string& value, const char* exact) {
  String text = Qel::valueToStrep(String(value));
  SCOPED_TRACE(text.stdString());
  if (exact) {
    EXPECT_EQ(text, exact);
  }
  ASSERT_GE(text.size(), 2u);
  EXPECT_EQ(text.view().front(), '\'');
  EXPECT_EQ(text.view().back(), '\'');
  for (char ch : text.view()) {
    EXPECT_TRUE(static_cast<unsigned char>(ch) >= 0x20 && ch != 0x7f) << static_cast<int>(ch);
  }
  String out;
  EXPECT_EQ(readFront(String(text.stdString() + ",'next'"), &out), ",'next'");
  EXPECT_EQ(out, String(value));
}

TEST(StringStrepTest, PrintedFormIsOneQuotedPrintableLineThatParsesBack) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "''"},           {"hello world", nullptr}, {"it's", "'it\\'s'"},
      {"'", nullptr},       {"a\\b", "'a\\\\b'"},     {"end\\", nullptr},
      {"\\'", nullptr},     {"\"", "'\"'"},           {"a\nb", "'a\\nb'"},
      {"\t\r", "'\\t\\r'"}, {"\x01", "'\\x01'"},      {"\x1f", "'\\x1f'"},
      {"\x7f", "'\\x7f'"},  {"\\x41\\n", nullptr},    {"\xc3\xa9", "'\xc3\xa9'"}};
  for (auto [value, exact] : rows) expectQuotedRoundTrip(value, exact);
  expectQuotedRoundTrip(std::string("\0", 1), "'\\x00'");
  expectQuotedRoundTrip(std::string("a\0b\0", 4), nullptr);
  expectQuotedRoundTrip(byteRange(0, 0x20), nullptr);
  expectQuotedRoundTrip(byteRange(0x80, 0x100), nullptr);
}

// The reader also takes \", \0 and uppercase hex escapes; a Name reads alike.
TEST(StringStrepTest, CStringPrintsLikeStringAndReaderTakesExtraEscapes) {
  EXPECT_EQ(Qel::valueToStrep("it's"), Qel::valueToStrep(String("it's")));
  EXPECT_EQ(Qel::strepToValue<String>("'\\\"\\0\\x4A\\x4a'"), bytes("\"\0JJ", 4));
  Qel::Name name;
  readFront(String("'dir\\x00name'"), &name);
  EXPECT_EQ(name, bytes("dir\0name", 8));
}

// The context of the DeserializeException `parse` raises, whose message must
// hold `inMessage`.
template <class F>
std::string failureContext(F parse, const char* inMessage = "") {
  try {
    parse();
  } catch (const Qel::DeserializeException& e) {
    EXPECT_NE(e.message().view().find(inMessage), std::string_view::npos) << e.message();
    return e.context().stdString();
  }
  return "(accepted)";
}

TEST(NeedStringTest, ConsumesExactlyTheLiteralAndRefusesAnyDifferenceOrEarlyEnd) {
  const std::string literal = " at 0x";
  auto need = [&](const String& s) {
    Qel::StrepIt it = s.begin();
    Qel::needString(it, s.end(), literal.c_str());
    return std::string(it, s.end());
  };
  EXPECT_EQ(need(String(literal + "12")), "12");
  for (std::size_t i = 0; i < literal.size(); ++i) {
    std::string changed = literal;
    changed[i] = changed[i] == 'x' ? 'y' : 'x';
    EXPECT_EQ(failureContext([&] { need(String(changed + "12")); }), literal) << changed;
    EXPECT_EQ(failureContext([&] { need(String(literal.substr(0, i))); }), literal) << i;
  }
}

// Read as a whole value: a reader refuses what it cannot read with
// RangeException; text left after a good value is a DeserializeException.
TEST(MalformedTextTest, IsRefusedWithTheRightException) {
  const struct {
    const char* type;
    bool trailing;
    std::vector<std::string> texts;
  } cases[] = {
      {"double", false, {"", "x", "-", "+1.0", " 1.0", "1e400", "-1e400"}},
      {"double", true, {"2.5 3", "2.5,"}},
      {"unsigned", false, {"", "-1", "+1", "x1", " 1", "4294967296", "99999999999999999999"}},
      {"unsigned", true, {"12x", "1  x", "1\x01"}},
      {"bool", false, {"True", "truex", "1", "", "fals"}},
      {"string",
       false,
       {"", "abc", "\"abc\"", "'abc", "'abc\\'", "'a\\q'", "'\\x4'", "'\\xZZ'", "'\\"}},
  };
  for (const auto& c : cases) {
    for (const std::string& s : c.texts) {
      SCOPED_TRACE(std::string(c.type) + " \"" + s + '"');
      const String text(s);
      auto parse = [&] {
        if (c.type == std::string("double")) Qel::strepToValue<double>(text);
        if (c.type == std::string("unsigned")) Qel::strepToValue<unsigned int>(text);
        if (c.type == std::string("bool")) Qel::strepToValue<bool>(text);
        if (c.type == std::string("string")) Qel::strepToValue<String>(text);
      };
      if (c.trailing) {
        EXPECT_THROW(parse(), Qel::DeserializeException);
      } else {
        EXPECT_THROW(parse(), Qel::RangeException);
      }
    }
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
  // The pointer form of `address` under type name `type`.
  static String formAt(const char* type, const void* address) {
    std::ostringstream os;
    os << '<' << type << " at 0x" << std::hex << reinterpret_cast<std::uintptr_t>(address) << '>';
    return String(os.str());
  }

  Qel::PtrInterface untouched_;
  Qel::Dir::Ptr dir_ = Qel::dirFactory("d");
};

TEST_F(RawPtrStrepTest, LiveDirReadsBackAsTheSamePointer) {
  String text = Qel::valueToStrepOfRawPtr(dir_.ptr());
  EXPECT_EQ(text, formAt("Qel::Dir", dir_.ptr()));
  EXPECT_EQ(read(text), dir_.ptr());
}

TEST_F(RawPtrStrepTest, MadeUpDeadOrMistypedAddressIsRangeException) {
  const char* inside = reinterpret_cast<const char*>(dir_.ptr()) + sizeof(void*);
  for (const void* address :
       {reinterpret_cast<const void*>(0x10), reinterpret_cast<const void*>(0xdeadbee0),
        static_cast<const void*>(inside)}) {
    EXPECT_THROW(read(formAt("Qel::Dir", address)), Qel::RangeException) << address;
  }
  EXPECT_THROW(read(formAt("KronlogWriter", dir_.ptr())), Qel::RangeException);
  const String text = Qel::valueToStrepOfRawPtr(dir_.ptr());
  dir_ = nullptr;  // the address of a destroyed entity
  EXPECT_THROW(read(text), Qel::RangeException);
}

// Null is "None", a whole word and not a prefix.
TEST_F(RawPtrStrepTest, NullIsNoneAndAMalformedFormIsRangeException) {
  EXPECT_EQ(Qel::valueToStrepOfRawPtr(nullptr), "None");
  EXPECT_EQ(read("None"), nullptr);
  EXPECT_EQ(read("None "), nullptr);
  std::string good = Qel::valueToStrepOfRawPtr(dir_.ptr()).stdString();
  std::string noClose = good.substr(0, good.size() - 1);
  std::string noAt = "<Qel::Dir 0x" + good.substr(good.find("0x") + 2);
  for (const std::string& text :
       {std::string(""), std::string("none"), std::string("Nonesuch"), std::string("Qel::Dir"),
        std::string("<Qel::Dir>"), std::string("<Qel::Dir at 0x>"),
        std::string("<Qel::Dir at 0xzz>"), noClose, noAt}) {
    EXPECT_THROW(read(String(text)), Qel::RangeException) << text;
  }
}

}  // namespace
