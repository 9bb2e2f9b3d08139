// The sender's settings (logserver, logatserver, randtime, FUZZ_SEPARATOR
// between): the parsers, then the values stored and reloaded as on SIGHUP by a
// sender that ships nothing. A reload takes them exactly when the parsers do.
#include "confgen/confgen.h"
#include "fuzz/fuzz.h"
#include "shipping/shipping.h"
#include "store/store.h"

static RateLimitLogSender *sender;

void fuzz_setup(void) { sender = new RateLimitLogSender("fuzz", SENDER_NO_SHIPPING); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  size_t at = 0;
  std::string access = fuzz_take(data, size, &at), attack = fuzz_take(data, size, &at);
  std::string hours = fuzz_take(data, size, &at);
  ShipTarget target;
  int32_t rate = SEND_INTERVAL_DEFAULT, base = -1, span = -1;
  int ok = 1;
  if (!access.empty()) {
    int rc = parse_collector(access.c_str(), &target, &rate);
    FUZZ_CHECK(rc == -1 || (target.port >= 1 && target.port <= 65535 && target.host[0] != '\0'));
    FUZZ_CHECK(rate >= 1);
    ok = ok && rc == 0;
  }
  if (!attack.empty()) ok = parse_collector(attack.c_str(), &target, NULL) == 0 && ok;
  if (!hours.empty()) {
    int rc = parse_report_hours(hours.c_str(), &base, &span);
    FUZZ_CHECK(rc == -1 || (base >= 0 && base <= REPORT_HOUR_BASE_MAX && span >= 1 &&
                            span <= REPORT_HOUR_SPAN_MAX));
    ok = ok && rc == 0;
  }

  // Stored only as mox_conf would store them: one short line each, without
  // braces, line ends, NULs or a section name (sections are found by plain
  // substring, so a name inside a value would move that section).
  std::string stored;
  const std::string *values[] = {&access, &attack, &hours};
  const int ids[] = {PARSER_LOGSERVER, PARSER_LOGATSERVER, PARSER_RANDTIME};
  for (int i = 0; i < 3; i++) {
    const std::string &v = *values[i];
    if (v.empty()) continue;
    if (v.size() >= SETTING_TEXT_SIZE ||
        v.find_first_of(std::string("{}\n\r\0", 5)) != std::string::npos)
      return 0;
    for (int id = PARSER_PROXY; id <= PARSER_RANDTIME; id++)
      if (parser_key(id) != NULL && v.find(parser_key(id)) != std::string::npos) return 0;
    stored += std::string(parser_key(ids[i])) + "={\n" + v + "\n}\n";
  }
  unlink(STORE_PATH);
  FUZZ_CHECK(sec_write_conf(stored.data(), (int)stored.size()) == 0);
  FUZZ_CHECK((sender->reload_config() == 0) == (ok != 0));
  FUZZ_CHECK(sender->timeout_seconds() >= PERIOD_MIN && sender->timeout_seconds() <= PERIOD_MAX);
  FUZZ_CHECK(sender->report_hour_span() >= 1);
  return 0;
}
