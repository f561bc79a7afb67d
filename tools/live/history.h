// What live has seen of each statistic and of each gateway. It belongs to the main thread.
#ifndef ZEBSTAT_LIVE_HISTORY_H
#define ZEBSTAT_LIVE_HISTORY_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway.h"
#include "range.h"

namespace zebtool {

using LiveClock = std::chrono::steady_clock;

// The time that samples are kept for.
constexpr std::chrono::seconds kMemory{60};

enum class Alarm { kNone, kWarning, kCritical };

// The range that the statistics whose ids match the glob must keep.
struct Limit {
  Alarm alarm = Alarm::kWarning;
  std::string glob;
  Range range;
};

struct Sample {
  LiveClock::time_point at;
  long double value = 0;
};

struct Statistic {
  std::size_t gateway = 0;  // index
  std::string id;           // as the gateway sent it, as is the value
  std::string value;
  std::deque<Sample> samples;  // of the last minute, and the last one before it
  bool isNumber = false;       // if not, there are no samples
  std::optional<LiveClock::time_point> changedAt;
  bool hasJustChanged = false;  // in the last answer
  Alarm alarm = Alarm::kNone;   // of the last value
  Alarm worst = Alarm::kNone;   // since the marks were cleared

  // Returns the change during the last minute.
  [[nodiscard]] std::optional<long double> change() const;
  // Returns the change per second between the last two answers; nothing if the value fell, because
  // a counter was probably restarted.
  [[nodiscard]] std::optional<long double> rate() const;
};

struct GatewayState {
  std::string name;
  std::string trouble;  // why it cannot be asked; empty if it answers
  std::chrono::system_clock::time_point troubleSince;
  bool hasReplied = false;  // whether it has answered, or failed to, at least once
  std::string missing;      // the ids, groups and globs it was asked for that it does not have
};

class History {
 public:
  History(std::vector<std::string> gateways, std::vector<Limit> limits);

  // Adds the answer of a gateway. A statistic that it no longer has is forgotten.
  void take(std::size_t gateway, const Answer& answer, LiveClock::time_point now);
  // Notes that a gateway did not answer. Its statistics stay, without their samples: the gateway
  // may have been restarted.
  void lose(std::size_t gateway, const std::string& trouble);
  void clearMarks();

  [[nodiscard]] const std::vector<GatewayState>& gateways() const { return gateways_; }
  // Returns the statistics ordered by id, then by gateway.
  [[nodiscard]] std::vector<const Statistic*> statistics() const;

 private:
  void add(Statistic& statistic, const std::string& value, LiveClock::time_point now);
  [[nodiscard]] Alarm judge(const std::string& id, long double value) const;

  std::vector<GatewayState> gateways_;
  std::vector<Limit> limits_;
  std::map<std::pair<std::string, std::size_t>, Statistic> statistics_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_LIVE_HISTORY_H
