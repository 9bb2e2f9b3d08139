// End-to-end tests of log shipping with real parts: the daemon ships to a real rsyslogd
// (imrelp) or to a TCP peer of this test that stores, resets, never accepts or reads slowly, and mox_logdecode reads what arrived. Attack reports need finished UTC days,
// so those tests preload a shim that runs the daemon's wall clock from 2026-03-01 12:00 UTC
// 40000 times fast (a day in about 2.2 s) while its monotonic clock, which every wait and
// pause follows, stays real.
#include <sys/mount.h>

#include <memory>
#include <regex>
#include <sstream>

#include "collector.h"
#include "harness.h"
#include "wallclock.h"

namespace {

const std::string kWork = "/tmp/mox/e2e";
const char kRsyslogd[] = "/usr/sbin/rsyslogd";
// Day 1 is 2026-03-01 (day 20513 since 1970): half a day is left for its attacks (about
// 1 s real), and the first pair of reports leaves at the roll into 2026-03-03.
const long kFirstDay = 20513;
const int64_t kFastRate = 40000;
const int64_t kNs = 1000000000;

// True once something listens on the loopback port (bash's own TCP client connects).
bool port_open(int port) {
  return run_binary("/bin/bash", {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port)})
             .code == 0;
}

// What mox_logdecode makes of a file: report JSON lines and access records, each back as
// its own text (it prints {"device":"...","record":"<escaped>"}); lines it cannot open are
// skipped, and a stored line still being written counts at the next look. With stats, its
// per-sender lines instead.
std::string decode(const std::string &path, bool stats = false) {
  std::vector<std::string> argv = {"mox_logdecode", "-k", MOX_SOURCE_DIR "/keys/dev/attack_private.pem",
                                   "-k", MOX_SOURCE_DIR "/keys/dev/access_private.pem", path};
  if (stats) argv.insert(argv.begin() + 1, "--stats");
  RunResult r = run_binary(sandbox_logdecode_path(), argv);
  if (stats) return r.err;
  std::string raw;
  for (size_t at = 0, nl; at < r.out.size(); at = nl + 1) {
    nl = std::min(r.out.find('\n', at), r.out.size());
    std::string line = r.out.substr(at, nl - at);
    size_t from = line.find("\",\"record\":\"");
    if (line.rfind("{\"device\":", 0) != 0 || from == std::string::npos || line.size() < from + 14) {
      raw += line + "\n";
      continue;
    }
    for (size_t i = from + 12; i < line.size() - 2; i++) {
      char c = line[i];
      if (c == '\\' && (c = line[++i]) == 'u') c = (char)std::stoi(line.substr(i + 1, 4), nullptr, 16), i += 4;
      raw += c;
    }
    raw += "\n";
  }
  return raw;
}

// Access record i as nginx sends it, and records first..first + n - 1 as decoded, a line each.
std::string access_record(int i) {
  return "<190>nginx: 192.0.2.7 - - [01/Mar/2026:12:00:00 +0000] \"GET /rec-" + std::to_string(i) +
         " HTTP/1.1\" 200 612 \"-\" \"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, "
         "like Gecko) Chrome/120.0 Safari/537.36\"";
}
std::string access_records(int first, int n) {
  std::string text;
  for (int i = first; i < first + n; i++) text += access_record(i) + "\n";
  return text;
}

// The access records in decoded text, without the attack reports, which are JSON objects.
std::string access_only(const std::string &decoded) {
  std::istringstream in(decoded);
  std::string out;
  for (std::string line; std::getline(in, line);)
    if (line[0] != '{') out += line + "\n";
  return out;
}

// A loopback TCP port free now; in the private namespace nobody else takes it.
int unused_port() { return Collector().port(); }

// The decoded attack reports, each a flat object with the eleven keys in their order: its
// text, then the day of its timestamp (since 1970-01-01) and its six counters, or nothing
// when it has another shape.
std::vector<std::pair<std::string, std::vector<long>>> reports_in(const std::string &decoded) {
  static const std::regex report(
      R"(\{"device_name":"[^"]*","device_id":"[^"]*","device_mac_address":"[^"]*",)"
      R"("device_firmware_version":"[^"]*","timestamp":"(\d+)-(\d+)-(\d+) [0-9:]+",)"
      R"("internal_attack":(\d+),"intrusion_attempt":(\d+),"automated_attack":(\d+),)"
      R"("unauthorized_access":(\d+),"browser_hijacking":(\d+),"password_guessing":(\d+)\})");
  std::vector<std::pair<std::string, std::vector<long>>> out;
  std::istringstream in(decoded);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("{\"device_name\":", 0) != 0) continue;
    out.push_back({line, {}});
    if (!std::regex_match(line, m, report)) continue;
    struct tm tm = {};
    tm.tm_year = std::stoi(m[1]) - 1900;
    tm.tm_mon = std::stoi(m[2]) - 1;
    tm.tm_mday = std::stoi(m[3]);
    out.back().second.push_back((long)(timegm(&tm) / 86400));
    for (int i = 4; i <= 9; i++) out.back().second.push_back(std::stol(m[i]));
  }
  return out;
}

