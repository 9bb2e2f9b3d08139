// The black-box tests' wall clock: a file that the preloaded shim
// (wallclock_shim.cpp) maps, so that a test can run the daemon's days fast
// and step its clock, while its monotonic clock stays real.
#pragma once

#include <stdint.h>

// fake wall time = fake_origin_ns + (real wall time - real_origin_ns) * rate
struct WallClock {
  int64_t real_origin_ns;
  int64_t fake_origin_ns;
  int64_t rate;
};
