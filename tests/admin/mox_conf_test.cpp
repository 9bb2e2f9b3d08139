// Black-box tests of the mox_conf tool: the real binary on the real store, with the
// release files of the repository installed in the sandbox.
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files.h"
#include "run_binary.h"
#include "store/store.h"

namespace {

const char kStore[] = "/media/nand/mox_data/mox_conf.dat";
const char kWebsites[] = "/tmp/mox/release/nginx/website_upstreams.conf";
const char kNginxConf[] = "/tmp/mox/release/nginx/nginx.conf";
const char kQspConf[] = "/tmp/mox/release/conf_shared/qsp_conf.json";
const char kNginx[] = "/usr/sbin/nginx";

// text with each placeholder replaced everywhere.
std::string expanded_text(std::string text, std::vector<std::pair<std::string, std::string>> values) {
  for (const auto &v : values)
    for (size_t at = text.find(v.first); at != std::string::npos;
         at = text.find(v.first, at + v.second.size()))
      text.replace(at, v.first.size(), v.second);
  return text;
}

// A release template with each placeholder replaced everywhere.
std::string expanded(const char *name, std::vector<std::pair<std::string, std::string>> values) {
  return expanded_text(slurp(std::string(MOX_SOURCE_DIR "/release/") + name), values);
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
    REQUIRE_SANDBOX();
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
    RunResult r = mox_conf(args);
    EXPECT_EQ(0, r.code) << args[0] << ": " << r.err;
    EXPECT_EQ("", r.err);
    return r.out;
  }

  // Runs and expects the exit code with one "mox_conf: " line on stderr, or what it holds.
  void fails(int code, std::vector<std::string> args, const char *says = "mox_conf: ") {
    RunResult r = mox_conf(args);
    std::string shown = args.empty() ? "(none)" : args.back();
    EXPECT_EQ(code, r.code) << shown << ": " << r.err;
    EXPECT_EQ(0u, r.err.rfind("mox_conf: ", 0)) << shown << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find(says)) << shown << ": " << r.err;
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << shown << ": " << r.err;
    EXPECT_EQ("", r.out) << shown;
  }
};

TEST_F(MoxConfTest, WebsitesAndSectionsAreSetReadAndRemoved) {
  EXPECT_EQ("", ok({"proxy", "list"}));
  for (const char *site : {"site 127.0.0.1:8080 127.0.0.1:80", "site2 127.0.0.1:8081 127.0.0.1:81",
                           "other 127.0.0.1:8082 127.0.0.1:82",
                           "site 0.0.0.0:9090 127.0.0.1:90 --protect=off"})  // replaced in place
    ok({"proxy", "add", site});
  EXPECT_EQ("site 0.0.0.0:9090 127.0.0.1:90 --protect=off\nsite2 127.0.0.1:8081 127.0.0.1:81\n"
            "other 127.0.0.1:8082 127.0.0.1:82\n", ok({"proxy", "list"}));
  ok({"proxy", "remove", "site"});
  fails(1, {"proxy", "remove", "site"});
  fails(1, {"proxy", "remove", "site2 127.0.0.1:8081 127.0.0.1:81"});
  EXPECT_EQ("site2 127.0.0.1:8081 127.0.0.1:81\nother 127.0.0.1:8082 127.0.0.1:82\n",
            ok({"proxy", "list"}));

  fails(1, {"get", "logserver"});
  for (auto kv : {std::make_pair("logserver", "10.0.0.5:514"), {"randtime", "3 6"},
                  {"logserver", "relp://10.0.0.6:601 1200"}, {"fixed_key", ""}})
    ok({"set", kv.first, kv.second});
  EXPECT_EQ("relp://10.0.0.6:601 1200\n", ok({"get", "logserver"}));
  EXPECT_EQ("\n", ok({"get", "fixed_key"}));
  ok({"delete", "logserver"});
  fails(1, {"get", "logserver"});
  fails(1, {"delete", "logserver"});
  EXPECT_EQ("3 6\n", ok({"get", "randtime"}));
  ok({"delete", "proxy"});
  EXPECT_EQ("", ok({"proxy", "list"}));
}

