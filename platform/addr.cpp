// Judging address texts: inside the appliance's network, local to this
// machine, and their canonical forms.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

#define PORT_DIGITS_MAX 5  // "65535"

static int is_internal_ipv4(const char *addr) {
  char local[IFACE_SCRATCH_SIZE] = {0};
  const char *local_text = get_iface_ipv4(LAN_IFACE, local) == 0 ? local : LAN_FALLBACK_ADDR;
  // Without br0's netmask there is no network to be inside of, so nothing
  // is internal; the same for a text that is no IPv4 address.
  char mask[IFACE_SCRATCH_SIZE] = {0};
  if (get_iface_netmask(LAN_IFACE, mask) != 0) return 0;
  struct in_addr local_bin = {};
  struct in_addr mask_bin = {};
  struct in_addr addr_bin = {};
  if (inet_pton(AF_INET, addr, &addr_bin) != 1) return 0;
  inet_pton(AF_INET, local_text, &local_bin);
  inet_pton(AF_INET, mask, &mask_bin);
  // Raw words in network order: XOR and AND work bytewise, so no swap.
  return ((addr_bin.s_addr ^ local_bin.s_addr) & mask_bin.s_addr) == 0;
}

// Only whole bytes of br0's prefix are compared, and a prefix below 8 (or
// no table at all) makes every address internal. A text that does not
// parse is compared as the zero address.
static int is_internal_ipv6(const char *addr) {
  char local[IPV6_TEXT_SIZE] = {0};
  int prefix_len = 0;
  get_iface_ipv6(LAN_IFACE, local, &prefix_len);
  struct in6_addr local_bin = {};
  struct in6_addr addr_bin = {};
  if (inet_pton(AF_INET6, local, &local_bin) != 1) memset(&local_bin, 0, sizeof local_bin);
  if (inet_pton(AF_INET6, addr, &addr_bin) != 1) memset(&addr_bin, 0, sizeof addr_bin);
  int bytes = prefix_len / 8;
  if (bytes <= 0) return 1;
  if (bytes > static_cast<int>(sizeof addr_bin)) bytes = sizeof addr_bin;
  return memcmp(&addr_bin, &local_bin, static_cast<size_t>(bytes)) == 0;
}

int is_internal_addr(const char *addr) {
  if (addr == nullptr) return 0;
  // One colon makes it IPv6, so "a.b.c.d:port" is judged as IPv6 too.
  if (strchr(addr, ':') != nullptr) return is_internal_ipv6(addr);
  return is_internal_ipv4(addr);
}

int normalize_ip(char *text) {
  if (text == nullptr) return 1;
  int family = AF_INET;
  const char *start = text;
  if (text[0] == '[') {
    char *close = strrchr(text, ']');
    if (close == nullptr) {
      puts("IP format error.");
      return 1;
    }
    *close = '\0';  // stays cut when the address then fails to parse
    family = AF_INET6;
    start = text + 1;
  }
  unsigned char bin[16] = {0};
  int rc = inet_pton(family, start, bin);
  if (rc == 0) {
    puts("IP format error.");
    return 1;
  }
  if (rc < 0) {
    perror("inet_pton: ");
    return 1;
  }
  char canonical[IPV6_TEXT_SIZE] = {0};
  if (inet_ntop(family, bin, canonical, sizeof canonical) == nullptr) {
    perror("inet_ntop: ");
    return 1;
  }
  if (family == AF_INET6) {
    int len = snprintf(text, IPV6_BRACKET_TEXT_SIZE, "[%s]", canonical);
    return (len < 0 || len >= IPV6_BRACKET_TEXT_SIZE) ? 1 : 0;
  }
  // A parsed dotted quad is never shorter in canonical form than as given.
  strcpy(text, canonical);
  return 0;
}

int normalize_port(char *text) {
  if (text == nullptr) return -1;
  size_t len = strlen(text);
  for (size_t i = 0; i < len; i++)
    if (text[i] < '0' || text[i] > '9') return -1;
  const char *digits = text;
  while (*digits == '0') digits++;
  // atoi is only safe below int overflow; six digits are out of range anyway.
  if (strlen(digits) > PORT_DIGITS_MAX) return -1;
  int port = atoi(digits);
  if (port == 0 || port > 65535) return -1;
  memset(text, 0, len);
  int written = snprintf(text, len + 1, "%d", port);
  return (written < 0 || static_cast<size_t>(written) > len) ? -1 : 0;
}

int is_local_ipv6_bracketed(const char *addr) {
  if (addr == nullptr) return 0;
  if (strcmp(addr, "[::]") == 0) return 1;
  // Link-local addresses are never local here; the test is case-sensitive.
  if (strncmp(addr, "[fe80", 5) == 0) return 0;
  // The brackets themselves are not checked, only stripped.
  char inner[IPV6_WORK_TEXT_SIZE] = {0};
  size_t len = strlen(addr);
  if (len < 2) return 0;
  size_t copy = len - 2;
  if (copy >= sizeof inner) copy = sizeof inner - 1;
  memcpy(inner, addr + 1, copy);
  return is_local_ipv6(inner) == 1 && strlen(inner) >= 2;
}

int is_local_address(const char *addr) {
  if (addr == nullptr) return 0;
  if (addr[0] == '[') return is_local_ipv6_bracketed(addr);
  if (strcmp(addr, "0.0.0.0") == 0) return 1;
  return is_local_ipv4(addr);
}
