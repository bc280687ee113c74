#include "kronlog/KronlogSaver.h"

#include <regex>

#include "kronlog/KronlogStore.h"
#include "qel/Exception.h"
#include "qel/Type.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogSaver {

namespace {
constexpr char kFile[] = "KronlogSaver";
constexpr char kDoSave[] = "void KronlogSaver::Saver::doSave()";

bool compiles(const Qel::String& pattern) {
  try {
    // Compiling is the test: a bad pattern throws.
    const std::regex compiled(pattern.data(), pattern.size(), std::regex::ECMAScript);
    static_cast<void>(compiled);
    return true;
  } catch (const std::regex_error&) {
    return false;
  }
}
}  // namespace

QEL_TRACKED_ALLOCATION_DEFINE(Saver, "KronlogSaver::Saver")

Saver::Saver(Qel::Ptr<KronlogReader::Config const> const& config) : config_(config) {
  handleInitialized();
}

Saver::~Saver() = default;

Saver::Ptr saverFactory(Qel::Ptr<KronlogReader::Config const> const& config) {
  return Saver::Ptr(new Saver(config));
}

void Saver::doSave() {
  KRONLOG_TRACE(0, kFile, 19, "doSave", << kDoSave);
  if (config_->dirs() == 0) {
    KRONLOG_TRACE(0, kFile, 22, "doSave", << kDoSave << " No dirs to save in the given config.");
    return;
  }
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  try {
    KronlogReader::readerFactory(config_, status);  // reads at construction
  } catch (const std::regex_error& e) {
    // The reader compiles its patterns only now; say which one is bad.
    const Qel::String& agent = config_->agentPattern();
    const bool agentBad = !compiles(agent);
    KRONLOG_TRACE(0, kFile, 26, "doSave",
                  << kDoSave << " Bad " << (agentBad ? "agentPattern" : "messageGroupPattern")
                  << " '" << (agentBad ? agent : config_->messageGroupPattern())
                  << "': " << e.what() << "; nothing saved.");
    return;
  }
  if (status->logs() == 0) {
    // An earlier store file is kept, not emptied.
    KRONLOG_TRACE(0, kFile, 31, "doSave", << kDoSave << " No events to save.");
    return;
  }
  KronlogStore::Store::Ptr store = KronlogStore::jsonStoreFactory(status);
  store->doStore();
}

QEL_FWK_TYPE_DEFINE(Saver, "KronlogSaver::Saver")

namespace {

const bool registered = [] {
  using Qel::PtrInterface;
  Qel::Ptr<Qel::TypeNode> saver(
      new Qel::TypeNode("KronlogSaver::Saver", Qel::TypeNode::Kind::entity));
  Saver::reflectionIs(*saver, "doSave");
  Qel::typeNodeIs(saver);
  return true;
}();

}  // namespace

}  // namespace KronlogSaver