class ShippingE2E : public BlackboxTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(BlackboxTest::SetUp());
    // The firmware provides /tmp/mox; mox_conf needs it before the daemon.
    if (!sandbox_ready()) return;
    ASSERT_TRUE(mkdir("/tmp/mox", 0755) == 0 && mkdir(kWork.c_str(), 0755) == 0 &&
                write_rzpz(kFastRzpz));
  }

  void TearDown() override {
    BlackboxTest::TearDown();
    collectors_.clear();
    if (sandbox_ready()) run_binary("/bin/sh", {"sh", "-c", "ip link del void0 2>/dev/null"});
  }

  Collector *collector(int port, Peer mode) {
    collectors_.emplace_back(new Collector(port, mode));
    EXPECT_GT(collectors_.back()->port(), 0) << "no collector on port " << port;
    return collectors_.back().get();
  }

  // Sets the daemon's wall clock to run from fake_sec at rate times real time; the running
  // daemon follows at once. The record is rewritten in place: the shim has it mapped.
  bool set_wall_clock(int64_t fake_sec, int64_t rate) {
    struct timespec now = {0, 0};
    clock_gettime(CLOCK_REALTIME, &now);
    WallClock w = {(int64_t)now.tv_sec * kNs + now.tv_nsec, fake_sec * kNs, rate};
    int fd = open(clock_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && pwrite(fd, &w, sizeof w, 0) == (ssize_t)sizeof w;
    if (fd >= 0) close(fd);
    return ok;
  }

  // The environment that gives the daemon the test's wall clock.
  std::vector<std::string> wall_clock_env() {
    return {std::string("LD_PRELOAD=") + MOX_WALLCLOCK_SHIM, "MOX_WALLCLOCK=" + clock_path_,
            // The shim comes first in the library list; the sanitizer runtime copes.
            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"};
  }

  // Starts the daemon with days that pass in about 2.2 s, from 2026-03-01 12:00 UTC.
  pid_t start_fast_days() {
    if (!set_wall_clock(kFirstDay * 86400 + 43200, kFastRate)) return -1;
    pid_t pid = start_daemon(wall_clock_env());
    // The daemon stamps its log with its own clock: the first line carries the fake day.
    if (pid > 0 && !(wait_for([] { return in_log("logd loop start"); }, 5) &&
                     slurp(kLogPath).rfind("2026-03-01", 0) == 0))
      return -1;
    return pid;
  }

  // What the collector has read, as a file for mox_logdecode.
  std::string collected_file(Collector *c) {
    std::string path = kWork + "/collected.raw";
    return spill(path, c->bytes()) ? path : std::string();
  }

  // rsyslogd in the foreground with imtcp (or imrelp) on a loopback port (a free one for 0),
  // every message stored as received; with cert, over OpenSSL's TLS with cert.pem and
  // cert.key. Its port, or -1.
  int start_rsyslog(const char *input = "imtcp", int port = 0, const std::string &cert = "") {
    if (port == 0) port = unused_port();
    std::string dir = kWork + "/rsyslog";
    rsyslog_file_ = dir + "/collected.log";
    bool relp = std::string(input) == "imrelp";
    std::string files = relp ? " tls=\"on\" tls.myCert=\"" + cert + ".pem\" tls.myPrivKey=\""
                             : " streamDriver.certFile=\"" + cert + ".pem\" streamDriver.keyFile=\"";
    std::string conf =
        "global(workDirectory=\"" + dir + "\")\n"
        "module(load=\"" + input + "\"" +
        (cert.empty() ? "" : relp ? " tls.tlsLib=\"openssl\"" : " streamDriver.name=\"ossl\" "
                                    "streamDriver.mode=\"1\" streamDriver.authMode=\"anon\"") + ")\n"
        "input(type=\"" + input + "\" address=\"127.0.0.1\" port=\"" + std::to_string(port) + "\"" +
        (cert.empty() ? "" : files + cert + ".key\"") + ")\n"
        "template(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n"
        "*.* action(type=\"omfile\" file=\"" + rsyslog_file_ + "\" template=\"raw\")\n";
    mkdir(dir.c_str(), 0755);
    if (port <= 0 || !spill(dir + "/rsyslogd.conf", conf) ||
        (server_pid_ = spawn_helper({kRsyslogd, "-n", "-f", dir + "/rsyslogd.conf", "-i",
                                     dir + "/rsyslogd.pid"}, dir + "/rsyslogd.out")) <= 0 ||
        !wait_for([&] { return port_open(port); }, 10))
      return -1;
    return port;
  }

  // n access records, numbered from first, into the access socket; every send waits for
  // room, so none is lost before the daemon reads it.
  bool feed_access(int first, int n) {
    for (int i = first; i < first + n; i++) {
      if (!send_to(kAccessSock, access_record(i))) return false;
      // About 1000 a second, a busy site: a flood beyond what the sealer's queue bridges
      // while the machine schedules something else (on a shared test machine, for a while)
      // is lost by design.
      if (i % 8 == 7) usleep(8000);
    }
    return true;
  }

  std::vector<std::unique_ptr<Collector>> collectors_;
  std::string rsyslog_file_;
  pid_t server_pid_ = -1;
  const std::string clock_path_ = kWork + "/wallclock";
};

TEST_F(ShippingE2E, EveryDayArrivesOnceWhateverTheCollectorDid) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  int port = unused_port();
  ASSERT_GT(port, 0);
  ASSERT_EQ(mox_conf({"set", "logatserver", "127.0.0.1:" + std::to_string(port)}).code, 0);
  pid_t pid = start_fast_days();
  ASSERT_GT(pid, 0) << state();
  for (const Columns &c : {kClass1, kClass1, kClass1, kClass5, kClass5})
    ASSERT_TRUE(send_to(kAttackSock, record(c)));
  ASSERT_TRUE(launch(wall_clock_env()));  // stays, silent, until TearDown

  // Each phase starts with SIGHUP, which ends the pause after the last failure.
  for (Peer mode : {Peer::kReset, Peer::kMute}) {
    Collector *bad = collector(port, mode);
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    // A reset may come as the connection opens, before the half-close or after it.
    EXPECT_TRUE(wait_for([] { return in_log("send() error:") || in_log("connect() error:"); }, 12))
        << state();
    bad->stop();
    // The next failure must be this phase's own.
    ASSERT_TRUE(spill(kLogPath, ""));
  }
  ASSERT_EQ(kill(pid, SIGHUP), 0);  // down
  EXPECT_TRUE(wait_for([] { return in_log("connect() error:Connection refused"); }, 10)) << state();
  // Its log lines carry the daemon's clock: four days have finished once the last says 03-05
  // or later.
  ASSERT_TRUE(wait_for([] {
    std::string log = slurp(kLogPath);
    return log.size() > 10 && log.compare(log.rfind('\n', log.size() - 2) + 1, 10, "2026-03-05") >= 0;
  }, 20)) << state();

  Collector *slow = collector(port, Peer::kSlow);
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  // Days 03-01 to 03-04 at least have finished.
  wait_for([&] { return reports_in(decode(collected_file(slow))).size() >= 4; }, 20);
  ASSERT_NE(stop_daemon(pid), -1);
  slow->stop();
  auto reports = reports_in(decode(collected_file(slow)));
  ASSERT_GE(reports.size(), 4u) << state();
  for (size_t i = 0; i < reports.size(); i++) {
    std::vector<long> want = {kFirstDay + (long)i, 0, i ? 0 : 3, 0, 0, 0, i ? 0 : 2};
    EXPECT_EQ(reports[i].second, want) << "report " << i << ": " << reports[i].first;
  }
  // The envelope names the LAN bridge's address.
  std::string link = run_binary("/bin/sh", {"sh", "-c", "ip -o link show br0"}).out;
  size_t mac = link.find("link/ether ");
  ASSERT_NE(mac, std::string::npos) << link;
  EXPECT_NE(reports[0].first.find("\"device_mac_address\":\"" + link.substr(mac + 11, 17) + "\""),
            std::string::npos) << reports[0].first;
  // One sender (the first instance's epoch), nothing missing.
  std::string stats = decode(collected_file(slow), true);
  EXPECT_EQ(count_of(stats, " kind=A "), 1u) << stats;
  EXPECT_EQ(count_of(stats, " missing=0\n"), 1u) << stats;
}

