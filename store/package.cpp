// The release package: the release folder (templates and policies) as one
// signed, enciphered piece that travels at the end of mox_conf's image and
// is unpacked into the release folder on the device.
//
// Package layout, version 1 (integers big-endian):
//
//   offset  size  field
//   0       4     magic "MOXP"
//   4       1     version, 1
//   5       12    nonce: the first 12 bytes of SHA-256 of the plaintext
//   17      n     AES-256-GCM ciphertext of the plaintext, which is
//                   64 bytes   Ed25519 signature over the magic, the version
//                              and the compressed archive
//                   n - 64     the archive, zlib-compressed
//   17+n    16    GCM tag over the 17 header bytes, taken as AAD, and the ciphertext
//
// The image is mox_conf's program followed by the package and the package's
// length (32 bits), so the package is found from the end of the file.
//
// The archive, once inflated, is a list of entries sorted by path (bytes
// compared as unsigned), with nothing before, between or after them:
//
//   size  field
//   1     type: 'd' folder, 'f' file
//   2     path length, 1..RELEASE_PATH_MAX
//   len   path relative to the release folder: components joined by single
//         '/', none empty, "." or "..", no control bytes
//   4     size of the file's bytes, 0 for a folder
//   size  the file's bytes
//
// Why it is built so:
// - Trust comes from the signature alone: only the holder of the signing
//   key, which stays on the build host, can make a package that verifies
//   against the key compiled into mox_conf. The cipher only keeps the
//   templates out of plain view in the image; its key is HKDF-SHA256 of the
//   store's compiled-in token with RELEASE_SALT and RELEASE_INFO, so store
//   keys and package keys never meet.
// - The nonce comes from the plaintext so that the same release and key
//   give the same bytes (reproducible builds). A nonce repeats under the one
//   key only with the same plaintext, which gives the same ciphertext and
//   tells nothing new.
// - Sorted entries make the packer's output reproducible, put a duplicate
//   right after its twin, and put every folder before what it holds.
// - The device checks in this order and writes only after the last step:
//   sizes, tag, signature, inflate (bounded by RELEASE_ARCHIVE_MAX, whatever
//   the archive claims), every entry. Installing unpacks into a fresh folder
//   beside the target, carries over the generated files the running proxy
//   reads, and swaps the two folders in one rename, so the release folder
//   is the old one or the new one, never a mix.
//
// Nothing here prints: every failure gives its reason to the caller.
#include "store/store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "logging/logging.h"
#include "platform/platform.h"
#include "release_keys.h"

#define RELEASE_SALT "mox release salt"
#define RELEASE_INFO "mox release v1 aes-256-gcm key"
#define ENTRY_HEAD_SIZE 3           // type and path length
#define ENTRY_SIZE_FIELD 4          // the size after the path
#define ENTRY_PATH_SIZE (RELEASE_PATH_MAX + 1)
#define INFLATE_PIECE_SIZE 16384    // inflate output, taken in pieces of this size
#define BYTES_FIRST_ROOM 4096       // a growing buffer's first allocation
#define RELEASE_FILE_MODE 0644
#define RELEASE_FOLDER_MODE 0755
#define TARGET_PATH_SIZE 256        // "<target>.new-XXXXXX" and the target's parent
#define PACK_PATH_SIZE 4096         // "<release folder>/<entry path>" on the build host
#define REMOVE_OPEN_FDS 16          // folders nftw keeps open while removing a tree

// One archive entry, as offsets into the archive.
struct Entry {
  char type;
  size_t path_at;
  size_t path_len;
  size_t data_at;
  size_t data_len;
};

// The entries of an archive, in its order (RELEASE_ENTRY_MAX on the heap).
struct Entries {
  Entry *list;
  size_t count;
};

// Writes the reason and gives -1.
static int refuse(char *why, size_t why_size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
static int refuse(char *why, size_t why_size, const char *fmt, ...) {
  if (why == nullptr || why_size == 0) return -1;
  va_list ap;
  va_start(ap, fmt);
  // A reason cut to fit the caller's buffer still says what went wrong.
  if (vsnprintf(why, why_size, fmt, ap) < 0) why[0] = '\0';
  va_end(ap);
  return -1;
}

// ---- byte buffers ---------------------------------------------------------------

void release_bytes_free(ReleaseBytes *bytes) {
  if (bytes == nullptr) return;
  free(bytes->data);
  bytes->data = nullptr;
  bytes->len = 0;
  bytes->room = 0;
}

// Room for more bytes after the ones held; the room doubles, so a buffer
// filled piece by piece is copied only a few times. 0, or -1 (ENOMEM).
static int bytes_reserve(ReleaseBytes *b, size_t more) {
  if (b->room - b->len >= more) return 0;
  // Every buffer here stays far below this bound; past it, doubling could wrap.
  if (more > SIZE_MAX / 4 - b->len) {
    errno = ENOMEM;
    return -1;
  }
  size_t room = b->room != 0 ? b->room : BYTES_FIRST_ROOM;
  while (room - b->len < more) room *= 2;
  unsigned char *grown = static_cast<unsigned char *>(realloc(b->data, room));
  if (grown == nullptr) return -1;
  b->data = grown;
  b->room = room;
  return 0;
}

static int bytes_append(ReleaseBytes *b, const void *data, size_t len) {
  if (bytes_reserve(b, len) != 0) return -1;
  if (len > 0) memcpy(b->data + b->len, data, len);
  b->len += len;
  return 0;
}

static uint32_t get_be(const unsigned char *p, int bytes) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; i++) v = (v << 8) | p[i];
  return v;
}

