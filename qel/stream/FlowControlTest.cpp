// Flow control: changes made while the send buffer is full collapse into the
// current value and one dirty record per entity; dirty entities take turns;
// transfers larger than the buffer resume where they stopped.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/StreamFixture.h"

namespace {

using StreamTesting::Board;
using StreamTesting::Gauge;

class FlowControlTest : public ::testing::Test {
 protected:
  FlowControlTest() {
    for (const char* n : {"a", "b", "c"}) board_->gaugeIs(n, "u");
  }
  Board::Ptr board_ = Board::BoardIs("board");
};

TEST_F(FlowControlTest, ChangesWhileTheBufferIsFullCollapseToTheCurrentValue) {
  StreamTesting::StreamPair pair(board_);
  pair.settle();
  pair.server->sendBufferCapacityIs(64);
  std::uint64_t before = pair.client->recordsIn();
  // The loop does not run: nothing drains, so most of these find no room.
  for (unsigned v = 1; v <= 1000; ++v) board_->gauge("a")->valueIs(v);
  EXPECT_LE(pair.server->sendBufferBytes(), 64u + 16u);
  EXPECT_EQ(pair.server->flowOutQueued(), 1u);
  pair.settle();
  EXPECT_EQ(pair.copy()->gauge("a")->value(), 1000u);
  EXPECT_LT(pair.client->recordsIn() - before, 10u);
}

TEST_F(FlowControlTest, DirtyEntitiesTakeTurns) {
  StreamTesting::StreamPair pair(board_);
  pair.settle();
  std::vector<std::string> order;
  std::vector<std::unique_ptr<StreamTesting::GaugeWatch>> watches;
  for (std::string n : {"a", "b", "c"}) {
    watches.push_back(std::make_unique<StreamTesting::GaugeWatch>(
        pair.copy()->gauge(n), [&order, n](const char* what) { order.push_back(n + "." + what); }));
  }
  // Room for one record per round. a's value finds the buffer empty and
  // goes at once; after that every entity still dirty gets a record in
  // before any gets its second (without turns: b.value, b.label, c...).
  pair.server->sendBufferCapacityIs(1);
  for (const char* n : {"a", "b", "c"}) {
    board_->gauge(n)->valueIs(1);
    board_->gauge(n)->labelIs("x");
  }
  pair.settle();
  EXPECT_EQ(order, (std::vector<std::string>{"a.value", "a.label", "b.value", "c.value", "b.label",
                                             "c.label"}));
}

// A snapshot larger than the buffer, its collection changed behind the
// transfer's bookmark and ahead of it while the transfer is under way.
TEST_F(FlowControlTest, InterruptedTransferArrivesWholeAndConsistentThroughChanges) {
  for (int i = 0; i < 200; ++i)
    board_->gaugeIs(Qel::Name("g" + std::to_string(i)), "u")->valueIs(i);
  StreamTesting::StreamPair pair(board_);
  pair.server->sendBufferCapacityIs(128);
  for (int round = 0; round < 5; ++round) pair.loop->runOnce(0);
  for (int i = 0; i < 200; i += 3) board_->gaugeDel(Qel::Name("g" + std::to_string(i)));
  board_->gaugeIs("late", "u")->valueIs(7);
  pair.settle();
  ASSERT_TRUE(pair.client->snapshotEnded());
  EXPECT_EQ(pair.copy()->gauges(), board_->gauges());
  for (auto it = board_->gaugeIter(); it; ++it) {
    Gauge* g = pair.copy()->gauge(it->name());
    ASSERT_NE(g, nullptr) << it->name();
    EXPECT_EQ(g->value(), it->value()) << it->name();
  }
}

}  // namespace
