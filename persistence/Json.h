// RapidJSON as the store uses it. Its checks stay on in every build type:
// a store file whose JSON has the wrong shape must end the process with the
// failed condition ("IsObject()", "IsArray()", "IsString()", "IsNumber()"),
// never be read on silently. Every file of the library includes RapidJSON
// through this header only, so the checks are the same everywhere.
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
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Json {
using Buffer = rapidjson::StringBuffer;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using Document = rapidjson::Document;
using Value = rapidjson::Value;
}  // namespace Json

#endif  // KRONLOG_PERSISTENCE_JSON_H
