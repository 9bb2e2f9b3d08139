// mox_logdecode: the collector's reader of what mox_logd ships.
//
//   mox_logdecode [--stats] [--keyring FILE] -k PRIVATE_KEY.pem [-k ANOTHER.pem] [FILE...]
//
// Each input (standard input when no FILE, or "-") is either a file of
// syslog lines as a receiver stored them, one message per line, or the raw
// TCP stream of octet-counted frames; an input that opens with digits, a
// blank and "<" is taken for the stream. Output is one JSON object per
// line whatever a message holds: an attack report as the device wrote it
// (refused unless it is one flat object of strings and numbers), each
// access record as {"device":"...","record":"..."} with every control
// byte escaped, in the order received. A message seen before in this run
// (the same device, epoch, kind and sequence number: a resend after an
// unconfirmed delivery) is dropped quietly. With --keyring, every message
// must carry a valid signature by its device's pinned key (pinned on first
// sight, or enrolled ahead in the file), and one an earlier run decoded is
// reported as a replay. With --stats, standard error gets one line per
// device, epoch and kind at the end: messages decoded, duplicates dropped,
// replays refused, sequence numbers missing. What cannot be opened or is
// refused is reported on standard error and skipped. Exit status: 0
// everything decoded, 1 something skipped or refused (or the keyring not
// written), 2 bad usage, or a key or keyring that cannot be loaded.
#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include "shipping/shipping.h"

#define PROGRAM "mox_logdecode"
#define MAX_KEYS 16
#define READ_CHUNK 65536
#define COUNT_DIGITS_MAX 10   // octet counts above 9999999999 are refused anyway
#define FRAME_MAX (SHIP_FRAME_HEAD_SIZE + SHIP_BASE64_SIZE(SHIP_SEALED_MAX((size_t)SHIP_PLAIN_MAX)))

static const char *keys[MAX_KEYS];
static int key_count;
static int skipped;
static int with_keyring;

// What one sender's epoch sent of one kind. Sequence numbers start at 1,
// so those below the highest seen and never seen are missing.
struct Stream {
  std::set<uint64_t> seen;
  unsigned long decoded = 0;
  unsigned long duplicates = 0;
  unsigned long replays = 0;
};
static std::map<std::string, Stream> streams;  // by device, epoch and kind

static Stream &stream_of(char kind, const SealMeta &meta) {
  return streams[std::string(meta.device) + '\0' + std::to_string(meta.epoch) + '\0' + kind];
}

// 1 when meta names a message already decoded; records it otherwise.
// First-layout messages carry no identity and are never taken for copies.
static int seen_before(char kind, const SealMeta &meta) {
  if (meta.epoch == 0) return 0;
  Stream &s = stream_of(kind, meta);
  if (!s.seen.insert(meta.seq).second) {
    s.duplicates++;
    return 1;
  }
  s.decoded++;
  return 0;
}

// A device text as it may stand on a terminal: control bytes and blanks
// become '?'.
static std::string printable(const char *text) {
  std::string out(text);
  for (char &c : out)
    if ((unsigned char)c <= ' ' || (unsigned char)c == 0x7f) c = '?';
  return out.empty() ? "-" : out;
}

static void print_stats(void) {
  for (const auto &entry : streams) {
    const std::string &key = entry.first;
    size_t a = key.find('\0'), b = key.find('\0', a + 1);
    const Stream &s = entry.second;
    uint64_t highest = s.seen.empty() ? 0 : *s.seen.rbegin();
    unsigned long long missing = highest - (uint64_t)s.seen.size();
    fprintf(stderr,
            PROGRAM ": stats: device=%s epoch=%016" PRIx64 " kind=%c decoded=%lu "
            "duplicates=%lu replays=%lu missing=%llu\n",
            printable(key.substr(0, a).c_str()).c_str(),
            (uint64_t)std::stoull(key.substr(a + 1, b - a - 1)), key[b + 1], s.decoded,
            s.duplicates, s.replays, missing);
  }
}

// A growing read-ahead buffer over one input, so the stream test can look
// at the first bytes without taking them from the line reader.
struct Reader {
  int fd;
  char *buf;
  size_t cap, start, end;
  int eof;
  int error;
};

