// The record path must not touch the heap: every attack datagram runs
// through log_handler, for years, on a device with little memory.
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
extern "C" void *malloc(size_t n) {
  if (counting) allocations = allocations + 1;
  return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t m) {
  if (counting) allocations = allocations + 1;
  return __libc_calloc(n, m);
}
extern "C" void *realloc(void *p, size_t n) {
  if (counting) allocations = allocations + 1;
  return __libc_realloc(p, n);
}
#endif

namespace {

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
  char dir[] = "/tmp/noalloc.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  std::string path = std::string(dir) + "/logd.log";
  log_init(path.c_str(), "mox_logd", LOG_MASK_FILE);
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
  sandbox_wipe(dir);
  sandbox_wipe("/dev/zvlog");
#endif
}

}  // namespace
