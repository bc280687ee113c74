// Test support: a writer directory's whole streamed state as one text, so
// that a copy and its source compare with one EXPECT_EQ (and a difference
// shows where they part).
#ifndef KRONLOG_TESTING_WRITERSTATE_H
#define KRONLOG_TESTING_WRITERSTATE_H

#include <map>
#include <string>

#include "kronlog/KronlogWriter.h"

namespace WriterTesting {

// Name, then per writer (by name): config, overflowCount, logMetadata and
// every entry with its index.
inline std::string stateOf(const KronlogWriter::WriterDir* dir) {
  if (!dir) return "no directory";
  std::map<std::string, std::string> writers;
  for (const KronlogWriter::Writer& w : dir->writerMap()) {
    std::string s = KronlogWriter::valueToStrep(w.config()).stdString() +
                    " overflow=" + std::to_string(w.overflowCount()) + " " +
                    KronlogWriter::valueToStrep(w.logMetadata()).stdString();
    for (const KronlogWriter::WriterLogMember& m : w.logQueue()) {
      s += " [" + std::to_string(m.index()) + "]" +
           KronlogWriter::valueToStrep(m.entry()).stdString();
    }
    writers[w.name().stdString()] = s;
  }
  std::string out = dir->name().stdString() + ":";
  for (const auto& [name, s] : writers) out += "\n" + name + " " + s;
  return out;
}

}  // namespace WriterTesting

#endif  // KRONLOG_TESTING_WRITERSTATE_H
