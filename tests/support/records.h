// Attack datagrams as the proxy sends them: a header naming the source, then
// "ATTACK=I:" and the record's columns. Columns not named hold a value that
// marks nothing.
#pragma once

#include <map>
#include <string>

typedef std::map<int, std::string> Columns;
// One record of each class, by the field that decides it. From outside the LAN
// classes 1 to 5 count as intrusion_attempt, automated_attack, unauthorized_access,
// browser_hijacking and password_guessing; from inside, as internal_attack.
const Columns kClass1 = {{34, "1-1-7"}};
const Columns kClass2Flag = {{12, "134217728"}};
const Columns kClass2Bot = {{28, "38"}};
const Columns kClass3 = {{5, "1"}};
const Columns kClass4 = {{25, "22"}};
const Columns kClass5 = {{9, "-10"}};
const char kOutside[] = "203.0.113.9";

inline std::string record_columns(const Columns &set, int ncols = 51) {
  std::string text;
  for (int col = 1; col <= ncols; col++) {
    auto it = set.find(col);
    if (col > 1) text += ':';
    bool zero = (col >= 5 && col <= 9) || col == 12 || col == 25 || col == 28 || col == 32;
    text += it != set.end() ? it->second : col == 34 ? "0-0-0" : zero ? "0" : "1";
  }
  return text;
}

inline std::string header(const char *source, const char *title = "Automatic Block") {
  return std::string("<11>Nov 22 10:00:00 nginx: mox: [") + title + "] Attack from: " + source +
         ", port 51000, rule 942100 ATTACK=I:";
}

inline std::string record(const Columns &set, const char *source = kOutside,
                          const char *title = "Automatic Block") {
  return header(source, title) + record_columns(set);
}
