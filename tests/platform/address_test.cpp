// Addresses as the generator and the daemon read them: endpoints of a website line, their
// canonical form (two spellings of one listener are one listener), and br0's IPv6 network
// for the daemon's inside/outside decision.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/platform.h"
#include "sandbox.h"

TEST(Address, EndpointSplitsOrRefusesEachForm) {
  struct Case {
    const char *text;
    int rc;
    const char *scheme, *host, *port;
  };
  const Case cases[] = {
      {"", 0, "http", "0.0.0.0", ""},
      {"8080", 0, "http", "0.0.0.0", "8080"},
      {"10.1.2.3:81", 0, "http", "10.1.2.3", "81"},
      {"[fe80::1]:443", 0, "http", "[fe80::1]", "443"},
      {"https://10.1.2.3", 0, "https", "10.1.2.3", ""},
      {"HTTPS://10.1.2.3:8443", 0, "HTTPS", "10.1.2.3", "8443"},
      {"http://", 0, "http", "0.0.0.0", ""},
      {"10.1.2.3:", 0, "http", "10.1.2.3", ""},
      {"10.1.2.38080", 0, "http", "10.1.2.38080", ""},  // the last run takes every digit
      {"999.1.1.300:70000", 0, "http", "999.1.1.300", "70000"},
      {"example.com:80", -2, "", "", ""},
      {"ftp://10.1.2.3", -2, "", "", ""},
      {"10.1.2", -2, "", "", ""},
      {"10.1.2.3:80 ", -2, "", "", ""},
      {"fe80::1", -2, "", "", ""},
      {"[fe80::1%br0]", -2, "", "", ""},
  };
  for (const Case &c : cases) {
    Endpoint e = {"old-s", "old-h", "old-p"};
    EXPECT_EQ(parse_endpoint(c.text, &e), c.rc) << '"' << c.text << '"';
    // A failure leaves the caller's fields alone.
    EXPECT_EQ(std::string(e.scheme) + " " + e.host + " " + e.port,
              c.rc ? "old-s old-h old-p" : std::string(c.scheme) + " " + c.host + " " + c.port)
        << c.text;
  }
}

TEST(Address, CanonicalPortAndIp) {
  char port[16] = "0080";
  EXPECT_EQ(normalize_port(port), 0);
  EXPECT_STREQ(port, "80");
  for (const char *bad : {"65536", "0", "000", "", "8a", "-1", "99999999999"}) {
    std::strcpy(port, bad);
    EXPECT_EQ(normalize_port(port), -1) << bad;
  }
  char ip[IPV6_BRACKET_TEXT_SIZE] = "[2001:DB8:0:0::1]";
  EXPECT_EQ(normalize_ip(ip), 0);
  EXPECT_STREQ(ip, "[2001:db8::1]");
  for (const char *bad : {"[zz]", "[::1"}) {
    std::strcpy(ip, bad);
    testing::internal::CaptureStdout();
    EXPECT_EQ(normalize_ip(ip), 1) << bad;
    testing::internal::GetCapturedStdout();
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
