#include "qel/Entity.h"

#include <string>
#include <unordered_set>

#include "qel/Exception.h"

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

}  // namespace Qel
