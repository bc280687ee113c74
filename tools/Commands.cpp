#include "tools/Commands.h"

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "kronlog/KronlogStore.h"
#include "qel/String.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/StoreCheck.h"
#include "tools/StoreView.h"
#include "tools/TimeArg.h"

namespace KronlogTool {

namespace {

const char kShowUsage[] =
    "usage: kronlog show [--store PATH] [--agent RE] [--group RE] [--since T] [--until T]\n"
    "                    [--output short|json|jsonl]\n"
    "\n"
    "Prints the merged history of a store file in time order.\n"
    "  --store PATH   the store file (default: $KRONLOG_STORE_FILE_PATH, else\n"
    "                 /mnt/flash/kronlog-persistent-store)\n"
    "  --agent RE     keep agents whose whole name matches RE (ECMAScript, case-sensitive)\n"
    "  --group RE     keep message groups whose whole name matches RE\n"
    "  --since T      keep events at or after T; --until T: at or before T\n"
    "                 T: seconds since the epoch (1700000000.5), ISO-8601 UTC\n"
    "                 (2026-11-21T10:00:00Z), or relative to now (-15m, -2h, -1d)\n"
    "  --output FMT   short (default): time agent group message, one line each;\n"
    "                 json: one array; jsonl: one object per line\n"
    "Exit status: 0 ok, 1 store missing or not restorable, 2 usage error.\n";

const char kCheckUsage[] =
    "usage: kronlog check [--store PATH]\n"
    "\n"
    "Validates a store file without restoring it: header lines, JSON syntax,\n"
    "member types, and the entries per agent and group.\n"
    "Exit status: 0 the library restores it completely; 1 a restore would end\n"
    "the process or drop entries (the reason is printed); 2 usage error.\n";

int usageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "kronlog %s: %s (try 'kronlog %s --help')\n", command, message.c_str(),
               command);
  return kExitUsage;
}

bool wantsHelp(const Args& args) {
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") return true;
  }
  return false;
}

}  // namespace

std::string defaultStorePath() {
  const char* env = std::getenv("KRONLOG_STORE_FILE_PATH");
  return env ? env : KronlogStore::Store::klStoreFile().stdString();
}

int checkCommand(const Args& args) {
  if (wantsHelp(args)) {
    std::fputs(kCheckUsage, stdout);
    return kExitOk;
  }
  Options options;
  if (!options.parse(args, {"store"}, {})) return usageError("check", options.error());
  const std::string path = options.value("store", defaultStorePath());
  StoreCheck c = checkStoreFile(path);
  if (c.unreadable) {
    std::fprintf(stderr, "kronlog check: %s\n", c.problems.front().c_str());
    return kExitData;
  }
  std::printf("%s: %zu events, %zu entries on restore\n", path.c_str(), c.elements, c.entries);
  for (const auto& group : c.perGroup) {
    std::printf("  %-24s %-24s %zu\n",
                escapeForTerminal(group.first.first.data(), group.first.first.size()).c_str(),
                escapeForTerminal(group.first.second.data(), group.first.second.size()).c_str(),
                group.second);
  }
  for (const std::string& w : c.warnings) std::printf("warning: %s\n", w.c_str());
  for (const std::string& p : c.problems) std::printf("problem: %s\n", p.c_str());
  if (c.fatal) {
    std::fprintf(stderr, "kronlog check: %s: restoring it would end the process: %s\n",
                 path.c_str(), c.problems.front().c_str());
    return kExitData;
  }
  if (c.lossy) {
    std::fprintf(stderr, "kronlog check: %s: restoring it would drop entries: %s\n", path.c_str(),
                 c.problems.front().c_str());
    return kExitData;
  }
  std::printf("ok: restorable\n");
  return kExitOk;
}

int showCommand(const Args& args) {
  if (wantsHelp(args)) {
    std::fputs(kShowUsage, stdout);
    return kExitOk;
  }
  Options options;
  if (!options.parse(args, {"store", "agent", "group", "since", "until", "output"}, {})) {
    return usageError("show", options.error());
  }
  Filter filter;
  filter.agentPattern = options.value("agent", ".*");
  filter.messageGroupPattern = options.value("group", ".*");
  for (const char* name : {"agent", "group"}) {
    try {
      std::regex(options.value(name, ".*"), std::regex::ECMAScript);
    } catch (const std::regex_error& e) {
      return usageError("show", "bad --" + std::string(name) + " pattern '" + options.value(name) +
                                    "': " + e.what());
    }
  }
  const double now = Qel::utcNow();
  std::string error;
  if (options.has("since") &&
      !parseTime(options.value("since"), now, &filter.minTimestamp, &error)) {
    return usageError("show", "--since: " + error);
  }
  if (options.has("until") &&
      !parseTime(options.value("until"), now, &filter.maxTimestamp, &error)) {
    return usageError("show", "--until: " + error);
  }
  OutputFormat format = OutputFormat::shortText;
  if (!parseOutputFormat(options.value("output", "short"), &format)) {
    return usageError(
        "show", "bad --output '" + options.value("output") + "': expected short, json or jsonl");
  }

  const std::string path = options.value("store", defaultStorePath());
  StoreCheck c = checkStoreFile(path);
  if (c.unreadable) {
    std::fprintf(stderr, "kronlog show: %s\n", c.problems.front().c_str());
    return kExitData;
  }
  if (c.fatal) {
    std::fprintf(stderr, "kronlog show: %s cannot be read: %s (see 'kronlog check --store %s')\n",
                 path.c_str(), c.problems.front().c_str(), path.c_str());
    return kExitData;
  }
  for (const std::string& p : c.problems) {
    std::fprintf(stderr, "kronlog show: warning: %s\n", p.c_str());
  }
  KronlogReader::Status::Ptr merged = mergeStore(*loadStore(path), filter);
  writeEntries(stdout, *merged, format);
  return kExitOk;
}

}  // namespace KronlogTool
