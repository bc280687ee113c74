// Writing merged entries for people (short) and for programs (json, jsonl).
#ifndef KRONLOG_TOOLS_OUTPUT_H
#define KRONLOG_TOOLS_OUTPUT_H

#include <cstdio>
#include <string>

#include "kronlog/KronlogReader.h"

namespace KronlogTool {

enum class OutputFormat { shortText, json, jsonl };

bool parseOutputFormat(const std::string& text, OutputFormat* out);

// Makes text safe for one terminal line: control characters (C0, DEL and
// the C1 range as UTF-8) and the backslash are escaped, so that no message
// can start a new line or send an escape sequence.
std::string escapeForTerminal(const char* data, std::size_t size);

// Writes the status log, oldest first.
void writeEntries(std::FILE* out, const KronlogReader::Status& status, OutputFormat format);

}  // namespace KronlogTool

#endif  // KRONLOG_TOOLS_OUTPUT_H
