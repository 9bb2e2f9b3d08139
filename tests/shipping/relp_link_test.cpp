// The RELP link against a real rsyslogd with imrelp: a receiver that dies
// costs a send no more than its timeouts, and once it is back every message
// the link was given arrives, none lost and nothing unknown.
#include <arpa/inet.h>
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "logging/logging.h"
#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

const char kRsyslogd[] = "/usr/sbin/rsyslogd";
const std::string kDir = "/tmp/relp-link";
const std::string kCollected = kDir + "/collected.log";
const std::string kLinkLog = kDir + "/link.log";

std::string imrelp_module() {
  const char *patterns[] = {"/usr/lib/*/rsyslog/imrelp.so", "/usr/lib/rsyslog/imrelp.so",
                            "/usr/lib64/rsyslog/imrelp.so"};
  for (const char *p : patterns) {
    glob_t g{};
    bool found = glob(p, 0, nullptr, &g) == 0 && g.gl_pathc > 0;
    std::string path = found ? g.gl_pathv[0] : "";
    globfree(&g);
    if (found) return path;
  }
  return "";
}

bool wait_for(const std::function<bool()> &done, double seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    usleep(20 * 1000);
  }
  return true;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons((uint16_t)port);
  return a;
}

// A loopback port free now; in the private namespace nobody else takes it.
int unused_port() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof a;
  int port = fd >= 0 && bind(fd, (sockaddr *)&a, sizeof a) == 0 &&
                     getsockname(fd, (sockaddr *)&a, &len) == 0
                 ? ntohs(a.sin_port)
                 : -1;
  if (fd >= 0) close(fd);
  return port;
}

bool accepting(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(port);
  bool up = fd >= 0 && connect(fd, (sockaddr *)&a, sizeof a) == 0;
  if (fd >= 0) close(fd);
  return up;
}

// rsyslogd in the foreground, storing every message that arrives over RELP
// as received (its own notices go elsewhere); its pid
// once the port accepts, or -1.
pid_t start_rsyslog(int port) {
  std::string conf = kDir + "/rsyslogd.conf";
  std::ofstream(conf) << "global(workDirectory=\"" << kDir << "\")\n"
                      << "module(load=\"imrelp\")\n"
                      << "input(type=\"imrelp\" port=\"" << port
                      << "\" address=\"127.0.0.1\" ruleset=\"relp\")\n"
                      << "template(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n"
                      << "ruleset(name=\"relp\") { action(type=\"omfile\" file=\"" << kCollected
                      << "\" template=\"raw\") }\n";
  std::string out = kDir + "/rsyslogd.out";
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) _exit(126);
    dup2(fd, 1);
    dup2(fd, 2);
    std::string pidfile = kDir + "/rsyslogd.pid";
    execl(kRsyslogd, kRsyslogd, "-n", "-f", conf.c_str(), "-i", pidfile.c_str(), (char *)nullptr);
    _exit(127);
  }
  if (pid > 0 && wait_for([&] { return accepting(port); }, 10)) return pid;
  if (pid > 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  return -1;
}

std::string message(int n) {
  return "<190>2026-01-01T00:00:00+00:00 host mox_logd: relp-test-" + std::to_string(n);
}

// How often each numbered message was stored; -1 counts lines that are not one of ours.
std::map<int, int> collected() {
  std::map<int, int> seen;
  std::string text = read_file(kCollected), prefix = message(0);
  prefix.pop_back();
  for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
    std::string line = text.substr(at, nl - at);
    int n = line.rfind(prefix, 0) == 0 ? std::atoi(line.c_str() + prefix.size()) : -1;
    seen[n > 0 && line == message(n) ? n : -1]++;
  }
  return seen;
}

bool all_stored(int last) {
  std::map<int, int> seen = collected();
  for (int n = 1; n <= last; n++)
    if (seen[n] == 0) return false;
  return true;
}

