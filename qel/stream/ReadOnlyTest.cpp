// Read-only copies: user code cannot change them, the framework's internal
// errors for a write-update from a copy and for a re-entered adapter, and
// conversion of a copy into an ordinary entity.
#include <gtest/gtest.h>

#include <string>

#include "qel/Exception.h"
#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;
using StreamTesting::Gauge;

class ReadOnlyTest : public ::testing::Test {
 protected:
  ReadOnlyTest() {
    board_->gaugeIs("volts", "V")->valueIs(230);
    pair_.settle();
    copy_ = pair_.copy()->gauge("volts");
  }

  StreamTesting::StreamTraces traces_;
  Board::Ptr board_ = Board::BoardIs("board");
  StreamTesting::StreamPair pair_{board_};
  Gauge::Ptr copy_;
};

TEST_F(ReadOnlyTest, MutatorOnACopyRaisesTheReadOnlyError) {
  try {
    copy_->valueIs(1);
    FAIL() << "no exception";
  } catch (const Qel::ReadOnlyException& e) {
    EXPECT_EQ(std::string(e.what()),
              "entity is a read-only copy: /board/volts peerName: " + pair_.peer.stdString());
  }
  EXPECT_EQ(copy_->value(), 230u);
  EXPECT_THROW(pair_.copy()->gaugeDel("volts"), Qel::ReadOnlyException);
}

TEST_F(ReadOnlyTest, WriteUpdateFromACopyRaisesTheInternalError) {
  Qel::StreamAdapter* a = pair_.client->adapter(2);
  ASSERT_EQ(a->entity(), copy_.ptr());
  std::string expected =
      "write-update from readonly proxy: /board/volts peerName: " + pair_.peer.stdString();
  try {
    a->recordBegin(Qel::NboAttrLog::RecordKind::attrUpdate, StreamTesting::kValueAttr);
    FAIL() << "no exception";
  } catch (const Qel::InternalException& e) {
    EXPECT_EQ(std::string(e.what()), expected);
  }
  EXPECT_FALSE(a->mayTransmit());
}

TEST_F(ReadOnlyTest, ConvertedCopyIsWritableAndNoLongerFollowsItsSource) {
  copy_->writableIs();
  copy_->valueIs(5);
  board_->gauge("volts")->valueIs(231);
  pair_.settle();
  EXPECT_EQ(copy_->value(), 5u);
  EXPECT_TRUE(pair_.client->open());
  EXPECT_FALSE(copy_->readOnly());
}

// An adapter that listens to its copy as well (which adapters need not do)
// and forgets to check the flow-in attribute, so it tries to send back what
// it just received.
class EchoingGaugeAdapter : public StreamTesting::GaugeAdapter {
 public:
  EchoingGaugeAdapter(Qel::Connection* c, Gauge* g) : GaugeAdapter(c, g) { notifierIs(g); }
  const char* typeName() const override { return "ReadOnlyTest::EchoingGauge"; }
  void onValue() override { flowOutNeededIs(); }
};

TEST(ReadOnlyEchoTest, EchoFromACopyClosesTheConnectionWithTheInternalError) {
  Qel::streamTypeIs("ReadOnlyTest::EchoingGauge",
                    &StreamTesting::GaugeAdapter::factory<EchoingGaugeAdapter>);
  Gauge::Ptr g = Gauge::GaugeIs("g", "V");
  g->valueIs(5);  // so that the copy's value changes as the snapshot lands
  StreamTesting::StreamPair pair(
      [g](Qel::Connection* c) { return new EchoingGaugeAdapter(c, g.ptr()); });
  pair.settle();
  EXPECT_EQ(pair.client->reason(),
            "write-update from readonly proxy: /g peerName: " + pair.peer.stdString());
}

// A notifiee of a copy that runs the event loop from inside the change it
// hears: the adapter applying that change is entered again.
TEST_F(ReadOnlyTest, AdapterEnteredWhileActiveRaisesTheInternalError) {
  Gauge* source = board_->gauge("volts");
  bool nested = false;
  StreamTesting::GaugeWatch watch(copy_.ptr(), [&](const char*) {
    if (nested) return;
    nested = true;
    source->valueIs(source->value() + 1);
    for (int i = 0; i < 5; ++i) pair_.loop->runOnce(0);
  });
  board_->gauge("volts")->valueIs(300);
  pair_.settle();
  EXPECT_FALSE(pair_.client->open());
  EXPECT_EQ(pair_.client->reason(), "entity reactor is already active");
  // The change being applied when it happened stays; the nested one did not.
  EXPECT_EQ(copy_->value(), 300u);
}

}  // namespace
