// The sender: the way records leave the appliance. main builds one
// RateLimitLogSender on its stack and keeps it for the whole run; every
// member function below is called on the main loop's thread.
//
// Still to come with the shipping work: the collector settings from the
// stored sections, the access record queue and its worker thread, the
// attack report envelope and its transport. Until then the sender reads the
// loop period, drains the access socket and reports every attack report as
// not sent, so no finished day is ever taken for delivered.
#pragma once

#include <stdint.h>

#define SENDER_HOST_SIZE 256          // host name of a collector
#define ACCESS_RECORD_SIZE 4096       // one access datagram, NUL included
#define PERIOD_KEY "mox_logd_period"  // loop period key of the settings file
#define PERIOD_DEFAULT 60             // seconds, also for values out of range
#define PERIOD_MIN 1
#define PERIOD_MAX 3600
#define REPORT_HOUR_BASE_DEFAULT 0
#define REPORT_HOUR_SPAN_DEFAULT 3

class RateLimitLogSender {
 public:
  // Reads the settings and logs "RateLimitLogSender init Done!". The two
  // arguments (a name and flags, given as "" and 0 by main) are kept for
  // callers that run a second sender; the daemon runs one.
  RateLimitLogSender(const char *name, int flags);

  // Seconds of the main loop's wait: the settings file's "mox_logd_period",
  // 60 when absent or outside 1..3600. Always above 0.
  int timeout_seconds() const;

  // Reads one datagram from the access socket without waiting. Bytes read,
  // or below 0 on failure.
  int recv_access_log(int fd);

  // Rereads the settings. 0 on success; on failure -1, and the old settings
  // stay in force.
  int reload_config();

  // Work done at each timeout of the main loop. Returns 0.
  int timeout_tick();

  // Divisor and base of the daily report hour; the span is never 0.
  int report_hour_span() const;
  int report_hour_base() const;

  // Sends one attack report fragment. 1 when it left the appliance, any
  // other value when it must be offered again later.
  int send_attack_report(const char *fragment);

  // Access datagrams read so far.
  uint32_t access_received() const { return m_access_received; }

 private:
  // Fills the settings from their sources; 0 on success, -1 leaves them.
  int load_settings();

  char m_name[SENDER_HOST_SIZE];
  char m_server_host[SENDER_HOST_SIZE];
  int32_t m_server_port;
  int32_t m_send_interval;
  int32_t m_timeout_seconds;
  int32_t m_report_hour_base;
  int32_t m_report_hour_span;
  int32_t m_flags;
  uint32_t m_access_received;
  char m_access_buf[ACCESS_RECORD_SIZE];
};
