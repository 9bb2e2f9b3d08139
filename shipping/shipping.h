// Log shipping: the sender object, and the report envelope, sealing and
// transport through which records leave the appliance; the collector side's
// decoder lives here too, for mox_logdecode.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#define SENDER_HOST_SIZE 256          // host name of a collector
#define ACCESS_RECORD_SIZE 2560       // one access record, NUL included: nginx's
                                      // longest syslog line with its header
#define ACCESS_QUEUE_SLOTS 128        // records waiting for the sealer
#define ACCESS_RECV_BATCH 32          // most datagrams one recv_access_log takes
#define ACCESS_BLOCK_RECORDS 256      // most records sealed into one block
#define ACCESS_BLOCK_BYTES 16384      // most record bytes in one block: sealing
                                      // costs little per byte and much per message
#define ACCESS_LINGER_MS 200          // a partial block waits this long for more
#define ACCESS_LINGER_DOWN_MS 5000    // ... while the collector is away: fuller
                                      // blocks make the spool last longer
#define SPOOL_BYTES (1u << 20)        // sealed access messages waiting for the
                                      // collector: over ten minutes at 600/m
#define DELIVERY_BATCH_BYTES (256u << 10)  // most message bytes on one connection
#define SETTING_TEXT_SIZE 128         // one stored section as the sender reads it
#define PERIOD_KEY "mox_logd_period"  // loop period key of the settings file
#define PERIOD_DEFAULT 60             // seconds, also for values out of range
#define PERIOD_MIN 1
#define PERIOD_MAX 3600
#define SEND_INTERVAL_DEFAULT 600     // access records per minute
#define SEND_INTERVAL_MAX 2147483647
#define REPORT_HOUR_BASE_DEFAULT 0
#define REPORT_HOUR_SPAN_DEFAULT 3
#define REPORT_HOUR_BASE_MAX 23
#define REPORT_HOUR_SPAN_MAX 24
#define RETRY_MIN_SECONDS 5           // first wait after a failed send
#define RETRY_MAX_SECONDS 600         // longest wait between tries
#define SENDER_NO_SHIPPING 1          // constructor flag: this instance does not
                                      // hold the lock and ships nothing

// ---- report envelope, sealing and transport ---------------------------------
//
// What leaves the appliance. An attack report (the device envelope around a
// day slot's fragment) and an access block (records joined by newlines,
// compressed) are each sealed for the collector: a fresh AES-256-GCM key and
// nonce per message, the key wrapped with a compiled-in RSA public key
// (OAEP, SHA-256), the whole in base64. Inside the seal each message also
// names its device, the sender's random epoch (drawn at every start) and a
// sequence number per kind, so that a collector can drop copies and count
// gaps. The sealed text travels as one syslog message, "<190>TIME HOST
// mox_logd: MOX2 A|L <base64>", over tcp or RELP. docs/wire-format.md gives
// the byte layout for whoever writes a receiver.
//
// Diagnostic lines carry the name of the stage that notices the failure;
// the device lines of the envelope are those of send_encrypted_attack_log.

#define SHIP_KIND_ATTACK 'A'
#define SHIP_KIND_ACCESS 'L'
#define SHIP_MARKER "MOX3 "            // starts the payload of every message
#define SHIP_MARKER_V2 "MOX2 "         // the layout without signature, still read
#define SHIP_MARKER_V1 "MOX1 "         // the layout without identity, still read
#define SHIP_WIRE_VERSION 3            // first byte of the sealed binary
#define SHIP_WIRE_VERSION_V2 2
#define SHIP_WIRE_VERSION_V1 1
#define SHIP_SIGN_KEY_SIZE 32          // an Ed25519 public key, raw
#define SHIP_SIGNATURE_SIZE 64         // an Ed25519 signature
#define SHIP_KEY_HEX_SIZE (2 * SHIP_SIGN_KEY_SIZE + 1)
#define SHIP_DEVICE_KEY_PATH "/media/nand/mox_data/device_key.pem"
#define SHIP_APP_NAME "mox_logd"
#define SHIP_PRIORITY "<190>"          // local7.info

