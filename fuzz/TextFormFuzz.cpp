// libFuzzer target: the text forms of LogEntry and Config.
//
// Input: byte 0 picks the type (even: LogEntry, odd: Config), the rest is
// the text. A text either parses or is refused with the framework's
// exception; one that parses prints back to a text that parses to the same
// printed form, so what the parser accepts the printer can say.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kronlog/KronlogWriter.h"
#include "qel/Exception.h"

namespace {

template <class T>
void roundTrip(const Qel::String8& text) {
  Qel::String8::IteratorConst it = text.begin();
  T parsed(it, text.end());
  const Qel::String printed = KronlogWriter::valueToStrep(parsed);
  const Qel::String8 again(printed);
  Qel::String8::IteratorConst at = again.begin();
  const T reparsed(at, again.end());
  if (KronlogWriter::valueToStrep(reparsed) != printed) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const Qel::String8 text(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  try {
    if (data[0] % 2 == 0) {
      roundTrip<KronlogWriter::LogEntry>(text);
    } else {
      roundTrip<KronlogWriter::Config>(text);
    }
  } catch (const Qel::Exception&) {
    // Refused: the one way a parser may say no.
  }
  return 0;
}
