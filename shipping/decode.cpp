// The collector's side of the seal: find the payload in whatever the
// receiver kept, check its layout, unwrap the message key with one of the
// private keys, and open (and for an access block, inflate) the content.
// Nothing here trusts a length from the wire before checking it against
// the bytes actually there.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include "platform/platform.h"
#include "shipping/shipping.h"

#define KEY_FILE_MAX 65536   // a PEM private key is a few kilobytes

const char *open_error_text(int code) {
  switch (code) {
    case OPEN_NO_MARKER: return "no MOX3 (or MOX2, MOX1) message";
    case OPEN_MALFORMED: return "malformed message";
    case OPEN_NO_KEY: return "no key opens the message";
    case OPEN_TAMPERED: return "message fails its authentication tag";
    case OPEN_BAD_BLOCK: return "access block does not decompress";
    case OPEN_NO_MEMORY: return "out of memory";
    case OPEN_BAD_SIGNATURE: return "device signature does not verify";
    default: return "unknown error";
  }
}

// An encrypted PEM would make OpenSSL prompt on the terminal; refuse it.
static int no_passphrase(char *buf, int size, int rwflag, void *u) {
  (void)buf;
  (void)size;
  (void)rwflag;
  (void)u;
  return -1;
}

static EVP_PKEY *parse_private_key(const char *pem) {
  BIO *bio = BIO_new_mem_buf(pem, -1);
  if (bio == NULL) return NULL;
  EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, NULL, no_passphrase, NULL);
  BIO_free(bio);
  if (key != NULL && EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    EVP_PKEY_free(key);
    key = NULL;
  }
  ERR_clear_error();
  return key;
}

int load_private_key_text(const char *path, char **pem) {
  if (pem == NULL) return -1;
  *pem = NULL;
  if (path == NULL) return -1;
  char *text = (char *)calloc(1, KEY_FILE_MAX);
  if (text == NULL) return -1;
  ssize_t n = read_file(path, text, KEY_FILE_MAX - 1);
  EVP_PKEY *key = n > 0 ? parse_private_key(text) : NULL;
  if (key == NULL) {
    free(text);
    return -1;
  }
  EVP_PKEY_free(key);
  *pem = text;
  return 0;
}

static int is_base64_char(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=';
}

static uint32_t get_be16(const unsigned char *p) { return (uint32_t)p[0] << 8 | p[1]; }

static uint32_t get_be32(const unsigned char *p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

static uint64_t get_be64(const unsigned char *p) {
  return (uint64_t)get_be32(p) << 32 | get_be32(p + 4);
}

// RSA-OAEP (SHA-256) unwrap of the message key. 0, or -1.
static int unwrap_key(const char *pem, const unsigned char *wrapped, size_t wrapped_len,
                      unsigned char *key) {
  EVP_PKEY *pkey = parse_private_key(pem);
  if (pkey == NULL) return -1;
  unsigned char out[SHIP_WRAPPED_KEY_MAX];
  size_t out_len = sizeof out;
  int ok = 0;
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(pkey, NULL);
  if (ctx != NULL && EVP_PKEY_get_size(pkey) <= (int)sizeof out &&
      EVP_PKEY_decrypt_init(ctx) > 0 &&
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) > 0 &&
      EVP_PKEY_CTX_set_rsa_oaep_md(ctx, EVP_sha256()) > 0 &&
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_sha256()) > 0 &&
      EVP_PKEY_decrypt(ctx, out, &out_len, wrapped, wrapped_len) > 0 &&
      out_len == SHIP_AES_KEY_SIZE) {
    memcpy(key, out, SHIP_AES_KEY_SIZE);
    ok = 1;
  }
  OPENSSL_cleanse(out, sizeof out);
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  ERR_clear_error();
  return ok ? 0 : -1;
}

