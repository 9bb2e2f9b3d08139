// Black-box tests of the mox_logd binary. Each test starts the real daemon
// inside the private namespaces, talks to it only through its sockets,
// signals and files, and stops it again.
//
// Ordering: the daemon handles datagrams one at a time, in arrival order.
// sync_daemon() sends a marker datagram with "mox:" but no record, which the
// daemon turns into a router line on /dev/zvlog (a FIFO the test holds open)
// and nothing else; once its token shows up, every datagram sent before it
// has been handled.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "sandbox.h"

namespace {

const char kLogPath[] = "/tmp/mox/log/logd.log";
const char kLockPath[] = "/tmp/mox/lock_writer.dat";
const char kAttackSock[] = "/tmp/mox/log/attack.sock";
const char kAccessSock[] = "/tmp/mox/log/access.sock";
const char kStatPath[] = "/tmp/mox/log/stat";
const char kDayPath[] = "/tmp/mox/log/day_stat";
const char kHourPath[] = "/tmp/mox/log/hour_stat";
const char kZvlog[] = "/dev/zvlog";
const char kSyslog[] = "/dev/log";

// Every log line and a one-second loop period.
const char kFastRzpz[] = "mox_logd=0\nmox_logd_period=1\n";

const char kOutside[] = "203.0.113.9";
const char kInside[] = "192.168.77.20";
const char kOutsideLine[] = "[Block Attack] From source: 203.0.113.9, port 51000,";
const char kInsideLine[] = "[Block Attack] From source: 192.168.77.20, port 51000,";

const int kColumns = 51;
const int kRecvMax = 1024;

typedef std::map<int, std::string> Columns;
typedef std::vector<unsigned> Counts;  // internal, intrusion, automated, unauth, hijack, guess

bool wait_for(const std::function<bool()> &done, double seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    struct timespec nap = {0, 5 * 1000 * 1000};
    nanosleep(&nap, nullptr);
  }
  return true;
}

std::string read_file(const char *path) {
  std::string text;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, (size_t)n);
  close(fd);
  return text;
}

bool write_text(const char *path, const std::string &text) {
  FILE *f = std::fopen(path, "w");
  if (!f) return false;
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

bool exists(const char *path) { return access(path, F_OK) == 0; }

bool is_socket(const char *path) {
  struct stat st;
  return lstat(path, &st) == 0 && S_ISSOCK(st.st_mode);
}

size_t count_of(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) n++;
  return n;
}

sockaddr_un unix_addr(const char *path) {
  sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  return addr;
}

// A bound socket that accepts a connection belongs to a live process.
bool socket_live(const char *path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr = unix_addr(path);
  bool live = connect(fd, (sockaddr *)&addr, sizeof addr) == 0;
  close(fd);
  return live;
}

std::string default_column(int col) {
  switch (col) {
    case 5: case 6: case 7: case 8: case 9: case 12: case 25: case 28: case 32:
      return "0";
    case 34:
      return "0-0-0";
    default:
      return "1";
  }
}

std::string header(const char *source, const char *title = "Automatic Block") {
  return std::string("<11>Nov 22 10:00:00 nginx: mox: [") + title + "] Attack from: " + source +
         ", port 51000, rule 942100 ATTACK=I:";
}

// A full 51-column record; columns not named hold a value that marks nothing.
std::string record(const Columns &set, const char *source = kOutside,
                   const char *title = "Automatic Block") {
  std::string text = header(source, title);
  for (int col = 1; col <= kColumns; col++) {
    auto it = set.find(col);
    if (col > 1) text += ':';
    text += it != set.end() ? it->second : default_column(col);
  }
  return text;
}

// One record of each class, by the field that decides it.
const Columns kClass1 = {{34, "1-1-7"}};
const Columns kClass2Flag = {{12, "134217728"}};
const Columns kClass2Bot = {{28, "38"}};
const Columns kClass3 = {{5, "1"}};
const Columns kClass4 = {{25, "22"}};
const Columns kClass5 = {{9, "-10"}};

unsigned long stat_value() { return std::strtoul(read_file(kStatPath).c_str(), nullptr, 10); }

