#include "shipping/shipping.h"

#include <signal.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "store/store.h"

namespace {

// "HOST:PORT" with an optional " RATE" behind it. 0 when it parses, with
// rate left alone when absent; -1 otherwise.
int parse_collector(const char *text, char *host, size_t host_size, int32_t *port,
                    int32_t *rate) {
  char h[SENDER_HOST_SIZE];
  int p = 0, r = 0;
  char extra = 0;
  std::memset(h, 0, sizeof h);
  static_assert(SENDER_HOST_SIZE == 256, "the host width follows SENDER_HOST_SIZE");
  int got = std::sscanf(text, " %255[^: \t\n]:%d %d %c", h, &p, &r, &extra);
  if (got < 2 || got > 3 || p < 1 || p > 65535) return -1;
  if (got == 3) {
    if (!rate || r < 1) return -1;
    *rate = r;
  }
  if (std::snprintf(host, host_size, "%s", h) >= (int)host_size) return -1;
  *port = p;
  return 0;
}

// A stored section's value, "" when the section is absent.
void stored_value(int id, char *out) {
  std::memset(out, 0, SETTING_TEXT_SIZE);
  int len = 0;
  if (parser_get(id, out, &len) != 0) out[0] = '\0';
}

}  // namespace

void RateLimitLogSender::default_settings(Settings *s) {
  std::memset(s, 0, sizeof *s);
  s->send_interval = SEND_INTERVAL_DEFAULT;
  s->hour_base = REPORT_HOUR_BASE_DEFAULT;
  s->hour_span = REPORT_HOUR_SPAN_DEFAULT;
  s->timeout = PERIOD_DEFAULT;
}

int RateLimitLogSender::load_settings(Settings *s) {
  default_settings(s);

  int period = PERIOD_DEFAULT;
  if (read_setting(RZPZ_PATH, PERIOD_KEY, &period) != 0 || period < PERIOD_MIN ||
      period > PERIOD_MAX)
    period = PERIOD_DEFAULT;
  s->timeout = period;

  // An unreadable store is a failed load, not an empty one.
  static char probe[STORE_TEXT_MAX + 1];
  int probe_len = (int)sizeof probe;
  if (sec_read_conf(probe, &probe_len) != 0) return -1;

  char value[SETTING_TEXT_SIZE];
  stored_value(PARSER_LOGSERVER, value);
  if (value[0] && parse_collector(value, s->server_host, sizeof s->server_host,
                                  &s->server_port, &s->send_interval) != 0)
    return -1;
  stored_value(PARSER_LOGATSERVER, value);
  if (value[0]) {
    if (parse_collector(value, s->attack_host, sizeof s->attack_host, &s->attack_port,
                        nullptr) != 0)
      return -1;
  } else {
    std::memcpy(s->attack_host, s->server_host, sizeof s->attack_host);
    s->attack_port = s->server_port;
  }
  stored_value(PARSER_RANDTIME, value);
  if (value[0]) {
    int base = 0, span = 0;
    char extra = 0;
    if (std::sscanf(value, "%d %d %c", &base, &span, &extra) != 2 || base < 0 || base > 23)
      return -1;
    s->hour_base = base;
    // A zero or negative span would divide by zero in the report cycle; a
    // span beyond a day draws hours that never come.
    s->hour_span = span > 0 ? span : REPORT_HOUR_SPAN_DEFAULT;
    if (s->hour_span > 24) s->hour_span = 24;
  }
  return 0;
}

void RateLimitLogSender::apply_settings(const Settings &s) {
  pthread_mutex_lock(&m_lock);
  std::memcpy(m_server_host, s.server_host, sizeof m_server_host);
  m_server_port = s.server_port;
  m_send_interval = s.send_interval;
  std::memcpy(m_attack_host, s.attack_host, sizeof m_attack_host);
  m_attack_port = s.attack_port;
  m_report_hour_base = s.hour_base;
  m_report_hour_span = s.hour_span;
  m_timeout_seconds = s.timeout;
  pthread_mutex_unlock(&m_lock);
}

