// Reference for the attack path: the system calls the daemon's design
// requires per record, and nothing else. For every datagram on its own unix
// datagram socket it waits in select, receives, asks br0 for its IPv4
// address and netmask (a socket, an ioctl and a close each: the source is
// judged against the interface as it is now), checks the count file and
// rewrites it (open with O_TRUNC, write, close), and checks for the device
// and writes one line to it through a stream opened for that line (the
// device may come and go during the run).
//
//   mox_refloop SOCK COUNTFILE DEVICE
//
// Runs until killed. Parsing and classifying are left out on purpose: the
// point is the floor the system calls alone set.
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

int main(int argc, char **argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: mox_refloop SOCK COUNTFILE DEVICE\n");
    return 2;
  }
  const char *sock = argv[1], *count_file = argv[2], *device = argv[3];
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock);
  unlink(sock);
  if (fd < 0 || bind(fd, (sockaddr *)&addr, sizeof addr) != 0) {
    std::perror("mox_refloop: bind");
    return 1;
  }
  static char buf[1025];
  static const char line[] = "[Block Attack] From source: 203.0.113.9 port 51000";
  unsigned long count = 0;
  for (;;) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval wait = {60, 0};
    if (select(fd + 1, &set, nullptr, nullptr, &wait) <= 0) continue;
    sockaddr_storage peer;
    socklen_t peer_len = sizeof peer;
    ssize_t n = recvfrom(fd, buf, sizeof buf - 1, 0, (sockaddr *)&peer, &peer_len);
    if (n < 0) continue;
    count++;
    for (unsigned long request : {(unsigned long)SIOCGIFADDR, (unsigned long)SIOCGIFNETMASK}) {
      int q = socket(AF_INET, SOCK_STREAM, 0);
      struct ifreq ifr;
      std::memset(&ifr, 0, sizeof ifr);
      std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "br0");
      if (q >= 0) {
        int r = ioctl(q, request, &ifr);
        (void)r;
        close(q);
      }
    }
    char text[32];
    int len = std::snprintf(text, sizeof text, "%lu\n", count);
    int exists = access(count_file, F_OK);
    (void)exists;
    int out = open(count_file, O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0666);
    if (out >= 0) {
      ssize_t w = write(out, text, (size_t)len);
      (void)w;
      close(out);
    }
    // The device takes the line with its terminating NUL.
    if (access(device, F_OK) == 0) {
      FILE *dev = std::fopen(device, "r+");
      if (dev != nullptr) {
        std::fwrite(line, 1, sizeof line, dev);
        std::fclose(dev);
      }
    }
  }
}
