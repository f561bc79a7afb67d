// The tables of the statistics that the simulated gateway has.
#ifndef ZEBSIM_GATEWAY_STATISTICS_H
#define ZEBSIM_GATEWAY_STATISTICS_H

#include <cstdint>
#include <span>
#include <string_view>

namespace zebsim {

enum class Motion {
  kText,     // is constant
  kName,     // "gateway-" and the seed
  kCounter,  // grows at a varying rate, by low to high in a hundred seconds
  kGauge,    // wanders between low and high
  kRatio,    // a gauge in hundredths, written with two decimals
  kPeak,     // rises slowly from low towards high, never falls
  kUptime,   // the seconds since the start
  kJournal,  // a long text: a line for each of the last hundred seconds
};

struct Definition {
  std::string_view id;
  Motion motion;
  std::uint32_t low;
  std::uint32_t high;
  std::string_view text;
};

// Six groups with ten statistics each.
std::span<const Definition> usualStatistics();

// Constant texts, as a hostile or careless gateway may have them: control characters, invisible
// ones, other scripts, and what terminals, spreadsheets, shells, regular expressions or the formats
// of monitors take for something else.
std::span<const Definition> oddStatistics();

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_STATISTICS_H
