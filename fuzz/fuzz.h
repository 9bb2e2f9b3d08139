// Shared set-up of the fuzz targets: a private sandbox for the fixed paths
// the code uses, the splitting of one input into the several texts a target
// needs, and the check that turns a broken promise into a finding.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "logging/logging.h"
#include "platform/platform.h"

#define FUZZ_NOW 1732270000          // the pinned clock: 2024-11-22 10:06:40 UTC
#define FUZZ_SEPARATOR "\n----\n"    // between the texts of one input
#define FUZZ_PATH_SIZE 32            // "/proc/self/fd/<n>", "/dev/urandom"
#define FUZZ_READ_CHUNK 4096

// Aborts with the failed condition: libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(cond)                                                        \
  do {                                                                          \
    if (!(cond)) {                                                              \
      fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      abort();                                                                  \
    }                                                                           \
  } while (0)

// Set-up failures end the run: a target outside its sandbox must not go on.
inline void fuzz_die(const char *what) {
  perror(what);
  exit(1);
}

// Binds from onto a new empty file at to (the mount point).
inline void fuzz_bind(const char *from, const char *to) {
  int fd = open(to, O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
  if (fd < 0 || close(fd) != 0 || mount(from, to, NULL, MS_BIND, NULL) != 0) fuzz_die(to);
}

// Enters private mount and network namespaces, with fresh tmpfs mounts on
// /tmp, /media and /dev (null, zero and urandom bound in, /dev/zvlog a plain
// file that takes the router lines), so the host's /tmp/mox, /media/nand,
// router log and syslog are never touched. Creates the folders the code
// expects, pins the clock, opens the diagnostic log and sends standard
// output to /dev/null. Call first in LLVMFuzzerInitialize: libFuzzer reads
// its corpus and flags only after it, and no thread runs yet.
inline void fuzz_sandbox(void) {
  // A source or build tree under /tmp (a CI clone) holds the seeds and the
  // corpus: kept open now, bound back at its path once /tmp is new.
  // Opened inside the new namespace: a mount of another namespace cannot be
  // bound here.
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) fuzz_die("unshare (run as root)");
  if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) fuzz_die("make / private");
  const char *trees[] = {MOX_SOURCE_DIR, MOX_BINARY_DIR};
  int tree_fds[2] = {-1, -1};
  for (int i = 0; i < 2; i++)
    if (strncmp(trees[i], "/tmp/", 5) == 0)
      tree_fds[i] = open(trees[i], O_PATH | O_DIRECTORY | O_CLOEXEC);
  // The devices are staged on a scratch /tmp, since /dev is about to be hidden.
  const char *devices[] = {"null", "zero", "urandom"};
  if (mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) fuzz_die("tmpfs on /tmp");
  char staged[FUZZ_PATH_SIZE], real[FUZZ_PATH_SIZE];
  for (int pass = 0; pass < 2; pass++) {
    if (pass == 1 && mount("none", "/dev", "tmpfs", 0, "mode=755") != 0) fuzz_die("tmpfs on /dev");
    for (const char *d : devices) {
      if (snprintf(staged, sizeof staged, "/tmp/%s", d) >= (int)sizeof staged ||
          snprintf(real, sizeof real, "/dev/%s", d) >= (int)sizeof real)
        fuzz_die(d);
      if (pass == 0)
        fuzz_bind(real, staged);
      else
        fuzz_bind(staged, real);
    }
  }
  if (write_file("/dev/zvlog", "", 0) != 0) fuzz_die("/dev/zvlog");
  if (umount2("/tmp", MNT_DETACH) != 0) fuzz_die("umount scratch /tmp");
  if (mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) fuzz_die("tmpfs on /tmp");
  if (mount("none", "/media", "tmpfs", 0, "mode=755") != 0) fuzz_die("tmpfs on /media");
  for (int i = 0; i < 2; i++) {
    if (tree_fds[i] < 0) continue;
    char source[FUZZ_PATH_SIZE];
    if (snprintf(source, sizeof source, "/proc/self/fd/%d", tree_fds[i]) >= (int)sizeof source ||
        make_dirs(trees[i]) != 0 || mount(source, trees[i], NULL, MS_BIND | MS_REC, NULL) != 0)
      fuzz_die(trees[i]);
    close(tree_fds[i]);
  }
  const char *dirs[] = {"/tmp/mox/log", "/tmp/mox/release/nginx", "/tmp/mox/release/conf_shared",
                        "/media/nand/mox_data"};
  for (const char *d : dirs)
    if (make_dirs(d) != 0) fuzz_die(d);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) fuzz_die("/dev/null");
  close(null_fd);
  // lo is down in a new network namespace. br0 gives the LAN tests a
  // network; without it every source is external: less coverage, no error.
  if (system("ip link set lo up") != 0) fuzz_die("ip link set lo up (iproute2)");
  if (system("ip link add br0 type bridge && ip addr add 192.168.1.1/24 dev br0 && "
             "ip addr add fd00:1::1/64 dev br0 nodad && ip link set br0 up") != 0)
    fprintf(stderr, "fuzz: no br0, every source counts as external\n");
  clock_set(FUZZ_NOW);
  log_init(LOG_PATH, "mox_logd", LOG_MASK_FILE);
}

// The next text of the input, up to FUZZ_SEPARATOR or the end; *at moves
// behind it. Past the end every text is empty.
inline std::string fuzz_take(const uint8_t *data, size_t size, size_t *at) {
  if (*at >= size) return std::string();
  const char *begin = (const char *)data + *at;
  size_t left = size - *at;
  const void *hit = memmem(begin, left, FUZZ_SEPARATOR, sizeof FUZZ_SEPARATOR - 1);
  size_t len = hit != NULL ? (size_t)((const char *)hit - begin) : left;
  *at += hit != NULL ? len + sizeof FUZZ_SEPARATOR - 1 : left;
  return std::string(begin, len);
}

// The whole file, or "" when it does not open.
inline std::string fuzz_slurp(const char *path) {
  std::string text;
  FILE *f = fopen(path, "rb");
  if (f == NULL) return text;
  char chunk[FUZZ_READ_CHUNK];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, n);
  fclose(f);
  return text;
}
