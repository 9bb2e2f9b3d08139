// Black-box tests of the mox_logd binary; random datagrams are its fuzz target's part.
// Ordering: the daemon handles datagrams one at a time, in arrival order. sync_daemon()
// sends a marker datagram with "mox:" but no record, which the daemon turns into a router
// line on /dev/zvlog (a FIFO the test holds open) and nothing else; once its token shows
// up, every datagram sent before it has been handled.
#include <errno.h>

#include "harness.h"

namespace {

const char kDayPath[] = "/tmp/mox/log/day_stat";
const char kHourPath[] = "/tmp/mox/log/hour_stat";
const char kZvlog[] = "/dev/zvlog";
const char kInside[] = "192.168.77.20";
const char kOutsideLine[] = "[Block Attack] From source: 203.0.113.9, port 51000,";
const char kInsideLine[] = "[Block Attack] From source: 192.168.77.20, port 51000,";
const size_t kRecvMax = 1024;

typedef std::vector<unsigned> Counts;  // internal, intrusion, automated, unauth, hijack, guess

// {day total, sum of day slots, sum of hour slots}; none while a file is missing or mid-rewrite.
std::vector<Counts> flushed() {
  std::vector<Counts> out(1, Counts(6, 0));
  for (const char *path : {kDayPath, kHourPath}) {
    std::string text = slurp(path);
    out.push_back(Counts(6, 0));
    size_t at = 0;
    for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
      bool total = path == kDayPath && at == 0;
      std::string line = text.substr(at, nl - at);
      unsigned c[6];
      if ((total && line.compare(0, 6, "total,") != 0) ||
          std::sscanf(line.c_str() + (total ? 6 : 0), "%*d-%*d-%*d %*d:%*d:%*d,%u,%u,%u,%u,%u,%u",
                  &c[0], &c[1], &c[2], &c[3], &c[4], &c[5]) != 6)
        return {};
      for (int i = 0; i < 6; i++) (total ? out[0] : out.back())[i] += c[i];
    }
    if (at == 0 || at != text.size()) return {};
  }
  return out;
}

// Waits for a flush showing these counters in the day total and the day and hour slots.
void expect_flushed(const Counts &want) {
  const std::vector<Counts> all(3, want);
  EXPECT_TRUE(wait_for([&] { return flushed() == all; }, 10)) << testing::PrintToString(flushed());
}

class LogdBlackbox : public BlackboxTest {
 protected:
  // Starts the daemon with a fast loop, router lines piling up in a FIFO.
  pid_t start_fast() {
    if (!write_rzpz(kFastRzpz) || !open_router_fifo()) return -1;
    return start_daemon();
  }

  // /dev/zvlog as a FIFO held open by the test.
  bool open_router_fifo() {
    return mkfifo(kZvlog, 0666) == 0 &&
           (router_fd_ = own_fd(open(kZvlog, O_RDWR | O_NONBLOCK | O_CLOEXEC))) >= 0;
  }

  void drain_router() {
    char buf[4096];
    for (ssize_t n; router_fd_ >= 0 && (n = read(router_fd_, buf, sizeof buf)) > 0;)
      router_.append(buf, (size_t)n);
  }

  bool send_attack(const std::string &text) { return send_to(kAttackSock, text); }

  // Returns once the daemon has handled every datagram sent so far.
  bool sync_daemon() {
    std::string token = "sync" + std::to_string(++sync_seq_);
    std::string text =
        "<11>Nov 22 10:00:00 nginx: mox: [Automatic Block] Barrier from: " + token + ", port 1,";
    text.resize(kRecvMax, ' ');  // overwrites every byte an earlier datagram left
    if (!send_attack(text)) return false;
    return wait_for([&] {
      drain_router();
      return router_.find("From source: " + token + ", port 1,") != std::string::npos;
    }, 10);
  }

  int router_fd_ = -1;
  int sync_seq_ = 0;
  std::string router_;
};

