#include "tools/StoreView.h"

#include <algorithm>

namespace KronlogTool {

namespace {

bool compileAll(const std::vector<std::string>& patterns, const char* option, bool icase,
                std::vector<KronlogReader::Pattern>* out, std::string* error) {
  auto flags = std::regex::ECMAScript;
  if (icase) flags |= std::regex::icase;
  for (const std::string& p : patterns) {
    try {
      out->emplace_back(p, flags);
    } catch (const std::regex_error& e) {
      *error = std::string("bad ") + option + " pattern '" + p + "': " + e.what();
      return false;
    }
  }
  return true;
}

bool anyMatchesWhole(const std::vector<KronlogReader::Pattern>& patterns, const Qel::String& name) {
  if (patterns.empty()) return true;  // no pattern: every name, line feeds and all
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const KronlogReader::Pattern& p) { return p.matchesWhole(name.view()); });
}

}  // namespace

bool EntryFilter::compile(const Filter& filter, std::string* error) {
  since_ = filter.since;
  until_ = filter.until;
  std::vector<std::string> grep;
  if (!filter.grep.empty()) grep.push_back(filter.grep);
  return compileAll(filter.agents, "--agent", filter.caseInsensitive, &agents_, error) &&
         compileAll(filter.groups, "--group", filter.caseInsensitive, &groups_, error) &&
         compileAll(grep, "--grep", filter.caseInsensitive, &grep_, error);
}

bool EntryFilter::keeps(const KronlogReader::LogEntry& e) const {
  if (!(e.timestamp() >= since_ && e.timestamp() <= until_)) return false;
  if (!anyMatchesWhole(agents_, e.agentName()) || !anyMatchesWhole(groups_, e.messageGroup())) {
    return false;
  }
  if (grep_.empty()) return true;
  return grep_.front().foundIn(e.message().view());
}

LoadedStore loadStore(const std::string& path) {
  LoadedStore store;
  store.name = path;
  store.reading = path == "-"
                      ? KronlogStore::readStoreDescriptor(0, "standard input", *store.entries)
                      : KronlogStore::readStoreFile(path, *store.entries);
  return store;
}

std::vector<KronlogReader::LogEntry::Ptr> mergeStores(const std::vector<LoadedStore>& stores,
                                                      const EntryFilter& filter) {
  std::vector<KronlogReader::LogEntry::Ptr> merged;
  for (const LoadedStore& store : stores) {
    if (store.reading.fatalCheck()) continue;
    for (auto it = store.entries->logIterConst(); it; ++it) {
      if (filter.keeps(*it->value())) merged.push_back(it->value());
    }
  }
  std::stable_sort(
      merged.begin(), merged.end(),
      [](const KronlogReader::LogEntry::Ptr& a, const KronlogReader::LogEntry::Ptr& b) {
        return a->timestamp() < b->timestamp();
      });
  return merged;
}

void limitAndOrder(std::vector<KronlogReader::LogEntry::Ptr>* entries, long long lines,
                   bool reverse) {
  if (lines >= 0 && static_cast<unsigned long long>(lines) < entries->size()) {
    entries->erase(entries->begin(), entries->end() - lines);
  }
  if (reverse) std::reverse(entries->begin(), entries->end());
}

}  // namespace KronlogTool
