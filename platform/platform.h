// Platform helpers: interface addresses, processes and locks, files and text,
// the settings file reader and the process clock. Stateless except the clock
// seam. They print to standard output or through perror, never to the
// diagnostic log, so that every other folder may use them.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>

// Text sizes, worst case plus the terminator.
#define IPV4_TEXT_SIZE 16            // "255.255.255.255"
#define MAC_TEXT_SIZE 20             // "xx:xx:xx:xx:xx:xx"
#define IPV6_TEXT_SIZE 46            // INET6_ADDRSTRLEN
#define IPV6_BRACKET_TEXT_SIZE 48    // "[" IPv6 "]"
#define IFACE_SCRATCH_SIZE 256       // scratch text of the interface queries
#define PROCESS_NAME_SIZE 256        // output of get_process_name
#define MAKE_DIRS_PATH_SIZE 256      // longest path make_dirs accepts, with "/" and NUL
#define SHA256_SIZE 32
#define SETTING_LINE_SIZE 4096       // the settings file is read in pieces of this size - 1

// Working buffers of the helpers, each named once here.
#define IPV6_TABLE_LINE_SIZE 128     // one row of the IPv6 table (rows are about 55 bytes)
#define IPV6_TABLE_CHUNK_SIZE 512    // read-ahead of the IPv6 table, on the stack
#define IPV6_WORK_TEXT_SIZE 64       // colon text of a table row; a bracketed text unwrapped
#define PROC_PATH_SIZE 64            // "/proc/<pid>/cmdline" and "/proc/<pid>/status"
#define CMDLINE_READ_SIZE 127        // first argument of a process
#define STATUS_LINE_SIZE 255         // first line of a status file
#define PID_TEXT_SIZE 24             // "%ld" of a pid, sign and NUL included
#define PID_FILE_TEXT_SIZE 16        // a pid file is read up to this size - 1
#define LOCK_FILE_TEXT_SIZE 64       // kill_lock_owner reads up to this size - 1
#define UPTIME_TEXT_SIZE 256         // /proc/uptime is read up to this size - 1
#define TREE_PATH_SIZE 256           // "dir/entry" in remove_tree

#define LAN_IFACE "br0"
#define WAN_IFACE "eth0"
#define LAN_FALLBACK_ADDR "192.168.1.1"
#define IF_INET6_PATH "/proc/net/if_inet6"

// ---- clock seam -----------------------------------------------------------

// Current time in seconds since the epoch; every time-dependent decision of
// the program reads the clock here.
time_t clock_now(void);

// Test seam: pins clock_now to t; 0 returns it to the system clock.
void clock_set(time_t t);

// Milliseconds on the monotonic clock, for every wait, pause and rate: a
// wall clock set back or forward (NTP after a boot without RTC) moves
// neither.
int64_t monotonic_ms(void);

// Test seam: pins monotonic_ms to ms; 0 returns it to the system clock.
void monotonic_set(int64_t ms);

// ---- settings file ----------------------------------------------------------

// Looks up key in a file of "key=value" lines: the key is everything before
// the first "=", compared byte for byte; the first matching line wins and
// its value is read as atoi reads it, except that a number beyond an int
// gives INT_MAX or INT_MIN instead of a wrapped value. Returns 0 found, 1
// no such line, -1 the file cannot be opened (or is no regular file) or
// key is null (*value untouched then).
int read_setting(const char *path, const char *key, int *value);

// fopen(path, "r") for a regular file only. The open never waits, so a FIFO
// or a device planted at the path is refused instead of holding the caller
// up. NULL otherwise, errno set.
FILE *fopen_regular(const char *path);

// Rewrites the regular file at path with data, in place and without
// truncating first: the bytes are written over the old ones and the file
// is cut to size only after the last of them went in. So a write that
// fails for want of room leaves the old content behind a prefix of the new
// one, and a small file, whose room is already its own, keeps being
// written. Never follows a link, never waits on a FIFO (refused). Creates
// the file with mode when missing. 0, or -1 with errno set.
int overwrite_file(const char *path, const char *data, size_t size, mode_t mode);

// ---- network address helpers ------------------------------------------------

// Asks the kernel for one property of an interface and writes it as text:
// the MAC for SIOCGIFHWADDR (MAC_TEXT_SIZE), an IPv4 text otherwise
// (IPV4_TEXT_SIZE). Only the first 14 characters of the name are used.
// 0 on success, -1 on failure (out untouched).
int iface_query(const char *name, char *out, unsigned long request);
int get_iface_ipv4(const char *name, char *out);     // as iface_query, SIOCGIFADDR
int get_iface_netmask(const char *name, char *out);  // as iface_query, SIOCGIFNETMASK
int get_iface_mac(const char *name, char *out);      // as iface_query, SIOCGIFHWADDR

