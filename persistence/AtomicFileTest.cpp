// Tests of the atomic file replacement under the store: where the new
// content is written, that a commit replaces the target whole, and that
// every failure leaves the target as it was and no temporary file behind.
#include "persistence/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "persistence/PersistenceTestSupport.h"

namespace KronlogTest {
namespace {

class AtomicFileTest : public PersistenceTest {
 protected:
  void SetUp() override {
    PersistenceTest::SetUp();
    target_ = pathIn("target");
    temporary_ = target_ + "." + std::to_string(::getpid()) + ".tmp";
  }
  std::vector<std::string> files() const { return directoryEntries(dir()); }

  std::string target_;
  std::string temporary_;
};

TEST_F(AtomicFileTest, AnEmptyPathCannotBeOpened) {
  Kronlog::AtomicFile file;
  EXPECT_FALSE(file.open(""));
  EXPECT_EQ(file.error(), std::strerror(ENOENT));
  EXPECT_FALSE(file.commit("content"));
}

TEST_F(AtomicFileTest, APathInAMissingDirectoryCannotBeOpened) {
  Kronlog::AtomicFile file;
  EXPECT_FALSE(file.open(pathIn("missing/target")));
  EXPECT_EQ(file.error(), std::strerror(ENOENT));
  EXPECT_TRUE(files().empty());
}

TEST_F(AtomicFileTest, TheNewContentGoesToATemporaryFileBesideTheTarget) {
  writeFile(target_, "previous");
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(target_));
  EXPECT_EQ(file.writingPath(), temporary_);
  EXPECT_EQ(files(), (std::vector<std::string>{"target", fs::path(temporary_).filename()}));
  EXPECT_EQ(readFile(target_), "previous");
}

TEST_F(AtomicFileTest, CommitReplacesTheTarget) {
  writeFile(target_, "a longer previous content");
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(target_));
  EXPECT_TRUE(file.commit("new"));
  EXPECT_EQ(readFile(target_), "new");
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
}

TEST_F(AtomicFileTest, CommitCreatesAMissingTarget) {
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(target_));
  EXPECT_TRUE(file.commit(std::string("with\0nul", 8)));
  EXPECT_EQ(readFile(target_), std::string("with\0nul", 8));
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
}

TEST_F(AtomicFileTest, AnEmptyContentEmptiesTheTarget) {
  writeFile(target_, "previous");
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(target_));
  EXPECT_TRUE(file.commit(""));
  EXPECT_EQ(readFile(target_), "");
}

TEST_F(AtomicFileTest, ARelativePathIsReplacedInTheCurrentDirectory) {
  const std::string cwd = fs::current_path();
  fs::current_path(dir());
  {
    Kronlog::AtomicFile file;
    EXPECT_TRUE(file.open("relative") && file.commit("here"));
  }
  fs::current_path(cwd);
  EXPECT_EQ(readFile(pathIn("relative")), "here");
  EXPECT_EQ(files(), std::vector<std::string>{"relative"});
}

TEST_F(AtomicFileTest, AFailedWriteLeavesTheTargetAndNoTemporaryFile) {
  writeFile(target_, "previous");
  {
    Kronlog::AtomicFile file;
    ASSERT_TRUE(file.open(target_));
    FileSizeLimit limit(4);
    EXPECT_FALSE(file.commit("more than four bytes"));
    EXPECT_EQ(file.error(), std::strerror(EFBIG));
  }
  EXPECT_EQ(readFile(target_), "previous");
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
}

TEST_F(AtomicFileTest, AFailedRenameLeavesTheTargetAndNoTemporaryFile) {
  {
    Kronlog::AtomicFile file;
    ASSERT_TRUE(file.open(target_));
    // The target turns into a directory between open and commit.
    ASSERT_TRUE(fs::create_directory(target_));
    EXPECT_FALSE(file.commit("new"));
    EXPECT_EQ(file.error(), std::strerror(EISDIR));
  }
  EXPECT_TRUE(fs::is_directory(target_));
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
}

TEST_F(AtomicFileTest, AnUncommittedTemporaryFileIsRemovedWithTheObject) {
  writeFile(target_, "previous");
  {
    Kronlog::AtomicFile file;
    ASSERT_TRUE(file.open(target_));
    ASSERT_TRUE(fs::exists(temporary_));
  }
  EXPECT_EQ(files(), std::vector<std::string>{"target"});
  EXPECT_EQ(readFile(target_), "previous");
}

TEST_F(AtomicFileTest, ASecondCommitFailsAndChangesNothing) {
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(target_));
  ASSERT_TRUE(file.commit("first"));
  EXPECT_FALSE(file.commit("second"));
  EXPECT_EQ(file.error(), std::strerror(EBADF));
  EXPECT_EQ(readFile(target_), "first");
}

TEST_F(AtomicFileTest, ASymbolicLinkIsWrittenInPlace) {
  writeFile(target_, "previous");
  const std::string link = pathIn("link");
  ASSERT_EQ(::symlink(target_.c_str(), link.c_str()), 0);
  Kronlog::AtomicFile file;
  ASSERT_TRUE(file.open(link));
  EXPECT_EQ(file.writingPath(), link);
  EXPECT_TRUE(file.commit("new"));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(readFile(target_), "new");
  EXPECT_EQ(files(), (std::vector<std::string>{"link", "target"}));
}

TEST_F(AtomicFileTest, ADeviceIsWrittenInPlace) {
  Kronlog::AtomicFile null;
  ASSERT_TRUE(null.open("/dev/null"));
  EXPECT_EQ(null.writingPath(), "/dev/null");
  EXPECT_TRUE(null.commit("discarded"));
  Kronlog::AtomicFile full;
  ASSERT_TRUE(full.open("/dev/full"));
  EXPECT_FALSE(full.commit("no room"));
  EXPECT_EQ(full.error(), std::strerror(ENOSPC));
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

}  // namespace
}  // namespace KronlogTest
