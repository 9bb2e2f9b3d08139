#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"

TEST(EndpointTest, SplitsOrRefusesEachForm) {
  struct Case {
    const char *text;
    int rc;
    const char *scheme, *host, *port;
  };
  const Case cases[] = {
      {"", 0, "http", "0.0.0.0", ""},
      {"8080", 0, "http", "0.0.0.0", "8080"},
      {"10.1.2.3", 0, "http", "10.1.2.3", ""},
      {"10.1.2.3:81", 0, "http", "10.1.2.3", "81"},
      {"[fe80::1]:443", 0, "http", "[fe80::1]", "443"},
      {"[FE80::A]", 0, "http", "[FE80::A]", ""},
      {"https://10.1.2.3", 0, "https", "10.1.2.3", ""},
      {"HTTPS://10.1.2.3:8443", 0, "HTTPS", "10.1.2.3", "8443"},
      {"http://", 0, "http", "0.0.0.0", ""},
      {"10.1.2.3:", 0, "http", "10.1.2.3", ""},
      {"10.1.2.38080", 0, "http", "10.1.2.38080", ""},  // the last run takes every digit
      {"999.1.1.300:70000", 0, "http", "999.1.1.300", "70000"},
      {"example.com", -2, "", "", ""},
      {"example.com:80", -2, "", "", ""},
      {"ftp://10.1.2.3", -2, "", "", ""},
      {"10.1.2", -2, "", "", ""},
      {"10.1.2.3:80 ", -2, "", "", ""},
      {"fe80::1", -2, "", "", ""},
      {"[fe80::1%br0]", -2, "", "", ""},
  };
  for (const Case &c : cases) {
    std::string scheme = "old-s", host = "old-h", port = "old-p";
    EXPECT_EQ(parse_endpoint(c.text, scheme, host, port), c.rc) << '"' << c.text << '"';
    if (c.rc != 0) {
      // A failure leaves the caller's strings alone.
      EXPECT_EQ(scheme + host + port, "old-sold-hold-p") << c.text;
      continue;
    }
    EXPECT_EQ(scheme, c.scheme) << c.text;
    EXPECT_EQ(host, c.host) << c.text;
    EXPECT_EQ(port, c.port) << c.text;
  }
}

TEST(EndpointTest, SyslogFacilityNamesAreExact) {
  for (const char *name : {"authpriv", "local0", "local3", "local7"})
    EXPECT_EQ(check_syslog_facility(name), 0) << name;
  for (const char *name : {"LOCAL0", "Authpriv", "local8", "local10", "local", "daemon", "", "local0 "})
    EXPECT_EQ(check_syslog_facility(name), -1) << name;
}
