// The generator under mox_conf: one website line to its blocks, as an older tool may have
// stored it, and more websites than the file holds. Whole files through the real tool are
// the admin tests' part; the stored text's edits and the template expansion meet hostile
// input in their fuzz targets.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "confgen/confgen.h"
#include "files.h"
#include "sandbox.h"
#include "store/store.h"

namespace {

// generate_proxy_conf on a copy of text (it cuts the line in place); the code, the blocks
// ("stale" for a result not cleared, "<length mismatch>" for a length that is not the
// text's) and the seconds it took.
int website(const char *text, std::string *result, double *took) {
  char line[PROXY_VALUE_SIZE];
  snprintf(line, sizeof line, "%s", text);
  char block[PROXY_BLOCK_SIZE] = "stale";
  int len = -1;
  auto start = std::chrono::steady_clock::now();
  int rc = generate_proxy_conf(line, block, &len);
  *took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  *result = len >= 0 && (size_t)len == strlen(block) ? block : "<length mismatch>";
  return rc;
}

TEST(Confgen, WebsiteLineGivesItsBlocksOrNothing) {
  REQUIRE_SANDBOX();
  std::string out;
  double took = 0;
  // The listening side's scheme decides ssl; the last --protect counts.
  ASSERT_EQ(website("w HTTPS://127.0.0.1 https://0.0.0.0 --protect=monitor --protect=off", &out, &took), 0);
  EXPECT_EQ(out,
            "upstream upstream_w {\n    server 0.0.0.0:;\n}\n\nserver {\n"
            "    listen 127.0.0.1:;\n    ssl off;\n    kvsafe off;\n    kvsafe_learning_mode off;\n"
            "    set $proxy_upstream https://upstream_w;\n    set $proxy_ssl off;\n"
            "    include policy_default.conf;\n}\n\n\n");
  for (const char *line : {"name", "name 127.0.0.1:80", "name  127.0.0.1:80 81", "name bad!:80 81",
                           "n 80 81 ", "n 80 81  --protect=on", "n 80 81 --protect",
                           "n 80 81 --protect=on=x", "n 80 81 --protect=monitor --protect=bad",
                           "n 80 81 --other=on", "n 80 203.0.113.1:81"}) {
    EXPECT_EQ(website(line, &out, &took), -1) << line;
    EXPECT_EQ(out, "") << line;
    EXPECT_LT(took, 1.0) << line;  // a local listening address: no wait
  }
  // A listening address that never comes up: 6 tests, 5 seconds.
  EXPECT_EQ(website("n 203.0.113.1:80 81", &out, &took), -1);
  EXPECT_TRUE(took >= 5.0 && took < 5.9) << took;
}

TEST(Confgen, WebsitesBeyondTheBufferAreLeftOut) {
  REQUIRE_SANDBOX();
  sandbox_wipe(STORE_DIR);
  ASSERT_EQ(system("mkdir -p " RELEASE_DIR "/nginx"), 0);
  std::string lines, block, expected;
  for (int i = 0; i < 85; i++) lines += "a 1 2\n";  // 509 characters as read
  lines = "proxy={\n" + lines + "}\n";
  ASSERT_EQ(sec_write_conf(lines.data(), (int)lines.size()), 0);
  double took = 0;
  ASSERT_EQ(website("a 1 2", &block, &took), 0);
  size_t fit = STORED_TEXT_SIZE / block.size();
  ASSERT_LT(fit, 85u);
  EXPECT_EQ(generate_data(DATA_PROXY, nullptr), 0);
  for (size_t i = 0; i < fit; i++) expected += block;
  EXPECT_EQ(slurp(WEBSITES_CONF_PATH), expected);
}

}  // namespace
