#include "qel/stream/StreamAdapter.h"

#include <cstdint>
#include <string>
#include <unordered_map>

#include "qel/Exception.h"
#include "qel/stream/Connection.h"

namespace Qel {

StreamAdapter::StreamAdapter(Connection* connection, Entity* entity)
    : connection_(connection), entity_(entity) {}

StreamAdapter::~StreamAdapter() = default;

namespace {
[[noreturn]] void readOnlyWrite(const Entity& e) {
  throw InternalException(String("write-update from readonly proxy: " + e.fullName().stdString() +
                                 " peerName: " + e.readOnlyPeerName().stdString()));
}
}  // namespace

void StreamAdapter::flowOutNeededIs() {
  if (entity_ && entity_->readOnly()) readOnlyWrite(*entity_);
  if (connection_ && id_ != 0 && connection_->role() == Connection::Role::serving) {
    connection_->flowOutNeeded(this);
  }
}

void StreamAdapter::recordRefused() const {
  if (entity_ && entity_->readOnly()) readOnlyWrite(*entity_);
  throw InternalException(String("stream record written by an adapter without connection"));
}

void StreamAdapter::transactionOpen(AttributeId attr) {
  recordBegin(RecordKind::transactionOpen, attr);
  recordEnd();
}

void StreamAdapter::transactionClose(AttributeId attr) {
  recordBegin(RecordKind::transactionClose, attr);
  recordEnd();
}

StreamAdapter::EntityId StreamAdapter::childAdapterIs(const Ptr& child) {
  if (!connection_) throw InternalException("child adapter added without connection");
  return connection_->adapterIs(child);
}

void StreamAdapter::childAdapterDel(EntityId child) {
  if (connection_) connection_->adapterDel(child);
}

void StreamAdapter::handleTransaction(AttributeId, bool) {}
void StreamAdapter::handleEntityDel() {}

void StreamAdapter::attrUnknown(AttributeId attr, In& in) {
  in.fail(String("unknown attribute identifier " + std::to_string(attr)));
}

Entity* StreamAdapter::namedMemberRecord(RecordKind kind, In& in, const char* what,
                                         bool (*isMember)(const Entity*),
                                         const std::function<bool(const Name&)>& present,
                                         Name* name) {
  const std::uint64_t keyAt = in.offset();
  *name = Name(in.string());
  if (kind == RecordKind::memberDel) {
    in.endExpect();
    if (!present(*name)) {
      throw NboAttrLog::FormatException(keyAt, String("no member " + name->stdString()));
    }
    return nullptr;
  }
  const std::uint64_t idAt = in.offset();
  const EntityId id = in.u32();
  in.endExpect();
  StreamAdapter* child = connection_->adapter(id);
  Entity* member = child ? child->entity() : nullptr;
  if (!member || !isMember(member) || member->name() != *name || member->parent()) {
    throw NboAttrLog::FormatException(
        idAt, String("entity " + std::to_string(id) + " is not an orphan " + what + " " +
                     name->stdString()));
  }
  return member;
}

// ---- Registry

namespace {
std::unordered_map<std::string, StreamFactory>& registry() {
  static auto* types = new std::unordered_map<std::string, StreamFactory>;  // lives until exit
  return *types;
}
}  // namespace

void streamTypeIs(const Name& typeName, StreamFactory factory) {
  registry()[typeName.stdString()] = std::move(factory);
}

const StreamFactory* streamType(const Name& typeName) {
  auto& types = registry();
  auto it = types.find(typeName.stdString());
  return it == types.end() ? nullptr : &it->second;
}

}  // namespace Qel
