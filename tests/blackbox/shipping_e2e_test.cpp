// End-to-end tests of log shipping with real parts: nginx sends its access log to the
// daemon, the daemon ships it to a real rsyslogd or to a TCP collector in this test, and
// mox_logdecode reads what arrived. Attack reports need finished UTC days, so those tests
// run the daemon under libfaketime with a clock that starts on 2026-03-01 and runs 40000
// times fast: a day passes in about 2.2 s of real time.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "harness.h"

namespace {

const std::string kWork = "/tmp/mox/e2e";
const char kAttackKey[] = MOX_SOURCE_DIR "/keys/dev/attack_private.pem";
const char kAccessKey[] = MOX_SOURCE_DIR "/keys/dev/access_private.pem";
const char kNginx[] = "/usr/sbin/nginx";
const char kRsyslogd[] = "/usr/sbin/rsyslogd";
const char *const kFaketimeLibs[] = {"/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1",
                                     "/usr/lib/aarch64-linux-gnu/faketime/libfaketime.so.1",
                                     "/usr/lib/faketime/libfaketime.so.1"};
// Day 1 is 2026-03-01 (day 20513 since 1970): half a day is left for its attacks (about
// 1 s real), and the first pair of reports leaves at the roll into 2026-03-03.
const char kFakeClock[] = "@2026-03-01 12:00:00 x40000";
const long kFirstDay = 20513;

#if defined(__SANITIZE_ADDRESS__)
#define E2E_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define E2E_ASAN 1
#endif
#endif

// The eleven keys of a report, in their order; the last six are counters.
const char *const kReportKeys[] = {
    "device_name", "device_id", "device_mac_address", "device_firmware_version", "timestamp",
    "internal_attack", "intrusion_attempt", "automated_attack", "unauthorized_access",
    "browser_hijacking", "password_guessing"};

typedef std::vector<unsigned long> Counters;  // in the order of the report's keys

sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons((uint16_t)port);
  return addr;
}

// An HTTP/1.0 GET, true for a 200 answer; with an empty path, true once a connect succeeds.
bool http_get(int port, const std::string &path) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct timeval limit = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  sockaddr_in addr = loopback(port);
  std::string request = "GET " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n", answer;
  bool connected = connect(fd, (sockaddr *)&addr, sizeof addr) == 0;
  if (connected && !path.empty() &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) == (ssize_t)request.size()) {
    char buf[1024];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) answer.append(buf, (size_t)n);
  }
  close(fd);
  return path.empty() ? connected : answer.rfind("HTTP/1.1 200", 0) == 0;
}

int conf_set(const char *section, const std::string &value) {
  return run_binary(sandbox_conf_path(), {"mox_conf", "set", section, value}).code;
}

// Everything mox_logdecode makes of a file: report JSON lines and access records. Lines it
// cannot open are skipped; a stored line still being written counts at the next look.
std::string decode_file(const std::string &path) {
  return run_binary(sandbox_logdecode_path(),
                    {"mox_logdecode", "-k", kAttackKey, "-k", kAccessKey, path}).out;
}

// A TCP collector on 127.0.0.1:port (0: a free one; port() is 0 when it cannot listen). It
// keeps the byte stream of every connection, as a receiver of octet-counted frames sees
// it, or with reset, accepts and at once closes with a reset.
class Collector {
 public:
  Collector(int port, bool reset) : reset_(reset) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr = loopback(port);
    socklen_t len = sizeof addr;
    if (fd_ < 0 || bind(fd_, (sockaddr *)&addr, sizeof addr) != 0 || listen(fd_, 16) != 0 ||
        getsockname(fd_, (sockaddr *)&addr, &len) != 0)
      return;
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~Collector() { stop(); }

  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  int port() const { return port_; }
  int accepted() const { return accepted_; }

  std::string bytes() { std::lock_guard<std::mutex> hold(mutex_); return bytes_; }

