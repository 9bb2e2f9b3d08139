// Runs one of the project's programs to its end and keeps what it wrote, for
// tests that judge a tool by its exit code and its output.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox.h"

struct RunResult {
  int code;  // exit status, 128 + signal, or -1 when it could not run
  std::string out, err;
};

// Runs path with argv (argv[0] is the name the program is given) and stdin
// on /dev/null. Both outputs go to anonymous files, so no pipe can fill up
// and stall the program, and a child it leaves running holds nothing up.
inline RunResult run_binary(const char *path, std::vector<std::string> argv) {
  RunResult r{-1, "", ""};
  std::vector<char *> args;
  for (std::string &a : argv) args.push_back(&a[0]);
  args.push_back(nullptr);
  int fds[2] = {memfd_create("out", MFD_CLOEXEC), memfd_create("err", MFD_CLOEXEC)};
  pid_t pid = fds[0] >= 0 && fds[1] >= 0 ? fork() : -1;
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, 0) < 0 || dup2(fds[0], 1) < 0 || dup2(fds[1], 2) < 0) _exit(126);
    execv(path, args.data());
    _exit(127);
  }
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
