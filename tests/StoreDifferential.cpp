// Differential check of the store reader against real restores.
//
//   store_differential COUNT SEED [--corpus DIR]... [--first FILE] [--timeout-ms N]
//
// For COUNT store files, generated from SEED (valid stores in the saver's
// format, then mutated, and mutated files of the seed corpora), it asks the
// reader whether a restore would be complete and then does the restore in a
// forked child: the child restores every agent the file names into a writer
// directory of its own and reports whether each event of the file is in
// its agent's writers exactly once and unchanged. A child that ends in an
// assertion, or does not finish within the timeout (the restorer's 8-bit
// walk over more than 255 entries), did not restore completely.
//
// What the file holds is decided here from the format's definition alone,
// with a document parse rather than the reader's streaming walk: the lines
// after the two header lines joined, one JSON document, the root object's
// "Kronlog" array, and for each element the last value of each of the four
// members. The reader is right when its verdict matches the child's.
//
// Prints the counts and the number of disagreements; the first disagreeing
// input is written to FILE (default store-differential-first.store). Exits
// 1 when there is any disagreement.
#include <fcntl.h>
#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogRestorer.h"
#include "kronlog/KronlogWriter.h"
#include "kronlog/StoreReading.h"
#include "persistence/Json.h"
#include "qel/Trace.h"

#if defined(__SANITIZE_ADDRESS__)
// Each input forks this process, and a fork copies the page tables of all
// the memory it has touched: AddressSanitizer's default quarantine of
// 256 MiB of freed blocks would make every fork cost milliseconds. A small
// one still catches a use of a block freed shortly before.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "quarantine_size_mb=8";
}
#endif

