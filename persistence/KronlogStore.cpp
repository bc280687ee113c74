#include "kronlog/KronlogStore.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "persistence/AtomicFile.h"
#include "persistence/Json.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "support/Assert.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogStore {

namespace {

constexpr char kFile[] = "KronlogStore";

// Text constants of the file format, built once when the library loads.
const std::string kPathVariable = "KRONLOG_STORE_FILE_PATH";
const std::string kFormatPrefix = "FORMAT: ";
const std::string kVersionPrefix = "VERSION: ";
const std::string kTopKey = "Kronlog";

const char kStoreDoStore[] = "virtual void KronlogStore::Store::doStore()";
const char kStoreDoRestore[] = "virtual void KronlogStore::Store::doRestore()";
const char kJsonDoStore[] = "virtual void KronlogStore::JsonStore::doStore()";
const char kJsonDoRestore[] = "virtual void KronlogStore::JsonStore::doRestore()";

// The store file's path: the environment variable when it is set (even to
// the empty string, which then fails to open), else `defaultPath`. Read
// anew at every call. The result points into the environment or into
// `defaultPath`, which the caller keeps alive.
const char* getStoreFilePath(const Qel::String& defaultPath) {
  const char* path = std::getenv(kPathVariable.c_str());
  if (!path) path = defaultPath.c_str();
  KRONLOG_TRACE(1, kFile, 33, "getStoreFilePath",
                << "const char* KronlogStore::getStoreFilePath(Qel::String)"
                << " KRONLOG storeFilePath=" << path);
  return path;
}

bool nameIs(const Json::Value& name, const char* expected, std::size_t length) {
  return name.GetStringLength() == length && std::memcmp(name.GetString(), expected, length) == 0;
}

}  // namespace

// ---- Store

QEL_TRACKED_ALLOCATION_DEFINE(Store, "KronlogStore::Store")

Store::Store(Qel::Ptr<KronlogReader::Status> const& events) : events_(events) {}

Store::~Store() = default;

const Qel::String& Store::klStoreFile() {
  static const Qel::String* value = new Qel::String("/mnt/flash/kronlog-persistent-store");
  return *value;
}

const Qel::TypeNode* Store::fwkType() const {
  static const Qel::TypeNode* type = Qel::typeNode("KronlogStore::Store");
  return type;
}

void Store::doStore() {
  KRONLOG_TRACE(0, kFile, 40, "doStore", << kStoreDoStore);
  KRONLOG_ASSERT(false, "false && \"not implemented!\"");
}

void Store::doRestore() {
  KRONLOG_TRACE(0, kFile, 46, "doRestore", << kStoreDoRestore);
}

