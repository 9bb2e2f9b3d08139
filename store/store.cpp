// The protected parameter store: one file, enciphered and authenticated with
// AES-256-GCM, replaced atomically on every save.
//
// File layout, version 1 (integers big-endian):
//
//   offset  size  field
//   0       4     magic "MOXS"
//   4       1     version, 1
//   5       12    nonce, fresh from RAND_bytes for every write
//   17      4     ciphertext length n, 0..STORE_TEXT_MAX (GCM: equal to the text length)
//   21      n     ciphertext of the text (no terminator stored)
//   21+n    16    GCM tag over the 21 header bytes, taken as AAD, and the ciphertext
//
// A store is exactly 37 + n bytes long; any other size is refused before the
// key is derived. The key is HKDF-SHA256 of the compiled-in token (its 32 hex
// characters as they stand are the input key material) with STORE_SALT and
// STORE_INFO; a new format version must change STORE_INFO so that old and
// new keys never meet. The release package (package.cpp) derives its key
// from the same token through store_token_key, with a salt and info of its
// own, so a store key and a package key never meet either.
//
// Saving: the text goes to STORE_TMP_PATH, which is synced, renamed over the
// store, and the folder synced, so a power cut leaves the old or the new
// file, never a mix. A leftover temporary file is simply truncated by the
// next save. An existing store that does not read is never replaced: it may
// be a store of another key or version that someone still wants back, and a
// save would destroy it for good.
//
// Nothing here prints; failures go to the diagnostic log only.
#include "store/store.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "logging/logging.h"
#include "platform/platform.h"

#define STORE_TOKEN "3150559fa53eb785d44764846d066aa5"
#define STORE_SALT "mox_conf.dat salt"
#define STORE_INFO "mox store v1 aes-256-gcm key"
#define STORE_LENGTH_OFFSET 17   // after the nonce


static void put_be32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

static uint32_t get_be32(const unsigned char *p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// 0 when exactly size bytes were read, -1 on an error or an early end.
static int read_all(int fd, unsigned char *buf, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t got = read(fd, buf + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    done += static_cast<size_t>(got);
  }
  return 0;
}

// 0 when all size bytes were written, -1 with errno set otherwise.
static int write_all(int fd, const unsigned char *buf, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t put = write(fd, buf + done, size - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return -1;
    if (put == 0) {
      errno = EIO;
      return -1;
    }
    done += static_cast<size_t>(put);
  }
  return 0;
}

int store_token_key(const char *salt, const char *info, unsigned char *key) {
  if (salt == nullptr || info == nullptr || key == nullptr) return -1;
  EVP_KDF *kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
  EVP_KDF_CTX *ctx = kdf != nullptr ? EVP_KDF_CTX_new(kdf) : nullptr;
  // The parameters only point at the texts; OpenSSL reads them, never writes.
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>("SHA256"), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<char *>(STORE_TOKEN),
                                        sizeof STORE_TOKEN - 1),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<char *>(salt),
                                        strlen(salt)),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<char *>(info),
                                        strlen(info)),
      OSSL_PARAM_construct_end()};
  int ok = ctx != nullptr && EVP_KDF_derive(ctx, key, STORE_KEY_SIZE, params) > 0;
  EVP_KDF_CTX_free(ctx);
  EVP_KDF_free(kdf);
  if (!ok) OPENSSL_cleanse(key, STORE_KEY_SIZE);
  return ok ? 0 : -1;
}

// Sets up ctx for one GCM operation under the store key, with the header as AAD.
static int start_gcm(EVP_CIPHER_CTX *ctx, int encrypt, const unsigned char *header) {
  unsigned char key[STORE_KEY_SIZE] = {0};
  if (store_token_key(STORE_SALT, STORE_INFO, key) != 0) return -1;
  int len = 0;
  int ok = EVP_CipherInit_ex(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr, encrypt) > 0 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, STORE_NONCE_SIZE, nullptr) > 0 &&
           EVP_CipherInit_ex(ctx, nullptr, nullptr, key, header + STORE_NONCE_OFFSET, encrypt) > 0 &&
           EVP_CipherUpdate(ctx, nullptr, &len, header, STORE_HEADER_SIZE) > 0;
  OPENSSL_cleanse(key, sizeof key);
  return ok ? 0 : -1;
}

// ---- reading ------------------------------------------------------------------

#define PROBLEM_TEXT_SIZE 128

static char last_problem[PROBLEM_TEXT_SIZE];  // why the last load failed; "" after a good one

static int unreadable(const char *reason) {
  DLOG_ERROR("stored parameters unreadable: %s", reason);
  snprintf(last_problem, sizeof last_problem, "%s", reason);  // a cut reason still reads
  return -1;
}

