// The log accessors every log owner shares, tested over both: a writer
// (entries by value, an absent one reads as the default entry) and a status
// (entries by pointer, an absent one reads as null), with each owner's
// change hook recorded.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"

namespace {

// Const iterators hand out const members.
static_assert(std::is_same_v<decltype(*std::declval<KronlogWriter::Writer::LogIteratorConst>()),
                             const KronlogWriter::Writer::QelLog&>);
static_assert(std::is_same_v<decltype(*std::declval<KronlogReader::Status::LogIteratorConst>()),
                             const KronlogReader::Status::QelLog&>);

using Indices = std::vector<unsigned>;
using Strings = std::vector<std::string>;

// A writer, with a notifiee that hears onLog(index).
struct WriterOwner {
  using Owner = KronlogWriter::Writer;
  struct Heard : Owner::Notifiee {
    using Owner::Notifiee::onLog;
    void onLog(unsigned int index) override { indices.push_back(index); }
    Indices indices;
  };
  WriterOwner() { heard.notifierIs(owner); }

  static KronlogWriter::LogEntry entry(int k) {
    return KronlogWriter::LogEntry(k, Qel::String("e" + std::to_string(k)));
  }
  static std::string text(const KronlogWriter::LogEntry& e) {
    return e == KronlogWriter::LogEntry() ? "absent" : e.message().stdString();
  }
  Indices& notified() { return heard.indices; }

  Owner::Ptr owner = KronlogWriter::writerFactory("w", KronlogWriter::Config());
  Heard heard;
};

// A status whose change hook records the index.
struct StatusOwner {
  struct Owner : KronlogReader::Status {
    void logNotify(unsigned int index) override { indices.push_back(index); }
    Indices indices;
  };

  static KronlogReader::LogEntry::Ptr entry(int k) {
    return KronlogReader::logEntryFactory("a", "g", k, Qel::String("e" + std::to_string(k)));
  }
  static std::string text(const KronlogReader::LogEntry::Ptr& e) {
    return e ? e->message().stdString() : "absent";
  }
  Indices& notified() { return owner->indices; }

  Qel::Ptr<Owner> owner = new Owner;
};

template <class Fixture>
class LogAttributeTest : public ::testing::Test {
 protected:
  // Appends e<k> for k in [0, n) and forgets the notifications.
  void fill(int n) {
    for (int k = 0; k < n; ++k) o_.owner->logEnq(Fixture::entry(k));
    o_.notified().clear();
  }
  std::string at(unsigned index) const { return Fixture::text(o_.owner->log(index)); }
  Indices indices() const {
    Indices out;
    for (const auto& m : o_.owner->logQueue()) out.push_back(m.index());
    return out;
  }

  Fixture o_;
};

using Owners = ::testing::Types<WriterOwner, StatusOwner>;
class OwnerNames {
 public:
  template <class T>
  static std::string GetName(int) {
    return std::is_same_v<T, WriterOwner> ? "Writer" : "Status";
  }
};
TYPED_TEST_SUITE(LogAttributeTest, Owners, OwnerNames);

TYPED_TEST(LogAttributeTest, LookupFindsOldestNewestAndMiddleAndAbsentReadsAsNothing) {
  this->fill(4);
  this->o_.owner->logDeq();
  EXPECT_EQ((Strings{this->at(1), this->at(2), this->at(3)}), (Strings{"e1", "e2", "e3"}));
  EXPECT_EQ((Strings{this->at(0), this->at(4)}), (Strings{"absent", "absent"}));
  EXPECT_EQ(TypeParam::text((*this->o_.owner)[3]), "e3");
}

TYPED_TEST(LogAttributeTest, LogDeqReturnsTheOldestAndNeverLowersTheNextIndex) {
  this->fill(2);
  auto& owner = *this->o_.owner;
  EXPECT_EQ(TypeParam::text(owner.logDeq()), "e0");
  EXPECT_EQ(TypeParam::text(owner.logDeq()), "e1");
  EXPECT_EQ(TypeParam::text(owner.logDeq()), "absent");
  owner.logEnq(TypeParam::entry(9));
  EXPECT_EQ(this->indices(), Indices{2});
  EXPECT_EQ(this->o_.notified(), (Indices{0, 1, 2}));
}

TYPED_TEST(LogAttributeTest, LogDelRemovesThatEntryOnlyAndTheNewestsIndexIsReused) {
  this->fill(4);
  EXPECT_EQ(TypeParam::text(this->o_.owner->logDel(1)), "e1");
  EXPECT_EQ(TypeParam::text(this->o_.owner->logDel(5)), "absent");
  EXPECT_EQ(this->o_.notified(), Indices{1});
  this->o_.owner->logDel(3);
  this->o_.owner->logEnq(TypeParam::entry(7));
  EXPECT_EQ(this->indices(), (Indices{0, 2, 3}));
  EXPECT_EQ(this->at(3), "e7");
}

TYPED_TEST(LogAttributeTest, LogDelAllNotifiesEachIndexAndKeepsTheNextIndex) {
  this->fill(3);
  this->o_.owner->logDelAll();
  EXPECT_EQ(this->o_.notified(), (Indices{0, 1, 2}));
  this->o_.owner->logEnq(TypeParam::entry(7));
  EXPECT_EQ(this->indices(), Indices{3});
}

TYPED_TEST(LogAttributeTest, LogMetadataIsMovesWhereTheNextEntryGoes) {
  using LogMetadata = typename std::remove_reference_t<decltype(*this->o_.owner)>::LogMetadata;
  this->o_.owner->logMetadataIs(LogMetadata(7, 7));
  this->o_.owner->logEnq(TypeParam::entry(1));
  EXPECT_EQ(this->at(7), "e1");
  EXPECT_EQ(this->o_.owner->logMetadata(), LogMetadata(7, 8));
}

TYPED_TEST(LogAttributeTest, NewLogInsertsOrReplacesWithoutNotifying) {
  EXPECT_EQ(this->o_.owner->newLog(5, TypeParam::entry(5))->index(), 5u);
  this->o_.owner->newLog(5, TypeParam::entry(9));
  this->o_.owner->logEnq(TypeParam::entry(6));
  EXPECT_EQ((Strings{this->at(5), this->at(6)}), (Strings{"e9", "e6"}));
  EXPECT_EQ(this->o_.notified(), Indices{6});
}

TYPED_TEST(LogAttributeTest, DeletingTheCurrentEntryWhileIteratingVisitsEveryEntry) {
  this->fill(5);
  auto& owner = *this->o_.owner;
  Indices visited;
  auto it = owner.logIter();
  for (; it; ++it) {
    visited.push_back(it.index());
    if (it.index() % 2 == 1) owner.logDel(it);
  }
  EXPECT_EQ(TypeParam::text(owner.logDel(it)), "absent");
  for (const auto& m : owner.logQueue()) {
    visited.push_back(m.index());
    owner.logDel(m.index());
  }
  EXPECT_EQ(visited, (Indices{0, 1, 2, 3, 4, 0, 2, 4}));
  EXPECT_EQ(owner.logs(), 0u);
}

}  // namespace
