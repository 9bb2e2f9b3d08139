// Readers of the kernel's IPv6 address table. The table is read through a
// descriptor into stack buffers rather than a FILE stream, because the
// attack classifier reads it for every IPv6 source and must not take heap
// memory there.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace {

// Read-ahead of one open table: bytes held that no line has taken yet.
struct TableReader {
  int fd;
  size_t held;
  char chunk[IPV6_TABLE_CHUNK_SIZE];
};

// fgets over the reader: up to line_size - 1 bytes, ending after the first
// newline; a longer line comes out in pieces. Returns line, or null at the
// end of the table or on a read error.
char *table_gets(TableReader *reader, char *line, size_t line_size) {
  size_t limit = line_size - 1;
  for (;;) {
    const char *newline = static_cast<const char *>(memchr(reader->chunk, '\n', reader->held));
    size_t take = 0;
    if (newline != nullptr)
      take = static_cast<size_t>(newline - reader->chunk) + 1;
    else if (reader->held >= limit || reader->held == sizeof reader->chunk)
      take = reader->held;
    if (take == 0) {
      ssize_t got = read(reader->fd, reader->chunk + reader->held, sizeof reader->chunk - reader->held);
      if (got < 0 && errno == EINTR) continue;
      if (got > 0) {
        reader->held += static_cast<size_t>(got);
        continue;
      }
      if (reader->held == 0) return nullptr;
      take = reader->held;  // last line without a newline
    }
    if (take > limit) take = limit;
    memcpy(line, reader->chunk, take);
    line[take] = '\0';
    reader->held -= take;
    memmove(reader->chunk, reader->chunk + take, reader->held);
    return line;
  }
}

}  // namespace

#define IF_INET6_ROW_FORMAT                                                                       \
  "%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx %*x %x %x " \
  "%*x %15s"
#define IF_INET6_ROW_FIELDS 19

int get_iface_ipv6(const char *name, char *out, int *prefix_len) {
  if (name == nullptr || out == nullptr || prefix_len == nullptr) return 0;
  TableReader reader;
  reader.fd = open(IF_INET6_PATH, O_RDONLY | O_CLOEXEC);
  if (reader.fd < 0) return 0;
  reader.held = 0;

  // Only complete rows are taken, so a table without one gives "::" and 0.
  unsigned char addr[16] = {0};
  *prefix_len = 0;
  char line[IPV6_TABLE_LINE_SIZE];
  while (table_gets(&reader, line, sizeof line) != nullptr) {
    unsigned char row[16];
    unsigned int row_prefix = 0;
    unsigned int scope = 0;
    char device[IFNAMSIZ] = {0};
    if (sscanf(line, IF_INET6_ROW_FORMAT, &row[0], &row[1], &row[2], &row[3], &row[4], &row[5], &row[6],
               &row[7], &row[8], &row[9], &row[10], &row[11], &row[12], &row[13], &row[14], &row[15],
               &row_prefix, &scope, device) != IF_INET6_ROW_FIELDS)
      break;
    // Each row overwrites the last: with no global row for the name, the
    // table's last row stands, whatever device it belongs to.
    memcpy(addr, row, sizeof addr);
    *prefix_len = static_cast<int>(row_prefix);
    if (scope == 0 && strcmp(device, name) == 0) break;
  }
  close(reader.fd);
  inet_ntop(AF_INET6, addr, out, IPV6_TEXT_SIZE);
  return 1;
}

int is_local_ipv6(const char *addr) {
  if (addr == nullptr) return 0;
  TableReader reader;
  reader.fd = open(IF_INET6_PATH, O_RDONLY | O_CLOEXEC);
  if (reader.fd < 0) {
    perror("fopen error");
    return -1;
  }
  reader.held = 0;

  int found = 0;
  char line[IPV6_TABLE_LINE_SIZE];
  while (!found && table_gets(&reader, line, sizeof line) != nullptr) {
    char *save = nullptr;
    const char *digits = strtok_r(line, " \t\n", &save);
    if (digits == nullptr) continue;
    // 32 hex digits become eight groups of four joined by ":".
    char text[IPV6_WORK_TEXT_SIZE] = {0};
    size_t used = 0;
    for (size_t i = 0; digits[i] != '\0' && used + 2 < sizeof text; i++) {
      text[used++] = digits[i];
      if ((i + 1) % 4 == 0 && digits[i + 1] != '\0') text[used++] = ':';
    }
    struct in6_addr bin;
    char canonical[IPV6_TEXT_SIZE] = {0};
    if (inet_pton(AF_INET6, text, &bin) != 1) continue;
    if (inet_ntop(AF_INET6, &bin, canonical, sizeof canonical) == nullptr) continue;
    found = strcmp(canonical, addr) == 0;
  }
  close(reader.fd);
  return found;
}
