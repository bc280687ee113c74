// Directories: entities that hold other entities keyed by name.
//
// A Dir owns its members (holds a reference to each) and is their parent.
// Agents keep their writer directories in one; readers are given Dirs to
// search.
#ifndef QEL_DIR_H
#define QEL_DIR_H

#include <cstddef>

#include "qel/Allocator.h"
#include "qel/Entity.h"
#include "qel/Export.h"
#include "qel/HashMap.h"
#include "qel/Notifiee.h"
#include "qel/Ptr.h"
#include "qel/String.h"

namespace Qel {

class QEL_EXPORT Dir : public Entity {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Dir>;
  using EntityMap = HashMap<Entity, Name, Entity>;
  using EntityIterator = EntityMap::Iterator;
  using EntityIteratorConst = EntityMap::IteratorConst;

  class QEL_EXPORT Notifiee : public Qel::Notifiee<Dir> {
   public:
    // Out of line: the type information lives in libqel alone.
    ~Notifiee() override;
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
  // Iteration follows the map's order and survives removals; range-for over
  // the map visits const members: `for (const Entity& e : dir->entityMap())`.
  EntityIterator entityIter() { return entities_.begin(); }
  EntityIteratorConst entityIterConst() const { return entities_.begin(); }
  const EntityMap& entityMap() const noexcept { return entities_; }

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

#endif  // QEL_DIR_H
