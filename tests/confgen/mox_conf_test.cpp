// Black-box tests of the mox_conf tool: the real binary on the real store,
// with the release files of the repository installed in the sandbox, and a
// real nginx checking what it generates.
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "run_binary.h"
#include "sandbox.h"
#include "store/store.h"

namespace {

const char kStore[] = "/media/nand/mox_data/mox_conf.dat";
const char kWebsites[] = "/tmp/mox/release/nginx/website_upstreams.conf";
const char kNginxConf[] = "/tmp/mox/release/nginx/nginx.conf";
const char kQspConf[] = "/tmp/mox/release/conf_shared/qsp_conf.json";
const char kNginx[] = "/usr/sbin/nginx";

using Result = RunResult;

// Runs mox_conf with args, collecting both outputs and the exit code.
Result mox_conf(std::vector<std::string> args) {
  args.insert(args.begin(), "mox_conf");
  return run_binary(sandbox_conf_path(), args);
}

std::string slurp(const std::string &path) {
  std::string text;
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

bool spill(const std::string &path, const std::string &text) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

std::string replaced(std::string text, const std::string &from, const std::string &to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// Whole-input JSON validity, by recursive descent.
struct JsonCheck {
  const char *p;
  void blank() { while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') p++; }
  bool word(const char *w) { return std::strncmp(p, w, std::strlen(w)) == 0 && (p += std::strlen(w)); }
  bool digits() { const char *s = p; while (std::isdigit((unsigned char)*p)) p++; return p > s; }
  bool number() {
    if (*p == '-') p++;
    if (!digits()) return false;
    if (*p == '.' && (++p, !digits())) return false;
    if (*p == 'e' || *p == 'E') { p++; if (*p == '+' || *p == '-') p++; return digits(); }
    return true;
  }
  bool string() {
    if (*p != '"') return false;
    for (p++; *p != '"'; p++) {
      if (*p == '\0' || (unsigned char)*p < 0x20) return false;
      if (*p == '\\' && (*++p == '\0' || std::strchr("\"\\/bfnrtu", *p) == nullptr)) return false;
    }
    p++;
    return true;
  }
  bool list(char close, bool object) {
    p++;
    blank();
    if (*p == close) return ++p;
    for (;;) {
      blank();
      if (object && !(string() && (blank(), *p++ == ':'))) return false;
      if (!value()) return false;
      if (*p == close) return ++p;
      if (*p++ != ',') return false;
    }
  }
  bool value() {
    blank();
    bool ok = *p == '{' ? list('}', true) : *p == '[' ? list(']', false) : *p == '"' ? string()
            : word("true") || word("false") || word("null") || number();
    blank();
    return ok;
  }
};

bool json_valid(const std::string &text) {
  JsonCheck c{text.c_str()};
  return c.value() && *c.p == '\0';
}

// A self-signed certificate and key where the nginx template expects the
// device's own.
bool make_certificate(const std::string &crt, const std::string &key) {
  EVP_PKEY *pkey = EVP_EC_gen("P-256");
  X509 *x = X509_new();
  bool ok = pkey != nullptr && x != nullptr;
  if (ok) {
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 86400);
    X509_set_pubkey(x, pkey);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                               (const unsigned char *)"mox-test", -1, -1, 0);
    X509_set_issuer_name(x, X509_get_subject_name(x));
    ok = X509_sign(x, pkey, EVP_sha256()) > 0;
  }
  FILE *c = ok ? std::fopen(crt.c_str(), "w") : nullptr;
  FILE *k = ok ? std::fopen(key.c_str(), "w") : nullptr;
  ok = c != nullptr && k != nullptr && PEM_write_X509(c, x) == 1 &&
       PEM_write_PrivateKey(k, pkey, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  if (c != nullptr) std::fclose(c);
  if (k != nullptr) std::fclose(k);
  X509_free(x);
  EVP_PKEY_free(pkey);
  return ok;
}

const char kWeb1[] = "web1 127.0.0.1:8080 127.0.0.1:80";
const char kWeb2[] = "web2 https://0.0.0.0:8443 https://127.0.0.1:443 --protect=monitor";

const char kWeb1Block[] =
    "upstream upstream_web1 {\n    server 127.0.0.1:80;\n}\n\nserver {\n"
    "    listen 127.0.0.1:8080;\n    ssl off;\n    kvsafe on;\n    kvsafe_learning_mode off;\n"
    "    set $proxy_upstream http://upstream_web1;\n    set $proxy_ssl off;\n"
    "    include policy_default.conf;\n}\n\n\n";
const char kWeb2Block[] =
    "upstream upstream_web2 {\n    server 127.0.0.1:443;\n}\n\nserver {\n"
    "    listen 0.0.0.0:8443;\n    ssl on;\n    kvsafe on;\n    kvsafe_learning_mode on;\n"
    "    set $proxy_upstream https://upstream_web2;\n    set $proxy_ssl on;\n"
    "    include policy_default.conf;\n}\n\n\n";

class MoxConfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandbox_ready()) return;
    sandbox_del_br0();
    sandbox_wipe("/tmp/mox");
    sandbox_wipe("/media/nand");
    ASSERT_EQ(0, std::system("mkdir -p /tmp/mox && cp -r '" MOX_SOURCE_DIR "/release' /tmp/mox/"));
  }

