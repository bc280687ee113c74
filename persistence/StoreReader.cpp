#include "persistence/StoreReader.h"

#include <fcntl.h>
#include <locale.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogStore.h"
#include "persistence/Json.h"
#include "support/TraceSite.h"

KRONLOG_TRACE_HANDLE()

namespace KronlogStore {

namespace {

constexpr char kFile[] = "KronlogStore";
constexpr char kFunction[] = "doRestore";
constexpr char kLabel[] = "virtual void KronlogStore::JsonStore::doRestore()";

#define KRONLOG_RESTORE_TRACE(level, line, pieces)                    \
  do {                                                                \
    if (tracing_ == Tracing::asRestore) {                             \
      KRONLOG_TRACE(level, kFile, line, kFunction, << kLabel pieces); \
    }                                                                 \
  } while (0)

// The JSON part of a file: its lines joined without their line feeds, and
// where each line feed was, to give offsets in the file.
class JsonPart {
 public:
  JsonPart(std::string_view rest, std::uint64_t start) : start_(start) {
    text_.reserve(rest.size());
    for (std::size_t from = 0; from <= rest.size();) {
      const std::size_t lf = std::min(rest.find('\n', from), rest.size());
      text_.append(rest.substr(from, lf - from));
      if (lf == rest.size()) break;
      removed_.push_back(text_.size());
      from = lf + 1;
    }
  }
  const std::string& text() const noexcept { return text_; }
  // The file offset of the byte at `at` in the joined text.
  // The first removed line feed that lay inside a JSON string, as a joined
  // text offset; npos if none. Meaningful for text that parses.
  std::size_t lineFeedInString() const {
    bool inString = false, escaped = false;
    auto next = removed_.begin();
    for (std::size_t i = 0; i < text_.size() && next != removed_.end(); ++i) {
      while (next != removed_.end() && *next < i) ++next;
      if (inString && next != removed_.end() && *next == i) return i;
      const char c = text_[i];
      if (escaped) {
        escaped = false;
      } else if (inString && c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = !inString;
      }
    }
    return std::string::npos;
  }
  std::uint64_t fileOffset(std::size_t at) const {
    const auto before = std::upper_bound(removed_.begin(), removed_.end(), at) - removed_.begin();
    return start_ + at + static_cast<std::uint64_t>(before);
  }

 private:
  std::uint64_t start_;
  std::string text_;
  std::vector<std::size_t> removed_;  // positions in text_ where a line feed was
};

// A string stream that the parser advances in place, also while it reads a
// string or a number (RapidJSON works on a copy of a plain string stream
// then), so that its position is the end of each token as it is reported.
struct TrackedStream : rapidjson::StringStream {
  using rapidjson::StringStream::StringStream;
};

// Checks syntax and nesting only; the walk below runs on a text that parses.
// A JSON number's text as a double, or false when it is too big for one.
// Numbers are converted here rather than by the parser: RapidJSON 1.1.0's
// full-precision conversion gets some wrong ("0e-90" reads as -2.05e-143)
// and relies on undefined behaviour on the way. strtod in the C locale is
// correctly rounded, underflows to zero or a subnormal, and keeps -0.
bool jsonNumber(const char* text, double* out) {
  static const locale_t c = ::newlocale(LC_ALL_MASK, "C", nullptr);
  *out = ::strtod_l(text, nullptr, c);
  return !std::isinf(*out);
}

struct DepthCheck : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, DepthCheck> {
  explicit DepthCheck(const rapidjson::StringStream& s) : stream(s) {}
  const rapidjson::StringStream& stream;
  std::size_t depth = 0;
  std::size_t tooBigAt = std::string::npos;  // where a number too big for a double starts
  bool StartObject() { return ++depth <= kMaxJsonDepth; }
  bool EndObject(Json::SizeType) { return --depth, true; }
  bool StartArray() { return ++depth <= kMaxJsonDepth; }
  bool EndArray(Json::SizeType) { return --depth, true; }
  // The parser hands the number's text, NUL-terminated. It reads a number
  // from a copy of a plain string stream, so the stream still stands at
  // the number's start.
  bool RawNumber(const char* text, Json::SizeType, bool) {
    double v;
    if (jsonNumber(text, &v)) return true;
    tooBigAt = stream.Tell();
    return false;
  }
};

// Iterative: the parser's own recursion would follow the nesting. Numbers
// come as text, for jsonNumber.
constexpr unsigned kParseFlags =
    rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

enum Member { kAgentName, kMessageGroup, kTimestamp, kMessage, kOther };
constexpr const char* kMemberNames[] = {"agentName", "messageGroup", "timestamp", "message"};

// Walks a parsed JSON part as a restore reads it: the root object's first
// "Kronlog" member, an array of event objects, each member checked for its
// type when it comes, and one entry appended whenever, after a member, all
// four have been seen. Stops (returns false to the parser) where a restore
// would end the process.
class Walker : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Walker> {
 public:
  Walker(const JsonPart& part, const TrackedStream& stream, KronlogReader::Status& into,
         Tracing tracing, StoreReading& reading)
      : part_(part), stream_(stream), into_(into), tracing_(tracing), reading_(reading) {}

