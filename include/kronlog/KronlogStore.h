// The store drivers: move a reader status's log to and from the store file.
//
// The file (default "/mnt/flash/kronlog-persistent-store", overridden by
// the environment variable KRONLOG_STORE_FILE_PATH, read at every call) is
// three LF-terminated lines:
//   FORMAT: JSON
//   VERSION: 1
//   {"Kronlog":[{"timestamp":1700000000.25,"agentName":"Bgp",
//                "messageGroup":"peer","message":"link down"}]}
// (the JSON on one line). Both operations report only through traces.
// readStore (kronlog/StoreReading.h) reads a store without ending the
// process, and says what a restore would make of it.
#ifndef KRONLOG_KRONLOGSTORE_H
#define KRONLOG_KRONLOGSTORE_H

#include <string>

#include "kronlog/Export.h"
#include "kronlog/KronlogReader.h"
#include "kronlog/StoreReading.h"
#include "qel/Allocator.h"
#include "qel/Ptr.h"
#include "qel/String.h"

namespace KronlogStore {

// The abstract driver. Create it over a status, call one operation, drop it.
class KRONLOG_EXPORT Store : public Qel::PtrInterface {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Store>;

  explicit Store(Qel::Ptr<KronlogReader::Status> const& events);

  // The status whose log is stored, or to whose log restored entries go.
  const Qel::Ptr<KronlogReader::Status>& events() const noexcept { return events_; }
  // The default path of the store file.
  static const Qel::String& klStoreFile();

  const Qel::TypeNode* fwkType() const override;
  ~Store() override;
  // Storing through the abstract driver is a programming error: it traces
  // and ends the process.
  virtual void doStore();
  // Traces and does nothing.
  virtual void doRestore();

 private:
  Qel::Ptr<KronlogReader::Status> events_;
};

// The JSON driver.
class KRONLOG_EXPORT JsonStore : public Store {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<JsonStore>;

  explicit JsonStore(Qel::Ptr<KronlogReader::Status> const& events);

  static const Qel::String& storeFormat();   // "JSON"
  static const Qel::String& storeVersion();  // "1"

  const Qel::TypeNode* fwkType() const override;
  ~JsonStore() override;
  // Writes the whole log, oldest first, replacing the file. The new content
  // goes to a temporary file in the same directory that is synced and then
  // renamed over the store, so a crash leaves the old file or the new one,
  // never a mix; a path naming something other than a regular file (a
  // device, a FIFO, a symbolic link) is written in place.
  void doStore() override;
  // Appends the file's entries to the log. A store whose JSON is malformed
  // in structure ends the process (the failed check is printed): such a
  // file is treated as fatal.
  void doRestore() override;
};

// The path both store operations use, by the one rule: the value of the
// environment variable KRONLOG_STORE_FILE_PATH when it is set (even to the
// empty string, which no file has), else Store::klStoreFile(). Read anew at
// every call.
KRONLOG_EXPORT std::string storeFilePath();

// One entry as a compact JSON object, members in the store's order:
//   {"timestamp":1700000000.25,"agentName":"Bgp","messageGroup":"peer","message":"up"}
// The timestamp reads back to the same double. A text that is valid UTF-8
// is a JSON string (a NUL in it written \u0000); any other text is an array
// of its byte values, [98,255,...], so the output is always valid JSON and
// loses nothing.
KRONLOG_EXPORT std::string entryJson(const KronlogReader::LogEntry& entry);
// One text as entryJson writes it: a JSON string, or an array of bytes.
KRONLOG_EXPORT std::string textJson(const Qel::String& text);

// Never null: a failed allocation throws std::bad_alloc.
KRONLOG_EXPORT Store::Ptr storeFactory(Qel::Ptr<KronlogReader::Status> const& events);
KRONLOG_EXPORT JsonStore::Ptr jsonStoreFactory(Qel::Ptr<KronlogReader::Status> const& events);

}  // namespace KronlogStore

#endif  // KRONLOG_KRONLOGSTORE_H