  void TearDown() override {
    if (sandbox_ready()) sandbox_del_br0();
  }

  // Runs and expects success with empty stderr.
  std::string ok(std::vector<std::string> args) {
    Result r = mox_conf(args);
    EXPECT_EQ(0, r.code) << args[0] << ": " << r.err;
    EXPECT_EQ("", r.err);
    return r.out;
  }

  // Runs and expects the exit code with one "mox_conf: " line on stderr.
  void fails(int code, std::vector<std::string> args) {
    Result r = mox_conf(args);
    std::string shown = args.empty() ? "(none)" : args.back();
    EXPECT_EQ(code, r.code) << shown << ": " << r.err;
    EXPECT_EQ(0u, r.err.rfind("mox_conf: ", 0)) << shown << ": " << r.err;
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << shown << ": " << r.err;
    EXPECT_EQ("", r.out) << shown;
  }
};

TEST_F(MoxConfTest, WebsitesAreAddedReplacedAndRemovedByFullName) {
  REQUIRE_SANDBOX();
  EXPECT_EQ("", ok({"proxy", "list"}));
  ok({"proxy", "add", "site 127.0.0.1:8080 127.0.0.1:80"});
  ok({"proxy", "add", "site2 127.0.0.1:8081 127.0.0.1:81"});
  ok({"proxy", "add", "other 127.0.0.1:8082 127.0.0.1:82"});
  ok({"proxy", "add", "site 0.0.0.0:9090 127.0.0.1:90 --protect=off"});
  EXPECT_EQ("site 0.0.0.0:9090 127.0.0.1:90 --protect=off\nsite2 127.0.0.1:8081 127.0.0.1:81\n"
            "other 127.0.0.1:8082 127.0.0.1:82\n",
            ok({"proxy", "list"}));
  ok({"proxy", "remove", "site"});
  fails(1, {"proxy", "remove", "site"});
  fails(1, {"proxy", "remove", "site2 127.0.0.1:8081 127.0.0.1:81"});
  EXPECT_EQ("site2 127.0.0.1:8081 127.0.0.1:81\nother 127.0.0.1:8082 127.0.0.1:82\n",
            ok({"proxy", "list"}));
  ok({"proxy", "remove", "site2"});
  ok({"proxy", "remove", "other"});
  EXPECT_EQ("", ok({"proxy", "list"}));
  ok({"proxy", "add", "again 127.0.0.1:8080 127.0.0.1:80"});
  EXPECT_EQ("again 127.0.0.1:8080 127.0.0.1:80\n", ok({"proxy", "list"}));
}

TEST_F(MoxConfTest, SectionsAreSetReadAndDeleted) {
  REQUIRE_SANDBOX();
  fails(1, {"get", "logserver"});
  ok({"set", "logserver", "10.0.0.5:514"});
  ok({"set", "randtime", "3600"});
  ok({"set", "logserver", "10.0.0.6:601"});
  ok({"set", "fixed_key", ""});
  EXPECT_EQ("10.0.0.6:601\n", ok({"get", "logserver"}));
  EXPECT_EQ("3600\n", ok({"get", "randtime"}));
  EXPECT_EQ("\n", ok({"get", "fixed_key"}));
  ok({"delete", "logserver"});
  fails(1, {"get", "logserver"});
  fails(1, {"delete", "logserver"});
  fails(1, {"delete", "fixed_key"});
  EXPECT_EQ("3600\n", ok({"get", "randtime"}));
  ok({"proxy", "add", "web 127.0.0.1:8080 127.0.0.1:80"});
  ok({"delete", "proxy"});
  EXPECT_EQ("", ok({"proxy", "list"}));
}

TEST_F(MoxConfTest, CallsWaitForTheLockHolder) {
  REQUIRE_SANDBOX();
  int fd = open("/tmp/mox/mox_conf.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, flock(fd, LOCK_EX));
  pid_t pid = fork();
  if (pid == 0) {
    close(fd);  // the lock stays with the parent's descriptor alone
    _exit(mox_conf({"set", "randtime", "1 2"}).code);
  }
  usleep(300 * 1000);
  EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG)) << "mox_conf ran past the lock";
  EXPECT_EQ("<missing>", slurp(kStore));
  close(fd);
  int status = -1;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ("1 2\n", ok({"get", "randtime"}));
}

