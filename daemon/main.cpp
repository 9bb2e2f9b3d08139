// mox_logd: start-up, the one select loop, and the stop. main only wires the
// folders together; the work lives behind their headers.
#include <errno.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"
#include "stats/stats.h"

namespace {

// A descriptor of 0 or below never enters the set: with one socket missing
// the loop still runs its timeouts on the other.
void watch(fd_set *set, int fd) {
  if (fd > 0 && fd < FD_SETSIZE) FD_SET(fd, set);
}

int ready(const fd_set *set, int fd) { return fd > 0 && fd < FD_SETSIZE && FD_ISSET(fd, set); }

// Set once the lock step has returned. Before that the one exit is the lock
// file's open failing, in the background where no one sees its message.
int lock_step_done = 0;

void start_failed(void) {
  if (lock_step_done) return;
  openlog(PROCESS_NAME, LOG_PID, LOG_DAEMON);
  syslog(LOG_ERR, "cannot start: cannot open %s (is %s there and writable?)", LOCK_PATH,
         MOX_TMP_DIR);
  closelog();
}

}  // namespace

int main(int argc, char **argv) {
  (void)argc;
  (void)argv;
  // Whatever umask the starter left, nothing this daemon creates (its log
  // folders among them) is writable by group or others.
  umask(022);

  // The daemon always goes to the background first and its start-up fails
  // there, unseen by whoever started it: say so here while the terminal
  // (or the init system's journal) still listens, and to syslog later.
  if (access(MOX_TMP_DIR, W_OK) != 0)
    std::fprintf(stderr, "mox_logd: %s: %s: the daemon cannot take its lock and will exit\n",
                 MOX_TMP_DIR, std::strerror(errno));
  std::atexit(start_failed);

  if (daemon(0, 0) == -1) DLOG_ERROR("daemon error ... %s\n", std::strerror(errno));

  // Losing the lock leaves the task unnamed and the instance silent: the
  // live sockets below turn it away from the records, and its sender ships
  // nothing, so the running daemon's reports never go out twice.
  int holds_lock = lock_pid_file(LOCK_PATH) == 0;
  lock_step_done = 1;
  if (holds_lock)
    set_process_name(PROCESS_NAME);
  else
    DLOG_DEBUG("mox_logd is running.");

  // Zeroed once and never again: recvfrom gets RECV_MAX bytes, so the last
  // byte stays 0 and every string search ends inside the buffer.
  static char recv_buf[RECV_BUF_SIZE];
  std::memset(recv_buf, 0, sizeof recv_buf);
  struct sockaddr_storage peer_addr;
  socklen_t peer_len = 0;  // the sender of a datagram is never wanted

  signal(SIGTERM, logd_signal_handler);
  signal(SIGHUP, logd_signal_handler);
  signal(SIGUSR2, logd_signal_handler);

  log_init(LOG_PATH, PROCESS_NAME, LOG_MASK_FILE);

  RateLimitLogSender sender("", holds_lock ? 0 : SENDER_NO_SHIPPING);

  DLOG_INFO("logd loop start, pid=%d", getpid());

  int attack_fd = init_unix_sock(ATTACK_SOCK_PATH);
  int access_fd = init_unix_sock(ACCESS_SOCK_PATH);
  if (attack_fd <= 0 || access_fd <= 0) DLOG_ERROR("Create socket failed!");
  int max_fd_plus_one = (attack_fd > 0 ? attack_fd : 0);
  if (access_fd > max_fd_plus_one) max_fd_plus_one = access_fd;
  max_fd_plus_one += 1;

  struct timeval wait_time;
  wait_time.tv_usec = 0;
  wait_time.tv_sec = sender.timeout_seconds();
  int64_t period_end_ms = monotonic_ms() + (int64_t)wait_time.tv_sec * 1000;

  load_day_stat();
  load_hour_stat();
  load_attack_count();

  // Only the instance that holds the lock speaks for the daemon.
  int64_t started_ms = monotonic_ms();
  SenderStatus status;
  if (holds_lock) {
    sender.status(&status);
    write_status_file(&status, started_ms);
  }

  // Drawn now for the report cycle's first day; renewed by the cycle.
  int report_hour = rand() % 3;
  int report_minute = rand() % REPORT_MINUTES;

  while (logd_running) {
    fd_set read_set;
    FD_ZERO(&read_set);
    watch(&read_set, attack_fd);
    watch(&read_set, access_fd);

    if (reload_requested) {
      sender.reload_config();
      reload_requested = 0;
    }
    if (reset_requested) {
      reset_attack_stats();
      reset_requested = 0;
    }

    // Linux writes the time left back into wait_time, so the period runs on
    // across datagrams and signals instead of starting over on each pass.
    int n = select(max_fd_plus_one, &read_set, nullptr, nullptr, &wait_time);
    if (n > 0) {
      if (ready(&read_set, attack_fd)) {
        int got = (int)recvfrom(attack_fd, recv_buf, RECV_MAX, 0,
                                (struct sockaddr *)&peer_addr, &peer_len);
        if (got < 0) DLOG_ERROR("mox_logd: recvfrom attack log error!");
        log_handler(recv_buf, got);
      }
      if (ready(&read_set, access_fd)) {
        if (sender.recv_access_log(access_fd) < 0)
          DLOG_ERROR("mox_logd: recv access log error!");
      }
    } else if (n < 0 && errno != EINTR) {
      DLOG_ERROR("select failure: %s", std::strerror(errno));
      break;
    }
    // select counts down only the time spent inside it. Under a flood it
    // returns at once every time and the handling between the calls is
    // never counted, so the period would stretch without end and nothing
    // be flushed, rolled or reported: the monotonic clock keeps it honest.
    int64_t left_ms = period_end_ms - monotonic_ms();
    if (n > 0 && left_ms > 0 && left_ms < (int64_t)wait_time.tv_sec * 1000 + wait_time.tv_usec / 1000) {
      wait_time.tv_sec = (time_t)(left_ms / 1000);
      wait_time.tv_usec = (suseconds_t)(left_ms % 1000 * 1000);
    }
    if (n == 0 || (n > 0 && left_ms <= 0)) {
      report_cycle(sender, &report_hour, &report_minute);
      flush_stats(&day_stat().dirty, &hour_stat().dirty);
      roll_day_stat();
      roll_hour_stat();
      sender.timeout_tick();
      if (holds_lock) {
        sender.status(&status);
        write_status_file(&status, started_ms);
      }
      wait_time.tv_sec = sender.timeout_seconds();
      wait_time.tv_usec = 0;
      period_end_ms = monotonic_ms() + (int64_t)wait_time.tv_sec * 1000;
    }
  }

  // No last flush and no waiting on a collector: the stop only says what
  // it leaves behind.
  sender.log_abandoned();
  DLOG_INFO("logd loop stop, pid=%d", getpid());
  close(attack_fd);
  close(access_fd);
  _exit(0);
}