// Counters of the day file's total line; empty when it does not scan.
Counts day_total() {
  unsigned c[6];
  int y, mo, d, h, mi, s;
  std::string text = read_file(kDayPath);
  if (std::sscanf(text.c_str(), "total,%d-%d-%d %d:%d:%d,%u,%u,%u,%u,%u,%u", &y, &mo, &d, &h,
                  &mi, &s, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5]) != 12)
    return Counts();
  return Counts(c, c + 6);
}

// Sum of the slot lines of a ring file (the day file's total line skipped).
Counts slot_sum(const char *path, bool skip_total) {
  std::string text = read_file(path);
  Counts sum(6, 0);
  size_t at = 0;
  bool first = true;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) return Counts();  // caught mid-rewrite
    std::string line = text.substr(at, nl - at);
    at = nl + 1;
    if (first && skip_total) {
      first = false;
      continue;
    }
    unsigned c[6];
    int y, mo, d, h, mi, s;
    if (std::sscanf(line.c_str(), "%d-%d-%d %d:%d:%d,%u,%u,%u,%u,%u,%u", &y, &mo, &d, &h, &mi,
                    &s, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5]) != 12)
      return Counts();
    for (int i = 0; i < 6; i++) sum[i] += c[i];
  }
  return text.empty() ? Counts() : sum;
}

// Waits for a flush that shows these counters in the day total, the day
// slots and the hour slots alike.
void expect_flushed(const Counts &want, double seconds = 10) {
  wait_for([&] {
    return day_total() == want && slot_sum(kDayPath, true) == want &&
           slot_sum(kHourPath, false) == want;
  }, seconds);
  EXPECT_EQ(day_total(), want);
  EXPECT_EQ(slot_sum(kDayPath, true), want);
  EXPECT_EQ(slot_sum(kHourPath, false), want);
}

// pids from every "logd loop start, pid=N" line of the log.
std::vector<pid_t> started_pids() {
  std::vector<pid_t> pids;
  std::string log = read_file(kLogPath);
  const std::string key = "logd loop start, pid=";
  for (size_t at = log.find(key); at != std::string::npos; at = log.find(key, at + 1))
    pids.push_back((pid_t)std::atol(log.c_str() + at + key.size()));
  return pids;
}

class LogdBlackbox : public ::testing::Test {
 protected:
  void SetUp() override {
    // The daemon forks away from its starter; as subreaper the test gets it
    // back as a child, can reap it and read its exit status.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
    send_fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(send_fd_, 0);
  }

