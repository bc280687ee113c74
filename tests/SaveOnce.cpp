// A minimal agent for tests that watch a save from outside: it records a
// few events, saves them once with the library's saver to the path in
// KRONLOG_STORE_FILE_PATH, prints its process id (the temporary file's
// name holds it) and exits.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Dir.h"

int main() {
  KronlogWriter::WriterDir::Ptr agent = KronlogWriter::writerDirFactory("Agent");
  KronlogWriter::Writer::Ptr writer = agent->writerIs("group", KronlogWriter::Config());
  for (int k = 0; k < 5; ++k) writer->eventIs("event " + std::to_string(k));
  Qel::Dir::Ptr agents = Qel::dirFactory("agents");
  agents->entityIs(agent);
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents);
  KronlogSaver::saverFactory(config);
  std::printf("%d\n", static_cast<int>(::getpid()));
  return std::fflush(stdout) == 0 ? 0 : 1;
}
