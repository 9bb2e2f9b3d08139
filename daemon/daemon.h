// Daemon core: the signal flags, the two datagram sockets, attack record
// intake and classification, and the router log line.
#pragma once

#include <signal.h>
#include <stdint.h>

#define MOX_TMP_DIR "/tmp/mox"
#define LOCK_PATH MOX_TMP_DIR "/lock_writer.dat"
#define ATTACK_SOCK_PATH "/tmp/mox/log/attack.sock"
#define ACCESS_SOCK_PATH "/tmp/mox/log/access.sock"
#define ZVLOG_PATH "/dev/zvlog"
#define ROUTER_LOG_IDENT "MOXi"
#define PROCESS_NAME "mox_logd"

#define RECV_MAX 1024                 // bytes one attack datagram may carry
#define RECV_BUF_SIZE (RECV_MAX + 1)  // the last byte stays 0 for the whole run

#define MOX_MARKER "mox:"
#define ATTACK_MARKER "ATTACK=I:"
#define HEADER_SKIP 5                 // "mox:" and the blank behind it

#define SOURCE_ADDR_SIZE 64
#define FIELDS_BUF_SIZE 2048
#define SCORE_SLOTS 56
#define ROUTER_COPY_SIZE 2048
#define ROUTER_LINE_SIZE 256
#define ROUTER_WORD_SIZE 64
#define ROUTER_LABEL_SIZE 32
#define ROUTER_TITLE_SIZE 32
#define ROUTER_PORT_SIZE 16

// Attack classes: 1..5, plus 100 when the source is inside the LAN; 0 none.
typedef int32_t AttackClass;
#define ATTACK_INTERNAL 100
#define ATTACK_CLASSES 5

#define STATUS_PATH "/tmp/mox/log/logd.status"
#define STATUS_TEXT_SIZE 4096         // the whole status file, worst case well inside

// The ten numbers read from the columns of an "ATTACK=I:" record.
struct AttackRecord {
  int32_t slot_a;          // column 5
  int32_t slot_b;          // column 6
  int32_t slot_c;          // column 7
  int32_t slot_d;          // column 8
  int32_t guess_code;      // column 9
  int32_t flag_word;       // column 12
  int32_t slot_e;          // column 25
  int32_t bot_code;        // column 28
  int32_t spare_code;      // column 32, never consulted
  int32_t intrusion_mark;  // column 34, third "-" piece
};

// Signal flags: set by logd_signal_handler, acted on by the main loop.
extern volatile sig_atomic_t logd_running;
extern volatile sig_atomic_t reload_requested;
extern volatile sig_atomic_t reset_requested;

// SIGTERM clears logd_running, SIGHUP sets reload_requested, SIGUSR2 sets
// reset_requested; any other number changes nothing.
void logd_signal_handler(int signo);

// ---- status -------------------------------------------------------------------
struct SenderStatus;

// Counts one datagram read from the attack socket.
void status_count_datagram(void);

// Counts one attack record counted under attack_class (above 0).
void status_count_attack(AttackClass attack_class);

// Counts one router log line: written 1 when the device (or syslog) took
// it, 0 when it was dropped.
void status_count_router_line(int written);

// Replaces STATUS_PATH as a whole with the daemon's counts since
// started_ms (monotonic) and the sender's. 0, or -1 (logged).
int write_status_file(const SenderStatus *sender, int64_t started_ms);

// Unix datagram socket bound to path (mode 0666, so the proxy's workers can
// send). A stale socket file is replaced; a live one means another instance
// runs. The descriptor, or -1 on failure.
int init_unix_sock(const char *path);

// Handles one datagram: text is the receive buffer (RECV_BUF_SIZE bytes,
// last one 0), count what recvfrom returned. Classifies, counts and writes
// the router line. A negative count is nothing received.
void log_handler(const char *text, int count);

// Reads the record's columns (text points behind "ATTACK=I:") into record,
// which the caller zeroes: fields a short record does not reach stay as they
// were. Logs "sscanf error." when fewer than ten numbers were read.
// Returns record.
AttackRecord *get_attack_fields(AttackRecord *record, const char *text, int length);

// Class of a record; attack_text points at "ATTACK=I:" and attack_length
// counts from there. 0 for null text or when no rule holds.
AttackClass classify_attack(const char *attack_text, int attack_length,
                            const char *source_address);

// Builds the router line from the header ("[Block Attack] From source: %s
// port %s" when the datagram says "Automatic", else empty) and writes it.
void format_router_log(const char *text, int length, AttackClass attack_class);

// Writes line plus its NUL to /dev/zvlog when present, else to syslog as
// "MOXi". line must have room for length + 1 bytes. 0, or -1 for a null
// line or a device that does not open.
int write_router_log(char *line, int length);
