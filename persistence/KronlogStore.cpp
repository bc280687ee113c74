#include "kronlog/KronlogStore.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "persistence/AtomicFile.h"
#include "persistence/EntryJson.h"
#include "persistence/Json.h"
#include "persistence/StoreReader.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "support/Assert.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogStore {

// Text constants of the file format, built once when the library loads.
const std::string kPathVariable = "KRONLOG_STORE_FILE_PATH";
const std::string kFormatPrefix = "FORMAT: ";
const std::string kVersionPrefix = "VERSION: ";
const std::string kTopKey = "Kronlog";

namespace {

constexpr char kFile[] = "KronlogStore";

const char kStoreDoStore[] = "virtual void KronlogStore::Store::doStore()";
const char kStoreDoRestore[] = "virtual void KronlogStore::Store::doRestore()";
const char kJsonDoStore[] = "virtual void KronlogStore::JsonStore::doStore()";
const char kJsonDoRestore[] = "virtual void KronlogStore::JsonStore::doRestore()";

// The path rule of storeFilePath(), as the store operations use it: the
// result points into the environment or into `defaultPath`, which the
// caller keeps alive.
const char* getStoreFilePath(const Qel::String& defaultPath) {
  const char* path = std::getenv(kPathVariable.c_str());
  if (!path) path = defaultPath.c_str();
  KRONLOG_TRACE(1, kFile, 33, "getStoreFilePath",
                << "const char* KronlogStore::getStoreFilePath(Qel::String)"
                << " KRONLOG storeFilePath=" << path);
  return path;
}

}  // namespace

std::string storeFilePath() {
  const char* path = std::getenv(kPathVariable.c_str());
  return path ? std::string(path) : Store::klStoreFile().stdString();
}

// ---- Store

QEL_TRACKED_ALLOCATION_DEFINE(Store, "KronlogStore::Store")

Store::Store(Qel::Ptr<KronlogReader::Status> const& events) : events_(events) {}

Store::~Store() = default;

const Qel::String& Store::klStoreFile() {
  static const Qel::String* value = new Qel::String("/mnt/flash/kronlog-persistent-store");
  return *value;
}

QEL_FWK_TYPE_DEFINE(Store, "KronlogStore::Store")

void Store::doStore() {
  KRONLOG_TRACE(0, kFile, 40, "doStore", << kStoreDoStore);
  KRONLOG_ASSERT(false, "false && \"not implemented!\"");
}

void Store::doRestore() {
  KRONLOG_TRACE(0, kFile, 46, "doRestore", << kStoreDoRestore);
}

Store::Ptr storeFactory(Qel::Ptr<KronlogReader::Status> const& events) {
  return Store::Ptr(new Store(events));
}

// ---- JsonStore

QEL_TRACKED_ALLOCATION_DEFINE(JsonStore, "KronlogStore::JsonStore")

JsonStore::JsonStore(Qel::Ptr<KronlogReader::Status> const& events) : Store(events) {}

JsonStore::~JsonStore() = default;

const Qel::String& JsonStore::storeFormat() {
  static const Qel::String* value = new Qel::String("JSON");
  return *value;
}

const Qel::String& JsonStore::storeVersion() {
  static const Qel::String* value = new Qel::String("1");
  return *value;
}

QEL_FWK_TYPE_DEFINE(JsonStore, "KronlogStore::JsonStore")

JsonStore::Ptr jsonStoreFactory(Qel::Ptr<KronlogReader::Status> const& events) {
  return JsonStore::Ptr(new JsonStore(events));
}