static int put_be(ReleaseBytes *b, uint32_t v, int bytes) {
  unsigned char out[sizeof v];
  for (int i = 0; i < bytes; i++) out[i] = static_cast<unsigned char>(v >> (8 * (bytes - 1 - i)));
  return bytes_append(b, out, static_cast<size_t>(bytes));
}

// Orders byte strings by their bytes taken as unsigned, a shorter prefix first.
static int compare_bytes(const char *a, size_t a_len, const char *b, size_t b_len) {
  int c = memcmp(a, b, a_len < b_len ? a_len : b_len);
  if (c != 0) return c;
  return a_len < b_len ? -1 : a_len > b_len ? 1 : 0;
}

// ---- files ----------------------------------------------------------------------

// len bytes from offset at into buf. 0, or -1 with errno set (EIO for a
// file that ends early).
static int read_at(int fd, off_t at, unsigned char *buf, size_t len) {
  size_t done = 0;
  while (done < len) {
    ssize_t got = pread(fd, buf + done, len - done, at + static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = EIO;
    if (got <= 0) return -1;
    done += static_cast<size_t>(got);
  }
  return 0;
}

// len bytes from offset at into out, replacing what it held. 0, or -1 with
// errno set (out then empty).
static int read_span(int fd, off_t at, size_t len, ReleaseBytes *out) {
  out->len = 0;
  if (bytes_reserve(out, len) != 0 || read_at(fd, at, out->data, len) != 0) return -1;
  out->len = len;
  return 0;
}

// 0 when all len bytes were written, -1 with errno set otherwise.
static int write_all(int fd, const unsigned char *data, size_t len) {
  size_t done = 0;
  while (done < len) {
    ssize_t put = write(fd, data + done, len - done);
    if (put < 0 && errno == EINTR) continue;
    if (put == 0) errno = EIO;
    if (put <= 0) return -1;
    done += static_cast<size_t>(put);
  }
  return 0;
}

// Reads the regular file path (below dfd; a link at its last component is
// not followed) into out when it holds at most max bytes: the size is
// checked before anything is read. 0 read; 1 no regular file there
// (missing, a link, a folder, a device); -1 failed with errno set (EFBIG:
// larger than max).
static int slurp_at(int dfd, const char *path, size_t max, ReleaseBytes *out) {
  out->len = 0;
  // O_NONBLOCK: a FIFO must not hang the open; it is no regular file.
  int fd = openat(dfd, path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT || errno == ELOOP || errno == ENOTDIR ? 1 : -1;
  struct stat st;
  int rc = 1;
  if (fstat(fd, &st) != 0) {
    rc = -1;
  } else if (S_ISREG(st.st_mode)) {
    if (static_cast<uint64_t>(st.st_size) > max) {
      errno = EFBIG;
      rc = -1;
    } else {
      rc = read_span(fd, 0, static_cast<size_t>(st.st_size), out);
    }
  }
  int err = errno;
  close(fd);
  errno = err;
  return rc;
}

static int remove_one(const char *path, const struct stat *, int, struct FTW *) {
  return remove(path) == 0 ? 0 : -1;
}

// Removes a tree without following any link in it and without leaving its
// file system. 0, or -1 when something stayed.
static int remove_all(const char *path) {
  return nftw(path, remove_one, REMOVE_OPEN_FDS, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

// ---- the archive --------------------------------------------------------------------

// Why path (len bytes) cannot be an entry path, or null when it can.
static const char *bad_path(const char *path, size_t len) {
  if (len == 0 || len > RELEASE_PATH_MAX) return "path length out of range";
  if (path[0] == '/') return "absolute path";
  size_t start = 0;
  for (size_t i = 0; i <= len; i++) {
    if (i < len && (static_cast<unsigned char>(path[i]) < 0x20 || path[i] == 0x7f))
      return "control byte in path";
    if (i < len && path[i] != '/') continue;
    size_t n = i - start;
    if (n == 0) return "empty path component";
    if (path[start] == '.' && (n == 1 || (n == 2 && path[start + 1] == '.')))
      return "\".\" or \"..\" in path";
    start = i + 1;
  }
  return nullptr;
}

static const char *path_of(const ReleaseBytes *archive, const Entry &e) {
  return reinterpret_cast<const char *>(archive->data) + e.path_at;
}

// The entry's path as a terminated text in out (ENTRY_PATH_SIZE bytes).
static const char *entry_path(const ReleaseBytes *archive, const Entry &e, char *out) {
  memcpy(out, path_of(archive, e), e.path_len);  // at most RELEASE_PATH_MAX, checked
  out[e.path_len] = '\0';
  return out;
}

// Index of the entry named path among the first n entries (sorted), or -1.
static long find_entry(const ReleaseBytes *archive, const Entries *entries, size_t n,
                       const char *path, size_t len) {
  size_t lo = 0, hi = n;
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    const Entry &e = entries->list[mid];
    int c = compare_bytes(path_of(archive, e), e.path_len, path, len);
    if (c == 0) return static_cast<long>(mid);
    if (c < 0)
      lo = mid + 1;
    else
      hi = mid;
  }
  return -1;
}

// 1 when the folder holding path is the top or a folder entry among the
// first n entries, else 0.
static int folder_present(const ReleaseBytes *archive, const Entries *entries, size_t n,
                          const char *path, size_t len) {
  const char *slash = static_cast<const char *>(memrchr(path, '/', len));
  if (slash == nullptr) return 1;
  long at = find_entry(archive, entries, n, path, static_cast<size_t>(slash - path));
  return at >= 0 && entries->list[static_cast<size_t>(at)].type == 'd';
}

// Splits the archive into entries (room for RELEASE_ENTRY_MAX) and checks
// every one of them.
static int parse_archive(const ReleaseBytes *archive, Entries *entries, ReleaseCount *count,
                         char *why, size_t why_size) {
  ReleaseCount seen = {0, 0, 0};
  const unsigned char *bytes = archive->data;
  size_t at = 0, size = archive->len;
  entries->count = 0;
  while (at < size) {
    size_t number = entries->count + 1;
    if (entries->count == RELEASE_ENTRY_MAX)
      return refuse(why, why_size, "more than %d entries in the release", RELEASE_ENTRY_MAX);
    if (size - at < ENTRY_HEAD_SIZE) return refuse(why, why_size, "archive cut in entry %zu", number);
    Entry e = {static_cast<char>(bytes[at]), at + ENTRY_HEAD_SIZE, get_be(bytes + at + 1, 2), 0, 0};
    if (e.type != 'd' && e.type != 'f')
      return refuse(why, why_size, "entry %zu has the unknown type 0x%02x", number, bytes[at]);
    if (size - e.path_at < e.path_len + ENTRY_SIZE_FIELD)
      return refuse(why, why_size, "archive cut in entry %zu", number);
    const char *path = path_of(archive, e);
    const char *reason = bad_path(path, e.path_len);
    if (reason != nullptr) return refuse(why, why_size, "entry %zu: %s", number, reason);
    int len = static_cast<int>(e.path_len);
    e.data_at = e.path_at + e.path_len + ENTRY_SIZE_FIELD;
    e.data_len = get_be(bytes + e.path_at + e.path_len, ENTRY_SIZE_FIELD);
    if (e.data_len > size - e.data_at)
      return refuse(why, why_size, "entry %.*s: size beyond the archive", len, path);
    if (e.type == 'd' && e.data_len != 0)
      return refuse(why, why_size, "folder entry %.*s carries bytes", len, path);
    if (entries->count > 0) {
      const Entry &last = entries->list[entries->count - 1];
      int c = compare_bytes(path_of(archive, last), last.path_len, path, e.path_len);
      if (c == 0) return refuse(why, why_size, "duplicate entry %.*s", len, path);
      if (c > 0) return refuse(why, why_size, "entry %.*s out of order", len, path);
    }
    if (!folder_present(archive, entries, entries->count, path, e.path_len))
      return refuse(why, why_size, "entry %.*s: its folder is not in the release", len, path);
    if (e.type == 'd') {
      seen.folders++;
    } else {
      seen.files++;
      seen.bytes += e.data_len;
    }
    entries->list[entries->count++] = e;
    at = e.data_at + e.data_len;
  }
  if (entries->count == 0) return refuse(why, why_size, "the release holds no entries");
  if (count != nullptr) *count = seen;
  return 0;
}

// Inflates a whole zlib stream into out, never past RELEASE_ARCHIVE_MAX
// bytes, whatever the stream claims.
static int inflate_bounded(const unsigned char *in, size_t len, ReleaseBytes *out, char *why,
                           size_t why_size) {
  z_stream zs;
  memset(&zs, 0, sizeof zs);
  if (inflateInit(&zs) != Z_OK) return refuse(why, why_size, "inflate set-up failed");
  zs.next_in = const_cast<unsigned char *>(in);  // zlib reads it only
  zs.avail_in = static_cast<uInt>(len);          // at most RELEASE_PACKAGE_MAX
  unsigned char piece[INFLATE_PIECE_SIZE] = {0};
  int rc = Z_OK;
  out->len = 0;
  while (rc == Z_OK) {
    zs.next_out = piece;
    zs.avail_out = sizeof piece;
    rc = inflate(&zs, Z_NO_FLUSH);
    size_t got = sizeof piece - zs.avail_out;
    if (out->len + got > RELEASE_ARCHIVE_MAX) {
      inflateEnd(&zs);
      out->len = 0;
      return refuse(why, why_size, "archive inflates past %d bytes", RELEASE_ARCHIVE_MAX);
    }
    if (bytes_append(out, piece, got) != 0) {
      inflateEnd(&zs);
      out->len = 0;
      return refuse(why, why_size, "no memory for the archive");
    }
  }
  // Z_BUF_ERROR here means the input ended before the stream did.
  int whole = rc == Z_STREAM_END && zs.avail_in == 0;
  inflateEnd(&zs);
  if (!whole) {
    out->len = 0;
    return refuse(why, why_size, "compressed archive damaged, cut or followed by extra bytes");
  }
  return 0;
}

// ---- keys, signature and cipher --------------------------------------------------

static EVP_PKEY *only_ed25519(EVP_PKEY *key) {
  if (key != nullptr && EVP_PKEY_get_base_id(key) != EVP_PKEY_ED25519) {
    EVP_PKEY_free(key);
    return nullptr;
  }
  return key;
}

static EVP_PKEY *load_verify_key(void) {
  BIO *bio = BIO_new_mem_buf(RELEASE_VERIFY_KEY, static_cast<int>(sizeof RELEASE_VERIFY_KEY - 1));
  EVP_PKEY *key = bio != nullptr ? PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  return only_ed25519(key);
}

static EVP_PKEY *load_signing_key(const char *path) {
  FILE *f = path != nullptr ? fopen(path, "re") : nullptr;
  if (f == nullptr) return nullptr;
  EVP_PKEY *key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
  fclose(f);
  return only_ed25519(key);
}

// What the signature covers, into msg: the magic, the version and the
// compressed archive. 0, or -1 (no memory).
static int signed_bytes(const unsigned char *packed, size_t len, ReleaseBytes *msg) {
  const unsigned char version = RELEASE_VERSION;
  msg->len = 0;
  return bytes_append(msg, RELEASE_MAGIC, RELEASE_MAGIC_SIZE) == 0 &&
                 bytes_append(msg, &version, 1) == 0 && bytes_append(msg, packed, len) == 0
             ? 0
             : -1;
}

// Ed25519 signs in one pass and brings its own digest, hence none named.
static int sign_bytes(EVP_PKEY *key, const ReleaseBytes *msg, unsigned char *sig) {
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  size_t len = RELEASE_SIG_SIZE;
  int ok = ctx != nullptr && EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key) > 0 &&
           EVP_DigestSign(ctx, sig, &len, msg->data, msg->len) > 0 && len == RELEASE_SIG_SIZE;
  EVP_MD_CTX_free(ctx);
  return ok ? 0 : -1;
}

static int signature_holds(EVP_PKEY *key, const ReleaseBytes *msg, const unsigned char *sig) {
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  int ok = ctx != nullptr && EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) > 0 &&
           EVP_DigestVerify(ctx, sig, RELEASE_SIG_SIZE, msg->data, msg->len) == 1;
  EVP_MD_CTX_free(ctx);
  return ok;
}

// One AES-256-GCM pass over n bytes of in into out under the package key,
// with the header as AAD: enciphering gives the tag, deciphering checks it.
// 0, or -1 (for deciphering: any changed byte, a cut, another key).
static int run_gcm(int encrypt, const unsigned char *header, const unsigned char *in, size_t n,
                   unsigned char *out, unsigned char *tag) {
  unsigned char key[STORE_KEY_SIZE] = {0};
  if (store_token_key(RELEASE_SALT, RELEASE_INFO, key) != 0) return -1;
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  unsigned char rest[RELEASE_TAG_SIZE] = {0};  // GCM gives nothing at the end; room all the same
  int len = 0, end = 0;
  int ok = ctx != nullptr &&
           EVP_CipherInit_ex(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr, encrypt) > 0 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, RELEASE_NONCE_SIZE, nullptr) > 0 &&
           EVP_CipherInit_ex(ctx, nullptr, nullptr, key, header + RELEASE_NONCE_OFFSET,
                             encrypt) > 0 &&
           EVP_CipherUpdate(ctx, nullptr, &len, header, RELEASE_HEADER_SIZE) > 0 &&
           EVP_CipherUpdate(ctx, out, &len, in, static_cast<int>(n)) > 0 &&
           static_cast<size_t>(len) == n &&
           (encrypt || EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, RELEASE_TAG_SIZE, tag) > 0) &&
           EVP_CipherFinal_ex(ctx, rest, &end) > 0 && end == 0 &&
           (!encrypt || EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, RELEASE_TAG_SIZE, tag) > 0);
  EVP_CIPHER_CTX_free(ctx);
  OPENSSL_cleanse(key, sizeof key);
  return ok ? 0 : -1;
}

