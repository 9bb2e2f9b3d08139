// The wire side of shipping: the report envelope, the seal, the syslog
// frame, the TCP send to a listener the test holds, and the collector's
// mox_logdecode run as a program.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

const char kFragment[] =
    "\"timestamp\":\"2024-3-5 7:8:9\",\"internal_attack\":1,\"intrusion_attempt\":2,"
    "\"automated_attack\":3,\"unauthorized_access\":4,\"browser_hijacking\":5,"
    "\"password_guessing\":4294967295}";
const std::vector<std::string> kReportKeys = {
    "device_name", "device_id", "device_mac_address", "device_firmware_version", "timestamp",
    "internal_attack", "intrusion_attempt", "automated_attack", "unauthorized_access",
    "browser_hijacking", "password_guessing"};

std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

void put(const std::string &path, const std::string &data) {
  std::ofstream(path, std::ios::binary) << data;
}

std::string key_path(const char *name) { return std::string(MOX_SOURCE_DIR "/keys/dev/") + name; }

// A flat JSON object (string and integer values): the keys in order and
// each value's text.
struct Json {
  bool ok = false;
  std::vector<std::string> keys;
  std::map<std::string, std::string> v;
};

// A strict reader: false on anything but a flat object and nothing after it.
bool parse_into(const std::string &s, Json *j) {
  size_t i = 0;
  auto string_at = [&](std::string *v) {
    if (i >= s.size() || s[i++] != '"') return false;
    for (; i < s.size() && s[i] != '"'; i++) {
      unsigned char c = (unsigned char)s[i];
      if (c < 0x20) return false;
      if (c != '\\') {
        v->push_back((char)c);
        continue;
      }
      // Only the escapes these reports need.
      if (++i >= s.size() || (s[i] != '"' && s[i] != '\\')) return false;
      v->push_back(s[i]);
    }
    return i++ < s.size();
  };
  if (s.empty() || s[i++] != '{') return false;
  for (;;) {
    std::string key, value;
    if (!string_at(&key) || i >= s.size() || s[i++] != ':') return false;
    if (i < s.size() && s[i] == '"') {
      if (!string_at(&value)) return false;
    } else {
      size_t start = i;
      while (i < s.size() && isdigit((unsigned char)s[i])) i++;
      if (i == start || (s[start] == '0' && i - start > 1)) return false;
      value = s.substr(start, i - start);
    }
    j->keys.push_back(key);
    j->v[key] = value;
    if (i >= s.size()) return false;
    char c = s[i++];
    if (c == '}') return i == s.size();
    if (c != ',') return false;
  }
}

Json parse_flat_object(const std::string &s) {
  Json j;
  j.ok = parse_into(s, &j);
  return j;
}

