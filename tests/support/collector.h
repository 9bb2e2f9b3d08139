// A TCP collector on 127.0.0.1 for the sender's tests: accepts connections
// on its own thread and keeps every octet-counted frame it receives whole.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Collector {
 public:
  // Listens on a free port; port() is 0 when that failed.
  Collector() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd_ < 0 || bind(fd_, (sockaddr *)&a, sizeof a) != 0 || listen(fd_, 16) != 0 ||
        getsockname(fd_, (sockaddr *)&a, &len) != 0)
      return;
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~Collector() { stop(); }

  int port() const { return port_; }

  // Stops accepting and closes the port (a later send is refused).
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  // The frames so far, each without its count.
  std::vector<std::string> frames() {
    std::lock_guard<std::mutex> g(m_);
    return frames_;
  }

  // Waits up to ms milliseconds for at least n frames.
  bool wait_for(size_t n, int ms) {
    for (int waited = 0; waited <= ms; waited += 20) {
      if (frames().size() >= n) return true;
      usleep(20000);
    }
    return false;
  }

 private:
  void run() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int c = accept(fd_, nullptr, nullptr);
      if (c < 0) continue;
      std::string got;
      char buf[8192];
      for (ssize_t n; (n = read(c, buf, sizeof buf)) > 0;) got.append(buf, (size_t)n);
      close(c);
      split(got);
    }
  }

  void split(const std::string &s) {
    size_t at = 0;
    while (at < s.size()) {
      size_t sp = s.find(' ', at);
      if (sp == std::string::npos) break;
      size_t n = std::stoul(s.substr(at, sp - at));
      std::lock_guard<std::mutex> g(m_);
      frames_.push_back(s.substr(sp + 1, n));
      at = sp + 1 + n;
    }
  }

  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex m_;
  std::vector<std::string> frames_;
};