TEST_F(MoxConfTest, BadUsageExitsTwoAndHelpExitsZero) {
  REQUIRE_SANDBOX();
  std::vector<std::vector<std::string>> bad = {
      {}, {"frob"}, {"get"}, {"get", "logserver", "x"}, {"set", "logserver"}, {"delete"},
      {"proxy"}, {"proxy", "add"}, {"proxy", "list", "x"}, {"proxy", "drop", "x"},
      {"generate"}, {"generate", "apache"}, {"--version"}};
  for (const auto &args : bad) fails(2, args);
  Result help = mox_conf({"--help"});
  EXPECT_EQ(0, help.code);
  EXPECT_EQ(0u, help.out.find("usage: mox_conf get SECTION\n"));
  EXPECT_NE(std::string::npos, help.out.find("never regenerate"));
  EXPECT_EQ("<missing>", slurp(kStore));
}

TEST_F(MoxConfTest, RefusalsLeaveTheStoreUntouched) {
  REQUIRE_SANDBOX();
  // Largest values that fit: 127 bytes, as reads return them.
  ok({"set", "logserver", std::string(127, 'a')});
  ok({"set", "fixed_key", std::string(127, 'k')});
  std::string name(100, 'n');
  for (char c : std::string("123"))
    ok({"proxy", "add", name + c + " 127.0.0.1:8080 127.0.0.1:80"});  // 3 x 129 bytes
  const std::string before = slurp(kStore);

  std::vector<std::vector<std::string>> refused = {
      {"set", "logserver", std::string(128, 'a')},
      {"set", "fixed_key", std::string(128, 'k')},
      {"set", "syslog", "local0}"}, {"set", "syslog", "a\nb"}, {"set", "syslog", "tab\there"},
      {"set", "cluster_key", "say \"hi\""}, {"set", "randtime", "my_syslog"},
      {"set", "nosuch", "1"}, {"get", "nosuch"}, {"set", "proxy", "x 127.0.0.1:1 127.0.0.1:2"},
      {"delete", "fixed_key"}, {"delete", "cluster_key"},
      {"proxy", "add", name + "4 127.0.0.1:8080 127.0.0.1:80"},  // proxy value over 511
      {"proxy", "add", "web 127.0.0.1:8080"}, {"proxy", "add", " 127.0.0.1:8080 127.0.0.1:80"},
      {"proxy", "add", "web  127.0.0.1:8080 127.0.0.1:80"},
      {"proxy", "add", "web 127.0.0.1:8080 127.0.0.1:80 "},
      {"proxy", "add", "web 127.0.0.1:8080 127.0.0.1:80 --protect=maybe"},
      {"proxy", "add", "web 127.0.0.1:8080 127.0.0.1"},
      {"proxy", "add", "web localhost:8080 127.0.0.1:80"},
      {"proxy", "add", "web 127.0.0.1:70000 127.0.0.1:80"},
      {"proxy", "add", "w;b 127.0.0.1:8080 127.0.0.1:80"},
      {"proxy", "add", "web 127.0.0.1:8080 127.0.0.1:80}"},
      {"proxy", "add", "syslogweb 127.0.0.1:8080 127.0.0.1:80"},
      {"proxy", "remove", "absent"}};
  for (const auto &args : refused) fails(1, args);
  EXPECT_TRUE(slurp(kStore) == before) << "the store changed";

  // A stored text near its limit (as an older tool could leave it) takes
  // no section that would push it over.
  std::string big = "randtime={\n" + std::string(STORE_TEXT_MAX - 100, 'r') + "\n}\n";
  ASSERT_EQ(0, sec_write_conf(big.c_str(), (int)big.size()));
  const std::string full = slurp(kStore);
  fails(1, {"set", "syslog", std::string(100, 's')});
  EXPECT_TRUE(slurp(kStore) == full);
  ok({"set", "syslog", std::string(70, 's')});
}

TEST_F(MoxConfTest, GenerateWritesTheFilesFromTemplatesAndWebsites) {
  REQUIRE_SANDBOX();
  ok({"proxy", "add", kWeb1});
  ok({"proxy", "add", kWeb2});
  ok({"set", "fixed_key", "F1x-key_0123"});
  ok({"set", "cluster_key", "c-key/9"});
  ok({"generate", "all"});

  EXPECT_EQ(std::string(kWeb1Block) + kWeb2Block, slurp(kWebsites));
  std::string nginx = slurp(MOX_SOURCE_DIR "/release/nginx/nginx_template.conf");
  for (auto kv : {std::make_pair("{admin_ip}", "192.168.1.1"), {"{mox_user}", "root"},
                  {"{syslog_ip}", "127.0.0.1"}, {"{syslog_port}", "514"},
                  {"{syslog_facility}", "authpriv"}})
    nginx = replaced(nginx, kv.first, kv.second);
  EXPECT_EQ(nginx, slurp(kNginxConf));
  EXPECT_NE(std::string::npos, nginx.find("\nuser root;\n"));
  EXPECT_NE(std::string::npos, nginx.find("include /tmp/mox/release/nginx/website_upstreams.conf;"));

  std::string qsp = slurp(MOX_SOURCE_DIR "/release/conf_shared/qsp_conf_template.json");
  qsp = replaced(replaced(replaced(qsp, "{admin_ip}", "192.168.1.1"), "{fixed_key}", "F1x-key_0123"),
                 "{cluster_key}", "c-key/9");
  EXPECT_EQ(qsp, slurp(kQspConf));
  EXPECT_NE(std::string::npos, qsp.find("\"cluster_key\": \"c-key/9\""));
  EXPECT_TRUE(json_valid(slurp(kQspConf)));
  EXPECT_FALSE(json_valid(replaced(qsp, "\"c-key/9\"", "c-key/9")));
}

