// The count, day and hour files read back at start (FUZZ_SEPARATOR between
// them): the rings stay in range, every slot makes a report fragment, and a
// saved ring reads back into the same file.
#include "fuzz/fuzz.h"
#include "stats/stats.h"

static void check_fragment(const StatSlot *slot) {
  char fragment[REPORT_FRAGMENT_SIZE];
  FUZZ_CHECK(format_report_fragment(slot, fragment, sizeof fragment) > 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *paths[] = {STAT_COUNT_PATH, DAY_STAT_PATH, HOUR_STAT_PATH};
  size_t at = 0;
  for (const char *path : paths) {
    std::string text = fuzz_take(data, size, &at);
    if (write_file(path, text.data(), text.size()) != 0) return 0;
  }
  load_attack_count();
  load_day_stat();
  load_hour_stat();
  const DayStatRing &d = day_stat();
  const HourStatRing &h = hour_stat();
  FUZZ_CHECK(d.count >= 0 && d.count <= DAY_SLOTS && d.head >= 0 && d.head < DAY_SLOTS);
  FUZZ_CHECK(d.tail >= 0 && d.tail < DAY_SLOTS);
  FUZZ_CHECK(h.count >= 0 && h.count <= HOUR_SLOTS && h.head >= 0 && h.head < HOUR_SLOTS);
  check_fragment(&d.total);
  for (int i = 0; i < d.count; i++) check_fragment(&d.slots[i]);

  save_day_stat();
  save_hour_stat();
  std::string day = fuzz_slurp(DAY_STAT_PATH), hour = fuzz_slurp(HOUR_STAT_PATH);
  load_day_stat();
  load_hour_stat();
  save_day_stat();
  save_hour_stat();
  FUZZ_CHECK(fuzz_slurp(DAY_STAT_PATH) == day);
  FUZZ_CHECK(fuzz_slurp(HOUR_STAT_PATH) == hour);

  // The record path goes on from what was loaded.
  roll_day_stat();
  roll_hour_stat();
  count_day_attack(101);  // an intrusion attempt from inside
  count_hour_attack(5);
  bump_attack_count();
  return 0;
}