RateLimitLogSender::RateLimitLogSender(const char *name, int flags)
    : m_name(),
      m_flags(flags),
      m_server_host(),
      m_server_port(0),
      m_send_interval(SEND_INTERVAL_DEFAULT),
      m_attack_host(),
      m_attack_port(0),
      m_report_hour_base(REPORT_HOUR_BASE_DEFAULT),
      m_report_hour_span(REPORT_HOUR_SPAN_DEFAULT),
      m_timeout_seconds(PERIOD_DEFAULT),
      m_lock(PTHREAD_MUTEX_INITIALIZER),
      m_wake(PTHREAD_COND_INITIALIZER),
      m_worker(),
      m_worker_running(0),
      m_stop(0),
      m_queue(),
      m_queue_len(),
      m_queue_head(0),
      m_queue_count(0),
      m_access_buf(),
      m_tokens_milli((int64_t)SEND_INTERVAL_DEFAULT * 1000),
      m_tokens_at(clock_now()),
      m_access_received(0),
      m_dropped_full(0),
      m_dropped_rate(0),
      m_dropped_logged(0),
      m_attack_retry_at(0),
      m_attack_backoff(0) {
  if (name && std::snprintf(m_name, sizeof m_name, "%s", name) >= (int)sizeof m_name)
    m_name[0] = '\0';
  Settings s;
  if (load_settings(&s) != 0) {
    // Broken stored values: ship nothing until a reload brings good ones,
    // but keep the loop period.
    int timeout = s.timeout;
    default_settings(&s);
    s.timeout = timeout;
    DLOG_ERROR("stored log server settings unusable, shipping off until reload");
  }
  apply_settings(s);
  m_tokens_milli = (int64_t)m_send_interval * 1000;
  start_thread();
  DLOG_INFO("RateLimitLogSender init Done!");
}

RateLimitLogSender::~RateLimitLogSender() {
  if (m_worker_running) {
    pthread_mutex_lock(&m_lock);
    m_stop = 1;
    pthread_cond_signal(&m_wake);
    pthread_mutex_unlock(&m_lock);
    pthread_join(m_worker, nullptr);
  }
  pthread_cond_destroy(&m_wake);
  pthread_mutex_destroy(&m_lock);
}

int RateLimitLogSender::start_thread() {
  if (m_worker_running) return 0;
  // The loop's signals must reach the main thread, whose select they wake:
  // the worker blocks them all.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  int rc = pthread_create(&m_worker, nullptr, worker_main, this);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (rc != 0) {
    DLOG_ERROR("Create pthread error!");
    return -1;
  }
  m_worker_running = 1;
  return 0;
}

int RateLimitLogSender::timeout_seconds() const { return m_timeout_seconds; }

int RateLimitLogSender::reload_config() {
  Settings s;
  if (load_settings(&s) != 0) {
    DLOG_ERROR("Warning: reload configure failed,config no change");
    return -1;
  }
  apply_settings(s);
  DLOG_INFO("(%s) reload configure: server=%s:%d, m_send_interval=%d/m", __func__,
            m_server_host, m_server_port, m_send_interval);
  return 0;
}

int RateLimitLogSender::report_hour_span() const {
  return m_report_hour_span > 0 ? m_report_hour_span : REPORT_HOUR_SPAN_DEFAULT;
}

int RateLimitLogSender::report_hour_base() const { return m_report_hour_base; }

// One token per record; the bucket holds one minute's worth and refills at
// m_send_interval per minute. Called with m_lock held.
int RateLimitLogSender::take_token() {
  time_t now = clock_now();
  int64_t cap = (int64_t)m_send_interval * 1000;
  if (now > m_tokens_at) {
    int64_t add = (int64_t)(now - m_tokens_at) * m_send_interval * 1000 / 60;
    m_tokens_milli = m_tokens_milli + add > cap ? cap : m_tokens_milli + add;
  }
  // A clock that went back restarts the count from now.
  m_tokens_at = now;
  if (m_tokens_milli > cap) m_tokens_milli = cap;
  if (m_tokens_milli < 1000) return 0;
  m_tokens_milli -= 1000;
  return 1;
}

int RateLimitLogSender::recv_access_log(int fd) {
  // Always read: one datagram per call keeps the socket from filling. A
  // record longer than a slot is cut by the kernel.
  ssize_t n = recv(fd, m_access_buf, sizeof m_access_buf - 1, MSG_DONTWAIT);
  if (n < 0) return -1;
  m_access_received++;
  pthread_mutex_lock(&m_lock);
  if (m_server_host[0] == '\0') {
    // Nowhere to ship: not a loss to count.
  } else if (m_queue_count == ACCESS_QUEUE_SLOTS || !m_worker_running) {
    // Without a worker nothing would ever empty the queue.
    m_dropped_full++;
  } else if (!take_token()) {
    m_dropped_rate++;
  } else {
    uint32_t slot = (m_queue_head + m_queue_count) % ACCESS_QUEUE_SLOTS;
    std::memcpy(m_queue[slot], m_access_buf, (size_t)n);
    m_queue_len[slot] = (uint16_t)n;
    m_queue_count++;
    pthread_cond_signal(&m_wake);
  }
  pthread_mutex_unlock(&m_lock);
  return (int)n;
}