TEST_F(MoxConfTest, AdminAddressFollowsBr0) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, sandbox_add_br0("192.168.77.1/24"));
  ok({"generate", "qsp"});
  EXPECT_NE(std::string::npos, slurp(kQspConf).find("\"admin_ip\": \"192.168.77.1\",\n"));
  EXPECT_EQ("<missing>", slurp(kNginxConf));
}

TEST_F(MoxConfTest, WebsiteFileHoldsExactlyTheWebsitesThatGenerate) {
  REQUIRE_SANDBOX();
  ok({"proxy", "add", kWeb1});
  ok({"proxy", "add", "far 127.0.0.1:8090 203.0.113.7:80"});  // upstream not of this device
  Result r = mox_conf({"generate", "nginx"});
  EXPECT_EQ(1, r.code);
  EXPECT_NE(std::string::npos, r.err.find("1 of 2 websites left out")) << r.err;
  EXPECT_EQ(kWeb1Block, slurp(kWebsites));
  ok({"proxy", "remove", "far"});
  ok({"generate", "nginx"});
  EXPECT_EQ(kWeb1Block, slurp(kWebsites));
  ok({"proxy", "remove", "web1"});
  ok({"generate", "nginx"});
  EXPECT_EQ("", slurp(kWebsites));
  ok({"delete", "proxy"});
  ASSERT_EQ(0, unlink(kNginxConf));
  ok({"generate", "nginx"});
  EXPECT_EQ("", slurp(kWebsites));
  EXPECT_NE("<missing>", slurp(kNginxConf));

  ASSERT_EQ(0, sandbox_wipe("/tmp/mox/release/conf_shared"));
  fails(1, {"generate", "all"});
  fails(1, {"generate", "qsp"});
}

TEST_F(MoxConfTest, NginxAcceptsTheGeneratedConfiguration) {
  REQUIRE_SANDBOX();
  if (access(kNginx, X_OK) != 0) GTEST_SKIP() << "nginx not installed (scripts/test installs it)";
  ok({"proxy", "add", "web1 127.0.0.1:8080 127.0.0.1:80"});
  ok({"proxy", "add", "web2 https://0.0.0.0:8443 127.0.0.1:81 --protect=monitor"});
  // nginx -t binds the listening addresses: the admin address must exist.
  ASSERT_EQ(0, sandbox_add_br0("192.168.1.1/24"));
  ok({"generate", "nginx"});
  ASSERT_EQ(0, std::system("mkdir -p /media/nand/mox_data/cert /tmp/mox/nginx_check"));
  ASSERT_TRUE(make_certificate("/media/nand/mox_data/cert/server.crt",
                               "/media/nand/mox_data/cert/server.key"));

  // The engine's directives are unknown to a stock nginx: copies without
  // them, the main file including the copy of the website file.
  const std::string dir = "/tmp/mox/nginx_check/";
  for (const char *file : {"nginx.conf", "website_upstreams.conf", "policy_default.conf"}) {
    std::string text = slurp(std::string("/tmp/mox/release/nginx/") + file), kept;
    for (size_t at = 0; at < text.size();) {
      size_t end = std::min(text.find('\n', at), text.size() - 1);
      std::string line = text.substr(at, end - at + 1);
      if (line.find("kvsafe") == std::string::npos) kept += line;
      at = end + 1;
    }
    ASSERT_TRUE(spill(dir + file, replaced(kept, kWebsites, dir + "website_upstreams.conf")));
  }
  std::string cmd = std::string(kNginx) + " -t -p " + dir + " -c " + dir + "nginx.conf 2>&1";
  FILE *p = popen(cmd.c_str(), "r");
  ASSERT_NE(nullptr, p);
  std::string said;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p) != nullptr) said += buf;
  EXPECT_EQ(0, pclose(p)) << said;
  EXPECT_NE(std::string::npos, said.find("test is successful")) << said;
}

}  // namespace
