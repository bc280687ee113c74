#include "qel/Type.h"

#include "qel/Exception.h"
#include "qel/Strep.h"

namespace Qel {

ValueBoxBase::~ValueBoxBase() = default;

TypeNode::TypeNode(Name name, Kind kind, const TypeNode* base)
    : name_(std::move(name)), kind_(kind), base_(base) {}
TypeNode::~TypeNode() = default;

TypeNode& TypeNode::enumeratorIs(String valueName, unsigned int number) {
  enumerators_.emplace_back(std::move(valueName), number);
  return *this;
}
TypeNode& TypeNode::constantIs(Name name, String value) {
  constants_.push_back({std::move(name), std::move(value)});
  return *this;
}
TypeNode& TypeNode::attributeIs(Name name, Getter get) {
  attributes_.push_back({std::move(name), std::move(get)});
  return *this;
}
TypeNode& TypeNode::operationIs(Name name, Operation op) {
  operations_.push_back({std::move(name), std::move(op)});
  return *this;
}
TypeNode& TypeNode::parserIs(Parser parse) {
  parser_ = std::move(parse);
  return *this;
}
TypeNode& TypeNode::defaultIs(Maker make) {
  maker_ = std::move(make);
  return *this;
}

bool TypeNode::enumName(unsigned int number, String* out) const {
  for (const auto& e : enumerators_) {
    if (e.second == number) {
      *out = e.first;
      return true;
    }
  }
  return false;
}

bool TypeNode::enumNumber(const String& valueName, unsigned int* out) const {
  for (const auto& e : enumerators_) {
    if (e.first == valueName) {
      *out = e.second;
      return true;
    }
  }
  return false;
}

namespace {
[[noreturn]] void noMember(const TypeNode& type, const char* what, const Name& name) {
  throwRangeException(String(type.name().stdString() + " has no " + what + " " + name.stdString()));
}
}  // namespace

String TypeNode::constant(const Name& name) const {
  for (const TypeNode* t = this; t; t = t->base_) {
    for (const auto& c : t->constants_) {
      if (c.name == name) return c.value;
    }
  }
  noMember(*this, "constant", name);
}

String TypeNode::attribute(const PtrInterface& object, const Name& name) const {
  for (const TypeNode* t = this; t; t = t->base_) {
    for (const auto& a : t->attributes_) {
      if (a.name == name) return a.value(object);
    }
  }
  noMember(*this, "attribute", name);
}

void TypeNode::operationDo(PtrInterface& object, const Name& name) const {
  for (const TypeNode* t = this; t; t = t->base_) {
    for (const auto& o : t->operations_) {
      if (o.name == name) return o.value(object);
    }
  }
  noMember(*this, "operation", name);
}

Ptr<ValueBoxBase> TypeNode::valueFromStrep(const String& text) const {
  if (!parser_) throwRangeException(String(name_.stdString() + " cannot be built from text"));
  return parser_(text);
}

Ptr<ValueBoxBase> TypeNode::defaultValue() const {
  if (!maker_) throwRangeException(String(name_.stdString() + " has no default value"));
  return maker_();
}

namespace {
// Built on first use, so that registrations made by other libraries' static
// initialisers find it whatever the load order. Types are registered while
// libraries load and read on the framework thread afterwards, so the
// registry needs no lock.
struct Registry {
  std::vector<Ptr<TypeNode>> nodes;
};
Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: types outlive statics
  return *r;
}
}  // namespace

const TypeNode* typeNodeIs(Ptr<TypeNode> node) {
  if (!node) throwRangeException("null type node");
  Registry& r = registry();
  for (const auto& n : r.nodes) {
    if (n->name() == node->name()) {
      throwNameInUseException(
          String("type " + node->name().stdString() + " is already registered"));
    }
  }
  r.nodes.push_back(std::move(node));
  return r.nodes.back().ptr();
}

const TypeNode* typeNode(const Name& name) {
  Registry& r = registry();
  for (const auto& n : r.nodes) {
    if (n->name() == name) return n.ptr();
  }
  return nullptr;
}

std::vector<const TypeNode*> typeNodes() {
  Registry& r = registry();
  std::vector<const TypeNode*> out;
  out.reserve(r.nodes.size());
  for (const auto& n : r.nodes) out.push_back(n.ptr());
  return out;
}

String enumToStrep(const TypeNode& type, unsigned int number) {
  String name;
  if (type.enumName(number, &name)) return name;
  return valueToStrep(number);
}

}  // namespace Qel