#define SHIP_DEVICE_NAME_SIZE 256      // gethostname result, NUL included
#define SHIP_DEVICE_ID_SIZE 128        // serial or machine id, NUL included
#define SHIP_FRAGMENT_SIZE 256         // a day slot's fragment, NUL included
#define SHIP_ENVELOPE_SIZE 4096        // escaped device texts (6 bytes per byte at worst) + fragment
#define SHIP_SERIAL_CMD "routerinfo 2>&1|grep serial |awk '{print $4}'"
#define SHIP_SERIAL_TIMEOUT_MS 3000    // the serial command's output and exit, at most
#define SHIP_MACHINE_ID_PATH "/etc/machine-id"
#define SHIP_MAC_IFACE "br0"          // the LAN bridge

#define SHIP_AES_KEY_SIZE 32
#define SHIP_NONCE_SIZE 12
#define SHIP_TAG_SIZE 16
#define SHIP_WRAPPED_KEY_MAX 512       // RSA keys up to 4096 bits
// version, kind, key length, wrapped key, nonce, uncompressed length
#define SHIP_HEADER_MAX (1 + 1 + 2 + SHIP_WRAPPED_KEY_MAX + SHIP_NONCE_SIZE + 4)
// epoch, sequence, device id length, device id, signing key before the
// content, the signature behind it: all enciphered
#define SHIP_META_MAX (8 + 8 + 1 + SHIP_DEVICE_ID_SIZE - 1 + SHIP_SIGN_KEY_SIZE + SHIP_SIGNATURE_SIZE)
#define SHIP_SEALED_MAX(len) (SHIP_HEADER_MAX + SHIP_META_MAX + (len) + SHIP_TAG_SIZE)
#define SHIP_BASE64_SIZE(n) (((n) + 2) / 3 * 4 + 1)
#define SHIP_PLAIN_MAX (64u << 20)     // largest block sealed or opened
// priority + time + " " + host + " mox_logd: " + "MOX2 A "
#define SHIP_FRAME_HEAD_SIZE 384
#define SHIP_ATTACK_TEXT_SIZE SHIP_BASE64_SIZE(SHIP_SEALED_MAX(SHIP_ENVELOPE_SIZE))
#define SHIP_ATTACK_MESSAGE_SIZE (SHIP_FRAME_HEAD_SIZE + SHIP_ATTACK_TEXT_SIZE)

#define SHIP_CONNECT_TIMEOUT_MS 3000   // tls: the handshake after it, as long again
#define SHIP_SEND_TIMEOUT_SEC 3
#define SHIP_MESSAGE_MAX 8000          // longest access message: below a receiver's
                                      // usual 8 KiB limit, framing included
#define SHIP_CONFIRM_TIMEOUT_SEC 5     // the collector's end of stream after ours
#define SHIP_BATCH_TIMEOUT_SEC 30      // all the sends of one connection
#define SHIP_SNDBUF_SIZE 65536
#define SHIP_HOSTENT_BUF_SIZE 2048     // scratch of gethostbyname_r

// The host name into out (size bytes, always terminated). 0, or -1 when
// gethostname fails (out then "").
int get_device_name(char *out, size_t size);

// The device's identifier into out: the first line the serial command
// prints, else the first line of /etc/machine-id (for a device without
// routerinfo), else "". The command gets SHIP_SERIAL_TIMEOUT_MS; one that
// overruns is killed with its whole pipeline. 0 when one was found, -1
// when out stays "", -2 when out stays "" and the command was killed.
int get_device_id(char *out, size_t size);

// get_device_id's answer into out, asked once per process and kept (while
// there is none, asked again every ten minutes). 0, or -1 when there is
// none yet (out then "") or it does not fit. Safe from any thread.
int cached_device_id(char *out, size_t size);

