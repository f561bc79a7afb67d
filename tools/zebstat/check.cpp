#include "check.h"

#include <algorithm>
#include <string_view>

#include "output.h"
#include "text.h"

namespace zebtool {

namespace {

enum State { kOk, kWarning, kCritical, kUnknown };

constexpr const char* kStateNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
constexpr std::size_t kMaxColumns = 79;

struct Finding {
  State state = kUnknown;
  std::string message;
  std::string performance;  // empty if there is none
};

std::string cutMessage(const std::string& message, std::size_t columns) {
  if (columnsOf(message) <= columns) return message;
  return columns < 3 ? "" : cutToColumns(message, columns - 3) + "...";
}

// Shortens the message; if less than kMinMessage columns would be left for it, leaves out the
// performance data.
std::string renderLine(const Finding& finding) {
  std::string start = std::string(kStateNames[finding.state]) + ": ";
  std::string message = toShown(finding.message);
  std::replace(message.begin(), message.end(), '|', '/');  // '|' starts performance data
  std::string performance = finding.performance.empty() ? "" : " | " + toShown(finding.performance);
  constexpr std::size_t kMinMessage = 20;
  if (start.size() + kMinMessage + columnsOf(performance) > kMaxColumns) performance.clear();
  return start + cutMessage(message, kMaxColumns - start.size() - columnsOf(performance)) +
         performance + "\n";
}

// Returns the value and its ranges as performance data, or an empty text if the id cannot be
// written.
std::string writePerformance(const Options& options, long double value) {
  std::string label;
  for (char c : options.checkedId) label += c == '\'' ? "''" : std::string(1, c);
  if (label.find_first_of(" ='|") != std::string::npos) label = "'" + label + "'";
  if (label.find('|') != std::string::npos) return {};
  std::string text = label + "=" + showNumber(value, 6);
  if (options.warning || options.critical)
    text += ";" + (options.warning ? options.warning->text : "");
  if (options.critical) text += ";" + options.critical->text;
  return text;
}

Finding judge(const Options& options, const Answer& answer) {
  const std::string& id = options.checkedId;
  auto hasId = [&](const Entry& entry) { return entry.id == id; };
  auto found = std::find_if(answer.entries.begin(), answer.entries.end(), hasId);
  if (found == answer.entries.end()) {
    std::string code = answer.refusals.empty()
                           ? ""
                           : " (its code " + std::to_string(answer.refusals[0].code) + ")";
    return {kUnknown, "the gateway does not know " + id + code, {}};
  }
  std::optional<long double> value = parseNumber(found->value);
  if (!value) return {kUnknown, id + " is no number: " + found->value, {}};
  Finding finding{kOk, id + " is " + found->value, writePerformance(options, *value)};
  if (options.critical && options.critical->alarms(*value)) {
    finding.state = kCritical;
    finding.message += ", critical is " + options.critical->text;
  } else if (options.warning && options.warning->alarms(*value)) {
    finding.state = kWarning;
    finding.message += ", warning is " + options.warning->text;
  }
  return finding;
}

}  // namespace

int runCheck(const Options& options, Gateway& gateway) {
  Finding finding;
  try {
    finding = judge(options, gateway.ask(options.question()));
  } catch (const Fault& fault) {
    finding.message = fault.what();
  }
  writeOutput(renderLine(finding));
  return finding.state;
}

}  // namespace zebtool
