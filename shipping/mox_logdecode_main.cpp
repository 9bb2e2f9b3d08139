// mox_logdecode: the collector's reader of what mox_logd ships.
//
//   mox_logdecode [--stats] -k PRIVATE_KEY.pem [-k ANOTHER.pem] [FILE...]
//
// Each input (standard input when no FILE, or "-") is either a file of
// syslog lines as a receiver stored them, one message per line, or the raw
// TCP stream of octet-counted frames; an input that opens with digits, a
// blank and "<" is taken for the stream. Attack reports come out as one
// JSON object per line, access blocks as their original records, in the
// order received. A message seen before (the same device, epoch, kind and
// sequence number: a resend after an unconfirmed delivery) is dropped
// quietly. With --stats, standard error gets one line per device, epoch
// and kind at the end: messages decoded, duplicates dropped, sequence
// numbers missing. What cannot be opened is reported on standard error and
// skipped. Exit status: 0 everything decoded, 1 something skipped, 2 bad
// usage or a key that cannot be loaded.
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

// What one sender's epoch sent of one kind. Sequence numbers start at 1,
// so those below the highest seen and never seen are missing.
struct Stream {
  std::set<uint64_t> seen;
  unsigned long decoded = 0;
  unsigned long duplicates = 0;
};
static std::map<std::string, Stream> streams;  // by device, epoch and kind

// 1 when meta names a message already decoded; records it otherwise.
// First-layout messages carry no identity and are never taken for copies.
static int seen_before(char kind, const SealMeta &meta) {
  if (meta.epoch == 0) return 0;
  std::string key = std::string(meta.device) + '\0' + std::to_string(meta.epoch) + '\0' + kind;
  Stream &s = streams[key];
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
            "duplicates=%lu missing=%llu\n",
            printable(key.substr(0, a).c_str()).c_str(),
            (uint64_t)std::stoull(key.substr(a + 1, b - a - 1)), key[b + 1], s.decoded,
            s.duplicates, missing);
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
  if (seen_before(kind, meta)) {
    free(plain);
    return;
  }
  fwrite(plain, 1, plain_len, stdout);
  if (kind == SHIP_KIND_ATTACK || (plain_len > 0 && plain[plain_len - 1] != '\n'))
    fputc('\n', stdout);
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

#define USAGE "usage: " PROGRAM " [--stats] -k PRIVATE_KEY.pem [-k ANOTHER.pem] [FILE...]\n"

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
  for (int i = 0; i < key_count; i++) free(pems[i]);
  return skipped ? 1 : 0;
}
