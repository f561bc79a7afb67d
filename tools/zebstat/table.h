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

// Returns the lines of a table. Lines that are too long for the screen are cut.
Lines renderTable(const Report& report, const Screen& screen);

// A table that also shows how numbers have changed. It remembers the values of the previous answer.
class LiveTable {
 public:
  Lines render(const Report& report, const Screen& screen);
  // Call it after a lost connection: the gateway may have been restarted.
  void forget() { before_.clear(); }

 private:
  using Clock = std::chrono::steady_clock;
  std::unordered_map<std::string, std::string> before_;  // values by element and id
  Clock::time_point beforeAt_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_TABLE_H