TEST_F(LogdBlackbox, StartsHoldsLockAndSocketsAndStopsOnSigterm) {
  REQUIRE_SANDBOX();
  ASSERT_TRUE(write_rzpz(kFastRzpz));
  // Without /tmp/mox the lock file cannot be made: status 1 before any socket,
  // said on the starter's terminal before the daemon leaves it.
  RunResult starter = run_binary(sandbox_logd_path(), {"mox_logd"});
  EXPECT_EQ(starter.code, 0);
  EXPECT_NE(starter.err.find("mox_logd: /tmp/mox: No such file or directory"), std::string::npos)
      << starter.err;
  int status = -1;
  pid_t ended = 0;
  EXPECT_TRUE(wait_for([&] { return (ended = waitpid(-1, &status, WNOHANG)) > 0; }, 10));
  EXPECT_TRUE(ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_NE(access(kAttackSock, F_OK), 0);

  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();
  std::string pid_text = std::to_string(pid);
  EXPECT_EQ(slurp(kLockPath), pid_text + std::string(1, '\0'));
  // nginx's workers are other users: both sockets take datagrams from anyone.
  for (const char *sock : {kAttackSock, kAccessSock}) {
    struct stat st;
    EXPECT_TRUE(stat(sock, &st) == 0 && S_ISSOCK(st.st_mode) && (st.st_mode & 0777) == 0666) << sock;
  }
  EXPECT_TRUE(wait_for([&] {
    return in_log("  INFO   (main:") && in_log(")  logd loop start, pid=" + pid_text + "\n");
  }, 5)) << state();

  status = stop_daemon(pid);
  ASSERT_NE(status, -1) << "daemon did not end on SIGTERM";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(in_log("logd loop stop, pid=" + pid_text + "\n"));
  // The status file outlives the daemon; the tool asks the lock whether it runs.
  RunResult gone = run_binary(sandbox_conf_path(), {"mox_conf", "status"});
  EXPECT_EQ(gone.code, 1);
  EXPECT_NE(gone.out.find("NOT RUNNING (last pid " + pid_text + ")"), std::string::npos) << gone.out;
}

TEST_F(LogdBlackbox, ClassifiesAndCountsOutsideAndInsideSources) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  ASSERT_GT(start_fast(), 0) << state();

  // Outside: classes 1, 2, 2, 3, 4, 5, then 1 from "1--5" (read as 1-0-5)
  // and 1 again from a record that also says 5, since the first rule wins.
  for (const Columns &c : {kClass1, kClass2Flag, kClass2Bot, kClass3, kClass4, kClass5,
                           Columns{{34, "1--5"}}, Columns{{9, "-10"}, {34, "0-0-3"}}})
    EXPECT_TRUE(send_attack(record(c, kOutside)));
  // Inside br0's network: 101 to 105.
  for (const Columns &c : {kClass1, kClass2Flag, kClass3, kClass4, kClass5})
    EXPECT_TRUE(send_attack(record(c, kInside)));
  // Marks nothing that is tested: untested slot 3, bot codes 29 and 39, bit 26.
  for (const Columns &c : {Columns{}, Columns{{5, "3"}}, Columns{{28, "29"}},
                           Columns{{28, "39"}}, Columns{{12, "67108864"}}})
    EXPECT_TRUE(send_attack(record(c, kOutside)));
  // Class 1 records without "mox:" are not ours.
  std::string foreign = record(kClass1);
  foreign.replace(foreign.find("mox:"), 4, "moz:");
  EXPECT_TRUE(send_attack(foreign));
  EXPECT_TRUE(send_attack(foreign.substr(foreign.find("ATTACK=I:"))));
  ASSERT_TRUE(sync_daemon());

  EXPECT_EQ(slurp(kStatPath), "13\n");
  EXPECT_EQ(count_of(router_, std::string(kOutsideLine) + '\0'), 8u);
  EXPECT_EQ(count_of(router_, std::string(kInsideLine) + '\0'), 5u);
  expect_flushed({5, 4, 3, 2, 2, 2});
  // 21 datagrams, the barrier among them; classes by their base, 1..5.
  const std::string counts =
      "attack_received=21\nattack_counted=13\nattack_class_1=4\nattack_class_2=3\n"
      "attack_class_3=2\nattack_class_4=2\nattack_class_5=2\nattack_internal=5\n"
      "router_lines_written=14\nrouter_lines_failed=0\n";
  EXPECT_TRUE(wait_for([&] { return slurp("/tmp/mox/log/logd.status").find(counts) !=
                                    std::string::npos; }, 10))
      << slurp("/tmp/mox/log/logd.status");
  RunResult status = run_binary(sandbox_conf_path(), {"mox_conf", "status"});
  EXPECT_EQ(status.code, 0) << status.err;
  EXPECT_NE(status.out.find(": running, pid "), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("21 received, 13 counted (class 1: 4, 2: 3, 3: 2, 4: 2, 5: 2; from "
                            "inside the LAN: 5)"), std::string::npos) << status.out;
}

