// Attack intake: the class of one record (the decision list in its order, the columns that
// decide it, empty columns, records that do not scan, slot numbers outside the score table),
// and a record path that never touches the heap, since every datagram runs through it for
// years on a device with little memory. Counting, router lines and hostile datagrams are the
// black-box tests' part.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "records.h"
#include "sandbox.h"
#include "stats/stats.h"

#if defined(__SANITIZE_ADDRESS__)
#define MOX_COUNT_MALLOC 0
#else
#define MOX_COUNT_MALLOC 1
#endif

#if MOX_COUNT_MALLOC
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

static volatile int counting;
static volatile int allocations;

// Interposed for the whole test binary; counts only while asked to.
static int counted() { return counting ? (allocations = allocations + 1) : 0; }
extern "C" void *malloc(size_t n) { return counted(), __libc_malloc(n); }
extern "C" void *calloc(size_t n, size_t m) { return counted(), __libc_calloc(n, m); }
extern "C" void *realloc(void *p, size_t n) { return counted(), __libc_realloc(p, n); }
#endif

namespace {

AttackClass classify(const std::string &columns) {
  std::string text = "ATTACK=I:" + columns;
  return classify_attack(text.c_str(), (int)text.size(), kOutside);
}

TEST(Intake, DecisionListAndColumns) {
  // The one class per rule and the marks that are not are the black-box tests' part.
  const std::pair<std::string, AttackClass> cases[] = {
      {record_columns({{34, "a-b-3"}, {12, "-1"}, {5, "1"}}), 1},  // row 1 beats 2 and 3
      {record_columns({{34, "--5"}}), 0},  // an empty first piece stops before the mark
      {record_columns({{34, "a-b-1"}}, 34), 1},  // 34 columns are a whole record
      {record_columns({{12, "-1"}, {5, "1"}}), 2},  // every bit set includes bit 27
      {record_columns({{28, "30"}}), 2}, {record_columns({{28, "31"}, {6, "1"}}), 2},
      {record_columns({{7, "1"}}), 3},  // slot 1 counts from any slot field
      // Empty columns read as 0 and keep the later ones in their places.
      {record_columns({{5, ""}, {6, ""}, {7, ""}, {8, "1"}}), 3},
      {record_columns({{32, "-10"}}), 0},  // spare_code is never consulted
      {record_columns({{9, "-11"}}), 0},
      {":" + record_columns({{5, "1"}}), 0},  // an empty first column stops the scan
      {"", 0},
      // 78 = 56 + 22 and -34 = 22 - 56 would hit slot 22 if wrapped.
      {record_columns({{5, "78"}, {6, "-34"}, {7, "99999"}, {8, "-2147483648"},
                       {25, "2147483647"}}), 0},
      {record_columns({{5, "56"}, {6, "-1"}}), 0},
  };
  for (const auto &c : cases) EXPECT_EQ(c.second, classify(c.first)) << c.first;
  for (const char *slot : {"22", "26", "45", "41", "2", "5", "6", "7", "8", "10", "11", "12",
                           "16", "18", "20", "21", "25"})
    EXPECT_EQ(4, classify(record_columns({{25, slot}, {9, "-10"}}))) << "slot " << slot;
  for (const char *slot : {"3", "4", "9", "13", "27", "40", "42", "55"})
    EXPECT_EQ(5, classify(record_columns({{6, slot}, {9, "-10"}}))) << "slot " << slot;
}

TEST(RecordPath, LogHandlerAllocatesNothing) {
#if !MOX_COUNT_MALLOC
  GTEST_SKIP() << "the sanitizer owns malloc in this build; the normal build counts";
#else
  REQUIRE_SANDBOX();
  sandbox_wipe("/tmp/mox");
  ASSERT_EQ(0, system("mkdir -p /tmp/mox/log && touch /dev/zvlog && touch /tmp/mox/log/stat"));
  ASSERT_EQ(0, sandbox_add_br0("192.168.77.1/24"));
  reset_attack_stats();
  // Errors on, to a file stream that exists before counting starts.
  log_init("/tmp/mox/log/logd.log", "mox_logd", LOG_MASK_FILE);
  LogSink.level = 0;

  std::string datagrams[] = {
      record({{34, "a-b-1"}}), record(kClass3, "192.168.77.9"), record({{6, "22"}, {7, ""}}),
      ":broken" + record(kClass3).substr(0, 130),  // "sscanf error."
      "<1>mox: no brackets here ATTACK=I:" + record_columns({{9, "-10"}}),
      "<1>mox: [Automatic] only a header",
  };
  static char buf[RECV_BUF_SIZE];
  // One warm-up pass: time zone data and the like load once per process.
  for (int round = 0; round <= 50; round++) {
    counting = round > 0;
    for (const std::string &d : datagrams) {
      std::memcpy(buf, d.data(), d.size());
      log_handler(buf, (int)d.size());
    }
  }
  counting = 0;
  EXPECT_EQ(0, allocations);
  EXPECT_EQ(5u * 51u, attack_count());  // the path really ran
  log_close();
  LogSink.level = 3;
  LogSink.mask = 0;
  sandbox_del_br0();
  sandbox_wipe("/dev/zvlog");
#endif
}

}  // namespace
