// Aligned columns for people: of one answer, and of a watched one with what changed since the
// answer before.
#ifndef ZEBSTAT_TABLE_H
#define ZEBSTAT_TABLE_H

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "report.h"

namespace zebtool {

// What the place that a table goes to can show.
struct Screen {
  std::size_t columns = 0;  // 0: lines have no limit
  std::size_t rows = 0;     // likewise
  bool hasColour = false;
  bool canRedraw = false;
};

// Standard output, as it is now: windows are resized.
Screen lookAtScreen();

using Lines = std::vector<std::string>;

Lines renderTable(const Report& report, const Screen& screen);

// Remembers the numbers of the answer before.
class LiveTable {
 public:
  Lines render(const Report& report, const Screen& screen);
  // After a lost connection the gateway may be another one.
  void forget() { before_.clear(); }

 private:
  using Clock = std::chrono::steady_clock;
  std::unordered_map<std::string, std::string> before_;  // values by element and id
  Clock::time_point beforeAt_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_TABLE_H
