// One attack datagram through log_handler. Input: two bytes giving the count
// recvfrom returned (-1..RECV_MAX), then the receive buffer; a shorter count
// leaves a stale tail, as an earlier, longer datagram does in the daemon.
#include "daemon/daemon.h"
#include "fuzz/fuzz.h"
#include "stats/stats.h"

#define COUNT_BYTES 2

static int known_class(AttackClass c) {
  return c == 0 || (c >= 1 && c <= 5) || (c >= ATTACK_INTERNAL + 1 && c <= ATTACK_INTERNAL + 5);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < COUNT_BYTES) return 0;
  // The daemon zeroes its buffer once; here each input starts from zero so
  // that a finding reproduces on its own.
  static char buf[RECV_BUF_SIZE];
  memset(buf, 0, sizeof buf);
  int count = (int)((data[0] << 8 | data[1]) % (RECV_MAX + 2)) - 1;
  size_t len = size - COUNT_BYTES < RECV_MAX ? size - COUNT_BYTES : RECV_MAX;
  memcpy(buf, data + COUNT_BYTES, len);
  reset_attack_stats();
  log_handler(buf, count);
  FUZZ_CHECK(attack_count() <= 1);  // one datagram counts once at most

  // The classification alone, for a source inside and one outside br0.
  const char *attack = strstr(buf, ATTACK_MARKER);
  if (attack != NULL) {
    int attack_len = (int)strlen(attack);
    FUZZ_CHECK(known_class(classify_attack(attack, attack_len, "192.168.1.20")));
    FUZZ_CHECK(known_class(classify_attack(attack, attack_len, "fd00:1::20")));
  }
  return 0;
}
