// The sink itself: the levelled line writer, the timestamp, the trim that
// keeps the file small, and closing.
#include "logging/logging.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "platform/platform.h"

// Constant-initialised, so the macros are safe (silent) before log_init,
// even from code that runs before main.
LogSinkRecord LogSink = {NULL, NULL, 3, 0};

// Gate of the trim, deliberately never advanced: it stays 0, so the gate is
// always open, every line written to the file reaches the disk at once and
// the size is checked each time.
static int32_t trim_counter = 0;

// The sender's worker thread logs too, and a trim closes and replaces the
// stream under any other writer: one lock around each whole line and its
// trim keeps a second thread off a stream that is being replaced. The level
// test in the macros stays outside it.
static pthread_mutex_t sink_lock = PTHREAD_MUTEX_INITIALIZER;

// Lines that met a stream in error since the last line that went through.
static uint32_t failed_lines = 0;

FILE *log_stream_open(const char *path) {
  int fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return NULL;
  FILE *file = fdopen(fd, "a+");
  if (file == NULL) close(fd);
  return file;
}

// After a line: a stream in error (a full disk, a FIFO nobody reads) counts
// the line as lost; the first line that goes through again says how many.
static void account_line(const char *stamp) {
  FILE *file = LogSink.file;
  if (file == NULL) return;
  if (ferror(file) || fflush(file) != 0) {
    failed_lines++;
    clearerr(file);
    return;
  }
  if (failed_lines == 0) return;
  fprintf(file, "%s  %-5s  (%s:%d)  %u log lines may be lost: the log file did not take them\n",
          stamp, "ERROR", __func__, __LINE__, failed_lines);
  if (fflush(file) == 0) failed_lines = 0;
  clearerr(file);
}

void log_write(const char *label, const char *func, int line, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  pthread_mutex_lock(&sink_lock);

  if (LogSink.mask & LOG_MASK_STDOUT) {
    va_list copy;
    va_copy(copy, args);
    vprintf(fmt, copy);
    va_end(copy);
    putchar('\n');
  }

  // With no stream (before log_open, or after a trim whose rename or reopen
  // failed) the file copy is skipped: never write to a missing stream.
  if ((LogSink.mask & LOG_MASK_FILE) && LogSink.file != NULL) {
    char stamp[LOG_TIME_SIZE];
    memset(stamp, 0, sizeof stamp);
    log_timestamp(stamp, sizeof stamp);

    // Prefix, message and newline go into the same stream buffer, so they
    // leave it as one line.
    va_list copy;
    va_copy(copy, args);
    fprintf(LogSink.file, "%s  %-5s  (%s:%d)  ", stamp, label, func, line);
    vfprintf(LogSink.file, fmt, copy);
    fputc('\n', LogSink.file);
    va_end(copy);

    log_trim(&LogSink);
    account_line(stamp);
  }

  pthread_mutex_unlock(&sink_lock);
  va_end(args);
}

void log_timestamp(char *buf, size_t size) {
  if (buf == NULL || size == 0) return;
  buf[0] = '\0';
  time_t now = clock_now();
  struct tm local;
  memset(&local, 0, sizeof local);
  if (localtime_r(&now, &local) == NULL) return;
  if (strftime(buf, size, "%Y-%m-%d %H:%M:%S", &local) == 0) buf[0] = '\0';
}

// Where the kept tail may begin. Computed in 64 bits so that a file found
// beyond 1 GiB cannot overflow 2 * size; below that the result equals the
// truncated 32-bit computation.
static long trim_start(long size) {
  int64_t start = (2 * (int64_t)size) / 5;
  if ((int64_t)size - start > LOG_TRIM_THRESHOLD) start = (int64_t)size - LOG_TRIM_KEEP;
  return (long)start;
}

// Drops the temporary copy of an abandoned trim. The log stays whole and
// open; its error flag is cleared, because a sticky flag would make every
// later trim give up at its first read and the file would grow for good.
static void trim_abandon(FILE *log, FILE *tmp, char *tmp_name) {
  if (tmp != NULL) fclose(tmp);
  if (tmp_name != NULL) {
    remove(tmp_name);
    free(tmp_name);
  }
  clearerr(log);
}

void log_trim(LogSinkRecord *sink) {
  if (sink == NULL || sink->path == NULL) return;
  trim_counter = trim_counter % 16;
  if (trim_counter != 0) return;
  // No stream, nothing to measure (fflush(NULL) would flush every stream).
  if (sink->file == NULL) return;

  FILE *log = sink->file;
  fflush(log);
  // A stream freshly opened with "a+" reports position 0 here (glibc only
  // moves to the end on the first write), which would make the trim at
  // log_open a no-op. Measuring from the end works for both cases.
  fseek(log, 0, SEEK_END);
  long size = ftell(log);
  if (size < LOG_TRIM_THRESHOLD) return;

  fseek(log, trim_start(size), SEEK_SET);

  // The tail restarts behind the first newline at or after start, so the
  // line start falls in is dropped whole.
  char block[LOG_COPY_BLOCK];
  memset(block, 0, sizeof block);
  size_t got = 0;
  const char *newline = NULL;
  while (newline == NULL) {
    if (feof(log)) return;  // no newline behind start: the next line retries
    got = fread(block, 1, sizeof block, log);
    if (ferror(log)) {
      trim_abandon(log, NULL, NULL);
      return;
    }
    newline = (const char *)memchr(block, '\n', got);
  }

  size_t name_size = strlen(sink->path) + 5;
  char *tmp_name = (char *)malloc(name_size);
  if (tmp_name == NULL) {
    perror("allocate memory failure");
    exit(1);
  }
  int n = snprintf(tmp_name, name_size, "%s.tmp", sink->path);
  if (n < 0 || (size_t)n >= name_size) {
    free(tmp_name);
    return;
  }

  // Without a temporary file there is nowhere to copy to: give up and leave
  // the log whole and open; the next line tries again. The name is fixed,
  // so whatever stands there goes first, and the new file is made, never
  // opened: a link planted at the name is neither followed nor reused.
  unlink(tmp_name);
  int tmp_fd = open(tmp_name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  FILE *tmp = tmp_fd >= 0 ? fdopen(tmp_fd, "w+") : NULL;
  if (tmp == NULL) {
    if (tmp_fd >= 0) close(tmp_fd);
    free(tmp_name);
    return;
  }

  size_t skip = (size_t)(newline - block) + 1;
  if (got > skip) fwrite(block + skip, 1, got - skip, tmp);

  // A block that comes with the error flag is dropped. A read that brings
  // nothing but the error would never reach end-of-file and repeat for
  // ever, so it abandons the trim instead.
  while (!feof(log)) {
    got = fread(block, 1, sizeof block, log);
    if (ferror(log)) {
      if (got == 0) {
        trim_abandon(log, tmp, tmp_name);
        return;
      }
      continue;
    }
    fwrite(block, 1, got, tmp);
  }

  fclose(log);
  fclose(tmp);
  remove(sink->path);
  // A failed rename leaves the content in the temporary file and no stream.
  if (rename(tmp_name, sink->path) == 0)
    sink->file = log_stream_open(sink->path);
  else
    sink->file = NULL;
  free(tmp_name);
}

void log_close(void) {
  if (LogSink.file != NULL) {
    fclose(LogSink.file);
    LogSink.file = NULL;
  }
  if (LogSink.path != NULL) {
    free(LogSink.path);
    LogSink.path = NULL;
  }
}
