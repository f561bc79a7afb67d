#include "gateway_model.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "gateway_statistics.h"

namespace zebsim {

namespace {

using enum Motion;

// The most items that one answer may have: more than any monitor needs, and too few to exhaust the
// memory of the host.
constexpr std::size_t kMaxAnswerItems = 100000;

// A mixing function: each input bit affects every output bit. All pseudo-random values come from
// it.
constexpr std::uint64_t mix(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

// Returns a pseudo-random value in [low, high], always the same for the same noise and place.
std::uint64_t pick(std::uint64_t noise, std::uint64_t place, std::uint64_t low,
                   std::uint64_t high) {
  return low + mix(noise ^ mix(place)) % (high - low + 1);
}

// Returns a value that moves in straight lines from one pseudo-random value to the next; the noise
// of the statistic determines the step. It uses integers only, so that it repeats on every host.
std::uint64_t wander(std::uint64_t noise, std::uint64_t seconds, std::uint64_t low,
                     std::uint64_t high) {
  std::uint64_t step = 15 + noise % 30;
  std::uint64_t place = seconds / step;
  std::uint64_t done = seconds % step;
  return (pick(noise, place, low, high) * (step - done) +
          pick(noise, place + 1, low, high) * done) /
         step;
}

std::uint64_t countUp(std::uint64_t noise, std::uint64_t seconds, std::uint64_t low,
                      std::uint64_t high) {
  // The counter's clock is fast by up to 9 s. It loses them over at least 15 s, so it never runs
  // backward.
  std::uint64_t millis = seconds * 1000 + wander(noise, seconds, 0, 9000);
  return pick(noise, 0, low, high) * millis / 100000;
}

std::string showHundredths(std::uint64_t value) {
  std::string cents = std::to_string(value % 100);
  return std::to_string(value / 100) + (cents.size() == 1 ? ".0" : ".") + cents;
}

std::string writeJournal(const Definition& row, std::uint64_t noise, std::uint64_t seconds) {
  std::string text;
  for (std::uint64_t second = seconds < 100 ? 0 : seconds - 100; second <= seconds; ++second) {
    text += "t=" + std::to_string(second) +
            " req=" + std::to_string(pick(noise, second, row.low, row.high)) +
            " ms=" + std::to_string(pick(~noise, second, 1, 900)) + " ok\n";
  }
  return text + std::string(2400, '.') + " end";  // so that it is long from the start
}

std::string showValue(const Definition& row, std::uint64_t seed, std::uint64_t noise,
                      std::uint64_t seconds) {
  switch (row.motion) {
    case kText:
      return std::string(row.text);
    case kName:
      return "gateway-" + std::to_string(seed);
    case kCounter:
      return std::to_string(countUp(noise, seconds, row.low, row.high));
    case kGauge:
      return std::to_string(wander(noise, seconds, row.low, row.high));
    case kRatio:
      return showHundredths(wander(noise, seconds, row.low, row.high));
    case kPeak:
      return std::to_string(row.low + (row.high - row.low) * seconds / (seconds + 3600));
    case kUptime:
      return std::to_string(seconds);
    case kJournal:
      return writeJournal(row, noise, seconds);
  }
  return {};
}

std::string_view groupOf(std::string_view id) {
  return id.substr(0, id.find('_'));
}

std::vector<std::string_view> splitQuery(std::string_view query) {
  std::vector<std::string_view> elements;
  for (;;) {
    std::size_t end = query.find(':');
    elements.push_back(query.substr(0, end));
    if (end == std::string_view::npos) return elements;
    query.remove_prefix(end + 1);
  }
}

}  // namespace

GatewayModel::GatewayModel(const ModelOptions& options) : seed_(options.seed) {
  if (options.scale < 1 || options.scale > kMaxScale)
    throw std::invalid_argument("scale out of range");
  for (unsigned copy = 1; copy <= options.scale; ++copy) {
    const std::string suffix = copy == 1 ? "" : "_" + std::to_string(copy);
    for (const Definition& row : usualStatistics()) addItem(std::string(row.id) + suffix, row);
    if (!options.hasOddNames) continue;
    for (const Definition& row : oddStatistics()) addItem(std::string(row.id) + suffix, row);
  }
}

void GatewayModel::addItem(std::string id, const Definition& definition) {
  std::string groupId(groupOf(id));
  auto [group, isNew] = groups_.try_emplace(groupId);
  if (isNew) groupIds_.push_back(groupId);
  std::uint64_t noise = mix(seed_);
  for (char c : id) noise = mix(noise ^ static_cast<unsigned char>(c));
  group->second.byId.emplace(id, group->second.items.size());
  group->second.items.push_back({std::move(id), &definition, noise});
}

// Returns the items of a group, or the one item of a statistic id, or none if the element is
// unknown.
std::vector<const GatewayModel::Item*> GatewayModel::findItems(std::string_view element,
                                                               bool allowStatIds) const {
  std::vector<const Item*> found;
  auto group = groups_.find(groupOf(element));
  if (group == groups_.end()) return found;
  if (group->first == element) {
    for (const Item& item : group->second.items) found.push_back(&item);
  } else if (auto known = group->second.byId.find(element);
             allowStatIds && known != group->second.byId.end()) {
    found.push_back(&group->second.items[known->second]);
  }
  return found;
}

template <typename Items, typename MakeItem>
Answer GatewayModel::answer(std::string_view query, bool allowStatIds, MakeItem makeItem) const {
  std::size_t total = 0;
  auto respond = [&](std::string_view element, const std::vector<const Item*>& found) {
    Items items;
    total += found.size() + 1;
    if (total > kMaxAnswerItems) throw BadRequest("the query asks for too much");
    for (const Item* item : found) items.push_back(makeItem(*item));
    std::int32_t missing = element.empty() ? kEmptyElement : kUnknownElement;
    return Response{std::string(element), found.empty() ? missing : 0, std::move(items)};
  };
  if (query.empty()) {
    std::vector<const Item*> all;
    for (const std::string& group : groupIds_) {
      for (const Item* item : findItems(group, false)) all.push_back(item);
    }
    return {false, {respond(query, all)}};
  }
  Answer answer;
  for (std::string_view element : splitQuery(query)) {
    answer.responses.push_back(respond(element, findItems(element, allowStatIds)));
  }
  answer.isList = answer.responses.size() > 1;
  return answer;
}

Answer GatewayModel::stats(std::string_view query, std::uint64_t seconds) const {
  return answer<Stats>(query, true, [&](const Item& item) {
    return Stat{item.id, showValue(*item.definition, seed_, item.noise, seconds)};
  });
}

Answer GatewayModel::statIds(std::string_view query) const {
  return answer<Ids>(query, false, [](const Item& item) { return item.id; });
}

Answer GatewayModel::groups() const {
  return {false, {Response{"", 0, groupIds_}}};
}

}  // namespace zebsim