// Diagnostic lines on standard output, a scratch folder in the sandbox.
class Ship : public ::testing::Test {
 protected:
  void SetUp() override {
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
    for (auto k : {std::make_pair("attack_private.pem", &attack_key),
                   std::make_pair("access_private.pem", &access_key)}) {
      char *pem = nullptr;
      ASSERT_EQ(0, load_private_key_text(key_path(k.first).c_str(), &pem));
      *k.second = pem;
      free(pem);
    }
  }
  void TearDown() override {
    LogSink.level = 3;
    LogSink.mask = 0;
    clock_set(0);
    if (!dir.empty()) sandbox_wipe(dir.c_str());
    if (sandbox_ready()) sandbox_del_br0();
  }
  void make_dir() {
    char tmpl[] = "/tmp/shiptest.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  // Opens text with the given keys; the code, and kind and content on success.
  int open(const std::string &text, std::vector<std::string> pems, char *kind,
           std::string *plain, SealMeta *meta = nullptr) {
    std::vector<const char *> list;
    for (auto &p : pems) list.push_back(p.c_str());
    unsigned char *out = nullptr;
    size_t len = 0;
    int rc = open_sealed_message(text.data(), text.size(), list.data(), (int)list.size(), kind,
                                 meta, &out, &len);
    if (rc == 0) plain->assign((const char *)out, len);
    free(out);
    return rc;
  }
  std::string envelope(std::string *log = nullptr) {
    char out[SHIP_ENVELOPE_SIZE];
    testing::internal::CaptureStdout();
    int n = build_attack_envelope(kFragment, out, sizeof out);
    std::string captured = testing::internal::GetCapturedStdout();
    if (log) *log = captured;
    return n < 0 ? "" : std::string(out, n);
  }
  std::string attack_key, access_key, dir;
};

TEST_F(Ship, EnvelopeIsOneJsonObjectInOrder) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, sandbox_add_br0("192.168.77.1/24"));
  std::string log;
  std::string report = envelope(&log);
  Json j = parse_flat_object(report);
  ASSERT_TRUE(j.ok) << report;
  EXPECT_EQ(kReportKeys, j.keys);
  auto &v = j.v;
  char host[SHIP_DEVICE_NAME_SIZE] = {0};
  gethostname(host, sizeof host - 1);
  EXPECT_EQ(host, v["device_name"]);
  EXPECT_TRUE(std::regex_match(v["device_mac_address"], std::regex("([0-9a-f]{2}:){5}[0-9a-f]{2}")));
  EXPECT_TRUE(std::regex_match(v["device_firmware_version"], std::regex(R"(1\.0\.0-20\d{6}-\S+)")));
  EXPECT_EQ("2024-3-5 7:8:9", v["timestamp"]);
  EXPECT_EQ("4294967295", v["password_guessing"]);
  EXPECT_EQ(std::string::npos, log.find("failed to get device mac address."));
}

TEST_F(Ship, EnvelopeWithoutBr0KeepsTheCounts) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, sandbox_del_br0());
  make_dir();
  log_init((dir + "/logd.log").c_str(), nullptr, LOG_MASK_FILE | LOG_MASK_STDOUT);
  LogSink.level = 0;
  std::string log;
  std::string report = envelope(&log);
  log_close();
  Json j = parse_flat_object(report);
  ASSERT_TRUE(j.ok) << report;
  EXPECT_NE(std::string::npos, log.find("failed to get device mac address.")) << log;
  // The line carries the stage's name, as the report's other lines do.
  std::string file = slurp(dir + "/logd.log");
  EXPECT_NE(std::string::npos, file.find("(send_encrypted_attack_log:")) << file;
  EXPECT_EQ("", j.v["device_mac_address"]);
  EXPECT_EQ("5", j.v["browser_hijacking"]);
}

TEST_F(Ship, DeviceIdFromSerialElseMachineId) {
  REQUIRE_SANDBOX();
  make_dir();
  // A serial with a quote must not break the report.
  put(dir + "/routerinfo", "#!/bin/sh\necho 'Board name : X1'\necho 'Device serial : SN\"42\\x'\n");
  chmod((dir + "/routerinfo").c_str(), 0755);
  std::string path = getenv("PATH");
  setenv("PATH", (dir + ":" + path).c_str(), 1);
  char id[SHIP_DEVICE_ID_SIZE];
  int rc = get_device_id(id, sizeof id);
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(0, rc);
  EXPECT_STREQ("SN\"42\\x", id);
  char esc[16];
  EXPECT_EQ(8, json_escape("\x01\"", esc, sizeof esc));
  EXPECT_STREQ("\\u0001\\\"", esc);

  std::string machine = slurp("/etc/machine-id");
  machine = machine == "<missing>" ? "" : machine.substr(0, machine.find('\n'));
  EXPECT_EQ(machine.empty() ? -1 : 0, get_device_id(id, sizeof id));
  EXPECT_EQ(machine, id);
}