 private:
  void serve() {
    while (!stop_) {
      struct pollfd p = {fd_, POLLIN, 0};
      int conn = poll(&p, 1, 20) == 1 ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (conn < 0) continue;
      accepted_++;
      // The daemon closes after each send; a peer silent for 5 s is cut.
      struct linger abort_close = {1, 0};
      struct timeval quiet = {5, 0};
      if (reset_) setsockopt(conn, SOL_SOCKET, SO_LINGER, &abort_close, sizeof abort_close);
      setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &quiet, sizeof quiet);
      char buf[8192];
      for (ssize_t n; !reset_ && (n = recv(conn, buf, sizeof buf, 0)) > 0;) {
        std::lock_guard<std::mutex> hold(mutex_);
        bytes_.append(buf, (size_t)n);
      }
      close(conn);
    }
  }

  const bool reset_;
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> accepted_{0};
  std::thread thread_;
  std::mutex mutex_;
  std::string bytes_;
};

// A loopback TCP port free now; in the private namespace nobody else takes it.
int unused_port() { return Collector(0, false).port(); }

// One decoded attack report; day is its timestamp's, in days since 1970-01-01.
struct Report { std::string json; long day = -1; Counters counts; };

std::vector<Report> reports_in(const std::string &decoded) {
  std::vector<Report> out;
  for (size_t at = 0, nl; at < decoded.size(); at = nl + 1) {
    nl = std::min(decoded.find('\n', at), decoded.size());
    Report r;
    r.json = decoded.substr(at, nl - at);
    if (r.json.rfind("{\"device_name\":", 0) != 0) continue;
    struct tm tm{};
    size_t ts = r.json.find("\"timestamp\":\"");
    if (ts != std::string::npos && std::sscanf(r.json.c_str() + ts + 13, "%d-%d-%d",
                                               &tm.tm_year, &tm.tm_mon, &tm.tm_mday) == 3) {
      tm.tm_year -= 1900;
      tm.tm_mon -= 1;
      r.day = (long)(timegm(&tm) / 86400);
    }
    for (size_t i = 5; i < 11; i++) {
      std::string k = std::string("\"") + kReportKeys[i] + "\":";
      size_t p = r.json.find(k);
      r.counts.push_back(p == std::string::npos ? ~0ul
                                                : std::strtoul(&r.json[p + k.size()], nullptr, 10));
    }
    out.push_back(r);
  }
  return out;
}

// The eleven keys of a report, each once and in order, in one flat object.
::testing::AssertionResult keys_in_order(const std::string &json) {
  if (json.empty() || json.front() != '{' || json.back() != '}' || count_of(json, "{") != 1 ||
      count_of(json, "}") != 1)
    return ::testing::AssertionFailure() << "not one flat object: " << json;
  size_t last = 0;
  for (const char *key : kReportKeys) {
    std::string k = std::string("\"") + key + "\":";
    size_t p = json.find(k);
    if (p == std::string::npos || count_of(json, k) != 1 || p < last)
      return ::testing::AssertionFailure() << key << " missing, repeated or out of order: " << json;
    last = p;
  }
  return ::testing::AssertionSuccess();
}

// The libfaketime to preload, or null with the reason in *why.
const char *faketime_library(std::string *why) {
#ifdef E2E_ASAN
  // The ASan runtime would have to be preloaded first, and then it is also
  // preloaded into the shell the daemon starts for the serial number, where
  // it hangs before main, and the daemon with it.
  *why = "libfaketime is not preloaded into an AddressSanitizer build (the ASan runtime "
         "must come first in the library list)";
  return nullptr;
#endif
  for (const char *lib : kFaketimeLibs)
    if (access(lib, R_OK) == 0) return lib;
  *why = "libfaketime not installed (Debian package faketime; scripts/test installs it)";
  return nullptr;
}

// Starts the daemon under the fake clock as pid; skips when the clock cannot be faked.
#define START_UNDER_FAKE_CLOCK(pid)                                                     \
  std::string why;                                                                      \
  if (!faketime_library(&why)) GTEST_SKIP() << why;                                     \
  pid_t pid = start_daemon({std::string("LD_PRELOAD=") + faketime_library(&why),        \
                            std::string("FAKETIME=") + kFakeClock});                    \
  ASSERT_GT(pid, 0) << state();                                                         \
  if (!clock_is_fake()) GTEST_SKIP() << "libfaketime did not take effect\n" << state()