// AES-256-GCM open of ct into plain, checking the tag over aad and ct.
// 0, or -1.
static int gcm_decrypt(const unsigned char *key, const unsigned char *nonce,
                       const unsigned char *aad, size_t aad_len, const unsigned char *ct,
                       size_t ct_len, const unsigned char *tag, unsigned char *plain) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  if (ctx == NULL) return -1;
  unsigned char tag_copy[SHIP_TAG_SIZE];
  memcpy(tag_copy, tag, sizeof tag_copy);
  int n = 0;
  int ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_gcm(), NULL, NULL, NULL) > 0 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, SHIP_NONCE_SIZE, NULL) > 0 &&
           EVP_DecryptInit_ex(ctx, NULL, NULL, key, nonce) > 0 &&
           EVP_DecryptUpdate(ctx, NULL, &n, aad, (int)aad_len) > 0;
  int done = 0;
  if (ok && ct_len > 0) {
    ok = EVP_DecryptUpdate(ctx, plain, &n, ct, (int)ct_len) > 0;
    done = n;
  }
  ok = ok && EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, SHIP_TAG_SIZE, tag_copy) > 0 &&
       EVP_DecryptFinal_ex(ctx, plain + done, &n) > 0;
  EVP_CIPHER_CTX_free(ctx);
  ERR_clear_error();
  return ok ? 0 : -1;
}

// The sealed binary, checked and opened. On success *plain is the content
// (inflated for an access block), terminated one byte past *plain_len.
static int open_binary(int version, char kind, const unsigned char *bin, size_t len,
                       const char *const *keys, int key_count, SealMeta *meta,
                       unsigned char **plain, size_t *plain_len) {
  if (len < 4 || bin[0] != version || bin[1] != (unsigned char)kind) return OPEN_MALFORMED;
  size_t wrapped_len = get_be16(bin + 2);
  size_t at = 4;
  if (wrapped_len == 0 || wrapped_len > SHIP_WRAPPED_KEY_MAX) return OPEN_MALFORMED;
  const unsigned char *wrapped = bin + at;
  at += wrapped_len;
  const unsigned char *nonce = bin + at;
  at += SHIP_NONCE_SIZE;
  uint32_t raw_len = 0;
  if (kind == SHIP_KIND_ACCESS) {
    if (at + 4 > len) return OPEN_MALFORMED;
    raw_len = get_be32(bin + at);
    at += 4;
    if (raw_len > SHIP_PLAIN_MAX) return OPEN_MALFORMED;
  }
  if (at + SHIP_TAG_SIZE > len) return OPEN_MALFORMED;
  size_t ct_len = len - at - SHIP_TAG_SIZE;

  // One byte in front for the kind letter, which the signature covers.
  unsigned char *signed_text = (unsigned char *)malloc(ct_len + 2);
  if (signed_text == NULL) return OPEN_NO_MEMORY;
  signed_text[0] = (unsigned char)kind;
  unsigned char *opened = signed_text + 1;
  int result = OPEN_NO_KEY;
  for (int i = 0; i < key_count && result != 0; i++) {
    unsigned char key[SHIP_AES_KEY_SIZE];
    if (keys[i] == NULL || unwrap_key(keys[i], wrapped, wrapped_len, key) != 0) continue;
    result = gcm_decrypt(key, nonce, bin, at, bin + at, ct_len, bin + at + ct_len, opened) == 0
                 ? 0
                 : OPEN_TAMPERED;
    OPENSSL_cleanse(key, sizeof key);
  }
  if (result != 0) {
    free(signed_text);
    return result;
  }
  // The sender's identity leads the content from the second layout on; the
  // third adds the signing key behind it and the signature at the end.
  size_t meta_len = 0, tail_len = 0;
  SealMeta who;
  memset(&who, 0, sizeof who);
  if (version != SHIP_WIRE_VERSION_V1) {
    size_t device_len = ct_len >= 17 ? opened[16] : 0;
    size_t key_len = version == SHIP_WIRE_VERSION ? SHIP_SIGN_KEY_SIZE : 0;
    tail_len = version == SHIP_WIRE_VERSION ? SHIP_SIGNATURE_SIZE : 0;
    if (ct_len < 17 || device_len >= sizeof who.device ||
        17 + device_len + key_len + tail_len > ct_len) {
      free(signed_text);
      return OPEN_MALFORMED;
    }
    who.epoch = get_be64(opened);
    who.seq = get_be64(opened + 8);
    memcpy(who.device, opened + 17, device_len);
    meta_len = 17 + device_len + key_len;
    if (key_len > 0) {
      memcpy(who.signer, opened + 17 + device_len, key_len);
      if (!device_signature_ok(who.signer, signed_text, 1 + ct_len - tail_len,
                               opened + ct_len - tail_len)) {
        free(signed_text);
        return OPEN_BAD_SIGNATURE;
      }
      who.signed_by_key = 1;
    }
  }
  if (meta != NULL) *meta = who;
  const unsigned char *content = opened + meta_len;
  size_t content_len = ct_len - meta_len - tail_len;
  if (kind == SHIP_KIND_ATTACK) {
    memmove(signed_text, content, content_len);
    signed_text[content_len] = '\0';
    *plain = signed_text;
    *plain_len = content_len;
    return 0;
  }

  // The recorded length bounds the inflation: a block that would grow past
  // it is refused, not followed.
  unsigned char *block = (unsigned char *)malloc((size_t)raw_len + 1);
  if (block == NULL) {
    free(signed_text);
    return OPEN_NO_MEMORY;
  }
  uLongf got = raw_len;
  int z = uncompress(block, &got, content, (uLong)content_len);
  free(signed_text);
  if (z != Z_OK || got != raw_len) {
    free(block);
    return OPEN_BAD_BLOCK;
  }
  block[raw_len] = '\0';
  *plain = block;
  *plain_len = raw_len;
  return 0;
}

