#include "shipping/shipping.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "logging/logging.h"
#include "platform/platform.h"

RateLimitLogSender::RateLimitLogSender(const char *name, int flags)
    : m_name(),
      m_server_host(),
      m_server_port(0),
      m_send_interval(0),
      m_timeout_seconds(PERIOD_DEFAULT),
      m_report_hour_base(REPORT_HOUR_BASE_DEFAULT),
      m_report_hour_span(REPORT_HOUR_SPAN_DEFAULT),
      m_flags(flags),
      m_access_received(0),
      m_access_buf() {
  if (name && std::snprintf(m_name, sizeof m_name, "%s", name) >= (int)sizeof m_name)
    m_name[0] = '\0';
  load_settings();
  DLOG_INFO("RateLimitLogSender init Done!");
}

int RateLimitLogSender::load_settings() {
  int period = PERIOD_DEFAULT;
  if (read_setting(RZPZ_PATH, PERIOD_KEY, &period) != 0 || period < PERIOD_MIN ||
      period > PERIOD_MAX)
    period = PERIOD_DEFAULT;
  m_timeout_seconds = period;
  // The collector settings arrive with the stored sections; until then the
  // server reads as empty and the interval as 0.
  return 0;
}

int RateLimitLogSender::timeout_seconds() const { return m_timeout_seconds; }

int RateLimitLogSender::recv_access_log(int fd) {
  // One datagram per call keeps the socket from filling; a record longer
  // than the buffer is cut by the kernel, which is fine for a drain.
  ssize_t n = recv(fd, m_access_buf, sizeof m_access_buf - 1, MSG_DONTWAIT);
  if (n < 0) return -1;
  m_access_buf[n] = '\0';
  m_access_received++;
  return (int)n;
}

int RateLimitLogSender::reload_config() {
  if (load_settings() != 0) {
    DLOG_ERROR("Warning: reload configure failed,config no change");
    return -1;
  }
  DLOG_INFO("(%s) reload configure: server=%s:%d, m_send_interval=%d/m", __func__,
            m_server_host, m_server_port, m_send_interval);
  return 0;
}

int RateLimitLogSender::timeout_tick() { return 0; }

int RateLimitLogSender::report_hour_span() const {
  return m_report_hour_span > 0 ? m_report_hour_span : REPORT_HOUR_SPAN_DEFAULT;
}

int RateLimitLogSender::report_hour_base() const { return m_report_hour_base; }

int RateLimitLogSender::send_attack_report(const char *fragment) {
  // No transport yet: the report stays with the caller for a later try.
  (void)fragment;
  return 0;
}
