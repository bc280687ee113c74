// Checks of the library's own invariants. Unlike assert(), they stay on in
// release builds: a broken invariant ends the process with the condition's
// text rather than letting the library go on with corrupt state.
#ifndef KRONLOG_SUPPORT_ASSERT_H
#define KRONLOG_SUPPORT_ASSERT_H

namespace Kronlog {
[[noreturn]] void assertionFailed(const char* condition, const char* file, int line,
                                  const char* function) noexcept;
}  // namespace Kronlog

#define KRONLOG_ASSERT(condition, text)                                               \
  do {                                                                                \
    if (!(condition)) ::Kronlog::assertionFailed(text, __FILE__, __LINE__, __func__); \
  } while (0)

#endif  // KRONLOG_SUPPORT_ASSERT_H
