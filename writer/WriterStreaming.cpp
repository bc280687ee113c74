// Attribute-log streaming of the writer's value types.
#include <string>

#include "kronlog/KronlogWriter.h"
#include "qel/Type.h"
#include "qel/stream/NboAttrLog.h"

namespace KronlogWriter {

using Qel::NboAttrLog::In;
using Qel::NboAttrLog::Out;

LogEntry::LogEntry(In* in) : timestamp_(in->f64()), message_(in->string()) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const LogEntry& value) {
  out->f64(value.timestamp());
  out->string(value.message());
  return out;
}

namespace {
// The overflow action as the enum registry knows it; anything else is a
// malformed record, reported where its field starts.
OverflowActionType overflowActionRead(In* in) {
  std::uint64_t at = in->offset();
  std::uint32_t number = in->u32();
  Qel::String name;
  const Qel::TypeNode* type = Qel::typeNode("KronlogWriter::OverflowActionType");
  if (!type || !type->enumName(number, &name)) {
    throw Qel::NboAttrLog::FormatException(
        at,
        Qel::String("KronlogWriter::OverflowActionType has no value " + std::to_string(number)));
  }
  return static_cast<OverflowActionType>(number);
}
}  // namespace

// Members are initialised in declaration order, which is the field order.
Config::Config(In* in) : size_(in->u32()), overflowAction_(overflowActionRead(in)) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const Config& value) {
  out->u32(value.size());
  out->u32(static_cast<std::uint32_t>(value.overflowAction()));
  return out;
}

Writer::LogMetadata::LogMetadata(In* in) : firstIndex_(in->u32()), nextIndex_(in->u32()) {}

const Qel::Ptr<Out>& operator<<(const Qel::Ptr<Out>& out, const Writer::LogMetadata& value) {
  out->u32(value.firstIndex());
  out->u32(value.nextIndex());
  return out;
}

}  // namespace KronlogWriter
