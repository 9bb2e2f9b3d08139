// An access block on its way out: compressed first (records are repetitive
// text and shrink several times, while ciphertext would not shrink at all),
// then sealed for the access key and framed.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include "logging/logging.h"
#include "shipping/shipping.h"

// A deflate state costs a few hundred kilobytes to set up, far more than
// compressing one block; each thread keeps one and resets it per block. It
// hangs off a thread key, whose destructor gives it back when the thread
// ends.
namespace {
pthread_key_t deflater_key;
pthread_once_t deflater_once = PTHREAD_ONCE_INIT;
int deflater_key_ready;  // 1 once the key exists

void end_deflater(void *state) {
  deflateEnd(static_cast<z_stream *>(state));
  free(state);
}

void make_deflater_key() {
  deflater_key_ready = pthread_key_create(&deflater_key, end_deflater) == 0;
}

// This thread's deflate state, made on first use; null when it cannot be.
z_stream *thread_deflater() {
  pthread_once(&deflater_once, make_deflater_key);
  if (!deflater_key_ready) return NULL;
  z_stream *z = static_cast<z_stream *>(pthread_getspecific(deflater_key));
  if (z != NULL) return deflateReset(z) == Z_OK ? z : NULL;
  z = static_cast<z_stream *>(calloc(1, sizeof *z));
  if (z == NULL) return NULL;
  if (deflateInit(z, Z_BEST_SPEED) != Z_OK) {
    free(z);
    return NULL;
  }
  if (pthread_setspecific(deflater_key, z) != 0) {
    end_deflater(z);
    return NULL;
  }
  return z;
}
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
  z_stream *z = thread_deflater();
  int ok = z != NULL;
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
