// The way out over plain TCP.
// TCP rather than UDP because a sealed message is useless unless it
// arrives whole; octet counting (RFC 6587) lets the receiver cut the
// stream without looking inside, and rsyslog's imtcp takes it as it is.
// Plain syslog over TCP has no acknowledgement, and bytes the kernel took
// are not bytes the collector read: so a send ends with our half-close,
// and only the collector's own orderly close, after it has read to our
// end, confirms the messages. A reset, a timeout or a listener that never
// accepts confirms nothing, and the messages stay with the sender.
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"

#define SYSLOG_TIME_SIZE 32   // "YYYY-MM-DDTHH:MM:SS+HH:00"
#define PORT_MAX 65535
#define ERROR_TEXT_SIZE 128   // one strerror_r text

// The send timeout is the report stage's safeguard, and sealing a report
// is that stage's work: their failure lines carry its name, as the
// envelope's own lines do.
#define REPORT_STAGE_ERROR(...)                                                              \
  do {                                                                                       \
    if (LogSink.level < 5)                                                                   \
      log_write("ERROR", "send_encrypted_attack_log", __LINE__, __VA_ARGS__);                \
  } while (0)

// strerror_r in either flavour: the GNU one returns its text, the XSI one
// fills buf. The worker and the main loop both log, and strerror may share
// one buffer between them.
[[maybe_unused]] static const char *pick_error_text(const char *gnu_text, const char *buf) {
  (void)buf;
  return gnu_text;
}
[[maybe_unused]] static const char *pick_error_text(int xsi_result, const char *buf) {
  return xsi_result == 0 ? buf : "unknown error";
}
static const char *error_text(int err, char *buf, size_t size) {
  memset(buf, 0, size);
  return pick_error_text(strerror_r(err, buf, size), buf);
}

int format_syslog_message(char kind, const char *text, char *out, size_t out_size) {
  if (out == NULL || out_size == 0) return -1;
  out[0] = '\0';
  if (text == NULL) return -1;

  time_t now = clock_now();
  struct tm local;
  memset(&local, 0, sizeof local);
  char stamp[SYSLOG_TIME_SIZE];
  memset(stamp, 0, sizeof stamp);
  if (localtime_r(&now, &local) == NULL ||
      strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local) == 0)
    return -1;
  // Whole hours, as the collectors expect; a zone west of UTC gets its
  // own sign rather than "+-5".
  long hours = local.tm_gmtoff / 3600;
  size_t used = strlen(stamp);
  int z = hours >= 0 ? snprintf(stamp + used, sizeof stamp - used, "+%02ld:00", hours)
                     : snprintf(stamp + used, sizeof stamp - used, "-%02ld:00", -hours);
  if (z < 0 || (size_t)z >= sizeof stamp - used) return -1;

  // The host name is a header field: a blank in it would shift every field
  // after it in the receiver's parse.
  char host[SHIP_DEVICE_NAME_SIZE];
  if (get_device_name(host, sizeof host) != 0 || host[0] == '\0') memcpy(host, "-", 2);
  for (char *p = host; *p; p++)
    if ((unsigned char)*p <= ' ' || (unsigned char)*p >= 0x7f) *p = '-';

  int n = snprintf(out, out_size, SHIP_PRIORITY "%s %s " SHIP_APP_NAME ": " SHIP_MARKER "%c %s",
                   stamp, host, kind, text);
  if (n < 0 || (size_t)n >= out_size) {
    out[0] = '\0';
    return -1;
  }
  return n;
}