// The last occurrence of marker in len bytes of text, or null.
static const char *last_marker(const char *text, size_t len, const char *marker) {
  const char *found = NULL;
  size_t m = strlen(marker);
  for (const char *p = text; (size_t)(text + len - p) >= m;) {
    const char *hit = (const char *)memmem(p, (size_t)(text + len - p), marker, m);
    if (hit == NULL) break;
    found = hit;
    p = hit + 1;
  }
  return found;
}

int open_sealed_message(const char *text, size_t len, const char *const *keys, int key_count,
                        char *kind, SealMeta *meta, unsigned char **plain, size_t *plain_len) {
  if (plain == NULL || plain_len == NULL || kind == NULL) return OPEN_MALFORMED;
  *plain = NULL;
  *plain_len = 0;
  *kind = '\0';
  if (meta != NULL) memset(meta, 0, sizeof *meta);
  if (text == NULL) return OPEN_NO_MARKER;
  // The current marker, else an older layout's: old captures still open.
  // The last marker: a host name may end in one, the base64 never holds a
  // blank.
  static const struct {
    const char *marker;
    int version;
  } layouts[] = {{SHIP_MARKER, SHIP_WIRE_VERSION},
                 {SHIP_MARKER_V2, SHIP_WIRE_VERSION_V2},
                 {SHIP_MARKER_V1, SHIP_WIRE_VERSION_V1}};
  static_assert(sizeof SHIP_MARKER == sizeof SHIP_MARKER_V2 &&
                    sizeof SHIP_MARKER == sizeof SHIP_MARKER_V1, "markers of one length");
  int version = 0;
  const char *marker = NULL;
  for (size_t i = 0; i < sizeof layouts / sizeof layouts[0] && marker == NULL; i++) {
    marker = last_marker(text, len, layouts[i].marker);
    version = layouts[i].version;
  }
  if (marker == NULL) return OPEN_NO_MARKER;
  const char *p = marker + strlen(SHIP_MARKER);
  const char *end = text + len;
  if (end - p < 2 || (p[0] != SHIP_KIND_ATTACK && p[0] != SHIP_KIND_ACCESS) || p[1] != ' ')
    return OPEN_MALFORMED;
  char k = p[0];
  const char *b64 = p + 2;
  const char *q = b64;
  while (q < end && is_base64_char((unsigned char)*q)) q++;
  size_t b64_len = (size_t)(q - b64);
  for (; q < end; q++)
    if (!is_space_char((unsigned char)*q)) return OPEN_MALFORMED;
  if (b64_len == 0 || b64_len % 4 != 0 ||
      b64_len > SHIP_BASE64_SIZE(SHIP_SEALED_MAX((size_t)SHIP_PLAIN_MAX)))
    return OPEN_MALFORMED;

  unsigned char *bin = (unsigned char *)malloc(b64_len / 4 * 3 + 1);
  if (bin == NULL) return OPEN_NO_MEMORY;
  int n = EVP_DecodeBlock(bin, (const unsigned char *)b64, (int)b64_len);
  // The decoder counts padding as zero bytes; the real length is shorter.
  size_t pad = (b64[b64_len - 1] == '=') + (b64[b64_len - 2] == '=');
  int result = OPEN_MALFORMED;
  if (n >= 0 && (size_t)n >= pad)
    result = open_binary(version, k, bin, (size_t)n - pad, keys, key_count, meta, plain, plain_len);
  free(bin);
  if (result == 0) *kind = k;
  return result;
}
