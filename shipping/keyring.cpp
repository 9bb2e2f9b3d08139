// The collector's keyring: which key signs for which device, and which
// sequence numbers earlier runs already decoded. A device's key is pinned
// the first time a signed message of it is read (or enrolled ahead by the
// operator); from then on a message signed by another key is a forgery or
// a device that was reset, and is refused either way. A sequence number an
// earlier run decoded is a replay: a copy sent again within one capture is
// not, and the reader drops those quietly.
//
// The file is text, rewritten whole at the end of a run:
//   ed25519 <public key, 64 hex digits> "<device id, JSON-escaped>"
//   seen <A|L> <epoch, 16 hex digits> <ranges such as 1-120,125> "<device id>"
// Lines starting with '#' and blank lines are kept out of the way.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <tuple>

#include "platform/platform.h"
#include "shipping/shipping.h"

#define KEYRING_FILE_MAX (16u << 20)

namespace {

typedef std::tuple<std::string, uint64_t, char> StreamId;  // device, epoch, kind
typedef std::map<uint64_t, uint64_t> Ranges;               // first -> last, disjoint

std::string ring_path;
std::map<std::string, std::string> pins;  // device -> hex key
std::map<StreamId, Ranges> seen;          // earlier runs' and this run's
std::map<StreamId, Ranges> before;        // earlier runs' only

int contains(const Ranges &r, uint64_t n) {
  auto it = r.upper_bound(n);
  return it != r.begin() && (--it)->second >= n;
}

void add(Ranges &r, uint64_t first, uint64_t last) {
  auto it = r.upper_bound(first);
  if (it != r.begin() && std::prev(it)->second + 1 >= first) {
    --it;
    first = it->first;
    if (it->second > last) last = it->second;
  }
  while (it != r.end() && it->first <= last + 1 && it->first >= first) {
    if (it->second > last) last = it->second;
    it = r.erase(it);
  }
  r[first] = last;
}

// "SN1" with JSON escapes, quotes included, at *p; the text into out.
int read_quoted(const char **p, std::string *out) {
  const char *s = *p;
  if (*s++ != '"') return -1;
  out->clear();
  for (; *s != '"'; s++) {
    if (*s == '\0' || *s == '\n') return -1;
    if (*s != '\\') {
      out->push_back(*s);
      continue;
    }
    s++;
    unsigned code = 0;
    int used = 0;
    if (*s == '"' || *s == '\\') {
      out->push_back(*s);
    } else if (*s == 'u' && sscanf(s + 1, "%4x%n", &code, &used) == 1 && used == 4 && code < 0x100) {
      out->push_back((char)code);
      s += 4;
    } else {
      return -1;
    }
  }
  *p = s + 1;
  return 0;
}

std::string quoted(const std::string &text) {
  std::string out(6 * text.size() + 3, '\0');
  int n = json_escape(text.c_str(), &out[1], out.size() - 2);
  if (n < 0) return "\"\"";
  out[0] = '"';
  out[(size_t)n + 1] = '"';
  out.resize((size_t)n + 2);
  return out;
}

int parse_ranges(const char *text, size_t len, Ranges *r) {
  std::string copy(text, len);
  for (const char *p = copy.c_str(); *p != '\0';) {
    char *end = NULL;
    errno = 0;
    uint64_t first = strtoull(p, &end, 10), last = first;
    if (end == p || errno != 0) return -1;
    if (*end == '-') {
      p = end + 1;
      last = strtoull(p, &end, 10);
      if (end == p || errno != 0 || last < first) return -1;
    }
    add(*r, first, last);
    if (*end != ',' && *end != '\0') return -1;
    p = *end == ',' ? end + 1 : end;
  }
  return 0;
}

int parse_line(const char *line) {
  char hex[SHIP_KEY_HEX_SIZE], kind = 0;
  int used = 0;
  std::string device;
  if (sscanf(line, "ed25519 %64[0-9a-f] %n", hex, &used) == 1 && used > 0 &&
      strlen(hex) == SHIP_KEY_HEX_SIZE - 1) {
    const char *p = line + used;
    if (read_quoted(&p, &device) != 0 || *p != '\0') return -1;
    pins[device] = hex;
    return 0;
  }
  uint64_t epoch = 0;
  int ranges_at = 0, ranges_end = 0;
  if (sscanf(line, "seen %c %16" SCNx64 " %n%*[0-9,-]%n ", &kind, &epoch, &ranges_at,
             &ranges_end) == 2 && ranges_end > ranges_at &&
      (kind == SHIP_KIND_ATTACK || kind == SHIP_KIND_ACCESS)) {
    const char *p = line + ranges_end;
    while (*p == ' ') p++;
    Ranges r;
    if (parse_ranges(line + ranges_at, (size_t)(ranges_end - ranges_at), &r) != 0 ||
        read_quoted(&p, &device) != 0 || *p != '\0')
      return -1;
    for (const auto &range : r) add(before[StreamId(device, epoch, kind)], range.first, range.second);
    return 0;
  }
  return -1;
}

}  // namespace