// ---- reading and verifying --------------------------------------------------------

int release_package_of_image(const char *image_path, ReleaseBytes *pkg, char *why,
                             size_t why_size) {
  pkg->len = 0;
  if (image_path == nullptr) return refuse(why, why_size, "no image named");
  int fd = open(image_path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return refuse(why, why_size, "cannot open %s: %s", image_path, strerror(errno));
  struct stat st;
  unsigned char trailer[RELEASE_TRAILER_SIZE] = {0};
  int rc = 0;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    rc = refuse(why, why_size, "%s is no regular file", image_path);
  } else if (st.st_size < RELEASE_TRAILER_SIZE + RELEASE_HEADER_SIZE) {
    rc = refuse(why, why_size, "no release package appended to %s", image_path);
  } else if (read_at(fd, st.st_size - RELEASE_TRAILER_SIZE, trailer, sizeof trailer) != 0) {
    rc = refuse(why, why_size, "cannot read %s: %s", image_path, strerror(errno));
  } else {
    uint32_t len = get_be(trailer, RELEASE_TRAILER_SIZE);
    off_t room = st.st_size - RELEASE_TRAILER_SIZE;
    if (len < RELEASE_HEADER_SIZE || len > RELEASE_PACKAGE_MAX || static_cast<off_t>(len) > room)
      rc = refuse(why, why_size, "no release package appended to %s", image_path);
    else if (read_span(fd, room - static_cast<off_t>(len), len, pkg) != 0)
      rc = refuse(why, why_size, "cannot read %s: %s", image_path, strerror(errno));
    else if (memcmp(pkg->data, RELEASE_MAGIC, RELEASE_MAGIC_SIZE) != 0)
      rc = refuse(why, why_size, "no release package appended to %s", image_path);
  }
  close(fd);
  if (rc != 0) pkg->len = 0;
  return rc;
}

