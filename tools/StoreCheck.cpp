#include "tools/StoreCheck.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tools/Json.h"

namespace KronlogTool {

namespace {

// What the restore does with one event object: the values it takes, and how
// many entries it appends (one when the fourth member arrives, one more per
// member after that).
struct ElementPlan {
  std::string problem;  // non-empty: restoring would end the process
  std::size_t appended = 0;
  std::string agentName, messageGroup;
  bool cut = false;  // a string holds a NUL, so restore cuts it there
};

bool named(const rapidjson::Value& name, const char* expected) {
  return name.GetStringLength() == std::strlen(expected) &&
         std::memcmp(name.GetString(), expected, name.GetStringLength()) == 0;
}

ElementPlan planElement(const rapidjson::Value& element) {
  ElementPlan plan;
  if (!element.IsObject()) {
    plan.problem = "is not an object";
    return plan;
  }
  bool flags[4] = {false, false, false, false};
  for (const auto& member : element.GetObject()) {
    const char* key = nullptr;
    int slot = -1;
    if (named(member.name, "agentName"))
      slot = 0, key = "agentName";
    else if (named(member.name, "messageGroup"))
      slot = 1, key = "messageGroup";
    else if (named(member.name, "timestamp"))
      slot = 2, key = "timestamp";
    else if (named(member.name, "message"))
      slot = 3, key = "message";
    if (slot == 2 && !member.value.IsNumber()) {
      plan.problem = "has a \"timestamp\" that is not a number";
      return plan;
    }
    if (slot >= 0 && slot != 2) {
      if (!member.value.IsString()) {
        plan.problem = std::string("has a \"") + key + "\" that is not a string";
        return plan;
      }
      const char* s = member.value.GetString();
      if (std::strlen(s) != member.value.GetStringLength()) plan.cut = true;
      if (slot == 0) plan.agentName = s;
      if (slot == 1) plan.messageGroup = s;
    }
    if (slot >= 0) flags[slot] = true;
    if (flags[0] && flags[1] && flags[2] && flags[3]) ++plan.appended;
  }
  return plan;
}

}  // namespace

StoreCheck checkStoreFile(const std::string& path) {
  StoreCheck c;
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    c.unreadable = true;
    c.problems.push_back("cannot open " + path + ": " + std::strerror(errno));
    return c;
  }
  std::string format, version, json, line;
  bool hasFormat = static_cast<bool>(std::getline(file, format));
  std::getline(file, version);
  while (std::getline(file, line)) json += line;
  if (file.bad()) {
    c.unreadable = true;
    c.problems.push_back("cannot read " + path);
    return c;
  }
  if (!hasFormat) {
    c.lossy = true;
    c.problems.push_back("the file is empty: a restore reads a format error and adds nothing");
    return c;
  }
  if (format.compare(0, 8, "FORMAT: ") != 0) {
    c.warnings.push_back("line 1 does not start with \"FORMAT: \" (the restore does not check it)");
  }
  std::string formatName = format.size() > 8 ? format.substr(8) : "";
  if (formatName != "JSON") {
    c.lossy = true;
    c.problems.push_back("line 1 names format \"" + formatName +
                         "\", not \"JSON\" (a CR at the end of the line counts): a restore adds "
                         "nothing");
    return c;
  }
  std::string versionName = version.size() > 9 ? version.substr(9) : "";
  if (version.compare(0, 9, "VERSION: ") != 0 || versionName != "1") {
    c.warnings.push_back("line 2 is \"" + version +
                         "\", not \"VERSION: 1\" (a restore warns and goes on)");
  }
  if (json.empty()) {
    c.warnings.push_back("no JSON content after the two header lines: nothing to restore");
    return c;
  }
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseFullPrecisionFlag>(json.c_str(), json.size());
  if (doc.HasParseError()) {
    c.fatal = true;
    c.problems.push_back("JSON syntax error at offset " + std::to_string(doc.GetErrorOffset()) +
                         " of the JSON part: " + rapidjson::GetParseError_En(doc.GetParseError()));
    return c;
  }
  if (!doc.IsObject()) {
    c.fatal = true;
    c.problems.push_back("the JSON root is not an object");
    return c;
  }
  auto events = doc.FindMember("Kronlog");
  if (events == doc.MemberEnd()) {
    c.warnings.push_back("the JSON root has no \"Kronlog\" member: nothing to restore");
    return c;
  }
  if (!events->value.IsArray()) {
    c.fatal = true;
    c.problems.push_back("\"Kronlog\" is not an array");
    return c;
  }
  std::size_t index = 0;
  for (const auto& element : events->value.GetArray()) {
    ++c.elements;
    ElementPlan plan = planElement(element);
    const std::string where = "event " + std::to_string(index++);
    if (!plan.problem.empty()) {
      c.fatal = true;
      c.problems.push_back(where + " " + plan.problem);
      return c;
    }
    if (plan.appended == 0) {
      c.lossy = true;
      c.problems.push_back(where +
                           " lacks one of timestamp, agentName, messageGroup, message and "
                           "would be dropped");
      continue;
    }
    if (plan.appended > 1) {
      c.warnings.push_back(where + " has extra members and would be restored " +
                           std::to_string(plan.appended) + " times");
    }
    if (plan.cut) c.warnings.push_back(where + " holds a NUL character; text after it is lost");
    c.entries += plan.appended;
    c.perGroup[{plan.agentName, plan.messageGroup}] += plan.appended;
  }
  if (c.entries > 255) {
    c.warnings.push_back(std::to_string(c.entries) +
                         " entries: an agent's restorer walks at most 255 and would never finish "
                         "on this store (kronlog show reads it fine)");
  }
  return c;
}

}  // namespace KronlogTool
