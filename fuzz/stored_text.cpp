// Edits of the stored text: a text stored, then one edit per further piece
// ('s' save, 'd' delete, else get; the second byte picks the section, '7' one
// that names none; the rest is the value or name). After each, every section
// reads into a buffer of exactly its contract's size.
#include <vector>

#include "confgen/confgen.h"
#include "fuzz/fuzz.h"
#include "store/store.h"

#define ID_CHOICES 8

static const int ids[ID_CHOICES] = {PARSER_PROXY,       PARSER_LOGSERVER,   PARSER_SYSLOG,
                                    PARSER_FIXED_KEY,   PARSER_CLUSTER_KEY, PARSER_LOGATSERVER,
                                    PARSER_RANDTIME,    21};

static void check_reads(void) {
  for (int id : ids) {
    std::vector<char> out(id == PARSER_PROXY ? PROXY_VALUE_SIZE : KEY_VALUE_SIZE, '\0');
    int len = -1;
    if (parser_get(id, out.data(), &len) == 0)
      FUZZ_CHECK(len >= 0 && (size_t)len < out.size() && out.back() == '\0');
  }
  std::vector<char> text(STORED_TEXT_SIZE);
  int length = (int)text.size();
  FUZZ_CHECK(sec_read_conf(text.data(), &length) == 0 && length <= STORED_TEXT_SIZE);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  size_t at = 0;
  std::string stored = fuzz_take(data, size, &at);
  unlink(STORE_PATH);
  if (stored.size() > STORE_TEXT_MAX) return 0;
  FUZZ_CHECK(sec_write_conf(stored.data(), (int)stored.size()) == 0);
  check_reads();
  while (at < size) {
    std::string edit = fuzz_take(data, size, &at);
    if (edit.size() < 2) continue;
    int id = ids[(unsigned char)edit[1] % ID_CHOICES];
    const char *text = edit.c_str() + 2;
    if (edit[0] == 's') {
      parser_save(id, text);
    } else if (edit[0] == 'd') {
      parser_delete(id, text[0] != '\0' ? text : NULL);
    } else {
      std::vector<char> out(id == PARSER_PROXY ? PROXY_VALUE_SIZE : KEY_VALUE_SIZE, '\0');
      parser_get(id, out.data(), NULL);
    }
    check_reads();
  }
  return 0;
}
