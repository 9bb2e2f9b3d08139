// Starts the project's programs and helpers from outside, as an operator would: in the
// background, or to their end keeping what they wrote.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "sandbox.h"

struct RunResult {
  int code;  // exit status, 128 + signal, or -1 when it could not run
  std::string out, err;
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
  std::vector<char *> args, envp;
  for (std::string &a : argv) args.push_back(&a[0]);
  for (std::string &e : env) envp.push_back(&e[0]);
  args.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t pid = out >= 0 && err >= 0 ? fork() : -1;
  if (pid == 0) {
    if (own_group) setpgid(0, 0);
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    execve(path, args.data(), envp.data());
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
