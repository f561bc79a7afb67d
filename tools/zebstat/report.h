// One filtered answer with its gateway and time, and the formats json, jsonl, csv and value.
// table.h and prometheus_text.h have the others.
#ifndef ZEBSTAT_REPORT_H
#define ZEBSTAT_REPORT_H

#include <optional>
#include <string>
#include <vector>

#include "gateway.h"
#include "options.h"

namespace zebtool {

struct Report {
  Command command = Command::kStats;
  bool isByGroup = false;
  std::string gateway;
  std::string timestamp;  // of the answer or the failure, in UTC and ISO 8601
  Answer answer;
  std::optional<GatewayFault> outage;  // why there is no answer
  bool isNew = true;                   // false if it was shown before
};

using Reports = std::vector<Report>;

// Returns the current time as the timestamp of a report.
std::string makeTimestamp();

// Returns the group of an entry: the one that the query named or, if the query was not by group,
// the part of the id before its first '_'.
std::string groupOf(const Entry& entry, bool isByGroup);

// Returns an object with a line for each entry; an array of such objects for several gateways.
std::string renderJson(const Reports& reports, bool isArray);
// Returns a line for each report.
std::string renderJsonLines(const Reports& reports);
// Returns a line for each entry. There must be a report.
std::string renderCsv(const Reports& reports, bool withHeading);
// Returns the value of each entry on a line of its own; its id if the report has no values.
std::string renderValues(const Reports& reports);

}  // namespace zebtool

#endif  // ZEBSTAT_REPORT_H
