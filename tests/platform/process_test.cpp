#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "temp_dir.h"

// Runs body in a child process and returns its wait status.
template <typename Body>
static int in_child(Body body) {
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

using LockTest = TempDirTest;

// The owner is a child: any descriptor of the file that its owner closes
// drops a record lock, so the test process must not own it while reading.
TEST_F(LockTest, SecondProcessIsRefusedAndPidStays) {
  std::string lock = path("lock");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  fflush(stdout);
  pid_t owner = fork();
  if (owner == 0) {
    char result = static_cast<char>(lock_pid_file(lock.c_str()));
    if (write(ready[1], &result, 1) == 1) pause();
    _exit(0);
  }
  char result = 'x';
  ASSERT_EQ(read(ready[0], &result, 1), 1);
  ASSERT_EQ(result, 0);
  char content[32] = {0};
  std::string expected = std::to_string(owner);
  EXPECT_EQ(read_file(lock.c_str(), content, sizeof content), static_cast<ssize_t>(expected.size() + 1));
  EXPECT_EQ(std::string(content, expected.size() + 1), expected + '\0');

  int status = in_child([&] { return lock_pid_file(lock.c_str()) * 10 + is_file_locked(lock.c_str()); });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 11);
  EXPECT_EQ(read_pid_file(lock.c_str()), owner);
  EXPECT_EQ(is_file_locked(lock.c_str()), 1);
  kill(owner, SIGKILL);
  waitpid(owner, &status, 0);
  close(ready[0]);
  close(ready[1]);
}

TEST_F(LockTest, MissingDirectoryEndsTheProcess) {
  std::string lock = path("missing/lock");
  int status = in_child([&] { return lock_pid_file(lock.c_str()) + 50; });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST(ExecCmdTest, OutputAndStatus) {
  char out[9];
  memset(out, 'x', sizeof out);
  EXPECT_EQ(exec_cmd("echo hi", out, 8), 0);
  EXPECT_STREQ(out, "hi");
  memset(out, 'x', sizeof out);
  EXPECT_EQ(exec_cmd("true", out, 8), 0);
  EXPECT_EQ(std::string(out, sizeof out), std::string(sizeof out, 'x'));
  EXPECT_EQ(exec_cmd("printf abcdefgh", out, 8), 0);
  EXPECT_EQ(std::string(out, sizeof out), "abcdefghx");  // exactly full: no terminator
  EXPECT_EQ(exec_cmd("exit 3", nullptr, 0), -1);
  EXPECT_EQ(exec_cmd(nullptr, out, 8), -1);
  EXPECT_EQ(exec_cmd_without_output("exit 3"), 0);
  EXPECT_EQ(exec_cmd_without_output(nullptr), -1);
}

static std::vector<int> served;
static int collect(int pid, int) {
  served.push_back(pid);
  return 0;
}

static pid_t spawn_sleeper(const char *argv0) {
  pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sleep", argv0, "30", static_cast<char *>(nullptr));
    _exit(127);
  }
  return pid;
}

TEST(ProcessTest, FindsByNamePrefixAndSignals) {
  pid_t short_name = spawn_sleeper("mxprobe");
  pid_t long_name = spawn_sleeper("mxprobe_helper");
  for (int i = 0; i < 200 && served.size() < 2; i++) {
    served.clear();
    find_process_by_name("mxprobe", collect, 0);
    usleep(10000);
  }
  ASSERT_EQ(served.size(), 2u);
  EXPECT_NE(std::find(served.begin(), served.end(), short_name), served.end());
  EXPECT_NE(std::find(served.begin(), served.end(), long_name), served.end());
  EXPECT_EQ(find_process_by_name("mxprobe_helper", nullptr, 0), long_name);

  EXPECT_NE(kill_process_by_name("mxprobe", SIGKILL), 0);
  for (pid_t pid : {short_name, long_name}) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  }
}

TEST(ProcessTest, UptimeIsWholeSecondsOrMinusOne) {
  EXPECT_GT(get_uptime_seconds(), 0);
  REQUIRE_SANDBOX();
  if (mount("/dev/null", "/proc/uptime", nullptr, MS_BIND, nullptr) != 0)
    GTEST_SKIP() << "cannot lay a file over /proc/uptime";
  EXPECT_EQ(get_uptime_seconds(), -1);
  umount2("/proc/uptime", MNT_DETACH);
}
