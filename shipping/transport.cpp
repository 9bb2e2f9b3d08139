// The way out over TCP, plain or inside TLS.
// TCP rather than UDP because a sealed message is useless unless it
// arrives whole; octet counting (RFC 6587) lets the receiver cut the
// stream without looking inside, and rsyslog's imtcp takes it as it is.
// Plain syslog over TCP has no acknowledgement, and bytes the kernel took
// are not bytes the collector read: so a send ends with our half-close,
// and only the collector's own orderly close, after it has read to our
// end, confirms the messages. A reset, a timeout or a listener that never
// accepts confirms nothing, and the messages stay with the sender.
//
// TLS (RFC 5425) carries the same frames and ends the same way, with our
// close_notify before the half-close. The seal already hides the records;
// what TLS adds is the collector's identity: without it whoever answers on
// the address, or behind a forged DNS answer, would collect everything.
// So the certificate must chain to SHIP_CA_FILE and name HOST, or nothing
// is sent, and there is no way to an unverified session.
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
#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"

#define SYSLOG_TIME_SIZE 32   // "YYYY-MM-DDTHH:MM:SS+HH:00"
#define PORT_MAX 65535
#define ERROR_TEXT_SIZE 128   // one strerror_r text
#define TLS_RECORD_SIZE 16384 // TLS's largest record: frames are packed into whole ones
#define TLS_SINK_SIZE 512     // what a collector says after our close_notify, dropped

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

// A connected socket to target, with the buffer and the send timeout of a
// batch. The socket, or -1 (logged).
static int open_connection(const ShipTarget *target) {
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
  return fd;
}

