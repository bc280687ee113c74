// The writer's value types on an attribute log: encoding, round trips and
// refusal of truncated or unknown input.
#include <gtest/gtest.h>

#include <string>

#include "kronlog/KronlogWriter.h"
#include "qel/stream/NboAttrLog.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::keepFirstEntries;
using KronlogWriter::keepLastEntries;
using KronlogWriter::LogEntry;
using LogMetadata = KronlogWriter::Writer::LogMetadata;
using Qel::NboAttrLog::FormatException;
using Qel::NboAttrLog::In;
using Qel::NboAttrLog::Out;

class WriterStreamingTest : public ::testing::Test {
 protected:
  std::string bytes() const { return std::string(out_->data(), out_->size()); }
  // The failure text of reading a T from `input`.
  template <class T>
  static std::string failureOf(const std::string& input) {
    In in(input.data(), input.size());
    try {
      T value(&in);
    } catch (const FormatException& e) {
      return e.what();
    }
    return "accepted";
  }
  Qel::Ptr<Out> out_ = new Out;
};

TEST_F(WriterStreamingTest, FieldsAreWrittenInOrderInNetworkByteOrder) {
  out_ << LogEntry(1.0, "ab") << Config(7, keepFirstEntries) << LogMetadata(3, 0xfffffffeu);
  EXPECT_EQ(bytes(), std::string("\x3f\xf0\0\0\0\0\0\0"  // timestamp, then message
                                 "\0\0\0\x02"
                                 "ab"
                                 "\0\0\0\x07"  // size, then overflow action
                                 "\0\0\0\0"
                                 "\0\0\0\x03"  // first, then next index
                                 "\xff\xff\xff\xfe",
                                 30));
}

// ---- Error paths

TEST_F(WriterStreamingTest, BadOrTruncatedFieldsAreRefusedAtTheirOffset) {
  EXPECT_EQ(failureOf<Config>(std::string("\0\0\0\x0a\0\0\0\x02", 8)),
            "offset 4: KronlogWriter::OverflowActionType has no value 2");
  EXPECT_EQ(failureOf<LogEntry>(std::string("\x3f\xf0\0\0\0\0\0\0\0\0\0\x05"
                                            "ab",
                                            14)),
            "offset 8: string length 5 exceeds the 2 bytes left in the frame");
  EXPECT_EQ(failureOf<LogMetadata>(std::string("\0\0\0\x01\0\0", 6)),
            "offset 4: truncated u32: 4 bytes needed, 2 left");
}

}  // namespace