  bool StartObject() { return begin(Kind::object); }
  bool StartArray() { return begin(Kind::array); }
  bool EndObject(Json::SizeType) { return end(); }
  bool EndArray(Json::SizeType) { return end(); }
  bool Key(const char* text, Json::SizeType length, bool) {
    markToken(false);
    if (state_ == State::rootKeys) {
      const bool events = !eventsFound_ && std::string_view(text, length) == kTopKey;
      if (events) {
        eventsFound_ = true;
        KRONLOG_RESTORE_TRACE(2, 141, << " Reading Kronlog from store file.");
      }
      state_ = events ? State::eventsValue : State::rootValue;
    } else if (state_ == State::elementKeys) {
      member_ = kOther;
      for (int m = kAgentName; m < kOther; ++m) {
        if (std::string_view(text, length) == kMemberNames[m]) member_ = static_cast<Member>(m);
      }
      state_ = State::memberValue;
    }
    return true;
  }
  bool String(const char* text, Json::SizeType length, bool) {
    if (!begin(Kind::string)) return false;
    if (state_ != State::memberTaken) return true;
    const std::size_t cut = std::strlen(text);  // a restore takes the text up to its first NUL
    if (cut != length && !nulReported_) {
      nulReported_ = true;
      problem(StoreFault::nulInText, valueAt_,
              where() + ": \"" + kMemberNames[member_] +
                  "\" holds a NUL byte; a restore keeps only what comes before it");
    }
    Qel::String value(text, cut);
    if (member_ == kAgentName) {
      agentName_ = value;
      KRONLOG_RESTORE_TRACE(2, 158, << " agentName: " << agentName_);
    } else if (member_ == kMessageGroup) {
      messageGroup_ = value;
      KRONLOG_RESTORE_TRACE(2, 163, << " messageGroup: " << messageGroup_);
    } else {
      message_ = value;
      KRONLOG_RESTORE_TRACE(2, 174, << " message: " << message_);
    }
    return memberDone();
  }
  // The syntax check has refused any number too big for a double.
  bool RawNumber(const char* text, Json::SizeType, bool) {
    double v = 0;
    jsonNumber(text, &v);
    return number(v);
  }
  bool Default() { return begin(Kind::other) && (state_ != State::memberTaken || memberDone()); }

  // After the parse: what only the whole file shows.
  void finish() {
    if (state_ == State::finished && !eventsFound_) {
      KRONLOG_RESTORE_TRACE(2, 193, << " Could not find Kronlog in store.");
      problem(StoreFault::noEvents, rootEnd_,
              "the JSON root has no \"Kronlog\" member, so there are no events to restore");
    }
    if (reading_.entries > KronlogRestorer::kMaxRestorableEntries && !reading_.fatalCheck()) {
      problem(StoreFault::restorerNeverEnds, overflowAt_,
              std::to_string(reading_.entries) + " entries: the restorer walks at most " +
                  std::to_string(KronlogRestorer::kMaxRestorableEntries) +
                  " and on this store would never finish (kronlog show reads it)");
    }
  }

 private:
  enum class Kind { object, array, string, number, other };
  enum class State {
    root,         // before the root value
    rootKeys,     // in the root object, before a key or its end
    rootValue,    // the value of a root member that is not the events
    eventsValue,  // the value of "Kronlog"
    events,       // in the events array
    elementKeys,  // in an event object, before a key or its end
    memberValue,  // the value of an event member
    memberTaken,  // a scalar event member accepted, being taken
    finished,     // after the root
  };