int release_package_of_file(const char *path, ReleaseBytes *pkg, char *why, size_t why_size) {
  pkg->len = 0;
  if (path == nullptr) return refuse(why, why_size, "no package file named");
  int rc = slurp_at(AT_FDCWD, path, RELEASE_PACKAGE_MAX, pkg);
  if (rc == 1) return refuse(why, why_size, "%s is no regular file", path);
  if (rc != 0 && errno == EFBIG)
    return refuse(why, why_size, "%s is larger than %d bytes", path, RELEASE_PACKAGE_MAX);
  if (rc != 0) return refuse(why, why_size, "cannot read %s: %s", path, strerror(errno));
  if (pkg->len == 0) return refuse(why, why_size, "%s is empty", path);
  return 0;
}

// The signed part of the deciphered plain text (size bytes): the signature
// checked, the archive inflated into archive and split into entries.
static int open_plain(const unsigned char *plain, size_t size, ReleaseBytes *archive,
                      Entries *entries, ReleaseCount *count, char *why, size_t why_size) {
  EVP_PKEY *key = load_verify_key();
  if (key == nullptr) return refuse(why, why_size, "the compiled-in verify key does not load");
  const unsigned char *packed = plain + RELEASE_SIG_SIZE;
  size_t packed_len = size - RELEASE_SIG_SIZE;
  ReleaseBytes msg = {nullptr, 0, 0};
  int good = signed_bytes(packed, packed_len, &msg) == 0 && signature_holds(key, &msg, plain);
  release_bytes_free(&msg);
  EVP_PKEY_free(key);
  if (!good) return refuse(why, why_size, "release package signature does not verify");
  if (inflate_bounded(packed, packed_len, archive, why, why_size) != 0) return -1;
  if (parse_archive(archive, entries, count, why, why_size) != 0) {
    archive->len = 0;
    return -1;
  }
  return 0;
}

