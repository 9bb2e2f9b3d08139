// The wire side of shipping that the black-box tests do not reach: a seal that opens only
// with its key and fails on any change, the device's identity, and mox_logdecode's exit
// codes, copies and counts on hand-made input.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "files.h"
#include "platform/platform.h"
#include "run_binary.h"
#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

const std::string kReport =
    "{\"device_name\":\"r\",\"timestamp\":\"2024-3-5 7:8:9\",\"internal_attack\":1,"
    "\"intrusion_attempt\":2,\"automated_attack\":3,\"unauthorized_access\":4,"
    "\"browser_hijacking\":5,\"password_guessing\":4294967295}";

std::string key_path(const char *name) { return std::string(MOX_SOURCE_DIR "/keys/dev/") + name; }

std::string first_line(const std::string &path) {
  std::string text = slurp(path);
  return text == "<missing>" ? "" : text.substr(0, text.find('\n'));
}

// Gone, or a zombie waiting for whoever inherited it: no longer running.
bool stopped(pid_t pid) {
  std::string stat = first_line("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  return kill(pid, 0) != 0 || (close != std::string::npos && stat.compare(close, 3, ") Z") == 0);
}

// get_device_id with this routerinfo first on the PATH; its code, *took the milliseconds.
int device_id_with(const std::string &script, char *id, long long *took) {
  if (!spill("/tmp/bin/routerinfo", "#!/bin/sh\n" + script) || chmod("/tmp/bin/routerinfo", 0755) != 0)
    return -99;
  std::string path = getenv("PATH");
  setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
  auto start = std::chrono::steady_clock::now();
  int rc = get_device_id(id, SHIP_DEVICE_ID_SIZE);
  *took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  setenv("PATH", path.c_str(), 1);
  return rc;
}

class Ship : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, device_key_load(key_path("device_key.pem").c_str()));
    for (auto k : {std::make_pair("attack_private.pem", &attack_key_),
                   std::make_pair("access_private.pem", &access_key_)}) {
      char *pem = nullptr;
      ASSERT_EQ(0, load_private_key_text(key_path(k.first).c_str(), &pem));
      *k.second = pem;
      free(pem);
    }
  }
  // Opens text with the given keys: the code, and kind and content on success.
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
  // The report sealed for the attack key, as its text.
  static std::string sealed_report(const SealMeta &meta) {
    std::string pub = slurp(key_path("attack_public.pem"));
    std::vector<char> text(SHIP_ATTACK_TEXT_SIZE);
    int n = seal_message('A', pub.c_str(), &meta, (const unsigned char *)kReport.data(), kReport.size(),
                         0, text.data(), text.size());
    return std::string(text.data(), n > 0 ? n : 0);
  }
  // A sealed access block as the sealer makes it, with this sequence number.
  static std::string access_message(uint64_t seq, const std::string &records) {
    SealMeta meta{0xfeedull, seq, "SN1", 0, {}};
    char *out = nullptr;
    int n = build_encrypted_logs(records.data(), records.size(), &meta, &out);
    std::string m(out, n > 0 ? n : 0);
    free(out);
    return m;
  }
  std::string attack_key_, access_key_;
};

TEST_F(Ship, SealOpensOnlyWithItsKeyAndFailsOnAnyChange) {
  SealMeta meta{0x0123456789abcdefull, 42, "SN0042", 0, {}};
  std::string sealed = sealed_report(meta), line = "Mar  5 07:08:09 r mox_logd: MOX3 A " + sealed + "\r";
  ASSERT_FALSE(sealed.empty());
  char kind = 0;
  std::string plain;
  SealMeta got{};
  EXPECT_EQ(0, open(line, {access_key_, attack_key_}, &kind, &plain, &got));
  EXPECT_EQ('A', kind);
  EXPECT_EQ(kReport, plain);
  EXPECT_TRUE(got.epoch == meta.epoch && got.seq == 42u && std::string(got.device) == "SN0042");
  unsigned char device_key[SHIP_SIGN_KEY_SIZE];
  ASSERT_EQ(0, device_key_public(device_key));
  EXPECT_TRUE(got.signed_by_key && memcmp(got.signer, device_key, sizeof device_key) == 0);
  EXPECT_EQ(OPEN_NO_KEY, open(line, {access_key_}, &kind, &plain));
  EXPECT_EQ(OPEN_NO_MARKER, open("Mar  5 r sshd: hello", {attack_key_}, &kind, &plain));
  for (const std::string &bad : {"MOX3 L " + sealed, "MOX3 A " + sealed + " x", "MOX2 A " + sealed,
                                 "MOX1 A " + sealed})
    EXPECT_EQ(OPEN_MALFORMED, open(bad, {attack_key_}, &kind, &plain)) << bad.substr(0, 8);
  // Every byte is covered: a change anywhere fails, never crashes.
  for (size_t at = 0; at < sealed.size(); at += 7) {
    std::string bad = sealed;
    bad[at] = bad[at] == 'A' ? 'g' : 'A';  // a high bit: never padding alone
    EXPECT_LT(open("MOX3 A " + bad, {attack_key_}, &kind, &plain), 0) << at;
  }
  for (size_t cut = 0; cut < sealed.size(); cut += 4)
    EXPECT_LT(open("MOX3 A " + sealed.substr(0, cut), {attack_key_}, &kind, &plain), 0) << cut;

  std::string message = access_message(1, "a record\n");
  char &tag = message[message.size() - 8];  // in the cipher's tag
  tag = tag == 'A' ? 'B' : 'A';
  EXPECT_EQ(OPEN_TAMPERED, open(message, {access_key_}, &kind, &plain));
}

