// kronlog check over JSONTestSuite's parsing cases, each wrapped as the JSON
// line of a store file: what an operator hands the tool when a store on
// flash holds someone else's idea of JSON.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "testing/Command.h"
#include "testing/TempDir.h"

namespace {

// What check reports about JSON it cannot read, each with its byte offset.
const char* const kMalformed[] = {"JSON syntax error", "JSON nested deeper than",
                                  "a NUL byte ends the JSON", "a line feed inside a JSON string",
                                  "no JSON after the two header lines"};

bool saysMalformed(const std::string& output) {
  for (const char* m : kMalformed) {
    const std::size_t at = output.find(m);
    if (at != std::string::npos && output.rfind("byte ", at) != std::string::npos) return true;
  }
  return false;
}

// y_ cases are well-formed (check then judges their shape: exit 1, as none
// is a store), n_ cases are malformed at a byte offset, i_ cases either;
// none crashes or hangs.
TEST(ToolJsonSuiteTest, CheckJudgesEveryCaseAsTheSuiteSaysAndNeverCrashes) {
  KronlogTesting::TempDir dir("kronlog-json-suite");
  // One line per case: its name, the exit status, then the output, with
  // each case's output ended by a line holding only "@@".
  const std::string out = KronlogTesting::commandOutput(
      "for f in '" KRONLOG_JSON_SUITE "'/*; do s='" + dir.pathIn("s") +
      "'; printf 'FORMAT: JSON\\nVERSION: 1\\n' > \"$s\"; cat \"$f\" >> \"$s\";"
      " o=$(timeout 20 '" KRONLOG_TOOL
      "' check --store \"$s\" 2>&1); echo \"$(basename \"$f\") $?\";"
      " printf '%s\\n@@\\n' \"$o\"; done");
  std::istringstream in(out);
  std::map<char, int> seen;
  for (std::string head; std::getline(in, head);) {
    std::string output, line;
    while (std::getline(in, line) && line != "@@") output += line + "\n";
    const std::string name = head.substr(0, head.find(' '));
    const int status = std::stoi(head.substr(head.find(' ') + 1));
    SCOPED_TRACE(name + ": " + output);
    EXPECT_TRUE(status == 0 || status == 1) << "exit status " << status;
    ++seen[name[0]];
    if (name[0] == 'y') {
      EXPECT_FALSE(saysMalformed(output));
    } else if (name[0] == 'n') {
      EXPECT_TRUE(saysMalformed(output));
    }
  }
  EXPECT_EQ(seen['y'], 95);
  EXPECT_EQ(seen['n'], 188);
  EXPECT_EQ(seen['i'], 35);
}

}  // namespace
