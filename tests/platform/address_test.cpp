#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "temp_dir.h"

TEST(NormalizeTest, PortLosesLeadingZerosAndRejectsOutOfRange) {
  char port[16] = "0080";
  EXPECT_EQ(normalize_port(port), 0);
  EXPECT_STREQ(port, "80");
  for (const char *bad : {"65536", "0", "000", "", "8a", "-1", "99999999999"}) {
    snprintf(port, sizeof port, "%s", bad);
    EXPECT_EQ(normalize_port(port), -1) << bad;
    EXPECT_STREQ(port, bad);
  }
  EXPECT_EQ(normalize_port(nullptr), -1);
}

TEST(NormalizeTest, IpBecomesCanonical) {
  char ip[IPV6_BRACKET_TEXT_SIZE] = "[2001:DB8:0:0::1]";
  EXPECT_EQ(normalize_ip(ip), 0);
  EXPECT_STREQ(ip, "[2001:db8::1]");
  strcpy(ip, "[zz]");
  EXPECT_EQ(normalize_ip(ip), 1);
  EXPECT_STREQ(ip, "[zz");  // the "]" is already gone
  strcpy(ip, "[::1");
  testing::internal::CaptureStdout();
  EXPECT_EQ(normalize_ip(ip), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "IP format error.\n");
  EXPECT_STREQ(ip, "[::1");
}

// br0 and the IPv6 table as this process sees them, inside the sandbox.
class InterfaceTest : public TempDirTest {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    TempDirTest::SetUp();
    sandbox_del_br0();
  }
  void TearDown() override {
    if (!sandbox_ready()) return;
    if (fake_proc_) umount2("/proc", MNT_DETACH);
    sandbox_del_br0();
    TempDirTest::TearDown();
  }
  // Serves an IPv6 table with these rows from a private /proc. Files under
  // the real /proc/<pid>/net cannot be covered by a mount.
  bool fake_table(const char *rows) {
    if (!fake_proc_) {
      if (mount("none", "/proc", "tmpfs", 0, "mode=755") != 0) return false;
      fake_proc_ = true;
      mkdir("/proc/net", 0755);
    }
    FILE *f = fopen(IF_INET6_PATH, "w");
    if (f == nullptr) return false;
    fputs(rows, f);
    fclose(f);
    return true;
  }
  bool fake_proc_ = false;
};

TEST_F(InterfaceTest, Ipv4InsideBr0Network) {
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  for (const char *inside : {"192.168.77.200", "192.168.77.1"}) EXPECT_EQ(is_internal_addr(inside), 1) << inside;
  for (const char *outside : {"192.168.78.1", "192.168.77.999"}) EXPECT_EQ(is_internal_addr(outside), 0) << outside;
  char lan[IPV4_TEXT_SIZE] = {0};
  EXPECT_EQ(get_lan_ip(lan), 0);
  EXPECT_STREQ(lan, "192.168.77.1");
  EXPECT_TRUE(is_local_address("192.168.77.1") == 1 && is_local_address("0.0.0.0") == 1);
}

TEST_F(InterfaceTest, WithoutBr0NothingIsInternal) {
  // The fallback address alone gives no network: no netmask, no answer 1.
  EXPECT_EQ(is_internal_addr("192.168.1.20"), 0);
  char lan[IPV4_TEXT_SIZE];
  memset(lan, 'x', sizeof lan);
  EXPECT_EQ(get_lan_ip(lan), 0);
  EXPECT_EQ(std::string(lan, 12), "192.168.1.1x");
}

TEST_F(InterfaceTest, Ipv6ComparesWholePrefixBytes) {
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  ASSERT_EQ(sandbox_add_br0("fd00:77::1/60"), 0);
  char text[IPV6_TEXT_SIZE] = {0};
  int prefix = -1;
  EXPECT_EQ(get_iface_ipv6("br0", text, &prefix), 1);
  EXPECT_STREQ(text, "fd00:77::1");
  EXPECT_EQ(prefix, 60);
  for (const char *inside : {"fd00:77::99", "fd00:77:0:ff::1"})  // bits of byte 7 are not compared
    EXPECT_EQ(is_internal_addr(inside), 1) << inside;
  EXPECT_EQ(is_internal_addr("fd00:78::1"), 0);
  EXPECT_EQ(is_internal_addr("192.168.77.5:80"), 0);  // a colon makes it IPv6
  for (const char *local : {"[fd00:77::1]", "[::]"}) EXPECT_EQ(is_local_address(local), 1) << local;
  EXPECT_EQ(is_local_address("[fe80::1]"), 0);
}

TEST_F(InterfaceTest, TableRowsDecideTheIpv6Network) {
  // br0 has only a link-local row, so the last row, eth0's /48, stands.
  if (!fake_table("fe800000000000000000000000000001 03 40 20 80     br0\n"
                  "fd000000000000000000000000000077 02 30 00 80    eth0\n"))
    GTEST_SKIP() << "cannot lay a table over /proc";
  char text[IPV6_TEXT_SIZE] = {0};
  int prefix = -1;
  EXPECT_EQ(get_iface_ipv6("br0", text, &prefix), 1);
  EXPECT_STREQ(text, "fd00::77");
  EXPECT_EQ(prefix, 48);
  EXPECT_EQ(is_internal_addr("fd00:0:0:1::"), 1);
  EXPECT_EQ(is_internal_addr("fd00:0:1::"), 0);
  EXPECT_EQ(is_internal_addr("not:an:address"), 0);  // the zero address

  // No complete row: "::" with prefix 0, and then every IPv6 text is inside.
  ASSERT_TRUE(fake_table("fd000000000000000000000000000077 02 30\n"));
  EXPECT_EQ(get_iface_ipv6("br0", text, &prefix), 1);
  EXPECT_STREQ(text, "::");
  EXPECT_EQ(prefix, 0);
  EXPECT_EQ(is_internal_addr("2001:db8::1"), 1);
}
