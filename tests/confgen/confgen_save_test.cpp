// Editing the stored text: proxy lines by full name, ordinary sections in
// place, the '}' rules, the refusals, and the size limits.
#include <string>

#include "confgen_test_util.h"

namespace {

class ParserSaveTest : public StoreTest {};

TEST_F(ParserSaveTest, ProxyLinesByFullName) {
  set_store("logserver={\nx\n}\n");
  EXPECT_EQ(parser_save(PARSER_PROXY, "site 80 81"), 0);
  EXPECT_EQ(stored(), "logserver={\nx\n}\nproxy={\nsite 80 81\n}\n");
  EXPECT_EQ(parser_save(PARSER_PROXY, "site2 82 83"), 0);
  EXPECT_EQ(parser_save(PARSER_PROXY, "site 90 91"), 0);  // replaced in place, site2 untouched
  EXPECT_EQ(stored(), "logserver={\nx\n}\nproxy={\nsite 90 91\nsite2 82 83\n}\n");

  for (const char *name : {"site 90 91", "", "sit", "site2 "})
    EXPECT_EQ(parser_delete(PARSER_PROXY, name), -1) << name;
  EXPECT_EQ(stored(), "logserver={\nx\n}\nproxy={\nsite 90 91\nsite2 82 83\n}\n");

  EXPECT_EQ(parser_delete(PARSER_PROXY, "site"), 0);
  EXPECT_EQ(parser_delete(PARSER_PROXY, "site2"), 0);
  EXPECT_EQ(stored(), "logserver={\nx\n}\nproxy={\n}\n");  // the empty section stays
  EXPECT_EQ(parser_save(PARSER_PROXY, "new 1 2"), 0);
  EXPECT_EQ(stored(), "logserver={\nx\n}\nproxy={\nnew 1 2\n}\n");
  EXPECT_EQ(parser_delete(PARSER_PROXY, nullptr), 0);
  EXPECT_EQ(stored(), "logserver={\nx\n}\n");

  // A '}' inside a line ends the walk there: that line's start gives way.
  set_store("proxy={\nsite 1 2\nbad }\n");
  EXPECT_EQ(parser_save(PARSER_PROXY, "new 3 4"), 0);
  EXPECT_EQ(stored(), "proxy={\nsite 1 2\nnew 3 4\n}\n");
  // A section with no end keeps its whole lines and does not take the text.
  set_store("proxy={\nsite 1 2\ncut");
  EXPECT_EQ(parser_save(PARSER_PROXY, "new 3 4"), 0);
  EXPECT_EQ(stored(), "proxy={\nsite 1 2\n");
  EXPECT_EQ(parser_delete(PARSER_PROXY, "new"), -1);
}

TEST_F(ParserSaveTest, SectionsReplacedInPlaceAndBraceRules) {
  set_store("a={\n1\n}\nlogserver={\nold\n}\nb={\n2\n}\n");
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, "new"), 0);
  EXPECT_EQ(stored(), "a={\n1\n}\nlogserver={\nnew\n}\nb={\n2\n}\n");
  EXPECT_EQ(parser_delete(PARSER_LOGSERVER, nullptr), 0);
  EXPECT_EQ(stored(), "a={\n1\n}\nb={\n2\n}\n");

  // A '}' in a value: read back up to it, and the next save leaves the rest.
  set_store("logserver={\na}b\n}\n");
  char out[KEY_VALUE_SIZE] = {};
  int len = 0;
  EXPECT_EQ(parser_get(PARSER_LOGSERVER, out, &len), 0);
  EXPECT_STREQ(out, "a");
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, "c"), 0);
  EXPECT_EQ(stored(), "logserver={\nc\n}\n\n}\n");

  // No '}' behind the key: save takes the rest, delete refuses.
  set_store("x={\n1\n}\nrandtime={\n5");
  EXPECT_EQ(parser_delete(PARSER_RANDTIME, nullptr), -1);
  EXPECT_EQ(stored(), "x={\n1\n}\nrandtime={\n5");
  EXPECT_EQ(parser_save(PARSER_RANDTIME, "7"), 0);
  EXPECT_EQ(stored(), "x={\n1\n}\nrandtime={\n7\n}\n");

  // A key inside an earlier value is taken for the section.
  set_store("proxy={\nsite syslog 81\n}\nsyslog={\nold\n}\n");
  EXPECT_EQ(parser_save(PARSER_SYSLOG, "new"), 0);
  EXPECT_EQ(stored(), "proxy={\nsite syslog={\nnew\n}\nsyslog={\nold\n}\n");

  // A '}' inside a proxy line ends the walk; text takes that line's start.
  set_store("proxy={\nab}c 1 2\n}\n");
  EXPECT_EQ(parser_save(PARSER_PROXY, "n 3 4"), 0);
  EXPECT_EQ(stored(), "proxy={\nn 3 4\n}c 1 2\n}\n");
}

