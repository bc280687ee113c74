// docs/stream-format.md and the code agree: the example stream written out
// in the document decodes to the copy the document describes.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>

#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;
using StreamTesting::Gauge;

// The bytes of the hex block between the document's example markers.
std::string documentedStream() {
  std::ifstream doc(KRONLOG_SOURCE_DIR "/docs/stream-format.md");
  std::stringstream text;
  text << doc.rdbuf();
  std::string s = text.str();
  std::size_t begin = s.find("<!-- example-stream-begin -->");
  std::size_t end = s.find("<!-- example-stream-end -->");
  if (begin == std::string::npos || end == std::string::npos) return "";
  std::string block = s.substr(begin, end - begin);
  block = block.substr(block.find("```") + 3);
  block = block.substr(0, block.find("```"));
  std::string bytes;
  std::istringstream hex(block);
  std::string pair;
  while (hex >> pair) bytes.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
  return bytes;
}

// A mounting connection fed the document's bytes: all but the last, then
// the last. The other end of the socketpair stays silent.
TEST(FormatDocTest, ExampleStreamDecodesToTheDocumentedCopyOnceItsLastByteIsIn) {
  StreamTesting::streamTestTypesRegister();
  std::string bytes = documentedStream();
  ASSERT_EQ(bytes.size(), 36u + 41u + 12u + 46u + 21u + 12u + 16u + 18u + 12u);
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Connection::Ptr c =
      new Qel::Connection(loop.ptr(), fds[1], Qel::Connection::Role::mounting, "doc", "me");
  c->bytesReceived(bytes.data(), bytes.size() - 1);
  EXPECT_FALSE(c->snapshotEnded());
  EXPECT_EQ(c->recordsIn(), 8u);
  c->bytesReceived(&bytes.back(), 1);
  ::close(fds[0]);
  ASSERT_TRUE(c->open()) << c->reason();
  EXPECT_TRUE(c->snapshotEnded());
  EXPECT_EQ(c->advertisedName(), "srv[7]");
  EXPECT_EQ(c->peerIncarnation(), 42u);
  EXPECT_EQ(c->recordsIn(), 9u);
  auto* board = static_cast<Board*>(c->adapter(1)->entity());
  EXPECT_EQ(board->name(), "b");
  ASSERT_EQ(board->gauges(), 1u);
  Gauge* g = board->gauge("g");
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->unit(), "V");
  EXPECT_EQ(g->value(), 7u);
  EXPECT_EQ(g->label(), "ok");
  EXPECT_EQ(g->readOnlyPeerName(), "doc");
}

}  // namespace
