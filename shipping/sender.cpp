// The sender: the main loop hands it access records and attack report
// fragments and never waits. The sealer thread fills blocks from the queue
// and seals them into the spool; the shipper thread delivers the spool and
// the reports, and alone waits on the network. A collector that is slow or
// away therefore costs spool space, not records.
//
// Locking: m_lock guards what two threads touch (settings, the queue, the
// loss counters, the report in hand, the spool's length). No thread holds
// it across sealing or a send. Everything else each thread keeps is its
// own.
#include "shipping/shipping.h"

#include <errno.h>
#include <openssl/rand.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "store/store.h"

#define REPORT_NONE 0        // no fragment in hand
#define REPORT_OFFERED 1     // the shipper is to deliver m_report
#define REPORT_DELIVERED 2   // it has: the loop's next offer of it gets 1

#define TOKEN_UNITS 60000             // a record's share of the bucket: ms in a minute
#define SEQ_REPORT 0
#define SEQ_ACCESS 1
#define DELIVERY_BATCH_MESSAGES 256   // most messages on one connection
// In front of each spooled message: its length and its record count (the
// records are counted as lost if the message never leaves).
#define SPOOL_ENTRY_HEAD 8
// Lost since the last line, then each cause since the start.
#define LOSS_FORMAT                                                                          \
  "access records dropped: %u (over %d/m %u, queue full %u, spool full %u, shipping off %u, " \
  "too long %u, unsealable %u)"

namespace {

// A stored section's value, "" when the section is absent.
void stored_value(int id, char *out) {
  std::memset(out, 0, SETTING_TEXT_SIZE);
  int len = 0;
  if (parser_get(id, out, &len) != 0) out[0] = '\0';
}

// The pause after a failed try: doubles from RETRY_MIN_SECONDS up to
// RETRY_MAX_SECONDS, counted on the monotonic clock.
struct Backoff {
  int64_t retry_at_ms;   // no try before this
  int32_t seconds;       // 0 while the collector answers
};

void back_off(Backoff *b) {
  b->seconds = b->seconds == 0 ? RETRY_MIN_SECONDS : b->seconds * 2;
  if (b->seconds > RETRY_MAX_SECONDS) b->seconds = RETRY_MAX_SECONDS;
  b->retry_at_ms = monotonic_ms() + (int64_t)b->seconds * 1000;
}

uint32_t loss_total(const AccessLosses &l) {
  return l.over_rate + l.queue_full + l.spool_full + l.shipping_off + l.too_long + l.unsealable;
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
  // Each refusal names the value, so that the operator knows which to mend.
  stored_value(PARSER_LOGSERVER, value);
  if (value[0] && parse_collector(value, &s->access, &s->send_interval) != 0) {
    DLOG_ERROR("stored logserver \"%s\" is not " SHIP_COLLECTOR_FORM " [RATE]", value);
    return -1;
  }
  stored_value(PARSER_LOGATSERVER, value);
  if (value[0]) {
    if (parse_collector(value, &s->attack, nullptr) != 0) {
      DLOG_ERROR("stored logatserver \"%s\" is not " SHIP_COLLECTOR_FORM, value);
      return -1;
    }
  } else {
    s->attack = s->access;
  }
  stored_value(PARSER_RANDTIME, value);
  if (value[0] && parse_report_hours(value, &s->hour_base, &s->hour_span) != 0) {
    DLOG_ERROR("stored randtime \"%s\" is not \"BASE SPAN\" with BASE 0..23", value);
    return -1;
  }
  return 0;
}

void RateLimitLogSender::apply_settings(const Settings &s) {
  pthread_mutex_lock(&m_lock);
  std::memcpy(m_server_host, s.access.host, sizeof m_server_host);
  m_server_port = s.access.port;
  if (m_send_interval != s.send_interval) {
    // A new rate starts with a full minute's allowance.
    m_tokens = (int64_t)s.send_interval * TOKEN_UNITS;
    m_tokens_at_ms = monotonic_ms();
  }
  m_send_interval = s.send_interval;
  m_access_target = s.access;
  m_attack_target = s.attack;
  m_report_hour_base = s.hour_base;
  m_report_hour_span = s.hour_span;
  m_timeout_seconds = s.timeout;
  m_settings_gen++;
  pthread_mutex_unlock(&m_lock);
}

RateLimitLogSender::RateLimitLogSender(const char *name, int flags)
    : m_name(),
      m_flags(flags),
      m_server_host(),
      m_server_port(0),
      m_send_interval(SEND_INTERVAL_DEFAULT),
      m_access_target(),
      m_attack_target(),
      m_report_hour_base(REPORT_HOUR_BASE_DEFAULT),
      m_report_hour_span(REPORT_HOUR_SPAN_DEFAULT),
      m_timeout_seconds(PERIOD_DEFAULT),
      m_settings_gen(0),
      m_lock(PTHREAD_MUTEX_INITIALIZER),
      m_sealer(),
      m_shipper(),
      m_sealer_running(0),
      m_shipper_running(0),
      m_seal_wake_fd(-1),
      m_ship_wake_fd(-1),
      m_sealer_waiting(0),
      m_wake_at(1),
      m_collector_down(0),
      m_stop(0),
      m_queue(),
      m_queue_len(),
      m_queue_head(0),
      m_queue_count(0),
      m_access_buf(),
      m_tokens((int64_t)SEND_INTERVAL_DEFAULT * TOKEN_UNITS),
      m_tokens_at_ms(monotonic_ms()),
      m_access_received(0),
      m_lost(),
      m_access_shipped(0),
      m_access_delivered(0),
      m_access_failed(0),
      m_report_delivered(0),
      m_report_failed(0),
      m_tls_refused(0),
      m_last_delivery(0),
      m_lost_logged(0),
      m_report(),
      m_report_state(REPORT_NONE),
      m_block(),
      m_block_len(0),
      m_block_records(0),
      m_block_since_ms(0),
      m_report_msg(),
      m_report_msg_len(0),
      m_report_sealed_for(),
      m_spool(nullptr),
      m_spool_len(0),
      m_epoch(0),
      m_seq(),
      m_device(),
      m_device_known(0) {
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
  // A random epoch per start: with the sequence numbers it names every
  // message uniquely, without any state kept across a reboot. 0 is the
  // first layout's "no identity".
  unsigned char random[8];
  std::memset(random, 0, sizeof random);
  if (RAND_bytes(random, sizeof random) != 1)
    DLOG_ERROR("no random epoch, using the clock: %lld", (long long)monotonic_ms());
  for (unsigned char b : random) m_epoch = m_epoch << 8 | b;
  if (m_epoch == 0) m_epoch = (uint64_t)monotonic_ms() << 16 ^ (uint64_t)getpid() ^ 1;

  if (!(m_flags & SENDER_NO_SHIPPING)) {
    // Before the threads: they only read the key. Without it nothing can be
    // sealed, and records are counted as unsealable.
    if (make_store_dir() != 0) DLOG_ERROR("cannot create %s: %s", STORE_DIR, std::strerror(errno));
    device_key_load(SHIP_DEVICE_KEY_PATH);
    m_seal_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_ship_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_seal_wake_fd < 0 || m_ship_wake_fd < 0)
      DLOG_ERROR("eventfd() error:%s", std::strerror(errno));
    // Once, for the whole run: a sealed block never waits on the heap.
    m_spool = static_cast<char *>(std::malloc(SPOOL_BYTES));
    if (m_spool == nullptr) DLOG_ERROR("no memory for the access spool: blocks wait nowhere");
    start_thread();
  }
  DLOG_INFO("RateLimitLogSender init Done!");
}

