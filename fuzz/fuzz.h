// Shared set-up of the fuzz targets: the tests' private sandbox for the
// fixed paths, the splitting of one input into the several texts a target
// needs, and the check that turns a broken promise into a finding.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "logging/logging.h"
#include "platform/platform.h"
#include "tests/support/sandbox.h"

#define FUZZ_NOW 1732270000          // the pinned clock: 2024-11-22 10:06:40 UTC
#define FUZZ_SEPARATOR "\n----\n"    // between the texts of one input

// Aborts with the failed condition: libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(cond)                                                                   \
  ((cond) ? (void)0                                                                        \
          : (fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__), \
             abort()))

// Set-up failures end the run: a target outside its sandbox must not go on.
inline void fuzz_die(const char *what) {
  fprintf(stderr, "fuzz: %s\n", what);
  exit(1);
}

// A target's own set-up, run once the sandbox stands, when it defines one.
__attribute__((weak)) void fuzz_setup(void);

// The sandbox, with /dev/zvlog a plain file that takes the router lines, the
// folders the code expects, br0 on the LAN, the clock pinned, the diagnostic
// log open and standard output on /dev/null. libFuzzer reads its corpus and
// flags only after this, and no thread runs yet.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (sandbox_enter() != 0) fuzz_die(sandbox_reason());
  for (const char *d : {"/tmp/mox/log", "/tmp/mox/release/nginx", "/tmp/mox/release/conf_shared",
                        "/media/nand/mox_data"})
    if (make_dirs(d) != 0) fuzz_die(d);
  if (write_file("/dev/zvlog", "", 0) != 0 || freopen("/dev/null", "w", stdout) == NULL)
    fuzz_die("/dev/zvlog or /dev/null");
  // Without br0 every source is external: less coverage, no error.
  if (sandbox_add_br0("192.168.1.1/24") != 0 || sandbox_add_br0("fd00:1::1/64") != 0)
    fprintf(stderr, "fuzz: no br0, every source counts as external\n");
  clock_set(FUZZ_NOW);
  log_init(LOG_PATH, "mox_logd", LOG_MASK_FILE);
  if (fuzz_setup) fuzz_setup();
  return 0;
}

// The next text of the input, up to FUZZ_SEPARATOR or the end; *at moves
// behind it. Past the end every text is empty.
inline std::string fuzz_take(const uint8_t *data, size_t size, size_t *at) {
  if (*at >= size) return std::string();
  const char *begin = (const char *)data + *at;
  const void *hit = memmem(begin, size - *at, FUZZ_SEPARATOR, sizeof FUZZ_SEPARATOR - 1);
  size_t len = hit != NULL ? (size_t)((const char *)hit - begin) : size - *at;
  *at += hit != NULL ? len + sizeof FUZZ_SEPARATOR - 1 : len;
  return std::string(begin, len);
}

// The whole file, or "" when it does not open.
inline std::string fuzz_slurp(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
