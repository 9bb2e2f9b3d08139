// "mox_conf status": the daemon's status file, told in sentences. The file
// is key=value lines that mox_logd rewrites whole at each period; whether
// the daemon still runs is asked of its lock, not of the file, which a dead
// daemon leaves behind.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "admin/admin.h"
#include "daemon/daemon.h"
#include "platform/platform.h"

#define STATUS_VALUE_SIZE 300   // the longest value: a collector, "relp://" + host + port

static char status_text[STATUS_TEXT_SIZE + 1];

// The value of key in the status text into value; "?" when the file has none.
static const char *value_of(const char *key, char *value) {
  size_t key_len = strlen(key);
  for (const char *line = status_text; *line != '\0';) {
    const char *end = strchr(line, '\n');
    size_t len = end != NULL ? (size_t)(end - line) : strlen(line);
    if (len > key_len && strncmp(line, key, key_len) == 0 && line[key_len] == '=') {
      size_t n = len - key_len - 1;
      if (n >= STATUS_VALUE_SIZE) n = STATUS_VALUE_SIZE - 1;
      memcpy(value, line + key_len + 1, n);
      value[n] = '\0';
      return value;
    }
    line += len + (end != NULL);
  }
  return strcpy(value, "?");
}

// Prints form with each {key} replaced by its value.
static void print_filled(const char *form) {
  char value[STATUS_VALUE_SIZE];
  for (const char *p = form; *p != '\0'; p++) {
    const char *close = *p == '{' ? strchr(p, '}') : NULL;
    if (close == NULL || (size_t)(close - p) >= 64) {
      putchar(*p);
      continue;
    }
    char key[64];
    memcpy(key, p + 1, (size_t)(close - p - 1));
    key[close - p - 1] = '\0';
    fputs(value_of(key, value), stdout);
    p = close;
  }
}

static long long number_of(const char *key) {
  char value[STATUS_VALUE_SIZE];
  char *end = NULL;
  errno = 0;
  long long n = strtoll(value_of(key, value), &end, 10);
  return errno == 0 && end != value && *end == '\0' ? n : -1;
}

// Pid of the process that holds the daemon's lock, 0 when none does.
static long lock_holder(void) {
  int fd = open(LOCK_PATH, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return 0;
  struct flock lk;
  memset(&lk, 0, sizeof lk);
  lk.l_type = F_WRLCK;
  lk.l_whence = SEEK_SET;
  long pid = fcntl(fd, F_GETLK, &lk) == 0 && lk.l_type != F_UNLCK ? (long)lk.l_pid : 0;
  close(fd);
  return pid;
}

static const char details[] =
    "attack records    {attack_received} received, {attack_counted} counted (class 1: "
    "{attack_class_1}, 2: {attack_class_2}, 3: {attack_class_3}, 4: {attack_class_4}, 5: "
    "{attack_class_5}; from inside the LAN: {attack_internal})\n"
    "router log        {router_lines_written} lines written, {router_lines_failed} dropped\n"
    "shipping          {shipping}\n"
    "access records    {access_received} received, {access_shipped} shipped; dropped: over rate "
    "{access_dropped_over_rate}, queue full {access_dropped_queue_full}, spool full "
    "{access_dropped_spool_full}, shipping off {access_dropped_shipping_off}, too long "
    "{access_dropped_too_long}, unsealable {access_dropped_unsealable}\n"
    "access collector  {access_collector}: {access_messages_delivered} messages delivered, "
    "{access_messages_failed} not confirmed\n"
    "report collector  {report_collector}: {report_messages_delivered} reports delivered, "
    "{report_messages_failed} not confirmed\n"
    "TLS refusals      {tls_refused} (collectors whose certificate did not verify)\n"
    "spool             {spool_messages} messages waiting ({spool_records} records, {spool_bytes} "
    "bytes)\n"
    "device            \"{device_id}\", signing key {device_key}\n"
    "                  (a collector's keyring line: ed25519 {device_key} {device_id})\n";

int cmd_status(void) {
  memset(status_text, 0, sizeof status_text);
  int fd = open(STATUS_PATH, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0)
    return failure(EXIT_REFUSED, "no status: %s: %s (mox_logd writes it at start and every period)",
                   STATUS_PATH, strerror(errno));
  ssize_t got = read(fd, status_text, STATUS_TEXT_SIZE);
  int err = errno;
  close(fd);
  if (got < 0) return failure(EXIT_REFUSED, "cannot read %s: %s", STATUS_PATH, strerror(err));

  long long now = (long long)clock_now();
  long long pid = number_of("pid"), written = number_of("written");
  long long up = number_of("uptime"), last = number_of("last_delivery");
  long holder = lock_holder();
  int running = pid > 0 && holder == pid;
  print_filled("mox_logd {version}");
  printf(running ? ": running, pid %lld" : ": NOT RUNNING (last pid %lld)", pid);
  printf(", up %lldh %02lldm %02llds when written %lld s ago\n", up / 3600, up / 60 % 60, up % 60,
         now - written);
  print_filled(details);
  char when[64] = "never";
  time_t t = (time_t)last;
  struct tm tm;
  if (last > 0 && gmtime_r(&t, &tm) != NULL &&
      strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &tm) > 0)
    printf("last delivery     %s (%lld s ago)\n", when, now - last);
  else
    printf("last delivery     never\n");
  if (fflush(stdout) != 0) return EXIT_REFUSED;
  if (running) return 0;
  if (holder > 0)
    return failure(EXIT_REFUSED, "mox_logd runs as pid %ld, but this status is from pid %lld",
                   holder, pid);
  return failure(EXIT_REFUSED, "mox_logd is not running: nothing holds %s", LOCK_PATH);
}
