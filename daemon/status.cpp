// The status file: what the daemon has done since it started, as key=value
// lines an operator (or "mox_conf status") reads without a debug log level.
// Rewritten whole at every timeout, so a reader never sees half of one.
#include <errno.h>
#include <stdarg.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"

namespace {

// Counted on the loop's thread only; plain words.
uint32_t attacks_received = 0;
uint32_t attacks_counted = 0;
uint32_t attacks_by_class[ATTACK_CLASSES + 1];  // [0] unused: 1..5
uint32_t attacks_internal = 0;
uint32_t router_written = 0;
uint32_t router_failed = 0;

// Appends one formatted line; -1 once the text no longer fits.
__attribute__((format(printf, 3, 4))) int put(char *text, size_t *len, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(text + *len, STATUS_TEXT_SIZE - *len, fmt, ap);
  va_end(ap);
  if (n < 0 || (size_t)n >= STATUS_TEXT_SIZE - *len) return -1;
  *len += (size_t)n;
  return 0;
}

}  // namespace

void status_count_datagram(void) { attacks_received++; }

void status_count_attack(AttackClass attack_class) {
  if (attack_class <= 0) return;
  attacks_counted++;
  if (attack_class > ATTACK_INTERNAL) attacks_internal++;
  int base = attack_class % ATTACK_INTERNAL;
  if (base >= 1 && base <= ATTACK_CLASSES) attacks_by_class[base]++;
}

void status_count_router_line(int written) {
  if (written)
    router_written++;
  else
    router_failed++;
}

int write_status_file(const SenderStatus *s, int64_t started_ms) {
  static char text[STATUS_TEXT_SIZE];
  size_t len = 0;
  int bad = put(text, &len, "pid=%d\nversion=%s\nuptime=%lld\nwritten=%lld\n", (int)getpid(),
                get_firmware_version(), (long long)((monotonic_ms() - started_ms) / 1000),
                (long long)clock_now());
  bad |= put(text, &len, "attack_received=%u\nattack_counted=%u\n", attacks_received,
             attacks_counted);
  for (int c = 1; c <= ATTACK_CLASSES; c++)
    bad |= put(text, &len, "attack_class_%d=%u\n", c, attacks_by_class[c]);
  bad |= put(text, &len, "attack_internal=%u\nrouter_lines_written=%u\nrouter_lines_failed=%u\n",
             attacks_internal, router_written, router_failed);
  bad |= put(text, &len, "shipping=%s\naccess_received=%u\naccess_shipped=%u\n",
             s->shipping > 0 ? "on" : s->shipping == 0 ? "off" : "second-instance",
             s->access_received, s->access_shipped);
  const AccessLosses &l = s->lost;
  bad |= put(text, &len,
             "access_dropped_over_rate=%u\naccess_dropped_queue_full=%u\n"
             "access_dropped_spool_full=%u\naccess_dropped_shipping_off=%u\n"
             "access_dropped_too_long=%u\naccess_dropped_unsealable=%u\n",
             l.over_rate, l.queue_full, l.spool_full, l.shipping_off, l.too_long, l.unsealable);
  bad |= put(text, &len,
             "access_collector=%s\naccess_messages_delivered=%u\naccess_messages_failed=%u\n"
             "report_collector=%s\nreport_messages_delivered=%u\nreport_messages_failed=%u\n"
             "tls_refused=%u\n",
             s->access_collector, s->access_delivered, s->access_failed, s->report_collector,
             s->report_delivered, s->report_failed, s->tls_refused);
  bad |= put(text, &len, "spool_messages=%u\nspool_records=%u\nspool_bytes=%u\nlast_delivery=%lld\n",
             s->spool_messages, s->spool_records, s->spool_bytes, (long long)s->last_delivery);
  bad |= put(text, &len, "device_id=%s\ndevice_key=%s\n", s->device, s->device_key);
  if (bad) {
    DLOG_ERROR("status too long for %d bytes, not written", STATUS_TEXT_SIZE);
    return -1;
  }
  if (replace_file(STATUS_PATH, text, len, 0644) != 0) {
    DLOG_ERROR("status not written: %s: %s", STATUS_PATH, std::strerror(errno));
    return -1;
  }
  return 0;
}
