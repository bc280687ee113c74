// Test support: two small streamed entity types and their adapters, used by
// the stream layer's tests, fuzz target and benchmark. A Board holds a
// collection `gauge` (258) of Gauges keyed by name; a Gauge has `value`
// (261), `label` (262) and a constructor value `unit`. The adapters follow
// the pattern real types use: send at once when there is room, otherwise
// mark dirty and send the current value at the next flow-out; a
// whole-collection transfer is bracketed by transaction records and resumes
// from a bookmark.
#ifndef KRONLOG_TESTING_STREAMTESTTYPES_H
#define KRONLOG_TESTING_STREAMTESTTYPES_H

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "qel/Entity.h"
#include "qel/HashMap.h"
#include "qel/Notifiee.h"
#include "qel/stream/Connection.h"
#include "qel/stream/StreamAdapter.h"

namespace StreamTesting {

constexpr Qel::AttributeId kGaugeAttr = 258;
constexpr Qel::AttributeId kValueAttr = 261;
constexpr Qel::AttributeId kLabelAttr = 262;

class Gauge : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Gauge>;
  class Notifiee : public Qel::Notifiee<Gauge> {
   public:
    virtual void onValue() {}
    virtual void onLabel() {}
  };
  static Ptr GaugeIs(const Qel::Name& name, const Qel::String& unit) {
    return new Gauge(name, unit);
  }
  const Qel::String& unit() const { return unit_; }
  unsigned value() const { return value_; }
  const Qel::String& label() const { return label_; }
  void valueIs(unsigned v) { set(value_, v, &Notifiee::onValue); }
  void labelIs(const Qel::String& l) { set(label_, l, &Notifiee::onLabel); }
  Qel::NotifieeListBase& notifieeListRef() { return notifiees_; }
  Gauge* qelHashValue() { return this; }

 private:
  Gauge(const Qel::Name& name, const Qel::String& unit) : Entity(name), unit_(unit) {}
  template <class T>
  void set(T& field, const T& v, void (Notifiee::*on)()) {
    writeCheck();
    if (v == field) return;
    field = v;
    notifiees_.visitAs<Notifiee>(this, [on](Notifiee* n) { (n->*on)(); });
  }
  Qel::String unit_;
  unsigned value_ = 0;
  Qel::String label_;
  Qel::NotifieeListBase notifiees_;
};

class Board : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Board>;
  using GaugeMap = Qel::HashMap<Gauge, Qel::Name, Gauge>;
  class Notifiee : public Qel::Notifiee<Board> {
   public:
    virtual void onGauge(const Qel::Name&) {}
  };
  static Ptr BoardIs(const Qel::Name& name) { return new Board(name); }
  Gauge* gauge(const Qel::Name& name) const { return gauges_[name]; }
  std::size_t gauges() const { return gauges_.size(); }
  GaugeMap::Iterator gaugeIter() { return gauges_.begin(); }
  Gauge::Ptr gaugeIs(const Qel::Name& name, const Qel::String& unit) {
    writeCheck();
    if (Gauge* g = gauges_[name]) return g;
    Gauge::Ptr g = Gauge::GaugeIs(name, unit);
    gaugeAdd(g);
    return g;
  }
  // Adds an existing gauge (replacing one of the same name).
  void gaugeAdd(const Gauge::Ptr& g) {
    writeCheck();
    if (gauges_[g->name()] == g.ptr()) return;
    if (Gauge::Ptr old = gauges_.memberDel(g->name())) old->parentIs(nullptr);
    gauges_.newMember(g.ptr());
    g->parentIs(this);
    notify(g->name());
  }
  Gauge::Ptr gaugeDel(const Qel::Name& name) {
    writeCheck();
    Gauge::Ptr g = gauges_.memberDel(name);
    if (g) {
      g->parentIs(nullptr);
      notify(name);
    }
    return g;
  }
  Qel::NotifieeListBase& notifieeListRef() { return notifiees_; }

 private:
  explicit Board(const Qel::Name& name) : Entity(name) {}
  void notify(const Qel::Name& name) {
    notifiees_.visitAs<Notifiee>(this, [&](Notifiee* n) { n->onGauge(name); });
  }
  GaugeMap gauges_;
  Qel::NotifieeListBase notifiees_;
};

// A read-only copy for the peer's creation record, adapted by A.
template <class A, class E>
Qel::StreamAdapter::Ptr copyAdapter(Qel::Connection* c, Qel::Ptr<E> copy) {
  copy->readOnlyIs(c->peerName());
  return new A(c, copy.ptr());
}

class GaugeAdapter : public Qel::StreamAdapter, public Gauge::Notifiee {
 public:
  GaugeAdapter(Qel::Connection* c, Gauge* g) : StreamAdapter(c, g), gauge_(g) {
    if (sending()) notifierIs(g);
  }
  const char* typeName() const override { return "StreamTesting::Gauge"; }
  void doSerializeOrphan(Out& out) override { out.string(gauge_->unit()); }

  void onValue() override { changed(kValueAttr); }
  void onLabel() override { changed(kLabelAttr); }

  bool handleAttrFlowOut() override {
    for (Qel::AttributeId attr : {kValueAttr, kLabelAttr}) {
      if (resumeAttr() > attr) continue;
      resumeAttrIs(attr);
      if (dirty_ & bit(attr)) send(attr);
      if (attr == kValueAttr && !mayTransmit()) return false;
    }
    resumeAttrIs(0);
    return true;
  }