TEST_F(Ship, SealedReportOpensOnlyWithItsKey) {
  std::string pub = slurp(key_path("attack_public.pem"));
  std::string report = std::string("{\"device_name\":\"r\",") + kFragment;
  std::vector<char> text(SHIP_BASE64_SIZE(SHIP_SEALED_MAX(report.size())));
  SealMeta meta{0x0123456789abcdefull, 42, "SN0042"};
  int n = seal_message('A', pub.c_str(), &meta, (const unsigned char *)report.data(),
                       report.size(), 0, text.data(), text.size());
  ASSERT_GT(n, 0);
  std::string sealed(text.data(), n), line = "Mar  5 07:08:09 r mox_logd: MOX2 A " + sealed + "\r";
  char kind = 0;
  std::string plain;
  SealMeta got{};
  EXPECT_EQ(0, open(line, {access_key, attack_key}, &kind, &plain, &got));
  EXPECT_EQ('A', kind);
  EXPECT_EQ(report, plain);
  EXPECT_EQ(meta.epoch, got.epoch);
  EXPECT_EQ(42u, got.seq);
  EXPECT_STREQ("SN0042", got.device);
  EXPECT_EQ(OPEN_NO_KEY, open(line, {access_key}, &kind, &plain));
  EXPECT_EQ(OPEN_NO_MARKER, open("Mar  5 r sshd: hello", {attack_key}, &kind, &plain));
  EXPECT_EQ(OPEN_MALFORMED, open("MOX2 L " + sealed, {attack_key}, &kind, &plain));
  EXPECT_EQ(OPEN_MALFORMED, open("MOX2 A " + sealed + " x", {attack_key}, &kind, &plain));
  EXPECT_EQ(OPEN_MALFORMED, open("MOX1 A " + sealed, {attack_key}, &kind, &plain))
      << "a new layout taken for the old";
  // Every byte is covered: a change anywhere fails, never crashes.
  for (size_t at = 0; at < sealed.size(); at += 7) {
    std::string bad = sealed;
    bad[at] = bad[at] == 'A' ? 'g' : 'A';  // a high bit: never padding alone
    EXPECT_LT(open("MOX2 A " + bad, {attack_key}, &kind, &plain), 0) << at;
  }
  for (size_t cut = 0; cut < sealed.size(); cut += 4)
    EXPECT_LT(open("MOX2 A " + sealed.substr(0, cut), {attack_key}, &kind, &plain), 0) << cut;
  testing::internal::CaptureStdout();
  EXPECT_EQ(SEAL_KEY_FAILED, seal_message('A', "garbage", &meta, (const unsigned char *)"x", 1, 0,
                                          text.data(), text.size()));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("Failed to create RSA"));
}

TEST_F(Ship, AccessBlocksRoundTripLargeAndEmpty) {
  std::string big;
  for (int i = 0; big.size() < (1u << 20); i++)
    big += "192.0.2." + std::to_string(i % 250) + " - - \"GET /item/" + std::to_string(i * 7919) +
           " HTTP/1.1\" 200 " + std::to_string(i % 9000) + "\n";
  SealMeta meta{7, 1, ""};
  for (const std::string &block : {big, std::string()}) {
    char *frame = nullptr;
    testing::internal::CaptureStdout();
    int n = build_encrypted_logs(block.data(), block.size(), &meta, &frame);
    std::string log = testing::internal::GetCapturedStdout();
    ASSERT_GT(n, 0);
    std::string text(frame, n);
    free(frame);
    EXPECT_NE(std::string::npos, log.find("preprocess date, len= " + std::to_string(block.size())));
    EXPECT_LT(text.size(), block.size() / 2 + 1024);  // compressed before sealing
    char kind = 0;
    std::string plain = "x";
    ASSERT_EQ(0, open(text, {attack_key, access_key}, &kind, &plain));
    EXPECT_EQ('L', kind);
    EXPECT_TRUE(plain == block);
    if (block.empty()) continue;
    text[text.size() / 2] = text[text.size() / 2] == 'A' ? 'B' : 'A';
    EXPECT_EQ(OPEN_TAMPERED, open(text, {access_key}, &kind, &plain));
  }
}

