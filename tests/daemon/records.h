// Builds attack datagrams for the intake tests: 51 columns, the numeric ones
// "0" and the others "x", with chosen columns overridden.
#pragma once

#include <map>
#include <string>

inline std::string record_columns(const std::map<int, std::string> &cols, int ncols = 51) {
  std::string out;
  for (int c = 1; c <= ncols; c++) {
    std::string v = "x";
    if (c == 1) v = "waf";
    if (c == 5 || c == 6 || c == 7 || c == 8 || c == 9 || c == 12 || c == 25 || c == 28 ||
        c == 32)
      v = "0";
    if (c == 34) v = "p-0-0";
    auto it = cols.find(c);
    if (it != cols.end()) v = it->second;
    if (c > 1) out += ':';
    out += v;
  }
  return out;
}

inline std::string attack_header(const std::string &src = "203.0.113.9",
                                 const std::string &title = "Automatic Block") {
  return "<131>Nov 22 10:00:00 nginx: mox: [" + title + "] Attack from: " + src +
         ", port 51000, uri /x ";
}

inline std::string attack_datagram(const std::map<int, std::string> &cols,
                                   const std::string &src = "203.0.113.9") {
  return attack_header(src) + "ATTACK=I:" + record_columns(cols);
}
