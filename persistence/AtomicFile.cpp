#include "persistence/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Kronlog {

namespace {

bool writeAll(int fd, std::string_view content) {
  std::size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::string directoryOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

AtomicFile::~AtomicFile() {
  if (fd_ >= 0) ::close(fd_);
  if (!inPlace_ && !writing_.empty()) ::unlink(writing_.c_str());
}

bool AtomicFile::fail() {
  error_ = std::strerror(errno);
  return false;
}

bool AtomicFile::open(const std::string& path) {
  target_ = path;
  if (path.empty()) {
    errno = ENOENT;
    return fail();
  }
  struct stat st;
  const bool exists = ::lstat(path.c_str(), &st) == 0;
  if (exists && !S_ISREG(st.st_mode)) {
    inPlace_ = true;
    // O_CREAT: a symbolic link whose target is missing gets its target
    // created, as a plain open for writing would.
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) return fail();
    writing_ = path;
    return true;
  }
  // One temporary name per process: two processes saving to the same store
  // at once never write into the same temporary file.
  std::string temporary = path + "." + std::to_string(::getpid()) + ".tmp";
  fd_ = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
               exists ? (st.st_mode & 07777) : 0644);
  if (fd_ < 0) return fail();
  writing_ = temporary;
  // The mode given to open() is narrowed by the umask; the replacement must
  // keep exactly the mode the store had.
  if (exists && ::fchmod(fd_, st.st_mode & 07777) != 0) return fail();
  return true;
}

bool AtomicFile::commit(std::string_view content) {
  if (fd_ < 0) {
    errno = EBADF;
    return fail();
  }
  bool ok = writeAll(fd_, content);
  if (ok && !inPlace_ && ::fsync(fd_) != 0) ok = false;
  if (!ok) fail();
  if (::close(fd_) != 0 && ok) ok = fail();
  fd_ = -1;
  if (inPlace_) return ok;
  if (ok && ::rename(writing_.c_str(), target_.c_str()) != 0) ok = fail();
  if (!ok) return false;  // the destructor removes the temporary file
  writing_.clear();
  // The rename is durable only once the directory entry is.
  int dir = ::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

}  // namespace Kronlog
