#include "prometheus_text.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "glob.h"
#include "text.h"

namespace zebtool {
namespace {

// The names of the exporter's own metrics.
constexpr const char* kReservedNames[] = {"zebstats_up", "zebstats_scrape_duration_seconds",
                                          "zebstats_scrape_error", "zebstats_build_info",
                                          "zebstats_targets_valid"};

// ---- Names --------------------------------------------------------------------------------------

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

// Returns whether the word names the unit that the end of the metric's name has, as BYTES and
// MILLIS do in LISTEN_BYTES_IN and REQ_MILLIS_MEAN.
bool isUnitWord(std::string_view word, const StatInfo* info) {
  constexpr std::size_t kShortestWord = 4;
  if (info == nullptr || info->unit == nullptr || word.size() < kShortestWord) return false;
  return word == info->unit->base || info->unit->name.starts_with(word);
}

// Returns the id in lower case, with '_' for characters that a name cannot have. A word that names
// the unit is left out, and a refused word is joined to the word before it.
std::string makeName(const std::string& id, const StatInfo* info) {
  std::vector<std::string> words(1);
  auto endWord = [&] {
    if (isUnitWord(words.back(), info)) return words.pop_back();
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

// The names of an id's metrics.
struct Names {
  std::string number;
  std::string text;  // with the suffix _info
};

// Adds the unit and, to a counter, _total.
std::string makeNumberName(std::string name, const StatInfo* info) {
  if (info == nullptr) return name;
  constexpr std::string_view kTotal = "_total";
  bool isCounter = info->type == StatType::kCounter;
  if (isCounter && name.ends_with(kTotal)) name.resize(name.size() - kTotal.size());
  if (info->unit != nullptr) name.append("_").append(info->unit->base);
  return isCounter ? name.append(kTotal) : name;
}

// What is written for one id.
struct Family {
  Names names;
  const StatInfo* info = nullptr;
  bool hasTexts = false;                                     // whether texts are written
  std::set<std::pair<std::string_view, std::string>> known;  // gateway and group of each sample
  MetricWriter numbers;
  MetricWriter texts;
};

using Families = std::map<std::string, Family>;

// Names the metrics of each id. If several ids would get the same name, the one in upper case, as
// gateways write ids, keeps it, and the others get a suffix.
void nameFamilies(Families& families) {
  auto isUsual = [](const std::string& id) {
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return isAsciiUpper(c) || isDigit(c) || c == '_'; });
  };
  std::set<std::string> taken(std::begin(kReservedNames), std::end(kReservedNames));
  for (bool usual : {true, false}) {
    for (auto& [id, family] : families) {
      if (isUsual(id) != usual) continue;
      std::string name = makeName(id, family.info);
      auto isTaken = [&, &named = family] {  // clang++ 14 captures no part of a binding by itself
        named.names = {makeNumberName(name, named.info), name + "_info"};
        return taken.contains(named.names.number) || taken.contains(named.names.text);
      };
      while (isTaken()) name += makeSuffix(id);
      taken.insert({family.names.number, family.names.text});
    }
  }
}

// ---- Samples ------------------------------------------------------------------------------------

// Returns the fewest digits from which the same double is read. Not with to_chars: it needs another
// shared library, and loading that would slow down each start of zebstat.
std::string showDouble(double number) {
  char digits[32];
  for (int precision : {6, 15, 16, 17}) {
    std::snprintf(digits, sizeof digits, "%.*g", precision, number);
    if (std::strtod(digits, nullptr) == number) break;
  }
  return digits;
}

// Returns the number to write, with the gateway's own digits if nothing converts it; nothing if the
// value is a text or too large for a server.
std::optional<std::string> makeNumber(const std::string& value, const StatInfo* info) {
  std::optional<long double> number = parseNumber(value);
  if (!number) return std::nullopt;
  long double factor = info != nullptr && info->unit != nullptr ? info->unit->factor : 1;
  if (factor == 1) return value;
  double converted = static_cast<double>(*number * factor);
  if (!std::isfinite(converted)) return std::nullopt;
  return showDouble(converted);
}

// Cuts a text for a label if it is long. A character at the cut is left out as a whole.
std::string cutText(const std::string& text) {
  constexpr std::size_t kMaxLabelBytes = 256;
  std::size_t end = kMaxLabelBytes;
  if (text.size() <= kMaxLabelBytes) return text;
  while (end > kMaxLabelBytes - 4 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "...";
}

std::string makeHelp(const std::string& id, const StatInfo* info) {
  if (info != nullptr && !info->help.empty()) return info->help;
  return "Statistic " + id + " of the gateway.";
}

const char* typeOf(const StatInfo* info) {
  StatType type = info != nullptr ? info->type : StatType::kUntyped;
  return type == StatType::kCounter ? "counter" : type == StatType::kGauge ? "gauge" : "untyped";
}

void addStat(Family& family, std::string_view gateway, const Entry& stat) {
  std::optional<std::string> number = makeNumber(stat.value, family.info);
  if (!number && !family.hasTexts) return;
  if (!family.known.emplace(gateway, toShown(stat.element)).second) return;
  MetricWriter& writer = number ? family.numbers : family.texts;
  if (writer.isEmpty()) {
    writer.start(number ? family.names.number : family.names.text, makeHelp(stat.id, family.info),
                 number ? typeOf(family.info) : "gauge");
  }
  if (number) {
    writer.add({{"gateway", gateway}, {"group", stat.element}}, *number);
  } else {
    std::string text = cutText(toShown(stat.value));
    writer.add({{"gateway", gateway}, {"group", stat.element}, {"value", text}}, "1");
  }
}

std::string escapeLabel(std::string_view bytes) {
  std::string label;
  for (char c : toShown(bytes)) {
    if (c == '\\' || c == '"') label += '\\';
    label += c;
  }
  return label;
}

}  // namespace

void MetricWriter::start(std::string name, std::string_view help, const char* type) {
  name_ = std::move(name);
  text_ += "# HELP " + name_ + " ";
  for (char c : toShown(help)) text_ += c == '\\' ? "\\\\" : std::string(1, c);
  text_ += "\n# TYPE " + name_ + " " + type + "\n";
}

void MetricWriter::add(std::initializer_list<Label> labels, std::string_view number) {
  text_ += name_;
  char before = '{';
  for (const Label& label : labels) {
    if (label.value.empty()) continue;
    (text_ += before).append(label.name).append("=\"").append(escapeLabel(label.value)) += '"';
    before = ',';
  }
  if (before == ',') text_ += '}';
  (text_ += ' ').append(number) += '\n';
}

void MetricWriter::add(std::initializer_list<Label> labels, double number) {
  add(labels, std::string_view(showDouble(number)));
}

std::string renderStats(const std::vector<GatewayStats>& gateways, const Metadata& metadata,
                        const std::vector<std::string>& texts) {
  Families families;
  for (const GatewayStats& gateway : gateways) {
    for (const Entry& stat : *gateway.entries) families.try_emplace(stat.id);
  }
  for (auto& [id, family] : families) {
    family.info = metadata.find(id);
    family.hasTexts = matchesAnyGlob(texts, id);
  }
  nameFamilies(families);
  for (const GatewayStats& gateway : gateways) {
    for (const Entry& stat : *gateway.entries) addStat(families.at(stat.id), gateway.gateway, stat);
  }
  std::string text;
  for (auto& [id, family] : families) text += family.numbers.take() + family.texts.take();
  return text;
}

}  // namespace zebtool