// release_verify that also gives the entries (entries->list is the caller's
// to free, whatever the result).
static int open_package(const unsigned char *pkg, size_t size, ReleaseBytes *archive,
                        Entries *entries, ReleaseCount *count, char *why, size_t why_size) {
  archive->len = 0;
  entries->count = 0;
  if (size <= RELEASE_HEADER_SIZE + RELEASE_SIG_SIZE + RELEASE_TAG_SIZE)
    return refuse(why, why_size, "release package too short (%zu bytes)", size);
  if (size > RELEASE_PACKAGE_MAX)
    return refuse(why, why_size, "release package larger than %d bytes", RELEASE_PACKAGE_MAX);
  if (memcmp(pkg, RELEASE_MAGIC, RELEASE_MAGIC_SIZE) != 0)
    return refuse(why, why_size, "not a release package");
  if (pkg[RELEASE_MAGIC_SIZE] != RELEASE_VERSION)
    return refuse(why, why_size, "release package of unknown version %d", pkg[RELEASE_MAGIC_SIZE]);
  size_t n = size - RELEASE_HEADER_SIZE - RELEASE_TAG_SIZE;
  if (entries->list == nullptr)
    entries->list = static_cast<Entry *>(calloc(RELEASE_ENTRY_MAX, sizeof(Entry)));
  unsigned char *plain = static_cast<unsigned char *>(malloc(n));
  if (entries->list == nullptr || plain == nullptr) {
    free(plain);
    return refuse(why, why_size, "no memory for a package of %zu bytes", size);
  }
  // The tag is only read when deciphering.
  int rc = run_gcm(0, pkg, pkg + RELEASE_HEADER_SIZE, n, plain,
                   const_cast<unsigned char *>(pkg + RELEASE_HEADER_SIZE + n)) == 0
               ? open_plain(plain, n, archive, entries, count, why, why_size)
               : refuse(why, why_size, "release package does not decipher (changed, cut or foreign)");
  free(plain);
  return rc;
}

int release_verify(const unsigned char *pkg, size_t pkg_len, ReleaseBytes *archive,
                   ReleaseCount *count, char *why, size_t why_size) {
  Entries entries = {nullptr, 0};
  int rc = open_package(pkg, pkg_len, archive, &entries, count, why, why_size);
  free(entries.list);
  return rc;
}

// ---- sealing and packing (build host) ---------------------------------------------

// The signature and the compressed archive into plain, then enciphered
// into pkg.
static int seal_into(EVP_PKEY *key, const unsigned char *archive, size_t archive_len,
                     ReleaseBytes *plain, ReleaseBytes *msg, ReleaseBytes *pkg, char *why,
                     size_t why_size) {
  uLongf packed_len = compressBound(archive_len);
  if (bytes_reserve(plain, RELEASE_SIG_SIZE + packed_len) != 0)
    return refuse(why, why_size, "no memory to seal %zu bytes", archive_len);
  if (compress2(plain->data + RELEASE_SIG_SIZE, &packed_len, archive, archive_len,
                Z_BEST_COMPRESSION) != Z_OK)
    return refuse(why, why_size, "compression failed");
  size_t n = RELEASE_SIG_SIZE + packed_len;
  plain->len = n;
  if (RELEASE_HEADER_SIZE + n + RELEASE_TAG_SIZE > RELEASE_PACKAGE_MAX)
    return refuse(why, why_size, "release package would be %zu bytes, more than %d",
                  RELEASE_HEADER_SIZE + n + RELEASE_TAG_SIZE, RELEASE_PACKAGE_MAX);
  if (signed_bytes(plain->data + RELEASE_SIG_SIZE, packed_len, msg) != 0 ||
      sign_bytes(key, msg, plain->data) != 0)
    return refuse(why, why_size, "signing failed");
  unsigned char header[RELEASE_HEADER_SIZE] = {0};
  memcpy(header, RELEASE_MAGIC, RELEASE_MAGIC_SIZE);
  header[RELEASE_MAGIC_SIZE] = RELEASE_VERSION;
  unsigned char digest[SHA256_SIZE] = {0};
  sha256_digest(plain->data, n, digest);
  memcpy(header + RELEASE_NONCE_OFFSET, digest, RELEASE_NONCE_SIZE);
  if (bytes_reserve(pkg, RELEASE_HEADER_SIZE + n + RELEASE_TAG_SIZE) != 0)
    return refuse(why, why_size, "no memory for the package");
  memcpy(pkg->data, header, sizeof header);
  unsigned char *out = pkg->data;
  if (run_gcm(1, header, plain->data, n, out + RELEASE_HEADER_SIZE,
              out + RELEASE_HEADER_SIZE + n) != 0)
    return refuse(why, why_size, "encipher failed");
  pkg->len = RELEASE_HEADER_SIZE + n + RELEASE_TAG_SIZE;
  return 0;
}

