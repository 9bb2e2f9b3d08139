// Test sandbox: a private mount and network namespace entered once per test
// binary, before any test runs. Inside it /tmp, /media and /dev are fresh
// tmpfs mounts (with /dev/null, /dev/zero and /dev/urandom bound in), so the
// daemon's fixed paths never reach the host's copies.
#pragma once

// Enters the namespaces. Returns 0 when the sandbox stands, -1 otherwise;
// sandbox_reason() then says why. Must run before any thread starts.
int sandbox_enter(void);

// 1 when sandbox_enter succeeded.
int sandbox_ready(void);

// Why the sandbox could not be built, for the skip message.
const char *sandbox_reason(void);

// Creates the bridge "br0" with the address and prefix given in CIDR form
// ("192.168.77.1/24"); an IPv6 CIDR adds that address too. 0 on success.
int sandbox_add_br0(const char *cidr);

// Removes "br0" if present. 0 on success or when it was absent.
int sandbox_del_br0(void);

// Removes everything below a directory and the directory itself; 0 on success.
int sandbox_wipe(const char *dir);

// Skips the current test with the reason when there is no sandbox.
#define REQUIRE_SANDBOX()                                                   \
  do {                                                                      \
    if (!sandbox_ready())                                                   \
      GTEST_SKIP() << "private namespaces unavailable: " << sandbox_reason(); \
  } while (0)

// 1 when the tests run under an emulator (MOX_EMULATOR set, as CTest does
// in a cross build): the project's programs then start through it too.
int under_emulator(void);

// Skips the current test under the emulator, which lacks what it needs.
#define SKIP_UNDER_EMULATOR(lacks)                                          \
  do {                                                                      \
    if (under_emulator()) GTEST_SKIP() << "qemu-user lacks " << (lacks);    \
  } while (0)

// Paths through which mox_logd, mox_conf and mox_logdecode run inside the sandbox.
const char *sandbox_logd_path(void);
const char *sandbox_conf_path(void);
const char *sandbox_logdecode_path(void);