// Global IPv6 address of an interface from /proc/net/if_inet6 into out
// (IPV6_TEXT_SIZE) and its prefix length. Without a qualifying row the last
// complete row read stands, whatever its device. 1 if the table opened,
// else 0 (also for a null argument). A table with no complete row gives
// "::" and prefix 0.
int get_iface_ipv6(const char *name, char *out, int *prefix_len);

// 1 when the address lies in br0's network, 0 when not. A ":" makes it
// IPv6 (whole prefix bytes compared; prefix below 8 means everything is
// internal). IPv4 uses br0's address, 192.168.1.1 in its place. Undefined
// cases get these answers: no br0 netmask -> 0, unparsable text -> 0 (IPv4)
// and, for IPv6, the byte compare against the zero address; null -> 0.
int is_internal_addr(const char *addr);

// Rewrites an address in canonical form in place ("[v6]" keeps brackets).
// 0 on success, 1 on a bad text ("[" without "]" is a format error).
// The text must have room for IPV6_BRACKET_TEXT_SIZE bytes when bracketed.
int normalize_ip(char *text);

// Rewrites a decimal port 1..65535 without leading zeros in place.
// 0 on success, -1 for null, non-digits, 0 or above 65535.
int normalize_port(char *text);

// br0's IPv4 text into out; on failure the 11 bytes of "192.168.1.1" with
// no terminator (zero out first). Always 0.
int get_lan_ip(char *out);

// eth0's IPv4 text into out. 0 on success, -1 on failure (out untouched).
int get_wan_ip(char *out);

// 1 if some interface has this IPv4 text, else 0 (also for null).
int is_local_ipv4(const char *addr);

// 1 if a row of the IPv6 table has this canonical text, 0 if none,
// -1 if the table cannot be opened.
int is_local_ipv6(const char *addr);

// 1 for "[::]" or a bracketed local non-link-local address, else 0.
int is_local_ipv6_bracketed(const char *addr);

// 1 if the text names an address of this machine ("0.0.0.0" and "[::]"
// included), else 0.
int is_local_address(const char *addr);

// ---- process, lock and command helpers ------------------------------------------

typedef int (*process_callback)(int pid, int arg);

// Takes the single-instance lock and writes the pid plus a NUL into the
// file. 0 locked (descriptor kept open for good), 1 not locked.
// Ends the process with exit(1) when the file cannot be opened. The owner
// must not open and close the file again: closing any descriptor of it
// drops a record lock (is_file_locked, read_pid_file included).
int lock_pid_file(const char *path);

// fcntl(F_SETLK) of a whole-file write lock; the fcntl result.
int set_write_lock(int fd);

// 0 if the whole-file write lock could be taken now, 1 if not or on failure.
int test_write_lock(int fd);

// As test_write_lock on the path (created if missing); 1 if it cannot open.
int is_file_locked(const char *path);

// Sends SIGKILL to the pid stored in the file. 0 done, 1 file not opened.
// An empty file names pid 0, the caller's own process group.
int kill_lock_owner(const char *path);

// Runs a shell command; with out and size, one read of up to size bytes of
// its output (a trailing newline becomes NUL; no other terminator: zero out
// first). 0 if the command exited 0, -1 otherwise or on failure.
int exec_cmd(const char *cmd, char *out, size_t size);

// system(cmd); 0 whatever the exit status, -1 for a null command.
int exec_cmd_without_output(const char *cmd);

// kill(pid, sig); its result.
int send_signal(int pid, int sig);

// Scans /proc for processes whose first argument starts with name. Without
// callback: the first pid found. With one: calls it for every match and
// returns the last pid. 0 when nothing matches.
int find_process_by_name(const char *name, process_callback cb, int arg);

// find_process_by_name with send_signal as the callback.
int kill_process_by_name(const char *name, int sig);

// Second word of /proc/PID/status's first line into out (PROCESS_NAME_SIZE).
// 0, or -1 on failure.
int get_process_name(int pid, char *out);

// The pid stored in a pid file, or -1 when it is missing or empty.
int read_pid_file(const char *path);

// get_process_name of the pid in the file; 0, or -1 on failure.
int get_pid_file_process_name(const char *path, char *out);

// kill(pid in the file, sig); its result, or -1 when there is no pid.
int kill_pid_file(const char *path, int sig);

// Names the task (prctl PR_SET_NAME). Always 0.
int set_process_name(const char *name);

// Closes every descriptor from min(first, 3) up to the hard RLIMIT_NOFILE.
void close_fds_from(unsigned int first);

// Reads a line from standard input without echo, printing "*" per
// character. Returns the count stored (no terminator), or -1. The end of
// input is stored as a character (0xff) until the buffer is full. When
// standard input is no terminal its settings are left alone.
int read_masked_input(char *buf, int size);

