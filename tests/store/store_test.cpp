#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "store/store.h"

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe("/media/nand");
    store_fail_after_step(0);
  }
  void TearDown() override { store_fail_after_step(0); }

  static std::string slurp(const char *path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
  }
  static void spill(const std::string &data) {
    ASSERT_EQ(make_dirs(STORE_DIR), 0);
    ASSERT_EQ(write_file(STORE_PATH, data.data(), data.size()), 0);
  }
  // sec_read_conf with a buffer of size bytes; the text goes to *out.
  static int load(std::string *out, int size = STORE_TEXT_MAX) {
    std::string buf(static_cast<size_t>(size) + 1, 'x');
    int len = size;
    int rc = sec_read_conf(&buf[0], &len);
    if (rc == 0) {
      *out = buf.substr(0, static_cast<size_t>(len));
      if (len < size) {
        EXPECT_EQ(buf[static_cast<size_t>(len)], '\0');
      }
    }
    return rc;
  }
  static int save(const std::string &text) {
    return sec_write_conf(text.data(), static_cast<int>(text.size()));
  }
};

TEST_F(StoreTest, RoundTripsAndEnciphers) {
  std::string binary;
  for (int i = 0; i < 256; i++) binary.push_back(static_cast<char>(i));
  std::string full;
  while (full.size() < STORE_TEXT_MAX) full += "proxy={\nsite 10.0.0.1:80\n}\n";
  full.resize(STORE_TEXT_MAX);
  for (const std::string &text : {std::string(), std::string("a"), binary, full}) {
    ASSERT_EQ(save(text), 0);
    std::string back;
    ASSERT_EQ(load(&back), 0);
    EXPECT_EQ(back, text);
    std::string file = slurp(STORE_PATH);
    EXPECT_EQ(file.size(), STORE_HEADER_SIZE + text.size() + STORE_TAG_SIZE);
    EXPECT_EQ(file.find("site 10.0.0.1"), std::string::npos);
  }
  std::string back;
  EXPECT_EQ(load(&back, STORE_TEXT_MAX - 1), -1);  // one byte short of the text
  EXPECT_EQ(save(full + "a"), -1);
  EXPECT_EQ(sec_write_conf("x", -1), -1);
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, full);
}

TEST_F(StoreTest, MissingStoreReadsEmptyAndFirstSaveCreatesFolder) {
  std::string back = "stale";
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, "");
  ASSERT_EQ(save("randtime={\n5\n}\n"), 0);
  EXPECT_EQ(dir_exists(STORE_DIR), 1);
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, "randtime={\n5\n}\n");
  EXPECT_EQ(file_exists(STORE_TMP_PATH), 0);
}

TEST_F(StoreTest, EveryFlipAndTruncationIsDetected) {
  ASSERT_EQ(save("syslog={\nlocal0\n}\n"), 0);
  const std::string good = slurp(STORE_PATH);
  std::string back;
  for (size_t i = 0; i < good.size(); i++) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x01);
    spill(bad);
    EXPECT_EQ(load(&back), -1) << "flip at " << i;
    spill(good.substr(0, i));
    EXPECT_EQ(load(&back), -1) << "cut at " << i;
  }
  spill(good + "x");
  EXPECT_EQ(load(&back), -1);
  spill(good);
  ASSERT_EQ(load(&back), 0);
  EXPECT_EQ(back, "syslog={\nlocal0\n}\n");
}

TEST_F(StoreTest, ForeignFileFailsAndSurvivesSave) {
  ASSERT_EQ(save("logserver={\n1\n}\n"), 0);
  std::string other_magic = slurp(STORE_PATH);
  other_magic.replace(0, STORE_MAGIC_SIZE, "MOXT");
  std::string noise;
  unsigned int seed = 12345;
  for (int i = 0; i < 300; i++)
    noise.push_back(static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16));
  log_init("/tmp/store_test.log", "mox_logd", LOG_MASK_FILE);
  for (const std::string &foreign : {noise, std::string(), other_magic}) {
    spill(foreign);
    std::string back;
    EXPECT_EQ(load(&back), -1);
    EXPECT_EQ(save("proxy={\n}\n"), -1);
    EXPECT_EQ(slurp(STORE_PATH), foreign);
  }
  log_close();
  EXPECT_NE(slurp("/tmp/store_test.log").find("stored parameters unreadable: "), std::string::npos);
}

TEST_F(StoreTest, KilledWriteLeavesOldOrNewText) {
  for (int step = 1; step <= 3; step++) {
    sandbox_wipe("/media/nand");
    ASSERT_EQ(save("old text"), 0);
    store_fail_after_step(step);
    EXPECT_EQ(save("new text"), -1);
    store_fail_after_step(0);
    std::string back;
    ASSERT_EQ(load(&back), 0) << "step " << step;
    EXPECT_EQ(back, step < 3 ? "old text" : "new text") << "step " << step;
    EXPECT_EQ(file_exists(STORE_TMP_PATH), step < 3 ? 1 : 0) << "step " << step;
    ASSERT_EQ(save("after"), 0);
    ASSERT_EQ(load(&back), 0);
    EXPECT_EQ(back, "after");
  }
}

TEST_F(StoreTest, EveryWriteTakesAFreshNonce) {
  ASSERT_EQ(save("fixed_key={\nabc\n}\n"), 0);
  std::string first = slurp(STORE_PATH);
  ASSERT_EQ(save("fixed_key={\nabc\n}\n"), 0);
  std::string second = slurp(STORE_PATH);
  ASSERT_EQ(first.size(), second.size());
  EXPECT_NE(first.substr(STORE_NONCE_OFFSET, STORE_NONCE_SIZE),
            second.substr(STORE_NONCE_OFFSET, STORE_NONCE_SIZE));
  EXPECT_NE(first.substr(STORE_HEADER_SIZE), second.substr(STORE_HEADER_SIZE));
}
