// Router log output: one short line per attack header, to the device log.
#include <errno.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "platform/platform.h"

namespace {

// Title, two words, the address word, one word, the port word. Widths bound
// the words to their buffers; no line that fits changes.
const char HEADER_FORMAT[] = "[%31[^]]] %*s %*s %63s %*s %15s,";
static_assert(ROUTER_TITLE_SIZE == 32 && ROUTER_WORD_SIZE == 64 && ROUTER_PORT_SIZE == 16,
              "HEADER_FORMAT widths follow the buffer sizes");

const char BLOCK_LABEL[] = "Block Attack";

// Lines the device did not take since the last one it did.
uint32_t dropped_lines = 0;

// Counts a line the device did not take; the first of a run is logged with
// its reason, the run's length once a line goes through again.
void line_dropped(int err) {
  status_count_router_line(0);
  if (dropped_lines++ == 0)
    DLOG_ERROR("router log line dropped: %s: %s", ZVLOG_PATH, std::strerror(err));
}

void line_taken() {
  status_count_router_line(1);
  if (dropped_lines == 0) return;
  DLOG_ERROR("%u router log lines dropped: %s did not take them", dropped_lines, ZVLOG_PATH);
  dropped_lines = 0;
}

}  // namespace

void format_router_log(const char *text, int length, AttackClass attack_class) {
  (void)attack_class;  // every class gives the same line
  char copy[ROUTER_COPY_SIZE];
  char line[ROUTER_LINE_SIZE];
  char source[ROUTER_WORD_SIZE];
  char label[ROUTER_LABEL_SIZE];
  char title[ROUTER_TITLE_SIZE];
  char port[ROUTER_PORT_SIZE];
  std::memset(copy, 0, sizeof copy);
  std::memset(line, 0, sizeof line);
  std::memset(source, 0, sizeof source);
  std::memset(label, 0, sizeof label);
  std::memset(title, 0, sizeof title);
  std::memset(port, 0, sizeof port);

  // Unbounded on purpose: the word counts wherever it stands in the buffer.
  if (text && std::strstr(text, "Automatic")) {
    static_assert(sizeof BLOCK_LABEL <= ROUTER_LABEL_SIZE, "the label fits its buffer");
    std::memcpy(label, BLOCK_LABEL, sizeof BLOCK_LABEL);
    if (length < 0) length = 0;
    if (length > (int)sizeof copy - 1) length = (int)sizeof copy - 1;
    std::strncpy(copy, text, (size_t)length);
    (void)std::sscanf(copy, HEADER_FORMAT, title, source, port);
    // The widths above keep this to 12 + 63 + 15 characters and the frame,
    // far inside the line; a cut line would name a wrong address, so it
    // goes out empty rather than cut.
    int n = std::snprintf(line, sizeof line, "[%s] From source: %s port %s", label, source, port);
    if (n < 0 || (size_t)n >= sizeof line) line[0] = '\0';
  }
  // Without "Automatic" the line is empty and still goes out.
  write_router_log(line, (int)std::strlen(line));
}

int write_router_log(char *line, int length) {
  if (!line) return -1;
  if (length < 0) length = 0;
  line[length] = '\0';
  // The device may come and go: choose anew and hold nothing open.
  if (file_exists(ZVLOG_PATH)) {
    // Never waits: a device (or a FIFO in its place) that does not take the
    // line now loses it, counted, and the loop goes on counting attacks.
    int fd = open(ZVLOG_PATH, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
      line_dropped(errno);
      return -1;
    }
    // The device takes the text with its terminating NUL.
    ssize_t written = write(fd, line, (size_t)length + 1);
    int err = errno;
    close(fd);
    if (written == (ssize_t)length + 1)
      line_taken();
    else
      line_dropped(written < 0 ? err : EAGAIN);
    return 0;
  }
  openlog(ROUTER_LOG_IDENT, LOG_PID | LOG_CONS, 0);
  syslog(LOG_INFO, "%s", line);
  closelog();
  status_count_router_line(1);
  return 0;
}
