// The JSON object of one entry, written in one place for the store file and
// for the tool's output.
#ifndef KRONLOG_PERSISTENCE_ENTRYJSON_H
#define KRONLOG_PERSISTENCE_ENTRYJSON_H

#include <string_view>

#include "kronlog/KronlogReader.h"
#include "persistence/Json.h"

namespace KronlogStore {

enum class TextForm {
  // The store's form: each text up to its first NUL, its bytes as they are.
  stored,
  // Lossless and always valid JSON: a text that is valid UTF-8 is a string
  // (a NUL written \u0000); any other text is an array of its byte values.
  lossless,
};

// {"timestamp":...,"agentName":...,"messageGroup":...,"message":...}, the
// timestamp in the shortest form that reads back to the same double.
void writeEntryJson(Json::Writer& writer, const KronlogReader::LogEntry& entry, TextForm form);

// Whether `text` is well-formed UTF-8: shortest forms only, no surrogates,
// nothing above U+10FFFF.
bool isUtf8(std::string_view text) noexcept;

}  // namespace KronlogStore

#endif  // KRONLOG_PERSISTENCE_ENTRYJSON_H