  // Where the current token starts, scanning from the end of the one
  // before: the parser reports a string or a number once it has read it,
  // but a bracket before it takes it.
  void markToken(bool bracket) {
    std::size_t at = tokenEnd_;
    const std::string& text = part_.text();
    while (at < text.size() && text[at] != '\0' && std::strchr(" \t\r,:", text[at])) ++at;
    tokenAt_ = at;
    tokenEnd_ = bracket ? at + 1 : stream_.Tell();
  }
  std::string where() const { return "event " + std::to_string(element_); }

  void problem(StoreFault fault, std::size_t at, std::string text) {
    reading_.problems.push_back({fault, part_.fileOffset(at), std::move(text)});
  }
  bool fatal(StoreFault fault, std::string text) {
    problem(fault, valueAt_, std::move(text));
    return false;
  }

  bool begin(Kind kind) {
    const bool container = kind == Kind::object || kind == Kind::array;
    markToken(container);
    valueAt_ = tokenAt_;
    if (skipping_ > 0) {
      skipping_ += container ? 1 : 0;
      return true;
    }
    switch (state_) {
      case State::root:
        if (kind != Kind::object) {
          return fatal(StoreFault::rootNotObject, "the JSON root is not an object");
        }
        state_ = State::rootKeys;
        return true;
      case State::rootValue:
        skipOrReturnTo(container, State::rootKeys);
        return true;
      case State::eventsValue:
        if (kind != Kind::array)
          return fatal(StoreFault::eventsNotArray, "\"Kronlog\" is not an array");
        state_ = State::events;
        return true;
      case State::events:
        element_ = reading_.events++;
        if (kind != Kind::object)
          return fatal(StoreFault::elementNotObject, where() + " is not an object");
        elementAt_ = valueAt_;
        seen_[0] = seen_[1] = seen_[2] = seen_[3] = false;
        members_ = appended_ = 0;
        nulReported_ = false;
        state_ = State::elementKeys;
        return true;
      case State::memberValue:
        return beginMember(kind, container);
      default:
        return true;
    }
  }

  bool beginMember(Kind kind, bool container) {
    ++members_;
    if (member_ == kOther) {
      skipOrReturnTo(container, State::elementKeys);
      return container || memberDone();
    }
    static const int kReadingLines[] = {156, 161, 166, 171};
    KRONLOG_RESTORE_TRACE(2, kReadingLines[member_], << " Reading " << kMemberNames[member_]);
    const bool number = member_ == kTimestamp;
    if (kind != (number ? Kind::number : Kind::string)) {
      return fatal(number ? StoreFault::memberNotNumber : StoreFault::memberNotString,
                   where() + ": \"" + kMemberNames[member_] + "\" is not a " +
                       (number ? "number" : "string"));
    }
    state_ = State::memberTaken;
    return true;
  }

  void skipOrReturnTo(bool container, State after) {
    afterSkip_ = after;
    if (container) {
      skipping_ = 1;
    } else {
      state_ = after;
    }
  }

  bool number(double value) {
    if (!begin(Kind::number)) return false;
    if (state_ != State::memberTaken) return true;
    timestamp_ = value;
    KRONLOG_RESTORE_TRACE(2, 168, << " timestamp: " << timestamp_);
    return memberDone();
  }

  // After each member, recognised or not: with all four seen, one more entry
  // of the values as they stand.
  bool memberDone() {
    if (member_ != kOther) seen_[member_] = true;
    state_ = State::elementKeys;
    if (!(seen_[0] && seen_[1] && seen_[2] && seen_[3])) return true;
    into_.logEnq(KronlogReader::logEntryFactory(agentName_, messageGroup_, timestamp_, message_));
    ++appended_;
    if (++reading_.entries == KronlogRestorer::kMaxRestorableEntries + 1) overflowAt_ = elementAt_;
    KRONLOG_RESTORE_TRACE(2, 187, << " Added entry agentName: " << agentName_
                                  << " messageGroup: " << messageGroup_
                                  << " timestamp: " << timestamp_ << " message: " << message_);
    return true;
  }

  bool end() {
    markToken(true);
    if (skipping_ > 0) {
      if (--skipping_ == 0) {
        state_ = afterSkip_;
        if (afterSkip_ == State::elementKeys) return memberDone();
      }
      return true;
    }
    if (state_ == State::elementKeys) {
      endElement();
      state_ = State::events;
    } else if (state_ == State::events) {
      state_ = State::rootKeys;
    } else if (state_ == State::rootKeys) {
      rootEnd_ = tokenAt_;
      state_ = State::finished;
    }
    return true;
  }