static int send_plain(const ShipTarget *target, const char *const *msgs, const size_t *lens,
                      int count) {
  char why[ERROR_TEXT_SIZE];
  int fd = open_connection(target);
  if (fd < 0) return -1;

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

void pipe_hold(PipeGuard *g) {
  sigset_t pipe_only, pending;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_only, &g->old);
  g->was_pending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

void pipe_release(const PipeGuard *g) {
  sigset_t pipe_only, pending;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  if (!g->was_pending && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
    struct timespec now = {0, 0};
    while (sigtimedwait(&pipe_only, NULL, &now) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &g->old, NULL);
}

// One TLS session: the engine's state and the socket under it, which is
// non-blocking so that every wait has a deadline of ours.
struct TlsLink {
  SSL *ssl;
  int fd;
  const ShipTarget *target;
};

enum TlsStep { TLS_HANDSHAKE, TLS_WRITE, TLS_READ, TLS_CLOSE };

// Runs one step, waiting on the socket for what the engine needs until
// deadline. The step's positive result (TLS_CLOSE: 1 once our close_notify
// is out); else -1 with *code the engine's SSL_ERROR_ and errno set
// (ETIMEDOUT when the deadline passed, EPROTO for a TLS failure, whose
// reason is queued in the engine's error list).
static int tls_step(TlsLink *t, TlsStep step, void *buf, int len, int64_t deadline, int *code) {
  for (;;) {
    ERR_clear_error();
    errno = 0;
    int rc = step == TLS_HANDSHAKE ? SSL_connect(t->ssl)
             : step == TLS_WRITE   ? SSL_write(t->ssl, buf, len)
             : step == TLS_READ    ? SSL_read(t->ssl, buf, len)
                                   : SSL_shutdown(t->ssl);
    // SSL_shutdown's 0: ours is sent, theirs has not come yet.
    if (rc > 0 || (step == TLS_CLOSE && rc == 0)) return rc > 0 ? rc : 1;
    int saved = errno;
    *code = SSL_get_error(t->ssl, rc);
    if (*code != SSL_ERROR_WANT_READ && *code != SSL_ERROR_WANT_WRITE) {
      errno = *code == SSL_ERROR_SYSCALL ? (saved != 0 ? saved : ECONNRESET) : EPROTO;
      return -1;
    }
    struct pollfd p;
    memset(&p, 0, sizeof p);
    p.fd = t->fd;
    p.events = *code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    int ready = 0;
    do {
      int64_t left = deadline - monotonic_ms();
      if (left <= 0) {
        errno = ETIMEDOUT;
        return -1;
      }
      ready = poll(&p, 1, (int)left);
    } while (ready == 0 || (ready < 0 && errno == EINTR));
    if (ready < 0) return -1;
  }
}

// Why the last step failed, for the log: the engine's own reason when it
// queued one, else the system's.
static const char *tls_reason(char *buf, size_t size) {
  unsigned long e = ERR_peek_error();
  const char *reason = e != 0 ? ERR_reason_error_string(e) : NULL;
  if (reason != NULL) return reason;
  return error_text(errno != 0 ? errno : ECONNRESET, buf, size);
}

// The context of one try: TLS 1.2 at least, the peer verified against the
// CA file alone. Read at every try, so that a CA the operator replaces
// counts from the next batch. Null when the file is unusable (logged).
static SSL_CTX *tls_context(const ShipTarget *target) {
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  ERR_clear_error();
  if (ctx == NULL || SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_load_verify_locations(ctx, SHIP_CA_FILE, NULL) != 1) {
    char why[ERROR_TEXT_SIZE];
    DLOG_ERROR("TLS to %s:%d: CA file %s unusable: %s", target->host, (int)target->port,
               SHIP_CA_FILE, ctx == NULL ? "no memory" : tls_reason(why, sizeof why));
    SSL_CTX_free(ctx);
    return NULL;
  }
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, NULL);
  // A collector that closes the TCP stream after reading our close_notify
  // without sending its own has still ended in order: the end of stream
  // check below decides, as for tcp.
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
  return ctx;
}

// The session over fd, its certificate checked for HOST: a name against the
// certificate's DNS names, an IPv4 address against its IP addresses. 1
// verified; SHIP_REFUSED when the certificate did not verify; -1 for any
// other failure (both logged).
static int tls_open(TlsLink *t, SSL_CTX *ctx, int64_t deadline) {
  const ShipTarget *target = t->target;
  char why[ERROR_TEXT_SIZE];
  struct in_addr ip;
  int by_address = inet_pton(AF_INET, target->host, &ip) == 1;
  t->ssl = SSL_new(ctx);
  int ready = t->ssl != NULL && SSL_set_fd(t->ssl, t->fd) == 1;
  if (ready && by_address)
    ready = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(t->ssl), target->host) == 1;
  else if (ready)  // a name also goes out as SNI, for a collector with more than one
    ready = SSL_set1_host(t->ssl, target->host) == 1 &&
            SSL_set_tlsext_host_name(t->ssl, target->host) == 1;
  if (!ready) {
    DLOG_ERROR("TLS to %s:%d: no session: %s", target->host, (int)target->port,
               tls_reason(why, sizeof why));
    return -1;
  }
  int code = 0;
  int rc = tls_step(t, TLS_HANDSHAKE, NULL, 0, deadline, &code);
  long verdict = SSL_get_verify_result(t->ssl);
  if (verdict != X509_V_OK || (rc > 0 && SSL_get0_peer_certificate(t->ssl) == NULL)) {
    DLOG_ERROR("TLS to %s:%d: certificate verify failed: %s", target->host, (int)target->port,
               verdict != X509_V_OK ? X509_verify_cert_error_string(verdict) : "no certificate");
    return SHIP_REFUSED;
  }
  if (rc < 0) {
    DLOG_ERROR("TLS to %s:%d: handshake failed: %s", target->host, (int)target->port,
               tls_reason(why, sizeof why));
    return -1;
  }
  return 1;
}

// Sends what is packed in buf (len bytes) as one record, within the send
// timeout and the batch's deadline. 0, or -1 (logged).
static int tls_flush(TlsLink *t, char *buf, size_t *len, int64_t batch_deadline) {
  if (*len == 0) return 0;
  int64_t deadline = monotonic_ms() + SHIP_SEND_TIMEOUT_SEC * 1000;
  if (deadline > batch_deadline) deadline = batch_deadline;
  int code = 0;
  if (tls_step(t, TLS_WRITE, buf, (int)*len, deadline, &code) < 0) {
    char why[ERROR_TEXT_SIZE];
    DLOG_ERROR("send() error:TLS to %s:%d: %s", t->target->host, (int)t->target->port,
               tls_reason(why, sizeof why));
    return -1;
  }
  *len = 0;
  return 0;
}

