// parse_endpoint on a website address, then, as mox_conf checks a website,
// the canonical host and port in buffers of exactly their contracts' sizes.
#include <vector>

#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text((const char *)data, size);
  Endpoint end;
  int rc = parse_endpoint(text.c_str(), &end);
  FUZZ_CHECK(rc == 0 || rc == -2 || rc == -3);  // -1: the expression did not compile
  check_syslog_facility(text.c_str());
  if (rc != 0) return 0;
  std::string scheme = end.scheme, host = end.host, port = end.port;
  FUZZ_CHECK(!scheme.empty() && !host.empty());
  FUZZ_CHECK(port.find_first_not_of("0123456789") == std::string::npos);

  // A bracketed text must have room for IPV6_BRACKET_TEXT_SIZE bytes.
  size_t room = host.size() + 1;
  if (host[0] == '[' && room < IPV6_BRACKET_TEXT_SIZE) room = IPV6_BRACKET_TEXT_SIZE;
  std::vector<char> address(room, '\0');
  memcpy(address.data(), host.c_str(), host.size());
  if (normalize_ip(address.data()) == 0) {
    std::string canonical = address.data();  // canonical text normalizes to itself
    FUZZ_CHECK(normalize_ip(address.data()) == 0 && canonical == address.data());
  }
  std::vector<char> digits(port.c_str(), port.c_str() + port.size() + 1);
  if (normalize_port(digits.data()) == 0) {
    FUZZ_CHECK(digits[0] >= '1' && digits[0] <= '9');
    std::string canonical = digits.data();
    FUZZ_CHECK(normalize_port(digits.data()) == 0 && canonical == digits.data());
  }
  return 0;
}
