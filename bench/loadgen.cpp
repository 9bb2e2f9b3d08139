// Load generator of the benchmarks: plays the proxy's part on a unix
// datagram socket and times what comes out at the other end.
//
//   access SOCK RATE SECONDS WATCH QUIET DRAIN
//       Access lines for SECONDS, RATE a second (0: as fast as the socket
//       takes them). Non-blocking sends retried on EAGAIN, so the sender
//       loses nothing. Then waits until the file WATCH (the collector's) has
//       not grown for QUIET seconds, or at most DRAIN seconds.
//       Prints: sent=N send_s=S elapsed_s=E drained=yes|no bytes=B
//       (E: first send to last growth, B: the file's size then; "no" when
//       DRAIN cut the wait short)
//   attack SOCK N COUNTFILE TIMEOUT
//       N attack records with blocking sends, then waits until the count in
//       COUNTFILE has grown by N. Prints: sent=N counted=C elapsed_s=E
//   burst SOCK N RATE COUNTFILE
//       N attack records paced at RATE a second, MSG_DONTWAIT: a failed send
//       is a lost record, as for the proxy. Waits until the count settles.
//       Prints: attempts=N failed=F counted=C lost=L send_s=S
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "records.h"

namespace {

double now_s() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

void sleep_until(double when) {
  struct timespec t;
  t.tv_sec = (time_t)when;
  t.tv_nsec = (long)((when - (double)t.tv_sec) * 1e9);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) continue;
}

void nap_ms(long ms) {
  struct timespec t = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&t, nullptr);
}

// A datagram socket connected to path, as the proxy's syslog sender keeps it.
int connect_dgram(const char *path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  // The receiver may still be binding its socket.
  for (int i = 0; i < 200; i++) {
    if (connect(fd, (sockaddr *)&addr, sizeof addr) == 0) return fd;
    nap_ms(25);
  }
  close(fd);
  return -1;
}

// Sends without blocking; when the receiver's queue is full, waits until it
// has room and tries again. false on any other error.
bool send_retry(int fd, const std::string &d) {
  for (;;) {
    if (send(fd, d.data(), d.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == (ssize_t)d.size()) return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS && errno != EINTR) return false;
    struct pollfd p = {fd, POLLOUT, 0};
    poll(&p, 1, 5);
  }
}

long file_size(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 ? (long)st.st_size : 0;
}

// The count a program keeps in a one-line file; -1 while the file is absent
// or caught between its truncation and its write.
long read_count(const char *path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buf[64];
  ssize_t n = read(fd, buf, sizeof buf - 1);
  close(fd);
  if (n <= 0) return -1;
  buf[n] = '\0';
  if (buf[0] < '0' || buf[0] > '9') return -1;
  return std::strtol(buf, nullptr, 10);
}

// The count before a run: a missing file is a count of 0.
long base_count(const char *path) {
  if (access(path, F_OK) != 0) return 0;
  for (int i = 0; i < 100; i++) {
    long c = read_count(path);
    if (c >= 0) return c;
    nap_ms(5);
  }
  return 0;
}

int cmd_access(int argc, char **argv) {
  if (argc != 8) return 2;
  const char *sock = argv[2];
  double rate = std::atof(argv[3]), seconds = std::atof(argv[4]), quiet = std::atof(argv[6]);
  double drain = std::atof(argv[7]);
  const char *watch = argv[5];
  int fd = connect_dgram(sock);
  if (fd < 0) {
    std::fprintf(stderr, "loadgen: cannot connect to %s: %s\n", sock, std::strerror(errno));
    return 1;
  }
  // Lines are numbered from 0; making one costs far less than sending it.
  unsigned long limit = rate > 0 ? (unsigned long)(rate * seconds) : ~0ul;

  // The collector's file is watched from the start, on its own thread.
  std::atomic<bool> sending{true}, drained{true};
  std::atomic<double> last_growth{0}, sent_at{0};
  std::atomic<long> watched_bytes{0};
  double start = now_s();
  std::thread watcher([&] {
    long size = file_size(watch);
    watched_bytes = size;
    last_growth = start;
    for (;;) {
      nap_ms(20);
      long s = file_size(watch);
      double t = now_s();
      if (s != size) {
        size = s;
        watched_bytes = s;
        last_growth = t;
      } else if (!sending && t - last_growth >= quiet && t - start >= quiet) {
        return;
      }
      if (!sending && t - sent_at >= drain) {
        drained = false;
        return;
      }
    }
  });
  unsigned long sent = 0;
  double end = start + seconds;
  prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
  while (sent < limit) {
    if (rate > 0)
      sleep_until(start + (double)sent / rate);
    else if ((sent & 63) == 0 && now_s() >= end)
      break;
    if (!send_retry(fd, bench::access_line(sent))) {
      std::fprintf(stderr, "loadgen: send: %s\n", std::strerror(errno));
      break;
    }
    sent++;
  }
  double send_s = now_s() - start;
  sent_at = now_s();
  sending = false;
  watcher.join();
  std::printf("sent=%lu send_s=%.3f elapsed_s=%.3f drained=%s bytes=%ld\n", sent, send_s,
              last_growth - start, drained ? "yes" : "no", watched_bytes.load());
  close(fd);
  return 0;
}

