// Per-record cost of the attack record path, inside the daemon's own code:
// the time to read a record's columns and decide its class, and the heap
// allocations of the whole record path (log_handler), counted by
// interposing malloc, calloc and realloc.
//
//   mox_recordbench ITERATIONS LOGFILE
//
// Must run where the daemon's paths are private (/tmp/mox/log, /dev/zvlog)
// and br0 carries the LAN address: log_handler writes the count file and the
// router line, and the classifier asks br0 for its network on every record.
// Prints key=value lines.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "records.h"
#include "stats/stats.h"

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

static volatile int counting;
static volatile long allocations;

// Interposed for the whole program; counts only while asked to.
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

namespace {

typedef std::chrono::steady_clock Clock;

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

struct Prepared {
  std::string datagram;
  std::string source;
  const char *attack;  // at "ATTACK=I:"
  int attack_length;
};

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: mox_recordbench ITERATIONS LOGFILE\n");
    return 2;
  }
  long iterations = std::atol(argv[1]);
  log_init(argv[2], "mox_logd", LOG_MASK_FILE);
  LogSink.level = 3;  // errors only, the daemon's default

  std::vector<Prepared> mix;
  for (const bench::AttackSample &s : bench::attack_mix()) mix.push_back({s.datagram, s.source, nullptr, 0});
  for (Prepared &p : mix) {
    p.attack = std::strstr(p.datagram.c_str(), ATTACK_MARKER);
    p.attack_length = (int)(p.datagram.c_str() + p.datagram.size() - p.attack);
  }
  int classified = 0;
  for (const Prepared &p : mix)
    if (classify_attack(p.attack, p.attack_length, p.source.c_str()) > 0) classified++;
  std::printf("mix_records=%zu classified=%d\n", mix.size(), classified);

  // Columns and class: the parse and the decision, br0's network included.
  long sink = 0;
  Clock::time_point t0 = Clock::now();
  for (long i = 0; i < iterations; i++) {
    const Prepared &p = mix[(size_t)i % mix.size()];
    sink += classify_attack(p.attack, p.attack_length, p.source.c_str());
  }
  double classify_s = seconds_since(t0);

  // The column scan alone.
  t0 = Clock::now();
  for (long i = 0; i < iterations; i++) {
    const Prepared &p = mix[(size_t)i % mix.size()];
    AttackRecord r;
    std::memset(&r, 0, sizeof r);
    const int marker = (int)(sizeof ATTACK_MARKER - 1);
    get_attack_fields(&r, p.attack + marker, p.attack_length - marker);
    sink += r.bot_code + r.intrusion_mark;
  }
  double fields_s = seconds_since(t0);

  // The LAN's address and netmask, as the classifier asks for them on every
  // record: a share of the class decision that the column scan does not show.
  long lan_iterations = iterations / 10 > 0 ? iterations / 10 : 1;
  t0 = Clock::now();
  for (long i = 0; i < lan_iterations; i++) {
    char addr[IFACE_SCRATCH_SIZE] = {0}, mask[IFACE_SCRATCH_SIZE] = {0};
    sink += get_iface_ipv4(LAN_IFACE, addr) + get_iface_netmask(LAN_IFACE, mask) + addr[0];
  }
  double lan_s = seconds_since(t0);

  std::printf("iterations=%ld classify_us=%.3f fields_us=%.3f lan_query_us=%.3f sink=%ld\n",
              iterations, classify_s * 1e6 / (double)iterations,
              fields_s * 1e6 / (double)iterations, lan_s * 1e6 / (double)lan_iterations, sink);

  // The whole record path, in the receive buffer the daemon uses: zeroed
  // once, the last byte always 0.
  static char buf[RECV_BUF_SIZE];
  auto handle = [&](const Prepared &p) {
    std::memcpy(buf, p.datagram.data(), p.datagram.size());
    log_handler(buf, (int)p.datagram.size());
  };
  // One warm-up pass: time zone data and the like load once per process.
  for (const Prepared &p : mix) handle(p);
  uint32_t before = attack_count();
  const int rounds = 200;
  allocations = 0;
  counting = 1;
  for (int r = 0; r < rounds; r++)
    for (const Prepared &p : mix) handle(p);
  counting = 0;
  long records = (long)rounds * (long)mix.size();
  long allocs = allocations;
  long counted = (long)(attack_count() - before);

  long handler_iterations = iterations / 100 > 0 ? iterations / 100 : 1;
  t0 = Clock::now();
  for (long i = 0; i < handler_iterations; i++) handle(mix[(size_t)i % mix.size()]);
  double handler_s = seconds_since(t0);

  std::printf("handler_records=%ld handler_counted=%ld allocations=%ld allocs_per_record=%.4f\n",
              records, counted, allocs, (double)allocs / (double)records);
  std::printf("handler_iterations=%ld handler_us=%.3f\n", handler_iterations,
              handler_s * 1e6 / (double)handler_iterations);
  log_close();
  return 0;
}
