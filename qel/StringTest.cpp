// Tests of string equality, which compares short strings a word at a time,
// of the pools that hold short strings' blocks, and of strings that share a
// heap block with their owner: who frees the block, when a rewrite in place
// is allowed, and what it leaves behind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qel/Allocator.h"
#include "qel/String.h"

namespace {

// Every length across the word-sized paths, a difference at every position
// (the overlapping words must still see each byte), NULs inside, and equal
// text in separate blocks and in one shared block.
TEST(StringEqualityTest, EveryByteCountsAtEveryLength) {
  for (std::size_t n = 0; n <= 40; ++n) {
    SCOPED_TRACE(n);
    std::string text(n, '\0');
    for (std::size_t i = 0; i < n; ++i) text[i] = static_cast<char>(i % 3 == 0 ? 0 : 'a' + i);
    const Qel::String a(text), b(text);
    if (n > 0) {
      EXPECT_NE(a.data(), b.data());  // two blocks (the empty string has none)
    }
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a == Qel::String(a));
    for (std::size_t k = 0; k < n; ++k) {
      std::string other = text;
      other[k] = static_cast<char>(other[k] ^ 0x80);
      EXPECT_FALSE(a == Qel::String(other)) << "differs at " << k;
    }
    EXPECT_FALSE(a == Qel::String(text + "x"));
  }
}

// Short strings' blocks come from one pool per 16-byte step of block size.
// Each length must give its block back to the pool it came from (a wrong
// step shows as one pool up and another down), and a block handed out again
// must read as its new text only, NUL included.
TEST(StringPoolTest, EveryLengthGoesBackToItsOwnPoolAndReuseShowsOnlyTheNewText) {
  const auto live = [] {
    std::vector<std::uint64_t> n;
    for (const char* pool :
         {"Qel::String[16]", "Qel::String[32]", "Qel::String[48]", "Qel::String[64]",
          "Qel::String[80]", "Qel::String[96]", "Qel::String[112]", "Qel::String[128]"}) {
      n.push_back(Qel::liveObjects(pool));
    }
    return n;
  };
  const std::vector<std::uint64_t> before = live();
  for (std::size_t n = 1; n <= 160; ++n) {
    SCOPED_TRACE(n);
    { const Qel::String longer(std::string(n + 16, 'x')), same(std::string(n, 'y')); }
    {
      const Qel::String again(std::string(n, 'z'));
      EXPECT_EQ(again.view(), std::string(n, 'z'));
      EXPECT_EQ(std::strlen(again.c_str()), n);
    }
    EXPECT_EQ(live(), before);
  }
}

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

TEST_F(OwnedStringTest, StringOutlivesItsOwnerAndOwnerOutlivesItsStrings) {
  Qel::String copy = make("outlives");
  ownerGone();
  EXPECT_EQ(copy, "outlives");
  { const Qel::String s = make("short lived"); }
  EXPECT_FALSE(Qel::String::ownedRewrite(Qel::String(), block_, kOwnerBytes, "x", 1));
}

TEST_F(OwnedStringTest, RewriteInPlaceWhenOnlyTheOwnerAndTheStringHoldItLeavesNoStaleBytes) {
  const Qel::String s = make(std::string(40, 'a'));
  const char* bytes = s.data();
  EXPECT_TRUE(rewrite(s, std::string(20, 'b')));
  EXPECT_EQ(s, std::string(20, 'b').c_str());
  EXPECT_EQ(s.data(), bytes);
  EXPECT_TRUE(rewrite(s, "c"));
  EXPECT_EQ(s.view(), "c");
  EXPECT_EQ(std::strlen(s.c_str()), 1u);
}

// A held copy, text beyond the block, an empty text or a string from
// elsewhere each refuse the rewrite and change nothing.
TEST_F(OwnedStringTest, RewriteRefusedUnlessTheStringIsTheOwnersAloneAndTheTextFits) {
  const Qel::String s = make("shared");
  const Qel::String other("same!!");
  EXPECT_FALSE(rewrite(other, "change"));
  EXPECT_FALSE(rewrite(s, std::string(200, 'z')));
  EXPECT_FALSE(rewrite(s, ""));
  {
    const Qel::String copy = s;
    EXPECT_FALSE(rewrite(s, "change"));
  }
  EXPECT_EQ(std::make_pair(s, other), std::make_pair(Qel::String("shared"), Qel::String("same!!")));
}

}  // namespace
