#include "range.h"

#include <limits>

#include "text.h"

namespace zebtool {

std::optional<Range> parseRange(std::string_view text) {
  constexpr long double kNoLimit = std::numeric_limits<long double>::infinity();
  Range range{std::string(text), 0, kNoLimit, !text.empty() && text.front() == '@'};
  if (range.alarmsInside) text.remove_prefix(1);
  std::size_t colon = text.find(':');
  std::string_view low = colon == std::string_view::npos ? "0" : text.substr(0, colon);
  std::string_view high = colon == std::string_view::npos ? text : text.substr(colon + 1);
  bool mayLackHigh = colon != std::string_view::npos && !low.empty();
  if (low == "~") {
    range.low = -kNoLimit;
  } else if (!low.empty()) {  // ":10" is "0:10"
    std::optional<long double> number = parseTyped(low);
    if (!number) return std::nullopt;
    range.low = *number;
  }
  if (!high.empty() || !mayLackHigh) {
    std::optional<long double> number = parseTyped(high);
    if (!number) return std::nullopt;
    range.high = *number;
  }
  if (range.low > range.high) return std::nullopt;
  return range;
}

}  // namespace zebtool