// connect with a deadline: a collector that drops SYNs must not hold the
// worker for the kernel's two minutes. A signal restarts the wait from
// the full timeout; the daemon's signals are rare enough for that. The
// socket is blocking again afterwards, so SO_SNDTIMEO governs the sends.
// 0, or -1 with errno set.
static int connect_within(int fd, const struct sockaddr_in *addr, int timeout_ms) {
  int flags = fcntl(fd, F_GETFL, 0);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return -1;
  int rc = connect(fd, (const struct sockaddr *)addr, sizeof *addr);
  if (rc != 0 && errno == EINPROGRESS) {
    struct pollfd p;
    memset(&p, 0, sizeof p);
    p.fd = fd;
    p.events = POLLOUT;
    do {
      rc = poll(&p, 1, timeout_ms);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    if (rc < 0) return -1;
    int err = 0;
    socklen_t err_len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &err_len) != 0) return -1;
    if (err != 0) {
      errno = err;
      return -1;
    }
    rc = 0;
  }
  if (rc != 0) return -1;
  return fcntl(fd, F_SETFL, flags) == 0 ? 0 : -1;
}

int same_target(const ShipTarget *a, const ShipTarget *b) {
  return a->transport == b->transport && a->port == b->port &&
         strncmp(a->host, b->host, sizeof a->host) == 0;
}

// The collector's address. 0, or -1 ("gethostbyname error for host:%s").
static int resolve(const ShipTarget *target, struct sockaddr_in *addr) {
  // The reentrant lookup: tests and tools may resolve on more than one
  // thread.
  struct hostent entry;
  struct hostent *found = NULL;
  char scratch[SHIP_HOSTENT_BUF_SIZE];
  int h_err = 0;
  memset(&entry, 0, sizeof entry);
  memset(scratch, 0, sizeof scratch);
  if (target->host[0] == '\0' ||
      gethostbyname_r(target->host, &entry, scratch, sizeof scratch, &found, &h_err) != 0 ||
      found == NULL || found->h_addrtype != AF_INET || found->h_length != 4 ||
      found->h_addr_list[0] == NULL) {
    DLOG_ERROR("gethostbyname error for host:%s", target->host);
    return -1;
  }
  memset(addr, 0, sizeof *addr);
  addr->sin_family = AF_INET;
  memcpy(&addr->sin_addr, found->h_addr_list[0], 4);
  addr->sin_port = htons((uint16_t)target->port);
  return 0;
}

// Writes all of len bytes, flags passed on. 0, or -1 with errno set (0
// when the kernel took nothing).
static int send_all(int fd, const char *data, size_t len, int flags) {
  size_t sent = 0;
  while (sent < len) {
    // MSG_NOSIGNAL: a collector that hangs up must not end the daemon.
    ssize_t n = send(fd, data + sent, len - sent, flags | MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = 0;
      return -1;
    }
    sent += (size_t)n;
  }
  return 0;
}

