// Frame splitting and the handshake: partial input waits, bad headers are
// refused as soon as the bytes that show them are in.
#include "qel/stream/Record.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/StreamFixture.h"

namespace {

using Qel::NboAttrLog::FormatException;
using Qel::NboAttrLog::FrameHeader;
using Qel::NboAttrLog::In;
using Qel::NboAttrLog::RecordKind;
using StreamTesting::frameOf;
using StreamTesting::stringBytes;
using StreamTesting::u32Bytes;

class RecordTest : public ::testing::Test {
 protected:
  // The frame size frameAt reports for `bytes`, or the failure text.
  std::string scan(const std::string& bytes) {
    try {
      return std::to_string(Qel::NboAttrLog::frameAt(bytes.data(), bytes.size(), 1000, &h_));
    } catch (const FormatException& e) {
      return e.what();
    }
  }
  std::string handshakeFailure(const std::string& payload) {
    In in(payload.data(), payload.size());
    try {
      Qel::NboAttrLog::handshakeRead(in);
    } catch (const FormatException& e) {
      return e.what();
    }
    return "accepted";
  }
  FrameHeader h_;
};

// Every prefix of a frame waits for more.
TEST_F(RecordTest, WholeFrameIsFoundWithItsHeaderAndEveryPrefixWaits) {
  std::string f = frameOf(RecordKind::attrUpdate, 261, 9, u32Bytes(5));
  for (std::size_t n = 0; n < f.size(); ++n) EXPECT_EQ(scan(f.substr(0, n)), "0") << n;
  EXPECT_EQ(scan(f + "extra"), "16");
  EXPECT_EQ(h_.kind, RecordKind::attrUpdate);
  EXPECT_EQ(h_.attr, 261);
  EXPECT_EQ(h_.entity, 9u);
  EXPECT_EQ(h_.payloadBytes(), 4u);
}

// A peer name past 256 bytes is cut when written.
TEST_F(RecordTest, HandshakeRoundTripsWithItsPeerNameCut) {
  Qel::NboAttrLog::Out out;
  Qel::NboAttrLog::handshakeWrite(out, 0x0102030405060708u, Qel::String(std::string(300, 'n')));
  std::string f(out.data(), out.size());
  ASSERT_EQ(scan(f), std::to_string(f.size()));
  EXPECT_EQ(h_.kind, RecordKind::handshake);
  In in(f.data() + 12, h_.payloadBytes());
  Qel::NboAttrLog::Handshake hs = Qel::NboAttrLog::handshakeRead(in);
  EXPECT_EQ(hs.version, Qel::NboAttrLog::kVersion);
  EXPECT_EQ(hs.incarnation, 0x0102030405060708u);
  EXPECT_EQ(hs.peerName, std::string(256, 'n'));
}

TEST_F(RecordTest, IncarnationIsStableInAProcessAndNewInAForkedChild) {
  const std::uint64_t mine = Qel::NboAttrLog::processIncarnation();
  EXPECT_NE(mine, 0u);
  EXPECT_EQ(Qel::NboAttrLog::processIncarnation(), mine);
  StreamTesting::Child child([](int report) {
    StreamTesting::Child::say(report, std::to_string(Qel::NboAttrLog::processIncarnation()) + "\n");
  });
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  std::string theirs = child.next(loop.ptr());
  EXPECT_NE(theirs, std::to_string(mine));
  EXPECT_NE(theirs, "0");
  EXPECT_NE(theirs, "");
}

TEST_F(RecordTest, EveryKindHasAName) {
  for (int k = Qel::NboAttrLog::kFirstRecordKind; k <= Qel::NboAttrLog::kLastRecordKind; ++k) {
    EXPECT_STRNE(Qel::NboAttrLog::recordKindName(static_cast<RecordKind>(k)), "unknown");
  }
}

// ---- Error paths: each header fault is refused from the bytes that show it.

TEST_F(RecordTest, BadHeaderIsRefusedAsSoonAsItsBytesAreIn) {
  const struct {
    std::string bytes;
    const char* result;
  } kCases[] = {
      {u32Bytes(1048573), "offset 1000: frame length 1048573 exceeds the limit of 1048572"},
      {u32Bytes(1048572) + std::string("\x03\x00", 2), "0"},  // largest legal length waits
      {u32Bytes(7), "offset 1000: frame length 7 is shorter than a header"},
      {u32Bytes(8) + std::string("\x0a", 1), "offset 1004: unknown record kind 10"},
      {u32Bytes(8) + std::string("\x00", 1), "offset 1004: unknown record kind 0"},
      {u32Bytes(8) + std::string("\x09\x80", 2), "offset 1005: unknown frame flags 128"},
  };
  for (const auto& c : kCases) EXPECT_EQ(scan(c.bytes), c.result) << c.result;
}

TEST_F(RecordTest, BadHandshakeIsRefused) {
  const std::string v2 = std::string("\x00\x02", 2);
  const std::string magic = u32Bytes(0x51454C53);
  const std::string one = u32Bytes(0) + u32Bytes(1);  // incarnation 1
  const struct {
    std::string payload;
    const char* failure;
  } kCases[] = {
      {u32Bytes(0x51454C54) + v2 + one + stringBytes("x"), "offset 0: bad magic 1363496020"},
      {magic + std::string("\x00\x01", 2) + one + stringBytes("x"),
       "offset 4: unsupported protocol version 1 (expected 2)"},
      {magic + v2 + u32Bytes(0) + u32Bytes(0) + stringBytes("x"), "offset 6: incarnation 0"},
      {magic + v2 + one + stringBytes(std::string(257, 'n')),
       "offset 14: peer name of 257 bytes exceeds 256"},
      {magic + v2 + one + stringBytes("x") + "!",
       "offset 19: 1 trailing bytes after the last field"},
  };
  for (const auto& c : kCases) EXPECT_EQ(handshakeFailure(c.payload), c.failure);
}

}  // namespace