TEST_F(Ship, MessageIsSyslog) {
  clock_set(1709622489);  // 2024-03-05 07:08:09 UTC
  std::string tz = getenv("TZ") ? getenv("TZ") : "";
  const std::pair<const char *, const char *> zones[] = {
      {"UTC0", "2024-03-05T07:08:09+00:00"}, {"EST5", "2024-03-05T02:08:09-05:00"},
      {"IST-5:30", "2024-03-05T12:38:09+05:00"}};
  for (auto &z : zones) {
    setenv("TZ", z.first, 1);
    tzset();
    char out[256];
    int n = format_syslog_message('L', "QUJD", out, sizeof out);
    std::smatch m;
    std::string message(out, n > 0 ? n : 0);
    ASSERT_TRUE(std::regex_match(message, m, std::regex(R"(<190>(\S+) \S+ mox_logd: MOX2 L QUJD)")))
        << message;
    EXPECT_EQ(z.second, m[1].str());
  }
  if (tz.empty()) unsetenv("TZ"); else setenv("TZ", tz.c_str(), 1);
  tzset();
  char small[40];
  EXPECT_EQ(-1, format_syslog_message('A', "QUJD", small, sizeof small));
}

// A TCP socket bound to an ephemeral port of 127.0.0.1; -1 on failure.
int loopback_socket(int *port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (fd < 0 || bind(fd, (sockaddr *)&a, sizeof a) != 0 ||
      getsockname(fd, (sockaddr *)&a, &len) != 0)
    return -1;
  *port = ntohs(a.sin_port);
  return fd;
}

ShipTarget target(const char *host, int port) {
  ShipTarget t{};
  t.transport = SHIP_TRANSPORT_TCP;
  std::snprintf(t.host, sizeof t.host, "%s", host);
  t.port = port;
  return t;
}

TEST_F(Ship, UnreachableOrResettingCollectorsFailQuickly) {
  REQUIRE_SANDBOX();
  int port = 0, fd = loopback_socket(&port);  // bound, never listening: refuses
  ASSERT_GE(fd, 0);
  const char *msgs[] = {"abc"};
  size_t lens[] = {3};
  testing::internal::CaptureStdout();
  ShipTarget refused = target("127.0.0.1", port), unknown = target("no-such-host.invalid", 514),
             zero = target("127.0.0.1", 0);
  EXPECT_EQ(-1, send_to_syslog_server(&refused, msgs, lens, 1));
  EXPECT_EQ(-1, send_to_syslog_server(&unknown, msgs, lens, 1));
  EXPECT_EQ(-1, send_to_syslog_server(&zero, msgs, lens, 1));
  close(fd);
  // Accepts, and resets without reading: the kernel took the bytes, the
  // collector confirmed nothing.
  fd = loopback_socket(&port);
  ASSERT_TRUE(fd >= 0 && listen(fd, 1) == 0);
  std::thread resetter([&] {
    int c = accept(fd, nullptr, nullptr);
    struct linger abort_close = {1, 0};
    setsockopt(c, SOL_SOCKET, SO_LINGER, &abort_close, sizeof abort_close);
    usleep(100000);
    close(c);
  });
  ShipTarget reset = target("127.0.0.1", port);
  EXPECT_EQ(-1, send_to_syslog_server(&reset, msgs, lens, 1));
  resetter.join();
  close(fd);
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, log.find("connect() error:Connection refused")) << log;
  EXPECT_NE(std::string::npos, log.find("gethostbyname error for host:no-such-host.invalid"));
  EXPECT_NE(std::string::npos, log.find("collector did not confirm 1 message(s): Connection reset"))
      << log;
  EXPECT_EQ(std::string::npos, log.find("syslog send() OK"));
}

