// The type registry and the small reflection layer on it.
//
// Each declared type registers one TypeNode under its full name
// ("KronlogWriter::Config") when its library is loaded. A node says what kind
// of type it is and offers, by name: enum values, constants, attributes read
// as text, operations, and, for value types, construction from a text form
// and the default value. Value types cross the reflection boundary boxed in
// a ValueBox<T>.
#ifndef QEL_TYPE_H
#define QEL_TYPE_H

#include <functional>
#include <utility>
#include <vector>

#include "qel/Export.h"
#include "qel/Ptr.h"
#include "qel/Strep.h"
#include "qel/String.h"

namespace Qel {

// A value of type T held by a framework object, so that reflection can hand
// values around without knowing their type.
class QEL_EXPORT ValueBoxBase : public PtrInterface {
 public:
  ~ValueBoxBase() override;
  virtual String strep() const = 0;
};

template <class T>
class ValueBox : public ValueBoxBase {
 public:
  explicit ValueBox(T v) : value(std::move(v)) {}
  String strep() const override { return valueToStrep(value); }
  T value;
};

class QEL_EXPORT TypeNode : public PtrInterface {
 public:
  enum class Kind { entity, value, enumeration };
  using Getter = std::function<String(const PtrInterface&)>;
  using Operation = std::function<void(PtrInterface&)>;
  using Parser = std::function<Ptr<ValueBoxBase>(const String&)>;
  using Maker = std::function<Ptr<ValueBoxBase>()>;

  TypeNode(Name name, Kind kind, const TypeNode* base = nullptr);
  ~TypeNode() override;

  const Name& name() const noexcept { return name_; }
  Kind kind() const noexcept { return kind_; }
  // The registered base type whose members this type inherits, or null.
  const TypeNode* base() const noexcept { return base_; }

  // Declaration (done once, before typeNodeIs). Each returns *this.
  TypeNode& enumeratorIs(String valueName, unsigned int number);
  TypeNode& constantIs(Name name, String value);
  TypeNode& attributeIs(Name name, Getter get);
  TypeNode& operationIs(Name name, Operation op);
  TypeNode& parserIs(Parser parse);
  TypeNode& defaultIs(Maker make);

  // Enums: number to value name and back; false when there is no such value.
  bool enumName(unsigned int number, String* out) const;
  bool enumNumber(const String& valueName, unsigned int* out) const;
  const std::vector<std::pair<String, unsigned int>>& enumerators() const { return enumerators_; }

  // Reflection. Members are looked up here, then in the base types. An
  // unknown name raises RangeException; so does a value type without parser.
  String constant(const Name& name) const;
  String attribute(const PtrInterface& object, const Name& name) const;
  void operationDo(PtrInterface& object, const Name& name) const;
  Ptr<ValueBoxBase> valueFromStrep(const String& text) const;
  Ptr<ValueBoxBase> defaultValue() const;

 private:
  template <class M>
  struct Member {
    Name name;
    M value;
  };
  Name name_;
  Kind kind_;
  const TypeNode* base_;
  std::vector<std::pair<String, unsigned int>> enumerators_;
  std::vector<Member<String>> constants_;
  std::vector<Member<Getter>> attributes_;
  std::vector<Member<Operation>> operations_;
  Parser parser_;
  Maker maker_;
};

// Registers a type; a second type under a registered name raises
// NameInUseException. Returns the registered node, which lives until exit.
QEL_EXPORT const TypeNode* typeNodeIs(Ptr<TypeNode> node);
// The type registered under `name`, or null.
QEL_EXPORT const TypeNode* typeNode(const Name& name);

// Defines Class::fwkType(): the type registered under `typeName`, looked up
// once, on the first call (registration happens at load time, before any
// object of the type can exist).
#define QEL_FWK_TYPE_DEFINE(Class, typeName)                              \
  const ::Qel::TypeNode* Class::fwkType() const {                         \
    static const ::Qel::TypeNode* const type = ::Qel::typeNode(typeName); \
    return type;                                                          \
  }
// Every registered type, in registration order.
QEL_EXPORT std::vector<const TypeNode*> typeNodes();

// Text form of an enum value through its registered type: its value name, or
// the number itself when the type has no such value.
QEL_EXPORT String enumToStrep(const TypeNode& type, unsigned int number);

}  // namespace Qel

#endif  // QEL_TYPE_H