const char *sec_conf_problem(void) { return last_problem; }

// Deciphers the n text bytes that follow the header in fd and checks the
// tag. With out the text lands there (wiped again if the tag fails);
// without, it only passes through a scratch piece that is wiped.
static int open_body(EVP_CIPHER_CTX *ctx, int fd, const unsigned char *header, size_t n,
                     unsigned char *out) {
  if (start_gcm(ctx, 0, header) != 0) return unreadable("cipher set-up failed");
  unsigned char piece[STORE_CHUNK_SIZE] = {0};
  unsigned char scratch[STORE_CHUNK_SIZE] = {0};
  size_t done = 0;
  int ok = 1;
  while (ok && done < n) {
    size_t take = n - done < sizeof piece ? n - done : sizeof piece;
    int len = 0;
    ok = read_all(fd, piece, take) == 0 &&
         EVP_CipherUpdate(ctx, out != nullptr ? out + done : scratch, &len, piece,
                          static_cast<int>(take)) > 0 &&
         static_cast<size_t>(len) == take;
    done += take;
  }
  OPENSSL_cleanse(scratch, sizeof scratch);
  if (!ok) {
    if (out != nullptr) OPENSSL_cleanse(out, n);
    return unreadable("read or decipher failed");
  }
  unsigned char tag[STORE_TAG_SIZE] = {0};
  int len = 0;
  if (read_all(fd, tag, sizeof tag) != 0 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, STORE_TAG_SIZE, tag) <= 0 ||
      EVP_CipherFinal_ex(ctx, scratch, &len) <= 0) {
    // Unauthenticated text never reaches the caller.
    if (out != nullptr) OPENSSL_cleanse(out, n);
    return unreadable("authentication failed (tampered, foreign key or damaged file)");
  }
  return 0;
}

static int open_file(int fd, unsigned char *out, size_t out_size, size_t *text_len) {
  struct stat st;
  if (fstat(fd, &st) != 0) return unreadable("cannot stat the file");
  if (!S_ISREG(st.st_mode)) return unreadable("not a regular file");
  if (st.st_size < STORE_HEADER_SIZE + STORE_TAG_SIZE) return unreadable("file too short");
  unsigned char header[STORE_HEADER_SIZE] = {0};
  if (read_all(fd, header, sizeof header) != 0) return unreadable("cannot read the header");
  if (memcmp(header, STORE_MAGIC, STORE_MAGIC_SIZE) != 0) return unreadable("not a store file");
  if (header[STORE_MAGIC_SIZE] != STORE_VERSION) return unreadable("unknown format version");
  uint32_t n = get_be32(header + STORE_LENGTH_OFFSET);
  if (n > STORE_TEXT_MAX) return unreadable("text length out of range");
  if (st.st_size != static_cast<off_t>(STORE_HEADER_SIZE + n + STORE_TAG_SIZE))
    return unreadable("file size does not match its header");
  if (out != nullptr && n > out_size) return unreadable("text longer than the buffer");
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  if (ctx == nullptr) return unreadable("no cipher context");
  int rc = open_body(ctx, fd, header, n, out);
  EVP_CIPHER_CTX_free(ctx);
  if (rc == 0) *text_len = n;
  return rc;
}

// Reads and authenticates the store; out null checks it only.
// 0 read, 1 no store, -1 unreadable (logged).
static int load_store(unsigned char *out, size_t out_size, size_t *text_len) {
  last_problem[0] = '\0';
  // O_NONBLOCK: something other than a file at the path (a FIFO) must not
  // hang the open; it is refused below as not a regular file.
  int fd = open(STORE_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return 1;
    return unreadable(strerror(errno));
  }
  int rc = open_file(fd, out, out_size, text_len);
  close(fd);
  return rc;
}

int sec_read_conf(char *buf, int *length) {
  if (buf == nullptr || length == nullptr || *length < 0) return unreadable("no buffer");
  size_t text_len = 0;
  int rc = load_store(reinterpret_cast<unsigned char *>(buf), static_cast<size_t>(*length),
                      &text_len);
  if (rc < 0) return -1;
  // Before the first save there is nothing stored: an empty text, so that
  // the first save goes through like any other.
  if (rc == 1) text_len = 0;
  if (text_len < static_cast<size_t>(*length)) buf[text_len] = '\0';
  *length = static_cast<int>(text_len);
  return 0;
}

// ---- writing ------------------------------------------------------------------