// Runs mox_logdecode with args; its exit status, standard output and error.
int run_logdecode(const std::string &dir, std::vector<std::string> args, std::string *out,
                  std::string *err) {
  std::string o = dir + "/out", e = dir + "/err";
  pid_t pid = fork();
  if (pid == 0) {
    int fo = ::open(o.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    int fe = ::open(e.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    int fi = ::open("/dev/null", O_RDONLY);
    dup2(fi, 0);
    dup2(fo, 1);
    dup2(fe, 2);
    std::vector<char *> argv = {(char *)"mox_logdecode"};
    for (auto &a : args) argv.push_back((char *)a.c_str());
    argv.push_back(nullptr);
    execv(sandbox_logdecode_path(), argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  *out = slurp(o);
  *err = slurp(e);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// An octet-counted frame of a message.
std::string frame_of(const std::string &message) {
  return std::to_string(message.size()) + " " + message;
}

TEST_F(Ship, LogdecodeReadsFilesAndStreamsAndDropsCopies) {
  REQUIRE_SANDBOX();
  make_dir();
  std::string records = "first record\nsecond record";
  std::string report = envelope();
  auto access_message = [&](uint64_t seq, const std::string &text) {
    SealMeta meta{0xfeedull, seq, "SN1"};
    char *out = nullptr;
    int n = build_encrypted_logs(text.data(), text.size(), &meta, &out);
    std::string m(out, n > 0 ? n : 0);
    free(out);
    return m;
  };
  testing::internal::CaptureStdout();
  std::string block = access_message(1, records), later = access_message(3, "third\n");
  std::string pub = slurp(key_path("attack_public.pem"));
  std::vector<char> text(SHIP_ATTACK_TEXT_SIZE), message(SHIP_ATTACK_MESSAGE_SIZE);
  SealMeta meta{0xfeedull, 1, "SN1"};
  ASSERT_GT(seal_message('A', pub.c_str(), &meta, (const unsigned char *)report.data(),
                         report.size(), 0, text.data(), text.size()), 0);
  ASSERT_GT(format_syslog_message('A', text.data(), message.data(), message.size()), 0);
  testing::internal::GetCapturedStdout();
  std::string attack(message.data());

  // As a receiver writes them: one message a line; a resent block is a copy.
  put(dir + "/lines", attack + "\nMar  5 r kernel: MOX2 A AAAA\n" + block + "\n" + block + "\n");
  put(dir + "/stream", frame_of(block) + frame_of(attack) + frame_of(later) + frame_of(block));
  std::string ak = key_path("attack_private.pem"), lk = key_path("access_private.pem");
  std::string out, err;
  EXPECT_EQ(1, run_logdecode(dir, {"-k", ak, "-k", lk, dir + "/lines"}, &out, &err));
  EXPECT_EQ(report + "\n" + records + "\n", out);
  EXPECT_TRUE(err.find("mox_logdecode: ") == 0 && err.find("line 2") != std::string::npos) << err;

  EXPECT_EQ(0, run_logdecode(dir, {"--stats", "-k", lk, "-k", ak, dir + "/stream"}, &out, &err))
      << err;
  EXPECT_EQ(records + "\n" + report + "\nthird\n", out);
  EXPECT_NE(std::string::npos, err.find("mox_logdecode: stats: device=SN1 epoch=000000000000feed "
                                        "kind=L decoded=2 duplicates=1 missing=1\n"))
      << err;
  EXPECT_NE(std::string::npos, err.find("kind=A decoded=1 duplicates=0 missing=0\n")) << err;

  put(dir + "/cut", frame_of(block) + frame_of(attack).substr(0, attack.size() - 9));
  EXPECT_EQ(1, run_logdecode(dir, {"-k", ak, "-k", lk, dir + "/cut"}, &out, &err));
  EXPECT_EQ(records + "\n", out);
  EXPECT_NE(std::string::npos, err.find("truncated")) << err;

  EXPECT_EQ(2, run_logdecode(dir, {dir + "/lines"}, &out, &err));
  EXPECT_EQ(2, run_logdecode(dir, {"-k", dir + "/lines"}, &out, &err));
}

}  // namespace
