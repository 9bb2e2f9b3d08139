// Attack record intake. Runs for every datagram on the attack socket, so it
// works on stack buffers only and allocates nothing.
#include <stdint.h>

#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "stats/stats.h"

namespace {

// Columns 1..34 of the record; the ten numbers fill AttackRecord in its
// order. They are scanned wide and then checked, so that a number beyond
// 32 bits reads as 0, like a column the record does not reach, and never
// as a wrapped value that could pass for a mark.
// The blank runs between the groups of ten match any white space or none.
const char FIELDS_FORMAT[] =
    "%*[^:]:%*[^:]:%*[^:]:%*[^:]:%lld:%lld:%lld:%lld:%lld:%*[^:]:    "
    "%*[^:]:%lld:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:    "
    "%*[^:]:%*[^:]:%*[^:]:%*[^:]:%lld:%*[^:]:%*[^:]:%lld:%*[^:]:%*[^:]:    "
    "%*[^:]:%lld:%*[^:]:%*[^-]-%*[^-]-%lld:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:    "
    "%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]:%*[^:]";
const int FIELDS_COUNT = 10;

// Source address and port from the header; the address is bounded to its
// buffer, which changes nothing for any real address.
const char SOURCE_FORMAT[] = "%*[^]] %*[^:]: %63[^,], %*s %lld,%*s";
static_assert(SOURCE_ADDR_SIZE == 64, "SOURCE_FORMAT width follows SOURCE_ADDR_SIZE");

// Score slots that mark the fourth class.
const int HIJACK_SLOTS[] = {22, 26, 45, 41, 2, 5, 6, 7, 8, 10, 11, 12, 16, 18, 20, 21, 25};

const int32_t FLAG_AUTOMATED = 0x8000000;
const int32_t GUESS_CODE = -10;

// A slot number outside the score table marks nothing: it comes straight
// from the datagram and must not reach memory outside the table.
void mark(int32_t *score, int32_t slot, int set_only) {
  if (slot < 0 || slot >= SCORE_SLOTS) return;
  if (set_only)
    score[slot] = 1;
  else
    score[slot] += 1;
}

AttackClass decide(const AttackRecord *r, const int32_t *score) {
  if (r->intrusion_mark != 0) return 1;
  if (r->flag_word & FLAG_AUTOMATED) return 2;
  if (r->bot_code >= 30 && r->bot_code <= 38) return 2;
  if (score[1] != 0) return 3;
  for (int slot : HIJACK_SLOTS)
    if (score[slot] != 0) return 4;
  if (r->guess_code == GUESS_CODE) return 5;
  return 0;
}

}  // namespace

AttackRecord *get_attack_fields(AttackRecord *record, const char *text, int length) {
  char copy[FIELDS_BUF_SIZE];
  std::memset(copy, 0, sizeof copy);
  // An empty column between two separators becomes "0", since a scan set
  // must match at least one character. The look-ahead stays inside the
  // given length, and the copy stops short of the buffer's end, which no
  // datagram of RECV_MAX bytes can reach.
  int out = 0;
  for (int i = 0; text && i < length && out < FIELDS_BUF_SIZE - 2; i++) {
    char c = text[i];
    copy[out++] = c;
    if ((c == ':' || c == '-') && i + 1 < length && text[i + 1] == c) copy[out++] = '0';
  }
  copy[out] = '\0';
  AttackRecord *r = record;
  int32_t *fields[FIELDS_COUNT] = {&r->slot_a,   &r->slot_b,    &r->slot_c,   &r->slot_d,
                                   &r->guess_code, &r->flag_word, &r->slot_e, &r->bot_code,
                                   &r->spare_code, &r->intrusion_mark};
  long long wide[FIELDS_COUNT];
  for (int i = 0; i < FIELDS_COUNT; i++) wide[i] = *fields[i];
  int got = std::sscanf(copy, FIELDS_FORMAT, &wide[0], &wide[1], &wide[2], &wide[3], &wide[4],
                        &wide[5], &wide[6], &wide[7], &wide[8], &wide[9]);
  if (got < FIELDS_COUNT) DLOG_ERROR("sscanf error.");
  for (int i = 0; i < FIELDS_COUNT; i++)
    *fields[i] = wide[i] >= INT32_MIN && wide[i] <= INT32_MAX ? (int32_t)wide[i] : 0;
  return record;
}

AttackClass classify_attack(const char *attack_text, int attack_length,
                            const char *source_address) {
  int32_t score[SCORE_SLOTS];
  std::memset(score, 0, sizeof score);
  if (!attack_text) return 0;
  const int marker_len = (int)(sizeof ATTACK_MARKER - 1);
  // Fields a short record does not reach read as 0, which keeps every rule
  // of the decision well defined.
  AttackRecord record;
  std::memset(&record, 0, sizeof record);
  int record_len = attack_length - marker_len;
  get_attack_fields(&record, attack_text + marker_len, record_len < 0 ? 0 : record_len);

  mark(score, record.slot_a, 1);
  mark(score, record.slot_b, 0);
  mark(score, record.slot_c, 0);
  mark(score, record.slot_d, 0);
  mark(score, record.slot_e, 0);

  // Asked for every record, whatever the outcome.
  int internal = is_internal_addr(source_address);
  AttackClass c = decide(&record, score);
  if (c == 0) return 0;
  return internal ? c + ATTACK_INTERNAL : c;
}

void log_handler(const char *text, int count) {
  // Nothing was received; the caller has already logged the failure.
  if (!text || count < 0) return;
  status_count_datagram();
  if (count > RECV_MAX) count = RECV_MAX;
  const char *mox = std::strstr(text, MOX_MARKER);
  if (!mox) return;
  const char *attack = std::strstr(text, ATTACK_MARKER);
  const char *end = text + count;
  const char *header = mox + HEADER_SKIP;
  // The searches run to the first zero byte and so can find a marker in the
  // tail a longer earlier datagram left behind. Such a marker is not part of
  // this datagram: a stale "mox:" drops the datagram, a stale "ATTACK=I:"
  // counts as absent.
  if (header > end) return;
  if (attack && attack >= end) attack = nullptr;

  AttackClass attack_class = 0;
  long length = end - header;
  if (attack) {
    long attack_length = end - attack;
    length = attack - header;
    char address[SOURCE_ADDR_SIZE];
    std::memset(address, 0, sizeof address);
    long long port = 0;  // only its presence counts
    if (std::sscanf(header, SOURCE_FORMAT, address, &port) != 2)
      DLOG_ERROR("sscanf src IP and port error.");
    attack_class = classify_attack(attack, (int)attack_length, address);
    if (attack_class <= 0) return;
    count_day_attack(attack_class);
    count_hour_attack(attack_class);
    bump_attack_count();
    status_count_attack(attack_class);
  }
  // "ATTACK=I:" in front of "mox:" leaves no header text.
  if (length < 0) length = 0;
  format_router_log(header, (int)length, attack_class);
}