int cmd_attack(int argc, char **argv) {
  if (argc != 6) return 2;
  const char *sock = argv[2], *count_file = argv[4];
  long n = std::atol(argv[3]);
  double timeout = std::atof(argv[5]);
  std::vector<bench::AttackSample> mix = bench::attack_mix();
  int fd = connect_dgram(sock);
  if (fd < 0) {
    std::fprintf(stderr, "loadgen: cannot connect to %s: %s\n", sock, std::strerror(errno));
    return 1;
  }
  long base = base_count(count_file);
  double start = now_s();
  long sent = 0;
  for (; sent < n; sent++) {
    const std::string &d = mix[(size_t)sent % mix.size()].datagram;
    if (send(fd, d.data(), d.size(), MSG_NOSIGNAL) != (ssize_t)d.size()) {
      std::fprintf(stderr, "loadgen: send: %s\n", std::strerror(errno));
      break;
    }
  }
  long counted = 0;
  double done = 0;
  for (;;) {
    long c = read_count(count_file);
    double t = now_s();
    if (c >= 0) counted = c - base;
    if (counted >= sent) {
      done = t;
      break;
    }
    if (t - start > timeout) break;
    nap_ms(1);
  }
  if (done > 0)
    std::printf("sent=%ld counted=%ld elapsed_s=%.4f\n", sent, counted, done - start);
  else
    std::printf("sent=%ld counted=%ld elapsed_s=timeout\n", sent, counted);
  close(fd);
  return 0;
}

int cmd_burst(int argc, char **argv) {
  if (argc != 6) return 2;
  const char *sock = argv[2], *count_file = argv[5];
  long n = std::atol(argv[3]);
  double rate = std::atof(argv[4]);
  std::vector<bench::AttackSample> mix = bench::attack_mix();
  int fd = connect_dgram(sock);
  if (fd < 0 || rate <= 0) {
    std::fprintf(stderr, "loadgen: cannot connect to %s: %s\n", sock, std::strerror(errno));
    return 1;
  }
  long base = base_count(count_file);
  prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
  double start = now_s();
  long failed = 0;
  for (long i = 0; i < n; i++) {
    sleep_until(start + (double)i / rate);
    const std::string &d = mix[(size_t)i % mix.size()].datagram;
    if (send(fd, d.data(), d.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != (ssize_t)d.size()) failed++;
  }
  double send_s = now_s() - start;
  // Settled once the count has not moved for a second (or reached n).
  long counted = 0, last = -1;
  double still_since = now_s();
  for (;;) {
    long c = read_count(count_file);
    double t = now_s();
    if (c >= 0) counted = c - base;
    if (counted >= n) break;
    if (counted != last) {
      last = counted;
      still_since = t;
    } else if (t - still_since >= 1.0) {
      break;
    }
    nap_ms(10);
  }
  std::printf("attempts=%ld failed=%ld counted=%ld lost=%ld send_s=%.3f\n", n, failed, counted,
              n - counted, send_s);
  close(fd);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int rc = 2;
  if (argc >= 2 && !std::strcmp(argv[1], "access")) rc = cmd_access(argc, argv);
  else if (argc >= 2 && !std::strcmp(argv[1], "attack")) rc = cmd_attack(argc, argv);
  else if (argc >= 2 && !std::strcmp(argv[1], "burst")) rc = cmd_burst(argc, argv);
  if (rc == 2)
    std::fprintf(stderr,
                 "usage: mox_loadgen access SOCK RATE SECONDS WATCH QUIET DRAIN\n"
                 "       mox_loadgen attack SOCK N COUNTFILE TIMEOUT\n"
                 "       mox_loadgen burst SOCK N RATE COUNTFILE\n");
  return rc;
}
