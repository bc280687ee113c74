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
  // A new listener, registered with the directory.
  Listener& listen(const std::string& id) {
    listeners_.push_back(std::make_unique<Listener>(&log_, id));
    listeners_.back()->notifierIs(dir_);
    return *listeners_.back();
  }
  // An unregistered listener (registered later by a test).
  Listener& spare(const std::string& id) {
    listeners_.push_back(std::make_unique<Listener>(&log_, id));
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

TEST_F(NotifieeTest, EveryNotifieeHearsAChangeInRegistrationOrder) {
  listen("a");
  listen("b");
  listen("c");
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "b:x", "c:x"}));
}

TEST_F(NotifieeTest, RegisteringTwiceDeliversOnce) {
  Listener& a = listen("a");
  dir_->notifieeListRef().notifieeIs(&a);
  change("x");
  EXPECT_EQ(log_, (Log{"a:x"}));
  EXPECT_EQ(registered(), 1u);
}

TEST_F(NotifieeTest, UnregisteredOrDestroyedNotifieeHearsNothing) {
  Listener& a = listen("a");
  listen("b");
  Listener& c = listen("c");
  a.notifierIs(nullptr);
  destroy(c);
  change("x");
  EXPECT_EQ(log_, (Log{"b:x"}));
  EXPECT_EQ(registered(), 1u);
}

TEST_F(NotifieeTest, NotifieeKeepsItsNotifierAlive) {
  std::uint64_t before = Qel::liveObjects("Qel::Dir");
  Listener& a = listen("a");
  dir_ = nullptr;
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before);
  destroy(a);
  EXPECT_EQ(Qel::liveObjects("Qel::Dir"), before - 1);
}

TEST_F(NotifieeTest, NotifieeThatUnregistersItselfIsNotCalledAgain) {
  Listener& a = listen("a");
  listen("b");
  a.action = [&](const Qel::Name&) { a.notifierIs(nullptr); };
  change("x");
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "b:x", "b:y"}));
  EXPECT_EQ(registered(), 1u);
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

TEST_F(NotifieeTest, UnregisteringAnAlreadyCalledNotifieeSkipsNoOther) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  b.action = [&](const Qel::Name&) { a.notifierIs(nullptr); };
  change("x");
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "b:x", "c:x", "b:y", "c:y"}));
}

TEST_F(NotifieeTest, NotifieeRegisteredDuringDeliveryHearsOnlyTheNextChange) {
  Listener& a = listen("a");
  listen("b");
  Listener& late = spare("late");
  a.action = [&](const Qel::Name&) { late.notifierIs(dir_); };
  change("x");
  change("y");
  EXPECT_EQ(log_, (Log{"a:x", "b:x", "a:y", "b:y", "late:y"}));
}

TEST_F(NotifieeTest, NotifieeThatLeavesAndRejoinsHearsOnlyTheNextChange) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  a.action = [&](const Qel::Name&) {
    b.notifierIs(nullptr);
    b.notifierIs(dir_);
  };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x"}));
  EXPECT_EQ(registered(), 2u);
}

TEST_F(NotifieeTest, NotifieeUnregisteredInANestedDeliveryIsSkippedByTheOuterOne) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  Listener& c = listen("c");
  a.action = [&](const Qel::Name& name) {
    if (name == "x") change("y");
  };
  b.action = [&](const Qel::Name&) { c.notifierIs(nullptr); };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "b:y", "b:x"}));
  EXPECT_EQ(registered(), 2u);
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

// The nested notification is delivered in full before the outer one goes on.
TEST_F(NotifieeTest, NotifieeRegisteredInANestedDeliveryHearsNeither) {
  Listener& a = listen("a");
  listen("b");
  Listener& late = spare("late");
  a.action = [&](const Qel::Name& name) {
    if (name == "x") change("y");
    late.notifierIs(dir_);
  };
  change("x");
  EXPECT_EQ(log_, (Log{"a:x", "a:y", "b:y", "b:x"}));
}

TEST_F(NotifieeTest, ExceptionPropagatesAndLeavesTheListUsable) {
  Listener& a = listen("a");
  Listener& b = listen("b");
  listen("c");
  a.action = [&](const Qel::Name&) {
    b.notifierIs(nullptr);
    a.action = nullptr;
    throw std::runtime_error("refused");
  };
  EXPECT_THROW(change("x"), std::runtime_error);
  EXPECT_EQ(log_, (Log{"a:x"}));  // c was not called after the throw
  log_.clear();
  change("y");
  EXPECT_EQ(log_, (Log{"a:y", "c:y"}));
  EXPECT_EQ(registered(), 2u);
}

// Who keeps whom alive: a notifiee holds its notifier; a delivery holds the
// notifier it delivers for.
class NotifieeOwnershipTest : public ::testing::Test {
 protected:
  std::uint64_t liveDirs() const { return Qel::liveObjects("Qel::Dir") - dirsBefore_; }
  Log log_;
  Listener first_{&log_, "a"};
  Listener second_{&log_, "b"};

 private:
  std::uint64_t dirsBefore_ = Qel::liveObjects("Qel::Dir");
};

TEST_F(NotifieeOwnershipTest, NotifieeKeepsItsNotifierAliveUntilItLetsGo) {
  first_.notifierIs(Qel::dirFactory("d"));  // the only reference
  first_.notifier()->entityIs(Qel::dirFactory("x"));
  EXPECT_EQ(log_, (Log{"a:x"}));
  EXPECT_EQ(liveDirs(), 2u);
  first_.notifierIs(nullptr);
  EXPECT_EQ(liveDirs(), 0u);
}

TEST_F(NotifieeOwnershipTest, NotifierLosingItsLastReferenceMidDeliveryFinishesIt) {
  Qel::Dir* dir = nullptr;
  {
    Qel::Dir::Ptr d = Qel::dirFactory("d");
    first_.notifierIs(d);
    second_.notifierIs(d);
    dir = d.ptr();  // from here on only the notifiees hold it...
  }
  first_.action = [&](const Qel::Name&) {
    first_.notifierIs(nullptr);
    second_.notifierIs(nullptr);  // ...and both let go while it notifies
  };
  Qel::Dir::Ptr x = Qel::dirFactory("x");
  dir->entityIs(x);
  EXPECT_EQ(log_, (Log{"a:x"}));  // b left before its turn
  EXPECT_EQ(liveDirs(), 1u);      // the directory went once the delivery ended
  EXPECT_EQ(x->parent(), nullptr);
}

// The list on its own, with a notifier that is not an entity.
class NotifieeListTest : public ::testing::Test {
 protected:
  struct Member : Qel::NotifieeBase {
    int calls = 0;
  };
  // Delivers one notification to every member.
  void deliver() {
    list_.visitAs<Member>(nullptr, [](Member* m) { ++m->calls; });
  }
  Qel::NotifieeListBase list_;
};

TEST_F(NotifieeListTest, NullOrAbsentMembersAreNeitherAddedNorRemoved) {
  Member in;
  Member out;
  list_.notifieeIs(nullptr);
  list_.notifieeIs(&in);
  list_.notifieeDel(nullptr);
  list_.notifieeDel(&out);
  deliver();
  EXPECT_EQ(list_.notifiees(), 1u);
  EXPECT_EQ(in.calls, 1);
  EXPECT_EQ(out.calls, 0);
}

}  // namespace
