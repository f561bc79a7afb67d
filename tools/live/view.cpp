#include "view.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

#include "glob.h"

namespace zebtool {

namespace {

bool matches(const std::string& id, const std::string& filter) {
  if (isGlob(filter)) return fnmatch(filter.c_str(), id.c_str(), FNM_CASEFOLD) == 0;
  return strcasestr(id.c_str(), filter.c_str()) != nullptr;
}

// Statistics without a number come last.
long double sizeOf(const std::optional<long double>& number) {
  return number ? std::fabs(*number) : -1;
}

bool onlyGrows(const std::deque<Sample>& samples) {
  auto falls = [](const Sample& before, const Sample& after) { return after.value < before.value; };
  return std::adjacent_find(samples.begin(), samples.end(), falls) == samples.end() &&
         samples.back().value > samples.front().value;
}

std::deque<Sample> ratesOf(const std::deque<Sample>& samples) {
  std::deque<Sample> rates;
  for (std::size_t i = 1; i < samples.size(); ++i) {
    long double seconds =
        std::chrono::duration<long double>(samples[i].at - samples[i - 1].at).count();
    rates.push_back({samples[i].at, (samples[i].value - samples[i - 1].value) / seconds});
  }
  return rates;
}

}  // namespace

std::vector<const Statistic*> select(const History& history, const View& view,
                                     LiveClock::time_point now) {
  std::vector<const Statistic*> shown = history.statistics();
  std::erase_if(shown, [&](const Statistic* statistic) {
    bool hasChanged = statistic->changedAt && *statistic->changedAt >= now - kMemory;
    return (view.onlyChanged && !hasChanged) || !matches(statistic->id, view.filter);
  });
  if (view.order == Order::kName) return shown;
  auto key = [&](const Statistic* statistic) {
    return sizeOf(view.order == Order::kRate ? statistic->rate() : statistic->change());
  };
  std::stable_sort(shown.begin(), shown.end(),
                   [&](const Statistic* a, const Statistic* b) { return key(a) > key(b); });
  return shown;
}

std::vector<int> traceMinute(const Statistic& statistic, std::size_t columns,
                             LiveClock::time_point now) {
  std::vector<int> levels(columns, -1);
  if (statistic.samples.size() < 2 || columns == 0) return levels;
  bool isCounter = onlyGrows(statistic.samples);
  std::deque<Sample> samples = isCounter ? ratesOf(statistic.samples) : statistic.samples;
  auto isLess = [](const Sample& a, const Sample& b) { return a.value < b.value; };
  auto [lowest, highest] = std::minmax_element(samples.begin(), samples.end(), isLess);
  long double low = isCounter ? 0 : lowest->value;
  long double span = highest->value - low;
  // Each column shows the last sample up to its end.
  auto step = std::chrono::duration_cast<LiveClock::duration>(kMemory) / columns;
  auto next = samples.begin();
  int level = -1;
  for (std::size_t i = 0; i < columns; ++i) {
    LiveClock::time_point end = now - step * (columns - 1 - i);
    for (; next != samples.end() && next->at <= end; ++next)
      level = span > 0 ? static_cast<int>(std::lround((next->value - low) / span * 7)) : 0;
    levels[i] = level;
  }
  return levels;
}

}  // namespace zebtool