static int not_saved(const char *what, int err) {
  if (err != 0)
    DLOG_ERROR("stored parameters not saved: %s: %s", what, strerror(err));
  else
    DLOG_ERROR("stored parameters not saved: %s", what);
  return -1;
}

// Writes header, ciphertext and tag to fd.
static int seal_body(EVP_CIPHER_CTX *ctx, int fd, const unsigned char *header,
                     const unsigned char *text, size_t n) {
  if (start_gcm(ctx, 1, header) != 0) return not_saved("cipher set-up failed", 0);
  if (write_all(fd, header, STORE_HEADER_SIZE) != 0) return not_saved("write failed", errno);
  unsigned char piece[STORE_CHUNK_SIZE] = {0};
  size_t done = 0;
  while (done < n) {
    size_t take = n - done < sizeof piece ? n - done : sizeof piece;
    int len = 0;
    if (EVP_CipherUpdate(ctx, piece, &len, text + done, static_cast<int>(take)) <= 0 ||
        static_cast<size_t>(len) != take)
      return not_saved("encipher failed", 0);
    if (write_all(fd, piece, take) != 0) return not_saved("write failed", errno);
    done += take;
  }
  unsigned char tag[STORE_TAG_SIZE] = {0};
  int len = 0;
  if (EVP_CipherFinal_ex(ctx, piece, &len) <= 0 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, STORE_TAG_SIZE, tag) <= 0)
    return not_saved("encipher failed", 0);
  if (write_all(fd, tag, sizeof tag) != 0) return not_saved("write failed", errno);
  return 0;
}

// Writes the temporary file; 0 written, -1 failed (the temporary file is
// removed then).
static int write_temp(const unsigned char *header, const unsigned char *text, size_t n) {
  // The name is fixed: a leftover goes first, and the file is made anew,
  // never opened, so a link planted at the name is neither followed nor
  // renamed over the store.
  unlink(STORE_TMP_PATH);
  int fd = open(STORE_TMP_PATH, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return not_saved("cannot create " STORE_TMP_PATH, errno);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  int rc = ctx != nullptr ? seal_body(ctx, fd, header, text, n) : not_saved("no cipher context", 0);
  EVP_CIPHER_CTX_free(ctx);
  if (rc == 0 && fsync(fd) != 0) rc = not_saved("sync of " STORE_TMP_PATH " failed", errno);
  if (close(fd) != 0 && rc == 0) rc = not_saved("close of " STORE_TMP_PATH " failed", errno);
  if (rc != 0) unlink(STORE_TMP_PATH);
  return rc;
}

int make_store_dir(void) {
  static const char *const dirs[] = {STORE_PARENT_DIR, STORE_DIR};
  static const mode_t modes[] = {0755, 0700};
  for (size_t i = 0; i < sizeof dirs / sizeof dirs[0]; i++)
    if (mkdir(dirs[i], modes[i]) != 0 && errno != EEXIST) return -1;
  return 0;
}

static int sync_dir(void) {
  int fd = open(STORE_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return not_saved("cannot open " STORE_DIR, errno);
  int rc = fsync(fd) == 0 ? 0 : not_saved("sync of " STORE_DIR " failed", errno);
  close(fd);
  return rc;
}

int sec_write_conf(const char *text, int length) {
  if (length < 0 || length > STORE_TEXT_MAX) return not_saved("text length out of range", 0);
  if (text == nullptr && length > 0) return not_saved("no text", 0);
  if (make_store_dir() != 0) return not_saved("cannot create " STORE_DIR, errno);
  size_t unused = 0;
  if (load_store(nullptr, 0, &unused) < 0)
    return not_saved("the existing store does not read and is kept as it is", 0);

  unsigned char header[STORE_HEADER_SIZE] = {0};
  memcpy(header, STORE_MAGIC, STORE_MAGIC_SIZE);
  header[STORE_MAGIC_SIZE] = STORE_VERSION;
  // A nonce must never repeat under the one key; without fresh randomness
  // nothing is written at all.
  if (RAND_bytes(header + STORE_NONCE_OFFSET, STORE_NONCE_SIZE) != 1)
    return not_saved("no random nonce", 0);
  put_be32(header + STORE_LENGTH_OFFSET, static_cast<uint32_t>(length));

  int rc = write_temp(header, reinterpret_cast<const unsigned char *>(text),
                      static_cast<size_t>(length));
  if (rc != 0) return -1;
  if (rename(STORE_TMP_PATH, STORE_PATH) != 0) {
    int err = errno;
    unlink(STORE_TMP_PATH);
    return not_saved("rename over " STORE_PATH " failed", err);
  }
  // The new text is in place; only its survival of a power cut is in doubt.
  return sync_dir();
}
