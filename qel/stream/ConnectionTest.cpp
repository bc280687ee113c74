// A serving and a mounting connection over a socketpair: the snapshot, live
// changes, membership, and the malformed-input block: each class of bad
// input closes the connection with one trace and leaves the copy as it was.
#include "qel/stream/Connection.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/StreamFixture.h"

namespace {

using Qel::NboAttrLog::EntityId;
using Qel::NboAttrLog::RecordKind;
using StreamTesting::Board;
using StreamTesting::frameOf;
using StreamTesting::Gauge;
using StreamTesting::stringBytes;
using StreamTesting::u32Bytes;

class ConnectionTest : public ::testing::Test {
 protected:
  ConnectionTest() {
    Gauge::Ptr volts = board_->gaugeIs("volts", "V");
    volts->valueIs(230);
    volts->labelIs("mains");
    board_->gaugeIs("amps", "A")->valueIs(3);
    pair_.settle();
    copy_ = pair_.copy();
  }
  Gauge* copyOf(const char* name) const { return copy_->gauge(name); }
  std::uint64_t inject(const std::string& bytes) { return pair_.inject(bytes); }
  // The traces of closes caused by bad input (they carry an offset), and
  // the one expected.
  std::vector<std::string> closeTraces() const {
    std::vector<std::string> out;
    for (auto& t : traces_.texts) {
      if (t.rfind("close peer:", 0) == 0 && t.find(" offset: ") != std::string::npos) {
        out.push_back(t);
      }
    }
    return out;
  }
  std::vector<std::string> closeTraceAt(std::uint64_t offset, const std::string& reason) const {
    return {"close peer: " + pair_.peer.stdString() + " offset: " + std::to_string(offset) +
            " reason: " + reason};
  }
  void expectCopyUnchanged() const {
    ASSERT_NE(copy_, nullptr);
    EXPECT_EQ(copy_->gauges(), 2u);
    EXPECT_EQ(copyOf("volts")->value(), 230u);
    EXPECT_EQ(copyOf("volts")->label(), "mains");
    EXPECT_EQ(copyOf("amps")->value(), 3u);
  }
  // The snapshot gave the board id 1 and its gauges 2 and 3, in no set order.
  EntityId idOf(const char* name) const {
    for (EntityId id = 2; id < 10; ++id) {
      auto* a = pair_.client->adapter(id);
      if (a && a->entity()->name() == name) return id;
    }
    return 0;
  }