  void handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr, In& in) override {
    if (kind != RecordKind::attrUpdate) in.fail("member deletion on a gauge");
    if (attr == kValueAttr) {
      unsigned v = in.u32();
      in.endExpect();
      gauge_->valueIs(v);
    } else if (attr == kLabelAttr) {
      Qel::String l = in.string();
      in.endExpect();
      gauge_->labelIs(l);
    } else {
      attrUnknown(attr, in);
    }
  }

  template <class A = GaugeAdapter>
  static Qel::StreamAdapter::Ptr factory(Qel::Connection* c, const Qel::Name& name, In& in) {
    return copyAdapter<A>(c, Gauge::GaugeIs(name, in.string()));
  }

 private:
  static unsigned bit(Qel::AttributeId attr) { return attr == kValueAttr ? 2 : 4; }
  void changed(Qel::AttributeId attr) {
    if (flowInAttr() == attr) return;  // applying the peer's change: no echo
    if (mayTransmit()) {
      send(attr);
    } else {
      dirty_ |= bit(attr);
      flowOutNeededIs();
    }
  }
  void send(Qel::AttributeId attr) {
    Out& out = recordBegin(RecordKind::attrUpdate, attr);
    if (attr == kValueAttr) {
      out.u32(gauge_->value());
    } else {
      out.string(gauge_->label());
    }
    dirty_ &= ~bit(attr);
    recordEnd();
  }
  Gauge* gauge_;
  unsigned dirty_ = bit(kValueAttr) | bit(kLabelAttr);  // the first flow-out sends everything
};

class BoardAdapter : public Qel::StreamAdapter, public Board::Notifiee {
 public:
  BoardAdapter(Qel::Connection* c, Board* b) : StreamAdapter(c, b), board_(b) {
    if (sending()) notifierIs(b);
  }
  const char* typeName() const override { return "StreamTesting::Board"; }
  void doSerializeOrphan(Out&) override {}

  void onGauge(const Qel::Name& name) override {
    if (flowInAttr() == kGaugeAttr) return;
    if (mayTransmit() && !wholeDirty_) return memberSend(name);
    // Invariant: a name is queued once, so the queue is bounded by the
    // number of distinct names, not by how often they change.
    if (std::find(dirtyNames_.begin(), dirtyNames_.end(), name) == dirtyNames_.end()) {
      dirtyNames_.push_back(name);
    }
    flowOutNeededIs();
  }

  bool handleAttrFlowOut() override {
    if (wholeDirty_) {
      // Whole-collection transfer, resumable at the bookmark.
      if (!inTransfer_) {
        transactionOpen(kGaugeAttr);
        bookmark_ = board_->gaugeIter();
        inTransfer_ = true;
      }
      for (; bookmark_; ++bookmark_) {
        if (!mayTransmit()) return false;
        memberSend(bookmark_->name());
      }
      transactionClose(kGaugeAttr);
      inTransfer_ = wholeDirty_ = false;
    }
    while (!dirtyNames_.empty()) {
      if (!mayTransmit()) return false;
      Qel::Name n = dirtyNames_.front();
      dirtyNames_.erase(dirtyNames_.begin());
      memberSend(n);
    }
    return true;
  }

  void handleAttrDeserialization(RecordKind kind, Qel::AttributeId attr, In& in) override {
    if (attr != kGaugeAttr) attrUnknown(attr, in);
    Qel::Name name;
    auto* g = static_cast<Gauge*>(namedMemberRecord(
        kind, in, "gauge",
        [](const Qel::Entity* e) { return dynamic_cast<const Gauge*>(e) != nullptr; },
        [this](const Qel::Name& n) { return board_->gauge(n) != nullptr; }, &name));
    if (g) {
      board_->gaugeAdd(g);
    } else {
      board_->gaugeDel(name);
    }
  }

  static Qel::StreamAdapter::Ptr factory(Qel::Connection* c, const Qel::Name& name, In&) {
    return copyAdapter<BoardAdapter>(c, Board::BoardIs(name));
  }

 private:
  void memberSend(const Qel::Name& name) {
    auto it = children_.find(name.stdString());
    Gauge* g = board_->gauge(name);
    if (!g) {
      if (it == children_.end()) return;  // came and went while dirty
      Out& out = recordBegin(RecordKind::memberDel, kGaugeAttr);
      out.string(name);
      recordEnd();
      childAdapterDel(it->second);
      children_.erase(it);
      return;
    }
    if (it != children_.end()) {
      if (connection()->adapter(it->second)->entity() == g) return;  // already streamed
      childAdapterDel(it->second);
    }
    EntityId id = childAdapterIs(new GaugeAdapter(connection(), g));
    children_[name.stdString()] = id;
    Out& out = recordBegin(RecordKind::attrUpdate, kGaugeAttr);
    out.string(name);
    out.u32(id);
    recordEnd();
  }

  Board* board_;
  bool wholeDirty_ = true;
  bool inTransfer_ = false;
  Board::GaugeMap::Iterator bookmark_;
  std::vector<Qel::Name> dirtyNames_;
  std::map<std::string, EntityId> children_;
};

// Registers both types with the streamable-type registry (idempotent).
inline void streamTestTypesRegister() {
  Qel::streamTypeIs("StreamTesting::Gauge", &GaugeAdapter::factory<>);
  Qel::streamTypeIs("StreamTesting::Board", &BoardAdapter::factory);
}

}  // namespace StreamTesting

#endif  // KRONLOG_TESTING_STREAMTESTTYPES_H