  void TearDown() override {
    for (pid_t pid : daemons_) {
      if (!alive(pid)) continue;
      kill(pid, SIGTERM);
      if (!wait_for([&] { return !alive(pid); }, 10)) {
        ADD_FAILURE() << "daemon " << pid << " ignored SIGTERM";
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
    for (int fd : {send_fd_, router_fd_, syslog_fd_})
      if (fd >= 0) close(fd);
    if (sandbox_ready()) {
      sandbox_del_br0();
      sandbox_wipe("/tmp/mox");
      sandbox_wipe("/media/nand");
      unlink(kZvlog);
      unlink(kSyslog);
    }
  }

  void write_rzpz(const char *text) {
    mkdir("/media/nand", 0755);
    mkdir("/media/nand/mox_data", 0755);
    ASSERT_TRUE(write_text("/media/nand/mox_data/rzpz", text));
  }

  // /dev/zvlog as a FIFO held open by the test: router lines pile up in it.
  void open_router_fifo() {
    ASSERT_EQ(mkfifo(kZvlog, 0666), 0) << std::strerror(errno);
    router_fd_ = open(kZvlog, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(router_fd_, 0);
  }

  void drain_router() {
    char buf[4096];
    ssize_t n;
    while (router_fd_ >= 0 && (n = read(router_fd_, buf, sizeof buf)) > 0)
      router_.append(buf, (size_t)n);
  }

  // Reaps the pid if it has ended; false once it is gone.
  bool alive(pid_t pid) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) {
      exit_status_[pid] = status;
      return false;
    }
    return kill(pid, 0) == 0;
  }

  // Runs the binary; the started process itself must end at once with 0.
  // The firmware provides /tmp/mox, where the lock file is made.
  bool launch(bool make_tmp_mox = true) {
    if (make_tmp_mox) mkdir("/tmp/mox", 0755);
    pid_t starter = fork();
    if (starter == 0) {
      char name[] = "mox_logd";
      char *argv[] = {name, nullptr};
      execv(sandbox_logd_path(), argv);
      _exit(127);
    }
    int status = 0;
    return starter > 0 && waitpid(starter, &status, 0) == starter && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
  }

  // Starts the daemon and waits until it holds the lock and both sockets.
  // Its pid, or -1.
  pid_t start_daemon() {
    if (!launch()) return -1;
    pid_t pid = -1;
    bool up = wait_for([&] {
      std::string lock = read_file(kLockPath);
      pid = (pid_t)std::atol(lock.c_str());
      for (pid_t old : daemons_)
        if (old == pid) return false;
      return pid > 0 && alive(pid) && socket_live(kAttackSock) && socket_live(kAccessSock);
    }, 10);
    if (!up) return -1;
    daemons_.push_back(pid);
    return pid;
  }

  // What the daemon left behind, for failure messages.
  std::string state() {
    std::string lock = read_file(kLockPath);
    return "lock=\"" + std::string(lock.c_str()) + "\" attack.sock " +
           (socket_live(kAttackSock) ? "live" : "dead") + " access.sock " +
           (socket_live(kAccessSock) ? "live" : "dead") + "\nlog:\n" + read_file(kLogPath);
  }

  // SIGTERM and wait until the process is gone; its wait status, or -1.
  int stop_daemon(pid_t pid) {
    if (kill(pid, SIGTERM) != 0) return -1;
    if (!wait_for([&] { return !alive(pid); }, 10)) return -1;
    auto it = exit_status_.find(pid);
    return it == exit_status_.end() ? -1 : it->second;
  }

  bool send_attack(const std::string &text) {
    sockaddr_un addr = unix_addr(kAttackSock);
    return sendto(send_fd_, text.data(), text.size(), 0, (sockaddr *)&addr, sizeof addr) ==
           (ssize_t)text.size();
  }

  // Returns once the daemon has handled every datagram sent so far.
  bool sync_daemon() {
    std::string token = "sync" + std::to_string(++sync_seq_);
    std::string text =
        "<11>Nov 22 10:00:00 nginx: mox: [Automatic Block] Barrier from: " + token + ", port 1,";
    text.resize(kRecvMax, ' ');  // overwrites every byte an earlier datagram left
    if (!send_attack(text)) return false;
    std::string want = "From source: " + token + ", port 1,";
    return wait_for([&] {
      drain_router();
      return router_.find(want) != std::string::npos;
    }, 10);
  }

  // Router text written after the given sync token.
  std::string router_after(int seq) {
    std::string mark = "From source: sync" + std::to_string(seq) + ", port 1,";
    size_t at = router_.find(mark);
    return at == std::string::npos ? std::string() : router_.substr(at + mark.size());
  }

  int send_fd_ = -1;
  int router_fd_ = -1;
  int syslog_fd_ = -1;
  int sync_seq_ = 0;
  std::string router_;
  std::vector<pid_t> daemons_;
  std::map<pid_t, int> exit_status_;
};

TEST_F(LogdBlackbox, StartsHoldsLockAndSocketsAndStopsOnSigterm) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();
  std::string pid_text = std::to_string(pid);

  EXPECT_EQ(read_file(kLockPath), pid_text + std::string(1, '\0'));
  EXPECT_TRUE(is_socket(kAttackSock));
  EXPECT_TRUE(is_socket(kAccessSock));
  EXPECT_TRUE(wait_for([&] {
    return read_file(kLogPath).find("  INFO   (main:") != std::string::npos &&
           read_file(kLogPath).find(")  logd loop start, pid=" + pid_text + "\n") !=
               std::string::npos;
  }, 5)) << read_file(kLogPath);

  int status = stop_daemon(pid);
  ASSERT_NE(status, -1) << "daemon did not end on SIGTERM";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_NE(read_file(kLogPath).find("logd loop stop, pid=" + pid_text + "\n"), std::string::npos);
}

TEST_F(LogdBlackbox, LockFileThatCannotBeOpenedEndsTheDaemon) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  // Without /tmp/mox the lock file cannot be made: status 1 before any socket.
  ASSERT_TRUE(launch(false));
  int status = -1;
  pid_t ended = 0;
  EXPECT_TRUE(wait_for([&] { return (ended = waitpid(-1, &status, WNOHANG)) > 0; }, 10));
  EXPECT_TRUE(ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_FALSE(exists(kAttackSock));
}

