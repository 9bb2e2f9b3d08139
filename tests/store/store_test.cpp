// The store of the stored parameters: round trips up to its size, enciphered with a fresh
// nonce every write, and any damaged or foreign file refused and left as it is. Kills
// during a write are the black-box fault tests' part.
#include <gtest/gtest.h>

#include <string>

#include "files.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "store/store.h"

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe("/media/nand");
  }
  static void put(const std::string &data) {
    ASSERT_EQ(make_dirs(STORE_DIR), 0);
    ASSERT_TRUE(spill(STORE_PATH, data));
  }
  // sec_read_conf with a buffer of size bytes; the text goes to *out.
  static int load(std::string *out, int size = STORE_TEXT_MAX) {
    std::string buf(static_cast<size_t>(size) + 1, 'x');
    int len = size;
    int rc = sec_read_conf(&buf[0], &len);
    if (rc == 0) {
      *out = buf.substr(0, static_cast<size_t>(len));
      EXPECT_TRUE(len == size || buf[static_cast<size_t>(len)] == '\0');
    }
    return rc;
  }
  static int save(const std::string &text) {
    return sec_write_conf(text.data(), static_cast<int>(text.size()));
  }
};

TEST_F(StoreTest, RoundTripsEnciphered) {
  std::string back = "stale";
  ASSERT_EQ(load(&back), 0);  // no store yet: empty
  EXPECT_EQ(back, "");
  std::string binary, full;
  for (int i = 0; i < 256; i++) binary.push_back(static_cast<char>(i));
  while (full.size() < STORE_TEXT_MAX) full += "proxy={\nsite 10.0.0.1:80\n}\n";
  full.resize(STORE_TEXT_MAX);
  std::string nonce;
  for (const std::string &text : {std::string(), std::string("a"), binary, full, full}) {
    ASSERT_EQ(save(text), 0);
    ASSERT_EQ(load(&back), 0);
    EXPECT_EQ(back, text);
    std::string file = slurp(STORE_PATH);
    EXPECT_EQ(file.size(), STORE_HEADER_SIZE + text.size() + STORE_TAG_SIZE);
    EXPECT_EQ(file.find("site 10.0.0.1"), std::string::npos);
    EXPECT_NE(file.substr(STORE_NONCE_OFFSET, STORE_NONCE_SIZE), nonce) << "a nonce used twice";
    nonce = file.substr(STORE_NONCE_OFFSET, STORE_NONCE_SIZE);
  }
  EXPECT_EQ(load(&back, STORE_TEXT_MAX - 1), -1);  // one byte short of the text
  EXPECT_EQ(save(full + "a"), -1);
  EXPECT_EQ(sec_write_conf("x", -1), -1);
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, full);
  EXPECT_EQ(file_exists(STORE_TMP_PATH), 0);
}

TEST_F(StoreTest, EveryFlipTruncationAndForeignFileIsRefusedAndKept) {
  ASSERT_EQ(save("syslog={\nlocal0\n}\n"), 0);
  const std::string good = slurp(STORE_PATH);
  std::string back;
  for (size_t i = 0; i < good.size(); i++) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x01);
    put(bad);
    EXPECT_EQ(load(&back), -1) << "flip at " << i;
    put(good.substr(0, i));
    EXPECT_EQ(load(&back), -1) << "cut at " << i;
  }
  std::string other_magic = good, noise;
  other_magic.replace(0, STORE_MAGIC_SIZE, "MOXT");
  unsigned int seed = 12345;
  for (int i = 0; i < 300; i++)
    noise.push_back(static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16));
  log_init("/tmp/store_test.log", "mox_logd", LOG_MASK_FILE);
  for (const std::string &foreign : {noise, std::string(), other_magic, good + "x"}) {
    put(foreign);
    EXPECT_EQ(load(&back), -1);
    EXPECT_EQ(save("proxy={\n}\n"), -1);
    EXPECT_EQ(slurp(STORE_PATH), foreign);
  }
  log_close();
  EXPECT_NE(slurp("/tmp/store_test.log").find("stored parameters unreadable: "), std::string::npos);
  put(good);
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, "syslog={\nlocal0\n}\n");
}