// The compiled-in version tag "<version>-<YYYYMMDD>-<revision>".
const char *get_firmware_version(void);

// Writes text as the inside of a JSON string: '"', '\' and control bytes
// escaped, other bytes as they are. The length written, or -1 when it does
// not fit (out then "").
int json_escape(const char *text, char *out, size_t size);

// The attack report: the device envelope followed by the fragment, into out
// (SHIP_ENVELOPE_SIZE is enough for any fragment below SHIP_FRAGMENT_SIZE).
// A missing host name, identifier or br0 MAC leaves that value empty
// ("gethostname failed.", "failed to get device mac address." logged): the
// counts matter more than the label. The length, or -1 for a null or
// oversized fragment (out then "").
int build_attack_envelope(const char *fragment, char *out, size_t size);

// Compresses len bytes into a zlib stream (as zlib's compress makes it) in
// a new heap buffer *out of *out_len bytes, which the caller frees. The
// deflate state is kept per thread and reset between calls. 0, or -1 ("No
// enough memory!", "Compress failed!" logged; *out null).
int compress_data(const unsigned char *data, size_t len, unsigned char **out, size_t *out_len);

// Enciphers len bytes (a message key) for the PEM public key with RSA-OAEP,
// SHA-256 for both digests. A key text is parsed once and kept. The bytes
// written to out, or -1 ("Failed to create key BIO", "Failed to create
// RSA" or an OpenSSL failure logged).
int public_encrypt(const char *pem, const unsigned char *data, size_t len, unsigned char *out,
                   size_t out_size);

// The compiled-in public key of the kind ('A' or 'L'); null for another.
const char *ship_public_key(char kind);

// Who sent a message, inside its seal.
struct SealMeta {
  uint64_t epoch;                      // random, drawn at the sender's start
  uint64_t seq;                        // 1, 2, ... per kind within an epoch
  char device[SHIP_DEVICE_ID_SIZE];    // get_device_id's text
  // Set by open_sealed_message: the key whose valid signature the message
  // carries (signed 0 for a layout without signatures).
  int32_t signed_by_key;
  unsigned char signer[SHIP_SIGN_KEY_SIZE];
};

// ---- the device's signing key (device_key.cpp) --------------------------------
//
// Every message is signed inside its seal with the device's Ed25519 key, over
// the kind letter and the whole plaintext (identity, the key itself and the
// content), so that a collector can tell a device from anyone else holding
// the public sealing keys.

// Loads the key from path, making a new pair there (0600; the caller makes
// the folder, one only root opens) when there is none; an unreadable key
// file is kept aside as path.bad and replaced. Called before any seal, on
// one thread. 0, or -1 (logged; messages then cannot be sealed).
int device_key_load(const char *path);
// The loaded key's public half, raw, into out (SHIP_SIGN_KEY_SIZE bytes).
// 0, or -1 when none is loaded.
int device_key_public(unsigned char *out);
// Ed25519 signature of len bytes into signature (SHIP_SIGNATURE_SIZE). 0,
// or -1 (no key loaded). Safe from any thread.
int device_key_sign(const unsigned char *data, size_t len, unsigned char *signature);
// 1 when signature is public_key's over the len bytes of data, else 0.
int device_signature_ok(const unsigned char *public_key, const unsigned char *data, size_t len,
                        const unsigned char *signature);
// A raw key as lower-case hex into out (SHIP_KEY_HEX_SIZE bytes).
void key_hex(const unsigned char *key, char *out);

#define SEAL_BAD_ARGUMENT -1   // bad kind or key text, payload too large, out too small
#define SEAL_NO_MEMORY -2
#define SEAL_KEY_FAILED -3      // no random key, or the public key would not wrap it
#define SEAL_CIPHER_FAILED -4
#define SEAL_NOT_SIGNED -5       // no device key loaded, or the signature failed

