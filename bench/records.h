// Records the benchmarks feed to the daemon and to the reference programs:
// nginx access lines in the combined format, as nginx sends them to a syslog
// socket, and attack records as the protection engine sends them.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace bench {

// One access datagram, about 200 bytes, numbered by seq so that the
// collector side can count each record once ("/item/<seq>").
inline std::string access_line(unsigned long seq) {
  static const char *const clients[] = {"203.0.113.45", "198.51.100.17", "192.168.1.23",
                                        "203.0.113.201"};
  static const char *const paths[] = {"/catalog/item/", "/api/v1/cart/item/", "/static/img/item/",
                                      "/search/item/"};
  static const char *const agents[] = {
      "Mozilla/5.0 (X11; Linux x86_64) Firefox/121.0",
      "Mozilla/5.0 (iPhone; CPU iPhone OS 17_1) Safari/604.1",
      "curl/8.4.0",
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64) Chrome/120.0"};
  static const int statuses[] = {200, 200, 304, 404};
  char buf[512];
  unsigned k = (unsigned)(seq % 4), j = (unsigned)((seq / 4) % 4);
  std::snprintf(buf, sizeof buf,
                "<190>Nov 22 10:00:00 router nginx: %s - - [22/Nov/2025:10:00:00 +0000] "
                "\"GET %s%lu?ref=home HTTP/1.1\" %d %lu \"https://shop.example.com/\" \"%s\"",
                clients[k], paths[j], seq, statuses[(k + j) % 4], 512 + seq % 9000, agents[j]);
  return buf;
}

typedef std::map<int, std::string> Columns;

// The header the engine writes in front of "ATTACK=I:".
inline std::string attack_header(const std::string &source, const std::string &title, int port) {
  return "<11>Nov 22 10:00:00 nginx: mox: [" + title + "] Attack from: " + source + ", port " +
         std::to_string(port) + ", rule 942100 ATTACK=I:";
}

// A full 51-column record; columns not named hold a value that marks nothing.
inline std::string attack_record(const Columns &set, const std::string &source,
                                 const std::string &title = "Automatic Block", int port = 51000) {
  std::string text = attack_header(source, title, port);
  for (int col = 1; col <= 51; col++) {
    auto it = set.find(col);
    if (col > 1) text += ':';
    bool zero = (col >= 5 && col <= 9) || col == 12 || col == 25 || col == 28 || col == 32;
    text += it != set.end() ? it->second : col == 34 ? "0-0-0" : zero ? "0" : "1";
  }
  return text;
}

struct AttackSample {
  std::string datagram;
  std::string source;  // the address in its header
};

// A day's mix as a router sees it: mostly automated traffic and probes from
// outside, a little from inside the LAN (192.168.1.0/24 behind br0), every
// record of some class so that the daemon counts each one.
inline std::vector<AttackSample> attack_mix() {
  struct Row {
    Columns cols;
    const char *source;
    const char *title;
    int port;
  };
  const Row rows[] = {
      {{{28, "38"}}, "203.0.113.9", "Automatic Block", 51000},
      {{{12, "134217728"}}, "198.51.100.7", "Automatic Block", 33333},
      {{{28, "33"}}, "203.0.113.77", "Automatic Block", 40001},
      {{{34, "1-1-7"}}, "203.0.113.9", "Automatic Block", 51002},
      {{{5, "1"}}, "198.51.100.8", "Automatic Block", 8080},
      {{{25, "22"}, {6, "22"}}, "203.0.113.120", "Automatic Block", 44321},
      {{{9, "-10"}}, "203.0.113.50", "Login Guard", 443},
      {{{12, "134217728"}}, "192.168.1.20", "Automatic Block", 40112},
      {{{34, "sqli-942100-1"}}, "198.51.100.99", "Automatic Block", 52000},
      {{{28, "38"}}, "203.0.113.15", "Automatic Block", 61000},
      {{{6, "22"}}, "192.168.1.30", "Automatic Block", 5555},
      {{{9, "-10"}}, "198.51.100.3", "Automatic Block", 12345},
  };
  std::vector<AttackSample> out;
  for (const Row &r : rows) out.push_back({attack_record(r.cols, r.source, r.title, r.port), r.source});
  return out;
}

}  // namespace bench
