// Small services of the host: the interval timer, random bytes, the uptime
// and a masked read from the terminal.
#include <sys/time.h>
#include <termios.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

#define UPTIME_PATH "/proc/uptime"

int start_interval_timer(long sec, long usec) {
  struct itimerval timer;
  memset(&timer, 0, sizeof timer);
  timer.it_interval.tv_sec = sec;
  timer.it_interval.tv_usec = usec;
  timer.it_value = timer.it_interval;
  return setitimer(ITIMER_REAL, &timer, nullptr);
}

int fill_random_bytes(unsigned char *buf, int count) {
  for (int i = 0; i < count; i++) buf[i] = static_cast<unsigned char>(random() & 0xff);
  return count;
}

long get_uptime_seconds(void) {
  char text[UPTIME_TEXT_SIZE] = {0};
  if (read_file(UPTIME_PATH, text, sizeof text - 1) <= 0) return -1;
  char *blank = strchr(text, ' ');
  if (blank != nullptr) *blank = '\0';
  return text_to_int(text);
}

int read_masked_input(char *buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  struct termios saved;
  int is_terminal = tcgetattr(0, &saved) == 0;
  if (is_terminal) {
    struct termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(0, TCSANOW, &quiet);
    tcflush(0, TCIFLUSH);
  }
  int count = 0;
  while (count < size) {
    int c = getchar();
    if (c == '\r' || c == '\n') break;
    putchar('*');
    // EOF is not told apart: it is stored as 0xff like any other byte.
    buf[count++] = static_cast<char>(c);
  }
  if (is_terminal) tcsetattr(0, TCSANOW, &saved);
  return count;
}
