#include "check.h"

#include <regex.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <limits>
#include <string_view>

#include "check_state.h"
#include "metadata.h"
#include "output.h"
#include "text.h"

namespace zebtool {

namespace {

constexpr const char* kStateNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

struct Finding {
  CheckState state = kStateUnknown;
  std::string message;
  std::string performance;  // empty if there is none
};

// Returns how much a state matters: critical most, then warning, then unknown.
int weightOf(CheckState state) {
  constexpr int kWeights[] = {0, 2, 3, 1};
  return kWeights[state];
}

// Returns text that monitoring systems take as one line: '|' starts performance data.
std::string onOneLine(const std::string& bytes) {
  std::string text = toShown(bytes);
  std::replace(text.begin(), text.end(), '|', '/');
  return text;
}

std::string nameText(const std::string& text) {
  return text.empty() ? "an empty text" : text;
}

class Regex {
 public:
  explicit Regex(const std::string& pattern)
      : isValid_(regcomp(&compiled_, pattern.c_str(), REG_EXTENDED | REG_NOSUB) == 0) {}
  ~Regex() {
    if (isValid_) regfree(&compiled_);
  }
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  [[nodiscard]] bool isValid() const { return isValid_; }
  [[nodiscard]] bool matches(const std::string& text) const {
    regmatch_t whole{0, static_cast<regoff_t>(text.size())};  // not only up to a NUL
    return regexec(&compiled_, text.c_str(), 1, &whole, REG_STARTEND) == 0;
  }

 private:
  regex_t compiled_{};
  bool isValid_;
};

// Returns the range of an id: its own, or the one for all; the last one that was given.
const Range* rangeFor(const std::vector<CheckRange>& ranges, const std::string& id) {
  const Range* own = nullptr;
  const Range* common = nullptr;
  for (const CheckRange& range : ranges) {
    if (range.id == id) own = &range.range;
    if (range.id.empty()) common = &range.range;
  }
  return own != nullptr ? own : common;
}

// ---- Performance data ---------------------------------------------------------------------------

std::string labelFor(const std::string& id) {
  std::string label;
  for (char c : onOneLine(id)) label += c == '\'' ? "''" : std::string(1, c);
  bool isPlain = label.find_first_of(" ='") == std::string::npos;
  return isPlain ? label : "'" + label + "'";
}

// Returns the unit as performance data writes it; most units have no such form.
std::string unitFor(const StatInfo* info) {
  if (info == nullptr) return "";
  if (info->unit != nullptr) {
    constexpr std::pair<std::string_view, const char*> kForms[] = {
        {"seconds", "s"},    {"milliseconds", "ms"}, {"microseconds", "us"}, {"bytes", "B"},
        {"kilobytes", "KB"}, {"megabytes", "MB"},    {"gigabytes", "GB"},    {"percent", "%"}};
    for (const auto& [name, form] : kForms) {
      if (info->unit->name == name) return form;
    }
  }
  return info->unit == nullptr && info->type == StatType::kCounter ? "c" : "";
}

// Returns the number with the gateway's own digits. Performance data cannot have an exponent, so
// the point is moved instead, which loses no digit.
std::string digitsOf(const std::string& number) {
  std::size_t end = number.find_first_of("eE");
  if (end == std::string::npos) return number;
  // With a greater exponent a number is 0, or does not fit into a double.
  const long maxExponent = static_cast<long>(end) + 400;
  long exponent =
      std::clamp(std::strtol(number.c_str() + end + 1, nullptr, 10), -maxExponent, maxExponent);
  std::string sign = number[0] == '-' ? "-" : "";
  std::string digits = number.substr(sign.size(), end - sign.size());
  std::size_t point = std::min(digits.find('.'), digits.size());
  if (point < digits.size()) digits.erase(point, 1);
  long whole = static_cast<long>(point) + exponent;  // digits before the point
  if (whole < 1) digits.insert(0, static_cast<std::size_t>(1 - whole), '0');
  auto count = static_cast<std::size_t>(std::max(whole, 1L));
  if (digits.size() < count) digits.append(count - digits.size(), '0');
  if (digits.size() > count) digits.insert(count, ".");
  std::size_t zeros = std::min(digits.find_first_not_of('0'), count - 1);
  return sign + digits.substr(zeros);
}

std::string limitsOf(const Range* range) {
  if (range == nullptr) return {};
  const std::string& text = range->text;
  std::size_t low = text.starts_with('@') ? 1 : 0;
  std::size_t colon = std::min(text.find(':'), text.size());
  std::string limits = text.substr(0, low) + digitsOf(text.substr(low, colon - low));
  return colon == text.size() ? limits : limits + ":" + digitsOf(text.substr(colon + 1));
}

struct Measured {
  std::string digits;
  long double number = 0;
};

std::string writePerformance(const std::string& label, const Measured& measured,
                             const std::string& unit, const Range* warning, const Range* critical) {
  std::string text = label + "=" + measured.digits + unit;
  if (warning != nullptr || critical != nullptr) text += ";" + limitsOf(warning);
  if (critical != nullptr) text += ";" + limitsOf(critical);
  return text;
}

// ---- Judging ------------------------------------------------------------------------------------

class Judge {
 public:
  Judge(const CheckOptions& options, std::string gateway)
      : options_(options), gateway_(std::move(gateway)) {
    if (!options.metadataFile.empty()) metadata_ = Metadata(options.metadataFile);
    if (options.isRate) earlier_.emplace(options.stateFile);
  }

