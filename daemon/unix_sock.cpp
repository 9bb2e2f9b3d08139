#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "logging/logging.h"

namespace {

int fill_address(struct sockaddr_un *addr, const char *path) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (std::snprintf(addr->sun_path, sizeof addr->sun_path, "%s", path) >=
      (int)sizeof addr->sun_path)
    return -1;
  return 0;
}

// A socket file that still accepts a datagram connection belongs to a
// running instance; one that refuses is left over from a crash.
int socket_is_live(const struct sockaddr_un *addr) {
  int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return 0;
  int live = connect(probe, (const struct sockaddr *)addr, sizeof *addr) == 0;
  close(probe);
  return live;
}

}  // namespace

int init_unix_sock(const char *path) {
  struct sockaddr_un addr;
  if (!path || fill_address(&addr, path) != 0) {
    DLOG_ERROR("bind failure: %s", std::strerror(ENAMETOOLONG));
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    DLOG_ERROR("create socket failure: %s", std::strerror(errno));
    return -1;
  }
  struct stat st;
  if (lstat(path, &st) == 0) {
    if (S_ISSOCK(st.st_mode) && socket_is_live(&addr)) {
      DLOG_ERROR("mox_logd is already running");
      close(fd);
      return -1;
    }
    unlink(path);
  }
  if (bind(fd, (struct sockaddr *)&addr, sizeof addr) != 0) {
    DLOG_ERROR("bind failure: %s", std::strerror(errno));
    close(fd);
    return -1;
  }
  // The proxy's workers run under another user and must be able to send.
  chmod(path, 0666);
  return fd;
}
