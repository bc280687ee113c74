// libFuzzer target: the store-file reader behind restore, check and show.
//
// Whatever the bytes, reading never crashes or throws, the status receives
// exactly the entries the reading counts, every problem lies inside the
// file, and a reading without problems brought back each event once.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kronlog/KronlogReader.h"
#include "kronlog/StoreReading.h"
#include "qel/Trace.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    Qel::traceLevelsIs("Kronlog", 0);
    return true;
  }();
  (void)quiet;
  KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
  const KronlogStore::StoreReading r =
      KronlogStore::readStore(std::string_view(reinterpret_cast<const char*>(data), size), *status);
  if (status->logs() != r.entries) std::abort();
  for (const KronlogStore::StoreProblem& p : r.problems) {
    if (p.offset > size) std::abort();
  }
  if (r.complete() && r.entries != r.events) std::abort();
  return 0;
}
