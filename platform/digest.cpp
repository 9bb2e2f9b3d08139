// Digests through OpenSSL's one-shot-context calls. OpenSSL 3 marks the
// SHA256_* and MD5_* calls deprecated in favour of EVP; they are kept here
// because they need no heap-allocated context, so the warning is silenced
// for this file only.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

int sha256_digest(const unsigned char *data, size_t len, unsigned char *out) {
  SHA256_CTX context;
  unsigned char digest[SHA256_SIZE];
  SHA256_Init(&context);
  SHA256_Update(&context, data, len);
  SHA256_Final(digest, &context);
  OPENSSL_cleanse(&context, sizeof context);
  memcpy(out, digest, SHA256_SIZE);
  return 0;
}

int file_md5_matches(const char *path, const char *expected_hex) {
  if (path == nullptr || expected_hex == nullptr) return 1;
  long size = get_file_size(path);
  if (size < 0) return 1;
  unsigned char *data = static_cast<unsigned char *>(malloc(static_cast<size_t>(size) + 1));
  if (data == nullptr) return 1;
  // Read-write on purpose: a file this process cannot write does not match.
  int fd = open(path, O_RDWR);
  if (fd < 0) {
    free(data);
    return 1;
  }
  ssize_t got = read(fd, data, static_cast<size_t>(size));
  close(fd);
  if (got < 0) {
    free(data);
    return 1;
  }
  MD5_CTX context;
  unsigned char digest[MD5_DIGEST_LENGTH];
  MD5_Init(&context);
  MD5_Update(&context, data, static_cast<size_t>(got));
  MD5_Final(digest, &context);
  free(data);

  char hex[MD5_DIGEST_LENGTH * 2 + 1];
  hex_text(digest, MD5_DIGEST_LENGTH, hex);
  return strcmp(hex, expected_hex) == 0 ? 0 : 1;
}
