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
    // A null entity (an adapter without one) makes an empty scope.
    explicit FlowInScope(Entity* entity) noexcept : entity_(entity) {
      if (entity_) ++entity_->flowInDepth_;
    }
    ~FlowInScope() {
      if (entity_) --entity_->flowInDepth_;
    }
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

 public:
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

 protected:
  explicit Entity(Name name);
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

}  // namespace Qel

#endif  // QEL_ENTITY_H
