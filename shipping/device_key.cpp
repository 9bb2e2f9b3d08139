// The device's own signing key. The collector's public keys ship in every
// firmware image, so sealing alone proves nothing about the sender: anyone
// with an image could seal a report for any device. Each device therefore
// makes an Ed25519 pair at its first start, keeps the private half where
// only root reads it, and signs every message inside the seal; a collector
// pins the public half on first sight (or has it enrolled ahead).
#include <errno.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <stdio.h>
#include <string.h>

#include "logging/logging.h"
#include "platform/platform.h"
#include "shipping/shipping.h"

#define KEY_PEM_MAX 1024   // an Ed25519 PKCS#8 PEM is 119 bytes

// Set on the main thread before the sender's threads start; read-only after.
static EVP_PKEY *device_key;
static unsigned char device_public[SHIP_SIGN_KEY_SIZE];

// The Ed25519 key in path, or null when missing or not one.
static EVP_PKEY *read_key(const char *path, int *missing) {
  char pem[KEY_PEM_MAX + 1];
  memset(pem, 0, sizeof pem);
  errno = 0;
  ssize_t n = read_file(path, pem, KEY_PEM_MAX);
  *missing = n < 0 && errno == ENOENT;
  if (n <= 0) return NULL;
  BIO *bio = BIO_new_mem_buf(pem, (int)n);
  // An empty passphrase: an enciphered key fails here instead of prompting
  // on a terminal the daemon does not have.
  EVP_PKEY *key = bio != NULL ? PEM_read_bio_PrivateKey(bio, NULL, NULL, (void *)"") : NULL;
  BIO_free(bio);
  OPENSSL_cleanse(pem, sizeof pem);
  if (key != NULL && EVP_PKEY_get_base_id(key) != EVP_PKEY_ED25519) {
    EVP_PKEY_free(key);
    key = NULL;
  }
  ERR_clear_error();
  return key;
}

// A new pair, written to path (0600, whole or not at all). The key, kept
// in memory even when it could not be written.
static EVP_PKEY *make_key(const char *path) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(NULL, NULL, "ED25519");
  if (key == NULL) {
    ERR_clear_error();
    DLOG_ERROR("device key: Ed25519 key generation failed");
    return NULL;
  }
  BIO *bio = BIO_new(BIO_s_mem());
  char *pem = NULL;
  long len = 0;
  if (bio != NULL && PEM_write_bio_PrivateKey(bio, key, NULL, NULL, 0, NULL, NULL) == 1)
    len = BIO_get_mem_data(bio, &pem);
  if (len <= 0 || replace_file(path, pem, (size_t)len, 0600) != 0)
    DLOG_ERROR("device key not saved to %s: %s; a restart will make another", path,
               strerror(errno));
  else
    DLOG_INFO("device key made: %s", path);
  BIO_free_all(bio);
  ERR_clear_error();
  return key;
}

int device_key_load(const char *path) {
  int missing = 0;
  EVP_PKEY *key = read_key(path, &missing);
  if (key == NULL && !missing) {
    // Never overwritten: it is kept aside, and a new key (which collectors
    // that pinned the old one refuse until re-enrolled) takes its place.
    char aside[MAKE_DIRS_PATH_SIZE];
    int n = snprintf(aside, sizeof aside, "%s.bad", path);
    if (n < 0 || (size_t)n >= sizeof aside || rename(path, aside) != 0) {
      DLOG_ERROR("device key %s unreadable and not moved aside: messages cannot be signed", path);
      return -1;
    }
    DLOG_ERROR("device key %s unreadable, kept as %s; a new key replaces it", path, aside);
  }
  if (key == NULL) key = make_key(path);
  if (key == NULL) return -1;
  size_t len = sizeof device_public;
  if (EVP_PKEY_get_raw_public_key(key, device_public, &len) != 1 || len != sizeof device_public) {
    ERR_clear_error();
    EVP_PKEY_free(key);
    return -1;
  }
  EVP_PKEY_free(device_key);
  device_key = key;
  return 0;
}

int device_key_public(unsigned char *out) {
  if (device_key == NULL) return -1;
  memcpy(out, device_public, sizeof device_public);
  return 0;
}

int device_key_sign(const unsigned char *data, size_t len, unsigned char *signature) {
  if (device_key == NULL) return -1;
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  size_t sig_len = SHIP_SIGNATURE_SIZE;
  int ok = ctx != NULL && EVP_DigestSignInit(ctx, NULL, NULL, NULL, device_key) == 1 &&
           EVP_DigestSign(ctx, signature, &sig_len, data, len) == 1 &&
           sig_len == SHIP_SIGNATURE_SIZE;
  EVP_MD_CTX_free(ctx);
  if (!ok) ERR_clear_error();
  return ok ? 0 : -1;
}

int device_signature_ok(const unsigned char *public_key, const unsigned char *data, size_t len,
                        const unsigned char *signature) {
  EVP_PKEY *key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, NULL, public_key,
                                              SHIP_SIGN_KEY_SIZE);
  EVP_MD_CTX *ctx = key != NULL ? EVP_MD_CTX_new() : NULL;
  int ok = ctx != NULL && EVP_DigestVerifyInit(ctx, NULL, NULL, NULL, key) == 1 &&
           EVP_DigestVerify(ctx, signature, SHIP_SIGNATURE_SIZE, data, len) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  ERR_clear_error();
  return ok;
}

void key_hex(const unsigned char *key, char *out) { hex_text(key, SHIP_SIGN_KEY_SIZE, out); }
