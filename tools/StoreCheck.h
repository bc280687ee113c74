// Validation of a store file without ending the process: everything the
// library's restore would assert on, or silently drop, is found here first
// and reported in words.
#ifndef KRONLOG_TOOLS_STORECHECK_H
#define KRONLOG_TOOLS_STORECHECK_H

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace KronlogTool {

struct StoreCheck {
  // The file could not be read at all.
  bool unreadable = false;
  // Restoring would end the process (a failed JSON shape check).
  bool fatal = false;
  // Restoring would complete but drop entries.
  bool lossy = false;
  std::vector<std::string> problems;  // why fatal or lossy
  std::vector<std::string> warnings;  // restorable, but worth knowing
  std::size_t elements = 0;           // event objects in the file
  std::size_t entries = 0;            // entries a restore would append
  std::map<std::pair<std::string, std::string>, std::size_t> perGroup;  // (agent, group) -> n

  bool restorable() const { return !unreadable && !fatal && !lossy; }
};

StoreCheck checkStoreFile(const std::string& path);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_STORECHECK_H
