// Starts the project's programs and helpers from outside, as an operator would: in the
// background, or to their end keeping what they wrote.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sandbox.h"

struct RunResult {
  int code;  // exit status, 128 + signal, or -1 when it could not run
  std::string out, err;
};

// The command line that starts path with argv (argv[0] is the name the
// program is given) and env (null: this process's environment), made
// before a fork: exec() allocates nothing, so a child of a threaded test
// may call it. Under an emulator (MOX_EMULATOR, its words split at spaces,
// set by CTest in a cross build) a program built for the test's own
// machine (the project's programs, or a copy of one) starts through it,
// and a preload goes to the program, not to the emulator; the host's own
// programs start as they are.
class ProgramLine {
 public:
  ProgramLine(const char *path, std::vector<std::string> argv,
              const std::vector<std::string> *env = nullptr)
      : with_env_(env != nullptr) {
    if (env != nullptr) env_ = *env;
    const char *emulator = std::getenv("MOX_EMULATOR");
    if (emulator != nullptr && emulator[0] != '\0' && same_machine(path)) {
      std::string words = emulator;
      for (size_t at = 0, end = 0; at < words.size(); at = end + 1) {
        end = words.find(' ', at);
        if (end == std::string::npos) end = words.size();
        if (end > at) line_.push_back(words.substr(at, end - at));
      }
      line_.insert(line_.begin(), line_.front());  // the file, then its argv[0]
      line_.insert(line_.end(), {"-0", argv.empty() ? std::string(path) : argv[0]});
      for (size_t i = 0; i < env_.size();)
        if (env_[i].compare(0, 11, "LD_PRELOAD=") == 0) {
          line_.insert(line_.end(), {"-E", env_[i]});
          env_.erase(env_.begin() + (long)i);
        } else {
          i++;
        }
      if (!argv.empty()) argv.erase(argv.begin());
    }
    line_.insert(line_.end(), path);
    line_.insert(line_.end(), argv.begin(), argv.end());
    for (size_t i = 1; i < line_.size(); i++) args_.push_back(&line_[i][0]);
    args_.push_back(nullptr);
    for (std::string &e : env_) envp_.push_back(&e[0]);
    envp_.push_back(nullptr);
  }
  ProgramLine(const ProgramLine &) = delete;
  ProgramLine &operator=(const ProgramLine &) = delete;

  // Returns only on failure.
  void exec() const {
    if (with_env_)
      execve(line_[0].c_str(), args_.data(), envp_.data());
    else
      execv(line_[0].c_str(), args_.data());
  }

 private:
  // True when path is an ELF file for the machine this test runs as (the
  // emulator shows the test's own file at /proc/self/exe).
  static bool same_machine(const char *path) {
    const char *files[2] = {"/proc/self/exe", path};
    unsigned char head[2][20];
    for (int i = 0; i < 2; i++) {
      int fd = open(files[i], O_RDONLY | O_CLOEXEC);
      ssize_t got = fd >= 0 ? pread(fd, head[i], sizeof head[i], 0) : -1;
      if (fd >= 0) close(fd);
      if (got != (ssize_t)sizeof head[i] || std::memcmp(head[i], "\177ELF", 4) != 0) return false;
    }
    // Class and byte order (bytes 4 and 5), and the machine (18 and 19).
    return head[0][4] == head[1][4] && head[0][5] == head[1][5] && head[0][18] == head[1][18] &&
           head[0][19] == head[1][19];
  }

  bool with_env_;
  std::vector<std::string> line_, env_;
  std::vector<char *> args_, envp_;
};

// fork and exec of path, with argv (argv[0] is the name the program is given) and our
// environment less clock faking, plus TZ=UTC and extra_env; stdin on /dev/null, output to
// out and err, its own process group if asked. The pid, or -1.
inline pid_t spawn(const char *path, std::vector<std::string> argv,
                   const std::vector<std::string> &extra_env, int out, int err, bool own_group) {
  std::vector<std::string> env = extra_env;
  env.push_back("TZ=UTC");
  for (char **e = environ; *e; e++)
    if (std::strncmp(*e, "LD_PRELOAD=", 11) && std::strncmp(*e, "FAKETIME", 8) &&
        std::strncmp(*e, "TZ=", 3))
      env.push_back(*e);
  ProgramLine line(path, std::move(argv), &env);
  pid_t pid = out >= 0 && err >= 0 ? fork() : -1;
  if (pid == 0) {
    if (own_group) setpgid(0, 0);
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    line.exec();
    _exit(127);
  }
  return pid;
}

// Runs path to its end. Both outputs go to anonymous files, so no pipe can fill up and
// stall the program, and a child it leaves running holds nothing up.
inline RunResult run_binary(const char *path, std::vector<std::string> argv) {
  RunResult r{-1, "", ""};
  int fds[2] = {memfd_create("out", MFD_CLOEXEC), memfd_create("err", MFD_CLOEXEC)};
  pid_t pid = spawn(path, argv, {}, fds[0], fds[1], false);
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  std::string *sinks[2] = {&r.out, &r.err};
  for (int i = 0; i < 2; i++) {
    char buf[4096];
    ssize_t n;
    for (off_t at = 0; fds[i] >= 0 && (n = pread(fds[i], buf, sizeof buf, at)) > 0; at += n)
      sinks[i]->append(buf, (size_t)n);
    if (fds[i] >= 0) close(fds[i]);
  }
  return r;
}

// mox_conf with these arguments, started as the tests start it.
inline RunResult mox_conf(std::vector<std::string> args) {
  args.insert(args.begin(), "mox_conf");
  return run_binary(sandbox_conf_path(), args);
}
