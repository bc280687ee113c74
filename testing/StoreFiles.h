// Test support: store files built by hand, byte for byte, so that tests can
// hand readers exactly the file a case needs (also ones no saver writes).
#ifndef KRONLOG_TESTING_STOREFILES_H
#define KRONLOG_TESTING_STOREFILES_H

#include <cstdio>
#include <string>
#include <vector>

namespace KronlogTesting {

constexpr char kStoreHeader[] = "FORMAT: JSON\nVERSION: 1\n";
constexpr char kEmptyStore[] = "FORMAT: JSON\nVERSION: 1\n{\"Kronlog\":[]}\n";

// One event object in the order a save writes its members; values are
// JSON texts.
inline std::string storeMembers(const std::string& timestamp, const std::string& agentName,
                                const std::string& messageGroup, const std::string& message) {
  return "{\"timestamp\":" + timestamp + ",\"agentName\":" + agentName +
         ",\"messageGroup\":" + messageGroup + ",\"message\":" + message + "}";
}

// One event object of string members, given as JSON string contents
// (escapes written as JSON writes them, without the quotes).
inline std::string storeEntry(const std::string& timestamp, const std::string& agentName,
                              const std::string& messageGroup, const std::string& message) {
  return storeMembers(timestamp, '"' + agentName + '"', '"' + messageGroup + '"',
                      '"' + message + '"');
}

// The same with a timestamp given as a number, written to round-trip.
inline std::string storeEntry(double timestamp, const std::string& agentName,
                              const std::string& messageGroup, const std::string& message) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", timestamp);
  return storeEntry(std::string(text), agentName, messageGroup, message);
}

// A whole store file whose array holds `elements` (joined JSON text).
inline std::string storeOf(const std::string& elements) {
  return kStoreHeader + ("{\"Kronlog\":[" + elements + "]}\n");
}

// A whole store file of one element per string.
inline std::string storeOf(const std::vector<std::string>& elements) {
  std::string joined;
  for (const std::string& e : elements) joined += (joined.empty() ? "" : ",") + e;
  return storeOf(joined);
}

}  // namespace KronlogTesting

#endif  // KRONLOG_TESTING_STOREFILES_H