// A collector whose name resolves through a dead DNS server, and one at an address where
// packets vanish: the shipper waits on them, the loop does not. Every attack a blocking
// sender sends meanwhile is counted.
TEST_F(ShippingE2E, DeadDnsAndUnreachableCollectorsNeverStallTheLoop) {
  REQUIRE_SANDBOX();
  // A link whose far end has no address: nobody answers for 10.66.66.0/24, so queries to
  // 10.66.66.66 and connects to 10.66.66.99 go out and vanish.
  ASSERT_EQ(run_binary("/bin/sh", {"sh", "-c",
                                   "ip link add void0 type veth peer name void1 && "
                                   "ip addr add 10.66.66.1/24 dev void0 && ip link set void0 up && "
                                   "ip link set void1 up"}).code, 0);
  ASSERT_TRUE(spill(kWork + "/resolv.conf", "nameserver 10.66.66.66\noptions timeout:15 attempts:2\n"));
  ASSERT_EQ(mount((kWork + "/resolv.conf").c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr), 0)
      << std::strerror(errno);
  ASSERT_EQ(mox_conf({"set", "logatserver", "collector.mox-test.example:514"}).code, 0);
  ASSERT_EQ(mox_conf({"set", "logserver", "10.66.66.99:514"}).code, 0);
  // The daemon reads it at its first lookup, so it stays until the end.
  std::unique_ptr<const char, int (*)(const char *)> unmount("/etc/resolv.conf", umount);
  pid_t pid = start_fast_days();
  ASSERT_GT(pid, 0) << state();
  ASSERT_TRUE(feed_access(0, 20));
  // A finished day is on offer, and the shipper is in its lookup.
  ASSERT_TRUE(wait_for([] { return in_log("\n2026-03-03 "); }, 10)) << state();
  // The cycle runs before the roll: two more one-second periods and it has offered the day.
  usleep(2500 * 1000);

  // The lookup takes 30 s to fail; the loop counts everything long before.
  const std::string one = record(kClass3);
  for (int i = 0; i < 10000; i++) ASSERT_TRUE(send_to(kAttackSock, one)) << i;
  EXPECT_TRUE(wait_for([] { return slurp(kStatPath) == "10000\n"; }, 20))
      << slurp(kStatPath) << state();
  EXPECT_FALSE(in_log("gethostbyname error for host:")) << "the lookup was over too soon";
  // SIGTERM is honoured while the shipper hangs, and the stop says what it leaves behind.
  ASSERT_EQ(stop_daemon(pid), 0) << state();
  EXPECT_TRUE(in_log("access records abandoned at stop: 20 (queue 0, block 0, spool 20)\n"))
      << state();
  EXPECT_TRUE(in_log("attack report abandoned at stop: \"timestamp\":\"2026-3-1 ")) << state();
}