static int seal_with(EVP_PKEY *key, const unsigned char *archive, size_t archive_len,
                     ReleaseBytes *pkg, char *why, size_t why_size) {
  pkg->len = 0;
  ReleaseBytes plain = {nullptr, 0, 0}, msg = {nullptr, 0, 0};
  int rc = seal_into(key, archive, archive_len, &plain, &msg, pkg, why, why_size);
  release_bytes_free(&plain);
  release_bytes_free(&msg);
  return rc;
}

int release_seal(const unsigned char *archive, size_t archive_len,
                 const char *signing_key_pem_path, ReleaseBytes *pkg, char *why,
                 size_t why_size) {
  pkg->len = 0;
  EVP_PKEY *key = load_signing_key(signing_key_pem_path);
  if (key == nullptr)
    return refuse(why, why_size, "no Ed25519 private key in %s",
                  signing_key_pem_path != nullptr ? signing_key_pem_path : "(none)");
  int rc = seal_with(key, archive, archive_len, pkg, why, why_size);
  EVP_PKEY_free(key);
  return rc;
}

struct PackItem {
  char path[ENTRY_PATH_SIZE];
  char type;
};

// What the folder holds, RELEASE_ENTRY_MAX items at most (on the heap).
struct PackList {
  PackItem *items;
  size_t count;
};

// Lists what lies below top/prefix into list; anything but regular files
// and folders is refused, links included.
static int list_tree(const char *top, const char *prefix, PackList *list, char *why,
                     size_t why_size) {
  char here[PACK_PATH_SIZE];
  int n = prefix[0] == '\0' ? snprintf(here, sizeof here, "%s", top)
                            : snprintf(here, sizeof here, "%s/%s", top, prefix);
  if (n < 0 || static_cast<size_t>(n) >= sizeof here)
    return refuse(why, why_size, "%s/%s: path too long", top, prefix);
  DIR *dir = opendir(here);
  if (dir == nullptr) return refuse(why, why_size, "cannot open %s: %s", here, strerror(errno));
  int rc = 0;
  struct dirent *de;
  while (rc == 0 && (de = readdir(dir)) != nullptr) {
    if (strcmp(de->d_name, ".") == 0 || strcmp(de->d_name, "..") == 0) continue;
    char rel[ENTRY_PATH_SIZE];
    n = prefix[0] == '\0' ? snprintf(rel, sizeof rel, "%s", de->d_name)
                          : snprintf(rel, sizeof rel, "%s/%s", prefix, de->d_name);
    int fits = n >= 0 && static_cast<size_t>(n) < sizeof rel;
    const char *reason = fits ? bad_path(rel, static_cast<size_t>(n)) : nullptr;
    struct stat st;
    if (!fits)
      rc = refuse(why, why_size, "%s/%s/%s: path length out of range", top, prefix, de->d_name);
    else if (reason != nullptr)
      rc = refuse(why, why_size, "%s/%s: %s", top, rel, reason);
    else if (list->count == RELEASE_ENTRY_MAX)
      rc = refuse(why, why_size, "more than %d entries in %s", RELEASE_ENTRY_MAX, top);
    else if (fstatat(dirfd(dir), de->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
      rc = refuse(why, why_size, "cannot stat %s/%s: %s", top, rel, strerror(errno));
    else if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))
      rc = refuse(why, why_size, "%s/%s is neither a regular file nor a folder", top, rel);
    else {
      PackItem *item = &list->items[list->count++];
      memcpy(item->path, rel, static_cast<size_t>(n) + 1);
      item->type = S_ISREG(st.st_mode) ? 'f' : 'd';
      if (item->type == 'd') rc = list_tree(top, rel, list, why, why_size);
    }
  }
  closedir(dir);
  return rc;
}

static int by_path(const void *a, const void *b) {
  return strcmp(static_cast<const PackItem *>(a)->path, static_cast<const PackItem *>(b)->path);
}

// The archive of the listed items, read from dir, into archive (data is
// scratch for one file).
static int build_archive(const char *dir, const PackList *list, ReleaseBytes *archive,
                         ReleaseBytes *data, char *why, size_t why_size) {
  for (size_t i = 0; i < list->count; i++) {
    const PackItem &item = list->items[i];
    char full[PACK_PATH_SIZE];
    int n = snprintf(full, sizeof full, "%s/%s", dir, item.path);
    if (n < 0 || static_cast<size_t>(n) >= sizeof full)
      return refuse(why, why_size, "%s/%s: path too long", dir, item.path);
    data->len = 0;
    int rc = item.type == 'f' ? slurp_at(AT_FDCWD, full, RELEASE_ARCHIVE_MAX, data) : 0;
    if (rc == 1) return refuse(why, why_size, "%s changed while it was packed", full);
    if (rc != 0) return refuse(why, why_size, "cannot read %s: %s", full, strerror(errno));
    size_t path_len = strlen(item.path);
    if (bytes_append(archive, &item.type, 1) != 0 ||
        put_be(archive, static_cast<uint32_t>(path_len), 2) != 0 ||
        bytes_append(archive, item.path, path_len) != 0 ||
        put_be(archive, static_cast<uint32_t>(data->len), ENTRY_SIZE_FIELD) != 0 ||
        bytes_append(archive, data->data, data->len) != 0)
      return refuse(why, why_size, "no memory to pack %s", dir);
    if (archive->len > RELEASE_ARCHIVE_MAX)
      return refuse(why, why_size, "%s holds more than %d bytes", dir, RELEASE_ARCHIVE_MAX);
  }
  return 0;
}