class ShippingE2E : public BlackboxTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(BlackboxTest::SetUp());
    // The firmware provides /tmp/mox; mox_conf needs it before the daemon.
    if (!sandbox_ready()) return;
    ASSERT_TRUE(mkdir("/tmp/mox", 0755) == 0 && mkdir(kWork.c_str(), 0755) == 0 &&
                write_rzpz(kFastRzpz));
  }

  Collector *collector(int port, bool reset) {
    collectors_.emplace_back(new Collector(port, reset));
    return collectors_.back()->port() > 0 ? collectors_.back().get() : nullptr;
  }

  // The daemon stamps its log with its own clock: the first line carries the fake day.
  bool clock_is_fake() {
    wait_for([] { return in_log("logd loop start"); }, 5);
    return read_file(kLogPath).rfind("2026-03-01", 0) == 0;
  }

  std::string decode_collected(Collector *c, const char *name) {
    std::string path = kWork + "/" + name + ".raw";
    return write_text(path, c->bytes()) ? decode_file(path) : std::string();
  }

  // Writes dir/name.conf, starts argv writing to dir/name.out, waits for port: it, or -1.
  int start_server(const std::string &dir, const char *name, int port, const std::string &conf,
                   const std::vector<std::string> &argv) {
    mkdir(dir.c_str(), 0755);
    if (port <= 0 || !write_text(dir + "/" + name + ".conf", conf) ||
        spawn_helper(argv, dir + "/" + name + ".out") <= 0 ||
        !wait_for([&] { return http_get(port, ""); }, 10))
      return -1;
    return port;
  }

  // rsyslogd in the foreground with imtcp on a free loopback port, every
  // message stored as received. Its port, or -1.
  int start_rsyslog() {
    int port = unused_port();
    std::string dir = kWork + "/rsyslog";
    rsyslog_file_ = dir + "/collected.log";
    std::string conf =
        "global(workDirectory=\"" + dir + "\")\n"
        "module(load=\"imtcp\" MaxSessions=\"20\")\n"
        "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" + std::to_string(port) + "\")\n"
        "template(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n"
        "*.* action(type=\"omfile\" file=\"" + rsyslog_file_ + "\" template=\"raw\")\n";
    return start_server(dir, "rsyslogd", port, conf, {kRsyslogd, "-n", "-f", dir + "/rsyslogd.conf",
                                                      "-i", dir + "/rsyslogd.pid"});
  }

  // nginx in the foreground, answering 200 on a free loopback port and
  // sending its access log to the daemon's socket. Its port, or -1.
  int start_nginx() {
    int port = unused_port();
    std::string dir = kWork + "/nginx";
    std::string conf =
        "daemon off;\nuser root;\nworker_processes 1;\npid " + dir + "/nginx.pid;\n"
        "error_log " + dir + "/error.log info;\n"
        "events { worker_connections 64; }\n"
        "http {\n"
        "  access_log syslog:server=unix:" + kAccessSock + ";\n"
        "  client_body_temp_path " + dir + "/body;\n  proxy_temp_path " + dir + "/proxy;\n"
        "  fastcgi_temp_path " + dir + "/fastcgi;\n  uwsgi_temp_path " + dir + "/uwsgi;\n"
        "  scgi_temp_path " + dir + "/scgi;\n"
        "  server { listen 127.0.0.1:" + std::to_string(port) +
        "; location / { return 200 \"ok\\n\"; } }\n"
        "}\n";
    return start_server(dir, "nginx", port, conf, {kNginx, "-e", dir + "/error.log", "-p",
                                                   dir + "/", "-c", dir + "/nginx.conf"});
  }

  std::vector<std::unique_ptr<Collector>> collectors_;
  std::string rsyslog_file_;
};