uint32_t RateLimitLogSender::access_dropped() const { return m_dropped_full + m_dropped_rate; }

int RateLimitLogSender::timeout_tick() {
  // A worker that could not be created is tried again once a period.
  if (!m_worker_running) start_thread();
  pthread_mutex_lock(&m_lock);
  uint32_t full = m_dropped_full, rate = m_dropped_rate;
  pthread_mutex_unlock(&m_lock);
  uint32_t total = full + rate;
  if (total != m_dropped_logged) {
    DLOG_ERROR("access records dropped: %u (queue full %u, over %d/m %u)",
               total - m_dropped_logged, full, m_send_interval, rate);
    m_dropped_logged = total;
  }
  return 0;
}

int RateLimitLogSender::send_attack_report(const char *fragment) {
  if (!fragment || m_attack_host[0] == '\0') return 0;
  // A dead collector is not asked again at every timeout: the main loop
  // waits on each try, and both sockets with it.
  // A clock set back by more than the longest pause tries at once.
  time_t now = clock_now();
  if (m_attack_retry_at != 0 && now < m_attack_retry_at &&
      now >= m_attack_retry_at - RETRY_MAX_SECONDS)
    return 0;
  int ok = send_encrypted_attack_log(m_attack_host, m_attack_port, fragment);
  if (ok == 1) {
    m_attack_backoff = 0;
    m_attack_retry_at = 0;
    return 1;
  }
  m_attack_backoff = m_attack_backoff == 0 ? RETRY_MIN_SECONDS : m_attack_backoff * 2;
  if (m_attack_backoff > RETRY_MAX_SECONDS) m_attack_backoff = RETRY_MAX_SECONDS;
  m_attack_retry_at = now + m_attack_backoff;
  return -1;
}

void *RateLimitLogSender::worker_main(void *self) {
  static_cast<RateLimitLogSender *>(self)->worker_loop();
  return nullptr;
}

// Ships queued records in blocks. A block whose send fails is kept and
// tried again after a growing pause; meanwhile new records wait in the
// queue, and past its size they are dropped and counted.
void RateLimitLogSender::worker_loop() {
  // Room for the largest block once, here: a block stops short of
  // ACCESS_BLOCK_BYTES except for a single record, so no append below
  // grows the text, and no bad_alloc can escape this thread later and end
  // the whole daemon.
  std::string block;
  block.reserve(ACCESS_BLOCK_BYTES + ACCESS_RECORD_SIZE + 1);
  char host[SENDER_HOST_SIZE];
  int port = 0;
  int backoff = 0;
  for (;;) {
    pthread_mutex_lock(&m_lock);
    if (block.empty()) {
      while (!m_stop && m_queue_count == 0) pthread_cond_wait(&m_wake, &m_lock);
      uint32_t take = 0;
      while (take < m_queue_count && take < ACCESS_BLOCK_RECORDS) {
        uint32_t slot = (m_queue_head + take) % ACCESS_QUEUE_SLOTS;
        if (take > 0 && block.size() + m_queue_len[slot] + 1 > ACCESS_BLOCK_BYTES) break;
        block.append(m_queue[slot], m_queue_len[slot]);
        if (block.empty() || block.back() != '\n') block.push_back('\n');
        take++;
      }
      m_queue_head = (m_queue_head + take) % ACCESS_QUEUE_SLOTS;
      m_queue_count -= take;
    }
    std::memcpy(host, m_server_host, sizeof host);
    port = m_server_port;
    int stop = m_stop;
    pthread_mutex_unlock(&m_lock);
    if (stop) return;
    if (host[0] == '\0') {
      block.clear();  // shipping was turned off by a reload
      continue;
    }

    char *message = nullptr;
    int ok = -1;
    if (build_encrypted_logs(block.data(), block.size(), &message) > 0) {
      ok = send_to_syslog_server(host, port, message);
    } else {
      block.clear();  // cannot be sealed: retrying would not help
    }
    std::free(message);
    if (ok == 1) {
      block.clear();
      backoff = 0;
      continue;
    }
    if (block.empty()) continue;
    backoff = backoff == 0 ? RETRY_MIN_SECONDS : backoff * 2;
    if (backoff > RETRY_MAX_SECONDS) backoff = RETRY_MAX_SECONDS;
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += backoff;
    pthread_mutex_lock(&m_lock);
    while (!m_stop && pthread_cond_timedwait(&m_wake, &m_lock, &until) == 0) {
    }
    pthread_mutex_unlock(&m_lock);
  }
}
