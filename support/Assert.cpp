#include "support/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kronlog {

void assertionFailed(const char* condition, const char* file, int line,
                     const char* function) noexcept {
  // The same shape as the C library's assert message, so that tooling and
  // operators recognise it.
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kronlog