TEST_F(Ship, LogdecodeExitsByWhatItReadAndDropsCopies) {
  REQUIRE_SANDBOX();
  std::string records = "first record\nsecond record";
  std::string block = access_message(1, records), later = access_message(3, "third\n");
  const std::string &report = kReport;
  std::vector<char> message(SHIP_ATTACK_MESSAGE_SIZE);
  ASSERT_GT(format_syslog_message('A', sealed_report({0xfeedull, 1, "SN1", 0, {}}).c_str(), message.data(),
                                  message.size()), 0);
  std::string attack(message.data());
  auto frame = [](const std::string &m) { return std::to_string(m.size()) + " " + m; };
  auto decode = [](std::vector<std::string> args, const std::string &input) {
    spill("/tmp/input", input);
    args.insert(args.begin(), "mox_logdecode");
    args.push_back("/tmp/input");
    return run_binary(sandbox_logdecode_path(), args);
  };
  const std::string ak = key_path("attack_private.pem"), lk = key_path("access_private.pem");

  // As a receiver writes them, one message a line: a resent block is a copy, a line that
  // does not open is an error.
  RunResult r = decode({"-k", ak, "-k", lk},
                       attack + "\nMar  5 r kernel: MOX2 A AAAA\n" + block + "\n" + block + "\n");
  const std::string lines = "{\"device\":\"SN1\",\"record\":\"first record\"}\n"
                            "{\"device\":\"SN1\",\"record\":\"second record\"}\n";
  EXPECT_EQ(1, r.code);
  EXPECT_EQ(report + "\n" + lines, r.out);
  EXPECT_TRUE(r.err.find("mox_logdecode: ") == 0 && r.err.find("line 2") != std::string::npos) << r.err;
  // A raw stream of frames, with a gap in the sequence numbers.
  r = decode({"--stats", "-k", lk, "-k", ak}, frame(block) + frame(attack) + frame(later) + frame(block));
  EXPECT_EQ(0, r.code) << r.err;
  EXPECT_EQ(lines + report + "\n{\"device\":\"SN1\",\"record\":\"third\"}\n", r.out);
  EXPECT_NE(std::string::npos, r.err.find("mox_logdecode: stats: device=SN1 epoch=000000000000feed "
                                          "kind=L decoded=2 duplicates=1 replays=0 missing=1\n")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("kind=A decoded=1 duplicates=0 replays=0 missing=0\n")) << r.err;
  r = decode({"-k", ak, "-k", lk}, frame(block) + frame(attack).substr(0, attack.size() - 9));
  EXPECT_EQ(1, r.code);
  EXPECT_EQ(lines, r.out);
  EXPECT_NE(std::string::npos, r.err.find("truncated")) << r.err;
  EXPECT_EQ(2, decode({}, block).code);
  EXPECT_EQ(2, decode({"-k"}, block).code);
}