TEST_F(MoxConfTest, CallsWaitForTheLockHolder) {
  int fd = open("/tmp/mox/mox_conf.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_TRUE(fd >= 0 && flock(fd, LOCK_EX) == 0);
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

TEST_F(MoxConfTest, RefusalsLeaveTheStoreUntouched) {
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {}, {"frob"}, {"get"}, {"get", "logserver", "x"}, {"set", "logserver"}, {"delete"},
           {"proxy"}, {"proxy", "add"}, {"proxy", "list", "x"}, {"proxy", "drop", "x"},
           {"generate"}, {"generate", "apache"}, {"--verbose"}, {"status", "now"}})
    fails(2, args);
  RunResult version = mox_conf({"--version"});
  EXPECT_EQ(0, version.code);
  EXPECT_EQ(0u, version.out.find("mox_conf 1."));
  RunResult help = mox_conf({"--help"});
  EXPECT_EQ(0, help.code);
  EXPECT_EQ(0u, help.out.find("usage: mox_conf get SECTION\n"));
  EXPECT_NE(std::string::npos, help.out.find("never regenerate"));
  EXPECT_EQ("<missing>", slurp(kStore));

  // Largest values that fit: 127 bytes, as reads return them.
  ok({"set", "syslog", std::string(127, 'a')});
  ok({"set", "fixed_key", std::string(127, 'k')});
  std::string name(100, 'n');
  for (char c : std::string("123"))
    ok({"proxy", "add", name + c + " 127.0.0.1:808" + c + " 127.0.0.1:80"});  // 3 x 129 bytes
  const std::string before = slurp(kStore);
  const std::string web = "web 127.0.0.1:8080 127.0.0.1:80";
  const std::vector<std::string> values = {
      "syslog", std::string(128, 'a'), "fixed_key", std::string(128, 'k'), "syslog", "local0}",
      "syslog", "a\nb", "syslog", "tab\there", "cluster_key", "say \"hi\"", "fixed_key", "caf\xc3\xa9",
      // The daemon's own parsers: what it would refuse is never stored.
      "randtime", "my_syslog", "randtime", "banana", "randtime", "24 3", "randtime", "1 99999999999",
      "randtime", "3600", "logserver", "not-an-endpoint", "logserver", "10.0.0.5:99999 abc",
      "logserver", "10.0.0.5:514 600 x", "logserver", "ftp://10.0.0.5:514",
      "logserver", "10.0.0.5:514 4294967297", "logatserver", "10.0.0.5:514 600", "nosuch", "1",
      "proxy", "x 127.0.0.1:1 127.0.0.1:2"};
  for (size_t i = 0; i < values.size(); i += 2) fails(1, {"set", values[i], values[i + 1]});
  for (const char *section : {"fixed_key", "cluster_key"}) fails(1, {"delete", section});
  fails(1, {"get", "nosuch"});
  for (const std::string &site : std::vector<std::string>{
           name + "4 127.0.0.1:8080 127.0.0.1:80",  // proxy value over 511
           std::string("web 127.0.0.1:8080"), " 127.0.0.1:8080 127.0.0.1:80",
           "web  127.0.0.1:8080 127.0.0.1:80", web + " ", web + " --protect=maybe",
           "web 127.0.0.1:8080 127.0.0.1", "web localhost:8080 127.0.0.1:80",
           "web 127.0.0.1:70000 127.0.0.1:80", "w;b 127.0.0.1:8080 127.0.0.1:80", web + "}",
           "syslogweb 127.0.0.1:8080 127.0.0.1:80",
           // nginx would send all of it to one server block.
           "twin 127.0.0.1:08081 127.0.0.1:99", "admin 0.0.0.0:8088 127.0.0.1:80"})
    fails(1, {"proxy", "add", site});
  fails(1, {"proxy", "remove", "absent"});
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

// Every generated file is whole: built from the templates and the websites that are up, or
// left as it was, with a failure naming the file.
TEST_F(MoxConfTest, GenerateWritesWholeFilesFromTemplatesAndWebsites) {
  ok({"proxy", "add", kWeb1});
  ok({"proxy", "add", kWeb2});
  ok({"set", "fixed_key", "F1x-key_0123"});
  ok({"set", "cluster_key", "c-key/9"});
  ok({"proxy", "add", "far 127.0.0.1:8090 203.0.113.7:80"});  // upstream not of this device
  fails(1, {"generate", "all"}, "1 of 3 websites left out");
  EXPECT_EQ(std::string(kWeb1Block) + kWeb2Block, slurp(kWebsites));
  std::string nginx = expanded("nginx/nginx_template.conf",
                               {{"{admin_ip}", "192.168.1.1"}, {"{mox_user}", "root"}, {"{syslog_ip}", "127.0.0.1"},
                                {"{syslog_port}", "514"}, {"{syslog_facility}", "authpriv"}});
  EXPECT_EQ(nginx, slurp(kNginxConf));
  EXPECT_NE(std::string::npos, nginx.find("\nuser root;\n"));
  EXPECT_NE(std::string::npos, nginx.find("include /tmp/mox/release/nginx/website_upstreams.conf;"));
  std::string qsp = expanded("conf_shared/qsp_conf_template.json", {{"{admin_ip}", "192.168.1.1"},
                             {"{fixed_key}", "F1x-key_0123"}, {"{cluster_key}", "c-key/9"}});
  EXPECT_EQ(qsp, slurp(kQspConf));
  EXPECT_NE(std::string::npos, qsp.find("\"cluster_key\": \"c-key/9\""));

  ok({"proxy", "remove", "far"});
  ok({"proxy", "remove", "web2"});
  ok({"generate", "nginx"});
  EXPECT_EQ(kWeb1Block, slurp(kWebsites));
  const std::string sites = slurp(kWebsites), nginx_dir = "/tmp/mox/release/nginx";
  const std::string listing = run_binary("/bin/ls", {"ls", "-A", nginx_dir}).out;
  // The admin address follows br0 (192.168.1.1 without it).
  ASSERT_EQ(0, sandbox_add_br0("192.168.77.1/24"));
  ok({"generate", "qsp"});
  EXPECT_NE(std::string::npos, slurp(kQspConf).find("\"admin_ip\": \"192.168.77.1\",\n"));
  qsp = slurp(kQspConf);

  // A directory in the file's place; an empty template, which stops every file.
  ASSERT_TRUE(unlink(kQspConf) == 0 && mkdir(kQspConf, 0755) == 0);
  fails(1, {"generate", "all"}, (std::string("cannot write ") + kQspConf).c_str());
  ASSERT_TRUE(rmdir(kQspConf) == 0 && spill(kQspConf, qsp));
  ASSERT_TRUE(spill("/tmp/mox/release/conf_shared/qsp_conf_template.json", ""));
  ASSERT_EQ(0, unlink(kWebsites));
  fails(1, {"generate", "all"}, "qsp_conf_template.json is empty");
  EXPECT_EQ("<missing>", slurp(kWebsites));
  ASSERT_EQ(0, sandbox_wipe("/tmp/mox/release/conf_shared"));
  fails(1, {"generate", "qsp"});
  ASSERT_TRUE(spill(kWebsites, sites));

  // Killed while the generator waits for an address that is not up: the website file is
  // the old one, whole, and no temporary file is left.
  ok({"proxy", "add", "late 10.9.9.9:8090 10.9.9.9:80"});
  ProgramLine generate(sandbox_conf_path(), {"mox_conf", "generate", "nginx"});
  pid_t pid = fork();
  if (pid == 0) {
    int null_fd = open("/dev/null", O_WRONLY);
    if (dup2(null_fd, STDOUT_FILENO) >= 0 && dup2(null_fd, STDERR_FILENO) >= 0) generate.exec();
    _exit(127);
  }
  usleep(1500 * 1000);
  ASSERT_EQ(0, kill(pid, SIGKILL));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status)) << "generation ended before the kill";
  EXPECT_TRUE(slurp(kWebsites) == sites);
  EXPECT_EQ(listing, run_binary("/bin/ls", {"ls", "-A", nginx_dir}).out);
}

