// open_sealed_message as mox_logdecode calls it: on the input, then on the
// input sealed for the development key of the kind the first byte picks (bit
// 0 access, bit 1 compressed), which must open whole with its sender's identity.
#include <vector>

#include "fuzz/fuzz.h"
#include "shipping/shipping.h"

static char *keys[2];         // private: attack, access
static std::string publics[2];

void fuzz_setup(void) {
  const char *names[2] = {"attack", "access"};
  for (int i = 0; i < 2; i++) {
    std::string stem = std::string(MOX_SOURCE_DIR "/keys/dev/") + names[i];
    if (load_private_key_text((stem + "_private.pem").c_str(), &keys[i]) != 0) fuzz_die("key");
    publics[i] = fuzz_slurp((stem + "_public.pem").c_str());
  }
  if (device_key_load(MOX_SOURCE_DIR "/keys/dev/device_key.pem") != 0) fuzz_die("device key");
}

// open_sealed_message with both keys, checking what every result promises.
static int open_text(const char *text, size_t len, char *kind, SealMeta *meta, std::string *out) {
  unsigned char *plain = NULL;
  size_t plain_len = 0;
  int rc = open_sealed_message(text, len, keys, 2, kind, meta, &plain, &plain_len);
  FUZZ_CHECK(rc == 0 ? plain != NULL && plain[plain_len] == '\0' : plain == NULL && rc >= -7);
  if (plain != NULL) out->assign((const char *)plain, plain_len);
  free(plain);
  return rc;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  char kind = 0;
  SealMeta meta, sent;
  std::string plain;
  open_text((const char *)data, size, &kind, &meta, &plain);
  if (size < 1) return 0;

  int access = data[0] & 1, compress = access && (data[0] & 2);
  const unsigned char *payload = data + 1;
  size_t len = size - 1, sealed_len = len;
  unsigned char *packed = NULL;
  if (compress && compress_data(payload, len, &packed, &sealed_len) != 0) return 0;
  memset(&sent, 0, sizeof sent);
  sent.epoch = size;
  sent.seq = data[0] + 1;
  memcpy(sent.device, payload, len < sizeof sent.device - 1 ? len : sizeof sent.device - 1);
  char k = access ? SHIP_KIND_ACCESS : SHIP_KIND_ATTACK;
  std::vector<char> text(SHIP_BASE64_SIZE(SHIP_SEALED_MAX(sealed_len)));
  int n = seal_message(k, publics[access].c_str(), &sent, packed != NULL ? packed : payload,
                       sealed_len, (uint32_t)len, text.data(), text.size());
  free(packed);
  FUZZ_CHECK(n > 0);
  std::vector<char> message(SHIP_FRAME_HEAD_SIZE + (size_t)n + 1);
  int m = format_syslog_message(k, text.data(), message.data(), message.size());
  FUZZ_CHECK(m > 0);

  int rc = open_text(message.data(), (size_t)m, &kind, &meta, &plain);
  if (access && !compress) {
    FUZZ_CHECK(rc == 0 ? plain.size() == len : rc == OPEN_BAD_BLOCK);
    return 0;
  }
  FUZZ_CHECK(rc == 0 && kind == k && plain == std::string((const char *)payload, len));
  FUZZ_CHECK(meta.epoch == sent.epoch && meta.seq == sent.seq && !strcmp(meta.device, sent.device));
  FUZZ_CHECK(meta.signed_by_key);
  return 0;
}
