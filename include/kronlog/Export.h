// Symbol visibility for libkronlog: hidden by default, KRONLOG_EXPORT marks
// the public API.
#ifndef KRONLOG_EXPORT_H
#define KRONLOG_EXPORT_H

#if defined(KRONLOG_STATIC)
#define KRONLOG_EXPORT
#else
#define KRONLOG_EXPORT __attribute__((visibility("default")))
#endif

#endif  // KRONLOG_EXPORT_H
