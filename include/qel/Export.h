// Symbol visibility for libqel. Everything is hidden by default; only what is
// marked QEL_EXPORT forms the library's ABI.
#ifndef QEL_EXPORT_H
#define QEL_EXPORT_H

#if defined(QEL_STATIC)
#define QEL_EXPORT
#elif defined(QEL_BUILDING)
#define QEL_EXPORT __attribute__((visibility("default")))
#else
#define QEL_EXPORT __attribute__((visibility("default")))
#endif

#endif  // QEL_EXPORT_H