// Our close_notify and half-close, then the collector's end: its
// close_notify or the end of its stream, after it took every byte. 0, or
// -1 (logged).
static int tls_confirm(TlsLink *t, int count) {
  int64_t deadline = monotonic_ms() + SHIP_CONFIRM_TIMEOUT_SEC * 1000;
  char sink[TLS_SINK_SIZE];
  int code = 0;
  int rc = tls_step(t, TLS_CLOSE, NULL, 0, deadline, &code);
  if (rc > 0 && shutdown(t->fd, SHUT_WR) != 0) rc = -1;
  while (rc > 0) rc = tls_step(t, TLS_READ, sink, (int)sizeof sink, deadline, &code);
  if (code == SSL_ERROR_ZERO_RETURN) {
    int64_t left = deadline - monotonic_ms();
    if (await_end_of_stream(t->fd, left > 0 ? (int)left : 0) == 0) return 0;
  }
  char why[ERROR_TEXT_SIZE];
  DLOG_ERROR("send() error:collector did not confirm %d message(s): TLS to %s:%d: %s", count,
             t->target->host, (int)t->target->port, tls_reason(why, sizeof why));
  return -1;
}

static int send_tls(const ShipTarget *target, const char *const *msgs, const size_t *lens,
                    int count) {
  // The CA first: without it nothing may leave, not even a connect.
  SSL_CTX *ctx = tls_context(target);
  if (ctx == NULL) return SHIP_REFUSED;
  TlsLink t = {NULL, open_connection(target), target};
  int rc = -1;
  if (t.fd >= 0) {
    // From here on every wait is a poll with a deadline of ours; the
    // handshake has the connect's time again.
    int flags = fcntl(t.fd, F_GETFL, 0);
    char why[ERROR_TEXT_SIZE];
    if (flags >= 0 && fcntl(t.fd, F_SETFL, flags | O_NONBLOCK) == 0)
      rc = tls_open(&t, ctx, monotonic_ms() + SHIP_CONNECT_TIMEOUT_MS);
    else
      DLOG_ERROR("TLS to %s:%d: %s", target->host, (int)target->port,
                 error_text(errno, why, sizeof why));
  }

  // Frames are packed into whole records: a record per frame head would
  // add one per message for nothing.
  int64_t batch_deadline = monotonic_ms() + SHIP_BATCH_TIMEOUT_SEC * 1000;
  char out[TLS_RECORD_SIZE];
  size_t used = 0, total = 0;
  for (int i = 0; rc == 1 && i < count; i++) {
    char head[24];
    int h = snprintf(head, sizeof head, "%lu ", (unsigned long)lens[i]);
    if (h < 0 || (size_t)h >= sizeof head || msgs[i] == NULL) {
      DLOG_ERROR("send() error:TLS to %s:%d: message %d of %d missing", target->host,
                 (int)target->port, i + 1, count);
      rc = -1;
      break;
    }
    const char *parts[2] = {head, msgs[i]};
    size_t sizes[2] = {(size_t)h, lens[i]};
    for (int k = 0; rc == 1 && k < 2; k++) {
      for (size_t at = 0; at < sizes[k];) {
        size_t n = sizes[k] - at < sizeof out - used ? sizes[k] - at : sizeof out - used;
        memcpy(out + used, parts[k] + at, n);
        used += n;
        at += n;
        if (used == sizeof out && tls_flush(&t, out, &used, batch_deadline) != 0) {
          rc = -1;
          break;
        }
      }
    }
    total += (size_t)h + lens[i];
  }
  if (rc == 1 && (tls_flush(&t, out, &used, batch_deadline) != 0 || tls_confirm(&t, count) != 0))
    rc = -1;
  SSL_free(t.ssl);
  SSL_CTX_free(ctx);
  if (t.fd >= 0) close(t.fd);
  // The error list is the thread's: the sealing that runs on it next must
  // not find these.
  ERR_clear_error();
  if (rc == 1) DLOG_DEBUG("syslog send() OK:TLS len=%d", (int)total);
  return rc;
}

int send_to_syslog_server(const ShipTarget *target, const char *const *msgs, const size_t *lens,
                          int count) {
  if (target == NULL || msgs == NULL || lens == NULL || count <= 0) return -1;
  if (target->transport != SHIP_TRANSPORT_TLS) return send_plain(target, msgs, lens, count);
  // OpenSSL writes with write(2): a collector that resets would raise SIGPIPE.
  PipeGuard guard;
  pipe_hold(&guard);
  int rc = send_tls(target, msgs, lens, count);
  pipe_release(&guard);
  return rc;
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