RateLimitLogSender::~RateLimitLogSender() {
  pthread_mutex_lock(&m_lock);
  m_stop = 1;
  pthread_mutex_unlock(&m_lock);
  wake(m_seal_wake_fd);
  wake(m_ship_wake_fd);
  if (m_sealer_running) pthread_join(m_sealer, nullptr);
  if (m_shipper_running) pthread_join(m_shipper, nullptr);
  if (m_seal_wake_fd >= 0) close(m_seal_wake_fd);
  if (m_ship_wake_fd >= 0) close(m_ship_wake_fd);
  std::free(m_spool);
  pthread_mutex_destroy(&m_lock);
}

int RateLimitLogSender::start_thread() {
  if (m_sealer_running && m_shipper_running) return 0;
  if (m_seal_wake_fd < 0 || m_ship_wake_fd < 0) {
    DLOG_ERROR("Create pthread error!");
    return -1;
  }
  // The loop's signals must reach the main thread, whose select they wake:
  // the threads block them all.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  int failed = 0;
  if (!m_sealer_running) {
    if (pthread_create(&m_sealer, nullptr, sealer_main, this) == 0)
      m_sealer_running = 1;
    else
      failed = 1;
  }
  if (!m_shipper_running) {
    if (pthread_create(&m_shipper, nullptr, shipper_main, this) == 0)
      m_shipper_running = 1;
    else
      failed = 1;
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (failed) {
    DLOG_ERROR("Create pthread error!");
    return -1;
  }
  return 0;
}

void RateLimitLogSender::wake(int fd) {
  if (fd < 0) return;
  uint64_t one = 1;
  // A full counter (never in practice) is a wake-up already pending.
  if (write(fd, &one, sizeof one) < 0 && errno != EAGAIN)
    DLOG_ERROR("wake-up error:%s", std::strerror(errno));
}

int RateLimitLogSender::timeout_seconds() const { return m_timeout_seconds; }

int RateLimitLogSender::reload_config() {
  Settings s;
  if (load_settings(&s) != 0) {
    DLOG_ERROR("Warning: reload configure failed,config no change");
    return -1;
  }
  apply_settings(s);
  wake(m_seal_wake_fd);
  wake(m_ship_wake_fd);
  DLOG_INFO("(%s) reload configure: server=%s:%d, m_send_interval=%d/m", __func__,
            m_server_host, m_server_port, m_send_interval);
  return 0;
}

int RateLimitLogSender::report_hour_span() const {
  return m_report_hour_span > 0 ? m_report_hour_span : REPORT_HOUR_SPAN_DEFAULT;
}

int RateLimitLogSender::report_hour_base() const { return m_report_hour_base; }

// One record costs TOKEN_UNITS; the bucket holds one minute's worth and
// refills by m_send_interval units a millisecond, which is exact: no
// remainder is thrown away however often it is asked, so even a rate of a
// few a minute under heavy traffic passes what it says. The elapsed time is
// capped at a minute, which fills any bucket, so nothing here overflows for
// any rate up to SEND_INTERVAL_MAX. Called with m_lock held.
int RateLimitLogSender::take_token() {
  int64_t now = monotonic_ms();
  int64_t elapsed = now - m_tokens_at_ms;
  if (elapsed < 0) elapsed = 0;
  if (elapsed > 60000) elapsed = 60000;
  m_tokens_at_ms = now;
  int64_t cap = (int64_t)m_send_interval * TOKEN_UNITS;
  m_tokens += elapsed * m_send_interval;
  if (m_tokens > cap) m_tokens = cap;
  if (m_tokens < TOKEN_UNITS) return 0;
  m_tokens -= TOKEN_UNITS;
  return 1;
}

int RateLimitLogSender::recv_access_log(int fd) {
  // Up to ACCESS_RECV_BATCH datagrams in one call, straight into the free
  // slots behind the queue's tail: those are the loop's alone, since the
  // sealer takes from the head only. Always read, even with the queue full
  // (into the scratch buffer, then counted): a socket left full would make
  // the proxy's sends fail where nobody counts them. MSG_TRUNC gives each
  // datagram's real length, so a record too long for a slot is counted,
  // never cut.
  pthread_mutex_lock(&m_lock);
  uint32_t tail = (m_queue_head + m_queue_count) % ACCESS_QUEUE_SLOTS;
  uint32_t room = m_sealer_running ? ACCESS_QUEUE_SLOTS - m_queue_count : 0;
  pthread_mutex_unlock(&m_lock);
  uint32_t want = room == 0 ? 1 : room < ACCESS_RECV_BATCH ? room : ACCESS_RECV_BATCH;
  struct mmsghdr msgs[ACCESS_RECV_BATCH];
  struct iovec iov[ACCESS_RECV_BATCH];
  std::memset(msgs, 0, sizeof msgs);
  for (uint32_t i = 0; i < want; i++) {
    iov[i].iov_base = room == 0 ? m_access_buf : m_queue[(tail + i) % ACCESS_QUEUE_SLOTS];
    iov[i].iov_len = ACCESS_RECORD_SIZE - 1;
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  int got = recvmmsg(fd, msgs, want, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  if (got <= 0) return -1;

  int bytes = 0, wake_sealer = 0;
  uint32_t placed = 0;
  pthread_mutex_lock(&m_lock);
  for (int i = 0; i < got; i++) {
    size_t n = msgs[i].msg_len;
    m_access_received++;
    bytes += (int)(n < ACCESS_RECORD_SIZE - 1 ? n : ACCESS_RECORD_SIZE - 1);
    if (n > ACCESS_RECORD_SIZE - 1 || (msgs[i].msg_hdr.msg_flags & MSG_TRUNC)) {
      m_lost.too_long++;
    } else if (m_server_host[0] == '\0' || (m_flags & SENDER_NO_SHIPPING)) {
      m_lost.shipping_off++;
    } else if (room == 0) {
      // Without a sealer nothing would ever empty the queue. No token is
      // spent on a record that could not be kept anyway.
      m_lost.queue_full++;
    } else if (!take_token()) {
      m_lost.over_rate++;
    } else {
      // Records dropped above leave gaps; the kept ones close up.
      uint32_t slot = (tail + placed) % ACCESS_QUEUE_SLOTS;
      if (placed != (uint32_t)i) std::memcpy(m_queue[slot], iov[i].iov_base, n);
      m_queue_len[slot] = (uint16_t)n;
      placed++;
    }
  }
  m_queue_count += placed;
  // One wake-up per sleep, and only once it is worth one.
  if (placed > 0 && m_sealer_waiting && m_queue_count >= m_wake_at) {
    m_sealer_waiting = 0;
    wake_sealer = 1;
  }
  pthread_mutex_unlock(&m_lock);
  if (wake_sealer) wake(m_seal_wake_fd);
  return bytes;
}

// Records in the spool's messages, and with messages not null the count of
// messages. Called with m_lock held.
uint32_t RateLimitLogSender::spool_records(uint32_t *messages) const {
  uint32_t records = 0, count = 0;
  for (size_t at = 0; m_spool != nullptr && at < m_spool_len; count++) {
    uint32_t head[2] = {0, 0};
    std::memcpy(head, m_spool + at, SPOOL_ENTRY_HEAD);
    records += head[1];
    at += SPOOL_ENTRY_HEAD + head[0];
  }
  if (messages != nullptr) *messages = count;
  return records;
}

void RateLimitLogSender::log_abandoned() {
  pthread_mutex_lock(&m_lock);
  uint32_t queued = m_queue_count, block = m_block_records, spooled = 0;
  spooled = spool_records();
  int report = m_report_state == REPORT_OFFERED;
  pthread_mutex_unlock(&m_lock);
  if (queued + block + spooled > 0)
    DLOG_ERROR("access records abandoned at stop: %u (queue %u, block %u, spool %u)",
               queued + block + spooled, queued, block, spooled);
  if (report) DLOG_ERROR("attack report abandoned at stop: %s", m_report);
}

AccessLosses RateLimitLogSender::access_losses() {
  pthread_mutex_lock(&m_lock);
  AccessLosses l = m_lost;
  pthread_mutex_unlock(&m_lock);
  return l;
}

uint32_t RateLimitLogSender::access_dropped() { return loss_total(access_losses()); }

// "scheme://host:port", or "none" for no collector.
static void target_text(const ShipTarget *t, char *out, size_t size) {
  int n = t->host[0] == '\0'
              ? std::snprintf(out, size, "none")
              : std::snprintf(out, size, "%s%s:%d", ship_scheme(t->transport), t->host,
                              (int)t->port);
  if (n < 0 || (size_t)n >= size) std::snprintf(out, size, "?");
}

void RateLimitLogSender::status(SenderStatus *out) {
  std::memset(out, 0, sizeof *out);
  out->access_received = m_access_received;
  pthread_mutex_lock(&m_lock);
  out->shipping = (m_flags & SENDER_NO_SHIPPING) ? -1 : m_access_target.host[0] != '\0';
  out->access_shipped = m_access_shipped;
  out->lost = m_lost;
  target_text(&m_access_target, out->access_collector, sizeof out->access_collector);
  out->access_delivered = m_access_delivered;
  out->access_failed = m_access_failed;
  target_text(&m_attack_target, out->report_collector, sizeof out->report_collector);
  out->report_delivered = m_report_delivered;
  out->report_failed = m_report_failed;
  out->tls_refused = m_tls_refused;
  out->spool_records = spool_records(&out->spool_messages);
  out->spool_bytes = (uint32_t)m_spool_len;
  out->last_delivery = m_last_delivery;
  std::memcpy(out->device, m_device, sizeof out->device);
  pthread_mutex_unlock(&m_lock);
  unsigned char key[SHIP_SIGN_KEY_SIZE];
  if (device_key_public(key) == 0)
    key_hex(key, out->device_key);
  else
    std::memcpy(out->device_key, "none", sizeof "none");
}

int RateLimitLogSender::timeout_tick() {
  // A thread that could not be created is tried again once a period.
  if (!(m_sealer_running && m_shipper_running) && !(m_flags & SENDER_NO_SHIPPING)) start_thread();
  AccessLosses l = access_losses();
  uint32_t total = loss_total(l);
  if (total != m_lost_logged) {
    // Records that arrive while no collector is set are no fault: noted,
    // but at INFO, where the operator who asked for them looks.
    static uint32_t off_logged;
    uint32_t since = total - m_lost_logged;
    int only_off = l.shipping_off - off_logged == since;
    if (only_off)
      DLOG_INFO(LOSS_FORMAT, since, m_send_interval, l.over_rate, l.queue_full, l.spool_full,
                l.shipping_off, l.too_long, l.unsealable);
    else
      DLOG_ERROR(LOSS_FORMAT, since, m_send_interval, l.over_rate, l.queue_full, l.spool_full,
                 l.shipping_off, l.too_long, l.unsealable);
    m_lost_logged = total;
    off_logged = l.shipping_off;
  }
  return 0;
}

int RateLimitLogSender::send_attack_report(const char *fragment) {
  if (fragment == nullptr || (m_flags & SENDER_NO_SHIPPING) || !m_shipper_running ||
      std::strlen(fragment) >= sizeof m_report)
    return 0;
  int result = 0, offered = 0;
  pthread_mutex_lock(&m_lock);
  if (m_attack_target.host[0] == '\0') {
    // No collector: the ring keeps the day.
  } else if (m_report_state == REPORT_DELIVERED && std::strcmp(m_report, fragment) == 0) {
    m_report_state = REPORT_NONE;
    m_report[0] = '\0';
    result = 1;
  } else if (m_report_state == REPORT_OFFERED && std::strcmp(m_report, fragment) == 0) {
    // On its way.
  } else {
    std::snprintf(m_report, sizeof m_report, "%s", fragment);
    m_report_state = REPORT_OFFERED;
    offered = 1;
  }
  pthread_mutex_unlock(&m_lock);
  if (offered) wake(m_ship_wake_fd);
  return result;
}

void *RateLimitLogSender::sealer_main(void *self) {
  static_cast<RateLimitLogSender *>(self)->sealer_loop();
  return nullptr;
}

void *RateLimitLogSender::shipper_main(void *self) {
  static_cast<RateLimitLogSender *>(self)->shipper_loop();
  return nullptr;
}

// The identity of the next message of its kind. The device is fixed for
// the epoch at its first message: an identifier that turns up later would
// split one sender's numbering in two at the collector.
void RateLimitLogSender::seal_identity(SealMeta *meta, int seq_index) {
  std::memset(meta, 0, sizeof *meta);
  meta->epoch = m_epoch;
  meta->seq = m_seq[seq_index] + 1;  // each count belongs to one thread
  char id[SHIP_DEVICE_ID_SIZE];
  pthread_mutex_lock(&m_lock);
  int known = m_device_known;
  pthread_mutex_unlock(&m_lock);
  if (!known) cached_device_id(id, sizeof id);
  pthread_mutex_lock(&m_lock);
  if (!m_device_known) {
    std::memcpy(m_device, id, sizeof m_device);
    m_device_known = 1;
  }
  std::memcpy(meta->device, m_device, sizeof meta->device);
  pthread_mutex_unlock(&m_lock);
}

// Moves queued records into the block being filled, as far as it has room.
// Called with m_lock held.
void RateLimitLogSender::take_queued_records() {
  while (m_queue_count > 0) {
    uint32_t slot = m_queue_head;
    size_t len = m_queue_len[slot];
    if (m_block_records > 0 && (m_block_records >= ACCESS_BLOCK_RECORDS ||
                                m_block_len + len + 1 > ACCESS_BLOCK_BYTES))
      break;
    if (m_block_records == 0) m_block_since_ms = monotonic_ms();
    // A single record may pass ACCESS_BLOCK_BYTES; the block has room for
    // one whole record beyond it.
    std::memcpy(m_block + m_block_len, m_queue[slot], len);
    m_block_len += len;
    if (len == 0 || m_block[m_block_len - 1] != '\n') m_block[m_block_len++] = '\n';
    m_block_records++;
    m_queue_head = (m_queue_head + 1) % ACCESS_QUEUE_SLOTS;
    m_queue_count--;
  }
}

// Seals len bytes of records (records of them, newline-ended) into one
// spool message, or into two or more where a message would pass
// SHIP_MESSAGE_MAX: a block that compresses badly is cut between records,
// never inside one. 0, or -1 when records were lost (counted by cause).
int RateLimitLogSender::seal_records(const char *text, size_t len, uint32_t records) {
  SealMeta meta;
  seal_identity(&meta, SEQ_ACCESS);
  char *message = nullptr;
  int n = build_encrypted_logs(text, len, &meta, &message);
  if (n > SHIP_MESSAGE_MAX && records > 1) {
    std::free(message);
    // The record end nearest the middle, counted from the start.
    const char *middle = static_cast<const char *>(std::memchr(text + len / 2, '\n', len - len / 2));
    if (middle == nullptr || (size_t)(middle + 1 - text) == len)
      middle = static_cast<const char *>(memrchr(text, '\n', len - 1));
    size_t first = middle != nullptr ? (size_t)(middle + 1 - text) : len;
    uint32_t first_records = 0;
    for (size_t i = 0; i < first; i++) first_records += text[i] == '\n';
    int a = seal_records(text, first, first_records);
    int b = seal_records(text + first, len - first, records - first_records);
    return a == 0 && b == 0 ? 0 : -1;
  }
  uint32_t *cause = n < 0 ? &m_lost.unsealable : nullptr;
  // The append is under the lock: the shipper moves what is left up after
  // a delivery. It never touches the bytes behind the length.
  pthread_mutex_lock(&m_lock);
  size_t end = m_spool_len;
  if (cause == nullptr && (m_spool == nullptr || end + SPOOL_ENTRY_HEAD + (size_t)n > SPOOL_BYTES))
    cause = &m_lost.spool_full;  // the waiting keep their place: this one goes
  if (cause != nullptr) {
    *cause += records;
  } else {
    m_seq[SEQ_ACCESS]++;
    uint32_t head[2] = {(uint32_t)n, records};
    std::memcpy(m_spool + end, head, SPOOL_ENTRY_HEAD);
    std::memcpy(m_spool + end + SPOOL_ENTRY_HEAD, message, (size_t)n);
    m_spool_len = end + SPOOL_ENTRY_HEAD + (size_t)n;
  }
  pthread_mutex_unlock(&m_lock);
  if (cause == nullptr) wake(m_ship_wake_fd);
  std::free(message);
  return cause == nullptr ? 0 : -1;
}

// Seals the block into the spool. 0, or -1 when records were lost
// (counted by cause).
int RateLimitLogSender::seal_pending_block(const ShipTarget *access) {
  int rc = 0;
  if (access->host[0] == '\0') {
    pthread_mutex_lock(&m_lock);
    m_lost.shipping_off += m_block_records;  // turned off by a reload meanwhile
    pthread_mutex_unlock(&m_lock);
    rc = -1;
  } else {
    rc = seal_records(m_block, m_block_len, m_block_records);
  }
  // Under the lock, as in take_queued_records: the loop counts the block
  // at the stop.
  pthread_mutex_lock(&m_lock);
  m_block_len = 0;
  m_block_records = 0;
  pthread_mutex_unlock(&m_lock);
  return rc;
}

// Hands count messages to target's transport (relp on the kept link). The
// number of leading messages delivered (tcp and tls: all or none), or
// SHIP_REFUSED when the collector's certificate did not verify.
static int deliver(const ShipTarget *target, RelpLink *relp, const char *const *msgs,
                   const size_t *lens, int count) {
  if (ship_over_relp(target))
    return relp != nullptr ? relp_link_send(relp, target, msgs, lens, count) : 0;
  int rc = send_to_syslog_server(target, msgs, lens, count);
  return rc == 1 ? count : rc == SHIP_REFUSED ? SHIP_REFUSED : 0;
}

// Delivers the spool, oldest first, in batches of one connection (or one
// burst on the kept RELP session). 0 once it is empty; -1 when a batch
// failed, and what was not delivered stays.
int RateLimitLogSender::ship_spool(const ShipTarget *target, RelpLink *relp) {
  // Only what is there now: under steady traffic the sealer adds blocks as
  // fast as they leave, and a report or a reload must not wait for a
  // quiet moment.
  pthread_mutex_lock(&m_lock);
  size_t left = m_spool_len;
  pthread_mutex_unlock(&m_lock);
  while (left > 0) {
    // The front of the spool is the shipper's: the sealer only appends.
    const char *msgs[DELIVERY_BATCH_MESSAGES];
    size_t lens[DELIVERY_BATCH_MESSAGES];
    uint32_t records[DELIVERY_BATCH_MESSAGES];
    int count = 0;
    size_t at = 0, bytes = 0;
    while (at < left && count < DELIVERY_BATCH_MESSAGES) {
      uint32_t head[2] = {0, 0};
      std::memcpy(head, m_spool + at, SPOOL_ENTRY_HEAD);
      uint32_t len = head[0];
      if (count > 0 && bytes + len > DELIVERY_BATCH_BYTES) break;
      msgs[count] = m_spool + at + SPOOL_ENTRY_HEAD;
      lens[count] = len;
      records[count] = head[1];
      count++;
      bytes += len;
      at += SPOOL_ENTRY_HEAD + len;
    }
    int taken = deliver(target, relp, msgs, lens, count);
    int refused = taken == SHIP_REFUSED;
    if (refused) taken = 0;
    size_t done = taken > 0 ? (size_t)(msgs[taken - 1] - m_spool) + lens[taken - 1] : 0;
    // Under the lock: the sealer must not append while the rest moves up.
    pthread_mutex_lock(&m_lock);
    if (taken > 0) {
      std::memmove(m_spool, m_spool + done, m_spool_len - done);
      m_spool_len -= done;
      m_last_delivery = (int64_t)clock_now();
    }
    for (int i = 0; i < taken; i++) m_access_shipped += records[i];
    m_access_delivered += (uint32_t)taken;
    m_access_failed += (uint32_t)(count - taken);
    m_tls_refused += (uint32_t)refused;
    pthread_mutex_unlock(&m_lock);
    left -= done;
    if (taken < count) return -1;
  }
  return 0;
}

// Seals the report in hand once (its sequence number then stays with it
// for every try) and delivers it. 1 delivered, 0 nothing to do, -1 failed.
int RateLimitLogSender::send_encrypted_attack_log(const ShipTarget *target, RelpLink *relp) {
  char fragment[SHIP_FRAGMENT_SIZE];
  pthread_mutex_lock(&m_lock);
  int offered = m_report_state == REPORT_OFFERED;
  std::memcpy(fragment, m_report, sizeof fragment);
  pthread_mutex_unlock(&m_lock);
  // A sealed report the loop no longer offers (the ring was cleared, or a
  // reload dropped its collector) never left: it is dropped unsent.
  if (m_report_msg_len > 0 && (!offered || std::strcmp(fragment, m_report_sealed_for) != 0))
    m_report_msg_len = 0;
  if (!offered || target->host[0] == '\0') return 0;
  if (m_report_msg_len == 0) {
    SealMeta meta;
    seal_identity(&meta, SEQ_REPORT);
    int n = build_attack_message(fragment, &meta, m_report_msg, sizeof m_report_msg);
    if (n < 0) return -1;
    m_seq[SEQ_REPORT]++;
    m_report_msg_len = (size_t)n;
    std::memcpy(m_report_sealed_for, fragment, sizeof m_report_sealed_for);
  }
  const char *msg = m_report_msg;
  size_t len = m_report_msg_len;
  int taken = deliver(target, relp, &msg, &len, 1);
  pthread_mutex_lock(&m_lock);
  if (taken != 1) {
    m_report_failed++;
    m_tls_refused += taken == SHIP_REFUSED;
    pthread_mutex_unlock(&m_lock);
    return -1;
  }
  m_report_delivered++;
  m_last_delivery = (int64_t)clock_now();
  m_report_msg_len = 0;
  if (m_report_state == REPORT_OFFERED && std::strcmp(m_report, m_report_sealed_for) == 0)
    m_report_state = REPORT_DELIVERED;
  pthread_mutex_unlock(&m_lock);
  return 1;
}

// Sleeps in poll on fd for at most timeout_ms (-1: until woken), then
// takes the wake-ups.
static void sleep_on(int fd, int timeout_ms) {
  struct pollfd p;
  std::memset(&p, 0, sizeof p);
  p.fd = fd;
  p.events = POLLIN;
  if (poll(&p, 1, timeout_ms) > 0) {
    uint64_t count = 0;
    if (read(fd, &count, sizeof count) < 0 && errno != EAGAIN)
      DLOG_ERROR("wake-up read error:%s", std::strerror(errno));
  }
}

// Milliseconds from now to due, within 0..60000; -1 for no due time.
static int wait_until(int64_t due, int64_t now) {
  if (due < 0) return -1;
  if (due <= now) return 0;
  return due - now > 60000 ? 60000 : (int)(due - now);
}

// The sealer: wakes for records, a reload or the end of a linger, and fills
// and seals blocks. Every pause is relative and on the monotonic clock.
void RateLimitLogSender::sealer_loop() {
  ShipTarget access;
  std::memset(&access, 0, sizeof access);
  for (;;) {
    pthread_mutex_lock(&m_lock);
    if (m_stop) {
      pthread_mutex_unlock(&m_lock);
      break;
    }
    access = m_access_target;
    take_queued_records();
    int queue_left = m_queue_count > 0;
    int64_t linger = m_collector_down ? ACCESS_LINGER_DOWN_MS : ACCESS_LINGER_MS;
    pthread_mutex_unlock(&m_lock);

    int64_t now = monotonic_ms();
    if (m_block_records > 0 &&
        (queue_left || m_block_records >= ACCESS_BLOCK_RECORDS ||
         m_block_len >= ACCESS_BLOCK_BYTES || now - m_block_since_ms >= linger))
      seal_pending_block(&access);

    now = monotonic_ms();
    pthread_mutex_lock(&m_lock);
    // A partial block sleeps until the queue is half full or its linger
    // ends; an empty one wakes for the first record.
    m_wake_at = m_block_records > 0 ? ACCESS_QUEUE_SLOTS / 2 : 1;
    int busy = m_stop || m_queue_count >= m_wake_at;
    m_sealer_waiting = !busy;
    linger = m_collector_down ? ACCESS_LINGER_DOWN_MS : ACCESS_LINGER_MS;
    pthread_mutex_unlock(&m_lock);
    sleep_on(m_seal_wake_fd,
             busy ? 0 : wait_until(m_block_records > 0 ? m_block_since_ms + linger : -1, now));
    pthread_mutex_lock(&m_lock);
    m_sealer_waiting = 0;
    pthread_mutex_unlock(&m_lock);
  }
}

// The shipper: wakes for a sealed block, a report, a reload or the end of
// a pause, and delivers. The only thread that waits on the network.
void RateLimitLogSender::shipper_loop() {
  // One RELP session per collector; reports share the access session when
  // both go to the same place.
  RelpLink *access_link = relp_link_new();
  RelpLink *attack_link = relp_link_new();
  ShipTarget access, attack;
  std::memset(&access, 0, sizeof access);
  std::memset(&attack, 0, sizeof attack);
  Backoff access_wait = {0, 0}, report_wait = {0, 0};
  uint32_t seen_gen = 0;
  int have_settings = 0;
  for (;;) {
    pthread_mutex_lock(&m_lock);
    if (m_stop) {
      pthread_mutex_unlock(&m_lock);
      break;
    }
    if (!have_settings || seen_gen != m_settings_gen) {
      // New settings start with a fresh back-off: the operator who just
      // fixed the collector wants to see it used now.
      have_settings = 1;
      seen_gen = m_settings_gen;
      access = m_access_target;
      attack = m_attack_target;
      access_wait = Backoff{0, 0};
      report_wait = Backoff{0, 0};
      pthread_mutex_unlock(&m_lock);
      // A session no collector uses any more is closed now (waiting for its
      // acknowledgements), not left holding messages it will never resend.
      if (!ship_over_relp(&access)) {
        relp_link_free(access_link);
        access_link = relp_link_new();
      }
      if (!ship_over_relp(&attack) || same_target(&attack, &access)) {
        relp_link_free(attack_link);
        attack_link = relp_link_new();
      }
      pthread_mutex_lock(&m_lock);
    }
    if (m_report_state == REPORT_OFFERED && attack.host[0] == '\0') {
      // Turned off by a reload: the ring keeps the day, and the loop offers
      // it again once a collector is set.
      m_report_state = REPORT_NONE;
    }
    int report_offered = m_report_state == REPORT_OFFERED;
    size_t spool_len = m_spool_len;
    if (spool_len > 0 && access.host[0] == '\0') {
      // Shipping turned off by a reload: the spool has nowhere to go.
      m_lost.shipping_off += spool_records();
      m_spool_len = 0;
      spool_len = 0;
    }
    pthread_mutex_unlock(&m_lock);

    int64_t now = monotonic_ms();
    RelpLink *report_link = same_target(&attack, &access) ? access_link : attack_link;
    if ((report_offered || m_report_msg_len > 0) && now >= report_wait.retry_at_ms) {
      int rc = send_encrypted_attack_log(&attack, report_link);
      if (rc == 1) report_wait = Backoff{0, 0};
      if (rc < 0) back_off(&report_wait);
    }
    if (spool_len > 0 && now >= access_wait.retry_at_ms) {
      int was_down = access_wait.seconds != 0;
      if (ship_spool(&access, access_link) == 0)
        access_wait = Backoff{0, 0};
      else
        back_off(&access_wait);
      if (was_down != (access_wait.seconds != 0)) {
        pthread_mutex_lock(&m_lock);
        m_collector_down = access_wait.seconds != 0;
        pthread_mutex_unlock(&m_lock);
        wake(m_seal_wake_fd);  // its linger follows the collector
      }
    }

    // Sleep until the earliest due time, or a wake-up.
    now = monotonic_ms();
    int64_t due = -1;
    auto sooner = [&due](int64_t at) {
      if (due < 0 || at < due) due = at;
    };
    pthread_mutex_lock(&m_lock);
    if (m_spool_len > 0) sooner(access_wait.retry_at_ms);
    if (m_report_state == REPORT_OFFERED) sooner(report_wait.retry_at_ms);
    // What arrived since the look above must not wait for the next one.
    int busy = m_stop || seen_gen != m_settings_gen ||
               (m_report_state == REPORT_OFFERED && !report_offered) ||
               (m_spool_len > spool_len && access_wait.seconds == 0);
    pthread_mutex_unlock(&m_lock);
    sleep_on(m_ship_wake_fd, busy ? 0 : wait_until(due, now));
  }
  relp_link_free(access_link);
  relp_link_free(attack_link);
}