namespace {

// ---- What the file holds, by the format's definition

struct Event {
  bool whole = false;  // an object with the four members, each of its type
  std::string agentName, messageGroup, message;
  double timestamp = 0;
};

struct Holding {
  bool isStore = false;  // a format line naming JSON, and a "Kronlog" array
  std::vector<Event> events;
  // Every text an "agentName" member holds, whole and up to a NUL: where
  // the restore might put an entry that is not where it belongs.
  std::vector<std::string> agentNames;
};

void addName(std::vector<std::string>& names, const std::string& name) {
  if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
}

double numberText(const char* text) {
  static const locale_t c = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return ::strtod_l(text, nullptr, c);
}

// `typed` and `texts` are the same document, parsed once for the JSON
// types and once with the numbers kept as text.
Event eventOf(const Json::Value& typed, const Json::Value& texts,
              std::vector<std::string>& agentNames) {
  Event e;
  if (!typed.IsObject()) return e;
  const Json::Value* last[4] = {nullptr, nullptr, nullptr, nullptr};
  const Json::Value* lastText[4] = {nullptr, nullptr, nullptr, nullptr};
  static const char* const kNames[4] = {"timestamp", "agentName", "messageGroup", "message"};
  auto t = texts.MemberBegin();
  for (auto m = typed.MemberBegin(); m != typed.MemberEnd(); ++m, ++t) {
    const std::string name(m->name.GetString(), m->name.GetStringLength());
    for (int k = 0; k < 4; ++k) {
      if (name == kNames[k]) last[k] = &m->value, lastText[k] = &t->value;
    }
    if (name == kNames[1] && m->value.IsString()) {
      const std::string agent(m->value.GetString(), m->value.GetStringLength());
      addName(agentNames, agent);
      addName(agentNames, agent.substr(0, agent.find('\0')));
    }
  }
  if (!last[0] || !last[0]->IsNumber()) return e;
  for (int k = 1; k < 4; ++k) {
    if (!last[k] || !last[k]->IsString()) return e;
  }
  e.timestamp = numberText(lastText[0]->GetString());
  e.agentName.assign(last[1]->GetString(), last[1]->GetStringLength());
  e.messageGroup.assign(last[2]->GetString(), last[2]->GetStringLength());
  e.message.assign(last[3]->GetString(), last[3]->GetStringLength());
  e.whole = true;
  return e;
}

Holding holdingOf(const std::string& bytes) {
  Holding h;
  const std::size_t lf1 = bytes.find('\n');
  const std::string line1 = bytes.substr(0, lf1);
  if (line1.size() < 8 || line1.substr(8) != "JSON") return h;
  if (lf1 == std::string::npos) return h;
  const std::size_t lf2 = bytes.find('\n', lf1 + 1);
  if (lf2 == std::string::npos) return h;
  std::string text;
  for (std::size_t i = lf2 + 1; i < bytes.size(); ++i) {
    if (bytes[i] != '\n') text += bytes[i];
  }
  if (text.empty()) return h;
  // The document ends at a NUL byte, as a C string does.
  Json::Document typed, texts;
  typed.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  texts.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(text.c_str());
  if (typed.HasParseError() || texts.HasParseError() || !typed.IsObject()) return h;
  const auto events = typed.FindMember("Kronlog");
  if (events == typed.MemberEnd() || !events->value.IsArray()) return h;
  const Json::Value& eventTexts = texts.FindMember("Kronlog")->value;
  h.isStore = true;
  for (Json::SizeType i = 0; i < events->value.Size(); ++i) {
    h.events.push_back(eventOf(events->value[i], eventTexts[i], h.agentNames));
  }
  return h;
}

// ---- The restore, in a child

// Run in the child: restores each agent of the file into its own directory
// and tells whether every event came back once, unchanged.
bool restoredInPlace(const Holding& h) {
  std::vector<std::string> agents = h.agentNames;
  bool whole = h.isStore;
  for (const Event& e : h.events) whole = whole && e.whole;
  // One restore at least, so that what a restore does with this file is
  // seen even when no event names an agent.
  if (agents.empty()) agents.push_back("Agent");
  for (const std::string& agent : agents) {
    const KronlogWriter::WriterDir::Ptr dir = KronlogWriter::writerDirFactory(Qel::String(agent));
    KronlogRestorer::restorerFactory(KronlogRestorer::Config(dir));
    std::map<std::string, std::vector<const Event*>> groups;
    for (const Event& e : h.events) {
      if (e.whole && e.agentName == agent) groups[e.messageGroup].push_back(&e);
    }
    if (dir->writers() != groups.size()) whole = false;
    for (const auto& [group, expected] : groups) {
      const KronlogWriter::Writer::Ptr writer = dir->writer(Qel::String(group));
      if (!writer) {
        whole = false;
        continue;
      }
      std::size_t at = 0;
      for (auto it = writer->logIterConst(); it; ++it, ++at) {
        const KronlogWriter::LogEntry& got = it->entry();
        // Bit for bit: 0.0 and -0.0 differ, and so does a last-bit change.
        const double time = got.timestamp();
        if (at >= expected.size() || got.message().stdString() != expected[at]->message ||
            std::memcmp(&expected[at]->timestamp, &time, sizeof time) != 0) {
          whole = false;
        }
      }
      if (at != expected.size()) whole = false;
    }
  }
  return whole;
}

enum class Outcome { inPlace, notInPlace, ended, hung };

const char* const kOutcomeNames[] = {"restored every event once",
                                     "finished, not every event in place", "the process ended",
                                     "did not finish"};

Outcome restoreInChild(const Holding& h, int timeoutMs) {
  int fds[2];
  if (::pipe(fds) != 0) std::perror("pipe"), std::exit(2);
  const pid_t pid = ::fork();
  if (pid < 0) std::perror("fork"), std::exit(2);
  if (pid == 0) {
    ::close(fds[0]);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::dup2(null, 2);
    const char verdict = restoredInPlace(h) ? 'y' : 'n';
    if (::write(fds[1], &verdict, 1) != 1) ::_exit(3);
    ::_exit(0);
  }
  ::close(fds[1]);
  pollfd p{fds[0], POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&p, 1, timeoutMs);
  } while (ready < 0 && errno == EINTR);
  char verdict = 0;
  bool killed = false;
  if (ready == 0) {
    ::kill(pid, SIGKILL);
    killed = true;
  } else if (::read(fds[0], &verdict, 1) != 1) {
    verdict = 0;
  }
  ::close(fds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (killed) return Outcome::hung;
  if (verdict == 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return Outcome::ended;
  return verdict == 'y' ? Outcome::inPlace : Outcome::notInPlace;
}

// ---- Inputs

class Generator {
 public:
  Generator(std::uint64_t seed, std::vector<std::string> seeds)
      : rng_(seed), seeds_(std::move(seeds)) {}

  std::string next() {
    std::string bytes;
    if (!seeds_.empty() && chance(0.1)) {
      bytes = seeds_[below(seeds_.size())];
      mutateBytes(bytes, 1 + below(4));
      return bytes;
    }
    // Around the restorer's limit of 255 entries: rare, since a walk that
    // never ends costs the whole timeout, and left whole, since the limit
    // is what such a store is for.
    if (chance(0.003)) return limitStore();
    bytes = store();
    if (chance(0.25)) mutateBytes(bytes, 1 + below(3));
    return bytes;
  }

 private:
  using Members = std::vector<std::pair<std::string, std::string>>;  // key, value as JSON

  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
  std::size_t below(std::size_t n) {
    return n == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_);
  }
  template <class T, std::size_t N>
  const T& pick(const T (&items)[N]) {
    return items[below(N)];
  }
  // One of the blank-separated words of `list`.
  std::string word(const char* list) {
    std::istringstream in(list);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words[below(words.size())];
  }

  static std::string jsonString(const std::string& text) {
    Json::Buffer buffer;
    Json::Writer writer(buffer);
    writer.String(text.data(), static_cast<Json::SizeType>(text.size()));
    return std::string(buffer.GetString(), buffer.GetSize());
  }
  static std::string jsonDouble(double v) {
    Json::Buffer buffer;
    Json::Writer writer(buffer);
    writer.Double(v);
    return std::string(buffer.GetString(), buffer.GetSize());
  }

  std::string text() {
    static const char* const kWords[] = {"up",       "down", "peer 10.0.0.1", "full \xC3\xA9",
                                         "",         "a\"q", "back\\slash",   "tab\there",
                                         "\x01\x1f", "\xFF"};
    std::string t = pick(kWords);
    if (chance(0.3)) t += std::to_string(below(1000));
    return t;
  }
  double timestamp() {
    static const double kTimes[] = {0.0,    -0.0,     1.0,     1700000000.5,
                                    1e-300, 4.9e-324, 1.7e308, -12.25};
    if (chance(0.5)) return pick(kTimes);
    return std::uniform_real_distribution<double>(0, 2e9)(rng_);
  }
  // A value of another JSON type than the member's.
  std::string otherValue() {
    return word(
        "null true false [] {} \"1\" 1 -0 1e400 [\"x\"] {\"message\":\"m\"} "
        "123456789012345678901234567890");
  }
  std::string nested(std::size_t depth) {
    std::string open, close;
    for (std::size_t i = 0; i < depth; ++i) {
      const bool array = chance(0.5);
      open += array ? "[" : "{\"k\":";
      close = (array ? "]" : "}") + close;
    }
    return open + "0" + close;
  }

  // An event as the saver writes it.
  Members savedEvent() {
    static const char* const kAgents[] = {"Bgp", "Ospf", "A", "", "Agent-\xC3\xBC"};
    static const char* const kGroups[] = {"peer", "adj", "g", "", "x y"};
    return {{"timestamp", jsonDouble(timestamp())},
            {"agentName", jsonString(pick(kAgents))},
            {"messageGroup", jsonString(pick(kGroups))},
            {"message", jsonString(text())}};
  }

  Members event() {
    Members m = savedEvent();
    if (chance(0.85)) return m;
    static const std::string kKeys[] = {"timestamp",
                                        "agentName",
                                        "messageGroup",
                                        "message",
                                        "Message",
                                        "extra",
                                        "Kronlog",
                                        "",
                                        std::string("message\0", 8),
                                        std::string("agent\0Name", 10)};
    const auto anywhere = [&] { return m.begin() + static_cast<long>(below(m.size() + 1)); };
    auto& any = m[below(m.size())];
    switch (below(10)) {
      case 0:
        std::shuffle(m.begin(), m.end(), rng_);
        break;
      case 1:
        m.erase(m.begin() + static_cast<long>(below(m.size())));
        break;
      case 2:  // an extra member, anywhere
        m.insert(anywhere(), {pick(kKeys), chance(0.5) ? otherValue() : jsonString(text())});
        break;
      case 3: {  // a member repeated, with its value or another
        const auto copy = any;
        m.insert(anywhere(), chance(0.5) ? copy : std::make_pair(copy.first, jsonString(text())));
        break;
      }
      case 4:
        any.first = pick(kKeys);
        break;
      case 5:
        any.second = otherValue();
        break;
      case 6:  // a value nested in a container
        any.second = chance(0.5) ? "[" + any.second + "]" : "{\"v\":" + any.second + "}";
        break;
      case 7:  // a text holding a NUL
        m[1 + below(3)].second = jsonString(std::string("be\0fore", 7));
        break;
      case 8:  // a timestamp written otherwise than the saver writes it
        m[0].second = word(
            "17e8 1E2 -0 -0.0e-0 1e-400 0.1e-320 1700000000 18446744073709551616 "
            "9007199254740993 2.2250738585072011e-308 1.7976931348623157e308 "
            "1e309 01 1.");
        break;
      default:
        m.push_back({"extra", nested(1 + below(4))});
        break;
    }
    return m;
  }

  static std::string object(const Members& m) {
    std::string s = "{";
    for (std::size_t i = 0; i < m.size(); ++i) {
      s += (i ? "," : "") + jsonString(m[i].first) + ":" + m[i].second;
    }
    return s + "}";
  }

  std::string store() {
    std::string elements;
    for (std::size_t i = 0, count = below(12); i < count; ++i) {
      // Now and then an element that is not an object.
      elements += (i ? "," : "") + (chance(0.01) ? otherValue() : object(event()));
    }
    const std::string array = "[" + elements + "]";
    std::string root = "{\"Kronlog\":" + array + "}";
    if (chance(0.1)) {
      const std::string roots[] = {
          "{\"before\":" + nested(1 + below(3)) + ",\"Kronlog\":" + array + "}",
          "{\"Kronlog\":" + array + ",\"Kronlog\":" + array + "}",
          "{\"Kronlog\":" + otherValue() + ",\"Kronlog\":" + array + "}",
          "{\"kronlog\":" + array + "}", "[" + root + "]",
          // nesting around the reader's depth limit
          "{\"deep\":" + nested(996 + below(8)) + ",\"Kronlog\":" + array + "}",
          "{\"Kronlog\":{\"x\":" + array + "}}", root + " \t"};
      root = pick(roots);
    }
    std::string head = "FORMAT: JSON\nVERSION: 1\n", end = "\n";
    if (chance(0.05)) {
      const std::string heads[] = {"FORMAT: JSON\nVERSION: 2\n", "FORMAT: JSON\r\nVERSION: 1\r\n",
                                   "\xEF\xBB\xBF" + head, "FORMAT:JSON\nVERSION: 1\n",
                                   "format: JSON\nVERSION: 1\n"};
      const std::size_t k = below(7);
      if (k < 5) {
        head = heads[k];
      } else if (k == 5) {
        end = std::string("\0trailing", 9);
      } else {
        root.clear();
      }
    }
    return head + root + end;
  }

  // 253 to 257 entries, one of them perhaps from an event with a repeated
  // member (added twice).
  std::string limitStore() {
    const std::size_t count = 252 + below(5);
    const std::size_t twice = chance(0.5) ? below(count) : count;
    std::string elements;
    for (std::size_t i = 0; i < count; ++i) {
      Members m = savedEvent();
      if (i == twice) m.push_back(m[3]);
      elements += (i ? "," : "") + object(m);
    }
    return "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[" + elements + "]}\n";
  }

  void mutateBytes(std::string& s, std::size_t times) {
    // JSON's structural bytes, blanks, number parts and a UTF-8 lead and
    // continuation byte.
    static const char kBytes[] = "{}[],:\"\\\n \r0-e\xC3\x80";
    for (std::size_t n = 0; n < times; ++n) {
      const std::size_t at = below(s.size() + 1);
      switch (below(9)) {
        case 0:
          if (at < s.size()) s[at] = static_cast<char>(below(256));
          break;
        case 1:
          if (at < s.size()) s[at] = static_cast<char>(s[at] ^ (1 << below(8)));
          break;
        case 2:
          s.insert(at, chance(0.5) ? std::string(1, kBytes[below(sizeof kBytes - 1)])
                                   : word("\\u0000 1e999 null \"timestamp\" \"agentName\" "
                                          "\"message\" \"messageGroup\" \"Kronlog\""));
          break;
        case 3:
          s.erase(at, 1 + below(8));
          break;
        case 4:
          s.resize(at);
          break;
        case 5: {  // a line repeated
          const std::size_t from = s.rfind('\n', at == 0 ? 0 : at - 1);
          const std::size_t start = from == std::string::npos ? 0 : from + 1;
          const std::size_t lf = s.find('\n', start);
          const std::size_t stop = lf == std::string::npos ? s.size() : lf + 1;
          s.insert(stop, s.substr(start, stop - start));
          break;
        }
        case 6:  // a range repeated
          s.insert(at, s.substr(at, 1 + below(40)));
          break;
        default:  // a line break or a NUL
          s.insert(at, 1, chance(0.5) ? '\n' : '\0');
          break;
      }
    }
  }

  std::mt19937_64 rng_;
  std::vector<std::string> seeds_;
};

std::vector<std::string> readCorpus(const std::string& dir) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& e : std::filesystem::directory_iterator(dir, error)) {
    std::ifstream in(e.path(), std::ios::binary);
    files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (error) {
    std::cerr << "store_differential: cannot open corpus " << dir << "\n";
    std::exit(2);
  }
  return files;
}