  Finding judge(const std::string& id, const Answer& answer) {
    auto hasId = [&](const Entry& entry) { return entry.id == id; };
    auto found = std::find_if(answer.entries.begin(), answer.entries.end(), hasId);
    if (found != answer.entries.end()) return judgeValue(id, found->value);
    auto isRefused = [&](const Refusal& refusal) { return refusal.element == id; };
    auto refused = std::find_if(answer.refusals.begin(), answer.refusals.end(), isRefused);
    std::string code =
        refused == answer.refusals.end() ? "" : " (its code " + std::to_string(refused->code) + ")";
    return {kStateUnknown, "the gateway does not know " + id + code, {}};
  }

  void saveState() const {
    if (earlier_) earlier_->save();
  }

 private:
  Finding judgeValue(const std::string& id, const std::string& value) {
    if (options_.equals || options_.matches) return judgeText(id, value);
    std::optional<long double> number = parseNumber(value);
    if (!number) return {kStateUnknown, id + " is no number: " + nameText(value), {}};
    if (options_.isRate) return judgeRate(id, value, *number);
    return judgeNumber(id + " is " + value, id, {digitsOf(value), *number},
                       unitFor(metadata_.find(id)));
  }

  [[nodiscard]] Finding judgeText(const std::string& id, const std::string& value) const {
    std::string expected;
    std::string text = toUtf8(value);
    if (options_.equals && text != *options_.equals)
      expected = "expected is " + nameText(*options_.equals);
    else if (options_.matches && !Regex(*options_.matches).matches(text))
      expected = "expected is a match of " + *options_.matches;
    std::string message = id + " is " + nameText(value);
    std::string performance;
    if (std::optional<long double> number = parseNumber(value))
      performance = writePerformance(labelFor(id), {digitsOf(value), *number},
                                     unitFor(metadata_.find(id)), nullptr, nullptr);
    if (expected.empty()) return {kStateOk, message, performance};
    return {kStateCritical, message + ", " + expected, performance};
  }

  // Without an earlier value, or if the value fell because a counter was restarted, there is no
  // rate yet, which is no alarm.
  Finding judgeRate(const std::string& id, const std::string& value, long double number) {
    double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::optional<EarlierValue> earlier = earlier_->find(gateway_, id);
    earlier_->set(gateway_, id, {now, value});
    constexpr long double kNone = std::numeric_limits<long double>::quiet_NaN();
    long double before = earlier ? parseNumber(earlier->value).value_or(kNone) : kNone;
    std::string label = labelFor(id + "_per_second");
    std::string unknown = label + "=U";  // as plug-ins write a value that is not known
    if (std::isnan(before) || earlier->seconds >= now)
      return {kStateOk, id + " is " + value + ", its rate is known from the next run on", unknown};
    if (number < before) {
      return {kStateOk, id + " fell from " + earlier->value + " to " + value + ", so no rate",
              unknown};
    }
    long double rate = (number - before) / static_cast<long double>(now - earlier->seconds);
    std::string digits = showNumber(rate, 6);
    return judgeNumber(id + " grows by " + digits + " per second", id, {digitsOf(digits), rate},
                       "");
  }

