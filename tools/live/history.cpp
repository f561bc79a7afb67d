#include "history.h"

#include <algorithm>
#include <set>

#include "glob.h"
#include "text.h"

namespace zebtool {

namespace {

std::string nameMissing(const Answer& answer) {
  std::vector<std::string> names = answer.unmatched;
  for (const Refusal& refusal : answer.refusals) names.push_back(refusal.element);
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

std::optional<long double> Statistic::change() const {
  if (samples.size() < 2) return std::nullopt;
  return samples.back().value - samples.front().value;
}

std::optional<long double> Statistic::rate() const {
  if (samples.size() < 2) return std::nullopt;
  const Sample& last = samples.back();
  const Sample& before = samples[samples.size() - 2];
  long double seconds = std::chrono::duration<long double>(last.at - before.at).count();
  if (last.value < before.value || seconds <= 0) return std::nullopt;
  return (last.value - before.value) / seconds;
}

History::History(std::vector<std::string> gateways, std::vector<Limit> limits)
    : limits_(std::move(limits)) {
  for (std::string& name : gateways) gateways_.push_back({std::move(name), {}, {}, false, {}});
}

void History::take(std::size_t gateway, const Answer& answer, LiveClock::time_point now) {
  GatewayState& state = gateways_[gateway];
  state.trouble.clear();
  state.hasReplied = true;
  state.missing = nameMissing(answer);
  std::set<std::string> seen;
  for (const Entry& entry : answer.entries) {
    if (!seen.insert(entry.id).second) continue;
    auto [place, isNew] = statistics_.try_emplace({entry.id, gateway});
    place->second.gateway = gateway;
    place->second.id = entry.id;
    place->second.hasJustChanged = !isNew && place->second.value != entry.value;
    if (place->second.hasJustChanged) place->second.changedAt = now;
    add(place->second, entry.value, now);
  }
  std::erase_if(statistics_, [&](const auto& item) {
    return item.second.gateway == gateway && seen.count(item.first.first) == 0;
  });
}

// Adds the value of one answer.
void History::add(Statistic& statistic, const std::string& value, LiveClock::time_point now) {
  statistic.value = value;
  std::optional<long double> number = parseNumber(value);
  statistic.isNumber = number.has_value();
  statistic.alarm = Alarm::kNone;
  if (!number) {
    statistic.samples.clear();
    return;
  }
  statistic.samples.push_back({now, *number});
  while (statistic.samples.size() > 2 && statistic.samples[1].at <= now - kMemory)
    statistic.samples.pop_front();
  statistic.alarm = judge(statistic.id, *number);
  statistic.worst = std::max(statistic.worst, statistic.alarm);
}

Alarm History::judge(const std::string& id, long double value) const {
  Alarm alarm = Alarm::kNone;
  for (const Limit& limit : limits_) {
    bool matches = matchesGlob(limit.glob, id);
    if (matches && limit.range.alarms(value)) alarm = std::max(alarm, limit.alarm);
  }
  return alarm;
}

void History::lose(std::size_t gateway, const std::string& trouble) {
  GatewayState& state = gateways_[gateway];
  if (state.trouble.empty()) state.troubleSince = std::chrono::system_clock::now();
  state.trouble = trouble;
  state.hasReplied = true;
  for (auto& [key, statistic] : statistics_) {
    if (statistic.gateway == gateway) statistic.samples.clear();
  }
}

void History::clearMarks() {
  for (auto& [key, statistic] : statistics_) statistic.worst = statistic.alarm;
}

std::vector<const Statistic*> History::statistics() const {
  std::vector<const Statistic*> all;
  for (const auto& [key, statistic] : statistics_) all.push_back(&statistic);
  return all;
}

}  // namespace zebtool
