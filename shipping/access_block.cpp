// An access block on its way out: compressed first (records are repetitive
// text and shrink several times, while ciphertext would not shrink at all),
// then sealed for the access key and framed.
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include "logging/logging.h"
#include "shipping/shipping.h"

int compress_data(const unsigned char *data, size_t len, unsigned char **out, size_t *out_len) {
  if (out == NULL || out_len == NULL) return -1;
  *out = NULL;
  *out_len = 0;
  if (data == NULL && len > 0) return -1;
  uLong bound = compressBound((uLong)len);
  unsigned char *buf = (unsigned char *)malloc(bound);
  if (buf == NULL) {
    DLOG_ERROR("No enough memory!");
    return -1;
  }
  uLongf got = bound;
  static const unsigned char nothing[1] = {0};
  if (compress(buf, &got, data != NULL ? data : nothing, (uLong)len) != Z_OK) {
    DLOG_ERROR("Compress failed!");
    free(buf);
    return -1;
  }
  *out = buf;
  *out_len = got;
  return 0;
}

int build_encrypted_logs(const char *block, size_t len, char **out) {
  if (out == NULL) return -1;
  *out = NULL;
  DLOG_INFO("preprocess date, len= %d", (int)len);
  if ((block == NULL && len > 0) || len > SHIP_PLAIN_MAX) {
    DLOG_ERROR("access block of %lu bytes refused", (unsigned long)len);
    return -1;
  }

  unsigned char *packed = NULL;
  size_t packed_len = 0;
  if (compress_data((const unsigned char *)block, len, &packed, &packed_len) != 0) return -1;

  size_t text_size = SHIP_BASE64_SIZE(SHIP_SEALED_MAX(packed_len));
  size_t frame_size = SHIP_FRAME_HEAD_SIZE + text_size;
  char *text = (char *)malloc(text_size);
  char *frame = (char *)malloc(frame_size);
  int n = -1;
  if (text == NULL || frame == NULL) {
    // Not compress_data's "No enough memory!": a reader of the log finds
    // that text under compress_data alone.
    DLOG_ERROR("no memory for the sealed access block");
  } else {
    int sealed = seal_message(SHIP_KIND_ACCESS, ship_public_key(SHIP_KIND_ACCESS), packed,
                              packed_len, (uint32_t)len, text, text_size);
    if (sealed < 0)
      DLOG_ERROR("encrypt access log error:%s", seal_error_text(sealed));
    else
      n = frame_syslog_message(SHIP_KIND_ACCESS, text, frame, frame_size);
  }
  free(packed);
  free(text);
  if (n < 0) {
    free(frame);
    return -1;
  }
  *out = frame;
  return n;
}