// Seals the archive into pkg and reads it back as a device would.
static int seal_checked(const ReleaseBytes *archive, const char *signing_key_pem_path,
                        ReleaseBytes *pkg, ReleaseBytes *back, char *why, size_t why_size) {
  EVP_PKEY *key = load_signing_key(signing_key_pem_path);
  if (key == nullptr)
    return refuse(why, why_size, "no Ed25519 private key in %s",
                  signing_key_pem_path != nullptr ? signing_key_pem_path : "(none)");
  EVP_PKEY *verify_key = load_verify_key();
  // A package the devices would refuse must never leave the build.
  int rc = verify_key != nullptr && EVP_PKEY_eq(key, verify_key) == 1
               ? seal_with(key, archive->data, archive->len, pkg, why, why_size)
               : refuse(why, why_size,
                        "signing key %s does not match the verify key compiled into mox_conf "
                        "(MOX_RELEASE_VERIFY_KEY)",
                        signing_key_pem_path);
  EVP_PKEY_free(verify_key);
  EVP_PKEY_free(key);
  if (rc != 0) return -1;
  char inner[RELEASE_WHY_SIZE] = {0};
  if (release_verify(pkg->data, pkg->len, back, nullptr, inner, sizeof inner) != 0 ||
      back->len != archive->len || memcmp(back->data, archive->data, archive->len) != 0)
    return refuse(why, why_size, "the packed release does not verify: %s", inner);
  return 0;
}

int release_pack_dir(const char *dir, const char *signing_key_pem_path, ReleaseBytes *pkg,
                     char *why, size_t why_size) {
  pkg->len = 0;
  if (dir == nullptr) return refuse(why, why_size, "no folder named");
  PackList list = {static_cast<PackItem *>(calloc(RELEASE_ENTRY_MAX, sizeof(PackItem))), 0};
  if (list.items == nullptr) return refuse(why, why_size, "no memory to list %s", dir);
  ReleaseBytes archive = {nullptr, 0, 0}, data = {nullptr, 0, 0}, back = {nullptr, 0, 0};
  int rc = list_tree(dir, "", &list, why, why_size);
  if (rc == 0) {
    qsort(list.items, list.count, sizeof(PackItem), by_path);
    rc = build_archive(dir, &list, &archive, &data, why, why_size);
  }
  if (rc == 0) rc = seal_checked(&archive, signing_key_pem_path, pkg, &back, why, why_size);
  if (rc != 0) pkg->len = 0;
  free(list.items);
  release_bytes_free(&archive);
  release_bytes_free(&data);
  release_bytes_free(&back);
  return rc;
}

// ---- installing -------------------------------------------------------------------

// Creates path below dfd as a new file (never through a link, never over
// anything) with mode RELEASE_FILE_MODE whatever the umask, written in full
// and synced. shown names dfd in the reason.
static int new_file(int dfd, const char *shown, const char *path, const unsigned char *data,
                    size_t len, char *why, size_t why_size) {
  int fd = openat(dfd, path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  RELEASE_FILE_MODE);
  if (fd < 0) return refuse(why, why_size, "cannot create %s/%s: %s", shown, path, strerror(errno));
  int ok = fchmod(fd, RELEASE_FILE_MODE) == 0 && write_all(fd, data, len) == 0 && fsync(fd) == 0;
  int err = errno;
  if (close(fd) != 0 && ok) {
    ok = 0;
    err = errno;
  }
  return ok ? 0 : refuse(why, why_size, "cannot write %s/%s: %s", shown, path, strerror(err));
}

