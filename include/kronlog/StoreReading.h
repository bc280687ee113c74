// What reading a store file found: whether the library restores every event
// in it exactly once and, when it does not, each reason with the byte offset
// in the file where it lies.
//
//   KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
//   KronlogStore::StoreReading r = KronlogStore::readStoreFile(path, *status);
//   if (!r.complete()) for (const auto& p : r.problems) report(p.offset, p.text);
//
// Reading never ends the process and never throws for what the file holds:
// the checks that end a restore (JsonStore::doRestore) are reported here as
// problems instead. The status receives exactly the entries a restore would
// append, in the same order, up to the first problem that would end it.
#ifndef KRONLOG_STOREREADING_H
#define KRONLOG_STOREREADING_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kronlog/Export.h"
#include "kronlog/KronlogReader.h"

namespace KronlogStore {

enum class StoreFault {
  cannotRead,         // the file cannot be opened or read
  formatName,         // line 1 does not name "JSON": a restore adds nothing
  noJsonContent,      // nothing after the header lines: a restore adds nothing
  badJson,            // the JSON part does not parse, or nests too deep: a restore ends the process
  rootNotObject,      // a restore ends the process ("IsObject()")
  noEvents,           // the root has no "Kronlog" member: a restore adds nothing
  eventsNotArray,     // a restore ends the process ("IsArray()")
  elementNotObject,   // a restore ends the process ("IsObject()")
  memberNotString,    // a restore ends the process ("IsString()")
  memberNotNumber,    // a restore ends the process ("IsNumber()")
  memberMissing,      // an event lacks one of the four members: a restore drops it
  memberExtra,        // an event has more members: a restore adds it more than once
  nulInText,          // a text holds a NUL byte: a restore cuts it there
  restorerNeverEnds,  // too many entries for the restorer's walk, which then never finishes
  versionDiffers,     // a warning only: line 2 names another version, read all the same
  nulEndsJson,        // a warning only: a NUL byte after the JSON ends it; what follows is ignored
  lineFeedInString,   // a warning only: a line feed inside a string, which a restore drops
};

struct StoreProblem {
  StoreFault fault;
  std::uint64_t offset;  // in the file, from 0
  std::string text;      // in words; may quote bytes of the file unescaped
};

struct KRONLOG_EXPORT StoreReading {
  // Problems in file order. Reading stops at the first one that would end
  // a restore; problems that only lose entries are all listed.
  std::vector<StoreProblem> problems;
  // Worth knowing, yet the events come back whole (another version line).
  std::vector<StoreProblem> warnings;
  std::size_t events = 0;   // event objects read in the "Kronlog" array
  std::size_t entries = 0;  // entries appended to the status

  // True when a restore brings back every event once, unchanged, and the
  // restorer's walk over them ends.
  bool complete() const noexcept { return problems.empty(); }
  // The check a restore fails on this file, ending the process ("IsObject()",
  // ...); null when it does not.
  const char* fatalCheck() const noexcept;
};

// Reads a whole store file's bytes, appending to `into` what a restore would.
KRONLOG_EXPORT StoreReading readStore(std::string_view bytes, KronlogReader::Status& into);
// The same for the file at `path`, read once from start to end (a FIFO or a
// device works); a file that cannot be read is a cannotRead problem.
KRONLOG_EXPORT StoreReading readStoreFile(const std::string& path, KronlogReader::Status& into);
// The same for an open descriptor (standard input, say), read to its end;
// `name` stands for it in messages. The descriptor stays open.
KRONLOG_EXPORT StoreReading readStoreDescriptor(int fd, const std::string& name,
                                                KronlogReader::Status& into);

}  // namespace KronlogStore

#endif  // KRONLOG_STOREREADING_H