// Seals meta and len bytes as a message of the kind for the PEM public key
// and writes its base64 text, terminated, into out. raw_len is recorded
// for an access block (its length before compression) and ignored for a
// report. out_size of SHIP_BASE64_SIZE(SHIP_SEALED_MAX(len)) is always
// enough. The text's length, or one of the SEAL_ codes (out then "").
int seal_message(char kind, const char *pem, const SealMeta *meta, const unsigned char *payload,
                 size_t len, uint32_t raw_len, char *out, size_t out_size);

// A short text for a SEAL_ code, for the caller's diagnostic line.
const char *seal_error_text(int code);

// One syslog message, "<190>TIME HOST mox_logd: MOX2 K TEXT", into out.
// TIME is local time with its offset in whole hours (a +05:30 zone reads
// +05:00); HOST is the host name with blanks and control bytes made "-"
// ("-" without one). The message's length, or -1 when it does not fit (out
// then "").
int format_syslog_message(char kind, const char *text, char *out, size_t out_size);

// Prepares a block of access records (newline-separated) for sending:
// compressed, sealed with meta for the access key and made a syslog
// message, in a new heap text *out that the caller frees. The message's
// length, or -1 (logged; *out null), also for a block above SHIP_PLAIN_MAX.
int build_encrypted_logs(const char *block, size_t len, const SealMeta *meta, char **out);

// The attack report's syslog message: envelope, sealed with meta for the
// attack key. Its length, or -1 (logged under send_encrypted_attack_log).
// SHIP_ATTACK_MESSAGE_SIZE is enough for out.
int build_attack_message(const char *fragment, const SealMeta *meta, char *out, size_t size);

// ---- collectors and transports ----------------------------------------------
//
// A stored collector value names its transport by an optional scheme:
// "[tcp://|tls://|relp://|relp+tls://]HOST:PORT". Without one it is tcp.
// Messages handed to a transport are complete syslog messages (as
// format_syslog_message makes them), without framing. tls and relp+tls send
// only to a collector whose certificate chains to SHIP_CA_FILE and names
// HOST.

#define SHIP_TRANSPORT_TCP 0
#define SHIP_TRANSPORT_RELP 1
#define SHIP_TRANSPORT_TLS 2           // octet-counted frames inside TLS (RFC 5425)
#define SHIP_TRANSPORT_RELP_TLS 3      // RELP inside librelp's TLS
#define SHIP_RELP_TIMEOUT_SEC 5        // a RELP answer (open, ack, close), at most
#define SHIP_SCHEME_TCP "tcp://"
#define SHIP_SCHEME_TLS "tls://"
#define SHIP_SCHEME_RELP "relp://"
#define SHIP_SCHEME_RELP_TLS "relp+tls://"
#define SHIP_COLLECTOR_FORM "[tcp://|tls://|relp://|relp+tls://]HOST:PORT"
#define SHIP_CA_FILE "/media/nand/mox_data/cert/collector_ca.pem"  // the one CA trusted
#define SHIP_REFUSED -2                // a send's result: the collector's certificate
                                       // did not verify (or no CA file): nothing sent

// One collector.
struct ShipTarget {
  int32_t transport;                   // SHIP_TRANSPORT_
  char host[SENDER_HOST_SIZE];
  int32_t port;                        // 1..65535
};

// The shipper's one RELP session to a collector, kept open between sends.
// Used by the shipper alone: no lock guards it.
struct RelpLink;

// Parses SHIP_COLLECTOR_FORM, and with rate not null an optional
// " RATE" (1..SEND_INTERVAL_MAX) behind it. HOST is a name or an IPv4
// address without blanks or ':'. 0, with *rate left alone when absent; -1
// when anything is out of range or left over.
int parse_collector(const char *text, ShipTarget *target, int32_t *rate);