// Hands messages first..last to the link in one call; the number it took.
int send_range(RelpLink *link, const ShipTarget &target, int first, int last) {
  std::vector<std::string> texts;
  for (int n = first; n <= last; n++) texts.push_back(message(n));
  std::vector<const char *> msgs;
  std::vector<size_t> lens;
  for (const std::string &t : texts) {
    msgs.push_back(t.c_str());
    lens.push_back(t.size());
  }
  return relp_link_send(link, &target, msgs.data(), lens.data(), (int)texts.size());
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class RelpLinkTest : public ::testing::Test {
 protected:
  void TearDown() override {
    relp_link_free(link_);
    for (pid_t pid : {rsyslog_, restarted_})
      if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    log_close();
    LogSink.level = saved_level_;
    LogSink.mask = saved_mask_;
  }

  RelpLink *link_ = nullptr;
  pid_t rsyslog_ = -1, restarted_ = -1;
  int32_t saved_level_ = LogSink.level;
  uint32_t saved_mask_ = LogSink.mask;
};

TEST_F(RelpLinkTest, EveryMessageArrivesAcrossAReceiverRestart) {
  REQUIRE_SANDBOX();
  if (access(kRsyslogd, X_OK) != 0) GTEST_SKIP() << kRsyslogd << " missing (Debian rsyslog)";
  if (imrelp_module().empty()) GTEST_SKIP() << "rsyslog's imrelp.so missing (Debian rsyslog-relp)";
  sandbox_wipe(kDir.c_str());
  ASSERT_EQ(0, mkdir(kDir.c_str(), 0755));
  log_init(kLinkLog.c_str(), "mox_logd", LOG_MASK_FILE);

  int port = unused_port();
  ASSERT_GT(port, 0);
  rsyslog_ = start_rsyslog(port);
  ASSERT_GT(rsyslog_, 0) << read_file(kDir + "/rsyslogd.out");
  ShipTarget target{};
  target.transport = SHIP_TRANSPORT_RELP;
  std::snprintf(target.host, sizeof target.host, "127.0.0.1");
  target.port = port;
  link_ = relp_link_new();
  ASSERT_NE(link_, nullptr);

  // One session carries the batch; the receiver stores each message once.
  ASSERT_EQ(100, send_range(link_, target, 1, 100));
  ASSERT_TRUE(wait_for([] { return all_stored(100); }, 10));

  // The receiver dies: sends fail fast and take nothing beyond what they
  // report. The first one after the kill is usually still taken (the socket
  // accepts it before the close is seen), so that message can only arrive
  // through librelp's resend after the reconnect.
  kill(rsyslog_, SIGKILL);
  waitpid(rsyslog_, nullptr, 0);
  rsyslog_ = -1;
  int next = 101;
  for (int attempt = 0; attempt < 2; attempt++) {
    auto start = std::chrono::steady_clock::now();
    int took = send_range(link_, target, next, next + 9);
    EXPECT_LT(seconds_since(start), 15.0);
    ASSERT_GE(took, 0);
    ASSERT_LT(took, 10);
    next += took;
  }

  // Back on the same port: the link reconnects by itself, and the caller's
  // retries of what was not taken go through.
  restarted_ = start_rsyslog(port);
  ASSERT_GT(restarted_, 0) << read_file(kDir + "/rsyslogd.out");
  const int last = 130;
  auto start = std::chrono::steady_clock::now();
  while (next <= last && seconds_since(start) < 15) {
    int took = send_range(link_, target, next, std::min(next + 9, last));
    next += took;
    if (took == 0) usleep(200 * 1000);
  }
  ASSERT_EQ(last + 1, next);
  relp_link_free(link_);
  link_ = nullptr;

  // The graceful close waited for the acknowledgements; the receiver may
  // still hold the last ones in its queue, and a plain stop writes them out.
  wait_for([&] { return all_stored(last); }, 10);
  kill(restarted_, SIGTERM);
  waitpid(restarted_, nullptr, 0);
  restarted_ = -1;
  std::map<int, int> seen = collected();
  EXPECT_EQ(0u, seen.count(-1)) << read_file(kCollected);
  EXPECT_EQ(last, (int)seen.size()) << read_file(kCollected);
  for (int n = 1; n <= last; n++) EXPECT_GE(seen[n], 1) << "relp-test-" << n << " never arrived";

  // The failures were reported where they happened.
  log_close();
  std::string log = read_file(kLinkLog);
  EXPECT_NE(std::string::npos, log.find("relp send() error")) << log;
  EXPECT_NE(std::string::npos, log.find("relp connect() error")) << log;
}

}  // namespace
