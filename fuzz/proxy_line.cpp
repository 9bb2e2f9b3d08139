// One website line into nginx text (generate_proxy_conf). A listening
// address that is not local costs the generator 5 s of waiting, so such
// lines are left out.
#include <vector>

#include "confgen/confgen.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> line((const char *)data, (const char *)data + size);
  line.push_back('\0');
  // The listening address is the second field, cut at single spaces.
  const char *blank = strchr(line.data(), ' ');
  if (blank != NULL) {
    std::string server(blank + 1, strcspn(blank + 1, " "));
    Endpoint end;
    if (!server.empty() && parse_endpoint(server.c_str(), &end) == 0 && !is_local_address(end.host))
      return 0;
  }
  char block[PROXY_BLOCK_SIZE] = "left over";
  int len = -1;
  int rc = generate_proxy_conf(line.data(), block, &len);
  FUZZ_CHECK(len >= 0 && (size_t)len == strlen(block));
  std::string result = block;
  FUZZ_CHECK(rc == 0 || rc == -1);
  FUZZ_CHECK(rc == 0 ? result.compare(0, 18, "upstream upstream_") == 0 : result.empty());
  FUZZ_CHECK(result.size() < PROXY_BLOCK_SIZE);
  return 0;
}