TEST_F(MoxConfTest, ADamagedStoreIsNeverGeneratedFromAndCanBeReset) {
  ok({"proxy", "add", kWeb1});
  ok({"set", "fixed_key", "F1x"});
  ok({"generate", "all"});
  const std::string nginx = slurp(kNginxConf), sites = slurp(kWebsites), qsp = slurp(kQspConf);

  std::string damaged = slurp(kStore);
  damaged[damaged.size() / 2] ^= 0x04;
  ASSERT_TRUE(spill(kStore, damaged));
  for (const char *which : {"nginx", "qsp", "all"}) fails(1, {"generate", which});
  fails(1, {"set", "randtime", "1 2"});
  fails(1, {"store", "check"});
  fails(1, {"get", "fixed_key"}, "authentication failed");
  fails(1, {"get", "fixed_key"}, "store reset");
  EXPECT_TRUE(slurp(kNginxConf) == nginx && slurp(kWebsites) == sites && slurp(kQspConf) == qsp)
      << "a generated file changed";
  EXPECT_TRUE(slurp(kStore) == damaged);

  EXPECT_NE("", ok({"store", "reset"}));
  EXPECT_TRUE(slurp(kStore + std::string(".bad")) == damaged);
  EXPECT_EQ(0u, ok({"store", "check"}).find(std::string(kStore) + " reads: 0 bytes"));
  fails(1, {"store", "reset"});  // it reads: nothing to reset
  ok({"set", "fixed_key", "F2x"});
  ok({"generate", "qsp"});
  EXPECT_NE(std::string::npos, slurp(kQspConf).find("\"fixed_key\": \"F2x\""));
  // A second damage finds the first one kept aside, and keeps both.
  ASSERT_TRUE(spill(kStore, damaged));
  fails(1, {"store", "reset"});
  EXPECT_TRUE(slurp(kStore) == damaged);
}

