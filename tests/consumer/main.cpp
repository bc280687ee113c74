// A program written as a user of the installed package would write it, and
// built with strict warnings as errors, so that the public headers stay
// clean for their users (a notifiee overriding one overload included).
#include <cstdio>
#include <string>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "qel/LinkQueue.h"

namespace {

// Hears only the indexed change; the plain overload stays reachable.
class LastIndex : public KronlogWriter::Writer::Notifiee {
 public:
  using KronlogWriter::Writer::Notifiee::onLog;
  void onLog(unsigned int index) override { last = index; }
  unsigned int last = 0;
};

}  // namespace

int main() {
  KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory("Bgp");
  KronlogWriter::Writer::Ptr peer =
      agent->writerIs("peer", KronlogWriter::Config(2, KronlogWriter::keepLastEntries));
  LastIndex heard;
  heard.notifierIs(peer);
  for (const char* text : {"up", "down", "up again"}) peer->eventIs(text);
  if (heard.last != 2 || peer->overflowCount() != 1) return 1;

  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  agents->entityIs(agent);
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents);
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  KronlogReader::readerFactory(config, status);
  std::string messages;
  for (const KronlogReader::Status::QelLog& m : status->logQueue()) {
    messages += m.value()->message().stdString() + ";";
  }
  if (messages != "down;up again;") return 2;
  try {
    Qel::throwLinkQueueIndexSpaceFull();
  } catch (const Qel::RangeException& e) {
    std::printf("consumer ok: %s %s\n", messages.c_str(), e.what());
    return 0;
  }
  return 3;
}
