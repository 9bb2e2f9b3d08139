// The generated files: nginx.conf, qsp_conf.json and website_upstreams.conf
// from templates, the device address and the stored sections.
#include <string>

#include "confgen_test_util.h"
#include "platform/platform.h"

namespace {

class GenerateDataTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (IsSkipped()) return;
    sandbox_wipe(RELEASE_DIR);
    ASSERT_EQ(make_dirs(RELEASE_DIR "/nginx"), 0);
    ASSERT_EQ(make_dirs(RELEASE_DIR "/conf_shared"), 0);
  }
  void TearDown() override {
    sandbox_del_br0();
    StoreTest::TearDown();
  }
};

TEST_F(GenerateDataTest, WritesTheThreeFiles) {
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  write_text(NGINX_TEMPLATE_PATH,
             "user {mox_user};\n# {admin_ip}\nlisten {admin_ip}:80;\n\n"
             "access_log syslog:server={syslog_ip}:{syslog_port},facility={syslog_facility};\n");
  write_text(QSP_TEMPLATE_PATH, "{\"admin\":\"{admin_ip}\",\"fixed\":\"{fixed_key}\",\"cluster\":\"{cluster_key}\"}\n");
  set_store("proxy={\na 127.0.0.1:80 127.0.0.1:8080\nb 127.0.0.1:81 203.0.113.1:1\n"
            "c https://0.0.0.0:443 https://127.0.0.1:8443 --protect=monitor\n}\nfixed_key={\nF123\n}\n");
  EXPECT_EQ(parser_generate(0), 0);
  EXPECT_EQ(parser_generate(1), 0);
  EXPECT_EQ(read_text(NGINX_CONF_PATH),
            "user root;\n# 192.168.77.1\nlisten {admin_ip}:80;\n\n"
            "access_log syslog:server=127.0.0.1:514,facility=authpriv;\n");
  EXPECT_EQ(read_text(QSP_CONF_PATH), "{\"admin\":\"192.168.77.1\",\"fixed\":\"F123\",\"cluster\":\"\"}\n");
  EXPECT_TRUE(logged("DEBUG", "get_value", "get key value failed - cluster_key."));
  EXPECT_EQ(read_text(WEBSITES_CONF_PATH),
            "upstream upstream_a {\n    server 127.0.0.1:8080;\n}\n\nserver {\n"
            "    listen 127.0.0.1:80;\n    ssl off;\n    kvsafe on;\n    kvsafe_learning_mode off;\n"
            "    set $proxy_upstream http://upstream_a;\n    set $proxy_ssl off;\n"
            "    include policy_default.conf;\n}\n\n\n"
            "upstream upstream_c {\n    server 127.0.0.1:8443;\n}\n\nserver {\n"
            "    listen 0.0.0.0:443;\n    ssl on;\n    kvsafe on;\n    kvsafe_learning_mode on;\n"
            "    set $proxy_upstream https://upstream_c;\n    set $proxy_ssl on;\n"
            "    include policy_default.conf;\n}\n\n\n");
  EXPECT_TRUE(logged("ERROR", "generate_proxy_conf", "upstream IP=203.0.113.1 is not local address."));
}

TEST_F(GenerateDataTest, NothingToWriteKeepsEarlierFiles) {
  write_text(WEBSITES_CONF_PATH, "old\n");
  set_store("proxy={\n}\n");
  EXPECT_EQ(generate_data(DATA_PROXY, nullptr), 0);  // last website removed: file stays
  EXPECT_EQ(read_text(WEBSITES_CONF_PATH), "old\n");

  set_store("logserver={\nx\n}\n");
  EXPECT_EQ(generate_data(DATA_PROXY, nullptr), -1);
  EXPECT_TRUE(logged("ERROR", "generate_data", "Read the proxy parameter failed."));
  EXPECT_EQ(read_text(WEBSITES_CONF_PATH), "old\n");

  // No nginx template: no nginx.conf, and the websites are made all the same.
  set_store("proxy={\ns 80 81\n}\n");
  EXPECT_EQ(parser_generate(0), 0);
  EXPECT_EQ(read_text(NGINX_CONF_PATH), "<missing>");
  EXPECT_EQ(read_text(WEBSITES_CONF_PATH).rfind("upstream upstream_s {\n    server 0.0.0.0:81;", 0), 0u);

  EXPECT_EQ(generate_data(3, nginx_para_ids), -1);
  EXPECT_EQ(generate_data(DATA_NGINX, nullptr), -1);
  sandbox_wipe(RELEASE_DIR "/nginx");
  EXPECT_EQ(generate_data(DATA_PROXY, nullptr), 1);
  EXPECT_TRUE(logged("ERROR", "generate_data", "Generate data: write data fail."));
}

TEST_F(GenerateDataTest, WebsitesBeyondTheBufferAreLeftOut) {
  std::string lines;
  for (int i = 0; i < 85; i++) lines += "a 1 2\n";  // 509 characters as read
  set_store("proxy={\n" + lines + "}\n");
  char one[] = "a 1 2";
  std::string block;
  ASSERT_EQ(generate_proxy_conf(one, block), 0);
  size_t fit = STORED_TEXT_SIZE / block.size();
  ASSERT_LT(fit, 85u);

  EXPECT_EQ(generate_data(DATA_PROXY, nullptr), 0);
  std::string expected;
  for (size_t i = 0; i < fit; i++) expected += block;
  EXPECT_EQ(read_text(WEBSITES_CONF_PATH), expected);
  EXPECT_TRUE(logged("ERROR", "build_websites", "websites exceed 18432 bytes: a and the lines"));
}

}  // namespace
