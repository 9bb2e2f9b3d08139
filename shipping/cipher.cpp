// Sealing a message for the collector: a one-time AES-256-GCM key and
// nonce, the key wrapped with the collector's RSA public key. Only the
// holder of the private key reads the content, and any change to a byte of
// the message (its header included) fails the tag on the way in.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "logging/logging.h"
#include "ship_keys.h"
#include "shipping/shipping.h"

const char *ship_public_key(char kind) {
  if (kind == SHIP_KIND_ATTACK) return SHIP_ATTACK_PUBKEY;
  if (kind == SHIP_KIND_ACCESS) return SHIP_ACCESS_PUBKEY;
  return NULL;
}

const char *seal_error_text(int code) {
  switch (code) {
    case SEAL_BAD_ARGUMENT: return "message too large or bad argument";
    case SEAL_NO_MEMORY: return "out of memory";
    case SEAL_KEY_FAILED: return "public key wrapping failed";
    case SEAL_CIPHER_FAILED: return "AES-GCM failed";
    case SEAL_NOT_SIGNED: return "no device key to sign with";
    default: return "unknown error";
  }
}

// Parsing a PEM key costs far more than wrapping one message key with it,
// so each key text is parsed once and kept for the life of the process,
// found again by its content. The daemon has two texts; tests a few more.
#define KEY_CACHE_SLOTS 8
static pthread_mutex_t key_cache_lock = PTHREAD_MUTEX_INITIALIZER;
static struct {
  char *pem;             // a copy of the text
  EVP_PKEY *key;
} key_cache[KEY_CACHE_SLOTS];

// The parsed RSA public key of pem with a reference of the caller's own
// (EVP_PKEY_free it), from the cache or parsed now. Null when it does not
// parse as RSA ("Failed to create key BIO", "Failed to create RSA" logged).
static EVP_PKEY *public_key_of(const char *pem) {
  EVP_PKEY *found = NULL;
  pthread_mutex_lock(&key_cache_lock);
  for (int i = 0; i < KEY_CACHE_SLOTS && found == NULL; i++)
    if (key_cache[i].key != NULL && strcmp(key_cache[i].pem, pem) == 0 &&
        EVP_PKEY_up_ref(key_cache[i].key) == 1)
      found = key_cache[i].key;
  pthread_mutex_unlock(&key_cache_lock);
  if (found != NULL) return found;

  BIO *bio = BIO_new_mem_buf(pem, -1);
  if (bio == NULL) {
    DLOG_ERROR("Failed to create key BIO");
    return NULL;
  }
  EVP_PKEY *key = PEM_read_bio_PUBKEY(bio, NULL, NULL, NULL);
  BIO_free(bio);
  if (key == NULL || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    DLOG_ERROR("Failed to create RSA");
    EVP_PKEY_free(key);
    ERR_clear_error();
    return NULL;
  }
  // Kept while a slot is free; past that the key is parsed at every use.
  pthread_mutex_lock(&key_cache_lock);
  for (int i = 0; i < KEY_CACHE_SLOTS; i++) {
    if (key_cache[i].key != NULL) continue;
    char *copy = strdup(pem);
    if (copy != NULL && EVP_PKEY_up_ref(key) == 1) {
      key_cache[i].pem = copy;
      key_cache[i].key = key;
    } else {
      free(copy);
    }
    break;
  }
  pthread_mutex_unlock(&key_cache_lock);
  return key;
}

int public_encrypt(const char *pem, const unsigned char *data, size_t len, unsigned char *out,
                   size_t out_size) {
  if (pem == NULL || data == NULL || out == NULL) return -1;
  EVP_PKEY *key = public_key_of(pem);
  if (key == NULL) return -1;

  int result = -1;
  size_t written = out_size;
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, NULL);
  if (ctx != NULL && EVP_PKEY_encrypt_init(ctx) > 0 &&
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) > 0 &&
      EVP_PKEY_CTX_set_rsa_oaep_md(ctx, EVP_sha256()) > 0 &&
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_sha256()) > 0 &&
      EVP_PKEY_encrypt(ctx, out, &written, data, len) > 0) {
    result = (int)written;
  } else {
    // Also a key too small for OAEP or an out too small for the modulus.
    DLOG_ERROR("RSA-OAEP encryption failed: %s", ERR_reason_error_string(ERR_peek_last_error()));
    ERR_clear_error();
  }
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(key);
  return result;
}

static void put_be16(unsigned char *p, uint32_t v) {
  p[0] = (unsigned char)(v >> 8);
  p[1] = (unsigned char)v;
}

static void put_be32(unsigned char *p, uint32_t v) {
  p[0] = (unsigned char)(v >> 24);
  p[1] = (unsigned char)(v >> 16);
  p[2] = (unsigned char)(v >> 8);
  p[3] = (unsigned char)v;
}

static void put_be64(unsigned char *p, uint64_t v) {
  put_be32(p, (uint32_t)(v >> 32));
  put_be32(p + 4, (uint32_t)v);
}