// Ten minutes of records at the default rate wait in the spool while the collector is down
// and leave in order when it is back. The wall clock starts in 1970, as on a router without
// a clock battery, then jumps to 2026 and back a day: the pacing at the largest rate neither
// overflows nor stalls. A reload then moves the records to a new collector, and a store gone
// bad under the daemon keeps that collector in force.
TEST_F(ShippingE2E, AccessRecordsWaitForTheCollectorAndFollowReloads) {
  REQUIRE_SANDBOX();
  int port = unused_port();
  ASSERT_EQ(mox_conf({"set", "logserver", "127.0.0.1:" + std::to_string(port) + " 2147483647"}).code, 0);
  ASSERT_TRUE(set_wall_clock(86400, 1));
  pid_t pid = start_daemon(wall_clock_env());
  ASSERT_GT(pid, 0) << state();
  ASSERT_TRUE(feed_access(0, 6000));
  ASSERT_TRUE(wait_for([] { return in_log("connect() error:Connection refused"); }, 10)) << state();
  ASSERT_TRUE(set_wall_clock(kFirstDay * 86400, 1));

  Collector *up = collector(port, Peer::kStore);
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  const std::string first = access_records(0, 6000), all = access_records(0, 6100);
  // Days pass meanwhile: their reports come to the same collector.
  auto got = [&](Collector *c) { return access_only(decode(collected_file(c))); };
  wait_for([&] { return got(up) == first; }, 60);
  ASSERT_TRUE(set_wall_clock(kFirstDay * 86400 - 86400, 1));
  ASSERT_TRUE(feed_access(6000, 100));
  EXPECT_TRUE(wait_for([&] { return got(up) == all; }, 60))
      << count_of(got(up), "\n") << " records\n" << state();
  EXPECT_FALSE(in_log("access records dropped")) << state();
  std::string stats = decode(collected_file(up), true);
  EXPECT_EQ(count_of(stats, " missing=0\n"), count_of(stats, "\n")) << stats;
  // The status says the same: all read, all shipped, tries that failed, none waiting.
  std::string st;
  EXPECT_TRUE(wait_for([&] {
    st = slurp("/tmp/mox/log/logd.status");
    return st.find("access_received=6100\naccess_shipped=6100\n") != std::string::npos &&
           st.find("spool_messages=0\nspool_records=0\nspool_bytes=0\n") != std::string::npos;
  }, 10)) << st;
  EXPECT_EQ(st.find("access_messages_failed=0\n"), std::string::npos) << st;
  EXPECT_EQ(st.find("last_delivery=0\n"), std::string::npos) << st;

  Collector *next = collector(0, Peer::kStore);
  ASSERT_EQ(mox_conf({"set", "logserver", "127.0.0.1:" + std::to_string(next->port()) + " 600"}).code, 0);
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  std::string applied = "(reload_config) reload configure: server=127.0.0.1:" +
                        std::to_string(next->port()) + ", m_send_interval=600/m\n";
  ASSERT_TRUE(wait_for([&] { return in_log(applied); }, 10)) << state();
  ASSERT_TRUE(feed_access(6100, 1));
  // mox_conf refuses a bad value, so the store itself goes bad under the daemon.
  std::string store = slurp("/media/nand/mox_data/mox_conf.dat");
  ASSERT_GT(store.size(), 40u);
  store[30] ^= 0x01;
  ASSERT_TRUE(spill("/media/nand/mox_data/mox_conf.dat", store));
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  EXPECT_TRUE(wait_for([] { return in_log("Warning: reload configure failed,config no change\n"); },
                       10)) << state();
  ASSERT_TRUE(feed_access(6101, 1));
  EXPECT_TRUE(wait_for([&] { return got(next) == access_records(6100, 2); }, 60)) << state();
  EXPECT_TRUE(alive(pid));
  EXPECT_TRUE(got(up) == all);
}

