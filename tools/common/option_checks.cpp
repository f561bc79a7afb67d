#include "option_checks.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "text.h"

namespace zebtool {

OptionCheck wantNumber(long double low, long double high, const std::string& what) {
  return [=](const std::string& text) {
    std::optional<long double> number = parseTyped(text);
    bool isGood = number && *number >= low && *number <= high;
    return isGood ? std::string() : "'" + text + "' is not " + what;
  };
}

OptionCheck wantWhole(long low, long high, const std::string& what) {
  return [=](const std::string& text) {
    bool isWhole = text.find_first_not_of("0123456789") == std::string::npos;
    return wantNumber(isWhole ? low : high + 1, high, what)(text);
  };
}

OptionCheck wantSeconds(long double lowest) {
  constexpr long double kDay = 86400;
  return wantNumber(lowest, kDay,
                    "a number of seconds from " + showNumber(lowest, 3) + " to 86400");
}

OptionCheck wantTimeout() {
  return wantSeconds(0.001L);
}

OptionCheck wantPort() {
  return wantWhole(1, 65535, "a port from 1 to 65535");
}

OptionCheck wantTraceLevel() {
  return wantWhole(0, 5, "a trace level from 0 to 5");
}

OptionCheck wantWord(const OptionRow& row) {
  return wantWord(row.words);
}

OptionCheck wantWord(const char* words) {
  return [words](const std::string& text) {
    std::string known;
    for (std::string_view word : wordsOf(words)) {
      if (text == word) return std::string();
      known += (known.empty() ? "" : ", ") + std::string(word);
    }
    return "'" + text + "' is none of " + known;
  };
}

std::string wantAddress(const std::string& text) {
  return parseAddress(text)
             ? std::string()
             : "'" + text + "' is not HOST or HOST:PORT, such as gw-1:2980, [::1]:2980";
}

std::string wantFew(const std::vector<Address>& gateways) {
  constexpr std::size_t kMaxConnections = 256;
  if (gateways.size() <= kMaxConnections) return {};
  return std::to_string(gateways.size()) + " gateways are more than the " +
         std::to_string(kMaxConnections) + " that one call can ask; share them among several";
}

std::string wantPath(const std::string& text) {
  return text.empty() ? "an empty text is not a file name" : std::string();
}

std::string wantText(const std::string& text) {
  return text.empty() ? "an empty text is not a name or pattern" : std::string();
}

OptionCheck wantName(const OptionRow& repeating) {
  return [&repeating](const std::string& text) {
    if (text.empty())
      return std::string("an empty text is not a name; the commands ids and groups list them");
    if (!parseTyped(text)) return std::string();
    return "'" + text + "' is not a name; to repeat every " + text + " seconds write " +
           repeating.name + "=" + text;
  };
}

std::string readEnvironment(std::vector<Address>& gateways) {
  const char* set = std::getenv("ZEBSTAT_GATEWAY");
  std::string names = set != nullptr ? set : "";
  std::replace(names.begin(), names.end(), ',', ' ');
  std::istringstream list(names);
  for (std::string name; list >> name;) {
    if (std::string message = wantAddress(name); !message.empty()) return message;
    gateways.push_back(*parseAddress(name));
  }
  return {};
}

}  // namespace zebtool