  StreamTesting::StreamTraces traces_;
  Board::Ptr board_ = Board::BoardIs("board");
  StreamTesting::StreamPair pair_{board_};
  Board::Ptr copy_;
};

TEST_F(ConnectionTest, RemovedMemberGoesWithItsAdapterAndReturnsAsANewEntity) {
  std::size_t adapters = pair_.client->adapters();
  Gauge::Ptr before = copyOf("amps");
  board_->gaugeDel("amps");
  pair_.settle();
  EXPECT_EQ(copyOf("amps"), nullptr);
  EXPECT_EQ(pair_.client->adapters(), adapters - 1);
  EXPECT_EQ(pair_.server->adapters(), adapters - 1);
  board_->gaugeIs("amps", "mA")->valueIs(3000);
  pair_.settle();
  ASSERT_NE(copyOf("amps"), nullptr);
  EXPECT_NE(copyOf("amps"), before.ptr());
  EXPECT_EQ(copyOf("amps")->unit(), "mA");
  EXPECT_EQ(copyOf("amps")->value(), 3000u);
}

TEST_F(ConnectionTest, BytesArrivingOneAtATimeApplyTheSame) {
  std::string f = frameOf(RecordKind::attrUpdate, 261, idOf("volts"), u32Bytes(99));
  for (char c : f) pair_.client->bytesReceived(&c, 1);
  EXPECT_EQ(copyOf("volts")->value(), 99u);
}

TEST_F(ConnectionTest, CloseFromANotificationLeavesTheRestOfTheReadUnapplied) {
  // The adapter applying the record is released by the close while its
  // record is still being applied: it must outlive the parse.
  struct Closer : Gauge::Notifiee {
    Qel::Connection* connection = nullptr;
    void onValue() override { connection->close("seen enough"); }
  } closer;
  closer.connection = pair_.client.ptr();
  closer.notifierIs(copyOf("volts"));
  EntityId volts = idOf("volts");
  inject(frameOf(RecordKind::attrUpdate, 261, volts, u32Bytes(1)) +
         frameOf(RecordKind::attrUpdate, 261, volts, u32Bytes(2)));
  EXPECT_EQ(pair_.client->reason(), "seen enough");
  EXPECT_EQ(copyOf("volts")->value(), 1u);
}

TEST_F(ConnectionTest, DeletedEntityTakesItsOpenTransactionsAlong) {
  inject(frameOf(RecordKind::transactionOpen, 258, 1, ""));
  inject(frameOf(RecordKind::entityDel, 0, 1, ""));
  // A new entity 1 starts with no transaction open.
  inject(frameOf(RecordKind::create, 0, 1, stringBytes("StreamTesting::Board") + stringBytes("b")));
  inject(frameOf(RecordKind::transactionOpen, 258, 1, ""));
  EXPECT_TRUE(pair_.client->open()) << pair_.client->reason();
}

TEST_F(ConnectionTest, CopyFromAFactoryIsReadOnlyWhateverTheFactoryDid) {
  Qel::streamTypeIs("ConnectionTest::Careless", [](Qel::Connection* c, const Qel::Name& name,
                                                   Qel::StreamAdapter::In&) {
    return Qel::StreamAdapter::Ptr(new StreamTesting::BoardAdapter(c, Board::BoardIs(name).ptr()));
  });
  inject(frameOf(RecordKind::create, 0, 60,
                 stringBytes("ConnectionTest::Careless") + stringBytes("x")));
  ASSERT_NE(pair_.client->adapter(60), nullptr);
  EXPECT_TRUE(pair_.client->adapter(60)->entity()->readOnly());
}

TEST_F(ConnectionTest, PeerClosingIsANormalClose) {
  pair_.server->close("bye");
  pair_.settle();
  EXPECT_FALSE(pair_.client->open());
  EXPECT_EQ(pair_.client->reason(), "peer closed the connection");
  EXPECT_TRUE(closeTraces().empty());
  expectCopyUnchanged();
}

// ---- Malformed input: the connection closes with one trace naming the
// peer, the offset and the reason; the copy keeps what it had.

// One frame of bad input per class; kVolts stands for the id of "volts".
constexpr EntityId kVolts = 0xffffffff;
struct Malformed {
  const char* name;
  RecordKind kind;
  Qel::AttributeId attr;
  EntityId entity;
  std::string payload;
  std::uint64_t faultAt;  // offset of the fault within the frame
  const char* reason;
  std::string raw = "";  // sent instead of the frame when set
};

const Malformed kMalformed[] = {
    {"OversizedLength", RecordKind(0), 0, 0, "", 0,
     "frame length 2147483647 exceeds the limit of 1048572", u32Bytes(0x7fffffff)},
    {"TruncatedField", RecordKind::attrUpdate, 261, kVolts, std::string(2, '\0'), 12,
     "truncated u32: 4 bytes needed, 2 left"},
    {"StringLongerThanItsFrame", RecordKind::attrUpdate, 262, kVolts, u32Bytes(1000) + "short", 12,
     "string length 1000 exceeds the 5 bytes left in the frame"},
    {"UnknownKind", RecordKind(42), 0, 0, "", 4, "unknown record kind 42"},
    {"UnknownEntity", RecordKind::attrUpdate, 261, 77, u32Bytes(1), 8,
     "unknown entity identifier 77"},
    {"UnknownAttribute", RecordKind::attrUpdate, 300, kVolts, u32Bytes(1), 12,
     "unknown attribute identifier 300"},
    {"UnknownType", RecordKind::create, 0, 50, stringBytes("No::Such") + stringBytes("x"), 12,
     "unknown type No::Such"},
    {"CreateOverAnEntityInUse", RecordKind::create, 0, 1,
     stringBytes("StreamTesting::Board") + stringBytes("x"), 8, "entity identifier 1 is not free"},
    {"DeletingAMissingMember", RecordKind::memberDel, 258, 1, stringBytes("ohms"), 12,
     "no member ohms"},
    // Entity 1 is the board itself, not an orphan gauge.
    {"MemberNamingANonOrphan", RecordKind::attrUpdate, 258, 1, stringBytes("volts") + u32Bytes(1),
     21, "entity 1 is not an orphan gauge volts"},
    {"TransactionClosedWithoutOpen", RecordKind::transactionClose, 258, 1, "", 4,
     "transaction closed without open"},
    {"SecondSnapshotEnd", RecordKind::snapshotEnd, 0, 0, "", 4, "second end of snapshot"},
    {"SecondHandshake", RecordKind::handshake, 0, 0,
     u32Bytes(0x51454C53) + std::string("\0\2", 2) + u32Bytes(0) + u32Bytes(1) +
         stringBytes("again"),
     4, "second handshake"},
    {"TrailingBytesAfterAValue", RecordKind::attrUpdate, 261, kVolts, u32Bytes(5) + "zz", 16,
     "2 trailing bytes after the last field"},
};

void PrintTo(const Malformed& m, std::ostream* os) {
  *os << m.name;
}

class MalformedInputTest : public ConnectionTest,
                           public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedInputTest, ClosesWithOneTraceAndLeavesTheCopyAsItWas) {
  const Malformed& m = GetParam();
  EntityId entity = m.entity == kVolts ? idOf("volts") : m.entity;
  std::uint64_t at = inject(m.raw.empty() ? frameOf(m.kind, m.attr, entity, m.payload) : m.raw);
  EXPECT_FALSE(pair_.client->open());
  EXPECT_EQ(closeTraces(), closeTraceAt(at + m.faultAt, m.reason));
  expectCopyUnchanged();
}

