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
char logd_path[64];
char conf_path[64];
char logdecode_path[64];

int fail(const char *what) {
  // A reason cut to fit still names the step.
  if (std::snprintf(reason, sizeof reason, "%s: %s", what, std::strerror(errno)) < 0)
    reason[0] = '\0';
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

int under_emulator(void) {
  const char *emulator = std::getenv("MOX_EMULATOR");
  return emulator != nullptr && emulator[0] != '\0';
}

int sandbox_enter(void) {
  if (ready) return 0;
  // The daemon binary may live under /tmp, which is about to be hidden:
  // hold it open and start it through /proc/self/fd. An emulator opens the
  // program itself, after the exec has closed these: there the real paths
  // serve, the build tree being bound back below.
  int emulated = under_emulator();
  int logd = emulated ? -1 : open(MOX_LOGD_BINARY, O_RDONLY | O_CLOEXEC);
  if (logd >= 0) std::snprintf(logd_path, sizeof logd_path, "/proc/self/fd/%d", logd);
  int conf = emulated ? -1 : open(MOX_CONF_BINARY, O_RDONLY | O_CLOEXEC);
  if (conf >= 0) std::snprintf(conf_path, sizeof conf_path, "/proc/self/fd/%d", conf);
  int logdecode = emulated ? -1 : open(MOX_LOGDECODE_BINARY, O_RDONLY | O_CLOEXEC);
  if (logdecode >= 0)
    std::snprintf(logdecode_path, sizeof logdecode_path, "/proc/self/fd/%d", logdecode);

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
  char staged[64], real[64];
  for (const char *d : devices) {
    std::snprintf(staged, sizeof staged, "/tmp/%s", d);
    std::snprintf(real, sizeof real, "/dev/%s", d);
    if (bind_file(real, staged) != 0) return -1;
  }
  if (mount("none", "/dev", "tmpfs", 0, "mode=755") != 0) return fail("tmpfs on /dev");
  for (const char *d : devices) {
    std::snprintf(staged, sizeof staged, "/tmp/%s", d);
    std::snprintf(real, sizeof real, "/dev/%s", d);
    if (bind_file(staged, real) != 0) return -1;
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

const char *sandbox_logd_path(void) { return logd_path[0] ? logd_path : MOX_LOGD_BINARY; }

const char *sandbox_conf_path(void) { return conf_path[0] ? conf_path : MOX_CONF_BINARY; }

const char *sandbox_logdecode_path(void) {
  return logdecode_path[0] ? logdecode_path : MOX_LOGDECODE_BINARY;
}

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