TEST_F(MoxConfTest, NginxStartsFromTheShippedTemplateAndLogsToTheDaemon) {
  REQUIRE_SANDBOX();
  if (access(kNginx, X_OK) != 0) GTEST_SKIP() << "nginx not installed (scripts/test installs it)";
  ok({"proxy", "add", "web1 127.0.0.1:8080 127.0.0.1:9"});
  ok({"proxy", "add", "web2 https://127.0.0.1:8443 127.0.0.1:81 --protect=monitor"});
  ok({"generate", "nginx"});  // br0 has no address, as at boot
  const char cert[] = "/media/nand/mox_data/cert/server";
  ASSERT_EQ(0, std::system((std::string("mkdir -p /media/nand/mox_data/cert /tmp/mox/nginx_check "
                                        "/tmp/mox/log && openssl req -x509 -newkey ec -pkeyopt "
                                        "ec_paramgen_curve:P-256 -nodes -subj /CN=router -days 1 "
                                        "-keyout ") + cert + ".key -out " + cert + ".crt 2>/dev/null")
                               .c_str()));

  // The engine's directives are unknown to a stock nginx: copies without
  // them, the main file including the copy of the website file.
  const std::string dir = "/tmp/mox/nginx_check/";
  for (const char *file : {"nginx.conf", "website_upstreams.conf", "policy_default.conf"}) {
    std::string text = slurp(std::string("/tmp/mox/release/nginx/") + file), kept;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
      end = std::min(text.find('\n', at), text.size() - 1);
      if (text.substr(at, end - at).find("kvsafe") == std::string::npos) kept += text.substr(at, end - at + 1);
    }
    ASSERT_TRUE(spill(dir + file, expanded_text(kept, {{kWebsites, dir + "website_upstreams.conf"}})));
  }
  // The daemon's access socket, as a plain receiver.
  int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, "/tmp/mox/log/access.sock");
  ASSERT_EQ(0, bind(sock, (sockaddr *)&addr, sizeof addr));

  const std::string nginx = std::string(kNginx) + " -p " + dir + " -c " + dir + "nginx.conf";
  RunResult checked = run_binary("/bin/sh", {"sh", "-c", nginx + " -t 2>&1"});
  EXPECT_EQ(0, checked.code) << checked.out;
  ASSERT_EQ(0, std::system((nginx + " 2>&1").c_str())) << "nginx did not start";
  // The health check on every address, by bash's own TCP client.
  std::string health;
  for (int i = 0; i < 50 && health.find("204") == std::string::npos; i++, usleep(100 * 1000))
    health = run_binary("/bin/bash", {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/8088 && printf "
                                      "'GET /mox_health HTTP/1.0\\r\\n\\r\\n' >&3 && head -1 <&3"}).out;
  std::system((nginx + " -s stop 2>/dev/null").c_str());
  EXPECT_EQ(0u, health.find("HTTP/1.1 204")) << health;

  pollfd pfd{sock, POLLIN, 0};
  ASSERT_EQ(1, poll(&pfd, 1, 2000)) << "no access record reached the socket";
  char buf[512];
  ssize_t n = recv(sock, buf, sizeof buf - 1, 0);
  ASSERT_GT(n, 0);
  buf[n] = '\0';
  EXPECT_NE(nullptr, std::strstr(buf, "\"GET /mox_health HTTP/1.0\" 204")) << buf;
  close(sock);
}

