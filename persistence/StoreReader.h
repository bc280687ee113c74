// The one reader of store files, behind both JsonStore::doRestore and the
// exported readStore: it splits the header lines from the JSON part, parses
// that once to check its syntax and nesting, then walks it event by event
// as a restore does, appending what a restore appends.
#ifndef KRONLOG_PERSISTENCE_STOREREADER_H
#define KRONLOG_PERSISTENCE_STOREREADER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "kronlog/KronlogReader.h"
#include "kronlog/StoreReading.h"

namespace KronlogStore {

// Text constants of the file format, built once when the library loads
// (defined with the store driver).
extern const std::string kPathVariable;
extern const std::string kFormatPrefix;
extern const std::string kVersionPrefix;
extern const std::string kTopKey;

// Deeper JSON is refused as malformed: the store itself nests three deep,
// and a limit keeps a hostile file from exhausting memory or stack.
constexpr std::size_t kMaxJsonDepth = 1000;

// asRestore: emit JsonStore::doRestore's traces as the reading goes.
enum class Tracing { off, asRestore };

StoreReading readStoreBytes(std::string_view bytes, KronlogReader::Status& into, Tracing tracing);

// Reads the whole file at `path` into `bytes`, once, front to back. Returns
// 0, or the errno of the failed open (`opened` false) or read (`opened`
// true; what was read before stays in `bytes`).
int readWholeFile(const char* path, std::string* bytes, bool* opened);

}  // namespace KronlogStore

#endif  // KRONLOG_PERSISTENCE_STOREREADER_H