  [[nodiscard]] Finding judgeNumber(std::string message, const std::string& id,
                                    const Measured& measured, const std::string& unit) const {
    const Range* warning = rangeFor(options_.warnings, id);
    const Range* critical = rangeFor(options_.criticals, id);
    Finding finding{kStateOk, std::move(message),
                    writePerformance(labelFor(options_.isRate ? id + "_per_second" : id), measured,
                                     unit, warning, critical)};
    if (critical != nullptr && critical->alarms(measured.number)) {
      finding.state = kStateCritical;
      finding.message += ", critical is " + critical->text;
    } else if (warning != nullptr && warning->alarms(measured.number)) {
      finding.state = kStateWarning;
      finding.message += ", warning is " + warning->text;
    }
    return finding;
  }

  const CheckOptions& options_;
  std::string gateway_;
  Metadata metadata_;
  std::optional<CheckStateFile> earlier_;
};

// ---- The result ---------------------------------------------------------------------------------

// Prints the findings: the first line has the worst ones first and the performance data; further
// lines, which monitoring systems show as details, have what -v asks for.
CheckState report(std::vector<Finding> findings, const CheckOptions& options,
                  const std::string& gateway) {
  std::string details;
  for (const Finding& finding : findings)
    details += std::string(kStateNames[finding.state]) + ": " + onOneLine(finding.message) + "\n";
  std::stable_sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) {
    return weightOf(a.state) > weightOf(b.state);
  });
  std::string messages, performance;
  for (const Finding& finding : findings) {
    messages += (messages.empty() ? "" : ", ") + onOneLine(finding.message);
    if (!finding.performance.empty()) performance += " " + finding.performance;
  }
  CheckState worst = findings.front().state;
  std::string text = std::string(kStateNames[worst]) + ": " + messages;
  if (!performance.empty()) text += " |" + performance;
  text += "\n";
  if (options.verbosity >= 1) text += details;
  if (options.verbosity >= 2) text += "asked " + onOneLine(gateway) + "\n";
  writeOutput(text);
  return worst;
}

std::vector<Finding> examine(const CheckOptions& options, Gateway& gateway) {
  try {
    Judge judge(options, gateway.name());
    Answer answer = gateway.ask({Question::Kind::kStatsById, options.ids});
    std::vector<Finding> findings;
    for (const std::string& id : options.ids) findings.push_back(judge.judge(id, answer));
    judge.saveState();
    return findings;
  } catch (const GatewayFault& fault) {
    return {{options.unreachable, fault.what(), {}}};
  } catch (const std::exception& fault) {
    return {{kStateUnknown, fault.what(), {}}};
  }
}

}  // namespace

std::optional<CheckRange> parseCheckRange(const std::string& text) {
  std::size_t equals = text.rfind('=');
  std::string id = equals == std::string::npos ? "" : text.substr(0, equals);
  std::optional<Range> range =
      parseRange(equals == std::string::npos ? text : text.substr(equals + 1));
  if (!range || (equals != std::string::npos && id.empty())) return std::nullopt;
  return CheckRange{std::move(id), *range};
}

bool isRegex(const std::string& text) {
  return Regex(text).isValid();
}

int runCheck(const CheckOptions& options, Gateway& gateway) {
  return report(examine(options, gateway), options, gateway.name());
}

int reportCheckUsage(const CheckUsageFault& fault) {
  return report({{kStateUnknown, fault.what(), {}}}, {}, {});
}

}  // namespace zebtool