// With a keyring the collector knows each device by its signing key: the first signed
// message pins it, another key's message for that device is refused (the public sealing
// keys are in every firmware image, so anyone can seal), and a message an earlier run
// decoded comes back as a replay. Whatever a message holds, the output is JSON lines.
TEST_F(Ship, KeyringRefusesForgeriesKeyChangesAndReplays) {
  REQUIRE_SANDBOX();
  std::string pub = slurp(key_path("attack_public.pem"));
  auto report_line = [&](const char *device, uint64_t seq, const std::string &json) {
    std::vector<char> text(SHIP_ATTACK_TEXT_SIZE), message(SHIP_ATTACK_MESSAGE_SIZE);
    SealMeta meta{0xbeefull, seq, "", 0, {}};
    snprintf(meta.device, sizeof meta.device, "%s", device);
    EXPECT_GT(seal_message('A', pub.c_str(), &meta, (const unsigned char *)json.data(), json.size(),
                           0, text.data(), text.size()), 0);
    EXPECT_GT(format_syslog_message('A', text.data(), message.data(), message.size()), 0);
    return std::string(message.data()) + "\n";
  };
  const std::string genuine = kReport;
  std::string input = report_line("victim", 1, genuine) +
                      access_message(1, "GET /\x1b[2J\"}{\"x\":1\x7f") + "\n";
  ASSERT_EQ(0, device_key_load("/tmp/forger.pem"));  // a key of the forger's own
  input += report_line("victim", 2, genuine) + report_line("SN1", 2, "{\"a\":1}\n{\"b\":2}");
  std::ofstream("/tmp/input", std::ios::binary) << input;
  auto decode = [] {
    return run_binary(sandbox_logdecode_path(),
                      {"mox_logdecode", "--stats", "--keyring", "/tmp/ring", "-k",
                       key_path("attack_private.pem"), "-k", key_path("access_private.pem"),
                       "/tmp/input"});
  };
  RunResult r = decode();
  EXPECT_EQ(1, r.code);
  EXPECT_EQ(genuine + "\n{\"device\":\"SN1\",\"record\":\"GET /\\u001b[2J\\\"}{\\\"x\\\":1\\u007f\"}\n",
            r.out);
  EXPECT_NE(std::string::npos, r.err.find("pinned device \"victim\" to key ")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("line 3: device \"victim\" signed by key ")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("line 4: device \"SN1\" signed by key ")) << r.err;
  std::string ring = slurp("/tmp/ring");
  EXPECT_NE(std::string::npos, ring.find("seen A 000000000000beef 1 \"victim\"\n")) << ring;
  // Enrolled ahead: the forger's key for a new device is taken, and its report is refused
  // for not being one flat object; then the first run's messages come back as replays.
  ring += "ed25519 ";
  unsigned char forger[SHIP_SIGN_KEY_SIZE];
  char hex[SHIP_KEY_HEX_SIZE];
  ASSERT_EQ(0, device_key_public(forger));
  key_hex(forger, hex);
  std::ofstream("/tmp/ring") << ring << hex << " \"SN9\"\n";
  std::ofstream("/tmp/input", std::ios::binary)
      << input.substr(0, input.find('\n', input.find('\n') + 1) + 1)
      << report_line("SN9", 1, "{\"a\":1}\n{\"b\":2}") << report_line("SN9", 2, "{\"a\":\"\\u12\"}");
  r = decode();
  EXPECT_EQ(1, r.code);
  EXPECT_EQ("", r.out);
  EXPECT_NE(std::string::npos, r.err.find("line 1: replay: device \"victim\" epoch 000000000000beef "
                                          "kind A sequence 1 was decoded by an earlier run")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("line 3: report is not one flat JSON object")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("line 4: report is not one flat JSON object")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("kind=L decoded=0 duplicates=0 replays=1 missing=0")) << r.err;
}

// The device identifier comes from the router's serial command, run on the main loop's
// thread when a report is built: a serial with JSON's own characters is taken as it is (and
// escaped in the report), and a command that hangs costs the loop a bounded wait and does
// not stay behind.
TEST(DeviceId, SerialAsItIsElseTheMachineIdAfterABoundedWait) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, system("mkdir -p /tmp/bin"));
  char id[SHIP_DEVICE_ID_SIZE];
  long long took = 0;
  EXPECT_EQ(0, device_id_with("echo 'Board name : X1'\necho 'Device serial : SN\"42\\x'\n", id, &took));
  EXPECT_STREQ("SN\"42\\x", id);
  char escaped[32];
  EXPECT_EQ(13, json_escape("SN\"4\\\x01", escaped, sizeof escaped));
  EXPECT_STREQ("SN\\\"4\\\\\\u0001", escaped);

  int rc = device_id_with("echo $$ > /tmp/bin/pid\nexec sleep 60\n", id, &took);
  EXPECT_TRUE(took >= SHIP_SERIAL_TIMEOUT_MS - 100 && took < SHIP_SERIAL_TIMEOUT_MS + 2000) << took;
  // The machine id stands in; without one the caller learns that the command hangs, so that
  // it is not started again.
  std::string machine = first_line("/etc/machine-id");
  EXPECT_EQ(machine.empty() ? -2 : 0, rc);
  EXPECT_EQ(machine, id);
  // The whole pipeline went, the hanging program included.
  pid_t hung = (pid_t)atoi(first_line("/tmp/bin/pid").c_str());
  ASSERT_GT(hung, 1);
  EXPECT_TRUE(wait_for([&] { return stopped(hung); }, 2));
  sandbox_wipe("/tmp/bin");
}

}  // namespace
