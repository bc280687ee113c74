#include "tools/Output.h"

#include "tools/Json.h"
#include "tools/TimeArg.h"

namespace KronlogTool {

bool parseOutputFormat(const std::string& text, OutputFormat* out) {
  if (text == "short")
    *out = OutputFormat::shortText;
  else if (text == "json")
    *out = OutputFormat::json;
  else if (text == "jsonl")
    *out = OutputFormat::jsonl;
  else
    return false;
  return true;
}

std::string escapeForTerminal(const char* data, std::size_t size) {
  std::string out;
  out.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    const auto c = static_cast<unsigned char>(data[i]);
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
    } else if (c == 0xc2 && i + 1 < size && static_cast<unsigned char>(data[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(data[i + 1]) <= 0x9f) {
      // U+0080..U+009F: some terminals act on these as control codes.
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned char>(data[i + 1]));
      out += buf;
      ++i;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

namespace {

void writeJsonEntry(Json::Writer& writer, const KronlogReader::LogEntry& e) {
  writer.StartObject();
  writer.Key("timestamp");
  writer.Double(e.timestamp());
  writer.Key("agentName");
  writer.String(e.agentName().data(), static_cast<rapidjson::SizeType>(e.agentName().size()));
  writer.Key("messageGroup");
  writer.String(e.messageGroup().data(), static_cast<rapidjson::SizeType>(e.messageGroup().size()));
  writer.Key("message");
  writer.String(e.message().data(), static_cast<rapidjson::SizeType>(e.message().size()));
  writer.EndObject();
}

}  // namespace

void writeEntries(std::FILE* out, const KronlogReader::Status& status, OutputFormat format) {
  if (format == OutputFormat::shortText) {
    for (auto it = status.logIterConst(); it; ++it) {
      const KronlogReader::LogEntry& e = *it->value();
      std::string line = formatTime(e.timestamp());
      line += ' ';
      line += escapeForTerminal(e.agentName().data(), e.agentName().size());
      line += ' ';
      line += escapeForTerminal(e.messageGroup().data(), e.messageGroup().size());
      line += ' ';
      line += escapeForTerminal(e.message().data(), e.message().size());
      line += '\n';
      std::fwrite(line.data(), 1, line.size(), out);
    }
    return;
  }
  if (format == OutputFormat::jsonl) {
    for (auto it = status.logIterConst(); it; ++it) {
      Json::Buffer buffer;
      Json::Writer writer(buffer);
      writeJsonEntry(writer, *it->value());
      std::fwrite(buffer.GetString(), 1, buffer.GetSize(), out);
      std::fputc('\n', out);
    }
    return;
  }
  Json::Buffer buffer;
  Json::Writer writer(buffer);
  writer.StartArray();
  for (auto it = status.logIterConst(); it; ++it) writeJsonEntry(writer, *it->value());
  writer.EndArray();
  std::fwrite(buffer.GetString(), 1, buffer.GetSize(), out);
  std::fputc('\n', out);
}

}  // namespace KronlogTool
