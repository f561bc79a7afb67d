// Chooses and orders what the screen shows.
#ifndef ZEBSTAT_LIVE_VIEW_H
#define ZEBSTAT_LIVE_VIEW_H

#include <string>
#include <vector>

#include "history.h"

namespace zebtool {

enum class Order { kName, kChange, kRate };

struct View {
  Order order = Order::kName;
  bool onlyChanged = false;
  std::string filter;  // part of an id in any case, or a glob; empty shows all
};

// Returns the statistics that the view shows, in its order. Changed are those that changed during
// the last minute.
std::vector<const Statistic*> select(const History& history, const View& view,
                                     LiveClock::time_point now);

// Returns the last minute of a statistic as levels from 0 to 7, the oldest first, one for each
// column; -1 where nothing is known. A value that has only grown is shown by its rate, because a
// counter would otherwise always look the same.
std::vector<int> traceMinute(const Statistic& statistic, std::size_t columns,
                             LiveClock::time_point now);

}  // namespace zebtool

#endif  // ZEBSTAT_LIVE_VIEW_H