TEST_F(LogdBlackbox, ClassifiesAndCountsOutsideAndInsideSources) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(sandbox_add_br0("192.168.77.1/24"), 0);
  write_rzpz(kFastRzpz);
  open_router_fifo();
  ASSERT_GT(start_daemon(), 0) << state();

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
  EXPECT_TRUE(send_attack(record(kClass1).substr(record(kClass1).find("ATTACK=I:"))));
  ASSERT_TRUE(sync_daemon());

  EXPECT_EQ(read_file(kStatPath), "13\n");
  EXPECT_EQ(count_of(router_, std::string(kOutsideLine) + '\0'), 8u);
  EXPECT_EQ(count_of(router_, std::string(kInsideLine) + '\0'), 5u);
  expect_flushed({5, 4, 3, 2, 2, 2});
}

TEST_F(LogdBlackbox, RouterLineGoesToZvlogOrElseToSyslog) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  ASSERT_TRUE(write_text(kZvlog, ""));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  const std::string line = std::string(kOutsideLine) + '\0';
  EXPECT_TRUE(send_attack(record(kClass3)));
  EXPECT_TRUE(wait_for([&] { return read_file(kZvlog).size() >= line.size(); }, 5));
  EXPECT_EQ(read_file(kZvlog), line);

  // Without "Automatic" the record still counts, and the device gets the
  // empty line: one NUL byte.
  ASSERT_TRUE(write_text(kZvlog, ""));
  EXPECT_TRUE(send_attack(record(kClass3, kOutside, "Manual Block")));
  EXPECT_TRUE(wait_for([&] { return !read_file(kZvlog).empty(); }, 5));
  EXPECT_EQ(read_file(kZvlog), std::string(1, '\0'));

  // No device: the line goes to syslog as "MOXi".
  ASSERT_EQ(unlink(kZvlog), 0);
  syslog_fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = unix_addr(kSyslog);
  ASSERT_EQ(bind(syslog_fd_, (sockaddr *)&addr, sizeof addr), 0) << std::strerror(errno);
  EXPECT_TRUE(send_attack(record(kClass1)));
  struct pollfd pfd = {syslog_fd_, POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, 10000), 1) << "no syslog message";
  char msg[1024] = {0};
  ssize_t n = recv(syslog_fd_, msg, sizeof msg - 1, 0);
  ASSERT_GT(n, 0);
  std::string text(msg, (size_t)n);
  // Severity info; the facility is whatever the C library makes of 0.
  int priority = -1;
  EXPECT_EQ(std::sscanf(text.c_str(), "<%d>", &priority), 1) << text;
  EXPECT_EQ(priority & 7, 6) << text;
  EXPECT_NE(text.find("MOXi[" + std::to_string(pid) + "]: " + kOutsideLine), std::string::npos)
      << text;
  EXPECT_EQ(read_file(kStatPath), "3\n");
}