// AES-256-GCM of payload into ct (same length) and tag; the header before
// the ciphertext is the additional data. 0, or -1.
static int gcm_encrypt(const unsigned char *key, const unsigned char *nonce,
                       const unsigned char *aad, size_t aad_len, const unsigned char *payload,
                       size_t len, unsigned char *ct, unsigned char *tag) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  if (ctx == NULL) return -1;
  int n = 0;
  int ok = EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), NULL, NULL, NULL) > 0 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, SHIP_NONCE_SIZE, NULL) > 0 &&
           EVP_EncryptInit_ex(ctx, NULL, NULL, key, nonce) > 0 &&
           EVP_EncryptUpdate(ctx, NULL, &n, aad, (int)aad_len) > 0;
  int done = 0;
  if (ok && len > 0) {
    ok = EVP_EncryptUpdate(ctx, ct, &n, payload, (int)len) > 0;
    done = n;
  }
  ok = ok && EVP_EncryptFinal_ex(ctx, ct + done, &n) > 0 &&
       EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, SHIP_TAG_SIZE, tag) > 0;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) ERR_clear_error();
  return ok ? 0 : -1;
}

int seal_message(char kind, const char *pem, const SealMeta *meta, const unsigned char *payload,
                 size_t len, uint32_t raw_len, char *out, size_t out_size) {
  if (out == NULL || out_size == 0) return SEAL_BAD_ARGUMENT;
  out[0] = '\0';
  if ((kind != SHIP_KIND_ATTACK && kind != SHIP_KIND_ACCESS) || pem == NULL || meta == NULL ||
      (payload == NULL && len > 0) || len > SHIP_PLAIN_MAX)
    return SEAL_BAD_ARGUMENT;
  size_t device_len = strnlen(meta->device, sizeof meta->device);
  if (device_len >= sizeof meta->device) return SEAL_BAD_ARGUMENT;

  // The identity and the signing key travel enciphered in front of the
  // content, the signature behind it: who sent it is nobody's business but
  // the collector's. The kind letter goes in front of what is signed, so a
  // signed plaintext cannot pass for the other kind.
  size_t meta_len = 8 + 8 + 1 + device_len + SHIP_SIGN_KEY_SIZE;
  unsigned char *signed_text = (unsigned char *)malloc(1 + meta_len + len + SHIP_SIGNATURE_SIZE);
  unsigned char *bin = (unsigned char *)malloc(SHIP_SEALED_MAX(len));
  if (bin == NULL || signed_text == NULL) {
    free(bin);
    free(signed_text);
    return SEAL_NO_MEMORY;
  }
  signed_text[0] = (unsigned char)kind;
  unsigned char *plain = signed_text + 1;
  put_be64(plain, meta->epoch);
  put_be64(plain + 8, meta->seq);
  plain[16] = (unsigned char)device_len;
  memcpy(plain + 17, meta->device, device_len);
  if (len > 0) memcpy(plain + meta_len, payload, len);
  if (device_key_public(plain + 17 + device_len) != 0 ||
      device_key_sign(signed_text, 1 + meta_len + len, plain + meta_len + len) != 0) {
    free(bin);
    free(signed_text);
    return SEAL_NOT_SIGNED;
  }
  size_t plain_len = meta_len + len + SHIP_SIGNATURE_SIZE;

  unsigned char key[SHIP_AES_KEY_SIZE];
  memset(key, 0, sizeof key);
  int result = SEAL_KEY_FAILED;
  size_t at = 4;
  int wrapped = -1;
  // A fresh key and nonce per message, so a nonce is never used twice
  // under one key, whatever the random source repeats across boots.
  if (RAND_bytes(key, sizeof key) > 0)
    wrapped = public_encrypt(pem, key, sizeof key, bin + at, SHIP_WRAPPED_KEY_MAX);
  if (wrapped > 0) {
    bin[0] = SHIP_WIRE_VERSION;
    bin[1] = (unsigned char)kind;
    put_be16(bin + 2, (uint32_t)wrapped);
    at += (size_t)wrapped;
    unsigned char *nonce = bin + at;
    at += SHIP_NONCE_SIZE;
    result = SEAL_CIPHER_FAILED;
    if (RAND_bytes(nonce, SHIP_NONCE_SIZE) > 0) {
      if (kind == SHIP_KIND_ACCESS) {
        put_be32(bin + at, raw_len);
        at += 4;
      }
      if (gcm_encrypt(key, nonce, bin, at, plain, plain_len, bin + at, bin + at + plain_len) ==
          0) {
        size_t total = at + plain_len + SHIP_TAG_SIZE;
        if (SHIP_BASE64_SIZE(total) > out_size) {
          result = SEAL_BAD_ARGUMENT;
        } else {
          result = EVP_EncodeBlock((unsigned char *)out, bin, (int)total);
        }
      }
    }
  }
  OPENSSL_cleanse(key, sizeof key);
  free(bin);
  free(signed_text);
  if (result < 0) {
    out[0] = '\0';
    ERR_clear_error();
  }
  return result;
}