// Parses the randtime value "BASE SPAN": BASE 0..23, SPAN a 32-bit
// integer, blanks between and around. A SPAN of 0 or less gives
// REPORT_HOUR_SPAN_DEFAULT, one over a day REPORT_HOUR_SPAN_MAX. 0, or -1
// (outputs untouched) when a number is missing, out of range or followed
// by anything.
int parse_report_hours(const char *text, int32_t *base, int32_t *span);

// The scheme that names transport ("tcp://" ...).
const char *ship_scheme(int32_t transport);

// 1 when the transport is RELP's (relp or relp+tls): a RelpLink carries it.
int ship_over_relp(const ShipTarget *target);

// 1 when a and b name the same collector by the same transport.
int same_target(const ShipTarget *a, const ShipTarget *b);

// tcp and tls: opens a connection to target (IPv4), for tls completes a
// verified TLS session (TLS 1.2 at least, the certificate checked against
// SHIP_CA_FILE and HOST), sends the count messages as octet-counted frames
// (RFC 6587, RFC 5425), closes its sending side (tls: close_notify first)
// and waits for the collector to read everything and end its side in
// order. Name lookup, connect, the TLS handshake and each send wait at
// most a few seconds. 1 when the collector confirmed every message so;
// SHIP_REFUSED when its certificate did not verify or the CA file is
// unusable; -1 otherwise. Failures are logged, and none of the messages
// counts as delivered.
int send_to_syslog_server(const ShipTarget *target, const char *const *msgs, const size_t *lens,
                          int count);

// Blocks SIGPIPE on the calling thread while a library writes to a socket
// without MSG_NOSIGNAL (librelp, OpenSSL), and takes off one that arose
// meanwhile before restoring the mask: the disposition is the process's.
struct PipeGuard {
  sigset_t old;
  int was_pending;
};
void pipe_hold(PipeGuard *g);
void pipe_release(const PipeGuard *g);

// A link without a session yet; null when out of memory.
RelpLink *relp_link_new(void);

// Sends count messages (msgs[i] of lens[i] bytes) in order on the kept
// session to target, connecting first when there is no session, and
// reconnecting a broken one, after which librelp itself resends the
// messages the receiver had not yet acknowledged. A target other than the
// session's closes the old session first. The number of leading messages
// the session took, 0..count; below count the failure is logged and the
// caller keeps the rest for a later try. relp+tls verifies the receiver
// as tls does; SHIP_REFUSED when it did not verify (nothing taken).
int relp_link_send(RelpLink *link, const ShipTarget *target, const char *const *msgs,
                   const size_t *lens, int count);

// Closes the session (waiting up to SHIP_RELP_TIMEOUT_SEC for the
// receiver's outstanding acknowledgements) and frees the link. Null is
// allowed.
void relp_link_free(RelpLink *link);

// ---- collector side -----------------------------------------------------------

#define OPEN_NO_MARKER -1   // no "MOX2 " (or "MOX1 ") in the text: not one of ours
#define OPEN_MALFORMED -2   // kind, base64 or layout broken
#define OPEN_NO_KEY -3      // none of the keys unwraps the message key
#define OPEN_TAMPERED -4    // a key unwrapped it but the content fails its tag
#define OPEN_BAD_BLOCK -5   // access block does not decompress to its length
#define OPEN_NO_MEMORY -6
#define OPEN_BAD_SIGNATURE -7  // it opened, but its signature does not verify

// Reads a PEM private key file into a new heap text *pem (caller frees)
// after checking that it loads. 0, or -1 (*pem null).
int load_private_key_text(const char *path, char **pem);

// Opens one message: text (len bytes, no terminator needed) is a syslog
// line as a receiver stored it, a received message, or the bare payload;
// the last "MOX2 " (or a first-layout "MOX1 ") starts the payload, and
// only blanks may follow the base64. Each of the key_count PEM private
// keys is tried in turn. 0 with *kind ('A' or 'L'), *meta (when not null;
// zero epoch and sequence for a first-layout message) and a new heap
// buffer *plain of *plain_len bytes (terminated one byte past, caller
// frees): the report's JSON or the block's records. Below 0 on failure,
// one of the OPEN_ codes (*plain null).
int open_sealed_message(const char *text, size_t len, const char *const *keys, int key_count,
                        char *kind, SealMeta *meta, unsigned char **plain, size_t *plain_len);

