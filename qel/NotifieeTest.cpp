// Delivery while notifiees join and leave: one that leaves is not called
// again, one that joins hears only the next change, and nested deliveries
// and exceptions leave the list sound.
#include "qel/Notifiee.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "qel/Allocator.h"
#include "qel/Dir.h"

namespace {

using Log = std::vector<std::string>;

// Logs "<id>:<entity name>" for each notification, then runs its action.
class Listener : public Qel::Dir::Notifiee {
 public:
  using Qel::Dir::Notifiee::onEntity;
  Listener(Log* log, std::string id) : log_(log), id_(std::move(id)) {}

  void onEntity(const Qel::Name& name) override {
    log_->push_back(id_ + ":" + name.stdString());
    if (action) action(name);
  }

  std::function<void(const Qel::Name&)> action;

 private:
  Log* log_;
  std::string id_;
};

// A directory with listeners; each change to it is one notification.
class NotifieeTest : public ::testing::Test {
 protected:
  // A new listener, registered with the directory unless a test does it later.
  Listener& listen(const std::string& id, bool registered = true) {
    listeners_.push_back(std::make_unique<Listener>(&log_, id));
    if (registered) listeners_.back()->notifierIs(dir_);
    return *listeners_.back();
  }
  // Destroys `listener`, which unregisters it.
  void destroy(Listener& listener) {
    for (auto& l : listeners_) {
      if (l.get() == &listener) l.reset();
    }
  }
  // Adds an entity named `name` to the directory: one notification.
  void change(const char* name) { dir_->entityIs(Qel::dirFactory(name)); }
  std::size_t registered() { return dir_->notifieeListRef().notifiees(); }

  Qel::Dir::Ptr dir_ = Qel::dirFactory("notifier");
  Log log_;
  std::vector<std::unique_ptr<Listener>> listeners_;
};

// A repeated registration is one; an unregistered or destroyed notifiee hears nothing.
TEST_F(NotifieeTest, EveryRegisteredNotifieeHearsAChangeOnceInRegistrationOrder) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  Listener& d = listen("d");
  dir_->notifieeListRef().notifieeIs(&b);
  a.notifierIs(nullptr);
  destroy(d);
  change("x");
  EXPECT_EQ(log_, (Log{"b:x", "c:x"}));
  EXPECT_EQ(registered(), 2u);
}

TEST_F(NotifieeTest, NotifieeKeepsItsNotifierAliveUntilItLetsGoOrGoes) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  Listener& a = listen("a");
  Listener& b = listen("b");
  dir_ = nullptr;
  a.notifierIs(nullptr);
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before);
  destroy(b);
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before - 1);
}

TEST_F(NotifieeTest, NotifieesUnregisteredAfterTheirTurnAreNotCalledAgainAndSkipNoOther) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  b.action = [&](const Qel::Name&) {
    a.notifierIs(nullptr);
    b.notifierIs(nullptr);
  };
  change("x");
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "b:x", "c:x", "c:y"}));
}

TEST_F(NotifieeTest, NotifieeUnregisteredOrDestroyedBeforeItsTurnIsSkipped) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  Listener& c = listen("c");
  listen("d");
  a.action = [&](const Qel::Name&) {
    b.notifierIs(nullptr);
    destroy(c);
  };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "d:x"}));
}

TEST_F(NotifieeTest, NotifieeThatJoinsOrRejoinsDuringDeliveryHearsOnlyTheNextChange) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  Listener& late = listen("late", false);
  a.action = [&](const Qel::Name& name) {
    if (name != "x") return;
    b.notifierIs(nullptr);
    b.notifierIs(dir_);
    late.notifierIs(dir_);
  };
  change("x");
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "b:y", "late:y"}));
}

// A nested delivery runs in full before the outer one goes on; whoever it
// unregisters is skipped by the outer one too, and whoever joins during
// either hears neither.
TEST_F(NotifieeTest, NestedDeliveryFinishesFirstAndItsChangesHoldForTheOuterOne) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  Listener& c = listen("c");
  Listener& late = listen("late", false);
  a.action = [&](const Qel::Name& name) {
    if (name == "x") change("y");
    late.notifierIs(dir_);
  };
  b.action = [&](const Qel::Name&) { c.notifierIs(nullptr); };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "b:y", "b:x"}));
}

TEST_F(NotifieeTest, RemovalInANestedDeliveryDoesNotShiftTheOuterOne) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  a.action = [&](const Qel::Name& name) {
    if (name == "x") change("y");
  };
  b.action = [&](const Qel::Name&) { a.notifierIs(nullptr); };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "b:y", "c:y", "b:x", "c:x"}));
}

TEST_F(NotifieeTest, ExceptionPropagatesAndLeavesTheListUsable) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  a.action = [&](const Qel::Name& name) {
    b.notifierIs(nullptr);
    if (name == "x") throw std::runtime_error("refused");
  };
  EXPECT_THROW(change("x"), std::runtime_error);
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "c:y"}));  // c was not called after the throw
  EXPECT_EQ(registered(), 2u);
}

// A delivery holds the notifier it delivers for, even when every notifiee
// lets go of it on the way.
TEST_F(NotifieeTest, NotifierLosingItsLastReferenceMidDeliveryFinishesIt) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  Listener& a = listen("a");
  Listener& b = listen("b");
  Qel::Dir* dir = dir_.ptr();
  dir_ = nullptr;  // from here on only the notifiees hold it...
  a.action = [&](const Qel::Name&) {
    a.notifierIs(nullptr);
    b.notifierIs(nullptr);  // ...and both let go while it notifies
  };
  Qel::Dir::Ptr x = Qel::dirFactory("x");
  dir->entityIs(x);
  EXPECT_EQ(log_, (Log{"a:x"}));                    // b left before its turn
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before);  // the directory went (x came)
  EXPECT_EQ(x->parent(), nullptr);
}

// The list on its own, with a notifier that is not an entity.
TEST(NotifieeListTest, NullOrAbsentMembersAreNeitherAddedNorRemoved) {
  struct Member : Qel::NotifieeBase {
    int calls = 0;
  } in, out;
  Qel::NotifieeListBase list;
  list.notifieeIs(nullptr);
  list.notifieeIs(&in);
  list.notifieeDel(nullptr);
  list.notifieeDel(&out);
  list.visitAs<Member>(nullptr, [](Member* m) { ++m->calls; });
  EXPECT_EQ(std::make_tuple(list.notifiees(), in.calls, out.calls), std::make_tuple(1u, 1, 0));
}

}  // namespace
