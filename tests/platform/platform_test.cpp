// Addresses as the generator and the daemon read them: endpoints of a website line, and
// br0's IPv6 network for the daemon's inside/outside decision. Canonical forms meet hostile
// input in the endpoint fuzz target, the settings file in its own.
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "sandbox.h"

TEST(Address, EndpointSplitsOrRefusesEachForm) {
  // Each text and its scheme, host and port, or "" where it is refused.
  const std::pair<const char *, const char *> cases[] = {
      {"", "http 0.0.0.0 "}, {"8080", "http 0.0.0.0 8080"}, {"10.1.2.3:81", "http 10.1.2.3 81"},
      {"[fe80::1]:443", "http [fe80::1] 443"}, {"https://10.1.2.3", "https 10.1.2.3 "},
      {"HTTPS://10.1.2.3:8443", "HTTPS 10.1.2.3 8443"}, {"http://", "http 0.0.0.0 "},
      {"10.1.2.3:", "http 10.1.2.3 "},
      {"10.1.2.38080", "http 10.1.2.38080 "},  // the last run takes every digit
      {"999.1.1.300:70000", "http 999.1.1.300 70000"}, {"example.com:80", ""},
      {"ftp://10.1.2.3", ""}, {"10.1.2", ""}, {"10.1.2.3:80 ", ""}, {"fe80::1", ""},
      {"[fe80::1%br0]", ""}};
  for (const auto &c : cases) {
    Endpoint e = {"old-s", "old-h", "old-p"};
    int rc = parse_endpoint(c.first, &e);
    // A refusal leaves the caller's fields alone.
    EXPECT_EQ(std::to_string(rc) + " " + e.scheme + " " + e.host + " " + e.port,
              *c.second ? std::string("0 ") + c.second : "-2 old-s old-h old-p") << '"' << c.first << '"';
  }
}

TEST(Address, InsideBr0sIpv6NetworkByWholePrefixBytes) {
  REQUIRE_SANDBOX();
  sandbox_del_br0();
  // Without br0 the fallback address gives no network.
  EXPECT_EQ(is_internal_addr("192.168.1.20"), 0);
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  ASSERT_EQ(sandbox_add_br0("fd00:77::1/60"), 0);
  for (const char *inside : {"fd00:77::99", "fd00:77:0:ff::1"})  // bits of byte 7 are not compared
    EXPECT_EQ(is_internal_addr(inside), 1) << inside;
  for (const char *outside : {"fd00:78::1", "192.168.77.5:80"})  // a colon makes it IPv6
    EXPECT_EQ(is_internal_addr(outside), 0) << outside;
  for (const char *local : {"[fd00:77::1]", "[::]", "0.0.0.0", "192.168.77.1"})
    EXPECT_EQ(is_local_address(local), 1) << local;
  EXPECT_EQ(is_local_address("[fe80::1]"), 0);
  sandbox_del_br0();
}
