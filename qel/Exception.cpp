#include "qel/Exception.h"

#include <utility>

namespace Qel {

Exception::Exception(String message, std::uint32_t identifierMask, bool flag)
    : message_(std::move(message)), identifierMask_(identifierMask), flag_(flag) {}
Exception::~Exception() = default;
RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;
InternalException::~InternalException() = default;
ReadOnlyException::~ReadOnlyException() = default;

DeserializeException::DeserializeException(String message, String context)
    : Exception(std::move(message), kIdentifierMask, true), context_(std::move(context)) {}
DeserializeException::~DeserializeException() = default;

void throwRangeException(const String& message) {
  throw RangeException(message);
}
void throwNameInUseException(const String& message) {
  throw NameInUseException(message);
}

}  // namespace Qel
