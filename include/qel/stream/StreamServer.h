// The serving side: listens on a Unix-domain socket path and streams one
// root entity (and what its adapter streams under it) to every process that
// mounts the path.
//
// The socket file is created with mode 0600 whatever the umask. A stale
// socket file (nobody listening) is replaced; a live one is never taken
// over. Each peer's credentials are read from the kernel: by default only
// the same user and root may mount. The peer name "<command>[<pid>]"
// appears in every trace and error about the connection.
#ifndef QEL_STREAM_STREAMSERVER_H
#define QEL_STREAM_STREAMSERVER_H

#include <functional>
#include <memory>
#include <vector>

#include "qel/Export.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"
#include "qel/stream/StreamAdapter.h"
#include "qel/stream/UnixSocket.h"

namespace Qel {

class QEL_EXPORT StreamServer : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<StreamServer>;
  // Builds the root entity's adapter for a new connection (after its
  // handshake); the connection streams it as entity 1.
  using RootAdapterFactory = std::function<StreamAdapter::Ptr(Connection* connection)>;
  using PeerCheck = std::function<bool(const PeerCredentials& peer)>;

  // Listens on `path`. Throws RangeException with a clear message for a
  // path that is too long, a path served by a live process, a file there
  // that is not a socket, or a socket the kernel refuses.
  StreamServer(EventLoop* loop, const String& path, RootAdapterFactory root);
  // Stops listening, closes every connection and removes the socket file.
  ~StreamServer() override;
  StreamServer(const StreamServer&) = delete;
  StreamServer& operator=(const StreamServer&) = delete;

  const String& path() const noexcept { return path_; }
  // Which peers may mount; default: the same user as this process, and root.
  void peerCheckIs(PeerCheck check) { check_ = std::move(check); }
  // Applied to connections accepted from now on.
  void sendBufferCapacityIs(std::size_t bytes) noexcept { capacity_ = bytes; }
  void heartbeatIntervalIs(Seconds seconds) noexcept { heartbeat_ = seconds; }

  // The open connections, oldest first.
  std::vector<Connection::Ptr> connections() const;
  std::size_t refusals() const noexcept { return refusals_; }

 private:
  struct Peer;
  void acceptAll();
  void peerDel(Connection* connection);

  EventLoop::Ptr loop_;
  String path_;
  RootAdapterFactory root_;
  PeerCheck check_;
  int fd_ = -1;
  std::uint64_t inode_ = 0;
  std::size_t capacity_ = Connection::kDefaultSendBufferBytes;
  Seconds heartbeat_ = 5;
  std::size_t refusals_ = 0;
  std::vector<std::unique_ptr<Peer>> peers_;
};

}  // namespace Qel

#endif  // QEL_STREAM_STREAMSERVER_H
