// Field encoding: byte layout of each type, round trips, and the reader's
// refusal of every input that claims more than it holds.
#include "qel/stream/NboAttrLog.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "qel/Exception.h"

namespace {

using Qel::NboAttrLog::FormatException;
using Qel::NboAttrLog::In;
using Qel::NboAttrLog::Out;

class NboAttrLogTest : public ::testing::Test {
 protected:
  std::string bytes() const { return std::string(out_->data(), out_->size()); }
  In reader() const { return In(out_->data(), out_->size()); }
  // The message of the FormatException that `read` throws on `input`.
  template <class F>
  static std::string failureOf(const std::string& input, F read) {
    In in(input.data(), input.size(), 100);
    try {
      read(in);
    } catch (const FormatException& e) {
      return e.what();
    }
    return "no failure";
  }
  Qel::Ptr<Out> out_ = new Out;
};

TEST_F(NboAttrLogTest, FieldsAreBigEndianStringsLengthPrefixedAndFramesCountTheirTail) {
  out_->u8(0x01);
  out_->u16(0x0203);
  out_->u32(0x04050607u);
  out_->u64(0x08090a0b0c0d0e0full);
  out_->f64(1.0);  // its bit pattern
  out_->string(Qel::String("a\0b", 3));
  out_->frameBegin(3, 261, 7);  // the length counts the bytes after itself
  out_->u32(9);
  out_->frameEnd();
  EXPECT_EQ(bytes(), std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f"
                                 "\x3f\xf0\x00\x00\x00\x00\x00\x00"
                                 "\x00\x00\x00\x03"
                                 "a\0b"
                                 "\x00\x00\x00\x0c\x03\x00\x01\x05\x00\x00\x00\x07"
                                 "\x00\x00\x00\x09",
                                 15 + 8 + 7 + 16));
}

TEST_F(NboAttrLogTest, EveryFieldTypeRoundTrips) {
  const double kNegZero = -0.0;
  out_ << std::uint32_t{0xffffffffu} << std::uint64_t{0x123456789abcdef0ull} << kNegZero << true
       << Qel::String("text") << false << std::numeric_limits<double>::infinity();
  out_->u8(200);
  out_->u16(65535);
  out_->u32(2);  // a count of 4-byte items that fits
  out_->u64(0);
  In in = reader();
  EXPECT_EQ(in.u32(), 0xffffffffu);
  EXPECT_EQ(in.u64(), 0x123456789abcdef0ull);
  double z = in.f64();
  EXPECT_TRUE(z == 0.0 && std::signbit(z));
  EXPECT_TRUE(in.boolean());
  EXPECT_EQ(in.string(), "text");
  EXPECT_FALSE(in.boolean());
  EXPECT_EQ(in.f64(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(in.u8(), 200);
  EXPECT_EQ(in.u16(), 65535);
  EXPECT_EQ(in.count(4), 2u);
  EXPECT_EQ(in.u64(), 0u);
  EXPECT_NO_THROW(in.endExpect());
}

TEST_F(NboAttrLogTest, NanKeepsItsPayloadBits) {
  out_->u64(0x7ff8000000000123ull);
  double nan = reader().f64();
  EXPECT_TRUE(std::isnan(nan));
  out_->clear();
  out_->f64(nan);
  EXPECT_EQ(reader().u64(), 0x7ff8000000000123ull);
}

// A few bytes left behind many sent move to the front; a frame that is
// still open stays where it is until it is ended, with the right length.
TEST_F(NboAttrLogTest, ConsumeMovesAShortRemainderToTheFrontButNeverAnOpenFrame) {
  for (std::uint32_t v = 1; v <= 10; ++v) out_->u32(v);
  out_->consume(36);
  EXPECT_EQ(bytes(), std::string("\x00\x00\x00\x0a", 4));
  out_->frameBegin(7, 0x0102, 3);
  out_->u8(9);
  out_->consume(4);  // everything before the open frame went out
  out_->frameEnd();
  EXPECT_EQ(bytes(), std::string("\x00\x00\x00\x09\x07\x00\x01\x02\x00\x00\x00\x03\x09", 13));
}

// ---- Error paths

TEST_F(NboAttrLogTest, InputClaimingMoreThanItHoldsIsRefusedWithItsOffset) {
  using Read = void (*)(In&);
  const struct {
    std::string input;
    Read read;
    const char* failure;
  } kCases[] = {
      {std::string("\x01\x02\x03", 3), [](In& in) { in.u32(); },
       "offset 100: truncated u32: 4 bytes needed, 3 left"},
      {std::string(7, '\0'), [](In& in) { in.f64(); },
       "offset 100: truncated double: 8 bytes needed, 7 left"},
      // Refused before anything is allocated for it.
      {std::string("\xff\xff\xff\xff"
                   "abc",
                   7),
       [](In& in) { in.string(); },
       "offset 100: string length 4294967295 exceeds the 3 bytes left in the frame"},
      // 0x40000001 items of 4 bytes overflow a 32-bit size_t when multiplied.
      {std::string("\x40\x00\x00\x01"
                   "abcdefgh",
                   12),
       [](In& in) { in.count(4); },
       "offset 100: count 1073741825 exceeds what the 8 bytes left can hold"},
      {std::string("\x02"), [](In& in) { in.boolean(); }, "offset 100: boolean byte 2"},
      {std::string("\x00\x00\x00\x01\x00", 5),
       [](In& in) {
         in.u32();
         in.endExpect();
       },
       "offset 104: 1 trailing bytes after the last field"},
  };
  for (const auto& c : kCases) EXPECT_EQ(failureOf(c.input, c.read), c.failure);
}

TEST_F(NboAttrLogTest, FailedReadConsumesNothing) {
  std::string input(
      "\x00\x00\x00\x09"
      "abc",
      7);
  In in(input.data(), input.size());
  EXPECT_THROW(in.string(), FormatException);
  EXPECT_EQ(in.remaining(), 7u);
}

TEST_F(NboAttrLogTest, OversizedFrameIsTakenBackWhole) {
  out_->u32(42);
  out_->frameBegin(3, 261, 1);
  // Header 12 + length 4 + this = one byte over the cap.
  std::string big(Qel::NboAttrLog::kMaxFrameBytes - 15, 'x');
  out_->string(Qel::String(big));
  EXPECT_THROW(out_->frameEnd(), Qel::RangeException);
  ASSERT_EQ(out_->size(), 4u);
  EXPECT_EQ(bytes(), std::string("\x00\x00\x00\x2a", 4));
  EXPECT_FALSE(out_->frameOpen());
}

TEST_F(NboAttrLogTest, FramesDoNotNest) {
  out_->frameBegin(3, 261, 1);
  EXPECT_THROW(out_->frameBegin(3, 261, 1), Qel::InternalException);
}

}  // namespace
