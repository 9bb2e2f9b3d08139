// The class of one attack record: the decision list in its order, the columns that decide
// it, empty columns, records that do not scan, and slot numbers outside the score table.
// Counting, router lines and hostile datagrams are the black-box tests' part.
#include <gtest/gtest.h>

#include "daemon/daemon.h"
#include "records.h"

namespace {

AttackClass classify(const std::string &columns) {
  std::string text = "ATTACK=I:" + columns;
  return classify_attack(text.c_str(), (int)text.size(), kOutside);
}

TEST(Intake, DecisionListAndColumns) {
  const std::pair<std::string, AttackClass> cases[] = {
      {record_columns({{34, "a-b-3"}, {9, "-10"}, {5, "1"}}), 1},  // row 1 beats 3 and 5
      {record_columns({{34, "a--5"}}), 1},                         // read as a-0-5
      {record_columns({{34, "--5"}}), 0},  // an empty first piece stops before the mark
      {record_columns({{34, "a-b-1"}}, 34), 1},  // 34 columns are a whole record
      {record_columns({{12, "134217728"}, {5, "1"}}), 2},
      {record_columns({{12, "-1"}}), 2},        // every bit set includes bit 27
      {record_columns({{12, "67108864"}}), 0},  // bit 26 alone marks nothing
      {record_columns({{28, "30"}}), 2}, {record_columns({{28, "38"}}), 2},
      {record_columns({{28, "39"}}), 0}, {record_columns({{28, "29"}}), 0},
      {record_columns({{5, "1"}, {6, "22"}}), 3},
      {record_columns({{7, "1"}}), 3},  // slot 1 counts from any slot field
      // Empty columns read as 0 and keep the later ones in their places.
      {record_columns({{5, ""}, {6, ""}, {7, ""}, {8, "1"}}), 3},
      {record_columns({{9, "-10"}}), 5}, {record_columns({}), 0},
      {record_columns({{32, "-10"}}), 0},  // spare_code is never consulted
      {record_columns({{9, "-11"}}), 0},
      {":" + record_columns({{5, "1"}}), 0},  // an empty first column stops the scan
      {"", 0},
      // 78 = 56 + 22 and -34 = 22 - 56 would hit slot 22 if wrapped.
      {record_columns({{5, "78"}, {6, "-34"}, {7, "99999"}, {8, "-2147483648"},
                       {25, "2147483647"}}), 0},
      {record_columns({{5, "56"}, {6, "-1"}}), 0},
  };
  for (const auto &c : cases) EXPECT_EQ(c.second, classify(c.first)) << c.first;
  for (const char *slot : {"22", "26", "45", "41", "2", "5", "6", "7", "8", "10", "11", "12",
                           "16", "18", "20", "21", "25"})
    EXPECT_EQ(4, classify(record_columns({{25, slot}, {9, "-10"}}))) << "slot " << slot;
  for (const char *slot : {"3", "4", "9", "13", "27", "40", "42", "55"})
    EXPECT_EQ(5, classify(record_columns({{6, slot}, {9, "-10"}}))) << "slot " << slot;
}

}  // namespace
