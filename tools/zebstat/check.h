// The monitoring plug-in: judges statistics as monitoring plug-ins do.
#ifndef ZEBSTAT_CHECK_H
#define ZEBSTAT_CHECK_H

#include <optional>
#include <string>
#include <vector>

#include "gateway.h"
#include "range.h"

namespace zebtool {

// The plug-in's states are also its exit codes.
enum CheckState { kStateOk = 0, kStateWarning = 1, kStateCritical = 2, kStateUnknown = 3 };

// A range for one statistic or, if id is empty, for all that are checked.
struct CheckRange {
  std::string id;
  Range range;
};

struct CheckOptions {
  std::vector<std::string> ids;
  std::vector<CheckRange> warnings;
  std::vector<CheckRange> criticals;
  std::optional<std::string> equals;   // the text that each statistic must have
  std::optional<std::string> matches;  // an extended regular expression for the same
  CheckState unreachable = kStateCritical;
  bool isRate = false;       // judge the change per second since the previous run
  std::string stateFile;     // has the values of the previous run
  std::string metadataFile;  // has the units for performance data
  int verbosity = 0;         // 1: a line for each statistic; 2: also where it was asked
};

// Parses RANGE or ID=RANGE. Returns nothing if the text is neither.
std::optional<CheckRange> parseCheckRange(const std::string& text);

// Returns whether the text is an extended regular expression.
bool isRegex(const std::string& text);

// Asks, prints the result and returns the state. Whatever fails is a part of the result.
int runCheck(const CheckOptions& options, Gateway& gateway);

// Wrong usage, which a plug-in reports as its result.
struct CheckUsageFault : Fault {
  explicit CheckUsageFault(const std::string& text)
      : Fault(static_cast<ExitCode>(kStateUnknown), text) {}
};

// Prints the message as the plug-in's result, and returns its state.
int reportCheckUsage(const CheckUsageFault& fault);

}  // namespace zebtool

#endif  // ZEBSTAT_CHECK_H
