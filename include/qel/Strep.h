// Text forms ("streps") of values: one rule set for printing and parsing, so
// that every printed value parses back to an equal one.
//
//   double    shortest round-trip decimal, always with a fraction or an
//             exponent ("1.0", "0.1", "-0.0", "1e+300"), or nan, inf, -inf
//   unsigned  decimal digits
//   bool      true, false
//   string    single-quoted; \\ \' \n \r \t and \xHH (other bytes below
//             0x20, 0x7f, NUL) are escaped, every other byte is itself
//   pointer   None, or <TypeName at 0xADDR> for a live entity
//
// Parsers take a pair of character iterators, consume what they read and
// advance the first one. The low-level readers (strepToValue) raise
// RangeException on malformed text; deserializeAttr turns that into a
// DeserializeException carrying the attribute's name.
#ifndef QEL_STREP_H
#define QEL_STREP_H

#include <initializer_list>
#include <utility>

#include "qel/Exception.h"
#include "qel/Export.h"
#include "qel/String.h"

namespace Qel {

class PtrInterface;
using StrepIt = String::IteratorConst;

QEL_EXPORT String valueToStrep(double value);
QEL_EXPORT String valueToStrep(unsigned int value);
QEL_EXPORT String valueToStrep(bool value);
QEL_EXPORT String valueToStrep(const String& value);
QEL_EXPORT String valueToStrep(const char* value);
// The text form of a value type: "Value('<typeName>', ** {'<field>': <text>,
// ...})", each text already in its own text form, fields in order.
QEL_EXPORT String valueTypeStrep(const char* typeName,
                                 std::initializer_list<std::pair<const char*, String>> fields);
// "None" for null; otherwise the object's registered type name and address.
QEL_EXPORT String valueToStrepOfRawPtr(const PtrInterface* value);

QEL_EXPORT void strepToValue(StrepIt& it, const StrepIt& end, double* out);
QEL_EXPORT void strepToValue(StrepIt& it, const StrepIt& end, unsigned int* out);
QEL_EXPORT void strepToValue(StrepIt& it, const StrepIt& end, bool* out);
QEL_EXPORT void strepToValue(StrepIt& it, const StrepIt& end, String* out);
inline void strepToValue(StrepIt& it, const StrepIt& end, Name* out) {
  strepToValue(it, end, static_cast<String*>(out));
}
// Reads a pointer text form. A non-null address must belong to a live entity
// (see Entity.h); anything else is a RangeException, never a dereference.
QEL_EXPORT void strepToRawPtr(StrepIt& it, const StrepIt& end, PtrInterface** out);
// Reads an identifier ([A-Za-z_][A-Za-z0-9_]*), as enum value names are.
QEL_EXPORT String strepToIdentifier(StrepIt& it, const StrepIt& end);

// Consumes exactly `literal`; throws DeserializeException (context: the
// literal) if the text differs in any character or ends early.
QEL_EXPORT void needString(StrepIt& it, const StrepIt& end, const char* literal);

// Re-raises a failure met while reading attribute `attr` as a
// DeserializeException whose context is `attr`.
[[noreturn]] QEL_EXPORT void rethrowFromDeserializeAttr(const Exception& cause, const char* attr);

template <class T>
void deserializeAttr(StrepIt& it, const StrepIt& end, T* out, const char* attr) {
  try {
    strepToValue(it, end, out);
  } catch (const RangeException& e) {
    rethrowFromDeserializeAttr(e, attr);
  }
}

// After a whole text form has been read: only blanks may remain.
QEL_EXPORT void strepToValueEnd(StrepIt& it, const StrepIt& end);

// A text that names an object of the wrong type.
[[noreturn]] QEL_EXPORT void cannotConvert(const String& text, const char* typeName);

// Parses a whole text as a T: the reader followed by strepToValueEnd.
template <class T>
T strepToValue(const String& text) {
  StrepIt it = text.begin();
  T value{};
  strepToValue(it, text.end(), &value);
  strepToValueEnd(it, text.end());
  return value;
}

}  // namespace Qel

#endif  // QEL_STREP_H