TEST_F(MoxConfTest, AnInstalledCopyCarriesTheReleaseItInstalls) {
  // strip drops bytes appended to an image: the installed copy, stripped
  // where install strips, must still carry its package.
  const std::string prefix = "/tmp/mox/installed";
  ASSERT_EQ(0, std::system(("cmake --install '" MOX_BINARY_DIR "' --strip --prefix " + prefix +
                            " >/dev/null").c_str()));
  const std::string tool = prefix + "/sbin/mox_conf";
  ASSERT_EQ(0, sandbox_wipe("/tmp/mox/release"));
  RunResult r = run_binary(tool.c_str(), {"mox_conf", "release", "verify"});
  EXPECT_EQ(0, r.code) << r.err;
  r = run_binary(tool.c_str(), {"mox_conf", "release", "install"});
  ASSERT_EQ(0, r.code) << r.err;
  EXPECT_EQ(0, std::system("diff -r '" MOX_SOURCE_DIR "/release' /tmp/mox/release"));

  // A reinstall keeps what was generated; a copy with one byte of its
  // package changed installs nothing.
  ok({"generate", "qsp"});
  const std::string qsp = slurp(kQspConf);
  ASSERT_NE("<missing>", qsp);
  std::string image = slurp(tool);
  image[image.size() - 64] ^= 0x01;
  const std::string bad = prefix + "/mox_conf.bad";
  ASSERT_TRUE(spill(bad, image) && chmod(bad.c_str(), 0755) == 0);
  ASSERT_TRUE(spill("/tmp/mox/release/nginx/policy_default.conf", "# changed\n"));
  EXPECT_EQ(1, run_binary(bad.c_str(), {"mox_conf", "release", "install"}).code);
  EXPECT_EQ("# changed\n", slurp("/tmp/mox/release/nginx/policy_default.conf"));
  r = run_binary(tool.c_str(), {"mox_conf", "release", "install"});
  ASSERT_EQ(0, r.code) << r.err;
  EXPECT_EQ(qsp, slurp(kQspConf));
  EXPECT_EQ(slurp(MOX_SOURCE_DIR "/release/nginx/policy_default.conf"),
            slurp("/tmp/mox/release/nginx/policy_default.conf"));
}

}  // namespace
