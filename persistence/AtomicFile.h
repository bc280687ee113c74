// Replacing a file so that a crash at any moment leaves either the previous
// content or the complete new one.
//
// open() creates a temporary file beside the target; commit() writes the
// content, syncs it, renames it over the target and syncs the directory.
// On any failure the temporary file is removed and the target is untouched.
// A target that exists but is not a regular file (a device, a FIFO, a
// symbolic link) is written in place instead, since renaming over it would
// replace the node itself.
#ifndef KRONLOG_PERSISTENCE_ATOMICFILE_H
#define KRONLOG_PERSISTENCE_ATOMICFILE_H

#include <string>
#include <string_view>

namespace Kronlog {

class AtomicFile {
 public:
  AtomicFile() = default;
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;
  // Removes an uncommitted temporary file.
  ~AtomicFile();

  // False, with error() set, when nothing could be opened for `path`.
  bool open(const std::string& path);
  // False, with error() set, when the content did not become durable; the
  // target then keeps its previous content (except when written in place).
  bool commit(std::string_view content);

  const std::string& error() const noexcept { return error_; }
  // The file being written: the temporary one, or the target in place.
  const std::string& writingPath() const noexcept { return writing_; }

 private:
  bool fail();
  std::string target_;
  std::string writing_;
  std::string error_;
  int fd_ = -1;
  bool inPlace_ = false;
};

}  // namespace Kronlog

#endif  // KRONLOG_PERSISTENCE_ATOMICFILE_H
