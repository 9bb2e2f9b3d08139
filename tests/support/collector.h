// A TCP peer on 127.0.0.1 for the shipping tests, serving on its own thread:
// a collector that stores what it reads, or one that misbehaves.
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

enum class Peer {
  kStore,  // reads everything and closes in order after the sender's end
  kSlow,   // the same, a little at a time
  kReset,  // accepts and resets at once, reading nothing
  kMute,   // listens and never accepts: the kernel takes the bytes, nobody reads them
};

class Collector {
 public:
  // Listens on port (0: a free one); port() is 0 when it cannot.
  explicit Collector(int port = 0, Peer mode = Peer::kStore) : mode_(mode) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    sockaddr_in a{AF_INET, htons((uint16_t)port), {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    if (fd_ < 0 || setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd_, (sockaddr *)&a, sizeof a) != 0 || listen(fd_, 16) != 0 ||
        getsockname(fd_, (sockaddr *)&a, &len) != 0)
      return;
    port_ = ntohs(a.sin_port);
    if (mode_ != Peer::kMute) thread_ = std::thread([this] { serve(); });
  }
  ~Collector() { stop(); }

  int port() const { return port_; }

  // Stops serving and closes the port (a later connect is refused).
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  // Every byte read so far, connection after connection.
  std::string bytes() {
    std::lock_guard<std::mutex> hold(mutex_);
    return bytes_;
  }

  // The complete octet-counted frames read so far, each without its count.
  std::vector<std::string> frames() {
    std::string s = bytes();
    std::vector<std::string> out;
    for (size_t at = 0, sp; (sp = s.find(' ', at)) != std::string::npos;) {
      size_t n = std::stoul(s.substr(at, sp - at));
      if (sp + 1 + n > s.size()) break;
      out.push_back(s.substr(sp + 1, n));
      at = sp + 1 + n;
    }
    return out;
  }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      int conn = poll(&p, 1, 20) == 1 ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (conn < 0) continue;
      struct linger abort_close = {1, 0};
      struct timeval quiet = {5, 0};
      if (mode_ == Peer::kReset) setsockopt(conn, SOL_SOCKET, SO_LINGER, &abort_close, sizeof abort_close);
      setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &quiet, sizeof quiet);
      char buf[8192];
      size_t chunk = mode_ == Peer::kSlow ? 512 : sizeof buf;
      for (ssize_t n; mode_ != Peer::kReset && (n = recv(conn, buf, chunk, 0)) > 0;) {
        std::lock_guard<std::mutex> hold(mutex_);
        bytes_.append(buf, (size_t)n);
        if (mode_ == Peer::kSlow) usleep(2000);
      }
      close(conn);
    }
  }

  const Peer mode_;
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::string bytes_;
};
