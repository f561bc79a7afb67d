#include "gateway_model.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace zebsim {

enum class Motion {
  kText,     // is constant
  kCounter,  // grows at a varying rate, by low to high in a hundred seconds
  kGauge,    // wanders between low and high
  kRatio,    // a gauge in hundredths, written with two decimals
  kPeak,     // rises slowly from low towards high, never falls
  kUptime,   // the seconds since the start
  kJournal,  // a long text: a line for each of the last hundred seconds
};

struct Definition {
  const char* id;
  Motion motion;
  std::uint32_t low;
  std::uint32_t high;
  const char* text;
};

namespace {

using enum Motion;

// The values are consistent: a peak starts at the highest value of its gauge, and no gauge exceeds
// its limit.
constexpr Definition kDefinitions[] = {
    {"LISTEN_ADDRESS", kText, 0, 0, "0.0.0.0"},
    {"LISTEN_PORT", kText, 0, 0, "2980"},
    {"LISTEN_STATE", kText, 0, 0, "accepting"},
    {"LISTEN_OPEN", kGauge, 3, 60, ""},
    {"LISTEN_OPEN_PEAK", kPeak, 60, 80, ""},
    {"LISTEN_OPEN_LIMIT", kText, 0, 0, "100"},
    {"LISTEN_ACCEPTED", kCounter, 40, 90, ""},
    {"LISTEN_REFUSED", kCounter, 0, 2, ""},
    {"LISTEN_TIMEOUTS", kCounter, 1, 4, ""},
    {"LISTEN_BYTES_IN", kCounter, 900000, 2100000, ""},
    {"WORK_THREADS", kGauge, 10, 40, ""},
    {"WORK_THREADS_PEAK", kPeak, 40, 48, ""},
    {"WORK_THREADS_LIMIT", kText, 0, 0, "50"},
    {"WORK_BUSY", kGauge, 0, 10, ""},
    {"WORK_QUEUED", kGauge, 0, 25, ""},
    {"WORK_QUEUED_PEAK", kPeak, 25, 33, ""},
    {"WORK_QUEUE_LIMIT", kText, 0, 0, "500"},
    {"WORK_STARTED", kCounter, 5, 15, ""},
    {"WORK_WAIT_TIMEOUTS", kCounter, 0, 2, ""},
    {"WORK_LOAD", kRatio, 150, 9500, ""},
    {"REQ_COUNT", kCounter, 700, 3000, ""},
    {"REQ_FAILED", kCounter, 1, 9, ""},
    {"REQ_REJECTED", kCounter, 0, 3, ""},
    {"REQ_ACTIVE", kGauge, 0, 10, ""},
    {"REQ_ACTIVE_PEAK", kPeak, 10, 16, ""},
    {"REQ_RATE", kRatio, 700, 3000, ""},
    {"REQ_MILLIS_MEAN", kRatio, 180, 4200, ""},
    {"REQ_MILLIS_WORST", kPeak, 120, 2900, ""},
    {"REQ_BYTES_OUT", kCounter, 2500000, 4200000, ""},
    {"REQ_JOURNAL", kJournal, 100, 9999, ""},
    {"LINK_TARGET", kText, 0, 0, "orders-east:7001"},
    {"LINK_STATE", kText, 0, 0, "up"},
    {"LINK_SESSIONS", kGauge, 2, 30, ""},
    {"LINK_SESSIONS_LIMIT", kText, 0, 0, "32"},
    {"LINK_SENT", kCounter, 650, 2900, ""},
    {"LINK_RECEIVED", kCounter, 650, 2900, ""},
    {"LINK_RETRIES", kCounter, 0, 5, ""},
    {"LINK_LOST", kCounter, 0, 1, ""},
    {"LINK_MILLIS_MEAN", kRatio, 90, 1900, ""},
    {"LINK_LAST_ERROR", kText, 0, 0, ""},
    {"VM_NAME", kText, 0, 0, "Runtime 17"},
    {"VM_UPTIME", kUptime, 0, 0, ""},
    {"VM_HEAP_USED", kGauge, 80000000, 410000000, ""},
    {"VM_HEAP_PEAK", kPeak, 410000000, 480000000, ""},
    {"VM_HEAP_LIMIT", kText, 0, 0, "536870912"},
    {"VM_COLLECTIONS", kCounter, 4, 30, ""},
    {"VM_COLLECTION_MILLIS", kCounter, 40, 600, ""},
    {"VM_THREADS", kGauge, 30, 75, ""},
    {"VM_CLASSES", kPeak, 7200, 9100, ""},
    {"VM_CPU_SHARE", kRatio, 100, 7800, ""},
    {"HOST_NAME", kText, 0, 0, "gateway-1"},
    {"HOST_SITE", kText, 0, 0, "\xC3\x85rhus, hall 2"},  // not all texts are ASCII
    {"HOST_SYSTEM", kText, 0, 0, "Linux"},
    {"HOST_CPUS", kText, 0, 0, "16"},
    {"HOST_LOAD", kRatio, 5, 1600, ""},
    {"HOST_MEMORY_FREE", kGauge, 900000, 12000000, ""},
    {"HOST_MEMORY", kText, 0, 0, "16384000"},
    {"HOST_DISK_FREE", kGauge, 40000000, 47000000, ""},
    {"HOST_OPEN_FILES", kGauge, 90, 700, ""},
    {"HOST_INTERRUPTS", kCounter, 90000, 250000, ""},
};

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

std::string showValue(const Definition& row, std::uint64_t noise, std::uint64_t seconds) {
  switch (row.motion) {
    case kText:
      return row.text;
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

GatewayModel::GatewayModel(const ModelOptions& options) {
  if (options.scale < 1 || options.scale > kMaxScale)
    throw std::invalid_argument("scale out of range");
  for (unsigned copy = 1; copy <= options.scale; ++copy) {
    for (const Definition& row : kDefinitions) {
      addItem(copy == 1 ? row.id : row.id + ("_" + std::to_string(copy)), row, options.seed);
    }
  }
}

void GatewayModel::addItem(std::string id, const Definition& definition, std::uint64_t seed) {
  std::string groupId(groupOf(id));
  auto [group, isNew] = groups_.try_emplace(groupId);
  if (isNew) groupIds_.push_back(groupId);
  std::uint64_t noise = mix(seed);
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
  return answer<Stats>(query, true, [seconds](const Item& item) {
    return Stat{item.id, showValue(*item.definition, item.noise, seconds)};
  });
}

Answer GatewayModel::statIds(std::string_view query) const {
  return answer<Ids>(query, false, [](const Item& item) { return item.id; });
}

Answer GatewayModel::groups() const {
  return {false, {Response{"", 0, groupIds_}}};
}

}  // namespace zebsim