// Makes at least want bytes available unless the input ends first.
// 0, or -1 when out of memory.
static int fill(Reader *r, size_t want) {
  while (r->end - r->start < want && !r->eof) {
    if (r->start > 0) {
      memmove(r->buf, r->buf + r->start, r->end - r->start);
      r->end -= r->start;
      r->start = 0;
    }
    if (r->cap - r->end < READ_CHUNK) {
      size_t cap = r->cap * 2 > r->end + READ_CHUNK ? r->cap * 2 : r->end + READ_CHUNK;
      char *grown = (char *)realloc(r->buf, cap);
      if (grown == NULL) return -1;
      r->buf = grown;
      r->cap = cap;
    }
    // read, not fread: a live pipe from a receiver gives what it has, and
    // each message is decoded as soon as it is whole.
    ssize_t got = read(r->fd, r->buf + r->end, r->cap - r->end);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) r->error = 1;
    if (got <= 0) {
      r->eof = 1;
      break;
    }
    r->end += (size_t)got;
  }
  return 0;
}

static size_t available(const Reader *r) { return r->end - r->start; }

static void report(const char *name, const char *what, long index, const char *why) {
  fprintf(stderr, PROGRAM ": %s: %s %ld: %s\n", name, what, index, why);
  skipped = 1;
}

// text, NUL bytes included, as the inside of a JSON string.
static std::string escaped(const std::string &text) {
  std::string out;
  for (size_t at = 0;;) {
    size_t nul = text.find('\0', at);
    std::string piece = text.substr(at, nul == std::string::npos ? std::string::npos : nul - at);
    std::string buf(6 * piece.size() + 1, '\0');
    int n = json_escape(piece.c_str(), &buf[0], buf.size());
    out.append(buf, 0, n > 0 ? (size_t)n : 0);
    if (nul == std::string::npos) return out;
    out += "\\u0000";
    at = nul + 1;
  }
}

// 1 when the len bytes are one JSON object of string and integer members,
// as a device writes its report, with no raw control byte anywhere: then
// it is one line of JSON as it stands.
static int flat_object(const char *p, size_t len) {
  const char *end = p + len;
  auto string_at = [&](const char *q) -> const char * {
    if (q >= end || *q++ != '"') return NULL;
    for (; q < end && *q != '"'; q++) {
      if ((unsigned char)*q < 0x20 || *q == 0x7f) return NULL;
      if (*q != '\\') continue;
      if (++q == end || *q == '\0' || !strchr("\"\\/bfnrtu", *q)) return NULL;
      for (int i = 0, digits = *q == 'u' ? 4 : 0; i < digits; i++)
        if (++q == end || !isxdigit((unsigned char)*q)) return NULL;
    }
    return q < end ? q + 1 : NULL;
  };
  if (len < 2 || *p != '{' || end[-1] != '}') return 0;
  const char *q = p + 1;
  if (q == end - 1) return 1;
  for (;;) {
    if ((q = string_at(q)) == NULL || q >= end || *q++ != ':') return 0;
    if (q < end && *q == '"') {
      if ((q = string_at(q)) == NULL) return 0;
    } else {
      const char *digits = q += (q < end && *q == '-');
      while (q < end && *q >= '0' && *q <= '9') q++;
      if (q == digits) return 0;
    }
    if (q == end - 1) return 1;
    if (*q++ != ',') return 0;
  }
}

// The keyring's word on an opened message; 0 to go on, -1 refused (reported).
static int judge(const char *name, const char *what, long index, char kind, const SealMeta &meta) {
  char pinned[SHIP_KEY_HEX_SIZE], signer[SHIP_KEY_HEX_SIZE], why[512];
  key_hex(meta.signer, signer);
  int verdict = keyring_check(kind, &meta, pinned);
  const char *device = meta.device;
  int n = 0;
  switch (verdict) {
    case KEYRING_PINNED:
      fprintf(stderr, PROGRAM ": pinned device \"%s\" to key %s\n", escaped(device).c_str(), signer);
      return 0;
    case KEYRING_ACCEPT: return 0;
    case KEYRING_UNSIGNED:
      n = snprintf(why, sizeof why, "unsigned message (older layout): refused with a keyring");
      break;
    case KEYRING_KEY_CHANGED:
      n = snprintf(why, sizeof why, "device \"%s\" signed by key %s, not its pinned key %s: refused",
                   escaped(device).c_str(), signer, pinned);
      break;
    default:
      stream_of(kind, meta).replays++;
      n = snprintf(why, sizeof why, "replay: device \"%s\" epoch %016" PRIx64 " kind %c sequence %" PRIu64
                   " was decoded by an earlier run: refused", escaped(device).c_str(), meta.epoch, kind,
                   meta.seq);
      break;
  }
  report(name, what, index, n > 0 ? why : "refused");
  return -1;
}

