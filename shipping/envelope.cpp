// The device envelope of an attack report: who sends it (host name,
// serial, LAN MAC, firmware tag), opened in front of a day slot's fragment.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"

#ifndef MOX_FIRMWARE_VERSION
#error "MOX_FIRMWARE_VERSION comes from the build (CMakeLists.txt)"
#endif

#define ENVELOPE_FORMAT                                                              \
  "{\"device_name\":\"%s\",\"device_id\":\"%s\",\"device_mac_address\":\"%s\","     \
  "\"device_firmware_version\":\"%s\",%s"

// Escaped texts grow to six bytes per byte at worst ("\u001f").
#define ESCAPED_SIZE(n) (((n) - 1) * 6 + 1)

// The device lines belong to the report stage whichever helper notices,
// so a reader of the log finds them where the report failed.
#define STAGE_ERROR(...)                                                            \
  do {                                                                              \
    if (LogSink.level < 5) log_write("ERROR", "send_encrypted_attack_log", __LINE__, __VA_ARGS__); \
  } while (0)

int get_device_name(char *out, size_t size) {
  if (out == NULL || size == 0) return -1;
  memset(out, 0, size);
  if (gethostname(out, size - 1) != 0) {
    out[0] = '\0';
    return -1;
  }
  return 0;
}

// exec_cmd with a deadline. popen's read and pclose would wait for a
// routerinfo that hangs for as long as it hangs, and the sender's worker
// with it. The command runs in a process group
// of its own, so that on the deadline the whole pipeline is killed, not
// just the shell. As with exec_cmd: one read of up to size bytes (the
// output beyond them is not read), a trailing newline made NUL, no other
// terminator. 0 if the command exited 0 in time, -1 otherwise; *timed_out
// is 1 when it was killed.
static int run_bounded(const char *cmd, char *out, size_t size, int timeout_ms, int *timed_out) {
  *timed_out = 0;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  char *const argv[] = {(char *)"sh", (char *)"-c", (char *)cmd, NULL};
  pid_t pid = -1;
  int spawned = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(fds[1]);
  if (spawned != 0) {
    close(fds[0]);
    return -1;
  }

  int64_t deadline = monotonic_ms() + timeout_ms;
  size_t got = 0;
  while (got < size) {
    int64_t left = deadline - monotonic_ms();
    if (left <= 0) {
      *timed_out = 1;
      break;
    }
    struct pollfd p;
    memset(&p, 0, sizeof p);
    p.fd = fds[0];
    p.events = POLLIN;
    int ready = poll(&p, 1, (int)left);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      *timed_out = 1;
      break;
    }
    if (ready < 0) break;
    ssize_t n = read(fds[0], out + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of the output
    got += (size_t)n;
  }
  close(fds[0]);
  if (got > 0 && out[got - 1] == '\n') out[got - 1] = '\0';

  // The exit is bounded by the same deadline.
  int status = -1;
  for (;;) {
    if (*timed_out) {
      kill(-pid, SIGKILL);
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      break;
    }
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) {
      status = -1;  // reaped elsewhere: the status is unknown
      break;
    }
    if (monotonic_ms() >= deadline)
      *timed_out = 1;
    else
      poll(NULL, 0, 10);
  }
  return !*timed_out && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

// Cuts text at its first line end and drops trailing blanks. 1 if anything
// is left.
static int keep_first_line(char *text) {
  text[strcspn(text, "\r\n")] = '\0';
  size_t n = strlen(text);
  while (n > 0 && is_space_char((unsigned char)text[n - 1])) text[--n] = '\0';
  return n > 0;
}

int get_device_id(char *out, size_t size) {
  if (out == NULL || size == 0) return -1;
  // The pipeline's status is awk's, so a missing routerinfo still "works"
  // and prints nothing: the output decides, not the status.
  memset(out, 0, size);
  int timed_out = 0;
  if (run_bounded(SHIP_SERIAL_CMD, out, size - 1, SHIP_SERIAL_TIMEOUT_MS, &timed_out) == 0 &&
      keep_first_line(out))
    return 0;
  if (timed_out)
    STAGE_ERROR("device serial command killed after %d ms.", SHIP_SERIAL_TIMEOUT_MS);

  memset(out, 0, size);
  ssize_t n = read_file(SHIP_MACHINE_ID_PATH, out, size - 1);
  if (n > 0 && keep_first_line(out)) return 0;
  memset(out, 0, size);
  return timed_out ? -2 : -1;
}

