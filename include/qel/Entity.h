// Entities and directories.
//
// An Entity is a named framework object that may sit in one collection of
// one parent at a time. A Dir is an entity holding other entities keyed by
// their names; it owns them (holds a reference) and is their parent.
#ifndef QEL_ENTITY_H
#define QEL_ENTITY_H

#include "qel/Allocator.h"
#include "qel/Export.h"
#include "qel/HashMap.h"
#include "qel/Notifiee.h"
#include "qel/Ptr.h"
#include "qel/String.h"

namespace Qel {

class QEL_EXPORT Entity : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<Entity>;

  const Name& name() const noexcept { return name_; }
  // The entity holding this one in a collection, or null. Not owning: a
  // parent outlives its members' membership.
  Entity* parent() const noexcept { return parent_; }
  // The name of the parent's collection attribute this entity sits in.
  const Name& parentAttr() const noexcept { return parentAttr_; }
  void parentIs(Entity* parent) noexcept { parent_ = parent; }
  void parentAttrIs(const Name& attr) { parentAttr_ = attr; }
  // "/a/b/c": the names from the root down to this entity.
  String fullName() const;

  // Replaces the name in place, without notification or re-keying; used when
  // an entity is recreated from a backup copy.
  virtual void nameIsFromBackup(const Name& name);

  // The live entity at `address`, or null when none is there. Lets text
  // forms of pointers be read back without ever dereferencing a stale or
  // made-up address.
  static Entity* liveEntity(const void* address);

  // Read-only copies. An entity built from another process's stream is a
  // proxy of the original: its mutators call writeCheck(), which refuses
  // user code, while the framework applies the peer's changes inside a
  // FlowInScope. A copy converted with writableIs() is an ordinary entity.
  bool readOnly() const noexcept { return readOnly_; }
  // The process the copy came from ("<command>[<pid>]"); empty otherwise.
  const String& readOnlyPeerName() const noexcept { return readOnlyPeerName_; }
  void readOnlyIs(const String& peerName);
  void writableIs() noexcept { readOnly_ = false; }
  // True while the framework applies a received change to this entity.
  bool flowIn() const noexcept { return flowInDepth_ != 0; }
  // Throws ReadOnlyException when called on a read-only copy outside a
  // flow-in: user code tried to change it.
  void writeCheck() const {
    if (readOnly_ && flowInDepth_ == 0) readOnlyViolation();
  }

  // Marks `entity` as having a received change applied to it for the
  // scope's lifetime (scopes nest).
  class FlowInScope {
   public:
    explicit FlowInScope(Entity* entity) noexcept : entity_(entity) { ++entity_->flowInDepth_; }
    ~FlowInScope() { --entity_->flowInDepth_; }
    FlowInScope(const FlowInScope&) = delete;
    FlowInScope& operator=(const FlowInScope&) = delete;

   private:
    Entity* entity_;
  };

  // Collection linkage, managed by HashMap only. The key is the name the
  // entity had when it entered its collection: renaming an entity
  // (nameIsFromBackup) re-keys nothing, and must not disturb the order of
  // the collection's chains either.
  Entity* qelHashNext_ = nullptr;
  bool qelInCollection_ = false;
  const Name& qelHashKey() const noexcept { return qelKey_; }
  void qelHashKeyFreeze() { qelKey_ = name_; }
  Entity* qelHashValue() noexcept { return this; }

 protected:
  explicit Entity(Name name);
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;
  ~Entity() override;

 private:
  Name name_;
  Entity* parent_ = nullptr;
  Name parentAttr_;
  Name qelKey_;
  String readOnlyPeerName_;
  unsigned flowInDepth_ = 0;
  bool readOnly_ = false;
  [[noreturn]] void readOnlyViolation() const;
};

class QEL_EXPORT Dir : public Entity {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Dir>;
  using EntityMap = HashMap<Entity, Name, Entity>;
  using EntityIterator = EntityMap::Iterator;

  class Notifiee : public Qel::Notifiee<Dir> {
   public:
    // An entity was added under `name`, replaced, or removed.
    virtual void onEntity(const Name& name) {
      (void)name;
      onEntity();
    }
    virtual void onEntity() {}
  };

  static Ptr DirIs(const Name& name);

  // The member named `name`, or null.
  Entity* entity(const Name& name) const noexcept { return entities_[name]; }
  std::size_t entities() const noexcept { return entities_.size(); }
  EntityIterator entityIter() const { return entities_.begin(); }

  // Adds `entity` under its name, replacing a different member of that name.
  // Throws RangeException for null, or for an entity already held by a
  // collection (an entity has one parent).
  void entityIs(const Qel::Ptr<Entity>& entity);
  // Removes and returns the member named `name`; null when there is none.
  Qel::Ptr<Entity> entityDel(const Name& name);
  void entityDelAll();

  NotifieeListBase& notifieeListRef() noexcept { return notifiees_; }
  NotifieeListBase* notifieeList() const override;
  const TypeNode* fwkType() const override;

 protected:
  explicit Dir(Name name);
  ~Dir() override;

 private:
  void notify(const Name& name);
  EntityMap entities_;
  NotifieeListBase notifiees_;
};

QEL_EXPORT Dir::Ptr dirFactory(const Name& name);

}  // namespace Qel

#endif  // QEL_ENTITY_H
