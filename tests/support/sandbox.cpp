#include "sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int ready;
char reason[256] = "sandbox_enter was not called";
// The programs, and "/proc/self/fd/N" for each once it is held open.
const char *const programs[] = {MOX_LOGD_BINARY, MOX_CONF_BINARY, MOX_LOGDECODE_BINARY};
char held[3][64];

int fail(const char *what) {
  std::snprintf(reason, sizeof reason, "%s: %s", what, std::strerror(errno));
  return -1;
}

// Binds source onto a fresh empty file at target.
int bind_file(const char *source, const char *target) {
  int t = open(target, O_CREAT | O_WRONLY, 0666);
  if (t < 0) return fail(target);
  close(t);
  if (mount(source, target, nullptr, MS_BIND, nullptr) != 0) return fail(target);
  return 0;
}

int run(const std::string &cmd) {
  int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
  return rc == 0 ? 0 : -1;
}

}  // namespace

int sandbox_enter(void) {
  if (ready) return 0;
  // The programs may live under /tmp, which is about to be hidden: hold
  // them open and start them through /proc/self/fd.
  for (int i = 0; i < 3; i++) {
    int fd = open(programs[i], O_RDONLY | O_CLOEXEC);
    if (fd >= 0) std::snprintf(held[i], sizeof held[i], "/proc/self/fd/%d", fd);
  }

  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return fail("unshare(CLONE_NEWNS|CLONE_NEWNET)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make / private");
  // The source and build trees may themselves lie under /tmp (a CI clone):
  // hold them open now and bind them back at their paths once /tmp is new.
  const char *trees[] = {MOX_SOURCE_DIR, MOX_BINARY_DIR};
  int tree_fds[2] = {-1, -1};
  for (int i = 0; i < 2; i++)
    if (std::strncmp(trees[i], "/tmp/", 5) == 0)
      tree_fds[i] = open(trees[i], O_PATH | O_DIRECTORY | O_CLOEXEC);
  // The devices are staged on a scratch tmpfs, since the host's /dev is
  // about to be hidden, then bound into the private /dev.
  const char *devices[] = {"null", "zero", "urandom"};
  if (mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail("tmpfs on /tmp");
  for (int pass = 0; pass < 2; pass++) {
    if (pass == 1 && mount("none", "/dev", "tmpfs", 0, "mode=755") != 0) return fail("tmpfs on /dev");
    for (const char *d : devices) {
      std::string staged = std::string("/tmp/") + d, real = std::string("/dev/") + d;
      if (bind_file((pass ? staged : real).c_str(), (pass ? real : staged).c_str()) != 0) return -1;
    }
  }
  if (umount2("/tmp", MNT_DETACH) != 0) return fail("umount scratch /tmp");
  if (mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail("tmpfs on /tmp");
  if (mount("none", "/media", "tmpfs", 0, "mode=755") != 0) return fail("tmpfs on /media");
  for (int i = 0; i < 2; i++) {
    if (tree_fds[i] < 0) continue;
    char source[64];
    std::snprintf(source, sizeof source, "/proc/self/fd/%d", tree_fds[i]);
    if (run(std::string("mkdir -p '") + trees[i] + "'") != 0 ||
        mount(source, trees[i], nullptr, MS_BIND | MS_REC, nullptr) != 0)
      return fail(trees[i]);
    close(tree_fds[i]);
  }
  if (run("ip link set lo up") != 0) {
    std::snprintf(reason, sizeof reason, "ip link set lo up failed (is iproute2 installed?)");
    return -1;
  }
  ready = 1;
  reason[0] = '\0';
  return 0;
}

int sandbox_ready(void) { return ready; }

const char *sandbox_reason(void) { return reason; }

const char *sandbox_logd_path(void) { return held[0][0] ? held[0] : programs[0]; }

const char *sandbox_conf_path(void) { return held[1][0] ? held[1] : programs[1]; }

const char *sandbox_logdecode_path(void) { return held[2][0] ? held[2] : programs[2]; }

int sandbox_add_br0(const char *cidr) {
  if (run("ip link show br0") != 0 && run("ip link add br0 type bridge") != 0) return -1;
  if (run(std::string("ip addr add ") + cidr + " dev br0 nodad") != 0 &&
      run(std::string("ip addr add ") + cidr + " dev br0") != 0)
    return -1;
  return run("ip link set br0 up");
}

int sandbox_del_br0(void) {
  if (run("ip link show br0") != 0) return 0;
  return run("ip link del br0");
}

int sandbox_wipe(const char *dir) {
  return run(std::string("rm -rf '") + dir + "'");
}
