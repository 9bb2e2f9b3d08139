// The generator under mox_conf: the stored text as an older tool may have left it, one
// website line to its blocks, and the limits that mox_conf's own checks normally keep it
// from meeting. Whole files through the real tool are the admin tests' part; the template
// expansion meets hostile input in its fuzz target.
#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <string>

#include "confgen/confgen.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "store/store.h"

namespace {

double seconds_since(const timespec &start) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
}

class Confgen : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe(STORE_DIR);
    sandbox_wipe(RELEASE_DIR);
    ASSERT_EQ(system("mkdir -p " RELEASE_DIR "/nginx " RELEASE_DIR "/conf_shared"), 0);
  }
  void set_store(const std::string &text) {
    ASSERT_EQ(sec_write_conf(text.data(), (int)text.size()), 0);
  }
  std::string stored() {
    char buf[STORED_TEXT_SIZE + 1] = {};
    int length = STORED_TEXT_SIZE;
    return sec_read_conf(buf, &length) == 0 ? std::string(buf, (size_t)length) : "<unreadable>";
  }
  std::string get(int id) {
    char out[PROXY_VALUE_SIZE] = {};
    int len = -1;
    return parser_get(id, out, &len) == 0 && len == (int)strlen(out) ? out : "<none>";
  }
  // One website line to its blocks; "stale" shows a result not cleared.
  int website(const char *text, std::string *result) {
    snprintf(line_, sizeof line_, "%s", text);
    *result = "stale";
    return generate_proxy_conf(line_, *result);
  }
  char line_[PROXY_VALUE_SIZE];
};

TEST_F(Confgen, StoredTextIsReadAndEditedByPlainSubstringAndBraces) {
  // "logserver" is not found inside "logatserver"; "syslog" inside a website line is taken
  // for that section; a '}' ends a value.
  set_store("logatserver={\n}\nproxy={\nsite1 syslog--tail :80\n}\nlogserver={\n\n}\n"
            "syslog={\nreal\n}\nrandtime={\na\nb\n}\nfixed_key={\nk}x\n}\n");
  const std::pair<int, const char *> reads[] = {
      {PARSER_LOGATSERVER, ""}, {PARSER_LOGSERVER, ""}, {PARSER_SYSLOG, "ail :80"},
      {PARSER_RANDTIME, "a\nb"}, {PARSER_FIXED_KEY, "k"}, {PARSER_PROXY, "site1 syslog--tail :80"},
      {PARSER_CLUSTER_KEY, "<none>"}};
  for (const auto &r : reads) EXPECT_EQ(get(r.first), r.second) << r.first;

  struct Edit {
    const char *before;  // null: as the last edit left it
    bool save;
    int id;
    const char *arg;
    int rc;
    const char *after;
  } edits[] = {
      {"a={\n1\n}\nlogserver={\nold\n}\nb={\n2\n}\n", true, PARSER_LOGSERVER, "new", 0,
       "a={\n1\n}\nlogserver={\nnew\n}\nb={\n2\n}\n"},
      {nullptr, false, PARSER_LOGSERVER, nullptr, 0, "a={\n1\n}\nb={\n2\n}\n"},
      // A '}' in a value: the next save leaves the rest.
      {"logserver={\na}b\n}\n", true, PARSER_LOGSERVER, "c", 0, "logserver={\nc\n}\n\n}\n"},
      // No '}' behind the key: delete refuses, save takes the rest.
      {"x={\n1\n}\nrandtime={\n5", false, PARSER_RANDTIME, nullptr, -1, "x={\n1\n}\nrandtime={\n5"},
      {nullptr, true, PARSER_RANDTIME, "7", 0, "x={\n1\n}\nrandtime={\n7\n}\n"},
      // A key inside an earlier value is taken for the section.
      {"proxy={\nsite syslog 81\n}\nsyslog={\nold\n}\n", true, PARSER_SYSLOG, "new", 0,
       "proxy={\nsite syslog={\nnew\n}\nsyslog={\nold\n}\n"},
      // A '}' inside a website line ends the walk: that line's start gives way.
      {"proxy={\nab}c 1 2\n}\n", true, PARSER_PROXY, "n 3 4", 0, "proxy={\nn 3 4\n}c 1 2\n}\n"},
      // A section with no end keeps its whole lines and does not take the text.
      {"proxy={\nsite 1 2\ncut", true, PARSER_PROXY, "new 3 4", 0, "proxy={\nsite 1 2\n"},
      {nullptr, false, PARSER_PROXY, "new", -1, "proxy={\nsite 1 2\n"}};
  for (const Edit &e : edits) {
    if (e.before) set_store(e.before);
    EXPECT_EQ(e.save ? parser_save(e.id, e.arg) : parser_delete(e.id, e.arg), e.rc) << e.after;
    EXPECT_EQ(stored(), e.after);
  }
}

TEST_F(Confgen, WebsiteLineGivesItsBlocksOrNothing) {
  std::string out;
  // The listening side's scheme decides ssl; the last --protect counts.
  ASSERT_EQ(website("w HTTPS://127.0.0.1 https://0.0.0.0 --protect=monitor --protect=off", &out), 0);
  EXPECT_EQ(out,
            "upstream upstream_w {\n    server 0.0.0.0:;\n}\n\nserver {\n"
            "    listen 127.0.0.1:;\n    ssl off;\n    kvsafe off;\n    kvsafe_learning_mode off;\n"
            "    set $proxy_upstream https://upstream_w;\n    set $proxy_ssl off;\n"
            "    include policy_default.conf;\n}\n\n\n");
  for (const char *line : {"name", "name 127.0.0.1:80", "name  127.0.0.1:80 81", "name bad!:80 81",
                           "n 80 81 ", "n 80 81  --protect=on", "n 80 81 --protect",
                           "n 80 81 --protect=on=x", "n 80 81 --protect=monitor --protect=bad",
                           "n 80 81 --other=on", "n 80 203.0.113.1:81"}) {
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    EXPECT_EQ(website(line, &out), -1) << line;
    EXPECT_EQ(out, "") << line;
    EXPECT_LT(seconds_since(start), 1.0) << line;  // a local listening address: no wait
  }
  // A listening address that never comes up: 6 tests, 5 seconds.
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  EXPECT_EQ(website("n 203.0.113.1:80 81", &out), -1);
  double waited = seconds_since(start);
  EXPECT_TRUE(waited >= 5.0 && waited < 5.9) << waited;
}

TEST_F(Confgen, WebsitesBeyondTheBufferAreLeftOut) {
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
  static char buf[STORED_TEXT_SIZE + 1];
  ssize_t n = read_file(WEBSITES_CONF_PATH, buf, STORED_TEXT_SIZE);
  EXPECT_EQ(std::string(buf, n > 0 ? (size_t)n : 0), expected);
}

}  // namespace