TEST_F(LogdBlackbox, RouterLineGoesToZvlogOrElseToSyslog) {
  REQUIRE_SANDBOX();
  ASSERT_TRUE(write_rzpz(kFastRzpz));
  ASSERT_TRUE(spill(kZvlog, ""));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  EXPECT_TRUE(send_attack(record(kClass3)));
  EXPECT_TRUE(wait_for([] { return slurp(kZvlog) == std::string(kOutsideLine) + '\0'; }, 5))
      << slurp(kZvlog);

  // Without "Automatic" it still counts, and the device gets the empty line: a NUL.
  ASSERT_TRUE(spill(kZvlog, ""));
  EXPECT_TRUE(send_attack(record(kClass3, kOutside, "Manual Block")));
  EXPECT_TRUE(wait_for([&] { return slurp(kZvlog) == std::string(1, '\0'); }, 5))
      << slurp(kZvlog);

  // No device: the line goes to syslog as "MOXi".
  ASSERT_EQ(unlink(kZvlog), 0);
  int syslog_fd = own_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr = unix_addr("/dev/log");
  ASSERT_EQ(bind(syslog_fd, (sockaddr *)&addr, sizeof addr), 0) << std::strerror(errno);
  struct timeval limit = {10, 0};
  ASSERT_EQ(setsockopt(syslog_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
  EXPECT_TRUE(send_attack(record(kClass1)));
  char msg[1024] = {0};
  ASSERT_GT(recv(syslog_fd, msg, sizeof msg - 1, 0), 0) << "no syslog message";
  // Severity info; the facility is whatever the C library makes of 0.
  int priority = -1;
  EXPECT_TRUE(std::sscanf(msg, "<%d>", &priority) == 1 && (priority & 7) == 6) << msg;
  EXPECT_NE(std::strstr(msg, ("MOXi[" + std::to_string(pid) + "]: " + kOutsideLine).c_str()), nullptr)
      << msg;
  EXPECT_EQ(slurp(kStatPath), "3\n");
}

TEST_F(LogdBlackbox, HostileDatagramsNeverStopTheDaemon) {
  REQUIRE_SANDBOX();
  pid_t pid = start_fast();
  ASSERT_GT(pid, 0) << state();

  const std::string head = header(kOutside);
  const std::string tail1 = record(kClass1).substr(head.size());
  Columns huge;
  for (int col = 1; col <= 51; col++) huge[col] = "99999999999999999999";
  std::vector<std::string> bad = {
      // 1024 bytes with no NUL, twice; 1500, cut by the kernel.
      head + std::string(kRecvMax - head.size(), ':'),
      head + std::string(kRecvMax - head.size(), '-'),
      head + std::string(1500 - head.size(), '7'), record(huge),
      head + "1:2:3:4:5:6:7:8:9:10", head,  // missing columns; "ATTACK=I:" last
      ":" + record({}).substr(head.size()), head + ":" + tail1,  // no "mox:"; empty first column
      "<11> nginx: mox: [Automatic Block] Attack from: " + std::string(200, 'A') +
          ", port 51000, ATTACK=I:" + tail1,
      "<11> nginx: mox: [Automatic " + std::string(100, 'T') + "] Attack from: " +
          std::string(300, 'B') + " port " + std::string(100, '9') + ", ATTACK=I:1:2",
      "<11> nginx: mox: Attack from 1.2.3.4 ATTACK=I:1:2:3",  // no "]"
      "ATTACK=I:1:2:3 <11> nginx: mox: [Automatic Block] x: 1.2.3.4, y 1,",
      "mox:ATTACK=I:1:2:3", "<11> nginx: mox:",
      // Slot numbers far outside the score table.
      record({{5, "99999"}, {6, "-5"}, {7, "-2147483648"}, {8, "56"}, {25, "2147483647"}}),
      record({{5, "-1"}, {6, "55"}, {7, "100"}, {8, "-56"}, {25, "1000000"}}),
      // Stale "ATTACK=I:" behind the second's end; zero length over old bytes.
      std::string(900, 'x') + "ATTACK=I:1:2:3", "mox: [Automatic",
      head + std::string(700, ':'), ""};
  for (const std::string &d : bad) ASSERT_TRUE(send_attack(d)) << std::strerror(errno);
  ASSERT_TRUE(sync_daemon());
  ASSERT_TRUE(alive(pid));
  EXPECT_TRUE(in_log("sscanf error."));
  EXPECT_TRUE(in_log("sscanf src IP and port error."));

  unsigned long before = std::strtoul(slurp(kStatPath).c_str(), nullptr, 10);
  EXPECT_TRUE(send_attack(record(kClass4)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(std::strtoul(slurp(kStatPath).c_str(), nullptr, 10), before + 1);
  // Its router line comes right after the previous sync's.
  std::string mark = "From source: sync" + std::to_string(sync_seq_ - 1) + ", port 1,";
  EXPECT_NE(router_.find(mark + '\0' + kOutsideLine + '\0'), std::string::npos);
}

TEST_F(LogdBlackbox, SighupReloadsOnceAndSigusr2ClearsTheCounts) {
  REQUIRE_SANDBOX();
  pid_t pid = start_fast();
  ASSERT_GT(pid, 0) << state();

  const char reload[] = "(reload_config) reload configure: server=:0, m_send_interval=600/m\n";
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  EXPECT_TRUE(wait_for([&] { return in_log(reload); }, 5)) << state();
  for (const Columns &c : {kClass1, kClass1, kClass2Bot}) EXPECT_TRUE(send_attack(record(c)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(count_of(slurp(kLogPath), reload), 1u) << "one signal, one reload";
  EXPECT_EQ(slurp(kStatPath), "3\n");
  expect_flushed({0, 2, 1, 0, 0, 0});

  // The handler has run once the daemon handles a datagram sent after the
  // signal, and the reset comes before the next wait.
  ASSERT_EQ(kill(pid, SIGUSR2), 0);
  ASSERT_TRUE(sync_daemon());
  EXPECT_TRUE(send_attack(record(kClass4)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(slurp(kStatPath), "1\n");
  expect_flushed({0, 0, 0, 0, 1, 0});
}

// A second instance leaves the first alone; a restart takes over the first's socket files
// and goes on from its counts.
TEST_F(LogdBlackbox, SecondInstanceIsRefusedAndARestartKeepsTheCounts) {
  REQUIRE_SANDBOX();
  pid_t first = start_fast();
  ASSERT_GT(first, 0) << state();
  for (const Columns &c : {kClass1, kClass3, kClass5}) EXPECT_TRUE(send_attack(record(c)));
  ASSERT_TRUE(sync_daemon());

  ASSERT_TRUE(launch());
  pid_t other = -1;
  const std::string key = "logd loop start, pid=";
  ASSERT_TRUE(wait_for([&] {
    std::string log = slurp(kLogPath);
    size_t at = log.rfind(key);
    other = at == std::string::npos ? -1 : (pid_t)std::atol(log.c_str() + at + key.size());
    return other > 0 && other != first && count_of(log, "mox_logd is already running") >= 2;
  }, 10)) << state();
  daemons_.push_back(other);
  EXPECT_EQ(slurp(kLockPath), std::to_string(first) + std::string(1, '\0'));
  // Had the newcomer taken the sockets, they would be dead once it is gone.
  EXPECT_TRUE(end_process(other, other));
  EXPECT_TRUE(send_attack(record(kClass2Bot)));
  ASSERT_TRUE(sync_daemon());
  expect_flushed({0, 1, 1, 1, 0, 1});
  int status = stop_daemon(first);
  ASSERT_TRUE(status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  // The signing key made at the first start is root's alone and outlives restarts.
  const char kDeviceKey[] = "/media/nand/mox_data/device_key.pem";
  struct stat st;
  ASSERT_EQ(stat(kDeviceKey, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  const std::string device_key = slurp(kDeviceKey);
  auto key_line = [] {
    std::string status = slurp("/tmp/mox/log/logd.status");
    size_t at = status.find("device_key=");
    return at == std::string::npos ? "" : status.substr(at, status.find('\n', at) - at);
  };
  const std::string first_key = key_line();
  EXPECT_EQ(first_key.size(), sizeof "device_key=" - 1 + 64) << first_key;

  ASSERT_GT(start_daemon(), 0) << state();
  EXPECT_TRUE(send_attack(record(kClass2Flag)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(slurp(kStatPath), "5\n");
  expect_flushed({0, 1, 2, 1, 0, 1});
  EXPECT_EQ(slurp(kDeviceKey), device_key);
  EXPECT_EQ(key_line(), first_key);
  // A key file that does not read is kept aside, never overwritten, and a new key made.
  ASSERT_NE(stop_daemon(daemons_.back()), -1);
  ASSERT_TRUE(spill(kDeviceKey, "damaged"));
  ASSERT_GT(start_daemon(), 0) << state();
  EXPECT_EQ(slurp(std::string(kDeviceKey) + ".bad"), "damaged");
  EXPECT_TRUE(wait_for([&] { return key_line().size() == first_key.size() && key_line() != first_key; },
                       5)) << key_line();
}

TEST_F(LogdBlackbox, BurstOf100000IsCountedInFull) {
  REQUIRE_SANDBOX();
  ASSERT_TRUE(write_rzpz(kFastRzpz) && spill(kZvlog, ""));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  const std::string one = record(kClass3);
  int sent = 0;
  // The burst outlasts the one-second period several times: the timeouts
  // must go on meanwhile, or nothing is flushed until it ends.
  unsigned midway = 0;
  for (int i = 0; i < 100000; i++) {
    sent += send_attack(one) ? 1 : 0;
    if (i == 90000)  // the day total's unauthorized_access, as last flushed
      std::sscanf(slurp(kDayPath).c_str(), "total,%*d-%*d-%*d %*d:%*d:%*d,%*u,%*u,%*u,%u",
                  &midway);
  }
  ASSERT_EQ(sent, 100000) << std::strerror(errno);
  EXPECT_GT(midway, 0u) << "no flush during the burst";
  EXPECT_TRUE(wait_for([] { return slurp(kStatPath) == "100000\n"; }, 120))
      << slurp(kStatPath);
  EXPECT_TRUE(alive(pid));
  expect_flushed({0, 0, 0, 100000, 0, 0});
}

TEST_F(LogdBlackbox, BadSettingsFallBackToDefaults) {
  REQUIRE_SANDBOX();
  ASSERT_TRUE(open_router_fifo());
  // Every period here is out of range, so the wait is the default minute
  // and no flush comes soon; the level decides whether INFO lines appear.
  const std::pair<const char *, bool> cases[] = {{"mox_logd=2\nmox_logd_period=abc\n", true},
                                                 {"mox_logd=7\nmox_logd_period=0\n", false},
                                                 {"mox_logd_period=99999\n", false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.first);
    ASSERT_TRUE(write_rzpz(c.first));
    pid_t pid = start_daemon();
    ASSERT_GT(pid, 0) << state();
    EXPECT_TRUE(send_attack(record(kClass1)));
    EXPECT_TRUE(send_attack(header(kOutside)));  // logs "sscanf error."
    ASSERT_TRUE(sync_daemon());
    EXPECT_EQ(slurp(kStatPath), "1\n");
    EXPECT_FALSE(wait_for([] { return access(kDayPath, F_OK) == 0; }, 1.5)) << "flushed at once";

    EXPECT_TRUE(in_log("  ERROR  (get_attack_fields:")) << state();
    EXPECT_EQ(in_log("logd loop start, pid="), c.second) << state();
    EXPECT_FALSE(in_log("DEBUG")) << state();
    EXPECT_NE(stop_daemon(pid), -1);
    sandbox_wipe("/tmp/mox");
  }
}

}  // namespace
