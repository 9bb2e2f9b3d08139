// Runs one of the project's programs to its end and keeps what it wrote, for
// tests that judge a tool by its exit code and its output.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

struct RunResult {
  int code;  // exit status, 128 + signal, or -1 when it could not run
  std::string out, err;
};

// Runs path with argv (argv[0] is the name the program is given) and stdin
// on /dev/null; both outputs are read at once, so neither pipe can fill up
// and stall the program.
inline RunResult run_binary(const char *path, std::vector<std::string> argv) {
  RunResult r{-1, "", ""};
  std::vector<char *> args;
  for (std::string &a : argv) args.push_back(&a[0]);
  args.push_back(nullptr);
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return r;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return r;
  }
  pid_t pid = fork();
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    if (in < 0) _exit(126);
    dup2(in, STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(path, args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string *sinks[2] = {&r.out, &r.err};
  for (int open_fds = 2; open_fds > 0;) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; i++) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, (size_t)n);
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        open_fds--;
      }
    }
  }
  for (struct pollfd &p : fds)
    if (p.fd >= 0) close(p.fd);
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}
