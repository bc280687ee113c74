// Framework exceptions. Each carries its message, an identifier bit mask
// naming its kind, and a flag that the framework's error handling reads.
#ifndef QEL_EXCEPTION_H
#define QEL_EXCEPTION_H

#include <cstdint>
#include <exception>
#include <utility>

#include "qel/Export.h"
#include "qel/String.h"

namespace Qel {

class QEL_EXPORT Exception : public std::exception {
 public:
  Exception(String message, std::uint32_t identifierMask = 0, bool flag = false);
  ~Exception() override;
  const char* what() const noexcept override { return message_.c_str(); }
  const String& message() const noexcept { return message_; }
  std::uint32_t identifierMask() const noexcept { return identifierMask_; }
  bool flag() const noexcept { return flag_; }

 private:
  String message_;
  std::uint32_t identifierMask_;
  bool flag_;
};

// An index, pointer or value outside what an operation accepts.
class QEL_EXPORT RangeException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x1000;
  explicit RangeException(String message) : Exception(std::move(message), kIdentifierMask, true) {}
  ~RangeException() override;
};

// An entity asked for again under its name with different parameters.
class QEL_EXPORT NameInUseException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x2000;
  explicit NameInUseException(String message)
      : Exception(std::move(message), kIdentifierMask, true) {}
  ~NameInUseException() override;
};

// A text form that does not parse. context() names what was being read (an
// attribute name, or the literal that was expected).
class QEL_EXPORT DeserializeException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x4000;
  DeserializeException(String message, String context);
  ~DeserializeException() override;
  const String& context() const noexcept { return context_; }

 private:
  String context_;
};

// A broken framework invariant detected at run time (never a user error).
class QEL_EXPORT InternalException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x8000;
  explicit InternalException(String message)
      : Exception(std::move(message), kIdentifierMask, false) {}
  ~InternalException() override;
};

// User code changed an entity that is a read-only copy of another
// process's entity.
class QEL_EXPORT ReadOnlyException : public Exception {
 public:
  static constexpr std::uint32_t kIdentifierMask = 0x10000;
  explicit ReadOnlyException(String message)
      : Exception(std::move(message), kIdentifierMask, true) {}
  ~ReadOnlyException() override;
};

[[noreturn]] QEL_EXPORT void throwRangeException(const String& message);
[[noreturn]] QEL_EXPORT void throwNameInUseException(const String& message);

}  // namespace Qel

#endif  // QEL_EXCEPTION_H
