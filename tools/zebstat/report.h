// One answer as it is shown: what the filters left of it, with its gateway and its time, in each
// format.
#ifndef ZEBSTAT_REPORT_H
#define ZEBSTAT_REPORT_H

#include <string>

#include "gateway.h"
#include "options.h"

namespace zebtool {

struct Report {
  Command command = Command::kStats;
  bool isByGroup = false;
  std::string gateway;
  std::string timestamp;  // of the answer, as ISO 8601 writes it, in UTC
  Answer answer;
};

// The time now, for a report.
std::string makeTimestamp();

// Returns the group that the question named, otherwise the part of the id before its first '_'.
std::string groupOf(const Entry& entry, bool isByGroup);

std::string renderJson(const Report& report);
std::string renderJsonLine(const Report& report);
std::string renderCsv(const Report& report, bool withHeading);

}  // namespace zebtool

#endif  // ZEBSTAT_REPORT_H
