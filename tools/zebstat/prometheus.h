// What needs the Prometheus libraries. They double the start-up time, so they are linked into a
// second program, zebstat-prometheus, which zebstat executes when it needs them.
#ifndef ZEBSTAT_PROMETHEUS_H
#define ZEBSTAT_PROMETHEUS_H

#include <string>

#include "options.h"
#include "report.h"

namespace zebtool {

// In zebstat: executes zebstat-prometheus with the same arguments, or throws a Fault. There: a
// no-op.
void switchToPrometheus(char** argv);

std::string renderPrometheus(const Report& report);

// Returns the exit code.
int serveMetrics(const Options& options);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_H
