// Reading a whole store file and merging it through the library's reader.
#ifndef KRONLOG_TOOLS_STOREVIEW_H
#define KRONLOG_TOOLS_STOREVIEW_H

#include <string>

#include "kronlog/KronlogReader.h"

namespace KronlogTool {

struct Filter {
  std::string agentPattern = ".*";
  std::string messageGroupPattern = ".*";
  double minTimestamp;  // -infinity by default: show everything stored
  double maxTimestamp;  // +infinity
  Filter();
};

// Loads every entry of the store at `path` with the library's JSON store.
// The file must have passed checkStoreFile first (a malformed one would
// end the process).
KronlogReader::Status::Ptr loadStore(const std::string& path);

// Puts the loaded entries back into in-memory writer directories (one per
// agent, one writer per group, unbounded) and runs the library's reader over
// them, so that filtering and merging are exactly the reader's. Throws
// std::regex_error for a malformed pattern.
KronlogReader::Status::Ptr mergeStore(const KronlogReader::Status& loaded, const Filter& filter);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_STOREVIEW_H
