#include "qel/Entity.h"

#include <string>
#include <unordered_set>

#include "qel/Exception.h"
#include "qel/Type.h"

namespace Qel {

namespace {
// Addresses of the entities alive now. Entities are few and long-lived
// (directories, writers), so one set insertion per entity is cheap.
std::unordered_set<const void*>& liveEntities() {
  static auto* set = new std::unordered_set<const void*>;  // lives until exit
  return *set;
}
}  // namespace

Entity::Entity(Name name) : name_(std::move(name)) {
  liveEntities().insert(this);
}

Entity::~Entity() {
  liveEntities().erase(this);
}

void Entity::nameIsFromBackup(const Name& name) {
  name_ = name;
}

void Entity::readOnlyIs(const String& peerName) {
  readOnly_ = true;
  readOnlyPeerName_ = peerName;
}

void Entity::readOnlyViolation() const {
  throw ReadOnlyException(String("entity is a read-only copy: " + fullName().stdString() +
                                 " peerName: " + readOnlyPeerName_.stdString()));
}

String Entity::fullName() const {
  std::string path;
  for (const Entity* e = this; e; e = e->parent_) path.insert(0, "/" + e->name_.stdString());
  return String(path);
}

Entity* Entity::liveEntity(const void* address) {
  auto& live = liveEntities();
  if (live.find(address) == live.end()) return nullptr;
  return static_cast<Entity*>(const_cast<void*>(address));
}

QEL_TRACKED_ALLOCATION_DEFINE(Dir, "Qel::Dir")

Dir::Dir(Name name) : Entity(std::move(name)) {}

Dir::~Dir() {
  for (auto it = entities_.begin(); it; ++it) it->parentIs(nullptr);
}

Dir::Ptr Dir::DirIs(const Name& name) {
  Ptr d(new Dir(name));
  if (!d) throwRangeException("null ValidPtr");
  return d;
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

const TypeNode* Dir::fwkType() const {
  static const TypeNode* type = typeNode("Qel::Dir");
  return type;
}

void Dir::notify(const Name& name) {
  notifiees_.visitAs<Notifiee>([&](Notifiee* n) { n->onEntity(name); });
}

namespace {
const bool registered = [] {
  typeNodeIs(Ptr<TypeNode>(new TypeNode("Qel::Dir", TypeNode::Kind::entity)));
  return true;
}();
}  // namespace

}  // namespace Qel