void JsonStore::doStore() {
  KRONLOG_TRACE(0, kFile, 51, "doStore", << kJsonDoStore);
  const Qel::String defaultPath = klStoreFile();
  const char* path = getStoreFilePath(defaultPath);
  Kronlog::AtomicFile file;
  if (!file.open(path)) {
    KRONLOG_TRACE(0, kFile, 57, "doStore", << kJsonDoStore << " Could not open " << path);
    return;
  }
  const KronlogReader::Status& status = *events();
  KRONLOG_TRACE(1, kFile, 62, "doStore", << kJsonDoStore << " FORMAT: " << storeFormat());
  KRONLOG_TRACE(1, kFile, 63, "doStore", << kJsonDoStore << " VERSION: " << storeVersion());
  KRONLOG_TRACE(1, kFile, 64, "doStore", << kJsonDoStore << " Event to store: " << status.logs());

  // The header lines go first into the buffer the JSON is written to, so
  // that the whole content is written from one piece, never copied.
  Json::Buffer buffer;
  for (const std::string_view part :
       {std::string_view(kFormatPrefix), storeFormat().view(), std::string_view("\n"),
        std::string_view(kVersionPrefix), storeVersion().view(), std::string_view("\n")}) {
    std::memcpy(buffer.Push(part.size()), part.data(), part.size());
  }
  Json::Writer writer(buffer);
  writer.StartObject();
  writer.Key(kTopKey.c_str());
  writer.StartArray();
  for (KronlogReader::Status::LogIteratorConst it = status.logIterConst(); it; ++it) {
    // The entry under the iterator is the one its index names; looking it
    // up by index instead walks the log from the head, for every entry.
    const KronlogReader::LogEntry::Ptr& entry = it->value();
    if (!std::isfinite(entry->timestamp())) {
      // JSON has no form for it, and a file holding one could not be read
      // back: leave the entry out rather than break the store.
      KRONLOG_TRACE(0, kFile, 65, "doStore",
                    << kJsonDoStore << " Skipping an entry with a non-finite timestamp, agentName: "
                    << entry->agentName() << " messageGroup: " << entry->messageGroup());
      continue;
    }
    writeEntryJson(writer, *entry, TextForm::stored);
  }
  writer.EndArray();
  writer.EndObject();
  buffer.Put('\n');

  if (!file.commit(std::string_view(buffer.GetString(), buffer.GetSize()))) {
    KRONLOG_TRACE(0, kFile, 70, "doStore", << kJsonDoStore << " Could not write " << path << ": "
                                           << file.error() << "; the previous store is kept");
  }
}

void JsonStore::doRestore() {
  KRONLOG_TRACE(0, kFile, 96, "doRestore", << kJsonDoRestore);
  const Qel::String defaultPath = klStoreFile();
  const char* path = getStoreFilePath(defaultPath);
  // Read whole and once: the path may name a FIFO or a device.
  std::string bytes;
  bool opened = false;
  const int error = readWholeFile(path, &bytes, &opened);
  if (!opened) {
    KRONLOG_TRACE(0, kFile, 102, "doRestore", << kJsonDoRestore << " Could not open " << path);
    return;
  }
  if (error != 0) {
    // What was read before the failure is a cut-off document: parsed, it
    // would end the process as a malformed store would. An unreadable store
    // is a traced refusal, like one that cannot be opened.
    KRONLOG_TRACE(0, kFile, 103, "doRestore",
                  << kJsonDoRestore << " Could not read " << path << ": " << std::strerror(error));
    return;
  }
  const StoreReading reading = readStoreBytes(bytes, *events(), Tracing::asRestore);
  // A store of the wrong JSON shape is fatal on purpose: the process ends in
  // the check the JSON library's accessor would have failed.
  if (const char* check = reading.fatalCheck()) {
    Kronlog::assertionFailed(check, __FILE__, __LINE__, __func__);
  }
}

// ---- Registration, in load order: JsonStore, Store.

namespace {

const bool registered = [] {
  using Qel::PtrInterface;
  using Qel::TypeNode;
  Qel::Ptr<TypeNode> store(new TypeNode("KronlogStore::Store", TypeNode::Kind::entity));
  store->constantIs("klStoreFile", Store::klStoreFile())
      .operationIs("doStore", [](PtrInterface& o) { static_cast<Store&>(o).doStore(); })
      .operationIs("doRestore", [](PtrInterface& o) { static_cast<Store&>(o).doRestore(); });
  Qel::Ptr<TypeNode> json(
      new TypeNode("KronlogStore::JsonStore", TypeNode::Kind::entity, store.ptr()));
  json->constantIs("storeFormat", JsonStore::storeFormat())
      .constantIs("storeVersion", JsonStore::storeVersion());
  Qel::typeNodeIs(json);
  Qel::typeNodeIs(store);
  return true;
}();

}  // namespace

}  // namespace KronlogStore
