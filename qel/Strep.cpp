#include "qel/Strep.h"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "qel/Entity.h"
#include "qel/Type.h"

namespace Qel {

namespace {

// A short, printable excerpt of what was found, for error messages.
std::string excerpt(StrepIt it, StrepIt end) {
  std::size_t n = static_cast<std::size_t>(end - it);
  if (n == 0) return "end of text";
  std::string s = "\"";
  for (std::size_t i = 0; i < n && i < 24; ++i) {
    unsigned char c = static_cast<unsigned char>(it[i]);
    if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      s += buf;
    } else {
      s += static_cast<char>(c);
    }
  }
  if (n > 24) s += "...";
  return s + "\"";
}

[[noreturn]] void malformed(const char* what, StrepIt it, StrepIt end) {
  throw RangeException(String(std::string("expected ") + what + " at " + excerpt(it, end)));
}

bool isIdentStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isIdentChar(char c) {
  return isIdentStart(c) || (c >= '0' && c <= '9');
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

String valueToStrep(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf - 3, value);
  std::size_t n = static_cast<std::size_t>(r.ptr - buf);
  // A bare integer would read back as an unsigned elsewhere in a text form;
  // the fraction marks the value as a double.
  if (std::memchr(buf, '.', n) == nullptr && std::memchr(buf, 'e', n) == nullptr) {
    buf[n++] = '.';
    buf[n++] = '0';
  }
  return String(buf, n);
}

String valueToStrep(unsigned int value) {
  char buf[16];
  auto r = std::to_chars(buf, buf + sizeof buf, value);
  return String(buf, static_cast<std::size_t>(r.ptr - buf));
}

String valueToStrep(bool value) {
  return value ? "true" : "false";
}

String valueToStrep(const String& value) {
  std::string out;
  out.reserve(value.size() + 2);
  out += '\'';
  for (char ch : value.view()) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\'':
        out += "\\'";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        } else {
          out += ch;
        }
    }
  }
  out += '\'';
  return String(out);
}

String valueToStrep(const char* value) {
  return valueToStrep(String(value));
}

String valueTypeStrep(const char* typeName,
                      std::initializer_list<std::pair<const char*, String>> fields) {
  std::string s = "Value('";
  s += typeName;
  s += "', ** {";
  const char* separator = "";
  for (const auto& field : fields) {
    s += separator;
    s += '\'';
    s += field.first;
    s += "': ";
    s += field.second.view();
    separator = ", ";
  }
  s += "})";
  return String(s);
}

String valueToStrepOfRawPtr(const PtrInterface* value) {
  if (!value) return "None";
  const TypeNode* type = value->fwkType();
  char buf[32];
  std::snprintf(buf, sizeof buf, "%" PRIxPTR, reinterpret_cast<std::uintptr_t>(value));
  std::string s = "<";
  s += type ? type->name().stdString() : std::string("Qel::PtrInterface");
  s += " at 0x";
  s += buf;
  s += ">";
  return String(s);
}

void strepToValue(StrepIt& it, const StrepIt& end, double* out) {
  StrepIt p = it;
  bool negative = p != end && *p == '-';
  StrepIt q = negative ? p + 1 : p;
  auto word = [&](const char* w) {
    std::size_t n = std::strlen(w);
    return static_cast<std::size_t>(end - q) >= n && std::memcmp(q, w, n) == 0 &&
           (q + n == end || !isIdentChar(q[n]));
  };
  if (word("nan")) {
    *out = std::nan("");
    it = q + 3;
    return;
  }
  if (word("inf")) {
    *out = negative ? -HUGE_VAL : HUGE_VAL;
    it = q + 3;
    return;
  }
  // from_chars takes no leading '+' and no blanks: exactly the printed form.
  double v = 0;
  auto r = std::from_chars(p, end, v, std::chars_format::general);
  if (r.ec == std::errc::invalid_argument) malformed("a number", it, end);
  if (r.ec == std::errc::result_out_of_range) malformed("a number in range", it, end);
  *out = v;
  it = r.ptr;
}

void strepToValue(StrepIt& it, const StrepIt& end, unsigned int* out) {
  unsigned int v = 0;
  auto r = std::from_chars(it, end, v, 10);
  if (r.ec == std::errc::invalid_argument) malformed("an unsigned number", it, end);
  if (r.ec == std::errc::result_out_of_range) malformed("an unsigned number below 2^32", it, end);
  *out = v;
  it = r.ptr;
}

void strepToValue(StrepIt& it, const StrepIt& end, bool* out) {
  String word = strepToIdentifier(it, end);
  if (word == "true") {
    *out = true;
  } else if (word == "false") {
    *out = false;
  } else {
    throw RangeException(String("expected true or false, found \"" + word.stdString() + "\""));
  }
}

