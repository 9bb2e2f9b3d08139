// An access block on its way out: compressed first (records are repetitive
// text and shrink several times, while ciphertext would not shrink at all),
// then sealed for the access key and framed.
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include "logging/logging.h"
#include "shipping/shipping.h"

// A deflate state costs a few hundred kilobytes to set up, far more than
// compressing one block; each thread keeps one and resets it per block.
namespace {
struct Deflater {
  z_stream stream;
  int ready;  // 1 once deflateInit succeeded
  Deflater() : stream(), ready(0) {}
  ~Deflater() {
    if (ready) deflateEnd(&stream);
  }
};
thread_local Deflater deflater;
}  // namespace

int compress_data(const unsigned char *data, size_t len, unsigned char **out, size_t *out_len) {
  if (out == NULL || out_len == NULL) return -1;
  *out = NULL;
  *out_len = 0;
  if ((data == NULL && len > 0) || len > SHIP_PLAIN_MAX) return -1;
  uLong bound = compressBound((uLong)len);
  unsigned char *buf = (unsigned char *)malloc(bound);
  if (buf == NULL) {
    DLOG_ERROR("No enough memory!");
    return -1;
  }
  z_stream *z = &deflater.stream;
  int ok = deflater.ready ? deflateReset(z) == Z_OK : 0;
  if (!deflater.ready) {
    memset(z, 0, sizeof *z);
    ok = deflateInit(z, Z_BEST_SPEED) == Z_OK;
    deflater.ready = ok;
  }
  static unsigned char nothing[1] = {0};
  if (ok) {
    z->next_in = data != NULL ? (Bytef *)data : nothing;
    z->avail_in = (uInt)len;
    z->next_out = buf;
    z->avail_out = (uInt)bound;
    // compressBound leaves room for the whole stream in one call.
    ok = deflate(z, Z_FINISH) == Z_STREAM_END;
  }
  if (!ok) {
    DLOG_ERROR("Compress failed!");
    free(buf);
    return -1;
  }
  *out = buf;
  *out_len = z->total_out;
  return 0;
}

int build_encrypted_logs(const char *block, size_t len, const SealMeta *meta, char **out) {
  if (out == NULL) return -1;
  *out = NULL;
  DLOG_INFO("preprocess date, len= %d", (int)len);
  if ((block == NULL && len > 0) || len > SHIP_PLAIN_MAX || meta == NULL) {
    DLOG_ERROR("access block of %lu bytes refused", (unsigned long)len);
    return -1;
  }

  unsigned char *packed = NULL;
  size_t packed_len = 0;
  if (compress_data((const unsigned char *)block, len, &packed, &packed_len) != 0) return -1;

  size_t text_size = SHIP_BASE64_SIZE(SHIP_SEALED_MAX(packed_len));
  size_t message_size = SHIP_FRAME_HEAD_SIZE + text_size;
  char *text = (char *)malloc(text_size);
  char *message = (char *)malloc(message_size);
  int n = -1;
  if (text == NULL || message == NULL) {
    // Not compress_data's "No enough memory!": a reader of the log finds
    // that text under compress_data alone.
    DLOG_ERROR("no memory for the sealed access block");
  } else {
    int sealed = seal_message(SHIP_KIND_ACCESS, ship_public_key(SHIP_KIND_ACCESS), meta, packed,
                              packed_len, (uint32_t)len, text, text_size);
    if (sealed < 0)
      DLOG_ERROR("encrypt access log error:%s", seal_error_text(sealed));
    else
      n = format_syslog_message(SHIP_KIND_ACCESS, text, message, message_size);
  }
  free(packed);
  free(text);
  if (n < 0) {
    free(message);
    return -1;
  }
  *out = message;
  return n;
}