Store::Ptr storeFactory(Qel::Ptr<KronlogReader::Status> const& events) {
  Store::Ptr s(new Store(events));
  if (!s) Qel::throwRangeException("null ValidPtr");
  return s;
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

const Qel::TypeNode* JsonStore::fwkType() const {
  static const Qel::TypeNode* type = Qel::typeNode("KronlogStore::JsonStore");
  return type;
}

JsonStore::Ptr jsonStoreFactory(Qel::Ptr<KronlogReader::Status> const& events) {
  JsonStore::Ptr s(new JsonStore(events));
  if (!s) Qel::throwRangeException("null ValidPtr");
  return s;
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
    writer.StartObject();
    writer.Key("timestamp");
    writer.Double(entry->timestamp());
    writer.Key("agentName");
    writer.String(entry->agentName().c_str());  // cut at the first NUL
    writer.Key("messageGroup");
    writer.String(entry->messageGroup().c_str());
    writer.Key("message");
    writer.String(entry->message().c_str());
    writer.EndObject();
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
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    KRONLOG_TRACE(0, kFile, 102, "doRestore", << kJsonDoRestore << " Could not open " << path);
    return;
  }
  std::string format, version;
  std::getline(file, format);
  std::getline(file, version);
  // The prefixes are removed by length, without being compared.
  format.erase(0, kFormatPrefix.size());
  version.erase(0, kVersionPrefix.size());
  if (format != storeFormat().view()) {
    KRONLOG_TRACE(0, kFile, 115, "doRestore", << kJsonDoRestore << " store format error, expected: "
                                              << storeFormat() << " actual: " << format);
    return;
  }
  if (version != storeVersion().view()) {
    KRONLOG_TRACE(0, kFile, 120, "doRestore",
                  << kJsonDoRestore << " store version is different, reader: " << storeVersion()
                  << " store file: " << version);
  }
  // The remaining lines joined without separators: the rest of the file in
  // one piece, less its line feeds (reading it line by line copies every
  // byte twice more). Where the rest's size can be known (not for a FIFO or
  // a device), room for it is made first, so it is not copied as it grows.
  std::string json;
  if (const std::streampos here = file.tellg(); here != std::streampos(-1)) {
    if (file.seekg(0, std::ios::end) && file.tellg() > here) {
      json.reserve(static_cast<std::size_t>(file.tellg() - here));
    }
    file.clear();
    file.seekg(here);
  }
  char chunk[1 << 14];
  while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
    json.append(chunk, static_cast<std::size_t>(file.gcount()));
  }
  if (const std::size_t lf = json.find('\n'); lf != std::string::npos) {
    json.erase(std::remove(json.begin() + lf, json.end(), '\n'), json.end());
  }
  file.close();
  if (json.empty()) {
    KRONLOG_TRACE(0, kFile, 132, "doRestore",
                  << kJsonDoRestore << " No json content found in the store file.");
    return;
  }

  Json::Document document;
  // Full precision, so that a restored timestamp equals the saved double to
  // the last bit. The result is not examined: a text that does not parse
  // leaves the document null, which the object check below rejects.
  // In place: the text is not needed afterwards, and the strings are then
  // not copied a second time into the document.
  document.ParseInsitu<rapidjson::kParseFullPrecisionFlag>(&json[0]);
  if (!document.HasMember(kTopKey.c_str())) {
    KRONLOG_TRACE(2, kFile, 193, "doRestore",
                  << kJsonDoRestore << " Could not find Kronlog in store.");
    return;
  }
  KRONLOG_TRACE(2, kFile, 141, "doRestore",
                << kJsonDoRestore << " Reading Kronlog from store file.");
  const Json::Value& events = document[kTopKey.c_str()];
  KronlogReader::Status& status = *this->events();
  for (const Json::Value& element : events.GetArray()) {
    Qel::String agentName, messageGroup, message;
    double timestamp = 0;
    bool hasAgentName = false, hasMessageGroup = false, hasTimestamp = false, hasMessage = false;
    for (const auto& member : element.GetObject()) {
      if (nameIs(member.name, "agentName", 9)) {
        KRONLOG_TRACE(2, kFile, 156, "doRestore", << kJsonDoRestore << " Reading agentName");
        agentName = Qel::String(member.value.GetString());
        KRONLOG_TRACE(2, kFile, 158, "doRestore", << kJsonDoRestore << " agentName: " << agentName);
        hasAgentName = true;
      } else if (nameIs(member.name, "messageGroup", 12)) {
        KRONLOG_TRACE(2, kFile, 161, "doRestore", << kJsonDoRestore << " Reading messageGroup");
        messageGroup = Qel::String(member.value.GetString());
        KRONLOG_TRACE(2, kFile, 163, "doRestore",
                      << kJsonDoRestore << " messageGroup: " << messageGroup);
        hasMessageGroup = true;
      } else if (nameIs(member.name, "timestamp", 9)) {
        KRONLOG_TRACE(2, kFile, 166, "doRestore", << kJsonDoRestore << " Reading timestamp");
        timestamp = member.value.GetDouble();
        KRONLOG_TRACE(2, kFile, 168, "doRestore", << kJsonDoRestore << " timestamp: " << timestamp);
        hasTimestamp = true;
      } else if (nameIs(member.name, "message", 7)) {
        KRONLOG_TRACE(2, kFile, 171, "doRestore", << kJsonDoRestore << " Reading message");
        message = Qel::String(member.value.GetString());
        KRONLOG_TRACE(2, kFile, 174, "doRestore", << kJsonDoRestore << " message: " << message);
        hasMessage = true;
      }
      // Checked after every member, recognised or not: each member after
      // the fourth adds one more entry with the values as they stand.
      if (hasAgentName && hasMessageGroup && hasTimestamp && hasMessage) {
        status.logEnq(KronlogReader::logEntryFactory(agentName, messageGroup, timestamp, message));
        KRONLOG_TRACE(2, kFile, 187, "doRestore",
                      << kJsonDoRestore << " Added entry agentName: " << agentName
                      << " messageGroup: " << messageGroup << " timestamp: " << timestamp
                      << " message: " << message);
      }
    }
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