// A short text for an OPEN_ code.
const char *open_error_text(int code);

// ---- collector side: the keyring (keyring.cpp) ------------------------------------
#define KEYRING_ACCEPT 0        // signed by the device's pinned key, new to the keyring
#define KEYRING_PINNED 1        // the device's first signed message: its key is now pinned
#define KEYRING_KEY_CHANGED -1  // signed by another key than the device's pinned one
#define KEYRING_UNSIGNED -2     // a layout without signatures
#define KEYRING_REPLAY -3       // its (device, epoch, kind, sequence) was decoded by an earlier run
// Reads the keyring file at path (missing: empty). 0, or -1 with the
// reason in why (why_size bytes).
int keyring_load(const char *path, char *why, size_t why_size);
// Judges an opened message against the keyring and records it (pins a new
// device's key, marks the sequence number as decoded). A KEYRING_ code;
// for KEYRING_KEY_CHANGED the pinned key's hex goes to pinned_hex
// (SHIP_KEY_HEX_SIZE) when not null.
int keyring_check(char kind, const SealMeta *meta, char *pinned_hex);
// Rewrites the keyring file whole with what the run added. 0, or -1 with
// the reason in why.
int keyring_save(char *why, size_t why_size);

// ---- the sender ---------------------------------------------------------------

// Access records lost inside the daemon, by cause.
struct AccessLosses {
  uint32_t over_rate;     // beyond RATE records a minute
  uint32_t queue_full;    // the sealer's queue was full (or no sealer runs)
  uint32_t spool_full;    // sealed, but no room left while the collector is away
  uint32_t shipping_off;  // no logserver set
  uint32_t too_long;      // a datagram longer than ACCESS_RECORD_SIZE - 1
  uint32_t unsealable;    // the block could not be compressed or sealed
};

// What the sender has done since the start, for the daemon's status file.
#define SHIP_TARGET_TEXT_SIZE (sizeof SHIP_SCHEME_RELP_TLS + SENDER_HOST_SIZE + sizeof ":65535")
struct SenderStatus {
  int32_t shipping;                      // 1 on, 0 no logserver, -1 this instance never ships
  uint32_t access_received;              // datagrams read from the access socket
  uint32_t access_shipped;               // records inside delivered messages
  AccessLosses lost;
  char access_collector[SHIP_TARGET_TEXT_SIZE];  // "scheme://host:port", or "none"
  uint32_t access_delivered;             // messages the collector confirmed
  uint32_t access_failed;                // messages tried and not confirmed (sent again later)
  char report_collector[SHIP_TARGET_TEXT_SIZE];
  uint32_t report_delivered;
  uint32_t report_failed;
  uint32_t tls_refused;                  // tries refused: the certificate did not verify
  uint32_t spool_messages;               // sealed, waiting for the collector
  uint32_t spool_records;
  uint32_t spool_bytes;
  int64_t last_delivery;                 // clock_now() of the last confirmation, 0 never
  char device[SHIP_DEVICE_ID_SIZE];      // the identity sealed into messages ("" unknown yet)
  char device_key[SHIP_KEY_HEX_SIZE];    // the signing key's public half, or "none"
};