TEST_F(ParserSaveTest, RefusalsWriteNothing) {
  const std::string text = "fixed_key={\nk\n}\nproxy={\na 1 2\n}\n";
  set_store(text);
  EXPECT_EQ(parser_save(21, "v"), -1);
  EXPECT_TRUE(logged("ERROR", "parser_save", "parser not support save: 21.\n"));
  EXPECT_EQ(parser_delete(25, nullptr), -1);
  EXPECT_TRUE(logged("ERROR", "parser_delete", "parser not support delete: 25.\n"));
  EXPECT_EQ(parser_delete(PARSER_FIXED_KEY, nullptr), -1);
  EXPECT_EQ(parser_delete(PARSER_CLUSTER_KEY, nullptr), -1);
  EXPECT_EQ(parser_delete(PARSER_RANDTIME, nullptr), -1);
  EXPECT_TRUE(logged("ERROR", "parser_delete", "The para: randtime is not exist.\n"));
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, nullptr), -1);

  // Sizes: the section frame, the read-back bound, the whole text.
  EXPECT_EQ(parser_save(PARSER_PROXY, ("b 1 " + std::string(497, '2')).c_str()), -1);
  EXPECT_TRUE(logged("ERROR", "parser_save", "parameter too long: proxy"));
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, std::string(KEY_VALUE_SIZE, 'l').c_str()), -1);
  EXPECT_EQ(stored(), text);
  EXPECT_EQ(parser_save(PARSER_PROXY, ("b 1 " + std::string(496, '2')).c_str()), 0);
  const std::string full = stored();  // proxy value now 506 characters
  EXPECT_EQ(parser_save(PARSER_PROXY, "d 1 2"), -1);
  EXPECT_TRUE(logged("ERROR", "parser_save", "value of proxy would have 512 characters, over 511"));
  EXPECT_EQ(stored(), full);
  const std::string longest(KEY_VALUE_SIZE - 1, 'l');
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, longest.c_str()), 0);
  EXPECT_EQ(stored(), full + "logserver={\n" + longest + "\n}\n");

  std::string big = "randtime={\n" + std::string(STORED_TEXT_SIZE - 100, 'r') + "\n}\n";
  set_store(big);
  EXPECT_EQ(parser_save(PARSER_LOGSERVER, std::string(KEY_VALUE_SIZE - 1, 'l').c_str()), -1);
  EXPECT_TRUE(logged("ERROR", "parser_save", "stored parameters would exceed 18432 bytes"));
  EXPECT_TRUE(stored() == big);

  write_text(STORE_PATH, "not a store");
  EXPECT_EQ(parser_save(22, "v"), -1);  // the read fails first: no id message
  EXPECT_FALSE(logged("ERROR", "parser_save", "parser not support save: 22."));
  EXPECT_EQ(parser_delete(PARSER_LOGSERVER, nullptr), -1);
  EXPECT_FALSE(logged("ERROR", "parser_delete", "The para: logserver"));
}

}  // namespace