static int new_folder(int dfd, const char *shown, const char *path, char *why, size_t why_size) {
  if (mkdirat(dfd, path, RELEASE_FOLDER_MODE) != 0)
    return refuse(why, why_size, "cannot create %s/%s: %s", shown, path, strerror(errno));
  int fd = openat(dfd, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  int ok = fd >= 0 && fchmod(fd, RELEASE_FOLDER_MODE) == 0;
  int err = errno;
  if (fd >= 0) close(fd);
  return ok ? 0 : refuse(why, why_size, "cannot set up %s/%s: %s", shown, path, strerror(err));
}

static int sync_folder(int dfd, const char *shown, const char *path, char *why, size_t why_size) {
  int fd = openat(dfd, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  int ok = fd >= 0 && fsync(fd) == 0;
  int err = errno;
  if (fd >= 0) close(fd);
  return ok ? 0 : refuse(why, why_size, "cannot sync %s/%s: %s", shown, path, strerror(err));
}

// Copies the keep files that the old folder (old_dfd) has and the package
// does not bring into the new folder (dfd); data is scratch for one file.
static int carry_over(int old_dfd, int dfd, const char *shown, const char *target,
                      const char *const *keep, const ReleaseBytes *archive,
                      const Entries *entries, ReleaseBytes *data, char *why, size_t why_size) {
  for (const char *const *k = keep; *k != nullptr; k++) {
    size_t len = strlen(*k);
    if (find_entry(archive, entries, entries->count, *k, len) >= 0) continue;
    // A generated file whose folder the new release lacks has no place in it.
    if (!folder_present(archive, entries, entries->count, *k, len)) continue;
    int rc = slurp_at(old_dfd, *k, RELEASE_ARCHIVE_MAX, data);
    if (rc == 1) continue;
    if (rc != 0) return refuse(why, why_size, "cannot read %s/%s: %s", target, *k, strerror(errno));
    if (new_file(dfd, shown, *k, data->data, data->len, why, why_size) != 0) return -1;
  }
  return 0;
}

// Fills the fresh folder from the archive and the old target.
static int fill_folder(const char *fresh, const ReleaseBytes *archive, const Entries *entries,
                       const char *target, int old_exists, const char *const *keep, char *why,
                       size_t why_size) {
  int dfd = open(fresh, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dfd < 0) return refuse(why, why_size, "cannot open %s: %s", fresh, strerror(errno));
  // mkdtemp made it 0700.
  int rc = fchmod(dfd, RELEASE_FOLDER_MODE) == 0
               ? 0
               : refuse(why, why_size, "cannot set up %s: %s", fresh, strerror(errno));
  char path[ENTRY_PATH_SIZE];
  for (size_t i = 0; rc == 0 && i < entries->count; i++) {
    const Entry &e = entries->list[i];
    entry_path(archive, e, path);
    rc = e.type == 'd' ? new_folder(dfd, fresh, path, why, why_size)
                       : new_file(dfd, fresh, path, archive->data + e.data_at, e.data_len, why,
                                  why_size);
  }
  if (rc == 0 && old_exists && keep != nullptr) {
    int old_dfd = open(target, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    ReleaseBytes data = {nullptr, 0, 0};
    rc = old_dfd >= 0 ? carry_over(old_dfd, dfd, fresh, target, keep, archive, entries, &data,
                                   why, why_size)
                      : refuse(why, why_size, "cannot open %s: %s", target, strerror(errno));
    release_bytes_free(&data);
    if (old_dfd >= 0) close(old_dfd);
  }
  // Folders are synced once every name in them is final.
  for (size_t i = 0; rc == 0 && i < entries->count; i++)
    if (entries->list[i].type == 'd')
      rc = sync_folder(dfd, fresh, entry_path(archive, entries->list[i], path), why, why_size);
  if (rc == 0 && fsync(dfd) != 0)
    rc = refuse(why, why_size, "cannot sync %s: %s", fresh, strerror(errno));
  close(dfd);
  return rc;
}

// Syncs the folder holding target, so that the swap outlives a power cut
// where the target lies on lasting storage. 0, or -1.
static int sync_parent(const char *target) {
  char parent[TARGET_PATH_SIZE] = {0};
  int n = snprintf(parent, sizeof parent, "%s", target);
  if (n < 0 || static_cast<size_t>(n) >= sizeof parent) return -1;
  char *slash = strrchr(parent, '/');
  if (slash == nullptr)
    memcpy(parent, ".", sizeof ".");
  else
    slash[slash == parent ? 1 : 0] = '\0';  // the parent of "/x" is "/"
  int fd = open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int rc = fd >= 0 && fsync(fd) == 0 ? 0 : -1;
  if (fd >= 0) close(fd);
  return rc;
}

// Swaps a fresh folder, filled from the verified archive, into place.
static int install_archive(const ReleaseBytes *archive, const Entries *entries,
                           const char *target, const char *const *keep, char *why,
                           size_t why_size) {
  struct stat st;
  int old_exists = lstat(target, &st) == 0;
  if (!old_exists && errno != ENOENT)
    return refuse(why, why_size, "cannot stat %s: %s", target, strerror(errno));
  // A link or a file in its place is left to someone who knows why it is there.
  if (old_exists && !S_ISDIR(st.st_mode)) return refuse(why, why_size, "%s is no folder", target);
  char fresh[TARGET_PATH_SIZE] = {0};
  int n = snprintf(fresh, sizeof fresh, "%s.new-XXXXXX", target);
  if (n < 0 || static_cast<size_t>(n) >= sizeof fresh)
    return refuse(why, why_size, "target path too long: %s", target);
  if (mkdtemp(fresh) == nullptr)
    return refuse(why, why_size, "cannot create %s: %s", fresh, strerror(errno));

  int rc = fill_folder(fresh, archive, entries, target, old_exists, keep, why, why_size);
  if (rc == 0 && old_exists && renameat2(AT_FDCWD, fresh, AT_FDCWD, target, RENAME_EXCHANGE) != 0)
    rc = refuse(why, why_size, "cannot swap %s into place: %s", fresh, strerror(errno));
  if (rc == 0 && !old_exists && rename(fresh, target) != 0)
    rc = refuse(why, why_size, "cannot move %s into place: %s", fresh, strerror(errno));
  if (rc != 0) {
    remove_all(fresh);
    return -1;
  }
  // fresh now names the old release, or nothing. The new one is in place
  // either way; what is left over only costs room until the next boot.
  if (old_exists && remove_all(fresh) != 0) DLOG_ERROR("old release left in %s", fresh);
  if (sync_parent(target) != 0) DLOG_ERROR("cannot sync the folder holding %s", target);
  return 0;
}

int release_install(const unsigned char *pkg, size_t pkg_len, const char *target,
                    const char *const *keep, ReleaseCount *count, char *why, size_t why_size) {
  if (target == nullptr || target[0] == '\0') return refuse(why, why_size, "no target folder");
  for (const char *const *k = keep; k != nullptr && *k != nullptr; k++) {
    const char *reason = bad_path(*k, strlen(*k));
    if (reason != nullptr) return refuse(why, why_size, "kept file %s: %s", *k, reason);
  }
  ReleaseBytes archive = {nullptr, 0, 0};
  Entries entries = {nullptr, 0};
  int rc = open_package(pkg, pkg_len, &archive, &entries, count, why, why_size);
  if (rc == 0) rc = install_archive(&archive, &entries, target, keep, why, why_size);
  free(entries.list);
  release_bytes_free(&archive);
  return rc;
}
