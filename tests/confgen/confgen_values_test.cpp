// Reading stored sections: the substring key lookup, the copy rule, the
// results, and the size bound of the copy.
#include <string>

#include "confgen_test_util.h"

namespace {

class ParserGetTest : public StoreTest {
 protected:
  // Value of a section and its result, with a guard zone behind out.
  std::string get(int id, int *rc, int *len_out = nullptr) {
    char out[PROXY_VALUE_SIZE + 64] = {};
    int len = -7;
    *rc = parser_get(id, out, &len);
    if (len_out != nullptr) *len_out = len;
    return out;
  }
};

TEST_F(ParserGetTest, CopyRuleAndSubstringLookup) {
  // "logatserver" stands first: "logserver" must not be found inside it.
  // "syslog" inside the proxy line is taken for the section.
  set_store("logatserver={\n}\nproxy={\nsite1 syslog--tail :80\n}\nlogserver={\n\n}\n"
            "syslog={\nreal\n}\nrandtime={\na\nb\n}\nfixed_key={\nk}x\n}\n");
  int rc = 0, len = 0;
  EXPECT_EQ(get(PARSER_LOGATSERVER, &rc, &len), "");
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(get(PARSER_LOGSERVER, &rc, &len), "");
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(get(PARSER_SYSLOG, &rc), "ail :80");
  EXPECT_EQ(get(PARSER_RANDTIME, &rc, &len), "a\nb");
  EXPECT_EQ(len, 3);
  EXPECT_EQ(get(PARSER_FIXED_KEY, &rc), "k");
  EXPECT_EQ(get(PARSER_PROXY, &rc), "site1 syslog--tail :80");

  char out[KEY_VALUE_SIZE] = {};
  EXPECT_EQ(parser_get(PARSER_RANDTIME, out, nullptr), -1);
  EXPECT_STREQ(out, "a\nb");  // filled all the same

  EXPECT_EQ(get(PARSER_CLUSTER_KEY, &rc, &len), "");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(len, -7);
  EXPECT_TRUE(logged("DEBUG", "get_value", "get key value failed - cluster_key."));
}

TEST_F(ParserGetTest, RejectedIdsAndUnreadableStore) {
  write_text(STORE_PATH, "not a store");
  int rc = 0;
  for (int id : {21, 22, 15, 25}) {
    get(id, &rc);
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(logged("ERROR", "parser_get", "parser not support read: " + std::to_string(id) + ".\n"));
  }
  // Rejected before the store is read: the store logs its failures and
  // has said nothing yet.
  EXPECT_EQ(log_text().find("unreadable"), std::string::npos);
  EXPECT_EQ(get(PARSER_LOGSERVER, &rc), "");
  EXPECT_NE(log_text().find("unreadable"), std::string::npos);
  EXPECT_EQ(rc, -1);
  EXPECT_FALSE(logged("DEBUG", "get_value", "get key value failed"));
}

TEST_F(ParserGetTest, CopyStopsAtTheCallersBound) {
  set_store("logserver={\n" + std::string(200, 'l') + "\n}\nproxy={\n" + std::string(600, 'p') +
            "\n}\n");
  int rc = 0, len = 0;
  EXPECT_EQ(get(PARSER_PROXY, &rc, &len), std::string(PROXY_VALUE_SIZE - 1, 'p'));
  EXPECT_EQ(len, PROXY_VALUE_SIZE - 1);
  EXPECT_TRUE(logged("ERROR", "get_value", "value of proxy has 600 characters, cut to 511."));
  EXPECT_EQ(get(PARSER_LOGSERVER, &rc, &len), std::string(KEY_VALUE_SIZE - 1, 'l'));
  EXPECT_EQ(rc, 0);
}

}  // namespace