// RELP to rsyslog's imrelp: the session stays open, every message comes whole through
// rsyslog's default size limit, and a receiver killed and restarted costs nothing: what it
// had not acknowledged comes again, and the reader drops copies. Plain TCP meets this
// test's own collectors.
TEST_F(ShippingE2E, RelpCollectorGetsEveryRecordAcrossARestart) {
  REQUIRE_SANDBOX();
  if (access(kRsyslogd, X_OK) != 0)
    GTEST_SKIP() << "rsyslogd not installed (scripts/test installs it)";
  if (run_binary("/bin/sh", {"sh", "-c", "ls /usr/lib/*/rsyslog/imrelp.so"}).code != 0)
    GTEST_SKIP() << "rsyslog's imrelp missing (Debian rsyslog-relp; scripts/test installs it)";
  int port = start_rsyslog("imrelp");
  ASSERT_GT(port, 0) << slurp(kWork + "/rsyslog/rsyslogd.out");
  ASSERT_EQ(mox_conf({"set", "logserver", "relp://127.0.0.1:" + std::to_string(port) + " 100000"}).code, 0);
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();
  ASSERT_TRUE(feed_access(0, 300));
  ASSERT_TRUE(wait_for([&] { return decode(rsyslog_file_) == access_records(0, 300); }, 15))
      << state();
  EXPECT_EQ(count_of(slurp(rsyslog_file_), " mox_logd: MOX3 L "), count_of(slurp(rsyslog_file_), "\n"));

  kill(-server_pid_, SIGKILL);
  ASSERT_TRUE(wait_for([&] { return !alive(server_pid_); }, 5));
  ASSERT_TRUE(feed_access(300, 300));
  ASSERT_GT(start_rsyslog("imrelp", port), 0) << slurp(kWork + "/rsyslog/rsyslogd.out");
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  const std::string want = access_records(0, 600);
  EXPECT_TRUE(wait_for([&] { return decode(rsyslog_file_) == want; }, 30))
      << count_of(decode(rsyslog_file_), "\n") << " records\n" << state();
  std::string stats = decode(rsyslog_file_, true);
  EXPECT_EQ(count_of(stats, " missing=0\n"), count_of(stats, "\n")) << stats;
  EXPECT_FALSE(in_log("access records dropped")) << state();
}

