// Writing entries for people (short, cat) and for programs (json, jsonl),
// one entry at a time, so that any command that produces entries (show now,
// a live follow later) prints them the same way.
#ifndef KRONLOG_TOOLS_OUTPUT_H
#define KRONLOG_TOOLS_OUTPUT_H

#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "tools/Sink.h"

namespace KronlogTool {

enum class OutputMode { shortText, cat, json, jsonl };
enum class Field { time, agent, group, message };

struct OutputOptions {
  OutputMode mode = OutputMode::shortText;
  std::vector<Field> fields = {Field::time, Field::agent, Field::group, Field::message};
  bool localTime = false;  // short: local time with its offset, else UTC
  bool colour = false;     // short: time dimmed, agent and group coloured
};

// "short", "cat", "json", "jsonl". False for anything else.
bool parseOutputMode(const std::string& text, OutputMode* out);
// A comma-separated list of time, agent, group, message, each at most once
// ("agent,message"). False, with `error` set, otherwise.
bool parseFields(const std::string& text, std::vector<Field>* out, std::string* error);

// Makes text safe for one terminal line: control characters (C0, DEL and
// the C1 range as UTF-8) and the backslash are escaped, so that no text can
// start a new line or send an escape sequence.
std::string escapeForTerminal(const std::string& text);

// One entry in `options.mode`: a line with its line feed for short, cat and
// jsonl; the bare object for json (EntryPrinter frames the array).
std::string formatEntry(const KronlogReader::LogEntry& entry, const OutputOptions& options);

// Prints a sequence of entries, framing json as one array.
class EntryPrinter {
 public:
  EntryPrinter(Sink& sink, const OutputOptions& options) : sink_(sink), options_(options) {}
  void print(const KronlogReader::LogEntry& entry);
  // Closes the json array (an empty one if nothing was printed).
  void finish();

 private:
  Sink& sink_;
  const OutputOptions& options_;
  std::size_t printed_ = 0;
};

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_OUTPUT_H
