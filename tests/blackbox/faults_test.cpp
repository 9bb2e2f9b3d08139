// Faults from outside, against the real binaries: a full disk, readers that
// never read, a kill at every system call of a store write, links planted
// at temporary names, a careless umask, and signal storms during a flood.
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "harness.h"

namespace {

const char kStorePath[] = "/media/nand/mox_data/mox_conf.dat";

class Faults : public BlackboxTest {
 protected:
  void TearDown() override {
    BlackboxTest::TearDown();
    umount2("/tmp/mox/log", MNT_DETACH);
  }

  // Sends n attack records, each waiting for room in the socket.
  bool flood(int n) {
    const std::string text = record(kClass1);
    for (int i = 0; i < n; i++)
      if (!send_to(kAttackSock, text)) return false;
    return true;
  }

  bool count_reaches(unsigned n, double seconds = 20) {
    return wait_for([&] { return slurp(kStatPath) == std::to_string(n) + "\n"; }, seconds);
  }
};

TEST_F(Faults, AFullDiskKeepsTheLastCountsAndARestartGoesOnFromThem) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, std::system("mkdir -p /tmp/mox/log && mount -t tmpfs -o size=256k tmpfs /tmp/mox/log"));
  ASSERT_TRUE(write_rzpz(kFastRzpz));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(flood(150));
  ASSERT_TRUE(count_reaches(150)) << slurp(kStatPath);
  ASSERT_TRUE(wait_for([] { return slurp("/tmp/mox/log/day_stat").size() > 20; }, 10));

  // Every free block taken: files keep their room, nothing more is given.
  std::system("dd if=/dev/zero of=/tmp/mox/log/filler bs=4k 2>/dev/null");
  ASSERT_TRUE(flood(10));
  EXPECT_TRUE(count_reaches(160)) << "count file: \"" << slurp(kStatPath) << "\"";
  usleep(1500 * 1000);  // a flush or two against the full disk
  std::string day = slurp("/tmp/mox/log/day_stat");
  EXPECT_EQ(0u, day.find("total,")) << day;
  EXPECT_EQ(stop_daemon(pid), 0);

  ASSERT_EQ(0, unlink("/tmp/mox/log/filler"));
  pid = start_daemon();
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(flood(1));
  EXPECT_TRUE(count_reaches(161)) << "count file: \"" << slurp(kStatPath) << "\"";
}

TEST_F(Faults, ReadersThatNeverReadNeverHoldTheLoop) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, std::system("mkdir -p /tmp/mox/log /media/nand/mox_data"));
  for (const char *path : {"/media/nand/mox_data/rzpz", "/tmp/mox/log/day_stat",
                           "/tmp/mox/log/hour_stat", "/dev/zvlog"})
    ASSERT_EQ(0, mkfifo(path, 0666)) << path;
  // A reader that holds the router FIFO open and never reads it.
  int reader = own_fd(open("/dev/zvlog", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_GE(reader, 0);

  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0) << state();
  // Far more router lines than the FIFO holds.
  ASSERT_TRUE(flood(5000));
  EXPECT_TRUE(count_reaches(5000)) << slurp(kStatPath) << state();
  EXPECT_TRUE(in_log("router log line dropped: /dev/zvlog: ")) << state();
  EXPECT_EQ(stop_daemon(pid), 0) << "SIGTERM not honoured";
}

