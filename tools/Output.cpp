#include "tools/Output.h"

#include <cstdio>

#include "kronlog/KronlogStore.h"
#include "tools/TimeArg.h"

namespace KronlogTool {

namespace {

constexpr char kDim[] = "\x1b[2m";
constexpr char kAgentColour[] = "\x1b[36m";  // cyan
constexpr char kGroupColour[] = "\x1b[33m";  // yellow
constexpr char kReset[] = "\x1b[0m";

const char* const kFieldNames[] = {"time", "agent", "group", "message"};

}  // namespace

bool parseOutputMode(const std::string& text, OutputMode* out) {
  static const std::pair<const char*, OutputMode> kModes[] = {{"short", OutputMode::shortText},
                                                              {"cat", OutputMode::cat},
                                                              {"json", OutputMode::json},
                                                              {"jsonl", OutputMode::jsonl}};
  for (const auto& [name, mode] : kModes) {
    if (text == name) return *out = mode, true;
  }
  return false;
}

bool parseFields(const std::string& text, std::vector<Field>* out, std::string* error) {
  std::vector<Field> fields;
  std::size_t from = 0;
  for (;;) {
    const std::size_t comma = text.find(',', from);
    const std::string name = text.substr(from, comma == std::string::npos ? comma : comma - from);
    int found = -1;
    for (int f = 0; f < 4; ++f) {
      if (name == kFieldNames[f]) found = f;
    }
    if (found < 0) {
      *error = "unknown field '" + name + "': expected time, agent, group or message";
      return false;
    }
    for (Field f : fields) {
      if (f == static_cast<Field>(found)) {
        *error = "field '" + name + "' given twice";
        return false;
      }
    }
    fields.push_back(static_cast<Field>(found));
    if (comma == std::string::npos) break;
    from = comma + 1;
  }
  *out = fields;
  return true;
}

std::string escapeForTerminal(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    char buf[8];
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f) {
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    } else if (c == 0xc2 && i + 1 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
      // U+0080..U+009F: some terminals act on these as control codes.
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
      out += buf;
      ++i;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string formatEntry(const KronlogReader::LogEntry& e, const OutputOptions& options) {
  switch (options.mode) {
    case OutputMode::json:
      return KronlogStore::entryJson(e);
    case OutputMode::jsonl:
      return KronlogStore::entryJson(e) + '\n';
    case OutputMode::cat:
      return escapeForTerminal(e.message().stdString()) + '\n';
    case OutputMode::shortText:
      break;
  }
  std::string line;
  for (const Field f : options.fields) {
    if (!line.empty()) line += ' ';
    const char* colour = nullptr;
    std::string text;
    switch (f) {
      case Field::time:
        text = formatTime(e.timestamp(), options.localTime), colour = kDim;
        break;
      case Field::agent:
        text = escapeForTerminal(e.agentName().stdString()), colour = kAgentColour;
        break;
      case Field::group:
        text = escapeForTerminal(e.messageGroup().stdString()), colour = kGroupColour;
        break;
      case Field::message:
        text = escapeForTerminal(e.message().stdString());
        break;
    }
    if (options.colour && colour) {
      line += colour + text + kReset;
    } else {
      line += text;
    }
  }
  return line + '\n';
}

void EntryPrinter::print(const KronlogReader::LogEntry& entry) {
  if (options_.mode == OutputMode::json) sink_.write(printed_ == 0 ? "[" : ",");
  sink_.write(formatEntry(entry, options_));
  ++printed_;
}

void EntryPrinter::finish() {
  if (options_.mode == OutputMode::json) sink_.write(printed_ == 0 ? "[]\n" : "]\n");
}

}  // namespace KronlogTool