// The sender: the way records leave the appliance. main builds one on its
// stack (it holds the access queue, so it is large) and keeps it for the
// whole run. Every member below is called on the main loop's thread. Two
// worker threads do the rest: the sealer fills blocks from the queue and
// seals them into the spool; the shipper seals reports and does all
// network work (name lookups, connects, sends, waits for the collector).
// So a dead collector or DNS server never holds up the loop, and a slow
// one never holds up the sealing: the spool takes the wait.
//
// Settings come from the stored sections, read at construction and on
// reload_config:
//   logserver    "[SCHEME://]HOST:PORT [RATE]"  access collector, RATE
//                records/minute (600, at most 2147483647)
//   logatserver  "[SCHEME://]HOST:PORT"  attack report collector
//                (logserver's when absent)
//   randtime     "BASE SPAN"         report hour = BASE + draw % SPAN (0 3)
// Without logserver nothing is shipped: attack reports stay with the report
// cycle, and access records are read and counted as "shipping off".
//
// Delivery. A message counts as delivered on tcp once the collector has
// read it and closed its side in order (send, half-close, end of stream
// within SHIP_CONFIRM_TIMEOUT_SEC); on relp once librelp's session has
// taken it, which holds it until the collector's acknowledgement and
// resends it after a reconnect. Until then an attack report stays in the
// day ring and sealed access blocks wait in a spool of SPOOL_BYTES, oldest
// first; a failed try backs off from RETRY_MIN_SECONDS to RETRY_MAX_SECONDS
// on the monotonic clock, and SIGHUP (reload_config) starts afresh.
// A message sent again after an unconfirmed try carries the same sequence
// number, so the collector's reader drops the copy.
class RateLimitLogSender {
 public:
  // Reads the settings, starts the threads (not with SENDER_NO_SHIPPING in
  // flags) and logs "RateLimitLogSender init Done!". name is kept for the
  // log.
  RateLimitLogSender(const char *name, int flags);

  // Stops the threads. Reached only when an exception leaves main.
  ~RateLimitLogSender();

  // Seconds of the main loop's wait: the settings file's "mox_logd_period",
  // 60 when absent or outside 1..3600. Always above 0.
  int timeout_seconds() const;

  // Reads what the access socket holds, up to ACCESS_RECV_BATCH datagrams,
  // without waiting, and queues them for the sealer; a record lost here is
  // counted by its cause. Bytes read, or below 0 when nothing could be read.
  int recv_access_log(int fd);

  // Rereads the settings and wakes the threads, which start them with a
  // fresh back-off. 0 on success; -1 when a stored value is broken or the
  // store unreadable, and the old settings stay in force.
  int reload_config();

  // Work at each timeout: starts a thread that could not be started
  // before, and logs the access records lost since the last timeout, once.
  // Returns 0.
  int timeout_tick();

  // Divisor and base of the daily report hour; the span is never 0.
  int report_hour_span() const;
  int report_hour_base() const;

  // Offers one attack report fragment. 1 once the shipper has delivered
  // this very fragment (the call after the delivery says so); 0 while it is
  // on its way, or when no collector is set or this instance does not ship.
  // Never waits on the network. The caller keeps what is not yet 1.
  int send_attack_report(const char *fragment);

  // Starts the sealer and shipper threads that are not running yet
  // ("Create pthread error!" when one cannot be). 0, or -1 (records are
  // then dropped and counted, reports kept by the cycle).
  int start_thread();

  // At the stop: logs the access records still waiting (queue, block,
  // spool) and a report not yet delivered, all of which the process takes
  // with it, since the stop waits for nothing. Sends nothing.
  void log_abandoned();

  // Access records read since start, and lost by cause.
  uint32_t access_received() const { return m_access_received; }
  AccessLosses access_losses();
  uint32_t access_dropped();
  // Fills out with the counts since start and what waits now.
  void status(SenderStatus *out);

 private:
  struct Settings {
    ShipTarget access;
    int32_t send_interval;
    ShipTarget attack;
    int32_t hour_base;
    int32_t hour_span;
    int32_t timeout;
  };