TEST_F(LogdBlackbox, HostileDatagramsNeverStopTheDaemon) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  open_router_fifo();
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  const std::string head = header(kOutside);
  std::vector<std::string> bad;
  bad.push_back(head + std::string(kRecvMax - head.size(), ':'));  // 1024 bytes, no NUL
  bad.push_back(head + std::string(kRecvMax - head.size(), '-'));
  bad.push_back(head + std::string(1500 - head.size(), '7'));      // cut by the kernel
  Columns huge;
  for (int col = 1; col <= kColumns; col++) huge[col] = "99999999999999999999";
  bad.push_back(record(huge));
  bad.push_back(head + "1:2:3:4:5:6:7:8:9:10");                    // missing columns
  bad.push_back(head);                                             // "ATTACK=I:" last
  bad.push_back(":" + record({}).substr(head.size()));             // no "mox:" at all
  bad.push_back(head + ":" + record(kClass1).substr(head.size())); // empty first column
  bad.push_back("<11> nginx: mox: [Automatic Block] Attack from: " + std::string(200, 'A') +
                ", port 51000, ATTACK=I:" + record(kClass1).substr(head.size()));
  bad.push_back("<11> nginx: mox: [Automatic " + std::string(100, 'T') + "] Attack from: " +
                std::string(300, 'B') + " port " + std::string(100, '9') + ", ATTACK=I:1:2");
  bad.push_back("<11> nginx: mox: Attack from 1.2.3.4 ATTACK=I:1:2:3");  // no "]"
  bad.push_back("ATTACK=I:1:2:3 <11> nginx: mox: [Automatic Block] x: 1.2.3.4, y 1,");
  bad.push_back("mox:ATTACK=I:1:2:3");
  bad.push_back("<11> nginx: mox:");
  bad.push_back(record(  // slot numbers far outside the score table
      {{5, "99999"}, {6, "-5"}, {7, "-2147483648"}, {8, "56"}, {25, "2147483647"}}));
  bad.push_back(record({{5, "-1"}, {6, "55"}, {7, "100"}, {8, "-56"}, {25, "1000000"}}));
  bad.push_back(std::string(900, 'x') + "ATTACK=I:1:2:3");
  bad.push_back("mox: [Automatic");  // stale "ATTACK=I:" behind its end
  bad.push_back(head + std::string(700, ':'));
  bad.push_back("");                 // zero length over the old bytes
  std::mt19937 rng(20241122);
  for (int i = 0; i < 100; i++) {
    std::string junk(rng() % 1500, '\0');
    for (char &ch : junk) ch = (char)(rng() & 0xff);
    if (i % 2 && junk.size() > 40) {
      junk.replace(0, 16, "mox: [Automatic ");
      junk.replace(16 + rng() % (junk.size() - 30), 9, "ATTACK=I:");
    }
    bad.push_back(junk);
  }
  for (const std::string &d : bad) ASSERT_TRUE(send_attack(d)) << std::strerror(errno);
  ASSERT_TRUE(sync_daemon());
  ASSERT_TRUE(alive(pid));

  std::string log = read_file(kLogPath);
  EXPECT_NE(log.find("sscanf error."), std::string::npos);
  EXPECT_NE(log.find("sscanf src IP and port error."), std::string::npos);

  unsigned long before = stat_value();
  EXPECT_TRUE(send_attack(record(kClass4)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_TRUE(alive(pid));
  EXPECT_EQ(stat_value(), before + 1);
  EXPECT_EQ(router_after(sync_seq_ - 1).rfind(std::string(1, '\0') + kOutsideLine + '\0', 0), 0u);
}

TEST_F(LogdBlackbox, SighupReloadsAndKeepsCounting) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  open_router_fifo();
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  const char reload[] = "(reload_config) reload configure: server=:0, m_send_interval=600/m\n";
  ASSERT_EQ(kill(pid, SIGHUP), 0);
  EXPECT_TRUE(wait_for([&] { return count_of(read_file(kLogPath), reload) > 0; }, 5))
      << read_file(kLogPath);
  EXPECT_TRUE(send_attack(record(kClass5)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(count_of(read_file(kLogPath), reload), 1u) << "one signal, one reload";
  EXPECT_TRUE(alive(pid));
  EXPECT_EQ(read_file(kStatPath), "1\n");
}

TEST_F(LogdBlackbox, Sigusr2ClearsTheCountsInMemory) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  open_router_fifo();
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  for (const Columns &c : {kClass1, kClass1, kClass2Bot}) EXPECT_TRUE(send_attack(record(c)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(read_file(kStatPath), "3\n");
  expect_flushed({0, 2, 1, 0, 0, 0});

  // The handler has run once the daemon handles a datagram sent after the
  // signal, and the reset comes before the next wait.
  ASSERT_EQ(kill(pid, SIGUSR2), 0);
  ASSERT_TRUE(sync_daemon());
  EXPECT_TRUE(send_attack(record(kClass4)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(read_file(kStatPath), "1\n");
  expect_flushed({0, 0, 0, 0, 1, 0});
}

TEST_F(LogdBlackbox, PeriodRunsOnAcrossSteadyTraffic) {
  REQUIRE_SANDBOX();
  write_rzpz("mox_logd=0\nmox_logd_period=2\n");
  open_router_fifo();
  ASSERT_GT(start_daemon(), 0) << state();

  // A datagram every 200 ms: a wait restarted on each one would never time
  // out, and the dirty day ring would never reach its file.
  bool flushed = false;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < end && !flushed) {
    EXPECT_TRUE(send_attack(record(kClass1)));
    drain_router();
    struct timespec gap = {0, 200 * 1000 * 1000};
    nanosleep(&gap, nullptr);
    flushed = exists(kDayPath);
  }
  EXPECT_TRUE(flushed) << "no flush within 5 s at a 2 s period";
}

TEST_F(LogdBlackbox, RestartKeepsTheCounts) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  open_router_fifo();
  pid_t first = start_daemon();
  ASSERT_GT(first, 0) << state();
  for (const Columns &c : {kClass1, kClass3, kClass5}) EXPECT_TRUE(send_attack(record(c)));
  ASSERT_TRUE(sync_daemon());
  expect_flushed({0, 1, 0, 1, 0, 1});
  int status = stop_daemon(first);
  ASSERT_TRUE(status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // The socket files of the first run are still there and must be taken over.
  pid_t second = start_daemon();
  ASSERT_GT(second, 0) << state();
  EXPECT_TRUE(send_attack(record(kClass2Flag)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(read_file(kStatPath), "4\n");
  expect_flushed({0, 1, 1, 1, 0, 1});
}

TEST_F(LogdBlackbox, SecondInstanceLeavesTheFirstAlone) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  open_router_fifo();
  pid_t first = start_daemon();
  ASSERT_GT(first, 0) << state();
  EXPECT_TRUE(send_attack(record(kClass1)));
  ASSERT_TRUE(sync_daemon());

  ASSERT_TRUE(launch());
  pid_t other = -1;
  ASSERT_TRUE(wait_for([&] {
    for (pid_t p : started_pids())
      if (p != first) other = p;
    return other > 0 && count_of(read_file(kLogPath), "mox_logd is already running") >= 2;
  }, 10)) << read_file(kLogPath);
  daemons_.push_back(other);
  EXPECT_EQ(read_file(kLockPath), std::to_string(first) + std::string(1, '\0'));

  // Had the newcomer taken the sockets, they would be dead once it is gone.
  if (alive(other)) {
    EXPECT_NE(stop_daemon(other), -1);
  }
  EXPECT_TRUE(alive(first));
  EXPECT_TRUE(send_attack(record(kClass2Bot)));
  ASSERT_TRUE(sync_daemon());
  EXPECT_EQ(read_file(kStatPath), "2\n");
  expect_flushed({0, 1, 1, 0, 0, 0});
}

TEST_F(LogdBlackbox, BurstOf100000IsCountedInFull) {
  REQUIRE_SANDBOX();
  write_rzpz(kFastRzpz);
  ASSERT_TRUE(write_text(kZvlog, ""));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();

  const int burst = 100000;
  const std::string one = record(kClass3);
  int sent = 0;
  for (int i = 0; i < burst; i++) sent += send_attack(one) ? 1 : 0;
  ASSERT_EQ(sent, burst) << std::strerror(errno);
  EXPECT_TRUE(wait_for([] { return read_file(kStatPath) == "100000\n"; }, 120))
      << read_file(kStatPath);
  EXPECT_TRUE(alive(pid));
  expect_flushed({0, 0, 0, 100000, 0, 0});
}

TEST_F(LogdBlackbox, BadSettingsFallBackToDefaults) {
  REQUIRE_SANDBOX();
  open_router_fifo();
  struct Case {
    const char *rzpz;
    bool info;
  };
  // Every period here is out of range, so the wait is the default minute
  // and no flush comes soon; the level decides whether INFO lines appear.
  const Case cases[] = {{"mox_logd=2\nmox_logd_period=abc\n", true},
                        {"mox_logd=7\nmox_logd_period=0\n", false},
                        {"mox_logd_period=99999\n", false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.rzpz);
    write_rzpz(c.rzpz);
    pid_t pid = start_daemon();
    ASSERT_GT(pid, 0) << state();
    EXPECT_TRUE(send_attack(record(kClass1)));
    EXPECT_TRUE(send_attack(header(kOutside)));  // logs "sscanf error."
    ASSERT_TRUE(sync_daemon());
    EXPECT_EQ(read_file(kStatPath), "1\n");
    EXPECT_FALSE(wait_for([] { return exists(kDayPath); }, 1.5)) << "flushed at once";

    std::string log = read_file(kLogPath);
    EXPECT_NE(log.find("  ERROR  (get_attack_fields:"), std::string::npos) << log;
    EXPECT_EQ(log.find("logd loop start, pid=") != std::string::npos, c.info) << log;
    EXPECT_EQ(log.find("DEBUG"), std::string::npos) << log;
    EXPECT_NE(stop_daemon(pid), -1);
    sandbox_wipe("/tmp/mox");
  }
}

}  // namespace
