// Tests of the atomic file replacement under the store, for what the
// store's own tests cannot reach: a relative target, a rename that fails,
// and a commit repeated.
#include "persistence/AtomicFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "testing/PersistenceTest.h"

namespace KronlogTest {
namespace {

class AtomicFileTest : public PersistenceTest {
 protected:
  std::vector<std::string> files() const { return directoryEntries(dir()); }
  std::string target() const { return pathIn("target"); }
  Kronlog::AtomicFile file_;
};

TEST_F(AtomicFileTest, ARelativePathIsReplacedInTheCurrentDirectory) {
  const fs::path cwd = fs::current_path();
  fs::current_path(dir());
  const bool committed = file_.open("relative") && file_.commit("here");
  fs::current_path(cwd);
  EXPECT_TRUE(committed) << file_.error();
  EXPECT_EQ(readFile(pathIn("relative")), "here");
  EXPECT_EQ(files(), std::vector<std::string>{"relative"});
}

TEST_F(AtomicFileTest, AFailedRenameLeavesTheTargetAndNoTemporaryFile) {
  {
    Kronlog::AtomicFile file;
    ASSERT_TRUE(file.open(target()));
    ASSERT_TRUE(fs::create_directory(target()));  // the target turns into a directory meanwhile
    EXPECT_FALSE(file.commit("new"));
    EXPECT_EQ(file.error(), std::strerror(EISDIR));
  }
  EXPECT_TRUE(fs::is_directory(target()));
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
}

TEST_F(AtomicFileTest, ASecondCommitFailsAndChangesNothing) {
  ASSERT_TRUE(file_.open(target()));
  ASSERT_TRUE(file_.commit("first"));
  EXPECT_FALSE(file_.commit("second"));
  EXPECT_EQ(file_.error(), std::strerror(EBADF));
  EXPECT_EQ(readFile(target()), "first");
}

}  // namespace
}  // namespace KronlogTest
