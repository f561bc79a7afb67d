// --format prometheus needs the Prometheus libraries. Those would double the start-up time, so they
// are linked into a second program, zebstat-prometheus, which zebstat executes for that format.
#ifndef ZEBSTAT_PROMETHEUS_H
#define ZEBSTAT_PROMETHEUS_H

#include <string>
#include <vector>

#include "report.h"

namespace zebtool {

// In zebstat: executes zebstat-prometheus with the same arguments, or throws a Fault. In
// zebstat-prometheus it does nothing.
void switchToPrometheus(char** argv);

// Returns the reports in the text format of Prometheus. In zebstat it throws.
std::string renderPrometheus(const std::vector<Report>& reports);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_H
