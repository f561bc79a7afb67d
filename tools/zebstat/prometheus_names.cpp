#include "prometheus_names.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

namespace zebtool {
namespace {

using Label = prometheus::ClientMetric::Label;
using Labels = std::vector<Label>;

constexpr char kInfoName[] = "zebstats_info";
// Reserved names: zebstats_info and the names of the exporter's own metrics.
constexpr const char* kReservedNames[] = {kInfoName, "zebstats_up",
                                          "zebstats_scrape_duration_seconds"};

template <typename Texts>
bool contains(const Texts& texts, std::string_view wanted) {
  return std::find(std::begin(texts), std::end(texts), wanted) != std::end(texts);
}

// Returns whether `promtool check metrics` rejects the word in a name: it rejects kinds of metrics,
// and units that are not basic units.
bool isRefusedWord(std::string_view word) {
  static constexpr std::string_view kWords[] = {
      "counter", "gauge", "histogram", "summary", "s",  "ms", "us", "ns", "sec",
      "b",       "kb",    "mb",        "gb",      "tb", "pb", "m",  "h",  "d"};
  static constexpr std::string_view kPrefixes[] = {
      "",     "pico", "nano", "micro", "milli", "centi", "deci", "deca", "hecto", "kilo",
      "kibi", "mega", "mibi", "mebi",  "giga",  "gibi",  "tera", "tebi", "peta",  "pebi"};
  static constexpr std::string_view kBasicUnits[] = {"amperes", "bytes",  "celsius", "grams",
                                                     "joules",  "kelvin", "meters",  "metres",
                                                     "seconds", "volts"};
  static constexpr std::string_view kOtherUnits[] = {"bits",    "calories", "days",    "fahrenheit",
                                                     "hours",   "inches",   "kelvins", "miles",
                                                     "minutes", "pounds",   "weeks",   "yards"};
  if (contains(kWords, word)) return true;
  return std::any_of(std::begin(kPrefixes), std::end(kPrefixes), [word](std::string_view prefix) {
    if (!word.starts_with(prefix)) return false;
    std::string_view unit = word.substr(prefix.size());
    return contains(kOtherUnits, unit) || (!prefix.empty() && contains(kBasicUnits, unit));
  });
}

bool isAsciiUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isAsciiLower(char c) {
  return c >= 'a' && c <= 'z';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Returns the id in lower case, with '_' for characters that a name cannot have. A refused word is
// joined to the word before it.
std::string makeName(const std::string& id) {
  std::vector<std::string> words(1);
  auto endWord = [&words] {
    while (isRefusedWord(words.back())) {
      std::string word = std::move(words.back());
      words.pop_back();
      if (words.empty()) words.emplace_back("value");
      words.back() += word;
    }
  };
  for (char c : id) {
    if (isAsciiUpper(c)) {
      words.back() += static_cast<char>(c - 'A' + 'a');
    } else if (isAsciiLower(c) || isDigit(c)) {
      words.back() += c;
    } else {
      endWord();
      words.emplace_back();
    }
  }
  endWord();
  std::string name = "zebstats";
  for (const std::string& word : words) name += "_" + word;
  return name;
}

// Returns a suffix that distinguishes ids with the same name and is the same in every run: FNV-1a.
std::string makeSuffix(const std::string& id) {
  std::uint32_t hash = 2166136261U;
  for (char c : id) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  char text[16];
  std::snprintf(text, sizeof text, "_%08x", static_cast<unsigned>(hash));
  return text;
}

// Returns the name of each id. If several ids would get the same name, the one in upper case, as
// gateways write ids, keeps it, and the others get a suffix.
std::map<std::string, std::string> nameIds(const std::set<std::string>& ids) {
  auto isUsual = [](const std::string& id) {
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return isAsciiUpper(c) || isDigit(c) || c == '_'; });
  };
  std::map<std::string, std::string> names;
  std::set<std::string> taken(std::begin(kReservedNames), std::end(kReservedNames));
  for (bool usual : {true, false}) {
    for (const std::string& id : ids) {
      if (isUsual(id) != usual) continue;
      std::string name = makeName(id);
      while (!taken.insert(name).second) name += makeSuffix(id);
      names.emplace(id, std::move(name));
    }
  }
  return names;
}

// Returns the number, or nothing for anything but a decimal number: "nan" and "0x10" are texts
// here.
std::optional<double> parseNumber(const std::string& text) {
  double number = 0;
  const char* end = text.data() + text.size();
  if (text.find_first_not_of("+-.0123456789eE") != std::string::npos) return std::nullopt;
  auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// Returns the length in bytes of the character at the start of the text, or 0 if it is not valid.
std::size_t measureCharacter(std::string_view text) {
  auto byteAt = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  unsigned first = byteAt(0);
  if (first < 0x80) return first != 0 ? 1 : 0;
  std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || size > text.size()) return 0;
  std::uint32_t code = first & (0x7FU >> size);
  for (std::size_t at = 1; at < size; ++at) {
    if ((byteAt(at) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byteAt(at) & 0x3FU);
  }
  bool isOverlong = code < (size == 4 ? 0x10000U : size == 3 ? 0x800U : 0x80U);
  bool isSurrogate = code >= 0xD800 && code < 0xE000;
  return isOverlong || isSurrogate || code > 0x10FFFF ? 0 : size;
}

Labels makeLabels(const PrometheusAnswer& answer, const PrometheusStat& stat) {
  Labels labels{{"gateway", makeLabelValue(answer.gateway)}};
  if (!stat.group.empty()) labels.push_back({"group", makeLabelValue(stat.group)});
  return labels;
}

// Returns the text after # HELP, with line ends escaped: the serialiser writes it as it is.
std::string makeHelp(const std::string& id) {
  std::string help = "Statistic ";
  for (char c : makeLabelValue(id))
    help += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
  return help + " of the gateway.";
}

// Returns the text for a label, cut if it is long. A character at the cut is left out as a whole.
std::string cutText(const std::string& text) {
  constexpr std::size_t kMaxLabelBytes = 256;
  std::size_t end = kMaxLabelBytes;
  if (text.size() <= kMaxLabelBytes) return text;
  while (end > kMaxLabelBytes - 4 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "...";
}

// The metrics of one name. Of several with the same labels it keeps the first.
class Family {
 public:
  Family(std::string name, std::string help, prometheus::MetricType type)
      : family_{std::move(name), std::move(help), type, {}} {}

  void add(const Labels& labels, double value) {
    if (!known_.insert(labels).second) return;
    prometheus::ClientMetric metric;
    metric.label = labels;
    (family_.type == prometheus::MetricType::Gauge ? metric.gauge.value : metric.untyped.value) =
        value;
    family_.metric.push_back(std::move(metric));
  }
  prometheus::MetricFamily& take() { return family_; }

 private:
  prometheus::MetricFamily family_;
  std::set<Labels> known_;
};

}  // namespace

std::string makeLabelValue(std::string_view text) {
  std::string value;
  while (!text.empty()) {
    std::size_t size = measureCharacter(text);
    if (size > 0) {
      value += text.substr(0, size);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X",
                    static_cast<unsigned>(static_cast<unsigned char>(text[0])));
      value += escape;
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return value;
}

std::vector<prometheus::MetricFamily> makeMetricFamilies(
    const std::vector<PrometheusAnswer>& answers) {
  std::set<std::string> ids;
  for (const PrometheusAnswer& answer : answers) {
    for (const PrometheusStat& stat : answer.stats) ids.insert(stat.id);
  }
  const std::map<std::string, std::string> names = nameIds(ids);

  std::map<std::string, Family> numbers;  // by id
  Family info(kInfoName, "Statistics whose values are texts.", prometheus::MetricType::Gauge);
  for (const PrometheusAnswer& answer : answers) {
    for (const PrometheusStat& stat : answer.stats) {
      Labels labels = makeLabels(answer, stat);
      if (std::optional<double> number = parseNumber(stat.value)) {
        auto [family, isNew] = numbers.try_emplace(stat.id, names.at(stat.id), makeHelp(stat.id),
                                                   prometheus::MetricType::Untyped);
        family->second.add(labels, *number);
      } else {
        labels.push_back({"id", makeLabelValue(stat.id)});
        labels.push_back({"value", makeLabelValue(cutText(stat.value))});
        info.add(labels, 1);
      }
    }
  }
  std::vector<prometheus::MetricFamily> families;
  for (auto& [id, family] : numbers) families.push_back(std::move(family.take()));
  if (!info.take().metric.empty()) families.push_back(std::move(info.take()));
  return families;
}

std::string writePrometheusText(const std::vector<PrometheusAnswer>& answers) {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, makeMetricFamilies(answers));
  return text.str();
}

}  // namespace zebtool
