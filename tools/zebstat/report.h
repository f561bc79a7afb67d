// One filtered answer with its gateway and time, and the formats json, jsonl, csv and value. table.h
// and prometheus_text.h have the others.
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

// Returns the text of a cell as the formats csv and value show it: the value, or what a report of ids
// or groups has instead.
const std::string& shownText(const Report& report, const Entry& entry);

// Returns one object with a line for each entry or, if there are several gateways, an array of them.
std::string renderJson(const Reports& reports, bool isArray);
// Returns a line for each report.
std::string renderJsonLines(const Reports& reports);
// Returns a line for each entry.
std::string renderCsv(const Reports& reports, bool withHeading);
std::string renderValues(const Reports& reports);

}  // namespace zebtool

#endif  // ZEBSTAT_REPORT_H
