// The tool's help texts, one per command. The manual page kronlog(1)
// describes the same options; a test keeps the two in step.
#ifndef KRONLOG_TOOLS_USAGE_H
#define KRONLOG_TOOLS_USAGE_H

namespace KronlogTool {

inline constexpr char kUsage[] =
    "usage: kronlog <command> [options]\n"
    "\n"
    "commands:\n"
    "  show    print the merged history of store files, filtered\n"
    "  check   tell whether a store file restores completely, and why not\n"
    "  demo    run the whole system once, end to end\n"
    "  emit    record each line of standard input as an event, served live\n"
    "  follow  print agents' events live from their sockets, with every loss\n"
    "  collect keep copies of agents and save their merged history to a store\n"
    "  help    describe a command: kronlog help show\n"
    "\n"
    "'kronlog <command> --help' describes a command; 'kronlog --version' the version.\n"
    "Exit status: 0 ok, 1 data error, 2 usage error.\n";

inline constexpr char kShowUsage[] =
    "usage: kronlog show [options]\n"
    "\n"
    "Prints the merged history of one or more store files, oldest first.\n"
    "  --store PATH         a store file, '-' for standard input; repeat to merge\n"
    "                       several by timestamp (default: $KRONLOG_STORE_FILE_PATH,\n"
    "                       else /mnt/flash/kronlog-persistent-store)\n"
    "  --agent RE           keep agents whose whole name matches RE (ECMAScript);\n"
    "                       repeat: any of them matches\n"
    "  --group RE           the same for message groups\n"
    "  -g, --grep RE        keep events whose message matches RE anywhere\n"
    "  -i, --case-insensitive\n"
    "                       --agent, --group and --grep ignore case\n"
    "  --since T            keep events at or after T\n"
    "  --until T            keep events at or before T\n"
    "                       T: 1700000000.5, 2026-11-21T10:00:00Z,\n"
    "                       2026-11-21T10:00:00+02:00, 2026-11-21 10:00 (local),\n"
    "                       2026-11-21 (local midnight), today, yesterday, now,\n"
    "                       -15m, -1h30m, -2d (before now)\n"
    "  -n, --lines N        only the last N events after filtering\n"
    "  -r, --reverse        newest first\n"
    "  -o, --output FMT     short (default): time agent group message, one line each;\n"
    "                       cat: the message alone; json: one array;\n"
    "                       jsonl: one object per line\n"
    "  --fields LIST        the columns of short, in order: time,agent,group,message\n"
    "  --localtime          short shows local time with its offset (default: UTC, Z)\n"
    "  --no-color           no colour (also when NO_COLOR is set, or not a terminal)\n"
    "  --no-pager           do not page (the pager is $PAGER, else less -FRSX)\n"
    "In json and jsonl, a text that is not valid UTF-8 is an array of its byte values.\n"
    "Exit status: 0 ok; 1 a store missing, unreadable or not wholly readable (each\n"
    "problem is one line on stderr, with its byte offset), or output that cannot be\n"
    "written; 2 usage error.\n";

inline constexpr char kCheckUsage[] =
    "usage: kronlog check [options]\n"
    "\n"
    "Tells whether the library restores a store file completely, without\n"
    "restoring it: header lines, JSON syntax and shape, each event's members,\n"
    "and the number of entries; lists the entries per agent and group.\n"
    "  --store PATH         the store file, '-' for standard input (default:\n"
    "                       $KRONLOG_STORE_FILE_PATH, else\n"
    "                       /mnt/flash/kronlog-persistent-store)\n"
    "Exit status: 0 the library restores it completely; 1 a restore would end\n"
    "the process, never finish, or not bring back every event (each problem is\n"
    "one line on stderr, with its byte offset); 2 usage error.\n";

inline constexpr char kDemoUsage[] =
    "usage: kronlog demo [options]\n"
    "\n"
    "Runs the whole system once: a child process plays a device's agents,\n"
    "records events (some overflow), reads them merged and saves the store;\n"
    "a second process restores one agent's history; then the store is shown.\n"
    "Last, an agent process records while the demo follows it live through a\n"
    "moment when it is too slow: the loss is reported exactly, and the copy's\n"
    "counters end equal to the agent's.\n"
    "  --store PATH         where the store file goes (default: ./kronlog-demo-store)\n";

inline constexpr char kEmitUsage[] =
    "usage: kronlog emit --agent NAME --group GROUP [options]\n"
    "\n"
    "A stand-in agent: records each line of standard input as one event of\n"
    "writer GROUP in writer directory NAME, and serves the directory on a\n"
    "socket while it runs. At the end of input it waits (at most 10 s) until\n"
    "every connected follower has received everything, then exits.\n"
    "  --agent NAME         the writer directory (the agent's name)\n"
    "  --group GROUP        the writer (the message group)\n"
    "  --socket PATH        where to serve (default: $XDG_RUNTIME_DIR/kronlog/NAME.sock,\n"
    "                       else /run/kronlog/NAME.sock)\n"
    "  --size N             the writer keeps N events (default 10)\n"
    "  --keep first|last    when full: refuse new events, or evict the oldest (default)\n"
    "A line longer than 65536 bytes is cut to that length.\n"
    "Exit status: 0 ok; 1 the socket cannot be served or the input cannot be read;\n"
    "2 usage error.\n";

inline constexpr char kFollowUsage[] =
    "usage: kronlog follow --socket PATH [options]\n"
    "\n"
    "Prints the events agents hold now, then new ones as they are recorded,\n"
    "merged by timestamp across sockets, with a line for every event lost:\n"
    "evicted before it was received (slow), or refused by a full writer\n"
    "(overflow). Reconnects when an agent goes away, without printing an event\n"
    "twice. SIGINT or SIGTERM ends it (exit 0).\n"
    "  --socket PATH        an agent's socket; repeat to follow several\n"
    "  --agent RE           keep agents whose whole name matches RE (ECMAScript);\n"
    "                       repeat: any of them matches\n"
    "  --group RE           the same for message groups\n"
    "  -n, --lines N        of the events held at the start, only the last N\n"
    "  -o, --output FMT     short (default), json (one array, closed at the end),\n"
    "                       jsonl (one object per line); events carry their index,\n"
    "                       losses are {agentName, messageGroup, lost, reason,\n"
    "                       fromIndex, toIndex}\n"
    "  --exit-on-close      exit once every socket has closed, instead of reconnecting\n"
    "Exit status: 0 ok; 1 output that cannot be written; 2 usage error.\n";

inline constexpr char kCollectUsage[] =
    "usage: kronlog collect --socket PATH --store FILE [options]\n"
    "\n"
    "Mounts agents' writer directories read-only and saves their merged history\n"
    "to a store file with the library's saver, every few seconds and when ended\n"
    "by SIGINT or SIGTERM. The copy of an agent that goes away is kept, and saved.\n"
    "  --socket PATH        an agent's socket; repeat to collect several\n"
    "  --store FILE         the store file to write (replaced whole at each save)\n"
    "  --every SECONDS      time between saves (default 60)\n"
    "Exit status: 0 ok; 1 cannot start; 2 usage error.\n";

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_USAGE_H
