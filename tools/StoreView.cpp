#include "tools/StoreView.h"

#include <stdlib.h>

#include <limits>
#include <map>

#include "kronlog/KronlogStore.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"

namespace KronlogTool {

Filter::Filter()
    : minTimestamp(-std::numeric_limits<double>::infinity()),
      maxTimestamp(std::numeric_limits<double>::infinity()) {}

KronlogReader::Status::Ptr loadStore(const std::string& path) {
  // The store drivers take their path from the environment.
  const char* previous = ::getenv("KRONLOG_STORE_FILE_PATH");
  std::string saved = previous ? previous : "";
  ::setenv("KRONLOG_STORE_FILE_PATH", path.c_str(), 1);
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogStore::jsonStoreFactory(status)->doRestore();
  if (previous) {
    ::setenv("KRONLOG_STORE_FILE_PATH", saved.c_str(), 1);
  } else {
    ::unsetenv("KRONLOG_STORE_FILE_PATH");
  }
  return status;
}

KronlogReader::Status::Ptr mergeStore(const KronlogReader::Status& loaded, const Filter& filter) {
  Qel::Dir::Ptr agents = Qel::dirFactory("store");
  std::map<std::string, KronlogWriter::WriterDir::Ptr> byName;
  // Unbounded writers: the store's entries are all kept, whatever the sizes
  // of the writers that recorded them.
  const KronlogWriter::Config unbounded(std::numeric_limits<unsigned int>::max(),
                                        KronlogWriter::keepLastEntries);
  for (auto it = loaded.logIterConst(); it; ++it) {
    const KronlogReader::LogEntry& e = *it->value();
    KronlogWriter::WriterDir::Ptr& dir = byName[e.agentName().stdString()];
    if (!dir) {
      dir = KronlogWriter::writerDirFactory(e.agentName());
      agents->entityIs(dir);
    }
    dir->writerIs(e.messageGroup(), unbounded)
        ->logEnq(KronlogWriter::LogEntry(e.timestamp(), e.message()));
  }
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents);
  config->agentPatternIs(filter.agentPattern);
  config->messageGroupPatternIs(filter.messageGroupPattern);
  config->minTimestampIs(filter.minTimestamp);
  config->maxTimestampIs(filter.maxTimestamp);
  KronlogReader::Status::Ptr merged = KronlogReader::statusFactory();
  KronlogReader::readerFactory(config, merged);
  return merged;
}

}  // namespace KronlogTool
