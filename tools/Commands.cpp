#include "tools/Commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "kronlog/KronlogStore.h"
#include "qel/String.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/Pager.h"
#include "tools/ShowArgs.h"
#include "tools/Sink.h"
#include "tools/StoreView.h"
#include "tools/Usage.h"

namespace KronlogTool {

namespace {

const std::vector<OptionSpec> kCheckOptions = {{"store", 0, true, false}};

void dataError(const char* command, const std::string& message) {
  std::fprintf(stderr, "kronlog %s: %s\n", command, escapeForTerminal(message).c_str());
}

// Why a store cannot even be read, in words that say what to do; empty when
// it can be opened.
std::string unreadableStore(const std::string& path, bool givenByUser) {
  if (path == "-") return "";
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT && !givenByUser) {
      return "no store at " + path +
             " (the default): give one with --store PATH, or set KRONLOG_STORE_FILE_PATH";
    }
    return "";  // the reading says why, with the system's words
  }
  if (S_ISDIR(st.st_mode)) {
    return path + " is a directory: give the store file in it, e.g. --store " + path +
           "/kronlog-persistent-store";
  }
  return "";
}

std::string displayName(const LoadedStore& store) {
  return store.name == "-" ? "standard input" : store.name;
}

// One line per problem: the store, the byte offset, the reason.
void reportProblem(const char* command, const LoadedStore& store,
                   const KronlogStore::StoreProblem& p) {
  if (p.fault == KronlogStore::StoreFault::cannotRead) {
    dataError(command, p.text);
    return;
  }
  dataError(command, displayName(store) + ", byte " + std::to_string(p.offset) + ": " + p.text);
}

bool colourWanted(const Options& options) {
  const char* noColour = std::getenv("NO_COLOR");
  return ::isatty(1) && !options.has("no-color") && !(noColour && *noColour) &&
         options.value("output", "short") == "short";
}

}  // namespace

int usageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "kronlog %s: %s (try 'kronlog %s --help')\n", command,
               escapeForTerminal(message).c_str(), command);
  return kExitUsage;
}

int socketPathsCheck(const char* command, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && !S_ISSOCK(st.st_mode)) {
      return usageError(command, "--socket " + path + " is not a socket");
    }
  }
  return -1;
}

int printText(const char* command, const std::string& text) {
  Sink out(1);
  out.write(text);
  if (!out.flush() && out.error() != 0) {
    dataError(command, std::string("cannot write the output: ") + std::strerror(out.error()));
    return kExitData;
  }
  return kExitOk;
}

int startCommand(const char* command, const char* usage, const Args& args, Options& options) {
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") return printText(command, usage);
  }
  return options.parse(args) ? -1 : usageError(command, options.error());
}

int showCommand(const Args& args) {
  Options options(showOptionSpecs());
  if (const int status = startCommand("show", kShowUsage, args, options); status >= 0) {
    return status;
  }
  ShowArgs show;
  std::string error;
  if (!showArgsFrom(options, Qel::utcNow(), &show, &error)) return usageError("show", error);
  OutputOptions& output = show.output;
  const Filter& filter = show.filter;
  const long long lines = show.lines;
  EntryFilter entryFilter;
  if (!entryFilter.compile(filter, &error)) return usageError("show", error);

  const bool given = options.has("store");
  std::vector<std::string> paths = options.values("store");
  if (!given) paths.push_back(KronlogStore::storeFilePath());
  int status = kExitOk;
  std::vector<LoadedStore> stores;
  for (const std::string& path : paths) {
    if (const std::string why = unreadableStore(path, given); !why.empty()) {
      dataError("show", why);
      status = kExitData;
      continue;
    }
    stores.push_back(loadStore(path));
    for (const KronlogStore::StoreProblem& p : stores.back().reading.problems) {
      // The restorer's limit is no limit of show's.
      if (p.fault == KronlogStore::StoreFault::restorerNeverEnds) continue;
      reportProblem("show", stores.back(), p);
      status = kExitData;
    }
  }
  std::vector<KronlogReader::LogEntry::Ptr> entries = mergeStores(stores, entryFilter);
  limitAndOrder(&entries, lines, options.has("reverse"));

  output.colour = colourWanted(options);
  Pager pager;
  int fd = 1;
  if (::isatty(1) && !options.has("no-pager") && !entries.empty()) {
    if (const int pipe = pager.start(); pipe >= 0) fd = pipe;
  }
  Sink sink(fd);
  EntryPrinter printer(sink, output);
  for (const KronlogReader::LogEntry::Ptr& e : entries) printer.print(*e);
  printer.finish();
  sink.flush();
  pager.wait();
  if (sink.error() != 0) {
    dataError("show", std::string("cannot write the output: ") + std::strerror(sink.error()));
    return kExitData;
  }
  return status;  // a reader that went away (| head) is not an error
}

int checkCommand(const Args& args) {
  Options options(kCheckOptions);
  if (const int status = startCommand("check", kCheckUsage, args, options); status >= 0) {
    return status;
  }
  const std::string path = options.value("store", KronlogStore::storeFilePath());
  if (const std::string why = unreadableStore(path, options.has("store")); !why.empty()) {
    dataError("check", why);
    return kExitData;
  }
  const LoadedStore store = loadStore(path);
  const KronlogStore::StoreReading& r = store.reading;
  if (!r.problems.empty() && r.problems.front().fault == KronlogStore::StoreFault::cannotRead) {
    reportProblem("check", store, r.problems.front());
    return kExitData;
  }
  Sink out(1);
  std::map<std::pair<std::string, std::string>, std::size_t> perGroup;
  for (auto it = store.entries->logIterConst(); it; ++it) {
    ++perGroup[{it->value()->agentName().stdString(), it->value()->messageGroup().stdString()}];
  }
  out.write(escapeForTerminal(displayName(store)) + ": " + std::to_string(r.events) + " events, " +
            std::to_string(r.entries) + " entries on restore\n");
  // Names of any length, whole: columns of 24, wider where a name is longer.
  const auto column = [](const std::string& name) {
    std::string text = escapeForTerminal(name);
    if (text.size() < 24) text.resize(24, ' ');
    return text;
  };
  for (const auto& [names, count] : perGroup) {
    out.write("  " + column(names.first) + " " + column(names.second) + " " +
              std::to_string(count) + "\n");
  }
  for (const KronlogStore::StoreProblem& w : r.warnings) {
    out.write("warning: byte " + std::to_string(w.offset) + ": " + escapeForTerminal(w.text) +
              "\n");
  }
  if (r.complete()) out.write("ok: restorable\n");
  if (!out.flush() && out.error() != 0) {
    dataError("check", std::string("cannot write the output: ") + std::strerror(out.error()));
    return kExitData;
  }
  if (r.complete()) return kExitOk;
  for (const KronlogStore::StoreProblem& p : r.problems) reportProblem("check", store, p);
  if (const char* check = r.fatalCheck()) {
    dataError("check", displayName(store) + ": a restore would end the process (its check " +
                           check + " fails)");
  } else if (r.problems.size() == 1 &&
             r.problems.front().fault == KronlogStore::StoreFault::restorerNeverEnds) {
    dataError("check",
              displayName(store) + ": a restore would never finish; use kronlog show to read it");
  } else {
    dataError("check",
              displayName(store) + ": a restore would not bring back every event as stored");
  }
  return kExitData;
}

}  // namespace KronlogTool
