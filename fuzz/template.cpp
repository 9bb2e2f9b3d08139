// handle_data: the first byte picks the kind (modulo 3), then the template's
// text, FUZZ_SEPARATOR, and one "KEY=VALUE" entry a line. The expansion fits
// its buffer and holds no NUL.
#include "confgen/confgen.h"
#include "fuzz/fuzz.h"

#define KINDS 3

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  int kind = data[0] % KINDS;
  size_t at = 1;
  std::string tmpl = fuzz_take(data, size, &at), lines = fuzz_take(data, size, &at);
  if (kind != DATA_PROXY &&
      write_file(kind == DATA_NGINX ? NGINX_TEMPLATE_PATH : QSP_TEMPLATE_PATH, tmpl.data(),
                 tmpl.size()) != 0)
    return 0;

  para_entry entries[PROXY_PARA_COUNT];  // the longest list of the three kinds
  memset(entries, 0, sizeof entries);
  size_t pos = 0;
  for (para_entry &e : entries) {
    if (pos >= lines.size()) break;
    std::string line = lines.substr(pos, lines.find('\n', pos) - pos);
    pos += line.size() + 1;
    size_t eq = line.find('=');
    e.active = 1;
    // Cut to the fields; a cut text is still a placeholder or a value.
    if (snprintf(e.key, sizeof e.key, "%s", line.substr(0, eq).c_str()) < 0 ||
        snprintf(e.value, sizeof e.value, "%s",
                 eq == std::string::npos ? "" : line.c_str() + eq + 1) < 0)
      return 0;
  }
  static char out[STORED_TEXT_SIZE];
  memset(out, 0, sizeof out);
  int out_len = -1;
  int rc = handle_data(kind, entries, out, &out_len);
  FUZZ_CHECK(rc == 0 || rc == 1);
  if (out_len == -1) return 0;  // untouched: the template failed or did not fit
  FUZZ_CHECK(out_len >= 0 && out_len < STORED_TEXT_SIZE);
  FUZZ_CHECK(strlen(out) == (size_t)out_len);
  return 0;
}