// After our half-close: reads (and drops) until the collector's end of
// stream, for at most timeout_ms. 0 on an orderly end after the collector's
// side took every byte we sent; -1 with errno set on a reset, an error, the
// timeout, or an end that came before our bytes were taken (a collector
// closing as they arrive would reset them, and nobody read them).
static int await_end_of_stream(int fd, int timeout_ms) {
  int64_t deadline = monotonic_ms() + timeout_ms;
  char sink[512];
  for (;;) {
    int64_t left = deadline - monotonic_ms();
    if (left <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    struct pollfd p;
    memset(&p, 0, sizeof p);
    p.fd = fd;
    p.events = POLLIN;
    int ready = poll(&p, 1, (int)left);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return -1;
    if (ready == 0) continue;  // the deadline decides
    ssize_t n = recv(fd, sink, sizeof sink, MSG_DONTWAIT);
    if (n == 0) {
      int unacked = 0;
      if (ioctl(fd, SIOCOUTQ, &unacked) != 0) return -1;
      if (unacked == 0) return 0;
      errno = ECONNABORTED;
      return -1;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (n < 0) return -1;
  }
}

int send_to_syslog_server(const ShipTarget *target, const char *const *msgs, const size_t *lens,
                          int count) {
  if (target == NULL || msgs == NULL || lens == NULL || count <= 0) return -1;
  char why[ERROR_TEXT_SIZE];
  if (target->port <= 0 || target->port > PORT_MAX) {
    DLOG_ERROR("connect() error:%s", error_text(EINVAL, why, sizeof why));
    return -1;
  }
  struct sockaddr_in addr;
  if (resolve(target, &addr) != 0) return -1;

  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    DLOG_ERROR("sock() error:%s", error_text(errno, why, sizeof why));
    return -1;
  }
  // A buffer for a whole report, so a report leaves in one send; a
  // refusal only costs more sends.
  int sndbuf = SHIP_SNDBUF_SIZE;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf) != 0)
    DLOG_ERROR("set SO_SNDBUF error:%s", error_text(errno, why, sizeof why));
  // Without the send timeout a stalled collector would hold the worker for
  // good, so its failure ends the attempt.
  struct timeval timeout;
  memset(&timeout, 0, sizeof timeout);
  timeout.tv_sec = SHIP_SEND_TIMEOUT_SEC;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
    REPORT_STAGE_ERROR("set SO_SNDTIMEO error:%s", error_text(errno, why, sizeof why));
    close(fd);
    return -1;
  }
  if (connect_within(fd, &addr, SHIP_CONNECT_TIMEOUT_MS) != 0) {
    DLOG_ERROR("connect() error:%s", error_text(errno, why, sizeof why));
    close(fd);
    return -1;
  }

  // A collector that takes a few bytes now and then satisfies each send's
  // own timeout; the batch as a whole has one too.
  int64_t deadline = monotonic_ms() + SHIP_BATCH_TIMEOUT_SEC * 1000;
  size_t total = 0;
  for (int i = 0; i < count; i++) {
    if (monotonic_ms() > deadline) {
      DLOG_ERROR("send() error:%s", error_text(ETIMEDOUT, why, sizeof why));
      close(fd);
      return -1;
    }
    char count_text[24];
    int h = snprintf(count_text, sizeof count_text, "%lu ", (unsigned long)lens[i]);
    if (h < 0 || (size_t)h >= sizeof count_text || msgs[i] == NULL ||
        send_all(fd, count_text, (size_t)h, MSG_MORE) != 0 ||
        send_all(fd, msgs[i], lens[i], i + 1 < count ? MSG_MORE : 0) != 0) {
      DLOG_ERROR("send() error:%s", errno != 0 ? error_text(errno, why, sizeof why) : "nothing sent");
      close(fd);
      return -1;
    }
    total += (size_t)h + lens[i];
  }
  if (shutdown(fd, SHUT_WR) != 0 || await_end_of_stream(fd, SHIP_CONFIRM_TIMEOUT_SEC * 1000) != 0) {
    DLOG_ERROR("send() error:collector did not confirm %d message(s): %s", count,
               error_text(errno, why, sizeof why));
    close(fd);
    return -1;
  }
  close(fd);
  DLOG_DEBUG("syslog send() OK:len=%d", (int)total);
  return 1;
}

int build_attack_message(const char *fragment, const SealMeta *meta, char *out, size_t size) {
  if (out == NULL || size == 0) return -1;
  out[0] = '\0';
  char envelope[SHIP_ENVELOPE_SIZE];
  int n = build_attack_envelope(fragment, envelope, sizeof envelope);
  if (n < 0) {
    REPORT_STAGE_ERROR("encrypt attack log error:%s", "fragment missing or too long");
    return -1;
  }
  char text[SHIP_ATTACK_TEXT_SIZE];
  memset(text, 0, sizeof text);
  int sealed = seal_message(SHIP_KIND_ATTACK, ship_public_key(SHIP_KIND_ATTACK), meta,
                            (const unsigned char *)envelope, (size_t)n, 0, text, sizeof text);
  if (sealed < 0) {
    REPORT_STAGE_ERROR("encrypt attack log error:%s", seal_error_text(sealed));
    return -1;
  }
  int m = format_syslog_message(SHIP_KIND_ATTACK, text, out, size);
  if (m < 0) REPORT_STAGE_ERROR("encrypt attack log error:%s", "message does not fit");
  return m;
}
