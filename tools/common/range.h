// Ranges as monitoring plug-ins write them: 10 (0 to 10), 10:20, 10: (10 and more), ~:10 (10 and
// less). A value outside the range raises the alarm; if the range starts with @, a value inside
// does.
#ifndef ZEBTOOL_RANGE_H
#define ZEBTOOL_RANGE_H

#include <optional>
#include <string>
#include <string_view>

namespace zebtool {

struct Range {
  std::string text;
  long double low = 0;
  long double high = 0;
  bool alarmsInside = false;

  [[nodiscard]] bool alarms(long double value) const {
    bool isInside = low <= value && value <= high;
    return isInside == alarmsInside;
  }
};

// Returns the range, or nothing if the text is not one.
std::optional<Range> parseRange(std::string_view text);

}  // namespace zebtool

#endif  // ZEBTOOL_RANGE_H
