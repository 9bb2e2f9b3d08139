// The release package: packed reproducibly, found behind a program image, installed as a
// whole folder keeping the generated files, and refused, changing nothing, when altered,
// signed by another key or built to escape its folder.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "files.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "store/store.h"

namespace fs = std::filesystem;

#define SOURCE MOX_SOURCE_DIR "/release"
#define TARGET "/tmp/mox/release"
#define FOREIGN_KEY "/tmp/mox/foreign.pem"

typedef std::map<std::string, std::pair<unsigned, std::string>> Tree;  // path: mode, bytes

static const char *const keep[] = {"nginx/nginx.conf", "nginx/website_upstreams.conf",
                                   "conf_shared/qsp_conf.json", nullptr};

class PackageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe("/tmp/mox");
    ASSERT_EQ(make_dirs("/tmp/mox"), 0);
  }
  static Tree tree(const char *dir) {
    Tree out;
    for (const auto &e : fs::recursive_directory_iterator(dir)) {
      struct stat st;
      EXPECT_EQ(lstat(e.path().c_str(), &st), 0);
      out[fs::relative(e.path(), dir).string()] = {
          st.st_mode & 07777, S_ISREG(st.st_mode) ? slurp(e.path()) : S_ISDIR(st.st_mode) ? "dir" : "other"};
    }
    return out;
  }
  static std::set<std::string> names(const char *dir) {  // what lies at the top of dir
    std::set<std::string> out;
    for (const auto &e : fs::directory_iterator(dir)) out.insert(e.path().filename().string());
    return out;
  }
  static std::string be32(size_t v) {
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
  }
  static std::string entry(char type, const std::string &path, const std::string &data = "") {
    return std::string(1, type) + be32(path.size()).substr(2) + path + be32(data.size()) + data;
  }
  static const unsigned char *u(const std::string &s) {
    return reinterpret_cast<const unsigned char *>(s.data());
  }
  static std::string taken(ReleaseBytes *b) {  // its bytes, and b freed
    std::string out(reinterpret_cast<const char *>(b->data), b->len);
    release_bytes_free(b);
    return out;
  }
  std::string pack() {
    ReleaseBytes pkg = {};
    EXPECT_EQ(release_pack_dir(SOURCE, MOX_RELEASE_SIGNING_KEY, &pkg, why_, sizeof why_), 0) << why_;
    return taken(&pkg);
  }
  std::string seal(const std::string &archive, const char *key = MOX_RELEASE_SIGNING_KEY) {
    ReleaseBytes pkg = {};
    EXPECT_EQ(release_seal(u(archive), archive.size(), key, &pkg, why_, sizeof why_), 0) << why_;
    return taken(&pkg);
  }
  char why_[RELEASE_WHY_SIZE] = {0};
};

TEST_F(PackageTest, InstallsTheReleaseWholeAndKeepsTheGeneratedFiles) {
  // The package behind a program image is the admin tests' part.
  std::string pkg = pack();
  EXPECT_EQ(pack(), pkg);  // reproducible: same inputs, same bytes

  // An old release: a generated file to keep, a template to replace, a file to drop.
  ASSERT_EQ(make_dirs(TARGET "/nginx"), 0);
  ASSERT_TRUE(spill(TARGET "/nginx/nginx.conf", "generated nginx"));
  ASSERT_TRUE(spill(TARGET "/nginx/policy_default.conf", "old policy"));
  ASSERT_TRUE(spill(TARGET "/stale", "gone"));
  mode_t old_mask = umask(0);
  ReleaseCount count = {0, 0, 0};
  int rc = release_install(u(pkg), pkg.size(), TARGET, keep, &count, why_, sizeof why_);
  umask(old_mask);
  ASSERT_EQ(rc, 0) << why_;

  Tree want = tree(SOURCE);
  int files = 0;
  for (auto &w : want) {
    bool dir = w.second.second == "dir";
    w.second.first = dir ? 0755 : 0644;
    files += !dir;
  }
  want["nginx/nginx.conf"] = {0644, "generated nginx"};
  EXPECT_EQ(tree(TARGET), want);
  EXPECT_EQ(count.files, files);
  EXPECT_EQ(fs::status(TARGET).permissions(), fs::perms(0755));
  EXPECT_EQ(names("/tmp/mox"), (std::set<std::string>{"release"}));
}

TEST_F(PackageTest, RefusesAlteredForeignAndHostilePackagesAndChangesNothing) {
  std::string good = pack();
  ASSERT_EQ(release_install(u(good), good.size(), TARGET, keep, nullptr, why_, sizeof why_), 0) << why_;
  ASSERT_TRUE(spill(TARGET "/nginx/nginx.conf", "generated"));
  const Tree before = tree(TARGET);
  ReleaseBytes opened = {};
  ASSERT_EQ(release_verify(u(good), good.size(), &opened, nullptr, why_, sizeof why_), 0) << why_;
  std::string archive = taken(&opened);
  EVP_PKEY *foreign = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  FILE *f = fopen(FOREIGN_KEY, "w");
  ASSERT_TRUE(foreign != nullptr && f != nullptr);
  ASSERT_EQ(PEM_write_PrivateKey(f, foreign, nullptr, nullptr, 0, nullptr, nullptr), 1);
  fclose(f);
  EVP_PKEY_free(foreign);

  // Each package and the reason its refusal names; a failure shows the case's index.
  std::string a = entry('d', "a");
  std::vector<std::pair<std::string, std::string>> cases = {
      {good.substr(0, good.size() - 1), "decipher"}, {good.substr(0, RELEASE_HEADER_SIZE), "too short"},
      {seal(archive, FOREIGN_KEY), "signature does not verify"},
      {seal(entry('f', "/etc/x", "x")), "absolute path"}, {seal(entry('f', "../x", "x")), "\"..\""},
      {seal(a + entry('f', "a/../../x", "x")), "\"..\""},
      {seal(a + entry('f', "a//b", "x")), "empty path component"},
      {seal(entry('l', "x", "/etc/passwd")), "unknown type"},
      {seal(entry('f', "x", "1") + entry('f', "x", "2")), "duplicate"},
      {seal(entry('f', "nodir/x", "x")), "folder is not in"},
      {seal(entry('f', "big", std::string(RELEASE_ARCHIVE_MAX, 0))), "inflates past"}};
  for (size_t at : {size_t{0}, size_t{4}, size_t{5}, size_t{16}, size_t{17}, size_t{90}, good.size() - 1}) {
    cases.push_back({good, at == 0 ? "not a release" : at == 4 ? "version" : "decipher"});
    cases.back().first[at] ^= 0x01;  // one byte flipped
  }
  for (size_t i = 0; i < cases.size(); i++) {
    memset(why_, 0, sizeof why_);
    EXPECT_EQ(release_install(u(cases[i].first), cases[i].first.size(), TARGET, keep, nullptr, why_, sizeof why_), -1) << i;
    EXPECT_NE(strstr(why_, cases[i].second.c_str()), nullptr) << i << ": " << why_;
    EXPECT_EQ(tree(TARGET), before) << i;
    EXPECT_EQ(names("/tmp/mox"), (std::set<std::string>{"foreign.pem", "release"})) << i;
  }
}
