// Whole-file record locks: the single-instance lock of the daemon and the
// helpers around it. The kernel drops a record lock when its process ends,
// so a leftover file after a crash blocks nobody.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

static void whole_file_write_lock(struct flock *lock) {
  memset(lock, 0, sizeof *lock);
  lock->l_type = F_WRLCK;
  lock->l_whence = SEEK_SET;
  lock->l_start = 0;
  lock->l_len = 0;
}

int set_write_lock(int fd) {
  struct flock lock;
  whole_file_write_lock(&lock);
  return fcntl(fd, F_SETLK, &lock);
}

int test_write_lock(int fd) {
  struct flock lock;
  whole_file_write_lock(&lock);
  if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_UNLCK) return 0;
  return 1;
}

int lock_pid_file(const char *path) {
  // Never through a link planted at the path: the pid would land in its target.
  int fd = path != nullptr ? open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644) : -1;
  if (fd < 0) {
    printf("can't open %s.\n", path != nullptr ? path : "(null)");
    exit(1);
  }
  if (set_write_lock(fd) != 0) {
    if (errno == EACCES || errno == EAGAIN) {
      printf("file: %s already locked\n", path);
      close(fd);
      return 1;
    }
    printf("can't lock %s.\n", path);
    return 1;
  }
  // Truncate only once the lock is ours, so a refused second instance
  // leaves the owner's pid in place.
  if (ftruncate(fd, 0) != 0) {
    // A stale longer text would only follow the NUL written below.
  }
  char pid_text[PID_TEXT_SIZE] = {0};
  int len = snprintf(pid_text, sizeof pid_text, "%ld", static_cast<long>(getpid()));
  if (len > 0 && static_cast<size_t>(len) < sizeof pid_text) {
    ssize_t written = write(fd, pid_text, static_cast<size_t>(len) + 1);
    (void)written;  // the lock is what counts; the pid text is a courtesy
  }
  // The descriptor stays open for good: closing it would drop the lock.
  return 0;
}

int is_file_locked(const char *path) {
  int fd = path != nullptr ? open(path, O_RDWR | O_CREAT, 0400) : -1;
  if (fd < 0) {
    printf("can't open %s.\n", path != nullptr ? path : "(null)");
    return 1;
  }
  int locked = test_write_lock(fd);
  close(fd);
  return locked;
}

int kill_lock_owner(const char *path) {
  int fd = path != nullptr ? open(path, O_RDWR) : -1;
  if (fd < 0) return 1;
  // One byte less than the buffer keeps atoi inside it.
  char text[LOCK_FILE_TEXT_SIZE] = {0};
  ssize_t got = read(fd, text, sizeof text - 1);
  (void)got;  // an unreadable file names pid 0, as an empty one does
  kill(text_to_int(text), SIGKILL);  // a huge number names no process, never a wrapped one
  close(fd);
  return 0;
}
