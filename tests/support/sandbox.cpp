#include "sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
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
  // A reason cut to fit still names the step.
  if (std::snprintf(reason, sizeof reason, "%s: %s", what, std::strerror(errno)) < 0)
    reason[0] = '\0';
  return -1;
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
  // The programs may live under /tmp, which is about to be hidden: hold
  // them open and start them through /proc/self/fd. An emulator opens the
  // program itself, after the exec has closed these: there the real paths
  // serve, the build tree being bound back below.
  for (int i = 0; i < 3 && !under_emulator(); i++) {
    int fd = open(programs[i], O_RDONLY | O_CLOEXEC);
    if (fd >= 0) std::snprintf(held[i], sizeof held[i], "/proc/self/fd/%d", fd);
  }

  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return fail("unshare(CLONE_NEWNS|CLONE_NEWNET)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make / private");
  // What the fresh mounts hide but the tests need: three devices, and the source and build
  // trees where they lie under /tmp (a CI clone). Held open inside the new namespace (a
  // mount of another cannot be bound here), then bound back at their paths.
  const char *keep[] = {"/dev/null", "/dev/zero", "/dev/urandom", MOX_SOURCE_DIR, MOX_BINARY_DIR};
  int fds[5];
  for (int i = 0; i < 5; i++)
    fds[i] = i < 3 || std::strncmp(keep[i], "/tmp/", 5) == 0 ? open(keep[i], O_PATH | O_CLOEXEC) : -2;
  for (const char *dir : {"/dev", "/tmp", "/media"})
    if (mount("none", dir, "tmpfs", 0, std::strcmp(dir, "/tmp") ? "mode=755" : "mode=1777") != 0)
      return fail(dir);
  for (int i = 0; i < 5; i++) {
    if (fds[i] == -2) continue;
    char source[64];
    std::snprintf(source, sizeof source, "/proc/self/fd/%d", fds[i]);
    // A file or a folder to bind onto.
    int made = i < 3 ? close(open(keep[i], O_CREAT | O_WRONLY | O_CLOEXEC, 0666))
                     : run(std::string("mkdir -p '") + keep[i] + "'");
    if (fds[i] < 0 || made != 0 || mount(source, keep[i], nullptr, MS_BIND | MS_REC, nullptr) != 0)
      return fail(keep[i]);
    close(fds[i]);
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
