// Setting the sink up: opening the file (making its folders), the set-up
// trim, and the level from the settings file.
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "logging/logging.h"
#include "platform/platform.h"

#define LOG_DIR_MODE 0766  // deliberately not 0755/0777; umask applies
#define LOG_LEVEL_DEFAULT 4

static void open_failure(void) {
  perror("open file failure");
  exit(1);
}

// 0 when dir is a directory or could be made one, -1 otherwise. Only an
// exact directory type passes; any failing stat means "make it".
static int ensure_dir(const char *dir) {
  struct stat st;
  memset(&st, 0, sizeof st);
  if (stat(dir, &st) == 0) return (st.st_mode & S_IFMT) == S_IFDIR ? 0 : -1;
  return mkdir(dir, LOG_DIR_MODE) == 0 ? 0 : -1;
}

// The first open failed: make every folder of the path and open again.
// Every failure ends the process.
static void open_with_dirs(const char *path, size_t len) {
  char dir[LOG_DIR_PATH_MAX];
  memset(dir, 0, sizeof dir);
  if (len >= sizeof dir) open_failure();
  memcpy(dir, path, len);

  char *last = strrchr(dir, '/');
  if (last == NULL) open_failure();
  size_t cut = (size_t)(last - dir);
  *last = '\0';

  // Index 0 is skipped so that a leading "/" is not taken for an empty
  // component. A file directly under the root leaves "" here, which
  // neither stat nor mkdir accepts.
  if (cut >= 2) {
    for (size_t i = 1; i < cut; i++) {
      if (dir[i] != '/') continue;
      dir[i] = '\0';
      if (ensure_dir(dir) != 0) open_failure();
      dir[i] = '/';
    }
  }
  if (ensure_dir(dir) != 0) open_failure();

  LogSink.file = log_stream_open(path);
  if (LogSink.file == NULL) open_failure();
}

int32_t log_level_from_value(int value) {
  // Compared as unsigned: negatives land above 3 with the rest.
  return (unsigned int)value <= 3u ? (int32_t)value : LOG_LEVEL_DEFAULT;
}

// Level for the settings key name: 4 without a name, a readable file or a
// line for the key.
static int32_t level_from_settings(const char *name) {
  if (name == NULL) return LOG_LEVEL_DEFAULT;
  int value = 0;
  if (read_setting(RZPZ_PATH, name, &value) != 0) return LOG_LEVEL_DEFAULT;
  return log_level_from_value(value);
}

void log_open(const char *path, const char *name, uint32_t mask) {
  if (LogSink.file != NULL) return;
  if (path == NULL) {
    perror("path is NULL");
    exit(1);
  }

  size_t len = strlen(path);
  LogSink.file = log_stream_open(path);
  if (LogSink.file == NULL) open_with_dirs(path, len);

  // A trim whose rename failed leaves a path without a stream; replace it.
  free(LogSink.path);
  LogSink.path = NULL;
  char *copy = (char *)malloc(len + 1);
  if (copy == NULL) {
    perror("allocate memory failure");
    fclose(LogSink.file);
    LogSink.file = NULL;
    exit(1);
  }
  memcpy(copy, path, len);
  copy[len] = '\0';
  LogSink.path = copy;

  // Cut a file left too large by an earlier run; level and mask still hold
  // their earlier values while this runs.
  log_trim(&LogSink);

  LogSink.level = level_from_settings(name);
  LogSink.mask = mask;
}

void log_init(const char *path, const char *name, uint32_t mask) {
  log_close();
  log_open(path, name, mask);
}
