// sec_read_conf on the input as a store file, in buffers of exactly the size
// given; then the input stored, which must read back as it was, not fit one
// byte less, and not read at all once a byte of the file changes.
#include <vector>

#include "fuzz/fuzz.h"
#include "store/store.h"

#define SMALL_BUFFER 64

// sec_read_conf into a new heap buffer of exactly room bytes, so that a
// write past it is caught; its result.
static int read_into(std::vector<char> &buf, size_t room, int *length) {
  std::vector<char> fresh(room, '\x55');
  buf.swap(fresh);
  *length = (int)room;
  return sec_read_conf(buf.data(), length);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> buf;
  int length = 0;
  if (write_file(STORE_PATH, (const char *)data, size) != 0) return 0;
  for (size_t room : {(size_t)STORE_TEXT_MAX, (size_t)SMALL_BUFFER}) {
    int rc = read_into(buf, room, &length);
    FUZZ_CHECK(rc == 0 || rc == -1);
    FUZZ_CHECK(rc == 0 ? length >= 0 && (size_t)length <= room && sec_conf_problem()[0] == '\0'
                       : sec_conf_problem()[0] != '\0');
  }

  if (size == 0 || size > STORE_TEXT_MAX) return 0;
  unlink(STORE_PATH);
  FUZZ_CHECK(sec_write_conf((const char *)data, (int)size) == 0);
  FUZZ_CHECK(read_into(buf, size, &length) == 0 && length == (int)size);
  FUZZ_CHECK(memcmp(buf.data(), data, size) == 0);
  FUZZ_CHECK(read_into(buf, size - 1, &length) == -1);
  std::string file = fuzz_slurp(STORE_PATH);
  file[data[0] * size % file.size()] ^= (char)(data[size - 1] | 1);
  if (write_file(STORE_PATH, file.data(), file.size()) != 0) return 0;
  FUZZ_CHECK(read_into(buf, STORE_TEXT_MAX, &length) == -1);
  return 0;
}
