// Reading stores as the library reads them, and choosing and ordering their
// entries for show: several stores merged by timestamp, filtered by name
// patterns (whole-name match, as the library's reader does), a message
// pattern and a time window.
#ifndef KRONLOG_TOOLS_STOREVIEW_H
#define KRONLOG_TOOLS_STOREVIEW_H

#include <limits>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/StoreReading.h"

namespace KronlogTool {

struct Filter {
  std::vector<std::string> agents;  // keep agents whose whole name matches any; none: all
  std::vector<std::string> groups;  // the same for message groups
  std::string grep;                 // keep messages with a match anywhere; empty: all
  bool caseInsensitive = false;     // for all three kinds of pattern
  double since = -std::numeric_limits<double>::infinity();  // both ends included
  double until = std::numeric_limits<double>::infinity();
};

class EntryFilter {
 public:
  // False, with `error` naming the option and the pattern, for a pattern
  // that does not compile.
  bool compile(const Filter& filter, std::string* error);
  bool keeps(const KronlogReader::LogEntry& entry) const;

 private:
  std::vector<KronlogReader::Pattern> agents_, groups_;
  std::vector<KronlogReader::Pattern> grep_;  // none or one
  double since_ = -std::numeric_limits<double>::infinity();
  double until_ = std::numeric_limits<double>::infinity();
};

struct LoadedStore {
  std::string name;  // the path as given; "-" for standard input
  KronlogReader::Status::Ptr entries = KronlogReader::statusFactory();
  KronlogStore::StoreReading reading;
};

// Reads the store at `path` once, or standard input for "-".
LoadedStore loadStore(const std::string& path);

// The entries of every store that `filter` keeps, oldest first; equal
// timestamps keep the order of the stores as given and, within one, the
// file's order. Stores whose reading would end a restore add nothing.
std::vector<KronlogReader::LogEntry::Ptr> mergeStores(const std::vector<LoadedStore>& stores,
                                                      const EntryFilter& filter);

// Keeps the last `lines` entries (all when `lines` is negative), then puts
// the newest first when `reverse`.
void limitAndOrder(std::vector<KronlogReader::LogEntry::Ptr>* entries, long long lines,
                   bool reverse);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_STOREVIEW_H
