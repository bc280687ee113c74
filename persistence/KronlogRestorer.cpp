#include "kronlog/KronlogRestorer.h"

#include <cstdint>
#include <ostream>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogStore.h"
#include "qel/Exception.h"
#include "qel/Strep.h"
#include "qel/Type.h"
#include "support/Assert.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogRestorer {

namespace {
constexpr char kFile[] = "KronlogRestorer";
constexpr char kDoRestore[] = "void KronlogRestorer::Restorer::doRestore()";
}  // namespace

// ---- Config

Config::Config(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end) {
  Qel::PtrInterface* object = nullptr;
  Qel::String8::IteratorConst start = it;
  try {
    Qel::strepToRawPtr(it, end, &object);
  } catch (const Qel::RangeException& e) {
    Qel::rethrowFromDeserializeAttr(e, "klDir");
  }
  if (!object) return;
  auto* dir = dynamic_cast<KronlogWriter::WriterDir*>(object);
  if (!dir) {
    Qel::cannotConvert(Qel::String(start, static_cast<std::size_t>(it - start)),
                       "KronlogWriter::WriterDir");
  }
  klDir_ = dir;
}

Qel::String valueToStrep(const Config& value) {
  return Qel::valueToStrepOfRawPtr(value.klDir().ptr());
}

std::ostream& operator<<(std::ostream& os, const Config& value) {
  return os << valueToStrep(value);
}

// ---- Restorer

QEL_TRACKED_ALLOCATION_DEFINE(Restorer, "KronlogRestorer::Restorer")

Restorer::Restorer(Config const& config) : config_(config) {
  handleInitialized();
}

Restorer::~Restorer() = default;

Restorer::Ptr restorerFactory(Config const& config) {
  return Restorer::Ptr(new Restorer(config));
}

void Restorer::doRestore() {
  KRONLOG_TRACE(0, kFile, 20, "doRestore", << kDoRestore);
  const KronlogWriter::WriterDir::Ptr& dir = config_.klDir();
  if (!dir) {
    // The two sentences run together; operators know the text this way.
    KRONLOG_TRACE(0, kFile, 24, "doRestore", << kDoRestore
                                             << " WriterDir to restore the events is not set."
                                             << "Exiting...");
    return;
  }
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogStore::Store::Ptr store = KronlogStore::jsonStoreFactory(status);
  store->doRestore();

  // The store carries no writer configuration: missing writers get the
  // default one, whatever the saved writers had.
  const KronlogWriter::Config config(10, KronlogWriter::keepLastEntries);
  if (status->logs() != 0) {
    // The position counter is deliberately 8 bits wide (see the header): a
    // log of 256 or more entries makes it wrap while the count is still
    // greater, and the walk starts over.
    Position position = 0;
    do {
      const KronlogReader::LogEntry::Ptr entry = status->log(position);
      KRONLOG_ASSERT(entry, "entry");
      if (entry->agentName() == dir->name()) {
        KronlogWriter::Writer::Ptr writer = dir->writer(entry->messageGroup());
        if (!writer) writer = dir->writerIs(entry->messageGroup(), config);
        KronlogWriter::LogEntry restored(entry->timestamp(), entry->message());
        KRONLOG_TRACE(0, kFile, 54, "doRestore", << "doRestore"
                                                 << " timestamp: " << entry->timestamp()
                                                 << " agentName: " << entry->agentName()
                                                 << " messageGroup: " << entry->messageGroup()
                                                 << " message: " << entry->message());
        writer->logEnq(restored);  // no size limit, no overflow policy
      }
      ++position;
    } while (status->logs() > position);
  }
}

QEL_FWK_TYPE_DEFINE(Restorer, "KronlogRestorer::Restorer")

// ---- Registration, in load order: Restorer, Config.

namespace {

const bool registered = [] {
  using Qel::PtrInterface;
  using Qel::TypeNode;
  Qel::Ptr<TypeNode> restorer(new TypeNode("KronlogRestorer::Restorer", TypeNode::Kind::entity));
  Restorer::reflectionIs(*restorer, "doRestore").attributeIs("config", [](const PtrInterface& o) {
    return valueToStrep(static_cast<const Restorer&>(o).config());
  });
  Qel::typeNodeIs(restorer);

  Qel::Ptr<TypeNode> config(new TypeNode("KronlogRestorer::Config", TypeNode::Kind::value));
  config
      ->parserIs([](const Qel::String& text) {
        Qel::String8::IteratorConst it = text.begin();
        Config value(it, text.end());
        Qel::strepToValueEnd(it, text.end());
        return Qel::Ptr<Qel::ValueBoxBase>(new Qel::ValueBox<Config>(value));
      })
      .defaultIs([] { return Qel::Ptr<Qel::ValueBoxBase>(new Qel::ValueBox<Config>(Config())); });
  Qel::typeNodeIs(config);
  return true;
}();

}  // namespace

}  // namespace KronlogRestorer
