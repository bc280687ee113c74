#include "persistence/EntryJson.h"

#include <cstdint>

#include "kronlog/KronlogStore.h"

namespace KronlogStore {

namespace {

void writeText(Json::Writer& writer, const Qel::String& text, TextForm form) {
  if (form == TextForm::stored) {
    writer.String(text.c_str());  // cut at the first NUL
  } else if (isUtf8(text.view())) {
    writer.String(text.data(), static_cast<Json::SizeType>(text.size()));
  } else {
    writer.StartArray();
    for (const char c : text.view()) writer.Uint(static_cast<unsigned char>(c));
    writer.EndArray();
  }
}

}  // namespace

bool isUtf8(std::string_view text) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  while (p < end) {
    const unsigned lead = *p++;
    if (lead < 0x80) continue;
    std::size_t more;
    std::uint32_t code, least;
    if (lead >= 0xC2 && lead <= 0xDF) {
      more = 1, code = lead & 0x1F, least = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      more = 2, code = lead & 0x0F, least = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      more = 3, code = lead & 0x07, least = 0x10000;
    } else {
      return false;
    }
    if (static_cast<std::size_t>(end - p) < more) return false;
    for (; more > 0; --more) {
      if ((*p & 0xC0) != 0x80) return false;
      code = (code << 6) | (*p++ & 0x3F);
    }
    if (code < least || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
  }
  return true;
}

void writeEntryJson(Json::Writer& writer, const KronlogReader::LogEntry& entry, TextForm form) {
  writer.StartObject();
  writer.Key("timestamp");
  writer.Double(entry.timestamp());
  writer.Key("agentName");
  writeText(writer, entry.agentName(), form);
  writer.Key("messageGroup");
  writeText(writer, entry.messageGroup(), form);
  writer.Key("message");
  writeText(writer, entry.message(), form);
  writer.EndObject();
}

std::string entryJson(const KronlogReader::LogEntry& entry) {
  Json::Buffer buffer;
  Json::Writer writer(buffer);
  writeEntryJson(writer, entry, TextForm::lossless);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string textJson(const Qel::String& text) {
  Json::Buffer buffer;
  Json::Writer writer(buffer);
  writeText(writer, text, TextForm::lossless);
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace KronlogStore
