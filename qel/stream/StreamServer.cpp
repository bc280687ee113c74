#include "qel/stream/StreamServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qel/Exception.h"
#include "qel/stream/StreamTrace.h"

namespace Qel {

namespace {

constexpr char kFile[] = "StreamServer";

[[noreturn]] void refuse(const String& path, const std::string& why) {
  throwRangeException(String("cannot serve stream at " + path.stdString() + ": " + why));
}

sockaddr_un addressOf(const String& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    refuse(path, "path must have 1 to " + std::to_string(sizeof addr.sun_path - 1) + " bytes");
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  return addr;
}

// True when a process accepts connections at `addr` right now.
bool listening(const sockaddr_un& addr) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool live = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
              errno == EAGAIN;  // a full backlog is still a live server
  ::close(fd);
  return live;
}

}  // namespace

struct StreamServer::Peer : Connection::Notifiee {
  StreamServer* server;
  Connection::Ptr connection;
  void onHandshake() override {
    StreamAdapter::Ptr root = server->root_(connection.ptr());
    if (root) connection->adapterIs(root);
  }
  void onClose() override { server->peerDel(connection.ptr()); }
};

StreamServer::StreamServer(EventLoop* loop, const String& path, RootAdapterFactory root)
    : loop_(loop), path_(path), root_(std::move(root)) {
  uid_t self = geteuid();
  check_ = [self](const PeerCredentials& peer) { return peer.uid == self || peer.uid == 0; };
  sockaddr_un addr = addressOf(path);
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) refuse(path, "a file that is not a socket is in the way");
    if (listening(addr)) refuse(path, "another process is serving it");
    // Nobody answers: the socket of a process that is gone.
    ::unlink(path.c_str());
  }
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) refuse(path, std::string("socket: ") + std::strerror(errno));
  // The socket is bound and listening under a private name first, then
  // linked into place: a mount watching the directory that sees the path
  // appear can connect at once, never between bind and listen. link()
  // refuses an existing path, so a server that got there first is never
  // replaced. A path too long for the private name is bound directly.
  const std::string staged = path.stdString() + "." + std::to_string(::getpid()) + "~";
  const bool stage = staged.size() < sizeof addr.sun_path;
  const std::string bound = stage ? staged : path.stdString();
  if (stage) ::unlink(bound.c_str());  // left by a process of our pid that died
  sockaddr_un bindAddr = addressOf(String(bound));
  // bind creates the file with the umask applied; a strict umask for the
  // duration gives 0600 from the start, with no window in which the
  // socket is open wider. Single-threaded by design, so the process-wide
  // umask is safe to borrow.
  mode_t saved = ::umask(0177);
  int rc = ::bind(fd_, reinterpret_cast<const sockaddr*>(&bindAddr), sizeof bindAddr);
  int err = errno;
  ::umask(saved);
  if (rc == 0) {
    err = 0;
    if (::chmod(bound.c_str(), 0600) != 0 || ::listen(fd_, 64) != 0 ||
        (stage && ::link(bound.c_str(), path.c_str()) != 0)) {
      err = errno;
    }
    // The private name goes either way; the path only if it failed.
    if (stage || err != 0) ::unlink(bound.c_str());
  }
  if (err != 0) {
    ::close(fd_);
    fd_ = -1;
    refuse(path, err == EEXIST ? std::string("another process is serving it") : std::strerror(err));
  }
  if (::stat(path.c_str(), &st) == 0) inode_ = st.st_ino;
  loop_->fdIs(fd_, EventLoop::kReadable, [this](std::uint32_t) { acceptAll(); });
  QEL_STREAM_TRACE(1, kFile, 90, "StreamServer", << "listening path: " << path_);
}

StreamServer::~StreamServer() {
  loop_->fdDel(fd_);
  ::close(fd_);
  // Remove the file only while it is still ours: another server may have
  // replaced it after we were gone from it.
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0 && st.st_ino == inode_) ::unlink(path_.c_str());
  auto peers = std::move(peers_);
  for (auto& p : peers) {
    p->notifierIs(nullptr);
    p->connection->close(String("server stopped"));
  }
}

std::vector<Connection::Ptr> StreamServer::connections() const {
  std::vector<Connection::Ptr> out;
  for (auto& p : peers_) out.push_back(p->connection);
  return out;
}

void StreamServer::acceptAll() {
  for (;;) {
    int fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;  // EAGAIN, or out of descriptors: try again at the next readiness
    }
    PeerCredentials cred;
    String name = peerName(fd);
    if (!peerCredentials(fd, &cred) || !check_(cred)) {
      ++refusals_;
      QEL_STREAM_TRACE(0, kFile, 130, "acceptAll",
                       << "refused peer: " << name << " uid: " << cred.uid);
      ::close(fd);
      continue;
    }
    auto peer = std::make_unique<Peer>();
    peer->server = this;
    peer->connection = new Connection(loop_.ptr(), fd, Connection::Role::serving, name,
                                      processName(static_cast<std::int32_t>(::getpid())));
    peer->connection->sendBufferCapacityIs(capacity_);
    peer->connection->heartbeatIntervalIs(heartbeat_);
    peer->notifierIs(peer->connection);
    QEL_STREAM_TRACE(1, kFile, 145, "acceptAll", << "accepted peer: " << name);
    peers_.push_back(std::move(peer));
  }
}

void StreamServer::peerDel(Connection* connection) {
  for (auto it = peers_.begin(); it != peers_.end(); ++it) {
    if ((*it)->connection.ptr() != connection) continue;
    // Destroyed after this notification: the connection is still
    // delivering it, and holds itself alive meanwhile.
    std::unique_ptr<Peer> gone = std::move(*it);
    peers_.erase(it);
    gone->notifierIs(nullptr);
    return;
  }
}

}  // namespace Qel
