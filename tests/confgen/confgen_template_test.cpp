// Template expansion: records spent on the first line they match, list
// order within a line, the built-in website template, and the failures.
#include <string.h>

#include <string>

#include "confgen_test_util.h"
#include "platform/platform.h"

namespace {

class HandleDataTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (IsSkipped()) return;
    sandbox_wipe(RELEASE_DIR);
    ASSERT_EQ(make_dirs(RELEASE_DIR "/nginx"), 0);
  }
  void add(const char *key, const std::string &value) {
    para_entry &e = entries_[count_++];
    e.active = 1;
    snprintf(e.key, sizeof e.key, "%s", key);
    snprintf(e.value, sizeof e.value, "%s", value.c_str());
  }
  // Expands kind; out_len starts at -5 so that "untouched" shows.
  std::string expand(int kind, int *rc, int *len) {
    out_.assign(STORED_TEXT_SIZE, '\0');
    *len = -5;
    *rc = handle_data(kind, entries_, &out_[0], len);
    return out_.c_str();
  }
  para_entry entries_[PARA_KEY_COUNT] = {};
  int count_ = 0;
  std::string out_;
};

TEST_F(HandleDataTest, RecordServesOneLineInListOrder) {
  write_text(NGINX_TEMPLATE_PATH, "a {admin_ip} x {admin_ip}\nb {admin_ip}\n\n{syslog_ip} {mox_user}\n");
  add("{mox_user}", "root");
  add("{syslog_ip}", "<{syslog_port}|{mox_user}>");  // a later key is replaced, an earlier kept
  add("{syslog_port}", "514");
  add("{admin_ip}", "1.2.3.4");
  add("{syslog_facility}", "unused");
  int rc = 0, len = 0;
  std::string text = expand(DATA_NGINX, &rc, &len);
  EXPECT_EQ(text, "a 1.2.3.4 x 1.2.3.4\nb {admin_ip}\n\n<514|{mox_user}> root\n");
  EXPECT_EQ(len, (int)text.size());
  int still_active[] = {0, 0, 0, 0, 1};
  for (int i = 0; i < 5; i++) EXPECT_EQ(entries_[i].active, still_active[i]) << i;
}

TEST_F(HandleDataTest, BuiltInWebsiteTemplateFullyReplaced) {
  const char *values[PARA_KEY_COUNT] = {};
  values[14] = "shop";
  values[19] = "10.0.0.2";
  values[20] = "8080";
  values[17] = "0.0.0.0";
  values[18] = "443";
  values[16] = "on";
  values[21] = "off";
  values[22] = "on";
  values[15] = "https";
  for (int32_t id : proxy_para_ids) add(para_keys[id], values[id]);
  int rc = 0, len = 0;
  std::string text = expand(DATA_PROXY, &rc, &len);
  for (const char *key : para_keys) {
    if (key[0] != '{') continue;  // a section key, not a placeholder
    EXPECT_EQ(text.find(key), std::string::npos) << key;
  }
  EXPECT_NE(text.find("    set $proxy_upstream https://upstream_shop;\n    set $proxy_ssl on;\n"),
            std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 5), ";\n}\n\n");  // one blank line at the end
  for (int i = 0; i < PROXY_PARA_COUNT; i++) EXPECT_EQ(entries_[i].active, 0) << i;
}

TEST_F(HandleDataTest, OverlongSubstitutionLeavesLineAndRecord) {
  write_text(NGINX_TEMPLATE_PATH, "{admin_ip}{admin_ip}{admin_ip}{admin_ip}{admin_ip}\nip {admin_ip}\n");
  add("{admin_ip}", std::string(PARA_ENTRY_VALUE_SIZE - 1, 'v'));  // 5 x 127 > 511
  int rc = 0, len = 0;
  EXPECT_EQ(expand(DATA_NGINX, &rc, &len), "{admin_ip}{admin_ip}{admin_ip}{admin_ip}{admin_ip}\nip " +
                                               std::string(PARA_ENTRY_VALUE_SIZE - 1, 'v') + "\n");
  EXPECT_TRUE(logged("ERROR", "apply_entries", "template line 1 with {admin_ip} would exceed 511"));
  EXPECT_EQ(entries_[0].active, 0);  // spent on line 2
}

TEST_F(HandleDataTest, MissingEmptyAndUnfinishedTemplates) {
  int rc = 0, len = 0;
  expand(DATA_QSP, &rc, &len);  // no engine template: the nginx path is named
  EXPECT_EQ(rc, 1);
  EXPECT_EQ(len, -5);
  EXPECT_TRUE(logged("ERROR", "handle_data", "read file: " NGINX_TEMPLATE_PATH " fail."));
  expand(7, &rc, &len);
  EXPECT_EQ(rc, -1);

  write_text(NGINX_TEMPLATE_PATH, "");
  expand(DATA_NGINX, &rc, &len);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(len, 0);

  add("{admin_ip}", "A");
  write_text(NGINX_TEMPLATE_PATH, "x\n\nlast {admin_ip}");  // no newline at the end
  EXPECT_EQ(expand(DATA_NGINX, &rc, &len), "x\n\nlast A\n");
  EXPECT_EQ(len, 10);
}

}  // namespace
