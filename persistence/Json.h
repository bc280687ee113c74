// RapidJSON as the whole tree uses it: this is its one configuration, and
// every file that needs RapidJSON includes it through this header only.
// The library's checks stay on in every build type: a failed one ends the
// process with the condition ("IsObject()", ...) rather than read on.
#ifndef KRONLOG_PERSISTENCE_JSON_H
#define KRONLOG_PERSISTENCE_JSON_H

#include "support/Assert.h"

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through persistence/Json.h"
#endif
#define RAPIDJSON_ASSERT(condition)   \
  ((condition) ? static_cast<void>(0) \
               : ::Kronlog::assertionFailed(#condition, __FILE__, __LINE__, __func__))

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Json {
using Buffer = rapidjson::StringBuffer;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using Reader = rapidjson::Reader;
using Document = rapidjson::Document;
using Value = rapidjson::Value;
using SizeType = rapidjson::SizeType;
}  // namespace Json

#endif  // KRONLOG_PERSISTENCE_JSON_H
