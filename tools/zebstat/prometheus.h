// The parts that need the Prometheus libraries. Those would double the start-up time, so they are
// linked into a second program, zebstat-prometheus, which zebstat executes for these parts.
#ifndef ZEBSTAT_PROMETHEUS_H
#define ZEBSTAT_PROMETHEUS_H

#include <string>

#include "options.h"
#include "report.h"

namespace zebtool {

// In zebstat: executes zebstat-prometheus with the same arguments, or throws a Fault. In
// zebstat-prometheus it does nothing.
void switchToPrometheus(char** argv);

// Returns the report in the text format of Prometheus. In zebstat, this and serveMetrics() throw.
std::string renderPrometheus(const Report& report);

// Runs the exporter. Returns the exit code; throws a Fault as runExporter() does.
int serveMetrics(const Options& options);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_H
