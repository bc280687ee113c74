// RapidJSON as the tool uses it: the tool checks every value's type before
// reading it, so a failed RapidJSON check is a bug in the tool; it stops
// with the condition rather than read on.
#ifndef KRONLOG_TOOLS_JSON_H
#define KRONLOG_TOOLS_JSON_H

#include <cstdio>
#include <cstdlib>

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through tools/Json.h"
#endif
#define RAPIDJSON_ASSERT(condition) \
  ((condition)                      \
       ? static_cast<void>(0)       \
       : (std::fprintf(stderr, "kronlog: internal check failed: %s\n", #condition), std::abort()))

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Json {
using Buffer = rapidjson::StringBuffer;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
}  // namespace Json

#endif  // KRONLOG_TOOLS_JSON_H