TEST_F(ShippingE2E, NginxAccessLogReachesRsyslogAndDecodes) {
  REQUIRE_SANDBOX();
  if (access(kNginx, X_OK) != 0) GTEST_SKIP() << "nginx not installed (scripts/test installs it)";
  if (access(kRsyslogd, X_OK) != 0)
    GTEST_SKIP() << "rsyslogd not installed (scripts/test installs it)";

  int syslog_port = start_rsyslog();
  ASSERT_GT(syslog_port, 0) << read_file(kWork + "/rsyslog/rsyslogd.out");
  ASSERT_EQ(conf_set("logserver", "127.0.0.1:" + std::to_string(syslog_port) + " 600"), 0);
  ASSERT_GT(start_daemon(), 0) << state();
  const std::string nginx_errors = kWork + "/nginx/error.log";
  int http_port = start_nginx();
  ASSERT_GT(http_port, 0) << read_file(nginx_errors);

  // 300 records fit the minute's allowance of 600, so none may be missing. They go in
  // rounds of 10, each once the last has arrived: a burst beyond the kernel's datagram
  // queue (10 in a fresh network namespace) is lost before the daemon sees it, and one
  // beyond the daemon's queue is dropped by design; neither is what this test is about.
  const int requests = 300, round = 10;
  std::string decoded;
  // Only the lines rsyslogd has added since the last look are decoded.
  size_t consumed = 0;
  auto decoded_requests = [&] {
    std::string stored = read_file(rsyslog_file_);
    size_t end = stored.rfind('\n');
    if (end != std::string::npos && end + 1 > consumed &&
        write_text(kWork + "/fresh.log", stored.substr(consumed, end + 1 - consumed))) {
      decoded += decode_file(kWork + "/fresh.log");
      consumed = end + 1;
    }
    return count_of(decoded, "\"GET /req-");
  };
  for (int first = 0; first < requests; first += round) {
    for (int i = first; i < first + round; i++)
      ASSERT_TRUE(http_get(http_port, "/req-" + std::to_string(i))) << "request " << i;
    if (!wait_for([&] { return decoded_requests() >= (size_t)(first + round); }, 15)) break;
  }
  std::string missing;
  for (int i = 0; i < requests; i++)
    if (decoded.find("\"GET /req-" + std::to_string(i) + " HTTP/1.0\"") == std::string::npos)
      missing += " /req-" + std::to_string(i);
  EXPECT_EQ(missing, "") << "never decoded\n" << state() << "\nnginx error log:\n"
                         << read_file(nginx_errors);
  // Each request once: a block is not shipped twice.
  EXPECT_EQ(count_of(decoded, "\"GET /req-"), (size_t)requests);
  EXPECT_FALSE(in_log("access records dropped")) << state();
  // Every stored message came whole through rsyslog's default size limit.
  std::string stored = read_file(rsyslog_file_);
  EXPECT_GT(count_of(stored, " mox_logd: MOX2 L "), 0u);
  EXPECT_EQ(count_of(stored, "MOX2 A "), 0u);
}

TEST_F(ShippingE2E, AttackReportsOfFinishedDaysReachRsyslog) {
  REQUIRE_SANDBOX();
  if (access(kRsyslogd, X_OK) != 0)
    GTEST_SKIP() << "rsyslogd not installed (scripts/test installs it)";
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  int syslog_port = start_rsyslog();
  ASSERT_GT(syslog_port, 0);
  ASSERT_EQ(conf_set("logserver", "127.0.0.1:" + std::to_string(syslog_port)), 0);
  ASSERT_EQ(conf_set("randtime", "1 2"), 0);
  START_UNDER_FAKE_CLOCK(pid);

  for (int i = 0; i < 3; i++) ASSERT_TRUE(send_to(kAttackSock, record(kClass1)));
  for (int i = 0; i < 2; i++) ASSERT_TRUE(send_to(kAttackSock, record(kClass4)));
  std::vector<Report> reports;
  wait_for([&] { return (reports = reports_in(decode_file(rsyslog_file_))).size() >= 2; }, 20);
  ASSERT_GE(reports.size(), 2u) << state();

  EXPECT_TRUE(keys_in_order(reports[0].json));
  for (size_t i = 0; i < reports.size(); i++) {
    EXPECT_EQ(reports[i].day, kFirstDay + (long)i) << reports[i].json;
    EXPECT_EQ(reports[i].counts, i ? Counters(6, 0) : Counters({0, 3, 0, 0, 2, 0}))
        << reports[i].json;
  }

  // The envelope names the LAN bridge's address.
  std::string link = run_binary("/bin/sh", {"sh", "-c", "ip -o link show br0"}).out;
  size_t mac = link.find("link/ether ");
  ASSERT_NE(mac, std::string::npos) << link;
  EXPECT_NE(reports[0].json.find("\"device_mac_address\":\"" + link.substr(mac + 11, 17) + "\""),
            std::string::npos) << reports[0].json;
  EXPECT_FALSE(in_log("failed to get device mac address."));
}