// A TLS collector (rsyslog's imtcp with OpenSSL, or imrelp with librelp's TLS) gets nothing
// until its certificate chains to the device's CA and names the address it is reached at;
// each refused try is logged and counted, and what waited meanwhile then arrives once.
class TlsShipping : public ShippingE2E,
                    public ::testing::WithParamInterface<std::pair<const char *, const char *>> {};

TEST_P(TlsShipping, OnlyAVerifiedCollectorGetsRecords) {
  REQUIRE_SANDBOX();
  const std::string input = GetParam().first, scheme = GetParam().second;
  std::string module = input == "imrelp" ? "imrelp" : "lmnsd_ossl";
  if (access(kRsyslogd, X_OK) != 0 ||
      run_binary("/bin/sh", {"sh", "-c", "ls /usr/lib/*/rsyslog/" + module + ".so"}).code != 0)
    GTEST_SKIP() << "rsyslogd or its " << module << " missing (scripts/test installs them)";
  // Two CAs; the device trusts the first. "good" names 127.0.0.1 (as an address for OpenSSL,
  // as a common name for librelp), "stranger" is the same from the other CA, "misnamed" is
  // from the trusted CA for another name.
  const std::string pki = kWork + "/pki";
  ASSERT_EQ(run_binary("/bin/sh", {"sh", "-c",
      "set -e; mkdir -p " + pki + " /media/nand/mox_data/cert; cd " + pki + "\n"
      "key() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj /CN=$2 -keyout $1.key $3 2>/dev/null; }\n"
      "key ca ca -x509 >ca.pem; key other other -x509 >other.pem\n"
      "leaf() { printf 'subjectAltName=%s\\n' $4 >$1.ext; key $1 $3 | openssl x509 -req -CA $2.pem "
      "-CAkey $2.key -CAcreateserial -days 2 -extfile $1.ext -out $1.pem 2>/dev/null; }\n"
      "leaf good ca 127.0.0.1 IP:127.0.0.1; leaf stranger other 127.0.0.1 IP:127.0.0.1\n"
      "leaf misnamed ca other.example DNS:other.example\n"
      "cp ca.pem /media/nand/mox_data/cert/collector_ca.pem"}).code, 0);
  auto refusals = [] {
    std::string st = slurp("/tmp/mox/log/logd.status");
    size_t at = st.find("\ntls_refused=");
    return at == std::string::npos ? -1L : std::atol(st.c_str() + at + 13);
  };

  int port = unused_port();
  auto serve = [&](const char *cert) {  // the collector, now with this certificate
    if (server_pid_ > 0) kill(-server_pid_, SIGKILL);
    return wait_for([&] { return server_pid_ <= 0 || !alive(server_pid_); }, 5) &&
           start_rsyslog(input.c_str(), port, pki + "/" + cert) == port;
  };
  const std::string target = scheme + "127.0.0.1:" + std::to_string(port);
  ASSERT_EQ(mox_conf({"set", "logserver", target + " 100000"}).code, 0);
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();
  ASSERT_TRUE(feed_access(0, 100));
  for (const char *cert : {"stranger", "misnamed"}) {
    ASSERT_TRUE(serve(cert)) << slurp(kWork + "/rsyslog/rsyslogd.out");
    long before = refusals();
    ASSERT_TRUE(spill(kLogPath, ""));
    ASSERT_EQ(kill(pid, SIGHUP), 0);  // ends the pause after the last failure
    EXPECT_TRUE(wait_for([&] { return in_log("certificate verify failed: ") && refusals() > before; },
                         15)) << cert << "\n" << state();
    EXPECT_EQ(count_of(slurp(rsyslog_file_), " mox_logd: "), 0u) << cert;
    EXPECT_TRUE(alive(pid));
  }
  ASSERT_TRUE(serve("good")) << slurp(kWork + "/rsyslog/rsyslogd.out");
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  ASSERT_TRUE(feed_access(100, 100));
  EXPECT_TRUE(wait_for([&] { return decode(rsyslog_file_) == access_records(0, 200); }, 30))
      << state();
  std::string st = slurp("/tmp/mox/log/logd.status");
  EXPECT_NE(st.find("access_collector=" + target + "\n"), std::string::npos) << st;
  EXPECT_GE(refusals(), 2) << st;
}

INSTANTIATE_TEST_SUITE_P(Schemes, TlsShipping,
                         ::testing::Values(std::make_pair("imtcp", "tls://"),
                                           std::make_pair("imrelp", "relp+tls://")));

}  // namespace
