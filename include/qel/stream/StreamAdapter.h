// One streamed entity on one connection.
//
// A streamed entity type provides a StreamAdapter subclass. On the serving
// side the adapter hears its entity's notifications and writes records; on
// the mounting side the same class applies received records to a read-only
// copy. The adapter keeps its own dirty state (which attributes still have
// to go out, and where an interrupted flow-out resumes); the framework only
// remembers that the adapter wants a handleAttrFlowOut() call, so what a
// connection holds for a slow peer is bounded by its send buffer plus one
// dirty record per entity.
//
// Sending a change, the pattern every adapter follows (it registers with its
// entity in its constructor when sending()):
//   void onValue() override {
//     if (flowInAttr() == kValue) return;       // the change came from the peer
//     if (mayTransmit()) { sendValue(); } else { dirty_ |= kValueBit; flowOutNeededIs(); }
//   }
#ifndef QEL_STREAM_STREAMADAPTER_H
#define QEL_STREAM_STREAMADAPTER_H

#include <functional>

#include "qel/Entity.h"
#include "qel/Export.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/stream/NboAttrLog.h"
#include "qel/stream/Record.h"

namespace Qel {

class Connection;

class QEL_EXPORT StreamAdapter : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<StreamAdapter>;
  using In = NboAttrLog::In;
  using Out = NboAttrLog::Out;
  using RecordKind = NboAttrLog::RecordKind;
  using EntityId = NboAttrLog::EntityId;

  ~StreamAdapter() override;

  // Null once the adapter has left its connection (or the connection is gone).
  Connection* connection() const noexcept { return connection_; }
  Entity* entity() const noexcept { return entity_.ptr(); }
  // 0 until the connection has registered the adapter.
  EntityId entityId() const noexcept { return id_; }

  // ---- Sending side

  // True while the adapter is on a serving connection, the only kind that
  // sends. An adapter on a mounting connection applies records to a copy
  // and never sends, so it need not hear the copy's notifications (its own
  // applying causes them): adapters register with their entity only when
  // sending() holds at construction, which saves a call per received record.
  inline bool sending() const noexcept;

  // May a record be written now? True while the connection serves this
  // entity and its send buffer has room; false on a mounting connection.
  inline bool mayTransmit() const noexcept;
  // Asks the connection for a handleAttrFlowOut() call once its buffer has
  // room. Cheap and idempotent; the adapter remembers what is dirty. On a
  // read-only copy it throws the same InternalException as recordBegin: a
  // copy's changes come from its peer and never flow back.
  void flowOutNeededIs();
  // The attribute whose received change is being applied right now, or 0.
  // A notification for it must not be sent back to where it came from.
  AttributeId flowInAttr() const noexcept { return flowInAttr_; }
  // Where an interrupted flow-out continues; the adapter's to manage.
  AttributeId resumeAttr() const noexcept { return resumeAttr_; }
  void resumeAttrIs(AttributeId attr) noexcept { resumeAttr_ = attr; }

  // Writes one record: the payload goes into the returned buffer between
  // recordBegin and recordEnd. A record is always accepted, even without
  // room (a caller that cares asks mayTransmit first), so that a creation
  // record never waits behind the records that refer to it. Throws
  // InternalException "write-update from readonly proxy: <full name>
  // peerName: <peer>" for a read-only copy, and InternalException when the
  // adapter has no connection. recordEnd throws RangeException for a frame
  // above the cap; the frame is then dropped whole.
  inline Out& recordBegin(RecordKind kind, AttributeId attr);
  inline void recordEnd();
  // Empty records bracketing a whole-collection transfer of `attr`.
  void transactionOpen(AttributeId attr);
  void transactionClose(AttributeId attr);

  // Streams `child` (typically a new collection member) on this adapter's
  // connection: registers it, sends its creation record now, and queues
  // its first flow-out. Returns its entity identifier, which the parent's
  // membership record refers to.
  EntityId childAdapterIs(const Ptr& child);
  // Stops streaming the child: sends its deletion record and releases it.
  void childAdapterDel(EntityId child);

  // ---- What each streamed type provides

  // Its name in the streamable-type registry.
  virtual const char* typeName() const = 0;
  // The constructor values, written after the type name and entity name of
  // the creation record; the registered factory reads them back.
  virtual void doSerializeOrphan(Out& out) = 0;
  // Sends what is dirty, in attribute order, asking mayTransmit() between
  // records. Returns true when nothing is left, false when it stopped for
  // lack of room (it is then called again, after the other dirty entities
  // have had their turn).
  virtual bool handleAttrFlowOut() = 0;
  // Applies one received attrUpdate or memberDel record. Reads every field
  // before changing anything, so that a malformed record changes nothing;
  // reports bad input through in.fail(...) (unknown attribute, member that
  // does not exist, ...). The entity is in a flow-in while this runs.
  virtual void handleAttrDeserialization(RecordKind kind, AttributeId attr, In& in) = 0;
  // A whole-collection transfer of `attr` opens or closes.
  virtual void handleTransaction(AttributeId attr, bool open);
  // The peer stopped streaming the entity; the copy itself stays.
  virtual void handleEntityDel();

 protected:
  // The adapter holds `entity` for its lifetime.
  StreamAdapter(Connection* connection, Entity* entity);
  // Reports an attribute identifier this type does not stream.
  [[noreturn]] static void attrUnknown(AttributeId attr, In& in);

  // Reads a record of a collection keyed by name whose members are
  // entities this connection created (orphans until added): a memberDel
  // carries the key, an attrUpdate the key and the member's entity id.
  // Sets `name` and returns the member to add, or null for a deletion.
  // Throws NboAttrLog::FormatException at the field at fault: the deletion
  // of a name that `present` does not know, or an id that names no orphan
  // called `name` for which `isMember` holds (`what` names the kind).
  Entity* namedMemberRecord(RecordKind kind, In& in, const char* what,
                            bool (*isMember)(const Entity*),
                            const std::function<bool(const Name&)>& present, Name* name);

 private:
  friend class Connection;
  // Throws what recordBegin promises for an adapter that may not write.
  [[noreturn]] void recordRefused() const;
  Connection* connection_;
  Qel::Ptr<Entity> entity_;
  EntityId id_ = 0;
  AttributeId resumeAttr_ = 0;
  AttributeId flowInAttr_ = 0;
  bool queued_ = false;  // in the connection's flow-out queue
  bool active_ = false;  // applying a received record
};

// ---- The registry of streamable types

// Builds the copy of an entity from a creation record: reads the
// constructor values from `in`, creates the entity, marks it read-only
// (readOnlyIs(connection->peerName())) and returns its adapter.
using StreamFactory = std::function<StreamAdapter::Ptr(Connection* connection, const Name& name,
                                                       StreamAdapter::In& in)>;

// Registers (or replaces) the factory for `typeName`.
QEL_EXPORT void streamTypeIs(const Name& typeName, StreamFactory factory);
// The factory for `typeName`, or null.
QEL_EXPORT const StreamFactory* streamType(const Name& typeName);

}  // namespace Qel

// The inline members above that reach into the connection are defined
// after it.
#include "qel/stream/Connection.h"  // IWYU pragma: export

#endif  // QEL_STREAM_STREAMADAPTER_H