// The collector is down for days, then comes up: every finished day's
// report arrives, once, oldest first.
TEST_F(ShippingE2E, ReportsWaitForACollectorThatIsDown) {
  REQUIRE_SANDBOX();
  int port = unused_port();
  ASSERT_GT(port, 0);
  ASSERT_EQ(conf_set("logatserver", "127.0.0.1:" + std::to_string(port)), 0);
  START_UNDER_FAKE_CLOCK(pid);
  for (int i = 0; i < 2; i++) ASSERT_TRUE(send_to(kAttackSock, record(kClass5)));

  // Three days finished and refused: 03-01, 03-02 and 03-03. The daemon's
  // log lines carry its clock, and it logs every refusal.
  ASSERT_TRUE(wait_for([] { return in_log("\n2026-03-04 "); }, 20)) << state();
  EXPECT_TRUE(in_log("connect() error:")) << state();

  Collector *up = collector(port, false);
  ASSERT_NE(up, nullptr);
  wait_for([&] { return reports_in(decode_collected(up, "up")).size() >= 3; }, 15);
  // Stop the daemon so nothing arrives while the stream is judged.
  ASSERT_NE(stop_daemon(pid), -1);
  up->stop();
  std::vector<Report> reports = reports_in(decode_collected(up, "up"));

  ASSERT_GE(reports.size(), 3u) << state();
  for (size_t i = 0; i < reports.size(); i++) {
    EXPECT_EQ(reports[i].day, kFirstDay + (long)i) << "report " << i << ": " << reports[i].json;
    EXPECT_EQ(reports[i].counts, i ? Counters(6, 0) : Counters({0, 0, 0, 0, 0, 2}))
        << reports[i].json;
  }
  // Nothing was handed to anyone else.
  EXPECT_EQ(count_of(read_file(kLogPath), "syslog send() OK:"), reports.size());
}

// A collector that accepts and at once resets. What the kernel took before
// the reset is gone, since TCP confirms nothing to the sender; a send that
// failed is kept. So once a storing collector takes over, its reports are
// exactly the days after those handed over, each once, with no gap.
TEST_F(ShippingE2E, CollectorThatHangsUpLosesOnlyWhatWasHandedOver) {
  REQUIRE_SANDBOX();
  Collector *closer = collector(0, true);
  ASSERT_NE(closer, nullptr);
  int port = closer->port();
  ASSERT_EQ(conf_set("logatserver", "127.0.0.1:" + std::to_string(port)), 0);
  START_UNDER_FAKE_CLOCK(pid);
  ASSERT_TRUE(send_to(kAttackSock, record(kClass1)));

  EXPECT_TRUE(wait_for([&] { return closer->accepted() >= 2; }, 20)) << state();
  closer->stop();
  ASSERT_TRUE(alive(pid)) << state();
  Collector *keeper = collector(port, false);
  ASSERT_NE(keeper, nullptr);
  ASSERT_TRUE(wait_for([&] { return reports_in(decode_collected(keeper, "keeper")).size() >= 2; },
                       15)) << state();
  ASSERT_TRUE(alive(pid));
  ASSERT_NE(stop_daemon(pid), -1);
  keeper->stop();

  std::vector<Report> kept = reports_in(decode_collected(keeper, "keeper"));
  std::string log = read_file(kLogPath);
  ASSERT_NE(log.find("logd loop start"), std::string::npos) << "log trimmed, counts unusable";
  long lost = (long)count_of(log, "syslog send() OK:") - (long)kept.size();
  RecordProperty("resets_accepted", closer->accepted());
  RecordProperty("sends_failed",
                 (int)(count_of(log, "connect() error:") + count_of(log, "send() error:")));
  RecordProperty("reports_lost", (int)lost);
  EXPECT_GE(lost, 0);
  EXPECT_LE(lost, closer->accepted());
  ASSERT_FALSE(kept.empty());
  for (size_t i = 0; i < kept.size(); i++)
    EXPECT_EQ(kept[i].day, kFirstDay + lost + (long)i)
        << "report " << i << " of " << kept.size() << ", " << lost << " lost: " << kept[i].json;
  if (lost == 0) {
    EXPECT_EQ(kept[0].counts, (Counters{0, 1, 0, 0, 0, 0}));
  }
}