// Repeating ITIMER_REAL timer; the setitimer result.
int start_interval_timer(long sec, long usec);

// Low bytes of random() into buf; returns count.
int fill_random_bytes(unsigned char *buf, int count);

// Whole seconds of /proc/uptime; -1 when it cannot be read.
long get_uptime_seconds(void);

// ---- file and text helpers ----------------------------------------------------

// One read of up to size bytes; no terminator. Bytes read, or -1.
ssize_t read_file(const char *path, char *buf, size_t size);

// As read_file; *size becomes the bytes read (-1 on a failed read).
// 0, or 1 if the open failed (*size untouched).
int read_file_into(const char *path, char *buf, ssize_t *size);

// Replaces the file with data, mode 0644. 0, or 1 if the open failed.
int write_file(const char *path, const char *data, size_t size);

// Replaces path with data as a whole: a temporary file of a unique name
// beside it (never following a planted link), written in full, synced,
// given mode, and renamed into place; the folder is synced too. A kill at
// any moment leaves the old file or the new one. 0, or -1 with errno set
// and nothing changed at path (the temporary file is removed).
int replace_file(const char *path, const char *data, size_t size, mode_t mode);

// Appends data. 0, or -1 if the open failed.
int append_file(const char *path, const char *data, size_t size);

// remove(path). 0, or -1 for null or failure.
int remove_file(const char *path);

// rename(old, new) with its result ignored; -1 only for a null argument.
int rename_file(const char *old_path, const char *new_path);

// Size in bytes; -1 for null or a path stat cannot reach.
long get_file_size(const char *path);

// 1 if the path exists (a directory too), else 0.
int file_exists(const char *path);

// 1 if the path opens as a directory, else 0.
int dir_exists(const char *path);

// 0 directory (any type with bit 0x4000), 1 other, -1 stat failed.
int path_kind(const char *path);

// mkdir -p with mode 0777. 0, or -1 when a mkdir fails or the path does
// not fit MAKE_DIRS_PATH_SIZE.
int make_dirs(const char *path);

// Removes a directory tree. 0, or -1 on failure (null, not a directory,
// an entry that could not be removed or whose "dir/name" does not fit
// TREE_PATH_SIZE). The directory stream is closed on every path.
int remove_tree(const char *path);

// SHA-256 of data into out (SHA256_SIZE bytes). Always 0.
int sha256_digest(const unsigned char *data, size_t len, unsigned char *out);

// 0 if the file's MD5 equals the lower-case hex text, 1 otherwise or on
// failure (the file must open read-write).
int file_md5_matches(const char *path, const char *expected_hex);

// Writes text with every needle replaced into out (out_size bytes).
// Returns the number of replacements; with none, out is not written at all.
// Returns -1 when the result would not fit (out then holds a terminated
// prefix), the needle is empty or an argument is null. text and out must
// not overlap.
int replace_all(const char *text, const char *needle, const char *repl, char *out,
                size_t out_size);

// Value behind key in "key   value" text: a pointer to its first non-blank,
// to the newline of an empty value, or to the terminator; null without key.
const char *find_field_value(const char *text, const char *key);

// 1 for the blank and the codes 9 to 13, 0 otherwise.
int is_space_char(int c);

// atoi's reading of text (leading blanks, a sign, digits, anything after
// ignored; 0 without digits), except that a number beyond an int gives
// INT_MAX or INT_MIN, never a wrapped value. 0 for null.
int text_to_int(const char *text);

// The n bytes as lower-case hex into out (2 * n + 1 bytes, terminated).
void hex_text(const unsigned char *bytes, size_t n, char *out);

// ---- endpoint parser ----------------------------------------------------------

#define ENDPOINT_TEXT_MAX 511      // longest endpoint text: a whole website line
#define ENDPOINT_SCHEME_SIZE 6     // "https"
#define ENDPOINT_FIELD_SIZE (ENDPOINT_TEXT_MAX + 1)

struct Endpoint {
  char scheme[ENDPOINT_SCHEME_SIZE];
  char host[ENDPOINT_FIELD_SIZE];
  char port[ENDPOINT_FIELD_SIZE];
};

// Splits "[http|https://][a.b.c.d|[v6]][:][port]" (case-insensitive) into
// scheme ("http" when missing), host ("0.0.0.0" when missing) and port
// (empty when missing). 0 on a match; -1 the expression did not compile,
// -2 no match (also for a text over ENDPOINT_TEXT_MAX bytes), -3 other
// matcher error (*out untouched on failure).
int parse_endpoint(const char *text, Endpoint *out);

// 0 if name is a supported syslog facility ("authpriv", "local0".."local7"),
// -1 otherwise (printed).
int check_syslog_facility(const char *name);