static void decode_one(const char *name, const char *what, long index, const char *text,
                       size_t len) {
  char kind = 0;
  SealMeta meta;
  unsigned char *plain = NULL;
  size_t plain_len = 0;
  int rc = open_sealed_message(text, len, keys, key_count, &kind, &meta, &plain, &plain_len);
  if (rc != 0) {
    report(name, what, index, open_error_text(rc));
    return;
  }
  if ((with_keyring && judge(name, what, index, kind, meta) != 0) || seen_before(kind, meta)) {
    free(plain);
    return;
  }
  const char *p = (const char *)plain;
  if (kind == SHIP_KIND_ATTACK && !flat_object(p, plain_len)) {
    report(name, what, index, "report is not one flat JSON object: refused");
  } else if (kind == SHIP_KIND_ATTACK) {
    fwrite(p, 1, plain_len, stdout);
    fputc('\n', stdout);
  } else {
    std::string device = escaped(meta.device);
    for (const char *end = p + plain_len; p < end;) {
      const char *nl = (const char *)memchr(p, '\n', (size_t)(end - p));
      size_t n = nl != NULL ? (size_t)(nl - p) : (size_t)(end - p);
      printf("{\"device\":\"%s\",\"record\":\"%s\"}\n", device.c_str(),
             escaped(std::string(p, n)).c_str());
      p += n + (nl != NULL);
    }
  }
  fflush(stdout);
  free(plain);
}

// 1 when the input starts like "<digits> <".
static int looks_like_stream(Reader *r) {
  if (fill(r, COUNT_DIGITS_MAX + 2) != 0) return 0;
  size_t n = available(r);
  const char *p = r->buf + r->start;
  size_t digits = 0;
  while (digits < n && digits <= COUNT_DIGITS_MAX && p[digits] >= '0' && p[digits] <= '9') digits++;
  return digits > 0 && digits <= COUNT_DIGITS_MAX && digits + 1 < n && p[digits] == ' ' &&
         p[digits + 1] == '<';
}

static void decode_stream(Reader *r, const char *name) {
  for (long frame = 1;; frame++) {
    // Frames follow each other directly; a line end between two is let pass.
    for (;;) {
      if (fill(r, 1) != 0 || available(r) == 0) return;
      char c = r->buf[r->start];
      if (c != '\n' && c != '\r') break;
      r->start++;
    }
    if (fill(r, COUNT_DIGITS_MAX + 1) != 0) {
      report(name, "frame", frame, "out of memory");
      return;
    }
    size_t count = 0, digits = 0;
    const char *p = r->buf + r->start;
    size_t n = available(r);
    while (digits < n && digits < COUNT_DIGITS_MAX && p[digits] >= '0' && p[digits] <= '9')
      count = count * 10 + (size_t)(p[digits++] - '0');
    // Without a sound count the next frame cannot be found: stop here.
    if (digits == 0 || digits >= n || p[digits] != ' ' || count == 0 || count > FRAME_MAX) {
      report(name, "frame", frame, "bad octet count; rest of input skipped");
      return;
    }
    r->start += digits + 1;
    if (fill(r, count) != 0 || available(r) < count) {
      report(name, "frame", frame, "truncated frame");
      return;
    }
    decode_one(name, "frame", frame, r->buf + r->start, count);
    r->start += count;
  }
}