TEST_F(ShippingE2E, UnresolvableCollectorIsLoggedAndSurvived) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(conf_set("logatserver", "no-such-host.invalid:514"), 0);
  START_UNDER_FAKE_CLOCK(pid);

  EXPECT_TRUE(wait_for([] { return in_log("gethostbyname error for host:no-such-host.invalid\n"); },
                       15)) << state();
  EXPECT_TRUE(alive(pid));
  // The intake goes on.
  ASSERT_TRUE(send_to(kAttackSock, record(kClass5)));
  EXPECT_TRUE(wait_for([] { return read_file(kStatPath) == "1\n"; }, 5));
  EXPECT_TRUE(alive(pid));
}

TEST_F(ShippingE2E, ReportWithoutLanBridgeHasEmptyMac) {
  REQUIRE_SANDBOX();
  sandbox_del_br0();
  Collector *c = collector(0, false);
  ASSERT_NE(c, nullptr);
  ASSERT_EQ(conf_set("logatserver", "127.0.0.1:" + std::to_string(c->port())), 0);
  START_UNDER_FAKE_CLOCK(pid);
  ASSERT_TRUE(send_to(kAttackSock, record(kClass4)));

  std::vector<Report> reports;
  wait_for([&] { return !(reports = reports_in(decode_collected(c, "nomac"))).empty(); }, 15);
  ASSERT_FALSE(reports.empty()) << state();
  EXPECT_TRUE(keys_in_order(reports[0].json));
  EXPECT_NE(reports[0].json.find("\"device_mac_address\":\"\","), std::string::npos)
      << reports[0].json;
  EXPECT_EQ(reports[0].counts, (Counters{0, 0, 0, 0, 1, 0}));
  EXPECT_TRUE(in_log("  (send_encrypted_attack_log:"));
  EXPECT_TRUE(in_log("failed to get device mac address.\n"));
}

// A reload to a new collector takes effect; a broken value is refused and
// the collector in force keeps receiving.
TEST_F(ShippingE2E, BrokenReloadKeepsTheCollectorInForce) {
  REQUIRE_SANDBOX();
  Collector *first = collector(0, false);
  Collector *second = collector(0, false);
  ASSERT_TRUE(first && second);
  ASSERT_EQ(conf_set("logserver", "127.0.0.1:" + std::to_string(first->port()) + " 600"), 0);
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  auto arrives = [&](Collector *c, const char *name, const std::string &text) {
    return wait_for([&] { return decode_collected(c, name).find(text) != std::string::npos; }, 10);
  };
  ASSERT_TRUE(send_to(kAccessSock, "<190>nginx: e2e-record-one"));
  EXPECT_TRUE(arrives(first, "first", "e2e-record-one")) << state();

  ASSERT_EQ(conf_set("logserver", "127.0.0.1:" + std::to_string(second->port()) + " 600"), 0);
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  std::string applied = "(reload_config) reload configure: server=127.0.0.1:" +
                        std::to_string(second->port()) + ", m_send_interval=600/m\n";
  ASSERT_TRUE(wait_for([&] { return in_log(applied); }, 10)) << state();
  ASSERT_TRUE(send_to(kAccessSock, "<190>nginx: e2e-record-two"));
  EXPECT_TRUE(arrives(second, "second", "e2e-record-two")) << state();

  ASSERT_EQ(conf_set("logserver", "127.0.0.1:notaport"), 0);
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  EXPECT_TRUE(wait_for([] { return in_log("Warning: reload configure failed,config no change\n"); },
                       10)) << state();
  ASSERT_TRUE(send_to(kAccessSock, "<190>nginx: e2e-record-three"));
  EXPECT_TRUE(arrives(second, "second", "e2e-record-three")) << state();
  EXPECT_TRUE(alive(pid));

  EXPECT_EQ(count_of(decode_collected(first, "first"), "e2e-record-"), 1u);
  EXPECT_EQ(count_of(decode_collected(second, "second"), "e2e-record-"), 2u);
}

}  // namespace
