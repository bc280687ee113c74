// The mounting side: connects to a served path and keeps a read-only copy
// of the entity served there.
//
// The copy becomes visible (root(), onSynced) only once the whole snapshot
// has arrived; changes then apply to it live. When the connection drops,
// the copy stays, marked stale (onStale), and the mount reconnects with
// exponential backoff between minimum and maximum delays. A reconnect
// builds the new snapshot into a fresh copy and switches root() to it only
// at its end-of-snapshot record, so a reader never sees a copy that is
// half old and half new; the old copy stays as it was for whoever holds it.
// While the path cannot be connected to, the mount also watches its
// directory and tries again as soon as the socket file appears there.
#ifndef QEL_STREAM_MOUNT_H
#define QEL_STREAM_MOUNT_H

#include <memory>
#include <string>

#include "qel/Entity.h"
#include "qel/Export.h"
#include "qel/Notifiee.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/stream/Connection.h"
#include "qel/stream/EventLoop.h"

namespace Qel {

class QEL_EXPORT Mount : public PtrInterface {
 public:
  using Ptr = Qel::Ptr<Mount>;

  class QEL_EXPORT Notifiee : public Qel::Notifiee<Mount> {
   public:
    // Out of line, so that the class's type information lives in libqel
    // alone and not in every library that derives from it.
    ~Notifiee() override;
    // root() is a complete, current copy (after each snapshot).
    virtual void onSynced() {}
    // The connection dropped; root() keeps the last state it had.
    virtual void onStale() {}
    // A connection closed on a failure (Connection::failed): a socket that
    // does not speak the stream, a malformed record, a silent peer. The
    // mount tries again as after any other close.
    virtual void onFailure(const String& reason) { (void)reason; }
  };

  // Starts connecting to `path` at once (the first attempt runs on the loop).
  Mount(EventLoop* loop, const String& path);
  // Closes the connection; copies already handed out stay valid.
  ~Mount() override;
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  const String& path() const noexcept { return path_; }
  // The copy of the served root entity; null until the first snapshot ends.
  Entity::Ptr root() const { return root_; }
  bool synced() const noexcept { return synced_; }
  bool stale() const noexcept { return stale_; }
  // Snapshots completed so far (1 after the first sync, 2 after a resync...).
  unsigned syncs() const noexcept { return syncs_; }
  // The serving process's incarnation when root() was synced (0 before):
  // a change between syncs means the server was restarted, so its state
  // (indices, counts) started over rather than continued.
  std::uint64_t incarnation() const noexcept { return incarnation_; }
  // The live connection, or null between attempts.
  Connection* connection() const noexcept { return connection_.ptr(); }

  // Delays between attempts: `min` after a failure, doubled after each
  // further one, never above `max`. Defaults 0.05 s and 5 s.
  void retryDelaysIs(Seconds min, Seconds max);
  Seconds retryDelay() const noexcept { return delay_; }
  // Closes a connection whose peer sends nothing (not even heartbeats)
  // for this long; 0 (the default) waits forever.
  void peerTimeoutIs(Seconds seconds) noexcept { peerTimeout_ = seconds; }

  NotifieeListBase& notifieeListRef() noexcept { return notifiees_; }
  NotifieeListBase* notifieeList() const override;

 private:
  struct Reactor;
  void attempt();
  void retryLater();
  void watchStart();
  void watchRead();
  void snapshotEnded();
  void closed();

  EventLoop::Ptr loop_;
  String path_;
  Entity::Ptr root_;
  Connection::Ptr connection_;
  std::unique_ptr<Reactor> reactor_;
  bool synced_ = false;
  bool stale_ = false;
  unsigned syncs_ = 0;
  std::uint64_t incarnation_ = 0;
  Seconds minDelay_ = 0.05;
  Seconds maxDelay_ = 5;
  Seconds delay_ = 0.05;
  Seconds peerTimeout_ = 0;
  EventLoop::TimerId timer_ = 0;
  // While the server is away: an inotify watch on the socket's directory.
  int watchFd_ = -1;
  std::string watchName_;
  NotifieeListBase notifiees_;
};

}  // namespace Qel

#endif  // QEL_STREAM_MOUNT_H
