// Unix-domain socket helpers: peer credentials and process names.
#ifndef QEL_STREAM_UNIXSOCKET_H
#define QEL_STREAM_UNIXSOCKET_H

#include <cstdint>

#include "qel/Export.h"
#include "qel/String.h"

namespace Qel {

// Who is at the other end of a connected Unix-domain socket, as the kernel
// recorded it when the connection was made (SO_PEERCRED).
struct PeerCredentials {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

// False (errno set) when the kernel has no credentials for `fd`.
QEL_EXPORT bool peerCredentials(int fd, PeerCredentials* out);
// "<command>[<pid>]", the command from /proc ("?" when it has gone).
QEL_EXPORT String processName(std::int32_t pid);
// The peer's process name, or "?[fd N]" without credentials.
QEL_EXPORT String peerName(int fd);

}  // namespace Qel

#endif  // QEL_STREAM_UNIXSOCKET_H