  void endElement() {
    if (appended_ == 0) {
      std::string missing;
      for (int m = kAgentName; m < kOther; ++m) {
        if (!seen_[m])
          missing += std::string(missing.empty() ? "\"" : ", \"") + kMemberNames[m] + '"';
      }
      problem(StoreFault::memberMissing, elementAt_,
              where() + " lacks " + missing + ", so a restore drops it");
    } else if (appended_ > 1) {
      problem(StoreFault::memberExtra, elementAt_,
              where() + " has " + std::to_string(members_) +
                  " members, not 4, so a restore adds it " + std::to_string(appended_) + " times");
    }
  }

  const JsonPart& part_;
  const TrackedStream& stream_;
  KronlogReader::Status& into_;
  const Tracing tracing_;
  StoreReading& reading_;

  State state_ = State::root;
  State afterSkip_ = State::root;
  std::size_t skipping_ = 0;  // depth inside a value that is passed over
  bool eventsFound_ = false;
  std::size_t tokenEnd_ = 0, tokenAt_ = 0, valueAt_ = 0, elementAt_ = 0, rootEnd_ = 0;
  std::size_t overflowAt_ = 0;

  std::size_t element_ = 0;  // index of the current event in the array
  Member member_ = kOther;
  bool seen_[4] = {false, false, false, false};
  std::size_t members_ = 0, appended_ = 0;
  bool nulReported_ = false;
  Qel::String agentName_, messageGroup_, message_;
  double timestamp_ = 0;
};

// A header line quoted in a message. Any file may be read as a store, and
// a line may be as long as the file: only its start is quoted, with the
// line's length.
std::string quotedLine(std::string_view line) {
  constexpr std::size_t kQuoted = 32;
  if (line.size() <= kQuoted) return "\"" + std::string(line) + "\"";
  return "\"" + std::string(line.substr(0, kQuoted)) + "\"... (" + std::to_string(line.size()) +
         " bytes)";
}

// Why a first line that does not name the format fails, where a person can
// be told more than "it differs".
std::string formatProblem(std::string_view bytes, std::string_view name) {
  std::string text = "line 1 names the format " + quotedLine(name) + ", not \"" +
                     JsonStore::storeFormat().stdString() + "\"";
  if (bytes.empty()) return "the file is empty";
  if (bytes.substr(0, 3) == "\xEF\xBB\xBF")
    return text + ": the file begins with a byte-order mark";
  if (!name.empty() && name.back() == '\r') return text + ": the file has CR LF line ends";
  return text + ": it is not a store file";
}

class Reading {
 public:
  Reading(KronlogReader::Status& into, Tracing tracing) : into_(into), tracing_(tracing) {}

  StoreReading run(std::string_view bytes) {
    // Lines 1 and 2 up to their line feeds; a missing line reads as empty.
    const std::size_t lf1 = std::min(bytes.find('\n'), bytes.size());
    const std::size_t line2 = std::min(lf1 + 1, bytes.size());
    const std::size_t lf2 = std::min(bytes.find('\n', line2), bytes.size());
    const std::size_t rest = std::min(lf2 + 1, bytes.size());
    // The prefixes are removed by length, without being compared.
    const std::string_view format =
        bytes.substr(0, lf1).substr(std::min(lf1, kFormatPrefix.size()));
    const std::string_view version =
        bytes.substr(line2, lf2 - line2).substr(std::min(lf2 - line2, kVersionPrefix.size()));
    if (format != JsonStore::storeFormat().view()) {
      KRONLOG_RESTORE_TRACE(0, 115, << " store format error, expected: " << JsonStore::storeFormat()
                                    << " actual: " << format);
      reading_.problems.push_back({StoreFault::formatName, 0, formatProblem(bytes, format)});
      return std::move(reading_);
    }
    if (version != JsonStore::storeVersion().view()) {
      KRONLOG_RESTORE_TRACE(0, 120, << " store version is different, reader: "
                                    << JsonStore::storeVersion() << " store file: " << version);
      reading_.warnings.push_back({StoreFault::versionDiffers, line2,
                                   "line 2 names version " + quotedLine(version) + ", not \"" +
                                       JsonStore::storeVersion().stdString() +
                                       "\"; a restore reads it all the same"});
    }
    const JsonPart part(bytes.substr(rest), rest);
    if (part.text().empty()) {
      KRONLOG_RESTORE_TRACE(0, 132, << " No json content found in the store file.");
      reading_.problems.push_back({StoreFault::noJsonContent, rest,
                                   "no JSON after the two header lines: nothing to restore"});
      return std::move(reading_);
    }
    if (checkSyntax(part)) walk(part);
    return std::move(reading_);
  }

