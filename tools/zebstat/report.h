// One filtered answer with its gateway and time, and the formats json, jsonl and csv. table.h and
// prometheus_text.h have the others.
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
  std::string timestamp;  // of the answer, in UTC and ISO 8601
  Answer answer;
};

// Returns the current time as the timestamp of a report.
std::string makeTimestamp();

// Returns the group of an entry: the one that the query named or, if the query was not by group,
// the part of the id before its first '_'.
std::string groupOf(const Entry& entry, bool isByGroup);

std::string renderJson(const Report& report);
std::string renderJsonLine(const Report& report);
std::string renderCsv(const Report& report, bool withHeading);

}  // namespace zebtool

#endif  // ZEBSTAT_REPORT_H
