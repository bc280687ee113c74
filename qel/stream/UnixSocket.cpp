#include "qel/stream/UnixSocket.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <fstream>
#include <string>

namespace Qel {

bool peerCredentials(int fd, PeerCredentials* out) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
  out->pid = cred.pid;
  out->uid = cred.uid;
  out->gid = cred.gid;
  return true;
}

String processName(std::int32_t pid) {
  std::string command;
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  if (!std::getline(comm, command) || command.empty()) command = "?";
  return String(command + "[" + std::to_string(pid) + "]");
}

String peerName(int fd) {
  PeerCredentials cred;
  if (!peerCredentials(fd, &cred) || cred.pid <= 0) {
    return String("?[fd " + std::to_string(fd) + "]");
  }
  return processName(cred.pid);
}

}  // namespace Qel