int usage() {
  std::cerr << "usage: store_differential COUNT SEED [--corpus DIR]... [--first FILE] "
               "[--timeout-ms N]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  const std::uint64_t count = std::strtoull(argv[1], nullptr, 10);
  const std::uint64_t seed = std::strtoull(argv[2], nullptr, 10);
  std::vector<std::string> seeds;
  std::string firstPath = "store-differential-first.store";
  int timeoutMs = 500;
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return usage();
    if (arg == "--corpus") {
      for (std::string& f : readCorpus(argv[++i])) seeds.push_back(std::move(f));
    } else if (arg == "--first") {
      firstPath = argv[++i];
    } else if (arg == "--timeout-ms") {
      timeoutMs = std::atoi(argv[++i]);
    } else {
      return usage();
    }
  }

  // The restores trace every entry at level 0: keep the children quiet.
  Qel::traceLevelsIs("Kronlog", 0);
  char storePath[] = "/tmp/store-differential-XXXXXX";
  const int fd = ::mkstemp(storePath);
  if (fd < 0) return std::perror("mkstemp"), 2;
  ::close(fd);
  ::setenv("KRONLOG_STORE_FILE_PATH", storePath, 1);

  Generator generator(seed, seeds);
  std::uint64_t disagreements = 0, complete = 0, counts[4] = {0, 0, 0, 0};
  std::map<int, std::uint64_t> firstProblems;  // by fault, for what the inputs reached
  for (std::uint64_t n = 0; n < count; ++n) {
    const std::string bytes = generator.next();
    {
      std::ofstream out(storePath, std::ios::binary | std::ios::trunc);
      out << bytes;
    }
    KronlogReader::Status::Ptr status = KronlogReader::statusFactory();
    const KronlogStore::StoreReading reading = KronlogStore::readStoreFile(storePath, *status);
    const Outcome outcome = restoreInChild(holdingOf(bytes), timeoutMs);
    ++counts[static_cast<int>(outcome)];
    complete += reading.complete() ? 1 : 0;
    if (!reading.complete()) ++firstProblems[static_cast<int>(reading.problems.front().fault)];
    if (reading.complete() == (outcome == Outcome::inPlace)) continue;
    if (disagreements++ == 0) {
      std::ofstream out(firstPath, std::ios::binary | std::ios::trunc);
      out << bytes;
      std::cout << "input " << n << " disagrees: the reader says "
                << (reading.complete() ? "complete" : "incomplete") << " ("
                << (reading.problems.empty() ? std::string("no problem")
                                             : reading.problems.front().text)
                << "), the restore " << kOutcomeNames[static_cast<int>(outcome)] << "; written to "
                << firstPath << "\n";
    }
  }
  ::unlink(storePath);
  std::cout << "inputs: " << count << " (seed " << seed << ")\n"
            << "reader says complete: " << complete << "\n"
            << "restores: " << counts[0] << " complete, " << counts[1] << " incomplete, "
            << counts[2] << " ended the process, " << counts[3] << " did not finish\n"
            << "reader's first problem, by fault number:";
  for (const auto& [fault, n] : firstProblems) std::cout << " " << fault << ":" << n;
  std::cout << "\ndisagreements: " << disagreements << "\n";
  return disagreements == 0 ? 0 : 1;
}