 private:
  bool checkSyntax(const JsonPart& part) {
    rapidjson::StringStream stream(part.text().c_str());
    DepthCheck check(stream);
    Json::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<kParseFlags>(stream, check);
    if (!result) {
      const bool tooBig = check.tooBigAt != std::string::npos;
      const std::string why =
          result.Code() != rapidjson::kParseErrorTermination
              ? std::string("JSON syntax error: ") + rapidjson::GetParseError_En(result.Code())
          : tooBig ? std::string("JSON syntax error: ") +
                         rapidjson::GetParseError_En(rapidjson::kParseErrorNumberTooBig)
                   : "JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
      const std::size_t at = tooBig ? check.tooBigAt : result.Offset();
      reading_.problems.push_back({StoreFault::badJson, part.fileOffset(at), why});
      return false;
    }
    // The parser takes a NUL byte for the end of its input, as a restore
    // does: whatever follows one is not read. Restorable, but not what a
    // save writes, so it is worth a warning.
    if (const std::size_t lf = part.lineFeedInString(); lf != std::string::npos) {
      // A restore joins the lines, so the text loses that line feed.
      reading_.warnings.push_back({StoreFault::lineFeedInString, part.fileOffset(lf) - 1,
                                   "a line feed inside a JSON string; a restore drops it"});
    }
    const std::size_t end = stream.Tell();
    if (end < part.text().size()) {
      reading_.warnings.push_back({StoreFault::nulEndsJson, part.fileOffset(end),
                                   "a NUL byte ends the JSON here; a restore ignores the " +
                                       std::to_string(part.text().size() - end) +
                                       " bytes from it on"});
    }
    return true;
  }

  void walk(const JsonPart& part) {
    TrackedStream stream(part.text().c_str());
    Walker walker(part, stream, into_, tracing_, reading_);
    Json::Reader reader;
    if (reader.Parse<kParseFlags>(stream, walker)) walker.finish();
  }

  KronlogReader::Status& into_;
  const Tracing tracing_;
  StoreReading reading_;
};

#undef KRONLOG_RESTORE_TRACE

}  // namespace

const char* StoreReading::fatalCheck() const noexcept {
  for (const StoreProblem& p : problems) {
    switch (p.fault) {
      case StoreFault::badJson:
      case StoreFault::rootNotObject:
      case StoreFault::elementNotObject:
        return "IsObject()";
      case StoreFault::eventsNotArray:
        return "IsArray()";
      case StoreFault::memberNotString:
        return "IsString()";
      case StoreFault::memberNotNumber:
        return "IsNumber()";
      default:
        break;
    }
  }
  return nullptr;
}

StoreReading readStoreBytes(std::string_view bytes, KronlogReader::Status& into, Tracing tracing) {
  return Reading(into, tracing).run(bytes);
}

namespace {
// Reads `fd` to its end; 0, or the errno of the read that failed.
int readAll(int fd, std::string* bytes) {
  char chunk[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      bytes->append(chunk, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      return n == 0 ? 0 : errno;
    }
  }
}

StoreReading cannotRead(const char* verb, const std::string& name, std::size_t at, int error) {
  StoreReading reading;
  reading.problems.push_back(
      {StoreFault::cannotRead, at, std::string(verb) + " " + name + ": " + std::strerror(error)});
  return reading;
}
}  // namespace

int readWholeFile(const char* path, std::string* bytes, bool* opened) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  *opened = fd >= 0;
  if (fd < 0) return errno;
  const int error = readAll(fd, bytes);
  ::close(fd);
  return error;
}

StoreReading readStore(std::string_view bytes, KronlogReader::Status& into) {
  return readStoreBytes(bytes, into, Tracing::off);
}

StoreReading readStoreFile(const std::string& path, KronlogReader::Status& into) {
  std::string bytes;
  bool opened = false;
  if (const int error = readWholeFile(path.c_str(), &bytes, &opened)) {
    return cannotRead(opened ? "cannot read" : "cannot open", path, bytes.size(), error);
  }
  return readStore(bytes, into);
}

StoreReading readStoreDescriptor(int fd, const std::string& name, KronlogReader::Status& into) {
  std::string bytes;
  if (const int error = readAll(fd, &bytes))
    return cannotRead("cannot read", name, bytes.size(), error);
  return readStore(bytes, into);
}

}  // namespace KronlogStore