TEST_F(Faults, AKillAtAnyStepOfAStoreWriteLeavesTheOldOrTheNewValue) {
  REQUIRE_SANDBOX();
  if (access("/usr/bin/strace", X_OK) != 0) GTEST_SKIP() << "strace not installed (scripts/test installs it)";
  SKIP_UNDER_EMULATOR("ptrace of the program: strace would see the emulator's own calls");
  // A careless umask must not open the store's folders to others.
  mode_t old_mask = umask(0);
  RunResult r = mox_conf({"set", "randtime", "1 2"});
  umask(old_mask);
  ASSERT_EQ(0, r.code) << r.err;
  struct stat st;
  for (const char *dir : {"/media/nand", "/media/nand/mox_data"}) {
    ASSERT_EQ(0, stat(dir, &st));
    EXPECT_EQ(0u, st.st_mode & 022) << dir << " is open to others";
  }

  // The tool's path may be one of this process's descriptors ("/proc/self/
  // fd/N"): strace must reach it through this process.
  std::string tool = sandbox_conf_path();
  if (tool.compare(0, 11, "/proc/self/") == 0)
    tool = "/proc/" + std::to_string(getpid()) + tool.substr(10);
  // strace counts each system call apart: every invocation of each, in turn.
  int kills = 0;
  for (const char *call : {"openat", "write", "fsync", "close", "rename", "unlink", "mkdir"}) {
    for (int n = 1;; n++) {
      ASSERT_LT(n, 500) << call << ": the write never ended: " << r.err;
      r = run_binary("/usr/bin/strace",
                     {"strace", "-f", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0",
                      "-e", std::string("trace=") + call, "-e",
                      std::string("inject=") + call + ":signal=KILL:when=" + std::to_string(n),
                      tool, "set", "randtime", n % 2 ? "5 6" : "1 2"});
      RunResult got = mox_conf({"get", "randtime"});
      ASSERT_TRUE(got.out == "1 2\n" || got.out == "5 6\n")
          << "killed at " << call << " " << n << ": \"" << got.out << "\" " << got.err;
      if (r.code == 0) break;
      kills++;
    }
  }
  EXPECT_GT(kills, 30) << "the kills never reached the store";
}

TEST_F(Faults, LinksPlantedAtTemporaryNamesAreNeverFollowed) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, std::system("mkdir -p /tmp/mox/log /media/nand/mox_data"));
  ASSERT_TRUE(spill("/tmp/mox/victim", "precious\n"));
  ASSERT_EQ(0, symlink("/tmp/mox/victim", "/media/nand/mox_data/mox_conf.dat.tmp"));
  ASSERT_EQ(0, symlink("/tmp/mox/victim", "/tmp/mox/log/mox_conf.log.tmp"));
  // A log due for its trim, and a level that logs every change.
  ASSERT_TRUE(spill("/tmp/mox/log/mox_conf.log", std::string(40000, 'x') + "\n"));
  ASSERT_TRUE(write_rzpz("mox_conf=0\n"));

  RunResult r = mox_conf({"set", "randtime", "3 4"});
  ASSERT_EQ(0, r.code) << r.err;
  EXPECT_EQ("precious\n", slurp("/tmp/mox/victim"));
  struct stat st;
  ASSERT_EQ(0, lstat(kStorePath, &st));
  EXPECT_TRUE(S_ISREG(st.st_mode)) << "the store became a link";
  EXPECT_LT(slurp("/tmp/mox/log/mox_conf.log").size(), 40000u) << "the log was not trimmed";
  EXPECT_EQ("3 4\n", mox_conf({"get", "randtime"}).out);
}

TEST_F(Faults, SignalStormsDuringAFloodLoseNoCount) {
  REQUIRE_SANDBOX();
  ASSERT_TRUE(write_rzpz(kFastRzpz));
  pid_t pid = start_daemon();
  ASSERT_GT(pid, 0);
  std::atomic<bool> done{false};
  std::thread storm([&] {
    for (int i = 0; !done; i++) {
      kill(pid, i % 2 ? SIGHUP : SIGUSR2);
      usleep(200);
    }
  });
  bool sent = flood(20000);
  done = true;
  storm.join();
  ASSERT_TRUE(sent);
  ASSERT_TRUE(alive(pid)) << state();

  // Quiet again: one reset, then every record counts once.
  std::string last;
  ASSERT_TRUE(wait_for([&] {
    std::string now = slurp(kStatPath);
    bool still = now == last;
    last = now;
    return still;
  }, 20, 500));
  ASSERT_EQ(0, kill(pid, SIGUSR2));
  usleep(300 * 1000);
  ASSERT_TRUE(flood(300));
  EXPECT_TRUE(count_reaches(300)) << slurp(kStatPath);
  EXPECT_EQ(stop_daemon(pid), 0);
}

}  // namespace