void strepToValue(StrepIt& it, const StrepIt& end, String* out) {
  if (it == end || *it != '\'') malformed("a quoted string", it, end);
  std::string s;
  StrepIt p = it + 1;
  for (;;) {
    if (p == end) malformed("a closing quote", it, end);
    char c = *p++;
    if (c == '\'') break;
    if (c != '\\') {
      s += c;
      continue;
    }
    if (p == end) malformed("an escape", p, end);
    char e = *p++;
    switch (e) {
      case '\\':
        s += '\\';
        break;
      case '\'':
        s += '\'';
        break;
      case '"':
        s += '"';
        break;
      case 'n':
        s += '\n';
        break;
      case 'r':
        s += '\r';
        break;
      case 't':
        s += '\t';
        break;
      case '0':
        s += '\0';
        break;
      case 'x': {
        int hi = p != end ? hexDigit(p[0]) : -1;
        int lo = end - p >= 2 ? hexDigit(p[1]) : -1;
        if (hi < 0 || lo < 0) malformed("two hex digits after \\x", p, end);
        s += static_cast<char>(hi * 16 + lo);
        p += 2;
        break;
      }
      default:
        malformed("a known escape", p - 2, end);
    }
  }
  *out = String(s);
  it = p;
}

void strepToRawPtr(StrepIt& it, const StrepIt& end, PtrInterface** out) {
  static const char kNone[] = "None";
  if (static_cast<std::size_t>(end - it) >= 4 && std::memcmp(it, kNone, 4) == 0 &&
      (end - it == 4 || !isIdentChar(it[4]))) {
    *out = nullptr;
    it += 4;
    return;
  }
  if (it == end || *it != '<') malformed("None or a pointer form", it, end);
  StrepIt p = it + 1;
  StrepIt nameBegin = p;
  while (p != end && *p != ' ' && *p != '>') ++p;
  std::string typeName(nameBegin, p);
  // Not needString, which raises DeserializeException: malformed text is a
  // RangeException here, as in every other reader.
  static const char kAt[] = " at 0x";
  const std::size_t atSize = sizeof kAt - 1;
  if (static_cast<std::size_t>(end - p) < atSize || std::memcmp(p, kAt, atSize) != 0) {
    malformed("\" at 0x\"", p, end);
  }
  StrepIt at = p + atSize;
  std::uintptr_t address = 0;
  auto r = std::from_chars(at, end, address, 16);
  if (r.ec != std::errc()) malformed("a hexadecimal address", at, end);
  p = r.ptr;
  if (p == end || *p != '>') malformed("'>'", p, end);
  // The text form names an object by its address; it is looked up among the
  // live entities before it is used, never dereferenced as it stands.
  PtrInterface* object = Entity::liveEntity(
      reinterpret_cast<const void*>(address));  // NOLINT(performance-no-int-to-ptr)
  if (!object) {
    throw RangeException(String("no live entity at 0x" + std::string(at, r.ptr)));
  }
  const TypeNode* type = object->fwkType();
  std::string actual = type ? type->name().stdString() : "Qel::PtrInterface";
  if (actual != typeName) {
    throw RangeException(String("entity at 0x" + std::string(at, r.ptr) + " is a " + actual +
                                ", not a " + typeName));
  }
  *out = object;
  it = p + 1;
}

String strepToIdentifier(StrepIt& it, const StrepIt& end) {
  if (it == end || !isIdentStart(*it)) malformed("a name", it, end);
  StrepIt p = it;
  while (p != end && isIdentChar(*p)) ++p;
  String word(it, static_cast<std::size_t>(p - it));
  it = p;
  return word;
}

void needString(StrepIt& it, const StrepIt& end, const char* literal) {
  std::size_t n = std::strlen(literal);
  if (static_cast<std::size_t>(end - it) < n || std::memcmp(it, literal, n) != 0) {
    throw DeserializeException(
        String("expected \"" + std::string(literal) + "\" at " + excerpt(it, end)), literal);
  }
  it += n;
}

void rethrowFromDeserializeAttr(const Exception& cause, const char* attr) {
  throw DeserializeException(
      String("cannot read attribute " + std::string(attr) + ": " + cause.message().stdString()),
      attr);
}

void strepToValueEnd(StrepIt& it, const StrepIt& end) {
  while (it != end && (*it == ' ' || *it == '\t' || *it == '\n' || *it == '\r')) ++it;
  if (it != end) {
    throw DeserializeException(String("unexpected text after the value: " + excerpt(it, end)),
                               "end");
  }
}

void cannotConvert(const String& text, const char* typeName) {
  throw DeserializeException(
      String("cannot convert " + text.stdString() + " to " + std::string(typeName)), typeName);
}

}  // namespace Qel
