#include "qel/Dir.h"

#include <string>

#include "qel/Exception.h"
#include "qel/Type.h"

namespace Qel {

Dir::Notifiee::~Notifiee() = default;

QEL_TRACKED_ALLOCATION_DEFINE(Dir, "Qel::Dir")

Dir::Dir(Name name) : Entity(std::move(name)) {}

Dir::~Dir() {
  for (auto it = entities_.begin(); it; ++it) it->parentIs(nullptr);
}

Dir::Ptr Dir::DirIs(const Name& name) {
  return Ptr(new Dir(name));
}

Dir::Ptr dirFactory(const Name& name) {
  return Dir::DirIs(name);
}

void Dir::entityIs(const Qel::Ptr<Entity>& entity) {
  if (!entity) throwRangeException("null entity handed to Qel::Dir::entityIs");
  Entity* current = entities_[entity->name()];
  if (current == entity.ptr()) return;
  if (entity->qelInCollection_) {
    throwRangeException(
        String("entity " + entity->name().stdString() + " is already in a collection"));
  }
  if (current) {
    current->parentIs(nullptr);
    entities_.memberDel(entity->name());
  }
  entities_.newMember(entity.ptr());
  entity->parentIs(this);
  entity->parentAttrIs("entity");
  notify(entity->name());
}

Qel::Ptr<Entity> Dir::entityDel(const Name& name) {
  Qel::Ptr<Entity> removed = entities_.memberDel(name);
  if (removed) {
    removed->parentIs(nullptr);
    notify(name);
  }
  return removed;
}

void Dir::entityDelAll() {
  for (auto it = entities_.begin(); it; ++it) entityDel(it.member()->qelHashKey());
}

NotifieeListBase* Dir::notifieeList() const {
  return const_cast<NotifieeListBase*>(&notifiees_);
}

QEL_FWK_TYPE_DEFINE(Dir, "Qel::Dir")

void Dir::notify(const Name& name) {
  notifiees_.visitAs<Notifiee>(this, [&](Notifiee* n) { n->onEntity(name); });
}

namespace {
const bool registered = [] {
  typeNodeIs(Ptr<TypeNode>(new TypeNode("Qel::Dir", TypeNode::Kind::entity)));
  return true;
}();
}  // namespace

}  // namespace Qel
