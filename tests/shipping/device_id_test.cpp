// The device identifier's command runs on the main loop's thread when a
// report is built: a routerinfo that hangs must cost the loop a bounded
// wait, and must not stay behind.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

long long now_ms() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (long long)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

std::string first_line(const std::string &path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return "";
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
    line.pop_back();
  return line;
}

// Gone, or a zombie waiting for whoever inherited it: either way no longer
// running.
bool stopped(pid_t pid) {
  if (kill(pid, 0) != 0) return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  size_t close = text.rfind(')');
  return close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'Z';
}

TEST(DeviceId, HangingSerialCommandIsKilledOnTime) {
  char dir[] = "/tmp/device_id.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  std::string script = std::string(dir) + "/routerinfo";
  std::string pid_file = std::string(dir) + "/pid";
  std::ofstream(script) << "#!/bin/sh\necho $$ > " << pid_file << "\nexec sleep 60\n";
  ASSERT_EQ(0, chmod(script.c_str(), 0755));

  std::string path = getenv("PATH");
  setenv("PATH", (std::string(dir) + ":" + path).c_str(), 1);
  char id[SHIP_DEVICE_ID_SIZE];
  long long start = now_ms();
  int rc = get_device_id(id, sizeof id);
  long long took = now_ms() - start;
  setenv("PATH", path.c_str(), 1);

  EXPECT_GE(took, SHIP_SERIAL_TIMEOUT_MS - 100);
  EXPECT_LT(took, SHIP_SERIAL_TIMEOUT_MS + 2000);
  // The machine id still stands in; without one the caller learns that the
  // command hangs, so that it is not started again.
  std::string machine = first_line("/etc/machine-id");
  EXPECT_EQ(machine.empty() ? -2 : 0, rc);
  EXPECT_EQ(machine, id);

  // The whole pipeline went, the hanging program included.
  pid_t hung = (pid_t)atoi(first_line(pid_file).c_str());
  ASSERT_GT(hung, 1);
  for (int i = 0; i < 200 && !stopped(hung); i++) usleep(10000);
  EXPECT_TRUE(stopped(hung));
  sandbox_wipe(dir);
}

}  // namespace
