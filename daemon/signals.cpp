#include <signal.h>

#include "daemon/daemon.h"

volatile sig_atomic_t logd_running = 1;
volatile sig_atomic_t reload_requested = 0;
volatile sig_atomic_t reset_requested = 0;

// Only one store: the loop acts on the flag between two waits.
void logd_signal_handler(int signo) {
  switch (signo) {
    case SIGTERM:
      logd_running = 0;
      break;
    case SIGHUP:
      reload_requested = signo;
      break;
    case SIGUSR2:
      reset_requested = 1;
      break;
    default:
      break;
  }
}
