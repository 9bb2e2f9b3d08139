// Harness of the black-box tests: the real mox_logd, watched only from outside.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "files.h"  // also string and functional
#include "records.h"
#include "run_binary.h"  // also fcntl, unistd, sys/wait, cstring, vector and sandbox.h

const char kLogPath[] = "/tmp/mox/log/logd.log";
const char kLockPath[] = "/tmp/mox/lock_writer.dat";
const char kAttackSock[] = "/tmp/mox/log/attack.sock";
const char kAccessSock[] = "/tmp/mox/log/access.sock";
const char kStatPath[] = "/tmp/mox/log/stat";
// Every log line and a one-second loop period.
const char kFastRzpz[] = "mox_logd=0\nmox_logd_period=1\n";

inline bool in_log(const std::string &text) { return slurp(kLogPath).find(text) != std::string::npos; }

inline bool write_rzpz(const char *text) {
  mkdir("/media/nand", 0755);
  mkdir("/media/nand/mox_data", 0755);
  return spill("/media/nand/mox_data/rzpz", text);
}

inline sockaddr_un unix_addr(const char *path) {
  sockaddr_un addr{AF_UNIX, {}};
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  return addr;
}

// A bound socket that accepts a connection belongs to a live process.
inline bool socket_live(const char *path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = unix_addr(path);
  bool live = fd >= 0 && connect(fd, (sockaddr *)&addr, sizeof addr) == 0;
  if (fd >= 0) close(fd);
  return live;
}

// spawn with both outputs to out_path (or /dev/null).
inline pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env,
                   const char *out_path, bool own_group) {
  int fd = open(out_path ? out_path : "/dev/null", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  pid_t pid = spawn(argv[0].c_str(), argv, env, fd, fd, own_group);
  if (fd >= 0) close(fd);
  return pid;
}

// Owns every process a test starts and stops each by pid in TearDown.
class BlackboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The daemon forks away from its starter; as subreaper the test gets it
    // back as a child, can reap it and read its exit status.
    int reaper = prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    if (reaper != 0) SKIP_UNDER_EMULATOR("PR_SET_CHILD_SUBREAPER, to reap the daemon it starts");
    ASSERT_EQ(reaper, 0);
    send_fd_ = own_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_GE(send_fd_, 0);
  }

  void TearDown() override {
    // Helpers such as nginx first, so nothing more reaches the daemon.
    for (pid_t pid : helpers_) end_process(pid, -pid);
    for (pid_t pid : daemons_)
      if (!end_process(pid, pid)) ADD_FAILURE() << "daemon " << pid << " ignored SIGTERM";
    // Whatever the daemon left behind and we inherited as subreaper.
    while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
    for (int fd : fds_) close(fd);
    if (sandbox_ready())
      std::system("ip link del br0 2>/dev/null; rm -rf /tmp/mox /media/nand /dev/zvlog /dev/log");
  }

  int own_fd(int fd) {  // closed in TearDown
    if (fd >= 0) fds_.push_back(fd);
    return fd;
  }

  // Reaps the pid if it has ended; false once it is gone.
  bool alive(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) ended_[pid] = status;
    return ended_.count(pid) == 0 && kill(pid, 0) == 0;
  }

  // SIGTERM to target (pid, or -pid for its group), SIGKILL 10 s later (then false).
  bool end_process(pid_t pid, pid_t target) {
    if (!alive(pid)) return true;
    kill(target, SIGTERM);
    if (wait_for([&] { return !alive(pid); }, 10)) return true;
    kill(target, SIGKILL);
    waitpid(pid, nullptr, 0);
    return false;
  }

  // A helper program in its own process group, ended in TearDown.
  pid_t spawn_helper(const std::vector<std::string> &argv, const std::string &out_path) {
    pid_t pid = spawn(argv, {}, out_path.c_str(), true);
    if (pid > 0) helpers_.push_back(pid);
    return pid;
  }

  // Runs the binary; the started process itself must end at once with 0.
  bool launch(const std::vector<std::string> &env = {}) {
    pid_t starter = spawn({sandbox_logd_path()}, env, nullptr, false);
    int status = 0;
    return starter > 0 && waitpid(starter, &status, 0) == starter && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
  }

  // Starts the daemon in /tmp/mox (which the firmware provides) and waits
  // until a new pid holds the lock and both sockets. Its pid, or -1.
  pid_t start_daemon(const std::vector<std::string> &env = {}) {
    mkdir("/tmp/mox", 0755);
    if (!launch(env)) return -1;
    pid_t pid = -1;
    bool up = wait_for([&] {
      pid = (pid_t)std::atol(slurp(kLockPath).c_str());
      return pid > 0 && std::count(daemons_.begin(), daemons_.end(), pid) == 0 && alive(pid) &&
             socket_live(kAttackSock) && socket_live(kAccessSock);
    }, 10);
    if (!up) return -1;
    daemons_.push_back(pid);
    return pid;
  }

  // SIGTERM and wait until the process is gone; its wait status, or -1.
  int stop_daemon(pid_t pid) {
    if (kill(pid, SIGTERM) != 0 || !wait_for([&] { return !alive(pid); }, 10)) return -1;
    auto it = ended_.find(pid);
    return it == ended_.end() ? -1 : it->second;
  }

  // One datagram, waiting for room in the socket, so none is lost before the daemon reads it.
  bool send_to(const char *path, const std::string &text) {
    sockaddr_un addr = unix_addr(path);
    ssize_t sent;
    while ((sent = sendto(send_fd_, text.data(), text.size(), 0, (sockaddr *)&addr,
                          sizeof addr)) < 0 && (errno == EAGAIN || errno == ENOBUFS))
      usleep(500);
    return sent == (ssize_t)text.size();
  }

  // What the daemon left behind, for failure messages.
  std::string state() {
    std::string log = slurp(kLogPath);
    return "lock=\"" + std::string(slurp(kLockPath).c_str()) + "\" attack.sock " +
           (socket_live(kAttackSock) ? "live" : "dead") + "\nlog (tail):\n" +
           log.substr(log.size() > 3000 ? log.size() - 3000 : 0);
  }

  int send_fd_ = -1;
  std::vector<int> fds_;
  std::vector<pid_t> daemons_, helpers_;
  std::map<pid_t, int> ended_;
};