const char *get_firmware_version(void) { return MOX_FIRMWARE_VERSION; }

#define DEVICE_ID_RETRY_MS (600 * 1000)  // a device without an identifier asks again

int cached_device_id(char *out, size_t size) {
  // The identifier never changes: ask once per process, and while nothing
  // was found, again every ten minutes, not at every message (the command
  // costs a shell). A command that had to be killed would cost its whole
  // wait each time, so it is not asked again. Both sender threads ask.
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  static char known_id[SHIP_DEVICE_ID_SIZE];
  static int serial_cmd_hangs;
  static int64_t next_ask_ms;
  if (out == NULL || size == 0) return -1;
  pthread_mutex_lock(&lock);
  int64_t now = monotonic_ms();
  if (known_id[0] == '\0' && !serial_cmd_hangs && now >= next_ask_ms) {
    next_ask_ms = now + DEVICE_ID_RETRY_MS;
    if (get_device_id(known_id, sizeof known_id) == -2) serial_cmd_hangs = 1;
  }
  int n = snprintf(out, size, "%s", known_id);
  pthread_mutex_unlock(&lock);
  return n > 0 && (size_t)n < size ? 0 : -1;
}

int json_escape(const char *text, char *out, size_t size) {
  if (text == NULL || out == NULL || size == 0) return -1;
  size_t at = 0;
  for (const unsigned char *p = (const unsigned char *)text; *p; p++) {
    char piece[8];
    memset(piece, 0, sizeof piece);
    if (*p == '"' || *p == '\\') {
      piece[0] = '\\';
      piece[1] = (char)*p;
    } else if (*p < 0x20 || *p == 0x7f) {
      int n = snprintf(piece, sizeof piece, "\\u%04x", *p);
      if (n < 0 || (size_t)n >= sizeof piece) {
        out[0] = '\0';
        return -1;
      }
    } else {
      piece[0] = (char)*p;
    }
    size_t n = strlen(piece);
    if (at + n >= size) {
      out[0] = '\0';
      return -1;
    }
    memcpy(out + at, piece, n);
    at += n;
  }
  out[at] = '\0';
  return (int)at;
}

int build_attack_envelope(const char *fragment, char *out, size_t size) {
  if (out == NULL || size == 0) return -1;
  memset(out, 0, size);
  if (fragment == NULL || strlen(fragment) >= SHIP_FRAGMENT_SIZE) return -1;

  char name[SHIP_DEVICE_NAME_SIZE];
  char id[SHIP_DEVICE_ID_SIZE];
  char mac[MAC_TEXT_SIZE];
  memset(mac, 0, sizeof mac);
  if (get_device_name(name, sizeof name) != 0) STAGE_ERROR("gethostname failed.");
  cached_device_id(id, sizeof id);
  if (get_iface_mac(SHIP_MAC_IFACE, mac) != 0) {
    STAGE_ERROR("failed to get device mac address.");
    memset(mac, 0, sizeof mac);
  }

  char name_json[ESCAPED_SIZE(SHIP_DEVICE_NAME_SIZE)];
  char id_json[ESCAPED_SIZE(SHIP_DEVICE_ID_SIZE)];
  char mac_json[ESCAPED_SIZE(MAC_TEXT_SIZE)];
  char version_json[ESCAPED_SIZE(sizeof MOX_FIRMWARE_VERSION)];
  if (json_escape(name, name_json, sizeof name_json) < 0 ||
      json_escape(id, id_json, sizeof id_json) < 0 ||
      json_escape(mac, mac_json, sizeof mac_json) < 0 ||
      json_escape(get_firmware_version(), version_json, sizeof version_json) < 0)
    return -1;  // cannot happen with these sizes

  int n = snprintf(out, size, ENVELOPE_FORMAT, name_json, id_json, mac_json, version_json,
                   fragment);
  if (n < 0 || (size_t)n >= size) {
    out[0] = '\0';
    return -1;
  }
  return n;
}
