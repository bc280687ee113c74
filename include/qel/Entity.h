// Entities: named framework objects.
//
// An Entity may sit in one collection of one parent at a time; the
// collection holds the reference, the entity only points back at its parent.
#ifndef QEL_ENTITY_H
#define QEL_ENTITY_H

#include "qel/Export.h"
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
};

}  // namespace Qel

#endif  // QEL_ENTITY_H
