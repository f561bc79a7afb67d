// Checks of the values of options that several programs have. Each returns an empty text if the
// value is valid, otherwise the message about it.
#ifndef ZEBTOOL_OPTION_CHECKS_H
#define ZEBTOOL_OPTION_CHECKS_H

#include <functional>
#include <string>
#include <vector>

#include "address.h"
#include "option_table.h"

namespace zebtool {

using OptionCheck = std::function<std::string(const std::string&)>;

OptionCheck wantNumber(long double low, long double high, const std::string& what);
// Wants a number without sign and point.
OptionCheck wantWhole(long low, long high, const std::string& what);
// Wants a number of seconds, from the lowest up to a day.
OptionCheck wantSeconds(long double lowest);
OptionCheck wantTimeout();
OptionCheck wantPort();
OptionCheck wantTraceLevel();
// Wants one of the words of the row, or of those that blanks separate.
OptionCheck wantWord(const OptionRow& row);
OptionCheck wantWord(const char* words);

std::string wantAddress(const std::string& text);
// Wants no more gateways than the library permits connections.
std::string wantFew(const std::vector<Address>& gateways);
std::string wantPath(const std::string& text);
// Wants a name or a pattern, which may be anything but empty.
std::string wantText(const std::string& text);
// Wants the name of a statistic or group. A lone number is refused: most probably it is meant for
// the option that repeats the question.
OptionCheck wantName(const OptionRow& repeating);

// Adds the gateways that ZEBSTAT_GATEWAY names, if it is set, with commas or blanks between them.
std::string readEnvironment(std::vector<Address>& gateways);

}  // namespace zebtool

#endif  // ZEBTOOL_OPTION_CHECKS_H
