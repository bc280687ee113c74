// Where a writer directory is served by default (a private directory under
// the runtime directory), and a socket directory that cannot be made. Writer
// directories streamed between real processes are the tool's tests
// (ToolLiveTest); stalls and random changes are WriterAdapterTest's.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kronlog/KronlogWriter.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "qel/Dir.h"
#include "qel/Exception.h"
#include "testing/StreamFixture.h"
#include "testing/WriterState.h"

namespace {

using KronlogWriter::Config;
using KronlogWriter::WriterDir;
using WriterTesting::stateOf;

class WriterProcessTest : public ::testing::Test, public StreamTesting::SocketDir {
 protected:
  ~WriterProcessTest() override { ::rmdir((dir + "/kronlog").c_str()); }
  WriterDir* mounted() const { return dynamic_cast<WriterDir*>(agents_->entity("agent")); }
  Qel::Dir::Ptr agents_ = Qel::dirFactory("agents");
};

TEST_F(WriterProcessTest, DefaultPathIsUnderTheRuntimeDirectoryWhichIsPrivate) {
  const char* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string keep = saved ? saved : "";
  ::setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
  EXPECT_EQ(KronlogWriter::writerDirSocketPath("Bgp"), dir + "/kronlog/Bgp.sock");
  WriterDir::Ptr source = KronlogWriter::writerDirFactory("agent");
  source->writerIs("g", Config())->eventIs("hello");
  {
    Qel::StreamServer::Ptr server = KronlogWriter::writerDirServe(loop.ptr(), source);
    struct stat st {};
    ASSERT_EQ(::stat((dir + "/kronlog").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    KronlogWriter::WriterDirMount::Ptr m =
        KronlogWriter::writerDirMount(loop.ptr(), agents_, "agent");
    EXPECT_TRUE(runUntil([&] { return mounted() != nullptr; }));
    EXPECT_EQ(stateOf(mounted()), stateOf(source.ptr()));
  }
  ::unlink((dir + "/kronlog/agent.sock").c_str());
  if (saved) {
    ::setenv("XDG_RUNTIME_DIR", keep.c_str(), 1);
  } else {
    ::unsetenv("XDG_RUNTIME_DIR");
  }
  EXPECT_EQ(KronlogWriter::writerDirSocketPath("Bgp").stdString().substr(0, 1), "/");
}

TEST_F(WriterProcessTest, UnwritableSocketDirectoryIsAClearError) {
  EXPECT_THROW(KronlogWriter::writerDirServe(loop.ptr(), KronlogWriter::writerDirFactory("a"),
                                             "/proc/nonexistent/kronlog/a.sock"),
               Qel::RangeException);
}

}  // namespace