  static void default_settings(Settings *s);
  static int load_settings(Settings *s);
  static void *sealer_main(void *self);
  static void *shipper_main(void *self);
  void sealer_loop();
  void shipper_loop();
  void wake(int fd);
  int take_token();
  void apply_settings(const Settings &s);
  void take_queued_records();
  uint32_t spool_records(uint32_t *messages = nullptr) const;
  void seal_identity(SealMeta *meta, int seq_index);
  int seal_pending_block(const ShipTarget *access);
  int seal_records(const char *text, size_t len, uint32_t records);
  int send_encrypted_attack_log(const ShipTarget *target, RelpLink *relp);
  int ship_spool(const ShipTarget *target, RelpLink *relp);

  char m_name[SENDER_HOST_SIZE];
  int32_t m_flags;
  // Settings: written on the main thread under m_lock, read by the threads
  // under it.
  char m_server_host[SENDER_HOST_SIZE];
  int32_t m_server_port;
  int32_t m_send_interval;
  ShipTarget m_access_target;
  ShipTarget m_attack_target;
  int32_t m_report_hour_base;
  int32_t m_report_hour_span;
  int32_t m_timeout_seconds;
  uint32_t m_settings_gen;      // bumped by every reload the threads must see

  pthread_mutex_t m_lock;
  pthread_t m_sealer;
  pthread_t m_shipper;
  int32_t m_sealer_running;
  int32_t m_shipper_running;
  int m_seal_wake_fd;           // eventfds: each thread sleeps in poll on its own
  int m_ship_wake_fd;
  int32_t m_sealer_waiting;     // the sealer is (about to be) asleep
  uint32_t m_wake_at;           // queued records that are worth a wake-up
  int32_t m_collector_down;     // the shipper is pausing after a failure
  volatile int32_t m_stop;

  // The access queue: fixed slots, filled by recv_access_log, emptied by the
  // sealer; nothing is allocated per record.
  char m_queue[ACCESS_QUEUE_SLOTS][ACCESS_RECORD_SIZE];
  uint16_t m_queue_len[ACCESS_QUEUE_SLOTS];
  uint32_t m_queue_head;         // next slot to take
  uint32_t m_queue_count;
  char m_access_buf[ACCESS_RECORD_SIZE];

  // Pacing: a bucket of one minute's records, in 60000ths of a record,
  // refilled continuously on the monotonic clock.
  int64_t m_tokens;
  int64_t m_tokens_at_ms;

  uint32_t m_access_received;
  AccessLosses m_lost;           // under m_lock
  // Deliveries, for status: under m_lock.
  uint32_t m_access_shipped;
  uint32_t m_access_delivered;
  uint32_t m_access_failed;
  uint32_t m_report_delivered;
  uint32_t m_report_failed;
  uint32_t m_tls_refused;
  int64_t m_last_delivery;
  uint32_t m_lost_logged;

  // The attack report in hand: offered by the loop, sealed and delivered by
  // the shipper. Under m_lock.
  char m_report[SHIP_FRAGMENT_SIZE];
  int32_t m_report_state;        // REPORT_ below (sender.cpp)

  // The sealer's own: the block being filled. The shipper's own: the
  // sealed report. The spool: the sealer appends behind m_spool_len, the
  // shipper sends from the front and takes delivered messages off it;
  // m_spool_len is under m_lock.
  char m_block[ACCESS_BLOCK_BYTES + ACCESS_RECORD_SIZE];
  size_t m_block_len;
  uint32_t m_block_records;
  int64_t m_block_since_ms;
  char m_report_msg[SHIP_ATTACK_MESSAGE_SIZE];
  size_t m_report_msg_len;       // 0: no sealed report
  char m_report_sealed_for[SHIP_FRAGMENT_SIZE];
  char *m_spool;                 // SPOOL_BYTES of [u32 length][message], or null
  size_t m_spool_len;
  uint64_t m_epoch;
  uint64_t m_seq[2];             // last sequence number: reports, access blocks
  char m_device[SHIP_DEVICE_ID_SIZE];  // sealed into every message of the epoch
  int32_t m_device_known;        // under m_lock
};