int keyring_load(const char *path, char *why, size_t why_size) {
  ring_path = path;
  FILE *f = fopen(path, "r");
  if (f == NULL && errno == ENOENT) return 0;  // a first run starts one
  if (f == NULL) {
    snprintf(why, why_size, "%s: %s", path, strerror(errno));
    return -1;
  }
  char *line = NULL;
  size_t cap = 0;
  ssize_t n;
  long number = 0;
  int rc = 0;
  while (rc == 0 && (n = getline(&line, &cap, f)) >= 0) {
    number++;
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
    if (n == 0 || line[0] == '#') continue;
    if (parse_line(line) != 0) {
      snprintf(why, why_size, "%s: line %ld: not a keyring line", path, number);
      rc = -1;
    }
  }
  free(line);
  fclose(f);
  seen = before;
  return rc;
}

int keyring_check(char kind, const SealMeta *meta, char *pinned_hex) {
  if (!meta->signed_by_key) return KEYRING_UNSIGNED;
  char hex[SHIP_KEY_HEX_SIZE];
  key_hex(meta->signer, hex);
  auto pin = pins.find(meta->device);
  if (pin != pins.end() && pin->second != hex) {
    if (pinned_hex != NULL) memcpy(pinned_hex, pin->second.c_str(), SHIP_KEY_HEX_SIZE);
    return KEYRING_KEY_CHANGED;
  }
  StreamId id(meta->device, meta->epoch, kind);
  if (contains(before[id], meta->seq)) return KEYRING_REPLAY;
  add(seen[id], meta->seq, meta->seq);
  if (pin != pins.end()) return KEYRING_ACCEPT;
  pins[meta->device] = hex;
  return KEYRING_PINNED;
}

int keyring_save(char *why, size_t why_size) {
  std::string text =
      "# mox_logdecode keyring: \"ed25519 KEY DEVICE\" pins a device's signing key;\n"
      "# \"seen KIND EPOCH RANGES DEVICE\" lists the sequence numbers already decoded.\n";
  for (const auto &pin : pins) text += "ed25519 " + pin.second + " " + quoted(pin.first) + "\n";
  for (const auto &stream : seen) {
    if (stream.second.empty()) continue;
    char head[64];
    snprintf(head, sizeof head, "seen %c %016" PRIx64 " ", std::get<2>(stream.first),
             std::get<1>(stream.first));
    std::string ranges;
    for (const auto &r : stream.second)
      ranges += (ranges.empty() ? "" : ",") + std::to_string(r.first) +
                (r.second > r.first ? "-" + std::to_string(r.second) : "");
    text += head + ranges + " " + quoted(std::get<0>(stream.first)) + "\n";
  }
  if (text.size() > KEYRING_FILE_MAX || replace_file(ring_path.c_str(), text.data(), text.size(), 0600) != 0) {
    snprintf(why, why_size, "%s: not written: %s", ring_path.c_str(), strerror(errno));
    return -1;
  }
  return 0;
}