static void decode_lines(Reader *r, const char *name) {
  for (long line = 1;; line++) {
    size_t scanned = 0;
    const char *nl = NULL;
    for (;;) {
      nl = (const char *)memchr(r->buf + r->start + scanned, '\n', available(r) - scanned);
      if (nl != NULL || r->eof) break;
      scanned = available(r);
      if (fill(r, available(r) + 1) != 0) {
        report(name, "line", line, "out of memory");
        return;
      }
    }
    size_t len = nl != NULL ? (size_t)(nl - (r->buf + r->start)) : available(r);
    if (nl == NULL && len == 0) return;
    const char *text = r->buf + r->start;
    r->start += len + (nl != NULL);
    size_t blank = 0;
    while (blank < len && (text[blank] == ' ' || text[blank] == '\t' || text[blank] == '\r')) blank++;
    if (blank == len) continue;  // empty lines say nothing
    decode_one(name, "line", line, text, len);
  }
}

static void decode_input(FILE *file, const char *name) {
  Reader r;
  memset(&r, 0, sizeof r);
  r.fd = fileno(file);
  if (looks_like_stream(&r))
    decode_stream(&r, name);
  else if (r.buf != NULL)
    decode_lines(&r, name);
  else
    r.error = 1;
  if (r.error) {
    fprintf(stderr, PROGRAM ": %s: read error\n", name);
    skipped = 1;
  }
  free(r.buf);
}

#define USAGE \
  "usage: " PROGRAM " [--stats] [--keyring FILE] -k PRIVATE_KEY.pem [-k ANOTHER.pem] [FILE...]\n"

static int usage(void) {
  fputs(USAGE, stderr);
  return 2;
}

// --help and --version print to stdout and succeed; 1 when stdout fails.
static int answer(const char *text) {
  fputs(text, stdout);
  return fflush(stdout) == 0 ? 0 : 1;
}

int main(int argc, char **argv) {
  char *pems[MAX_KEYS];
  memset(pems, 0, sizeof pems);
  static const struct option options[] = {{"stats", no_argument, NULL, 's'},
                                           {"help", no_argument, NULL, 'h'},
                                           {"keyring", required_argument, NULL, 'K'},
                                           {"version", no_argument, NULL, 'V'},
                                           {NULL, 0, NULL, 0}};
  int opt;
  int want_stats = 0;
  while ((opt = getopt_long(argc, argv, "k:hV", options, NULL)) != -1) {
    if (opt == 's') {
      want_stats = 1;
      continue;
    }
    if (opt == 'h') return answer(USAGE);
    if (opt == 'K') {
      char why[512];
      if (keyring_load(optarg, why, sizeof why) != 0) {
        fprintf(stderr, PROGRAM ": keyring %s\n", why);
        return 2;
      }
      with_keyring = 1;
      continue;
    }
    if (opt == 'V') {
      printf(PROGRAM " %s\n", get_firmware_version());
      return answer("");
    }
    if (opt != 'k') return usage();
    if (key_count == MAX_KEYS) {
      fprintf(stderr, PROGRAM ": at most %d keys\n", MAX_KEYS);
      return 2;
    }
    if (load_private_key_text(optarg, &pems[key_count]) != 0) {
      fprintf(stderr, PROGRAM ": cannot load private key %s\n", optarg);
      return 2;
    }
    keys[key_count] = pems[key_count];
    key_count++;
  }
  if (key_count == 0) return usage();

  if (optind == argc) {
    decode_input(stdin, "-");
  } else {
    for (int i = optind; i < argc; i++) {
      if (strcmp(argv[i], "-") == 0) {
        decode_input(stdin, "-");
        continue;
      }
      FILE *file = fopen(argv[i], "rb");
      if (file == NULL) {
        fprintf(stderr, PROGRAM ": %s: %s\n", argv[i], strerror(errno));
        skipped = 1;
        continue;
      }
      decode_input(file, argv[i]);
      fclose(file);
    }
  }
  if (fflush(stdout) != 0) skipped = 1;
  if (want_stats) print_stats();
  char why[512];
  if (with_keyring && keyring_save(why, sizeof why) != 0) {
    fprintf(stderr, PROGRAM ": keyring %s\n", why);
    skipped = 1;
  }
  for (int i = 0; i < key_count; i++) free(pems[i]);
  return skipped ? 1 : 0;
}
