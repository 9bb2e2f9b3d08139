// Processes by name and by pid file, signals, the task name and descriptor
// clean-up before a program is started from this one.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

#define FIRST_NON_STD_FD 3
#define UNLIMITED_FD_LIMIT 1024  // used when the hard limit is infinite

int send_signal(int pid, int sig) { return kill(pid, sig); }

// The first argument of a process, from its cmdline file; 0 when there is
// none (kernel threads, vanished processes).
static int read_first_argument(const char *pid_name, char *text, size_t size) {
  char path[PROC_PATH_SIZE] = {0};
  int len = snprintf(path, sizeof path, "/proc/%s/cmdline", pid_name);
  if (len < 0 || static_cast<size_t>(len) >= sizeof path) return 0;
  FILE *file = fopen(path, "r");
  if (file == nullptr) return 0;
  char *got = fgets(text, static_cast<int>(size), file);
  fclose(file);
  if (got == nullptr) return 0;
  // The arguments are NUL-separated, so the text ends with the first one.
  text[strcspn(text, "\r\n")] = '\0';
  return 1;
}

int find_process_by_name(const char *name, process_callback cb, int arg) {
  if (name == nullptr) return 0;
  DIR *proc = opendir("/proc");
  if (proc == nullptr) {
    perror("Cannot open /proc");
    return 0;
  }
  size_t name_len = strlen(name);
  int found = 0;
  struct dirent *entry;
  while ((entry = readdir(proc)) != nullptr) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    char text[CMDLINE_READ_SIZE] = {0};
    if (!read_first_argument(entry->d_name, text, sizeof text)) continue;
    // Compared over the name's length only: "logd" also finds "logd_helper".
    if (strncmp(text, name, name_len) != 0) continue;
    found = text_to_int(entry->d_name);
    if (cb == nullptr) break;
    cb(found, arg);
  }
  closedir(proc);
  return found;
}

int kill_process_by_name(const char *name, int sig) { return find_process_by_name(name, send_signal, sig); }

int get_process_name(int pid, char *out) {
  if (out == nullptr) return -1;
  char path[PROC_PATH_SIZE] = {0};
  int len = snprintf(path, sizeof path, "/proc/%d/status", pid);
  if (len < 0 || static_cast<size_t>(len) >= sizeof path) return -1;
  if (!file_exists(path)) return -1;
  FILE *file = fopen(path, "r");
  if (file == nullptr) return -1;
  char line[STATUS_LINE_SIZE] = {0};
  char *got = fgets(line, sizeof line, file);
  fclose(file);
  if (got == nullptr) return -1;
  // "Name:\t<task name>": the second word; out is untouched without one.
  static_assert(STATUS_LINE_SIZE - 1 < PROCESS_NAME_SIZE, "the width below must fit out");
  sscanf(line, "%*s %254s", out);
  return 0;
}

int read_pid_file(const char *path) {
  if (path == nullptr) return -1;
  int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  char text[PID_FILE_TEXT_SIZE] = {0};
  ssize_t got = read(fd, text, sizeof text - 1);
  close(fd);
  if (got <= 0) return -1;
  return text_to_int(text);
}

int get_pid_file_process_name(const char *path, char *out) {
  if (path == nullptr || out == nullptr) return -1;
  int pid = read_pid_file(path);
  if (pid == -1) return -1;
  return get_process_name(pid, out);
}

int kill_pid_file(const char *path, int sig) {
  if (path == nullptr) return -1;
  int pid = read_pid_file(path);
  if (pid == -1) return -1;
  // A file without digits names pid 0, the caller's own process group.
  return kill(pid, sig);
}

int set_process_name(const char *name) {
  prctl(PR_SET_NAME, name, 0, 0, 0);
  return 0;
}

void close_fds_from(unsigned int first) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    perror("getrlimit(RLIMIT_NOFILE, &rl)");
    return;
  }
  rlim_t end = limit.rlim_max == RLIM_INFINITY ? UNLIMITED_FD_LIMIT : limit.rlim_max;
  // The argument can only lower the start: nothing above 2 survives.
  rlim_t fd = first < FIRST_NON_STD_FD ? first : FIRST_NON_STD_FD;
  for (; fd < end; fd++) close(static_cast<int>(fd));
}
