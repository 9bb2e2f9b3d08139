// A wall clock for black-box tests, preloaded into the daemon: only
// time(), gettimeofday() and CLOCK_REALTIME move, so days pass in seconds
// and the clock can be stepped, while the monotonic clock (every wait and
// pause of the daemon) stays real. MOX_WALLCLOCK names a file holding one
// WallClock record (wallclock.h) that the test rewrites to step the clock.
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "wallclock.h"

namespace {

const volatile WallClock *shared_clock;
pthread_once_t mapped = PTHREAD_ONCE_INIT;

void map_clock() {
  const char *path = getenv("MOX_WALLCLOCK");
  int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  void *p = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(WallClock), PROT_READ, MAP_SHARED, fd, 0);
  if (fd >= 0) close(fd);
  if (p != MAP_FAILED) shared_clock = static_cast<const volatile WallClock *>(p);
}

// A 32-bit target built with a 64-bit time_t (whose entry points below
// then carry the library's 64-bit names) asks the kernel in its 64-bit call.
#ifdef __USE_TIME_BITS64
#define CLOCK_GETTIME_CALL SYS_clock_gettime64
#else
#define CLOCK_GETTIME_CALL SYS_clock_gettime
#endif

// The real wall clock, by the system call: the library's own entry points
// are the ones replaced here.
int64_t real_ns() {
  struct timespec ts = {0, 0};
  syscall(CLOCK_GETTIME_CALL, CLOCK_REALTIME, &ts);
  return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

int64_t fake_ns() {
  pthread_once(&mapped, map_clock);
  int64_t real = real_ns();
  if (shared_clock == nullptr) return real;
  return shared_clock->fake_origin_ns + (real - shared_clock->real_origin_ns) * shared_clock->rate;
}

}  // namespace

extern "C" {

time_t time(time_t *out) {
  time_t now = (time_t)(fake_ns() / 1000000000);
  if (out != nullptr) *out = now;
  return now;
}

int gettimeofday(struct timeval *tv, void *) {
  int64_t ns = fake_ns();
  *tv = {(time_t)(ns / 1000000000), (suseconds_t)(ns % 1000000000 / 1000)};
  return 0;
}

int clock_gettime(clockid_t id, struct timespec *ts) {
  if (id != CLOCK_REALTIME && id != CLOCK_REALTIME_COARSE)
    return (int)syscall(CLOCK_GETTIME_CALL, id, ts);
  int64_t ns = fake_ns();
  *ts = {(time_t)(ns / 1000000000), (long)(ns % 1000000000)};
  return 0;
}

}  // extern "C"
