#include "qel/stream/Mount.h"

#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qel/stream/StreamTrace.h"
#include "qel/stream/UnixSocket.h"

namespace Qel {

Mount::Notifiee::~Notifiee() = default;

namespace {
constexpr char kFile[] = "Mount";
}  // namespace

struct Mount::Reactor : Connection::Notifiee {
  Mount* mount;
  void onSnapshotEnd() override { mount->snapshotEnded(); }
  void onClose() override { mount->closed(); }
};

Mount::Mount(EventLoop* loop, const String& path) : loop_(loop), path_(path) {
  timer_ = loop_->timerIs(0, [this] {
    timer_ = 0;
    attempt();
  });
}

Mount::~Mount() {
  if (timer_) loop_->timerDel(timer_);
  if (watchFd_ >= 0) {
    loop_->fdDel(watchFd_);
    ::close(watchFd_);
  }
  if (reactor_) reactor_->notifierIs(nullptr);
  if (connection_) connection_->close(String("mount released"));
}

NotifieeListBase* Mount::notifieeList() const {
  return const_cast<NotifieeListBase*>(&notifiees_);
}

void Mount::retryDelaysIs(Seconds min, Seconds max) {
  minDelay_ = min > 0 ? min : 0;
  maxDelay_ = max > minDelay_ ? max : minDelay_;
  delay_ = minDelay_;
}

void Mount::attempt() {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path_.empty() || path_.size() >= sizeof addr.sun_path) {
    QEL_STREAM_TRACE(0, kFile, 60, "attempt", << "unusable path: " << path_);
    return;  // no retry can make this path work
  }
  std::memcpy(addr.sun_path, path_.data(), path_.size());
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    QEL_STREAM_TRACE(1, kFile, 68, "attempt",
                     << "connect path: " << path_ << " failed: " << std::strerror(errno));
    if (fd >= 0) ::close(fd);
    watchStart();
    retryLater();
    return;
  }
  String name = peerName(fd);
  connection_ = new Connection(loop_.ptr(), fd, Connection::Role::mounting, name,
                               processName(static_cast<std::int32_t>(::getpid())));
  connection_->peerTimeoutIs(peerTimeout_);
  reactor_ = std::make_unique<Reactor>();
  reactor_->mount = this;
  reactor_->notifierIs(connection_);
  QEL_STREAM_TRACE(1, kFile, 80, "attempt", << "connected path: " << path_ << " peer: " << name);
}

void Mount::watchStart() {
  if (watchFd_ >= 0) return;
  const std::string path = path_.stdString();
  const std::string::size_type slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  watchName_ = slash == std::string::npos ? path : path.substr(slash + 1);
  watchFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watchFd_ < 0) return;
  // A missing directory (or no inotify) leaves the timer alone to retry.
  if (::inotify_add_watch(watchFd_, dir.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) < 0) {
    ::close(watchFd_);
    watchFd_ = -1;
    return;
  }
  loop_->fdIs(watchFd_, EventLoop::kReadable, [this](std::uint32_t) { watchRead(); });
}

void Mount::watchRead() {
  alignas(inotify_event) char buf[4096];
  bool ours = false;
  for (ssize_t n; (n = ::read(watchFd_, buf, sizeof buf)) > 0;) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
      if (e->len > 0 && watchName_ == e->name) ours = true;
      at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
    }
  }
  // The socket appeared (or changed): try now rather than at the end of
  // the backoff, so a mount started before its server connects as soon as
  // the server listens.
  if (!ours || connection_ || !timer_) return;
  loop_->timerDel(timer_);
  timer_ = 0;
  attempt();
}

void Mount::retryLater() {
  Seconds d = delay_;
  delay_ = delay_ * 2 > maxDelay_ ? maxDelay_ : delay_ * 2;
  if (delay_ < minDelay_) delay_ = minDelay_;
  timer_ = loop_->timerIs(d, [this] {
    timer_ = 0;
    attempt();
  });
}

void Mount::snapshotEnded() {
  StreamAdapter* root = connection_->adapter(NboAttrLog::kRootEntity);
  if (!root || !root->entity()) {
    connection_->close(String("snapshot ended without a root entity"));
    return;
  }
  // The switch: the fresh copy replaces the old one whole.
  root_ = root->entity();
  incarnation_ = connection_->peerIncarnation();
  synced_ = true;
  stale_ = false;
  ++syncs_;
  delay_ = minDelay_;
  notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onSynced(); });
}

void Mount::closed() {
  // Released after the connection finishes notifying.
  Connection::Ptr gone = std::move(connection_);
  if (reactor_) reactor_->notifierIs(nullptr);
  if (gone && gone->failed()) {
    const String reason = gone->reason();
    notifiees_.visitAs<Notifiee>(this, [&reason](Notifiee* n) { n->onFailure(reason); });
  }
  if (synced_ || root_) {
    synced_ = false;
    stale_ = true;
    notifiees_.visitAs<Notifiee>(this, [](Notifiee* n) { n->onStale(); });
  }
  retryLater();
}

}  // namespace Qel
