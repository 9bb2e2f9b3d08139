// Thin file calls, each fixing one convention its callers rely on. Their
// failure results differ on purpose (1 for some, -1 for others).
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"

// One read only: a short read is taken as the whole content.
ssize_t read_file(const char *path, char *buf, size_t size) {
  if (path == nullptr || buf == nullptr) return -1;
  int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  ssize_t got = read(fd, buf, size);
  close(fd);
  return got;
}

int read_file_into(const char *path, char *buf, ssize_t *size) {
  if (path == nullptr || buf == nullptr || size == nullptr) return 1;
  int fd = open(path, O_RDONLY);
  if (fd < 0) return 1;
  *size = read(fd, buf, static_cast<size_t>(*size));
  close(fd);
  return 0;
}

int write_file(const char *path, const char *data, size_t size) {
  int fd = path != nullptr ? open(path, O_RDWR | O_CREAT | O_TRUNC, 0644) : -1;
  if (fd < 0) {
    printf("write file fail:%s.\n", strerror(path != nullptr ? errno : EINVAL));
    return 1;
  }
  ssize_t written = write(fd, data, size);
  (void)written;  // the callers' data is rewritten at the next change anyway
  close(fd);
  return 0;
}

// The folder part of path into dir (PATH_MAX); "." for a bare name.
static void folder_of(const char *path, char *dir) {
  const char *slash = strrchr(path, '/');
  if (slash == nullptr) {
    memcpy(dir, ".", 2);
  } else if (slash == path) {
    memcpy(dir, "/", 2);
  } else {
    memcpy(dir, path, static_cast<size_t>(slash - path));
    dir[slash - path] = '\0';
  }
}

int replace_file(const char *path, const char *data, size_t size, mode_t mode) {
  if (path == nullptr || (data == nullptr && size > 0)) {
    errno = EINVAL;
    return -1;
  }
  char tmp[PATH_MAX];
  char dir[PATH_MAX];
  memset(tmp, 0, sizeof tmp);
  memset(dir, 0, sizeof dir);
  int n = snprintf(tmp, sizeof tmp, "%s.XXXXXX", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) {
    errno = ENAMETOOLONG;
    return -1;
  }
  folder_of(path, dir);
  // mkstemp opens with O_EXCL: a link planted at the name is never followed.
  int fd = mkostemp(tmp, O_CLOEXEC);
  if (fd < 0) return -1;
  int rc = 0;
  for (size_t done = 0; rc == 0 && done < size;) {
    ssize_t w = write(fd, data + done, size - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) rc = -1;
    else done += static_cast<size_t>(w);
  }
  if (rc == 0 && (fchmod(fd, mode) != 0 || fsync(fd) != 0)) rc = -1;
  int saved = errno;
  if (close(fd) != 0 && rc == 0) {
    rc = -1;
    saved = errno;
  }
  if (rc == 0 && rename(tmp, path) != 0) {
    rc = -1;
    saved = errno;
  }
  if (rc != 0) {
    unlink(tmp);
    errno = saved;
    return -1;
  }
  // The rename is durable once the folder is: a failure here is not the
  // caller's to undo, the new content is already in place.
  int dfd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  return 0;
}

FILE *fopen_regular(const char *path) {
  if (path == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return nullptr;
  }
  FILE *file = fdopen(fd, "r");
  if (file == nullptr) close(fd);
  return file;
}

int overwrite_file(const char *path, const char *data, size_t size, mode_t mode) {
  if (path == nullptr || (data == nullptr && size > 0)) {
    errno = EINVAL;
    return -1;
  }
  int fd = open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) return -1;
  struct stat st;
  int rc = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? 0 : -1;
  if (rc != 0) errno = EINVAL;
  for (size_t done = 0; rc == 0 && done < size;) {
    ssize_t w = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (w == 0) errno = EIO;
      rc = -1;
    } else {
      done += static_cast<size_t>(w);
    }
  }
  // Only a shorter text leaves old bytes behind: the count file, rewritten
  // for every attack, mostly grows and is spared the call.
  if (rc == 0 && st.st_size > static_cast<off_t>(size) &&
      ftruncate(fd, static_cast<off_t>(size)) != 0)
    rc = -1;
  int saved = errno;
  close(fd);
  errno = saved;
  return rc;
}

int append_file(const char *path, const char *data, size_t size) {
  if (path == nullptr) return -1;
  FILE *file = fopen(path, "a+");
  if (file == nullptr) return -1;
  fseek(file, 0, SEEK_END);
  fwrite(data, 1, size, file);
  fclose(file);
  return 0;
}

int remove_file(const char *path) {
  if (path == nullptr) return -1;
  return remove(path) == 0 ? 0 : -1;
}

int rename_file(const char *old_path, const char *new_path) {
  if (old_path == nullptr || new_path == nullptr) return -1;
  // A failed rename is not reported: callers treat the move as best effort.
  rename(old_path, new_path);
  return 0;
}

long get_file_size(const char *path) {
  if (path == nullptr) return -1;
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  return static_cast<long>(st.st_size);
}

int file_exists(const char *path) { return path != nullptr && access(path, F_OK) == 0; }
