// Tables with aligned columns: of one answer, and of a watched one, with the changes since the
// previous answer.
#ifndef ZEBSTAT_TABLE_H
#define ZEBSTAT_TABLE_H

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "report.h"

namespace zebtool {

// The abilities of the destination of a table.
struct Screen {
  std::size_t columns = 0;  // 0: lines have no limit
  std::size_t rows = 0;     // 0: tables have no limit
  bool hasColour = false;
  bool canRedraw = false;
};

// Returns the abilities of standard output; ask anew for each table, because windows are resized.
Screen lookAtScreen();

using Lines = std::vector<std::string>;

struct Row {
  std::vector<std::string> cells;
  const char* colour = nullptr;  // of the whole line; null: none
};

// Returns the lines of a table, which has a column for the gateway if there are several. Lines that
// are too long for the screen are cut.
Lines renderTable(const Reports& reports, bool hasSeveral, const Screen& screen);

// A table that also shows how numbers have changed. It remembers the values of previous answers.
class LiveTable {
 public:
  Lines render(const Reports& reports, bool hasSeveral, const Screen& screen);
  // Forgets the values of a gateway that has failed: it may have been restarted.
  void forget(const std::string& gateway) { shown_.erase(gateway); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Shown {
    std::unordered_map<std::string, std::string> values;  // by element and id
    Clock::time_point at;
    std::vector<Row> rows;
  };

  static void update(Shown& shown, const Report& report, bool hasSeveral);

  std::unordered_map<std::string, Shown> shown_;  // by gateway
};

}  // namespace zebtool

#endif  // ZEBSTAT_TABLE_H
