// Tests of strings that share a heap block with their owner: who frees the
// block, when a rewrite in place is allowed, and what it leaves behind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "qel/String.h"

namespace {

// Stands for an owner object at the start of the block.
constexpr std::size_t kOwnerBytes = 24;

class OwnedStringTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (block_) Qel::String::ownerGone(block_, kOwnerBytes);
  }
  Qel::String make(const std::string& text) {
    block_ = std::malloc(Qel::String::ownedBlockBytes(kOwnerBytes, text.size()));
    return Qel::String::ownedIn(block_, kOwnerBytes, text.data(), text.size());
  }
  bool rewrite(const Qel::String& s, const std::string& text) {
    return Qel::String::ownedRewrite(s, block_, kOwnerBytes, text.data(), text.size());
  }
  // The owner goes now rather than at the end of the test.
  void ownerGone() {
    Qel::String::ownerGone(block_, kOwnerBytes);
    block_ = nullptr;
  }
  void* block_ = nullptr;
};

TEST_F(OwnedStringTest, ReadsLikeAnyStringWithItsTerminatingNul) {
  const Qel::String s = make("hello owner");
  EXPECT_EQ(s, "hello owner");
  EXPECT_EQ(s.size(), 11u);
  EXPECT_EQ(s.data()[11], '\0');
  EXPECT_EQ(Qel::String(s), Qel::String("hello owner"));
}

TEST_F(OwnedStringTest, StringOutlivesItsOwner) {
  Qel::String copy;
  {
    const Qel::String s = make("outlives");
    copy = s;
  }
  ownerGone();
  EXPECT_EQ(copy, "outlives");
}

TEST_F(OwnedStringTest, OwnerOutlivesItsStrings) {
  { const Qel::String s = make("short lived"); }
  EXPECT_FALSE(Qel::String::ownedRewrite(Qel::String(), block_, kOwnerBytes, "x", 1));
}

TEST_F(OwnedStringTest, RewriteInPlaceWhenOnlyTheOwnerAndTheStringHoldIt) {
  const Qel::String s = make("before");
  const char* bytes = s.data();
  EXPECT_TRUE(rewrite(s, "after!"));
  EXPECT_EQ(s, "after!");
  EXPECT_EQ(s.data(), bytes);
  EXPECT_TRUE(rewrite(s, "ab"));
  EXPECT_EQ(s.size(), 2u);
  EXPECT_STREQ(s.c_str(), "ab");
}

TEST_F(OwnedStringTest, ShorterRewritesLeaveNoStaleBytesBehind) {
  const Qel::String s = make(std::string(40, 'a'));
  ASSERT_TRUE(rewrite(s, std::string(20, 'b')));
  ASSERT_TRUE(rewrite(s, "c"));
  EXPECT_EQ(s.view(), "c");
  EXPECT_EQ(std::strlen(s.c_str()), 1u);
}

TEST_F(OwnedStringTest, RewriteRefusedWhileACopyIsHeld) {
  const Qel::String s = make("shared");
  const Qel::String copy = s;
  EXPECT_FALSE(rewrite(s, "change"));
  EXPECT_EQ(copy, "shared");
}

TEST_F(OwnedStringTest, RewriteRefusedForTextBeyondTheBlock) {
  const Qel::String s = make("tiny");
  EXPECT_FALSE(rewrite(s, std::string(200, 'z')));
  EXPECT_EQ(s, "tiny");
}

TEST_F(OwnedStringTest, RewriteRefusedForAnEmptyText) {
  const Qel::String s = make("not empty");
  EXPECT_FALSE(rewrite(s, ""));
  EXPECT_EQ(s, "not empty");
}

TEST_F(OwnedStringTest, RewriteRefusedForAStringFromElsewhere) {
  const Qel::String s = make("in the block");
  const Qel::String other("same length!");
  EXPECT_FALSE(rewrite(other, "changed text"));
  EXPECT_EQ(other, "same length!");
  EXPECT_EQ(s, "in the block");
}

}  // namespace
