// read_setting on a fuzzed rzpz file: the programs' two keys, and the key of
// the first line, which must be found with its value.
#include <limits.h>

#include "fuzz/fuzz.h"
#include "shipping/shipping.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (write_file(RZPZ_PATH, (const char *)data, size) != 0) return 0;
  int value = 0;
  int rc = read_setting(RZPZ_PATH, "mox_logd", &value);
  FUZZ_CHECK(rc == 0 || rc == 1);
  int32_t level = log_level_from_value(value);
  FUZZ_CHECK(level >= 0 && level <= 4);
  rc = read_setting(RZPZ_PATH, PERIOD_KEY, &value);
  FUZZ_CHECK(rc == 0 || rc == 1);

  // A first line that fits one piece of the reader names a key; the first
  // matching line wins, so its value is the one read.
  std::string text((const char *)data, size);
  std::string first = text.substr(0, text.find('\n'));
  size_t eq = first.find('=');
  if (eq == std::string::npos || first.size() >= SETTING_LINE_SIZE - 1 ||
      first.find('\0') != std::string::npos)
    return 0;
  std::string key = first.substr(0, eq);
  value = -1;
  rc = read_setting(RZPZ_PATH, key.c_str(), &value);
  FUZZ_CHECK(rc == 0);
  // Read as atoi reads it, but a number beyond an int stops at its limit.
  long long expected = strtoll(first.c_str() + eq + 1, NULL, 10);
  expected = expected > INT_MAX ? INT_MAX : expected < INT_MIN ? INT_MIN : expected;
  FUZZ_CHECK(value == expected);
  return 0;
}