INSTANTIATE_TEST_SUITE_P(EachClass, MalformedInputTest, ::testing::ValuesIn(kMalformed),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConnectionTest, CreatingPastTheEntityLimitCloses) {
  pair_.client->maxEntitiesIs(pair_.client->adapters() + 1);
  std::string gauge = stringBytes("StreamTesting::Gauge") + stringBytes("x") + stringBytes("u");
  inject(frameOf(RecordKind::create, 0, 50, gauge));
  EXPECT_TRUE(pair_.client->open());
  std::uint64_t at = inject(frameOf(RecordKind::create, 0, 51, gauge));
  EXPECT_EQ(closeTraces(), closeTraceAt(at + 8, "entity limit of 4 reached"));
  expectCopyUnchanged();
}

TEST_F(ConnectionTest, RecordsBeforeTheFaultStayApplied) {
  std::string good = frameOf(RecordKind::attrUpdate, 261, idOf("volts"), u32Bytes(1));
  inject(good + frameOf(RecordKind::attrUpdate, 261, 77, u32Bytes(2)));
  EXPECT_FALSE(pair_.client->open());
  EXPECT_EQ(copyOf("volts")->value(), 1u);
}

TEST_F(ConnectionTest, MountingPeerSendingUpdatesIsClosedByTheServer) {
  std::uint64_t at = pair_.server->bytesIn();
  std::string f = frameOf(RecordKind::attrUpdate, 261, 2, u32Bytes(1));
  pair_.server->bytesReceived(f.data(), f.size());
  EXPECT_FALSE(pair_.server->open());
  EXPECT_EQ(closeTraces(),
            closeTraceAt(at + 4, "unexpected attrUpdate record from a mounting peer"));
  EXPECT_EQ(board_->gauge("volts")->value(), 230u);
}

TEST_F(ConnectionTest, FirstRecordMustBeAHandshake) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  Qel::Connection::Ptr c =
      new Qel::Connection(pair_.loop.ptr(), fds[1], Qel::Connection::Role::mounting, "p", "me");
  std::string f = frameOf(RecordKind::heartbeat, 0, 0, "");
  c->bytesReceived(f.data(), f.size());
  EXPECT_EQ(c->reason(), "expected a handshake, got heartbeat");
  ::close(fds[0]);
}

}  // namespace
